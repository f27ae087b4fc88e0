// The double-array key table built from the sorted keys, first fit.
//
//   base (packed) | check (packed) | tail (packed)
//
// Each node's children are placed once, with all of them known, at the
// lowest base that leaves every child a free position; nothing is ever
// relocated. Keys are walked depth first with children in ascending code
// (the terminator 0 first), so leaves meet the keys in table order and a
// leaf's key tag is its key's place in the table. The same keys always give
// the same bytes.
#include <algorithm>
#include <string_view>
#include <vector>

#include "vkt/packed_array.h"

namespace {

const vkt_u32 CODE_COUNT = 256;  // a code is a key byte, 0 the terminator

typedef std::vector<std::string_view>::const_iterator key_iterator;

// The key's byte at `index`; the terminator 0 when the key ends there (every
// key is followed by a NUL in memory).
inline vkt_u32 code_at(key_iterator key, vkt_u32 index) {
  return vkt_u8(key->data()[index]);
}

class DABuilder {
 public:
  DABuilder()
      : base(1, 0),
        check(1, 0),
        unused(1, false),
        nextFree(1, 1),
        unusedStartIndex(CODE_COUNT, 1) {}

  void build(key_iterator tableBegin, key_iterator tableEnd, vkt_u32 index,
             vkt_u32 x);

  std::vector<vkt_u32> base;
  std::vector<vkt_u32> check;
  std::vector<vkt_u32> tail;

 private:
  struct CodeRun {
    vkt_u32 code;
    key_iterator begin, end;
  };

  // The smallest free position at or after p; a position beyond the end is
  // free. nextFree points from a taken position toward a later candidate and
  // is compressed on the way, so runs of taken positions are skipped in
  // nearly constant time. The answer equals a scan of `unused`.
  vkt_u32 firstFree(vkt_u32 p) {
    vkt_u32 q = p;
    while (q < unused.size() && nextFree[q] != q) q = nextFree[q];
    while (p < unused.size() && nextFree[p] != p) {
      const vkt_u32 next = nextFree[p];
      nextFree[p] = q;
      p = next;
    }
    return q;
  }

  // The lowest base from unusedStartIndex[code] on whose position for
  // `code` is free; remembered as the start of the next search.
  vkt_u32 search(vkt_u32 code) {
    const vkt_u32 y = firstFree(unusedStartIndex[code] + code) - code;
    unusedStartIndex[code] = y;
    return y;
  }

  void grow(vkt_u32 newSize) {
    const vkt_u32 oldSize = vkt_u32(unused.size());
    if (oldSize >= newSize) return;
    base.resize(newSize, 0);
    check.resize(newSize, 0);
    unused.resize(newSize, true);
    nextFree.resize(newSize);
    for (vkt_u32 p = oldSize; p < newSize; ++p) nextFree[p] = p;
  }

  void take(vkt_u32 position, vkt_u32 parent) {
    check[position] = parent;
    unused[position] = false;
    nextFree[position] = position + 1;
  }

  bool isFree(vkt_u32 position) const {
    return position >= unused.size() || unused[position];
  }

  void leaf(vkt_u32 y) {
    base[y] = vkt_u32(tail.size());
    tail.push_back(y);
  }

  std::vector<bool> unused;
  std::vector<vkt_u32> nextFree;
  std::vector<vkt_u32> unusedStartIndex;
};

void DABuilder::build(key_iterator tableBegin, key_iterator tableEnd,
                      vkt_u32 index, vkt_u32 x) {
  if (tableBegin == tableEnd) return;  // a table without keys
  const key_iterator prevEnd = std::prev(tableEnd);

  // A stretch without branches: one code for the whole run, no recursion.
  while (code_at(tableBegin, index) == code_at(prevEnd, index)) {
    const vkt_u32 code = code_at(tableBegin, index);
    const vkt_u32 y = search(code);
    grow(y + code + 1);
    base[x] = y;
    take(y + code, x);
    if (code == 0) {  // the run is one key, and this its leaf
      leaf(y);
      return;
    }
    x = y + code;
    ++index;
  }

  // A branch. The run is sorted and shares its first `index` bytes, so each
  // code's keys form one stretch and the codes come in ascending order.
  std::vector<CodeRun> runs;
  for (key_iterator key = tableBegin; key != tableEnd; ++key) {
    const vkt_u32 code = code_at(key, index);
    if (runs.empty() || runs.back().code != code) {
      runs.push_back(CodeRun{code, key, key});
    }
    runs.back().end = std::next(key);
  }

  vkt_u32 startY = 1;
  for (const CodeRun& run : runs) startY = std::max(startY, search(run.code));

  // First fit: the lowest base from startY at which every child is free.
  // Only bases whose first child is free can fit, so the search jumps
  // from one such base to the next.
  const vkt_u32 firstCode = runs.front().code;
  vkt_u32 y = startY;
  for (;;) {
    y = firstFree(y + firstCode) - firstCode;
    bool found = true;
    for (const CodeRun& run : runs) {
      if (!isFree(y + run.code)) {
        found = false;
        break;
      }
    }
    if (found) break;
    ++y;
  }

  grow(y + runs.back().code + 1);
  base[x] = y;
  for (const CodeRun& run : runs) take(y + run.code, x);
  for (const CodeRun& run : runs) {
    if (run.code == 0) {
      leaf(y);
    } else {
      build(run.begin, run.end, index + 1, y + run.code);
    }
  }
}

}  // namespace

void VKTWriterObject::createDAImage(const std::vector<std::string_view>& keys,
                                    vkt_binary* image) {
  DABuilder builder;
  builder.build(keys.begin(), keys.end(), 0, 0);
  concat_unsigned_array(*image, builder.base);
  concat_unsigned_array(*image, builder.check);
  concat_unsigned_array(*image, builder.tail);
}
