// What the image harnesses share: decode, verify and, when verify accepts,
// a full walk in every way of opening the image.
#ifndef VKT_FUZZ_FUZZ_COMMON_H_
#define VKT_FUZZ_FUZZ_COMMON_H_

#include <cstdint>
#include <cstdlib>
#include <cstring>  // strcmp
#include <memory>

#include "full_walk.h"
#include "vkt.h"
#include "vkt/format.h"

// Inputs above this size only slow the search down.
const size_t kMaxInput = 1 << 16;

// Clears the filter bits and seals the header checksum of a mutated image,
// so that mutations get past decode and reach the sections.
inline void seal_header(vkt_u8* p, size_t size) {
  if (size < HEADER_SIZE) return;
  const vkt_u32 version = read_16bit_unsigned(p + HEADER_OFST_VERSION);
  p[HEADER_OFST_FLAGS] &= vkt_u8(~FLAGS_FILTER_BITS);
  write_32bit_unsigned(p + HEADER_OFST_CHECKSUM, header_checksum(p, version));
}

// The checked path on the same bytes: after verifyTables, every step the
// walk takes is checked before it is read. It must agree with verify: all
// steps pass on an image verify accepts, and the root's whole check answers
// as verify does, but for the offsets of strings that no value uses, which
// only verify checks (`whole` is verify's answer, `reason` its reason).
inline void checked_path_walk(const vkt_u8* p, size_t size, bool whole,
                              const char* reason) {
  if (!VKTObject::verifyTables(p, vkt_size(size))) {
    if (whole) std::abort();
    return;
  }
  VKTObject object(p, vkt_u32(size), VKT_ALLOC_REFER);
  full_walk::WalkState state;
  vkt_u64 sum = 0;
  const bool steps = full_walk::walk_checked(object.root(), &state, 0, &sum);
  if (whole && !steps) std::abort();
  const bool unusedString =
      std::strcmp(reason, "string offset outside the string entity") == 0;
  if (object.root().verify() != whole && !unusedString) std::abort();
}

inline void decode_verify_walk(vkt_u8* p, size_t size) {
  if (!VKTObject::decode(p, vkt_size(size))) return;
  VKTVerifyReport report;
  const bool whole = VKTObject::verify(p, vkt_size(size), &report);
  checked_path_walk(p, size, whole, report.reason);
  if (whole) full_walk::walk_image(p, vkt_size(size));
}

// The stream-backed open of the same bytes, checked by the object itself.
inline void stream_verify_walk(const vkt_u8* p, size_t size) {
  VKTObject streamed(new VKTMemoryReadStream(p, vkt_size(size)));
  if (streamed.verify()) full_walk::walk_object(&streamed);
}

#endif  // VKT_FUZZ_FUZZ_COMMON_H_
