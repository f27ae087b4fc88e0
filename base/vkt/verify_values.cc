// VKTObject::verify, second half: the walk over every value reachable from
// the root.
//
// A child always lies behind its container's id byte (its offset counts from
// the entity area, which follows the container's arrays), so the values form
// a graph without cycles whose edges lead to higher positions. The walk is
// depth-first with an explicit stack that never holds more than maxDepth
// containers. A container is checked once: when it is reached again, its
// memo (values below it, counting shared ones each time, and its height)
// stands in for another walk, so the cost is linear in distinct values.
// Scalars are checked wherever they are reached, in constant time each.
#include <memory>
#include <new>  // bad_alloc
#include <vector>

#include "vkt/verify.h"

namespace vkt_internal {

namespace {

struct Frame {
  vkt_u32 pos;   // the container's id byte
  vkt_u32 area;  // first byte of its entity area
  bool records;  // version-1 object: offsets lead to (key, value) records
  unsigned_array offsets;
  vkt_u32 next;    // index of the next child
  vkt_u64 visits;  // values below it so far, each reached one counted
  vkt_u32 height;  // deepest child container so far
};

// Memo of a finished container: visits in the low 56 bits, height above.
const int kHeightShift = 56;

bool is_container_id(vkt_u32 id) { return id == ID_ARRAY || id == ID_OBJECT; }

bool is_key_tag_id(vkt_u32 id) {
  return id >= ID_KEY_TAG8 && id <= ID_KEY_TAG32;
}

}  // namespace

bool ImageVerifier::checkValues() {
  const byte_range region = section(SECTION_ROOT_VALUE);
  const vkt_u32 regionSize = region.end - region.begin;
  // Written before it is read: a memo is read only where `done` is set.
  // The library throws nothing, so a failed allocation is a refusal.
  std::unique_ptr<vkt_u64[]> memo;
  try {
    memo.reset(new vkt_u64[regionSize == 0 ? 1 : regionSize]);
  } catch (const std::bad_alloc&) {
    return fail("no memory for the value memo", region.begin);
  }
  std::vector<vkt_u64> done(regionSize / 64 + 1, 0);
  // Frames are filled in place: a frame built aside and copied in costs a
  // stalled store forward per container.
  std::vector<Frame> stack(mLimits.maxDepth + 1);
  size_t depth = 0;  // frames in use
  const vkt_u64 maxValues = mLimits.maxValues;

  // A scalar: a value id, its payload inside the section, its tag below
  // its table's count.
  auto scalar = [&](vkt_u32 pos, vkt_u32 id) {
    const vkt_u32 size = sIdValueSizeTable[id_of(mImage + pos)];
    if (!require(size != 0, "not a value id", pos) ||
        !require(within(region, pos, size), "value outside the value section",
                 pos)) {
      return false;
    }
    const vkt_u8* p = mImage + pos;
    switch (sIdTypeTable[id]) {
      case TYPE_STRING:
        return require(parse_string(p) < mStringCount, "string tag", pos);
      case TYPE_STREAM:
        return require(parse_stream(p) < mStreamCount, "stream tag", pos);
      case TYPE_BSTREAM:
        return require(parse_bstream(p) < mBStreamCount, "bstream tag", pos);
      default:
        return true;
    }
  };

  // A container: its arrays inside the section, member keys ascending and
  // below the key count, version-1 records well-formed. Pushes its frame.
  auto open = [&](vkt_u32 pos) {
    Frame& f = stack[depth++];
    f.pos = pos;
    f.next = 0;
    f.visits = 0;
    f.height = 0;
    vkt_u64 at = vkt_u64(pos) + 1;
    if (mImage[pos] == ID_OBJECT && mVersion != 1) {
      unsigned_array keys;
      if (!packedArray(region, at, &keys)) return false;
      for (vkt_u32 i = 0, previous = 0; i < keys.valueNum; ++i) {
        const vkt_u32 tag = get_unsigned_array(&keys, i);
        if (!require(tag < mKeyCount, "member key tag", at) ||
            !require(i == 0 || previous < tag, "member keys not ascending",
                     at)) {
          return false;
        }
        previous = tag;
      }
      at += keys.size;
      if (!packedArray(region, at, &f.offsets) ||
          !require(f.offsets.valueNum == keys.valueNum,
                   "member key and offset arrays differ", at)) {
        return false;
      }
    } else if (!packedArray(region, at, &f.offsets)) {
      return false;
    }
    f.area = vkt_u32(at + f.offsets.size);
    f.records = mImage[pos] == ID_OBJECT && mVersion == 1;
    vkt_u32 previous = 0;
    for (vkt_u32 i = 0; f.records && i < f.offsets.valueNum; ++i) {
      const vkt_u64 rec = vkt_u64(f.area) + get_unsigned_array(&f.offsets, i);
      if (!require(within(region, rec, 1) && is_key_tag_id(mImage[rec]),
                   "member record", f.area) ||
          !require(within(region, rec, get_value_size(mImage + rec)),
                   "member record", rec)) {
        return false;
      }
      const vkt_u32 tag = parse_key(mImage + rec);
      if (!require(tag < mKeyCount, "member key tag", rec) ||
          !require(i == 0 || previous < tag, "member keys not ascending",
                   rec)) {
        return false;
      }
      previous = tag;
    }
    return true;
  };

  // Adds a finished value to the container on top of the stack.
  auto add = [&](vkt_u64 visits, vkt_u32 height, vkt_u32 pos) {
    Frame& top = stack[depth - 1];
    top.visits += visits;
    if (height > top.height) top.height = height;
    return require(top.visits <= maxValues, "too many values (sharing)", pos);
  };

  const vkt_u32 root = region.begin;
  if (!require(regionSize != 0, "empty root value", root)) return false;
  if (!is_container_id(mImage[root])) {
    mValues = 1;
    return scalar(root, mImage[root]);
  }
  if (!require(mLimits.maxDepth >= 1, "nesting too deep", root) ||
      !open(root)) {
    return false;
  }
  for (;;) {
    Frame& top = stack[depth - 1];
    if (top.next == top.offsets.valueNum) {
      const vkt_u64 visits = top.visits + 1;
      const vkt_u32 height = top.height + 1;
      const vkt_u32 pos = top.pos;
      memo[pos - root] = visits | vkt_u64(height) << kHeightShift;
      done[(pos - root) / 64] |= vkt_u64(1) << ((pos - root) % 64);
      if (--depth == 0) {
        mValues = visits;
        mDepth = height;
        return require(visits <= maxValues, "too many values (sharing)", pos);
      }
      if (!add(visits, height, pos)) return false;
      continue;
    }
    vkt_u64 child =
        vkt_u64(top.area) + get_unsigned_array(&top.offsets, top.next++);
    if (top.records) child += get_value_size(mImage + child);
    if (!require(within(region, child, 1), "child outside the value section",
                 top.pos)) {
      return false;
    }
    const vkt_u32 pos = vkt_u32(child);
    const vkt_u32 id = mImage[pos];
    if (!is_container_id(id)) {
      if (!scalar(pos, id) || !add(1, 0, pos)) return false;
      continue;
    }
    const vkt_u32 index = pos - root;
    if (done[index / 64] >> (index % 64) & 1) {
      const vkt_u32 height = vkt_u32(memo[index] >> kHeightShift);
      if (!require(depth + height <= mLimits.maxDepth, "nesting too deep",
                   pos) ||
          !add(memo[index] & ((vkt_u64(1) << kHeightShift) - 1), height, pos)) {
        return false;
      }
      continue;
    }
    if (!require(depth < mLimits.maxDepth, "nesting too deep", pos) ||
        !open(pos)) {
      return false;
    }
  }
}

}  // namespace vkt_internal
