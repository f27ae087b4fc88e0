// The library's one hash of a run of bytes: the writer's sharing and
// interning, and the reader's name index.
#ifndef VKT_HASH_BYTES_H_
#define VKT_HASH_BYTES_H_

#include <cstddef>
#include <cstring>

#include "vkttypes.h"

namespace vkt_internal {

// The high and low halves of a 64 x 64-bit product, folded: one multiply
// that mixes every bit of both words into every bit of the result.
inline vkt_u64 fold_multiply(vkt_u64 a, vkt_u64 b) {
  __extension__ typedef unsigned __int128 u128;
  const u128 product = u128(a) * b;
  return vkt_u64(product) ^ vkt_u64(product >> 64);
}

// A 64-bit hash of n bytes. Only equality of hashes is used (never their
// order), so the mixing just has to spread well, low bits included (the
// tables index by them). Sixteen bytes go into one multiply; the multiplies
// of a longer text are independent of each other, so a short image (a
// coordinate pair, a key) costs one or two of them in flight at once.
inline vkt_u64 hash_bytes(const void* data, size_t n) {
  const vkt_u64 k0 = 0x9E3779B97F4A7C15ull, k1 = 0xD6E8FEB86659FD93ull;
  const vkt_u64 k2 = 0xC2B2AE3D27D4EB4Full, k3 = 0x165667B19E3779F9ull;
  const unsigned char* p = static_cast<const unsigned char*>(data);
  auto word = [](const unsigned char* q) {
    vkt_u64 w;
    std::memcpy(&w, q, 8);
    return w;
  };
  vkt_u64 a = 0, b = 0;
  if (n >= 8) {
    // The first sixteen bytes and, from the 17th on, every sixteen bytes to
    // the last ones (read overlapping the ones before).
    a = word(p);
    b = word(p + (n >= 16 ? 8 : n - 8));
    vkt_u64 h = 0;
    for (size_t at = 16; at < n; at += 16) {
      const size_t from = at + 16 <= n ? at : n - 16;
      h ^= fold_multiply(word(p + from) ^ k2, word(p + from + 8) ^ k3 ^ at);
    }
    return fold_multiply(fold_multiply(a ^ k0, b ^ k1 ^ n) ^ h, k2 ^ n);
  }
  if (n >= 4) {
    vkt_u32 lo, hi;
    std::memcpy(&lo, p, 4);
    std::memcpy(&hi, p + n - 4, 4);
    a = lo;
    b = hi;
  } else if (n != 0) {  // an empty payload may have no pointer
    a = vkt_u64(p[0]) << 16 | vkt_u64(p[n / 2]) << 8 | p[n - 1];
  }
  return fold_multiply(fold_multiply(a ^ k0, b ^ k1 ^ n), k2 ^ n);
}

}  // namespace vkt_internal

#endif  // VKT_HASH_BYTES_H_
