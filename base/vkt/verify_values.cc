// VKTObject::verify, second half: the walk over every value reachable from a
// starting value (the root, for a whole image).
//
// A child always lies behind its container's id byte (its offset counts from
// the entity area, which follows the container's arrays), so the values form
// a graph without cycles whose edges lead to higher positions. Two passes,
// depth-first with an explicit stack that never holds more than maxDepth
// containers, keep the memory to a few bits per byte (verify_marks.h):
//
//   1. checkGraph checks every container when it is first reached and every
//      scalar wherever it is reached, marking containers reached again. A
//      container of scalars reached again counts from its own head (its
//      children and itself, height 1), which covers the sharing the writer
//      makes most: equal small arrays and objects. Unless a container that
//      holds containers is reached again, its counts are the answer.
//   2. countShared, only then, counts values as a walk over every reference
//      meets them and the depth through shared containers, remembering a
//      count for each shared container only.
//
// Both passes cost time linear in the distinct values.
#include <new>  // bad_alloc
#include <vector>

#include "vkt/verify.h"
#include "vkt/verify_marks.h"

namespace vkt_internal {

namespace {

bool is_container_id(vkt_u32 id) { return id == ID_ARRAY || id == ID_OBJECT; }

bool is_key_tag_id(vkt_u32 id) {
  return id >= ID_KEY_TAG8 && id <= ID_KEY_TAG32;
}

}  // namespace

// A scalar: a value id, its payload inside the section, its tag below its
// table's count.
VKT_ALWAYS_INLINE inline bool ImageVerifier::checkScalar(byte_range region,
                                                         vkt_u32 pos) {
  const vkt_u8* p = mImage + pos;
  const vkt_u32 size = sIdValueSizeTable[id_of(p)];
  if (!require(size != 0, "not a value id", pos) ||
      !require(within(region, pos, size), "value outside the value section",
               pos)) {
    return false;
  }
  switch (sIdTypeTable[*p]) {
    case TYPE_STRING:
      return require(parse_string(p) < mStringCount, "string tag", pos) &&
             (mStringsChecked || checkStringOffset(parse_string(p)));
    case TYPE_STREAM:
      return require(parse_stream(p) < mStreamCount, "stream tag", pos);
    case TYPE_BSTREAM:
      return require(parse_bstream(p) < mBStreamCount, "bstream tag", pos);
    default:
      return true;
  }
}

// An object's key array: tags below the key count, strictly ascending, as
// the binary search of a lookup needs them.
bool ImageVerifier::checkMemberKeys(const unsigned_array& keys, vkt_u64 at) {
  for (vkt_u32 i = 0, previous = 0; i < keys.valueNum; ++i) {
    const vkt_u32 tag = get_unsigned_array(&keys, i);
    if (!require(tag < mKeyCount, "member key tag", at) ||
        !require(i == 0 || previous < tag, "member keys not ascending", at)) {
      return false;
    }
    previous = tag;
  }
  return true;
}

// A version-1 object's offsets lead to (key tag, value) records: each key
// tag whole inside the section, below the key count and ascending.
bool ImageVerifier::checkRecords(byte_range region, const ValueFrame& f) {
  for (vkt_u32 i = 0, previous = 0; i < f.offsets.valueNum; ++i) {
    const vkt_u64 rec = vkt_u64(f.area) + get_unsigned_array(&f.offsets, i);
    if (!require(within(region, rec, 1) && is_key_tag_id(mImage[rec]),
                 "member record", f.area) ||
        !require(within(region, rec, get_value_size(mImage + rec)),
                 "member record", rec)) {
      return false;
    }
    const vkt_u32 tag = parse_key(mImage + rec);
    if (!require(tag < mKeyCount, "member key tag", rec) ||
        !require(i == 0 || previous < tag, "member keys not ascending", rec)) {
      return false;
    }
    previous = tag;
  }
  return true;
}

// A container's arrays lie inside the section and agree; fills *f. Without
// `checkKeys` member key tags are left to the lookups, which bound them.
VKT_ALWAYS_INLINE inline bool ImageVerifier::openContainer(byte_range region,
                                                           vkt_u32 pos,
                                                           ValueFrame* f,
                                                           bool checkKeys) {
  f->pos = pos;
  f->next = 0;
  f->visits = 0;
  f->height = 0;
  f->branch = false;
  f->records = mImage[pos] == ID_OBJECT && mVersion == 1;
  vkt_u64 at = vkt_u64(pos) + 1;
  if (mImage[pos] == ID_OBJECT && mVersion != 1) {
    unsigned_array keys;
    if (!packedArray(region, at, &keys) ||
        (checkKeys && !checkMemberKeys(keys, at))) {
      return false;
    }
    at += keys.size;
    if (!packedArray(region, at, &f->offsets) ||
        !require(f->offsets.valueNum == keys.valueNum,
                 "member key and offset arrays differ", at)) {
      return false;
    }
  } else if (!packedArray(region, at, &f->offsets)) {
    return false;
  }
  f->area = vkt_u32(at + f->offsets.size);
  return !f->records || checkRecords(region, *f);
}

// The position of the next child of *f, which lies inside the section.
bool ImageVerifier::nextChild(byte_range region, ValueFrame* f,
                              vkt_u32* child) {
  vkt_u64 at = vkt_u64(f->area) + get_unsigned_array(&f->offsets, f->next++);
  if (f->records) at += get_value_size(mImage + at);
  if (!require(within(region, at, 1), "child outside the value section",
               f->pos)) {
    return false;
  }
  *child = vkt_u32(at);
  return true;
}

// Takes the children of *f from f->next on, in one loop with the offsets'
// width fixed when compiling: scalars are counted (and with kCheck checked)
// where they stand, and the first container child stops the loop with its
// position in *child. Version-1 records take the general way.
template <bool kCheck>
ImageVerifier::Scan ImageVerifier::scanChildren(byte_range region,
                                                ValueFrame* f, vkt_u32* child) {
  if (f->records) {
    while (f->next < f->offsets.valueNum) {
      if (!nextChild(region, f, child)) return kFault;
      if (is_container_id(mImage[*child])) return kContainer;
      if (kCheck && !checkScalar(region, *child)) return kFault;
      ++f->visits;
    }
    return kDone;
  }
  return with_width(f->offsets.valueSize, [&](auto width) {
    constexpr vkt_u32 kWidth = decltype(width)::value;
    const vkt_u8* offsets = f->offsets.values;
    const vkt_u32 count = f->offsets.valueNum;
    Scan result = kDone;
    vkt_u32 i = f->next;
    vkt_u64 scalars = 0;
    for (; i < count; ++i) {
      // Children follow their container, so only the end can be passed.
      const vkt_u64 at = vkt_u64(f->area) + read_packed<kWidth>(offsets, i);
      if (kCheck && at >= region.end) {
        fail("child outside the value section", f->pos);
        result = kFault;
        break;
      }
      if (is_container_id(mImage[at])) {
        *child = vkt_u32(at);
        result = kContainer;
        ++i;
        break;
      }
      if (kCheck && !checkScalar(region, vkt_u32(at))) {
        result = kFault;
        break;
      }
      ++scalars;
    }
    f->next = i;
    f->visits += scalars;
    return result;
  });
}

// The children of the checked container at `pos`: its offsets' count.
vkt_u32 ImageVerifier::leafCount(vkt_u32 pos) const {
  const vkt_u8* p = mImage + pos + 1;
  unsigned_array a;
  setup_unsigned_array(&a, p);
  if (mImage[pos] == ID_OBJECT && mVersion != 1) {
    setup_unsigned_array(&a, p + a.size);  // past the keys
  }
  return a.valueNum;
}

// Adds a finished value to the container below it on the stack.
bool ImageVerifier::addToParent(ValueFrame* parent, vkt_u64 visits,
                                vkt_u32 height, vkt_u32 pos) {
  parent->visits += visits;
  if (height > parent->height) parent->height = height;
  return require(parent->visits <= mLimits.maxValues,
                 "too many values (sharing)", pos, VKT_FAULT_LIMIT);
}

bool ImageVerifier::finishWalk(vkt_u64 visits, vkt_u32 height, vkt_u32 pos) {
  mValues = visits;
  mDepth = height;
  return require(visits <= mLimits.maxValues, "too many values (sharing)", pos,
                 VKT_FAULT_LIMIT);
}

// Pass one: checks each container once and each scalar where it is reached.
template <class Marks>
bool ImageVerifier::checkGraph(byte_range region, vkt_u32 start, Marks* marks) {
  std::vector<ValueFrame> stack(mLimits.maxDepth + 1);
  marks->reach(start - region.begin);
  if (!require(mLimits.maxDepth >= 1, "nesting too deep", start,
               VKT_FAULT_LIMIT) ||
      !openContainer(region, start, &stack[0])) {
    return false;
  }
  size_t depth = 1;  // frames in use
  for (;;) {
    ValueFrame& top = stack[depth - 1];
    vkt_u32 pos;
    const Scan scan = scanChildren<true>(region, &top, &pos);
    if (scan == kFault ||
        !require(top.visits <= mLimits.maxValues, "too many values (sharing)",
                 top.pos, VKT_FAULT_LIMIT)) {
      return false;
    }
    if (scan == kDone) {
      const vkt_u64 visits = top.visits + 1;
      const vkt_u32 height = top.height + 1;
      if (top.branch) marks->setBranch(top.pos - region.begin);
      if (--depth == 0) return finishWalk(visits, height, top.pos);
      if (!addToParent(&stack[depth - 1], visits, height, top.pos)) {
        return false;
      }
      continue;
    }
    top.branch = true;
    if (!require(depth < mLimits.maxDepth, "nesting too deep", pos,
                 VKT_FAULT_LIMIT)) {
      return false;
    }
    // A container reached again was checked already. One of scalars counts
    // from its head; one holding containers leaves the count to pass two.
    if (!marks->reach(pos - region.begin)) {
      if (marks->branch(pos - region.begin)) {
        mSharedBranches = true;
      } else if (!addToParent(&top, 1 + leafCount(pos), 1, pos)) {
        return false;
      }
      continue;
    }
    if (!openContainer(region, pos, &stack[depth++])) return false;
  }
}

// Pass two: every reference counted, each shared container walked once and
// then stood in for by its memo. Everything read was checked by pass one.
template <class Marks>
bool ImageVerifier::countShared(byte_range region, vkt_u32 start,
                                Marks* marks) {
  std::vector<ValueFrame> stack(mLimits.maxDepth + 1);
  openContainer(region, start, &stack[0], false);
  size_t depth = 1;
  for (;;) {
    ValueFrame& top = stack[depth - 1];
    vkt_u32 pos;
    const Scan scan = scanChildren<false>(region, &top, &pos);
    if (!require(top.visits <= mLimits.maxValues, "too many values (sharing)",
                 top.pos, VKT_FAULT_LIMIT)) {
      return false;
    }
    if (scan == kDone) {
      const vkt_u64 visits = top.visits + 1;
      const vkt_u32 height = top.height + 1;
      const vkt_u32 index = top.pos - region.begin;
      if (marks->shared(index))
        marks->setMemo(index, make_memo(visits, height));
      if (--depth == 0) return finishWalk(visits, height, top.pos);
      if (!addToParent(&stack[depth - 1], visits, height, top.pos)) {
        return false;
      }
      continue;
    }
    const vkt_u32 index = pos - region.begin;
    const vkt_u64 memo = marks->shared(index) ? marks->memo(index) : 0;
    if (memo != 0) {
      if (!require(depth + memo_height(memo) <= mLimits.maxDepth,
                   "nesting too deep", pos, VKT_FAULT_LIMIT) ||
          !addToParent(&top, memo_visits(memo), memo_height(memo), pos)) {
        return false;
      }
      continue;
    }
    if (!require(depth < mLimits.maxDepth, "nesting too deep", pos,
                 VKT_FAULT_LIMIT)) {
      return false;
    }
    openContainer(region, pos, &stack[depth++], false);
  }
}

template <class Marks>
bool ImageVerifier::checkValuesFrom(byte_range region, vkt_u32 start) {
  if (!require(within(region, start, 1), "value outside the value section",
               start)) {
    return false;
  }
  if (!is_container_id(mImage[start])) {
    mValues = 1;
    mDepth = 0;
    return checkScalar(region, start);
  }
  Marks marks;
  if (!require(marks.init(region.end - region.begin),
               "no memory for the value walk", start, VKT_FAULT_LIMIT) ||
      !checkGraph(region, start, &marks)) {
    return false;
  }
  if (!mSharedBranches) return true;
  return require(marks.indexShared(), "no memory for the value walk", start,
                 VKT_FAULT_LIMIT) &&
         countShared(region, start, &marks);
}

// The library throws nothing: memory that cannot be had is a refusal.
bool ImageVerifier::checkValues() {
  const byte_range region = section(SECTION_ROOT_VALUE);
  if (!require(region.end != region.begin, "empty root value", region.begin)) {
    return false;
  }
  try {
    return checkValuesFrom<SectionMarks>(region, region.begin);
  } catch (const std::bad_alloc&) {
    return fail("no memory for the value walk", region.begin, VKT_FAULT_LIMIT);
  }
}

// The root's subtree is the whole section, whose dense marks cost less than
// hash tables; any other value's may be a small part of it.
bool ImageVerifier::checkSubtree(vkt_u32 start) {
  const byte_range region = section(SECTION_ROOT_VALUE);
  try {
    if (start == region.begin) {
      return checkValuesFrom<SectionMarks>(region, start);
    }
    return checkValuesFrom<SparseMarks>(region, start);
  } catch (const std::bad_alloc&) {
    return fail("no memory for the value walk", start, VKT_FAULT_LIMIT);
  }
}

// The checked path's entry points (verify.cc has the tables' part).
bool ImageVerifier::runStep(vkt_u64 pos) {
  loadTables();
  const byte_range region = section(SECTION_ROOT_VALUE);
  if (!require(within(region, pos, 1), "value outside the value section",
               pos)) {
    return false;
  }
  const vkt_u32 at = vkt_u32(pos);
  if (mImage[at] != ID_ARRAY && mImage[at] != ID_OBJECT) {
    return checkScalar(region, at);
  }
  ValueFrame frame;
  return openContainer(region, at, &frame, false);
}

bool ImageVerifier::runValue(vkt_u64 pos) {
  loadTables();
  const byte_range region = section(SECTION_ROOT_VALUE);
  if (!require(within(region, pos, 1), "value outside the value section",
               pos) ||
      !checkSubtree(vkt_u32(pos))) {
    return false;
  }
  report();
  return true;
}

}  // namespace vkt_internal
