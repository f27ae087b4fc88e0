// The deep verifier's shared state: one image under check, the gate every
// check goes through, and the facts that the section checks hand to the
// value walk (table counts, the root value section).
#ifndef VKT_VERIFY_H_
#define VKT_VERIFY_H_

#include "vkt/format.h"
#include "vkt/packed_array.h"

namespace vkt_internal {

// The value walk's steps, which run once per value, are folded into its
// loops: a call per container costs as much as the checks themselves.
#if defined(__GNUC__)
#define VKT_ALWAYS_INLINE __attribute__((always_inline))
#else
#define VKT_ALWAYS_INLINE
#endif

inline bool is_width_id(vkt_u32 id) {
  return id >= ID_UNSIGNED8 && id <= ID_UNSIGNED32;
}

// Bytes [begin, end) of an image.
struct byte_range {
  vkt_u32 begin;
  vkt_u32 end;
};

// A container on the value walk's stack.
struct ValueFrame {
  vkt_u32 pos;   // the container's id byte
  vkt_u32 area;  // first byte of its entity area
  bool records;  // version-1 object: offsets lead to (key, value) records
  unsigned_array offsets;
  vkt_u32 next;    // index of the next child
  vkt_u64 visits;  // values below it so far, each reference counted
  vkt_u32 height;  // deepest child container so far
  bool branch;     // a container among its children
};

class ImageVerifier {
 public:
  // `header` is the plain header (the image's own first bytes, or an opened
  // object's copy); `image` holds `inMemory` bytes of an image of
  // `imageSize` bytes. Stream payloads need not be in memory.
  ImageVerifier(const vkt_u8* header, const vkt_u8* image, vkt_u32 inMemory,
                vkt_u32 imageSize, const VKTVerifyLimits* limits,
                VKTVerifyReport* report);

  // `plainOnly` refuses a header whose flags still ask for a filter.
  bool run(bool plainOnly);
  // The header, sections and tables only: what every lookup reads before
  // it reaches a value.
  bool runTables(bool plainOnly);
  // The value at `pos` and everything below it, after runTables.
  bool runValue(vkt_u64 pos);
  // Its own bytes only (a container's arrays, a scalar's payload and tag),
  // after runTables.
  bool runStep(vkt_u64 pos);

 private:
  // The gate: records the first failure and answers false.
  bool fail(const char* reason, vkt_u64 offset,
            vkt_fault fault = VKT_FAULT_DAMAGED);
  bool require(bool ok, const char* reason, vkt_u64 offset,
               vkt_fault fault = VKT_FAULT_DAMAGED) {
    return ok || fail(reason, offset, fault);
  }
  // `length` bytes at image offset `offset` lie inside `r`.
  static bool within(byte_range r, vkt_u64 offset, vkt_u64 length) {
    return offset >= r.begin &&
           in_image(offset - r.begin, length, vkt_u64(r.end) - r.begin);
  }
  // A packed array at `at` whose ids are widths and whose elements all lie
  // inside `r`; sets up *a when it is.
  bool packedArray(byte_range r, vkt_u64 at, unsigned_array* a);

  bool checkTables(bool plainOnly, bool allStrings);
  bool checkHeader(bool plainOnly);
  bool checkSections();
  byte_range section(vkt_u32 s) const;
  bool checkSortedKeys();
  bool checkDoubleArrayKeys();
  bool checkKeyClimbs(const unsigned_array& check, const unsigned_array& tail);
  bool addKeyName(vkt_u64 length, vkt_u32 at);
  bool checkStrings(bool all);
  bool checkStringOffset(vkt_u32 tag);
  bool checkPayloadTable(vkt_u32 offsets, vkt_u32 sizes, vkt_u32 entity,
                         vkt_u32* count);
  bool failTruncated(const char* reason, vkt_u64 offset, vkt_u64 end);
  void report() const;
  void loadTables();

  // verify_values.cc
  bool checkValues();
  bool checkSubtree(vkt_u32 start);
  template <class Marks>
  bool checkValuesFrom(byte_range region, vkt_u32 start);
  template <class Marks>
  bool checkGraph(byte_range region, vkt_u32 start, Marks* marks);
  template <class Marks>
  bool countShared(byte_range region, vkt_u32 start, Marks* marks);
  bool checkScalar(byte_range region, vkt_u32 pos);
  bool checkMemberKeys(const unsigned_array& keys, vkt_u64 at);
  bool checkRecords(byte_range region, const ValueFrame& f);
  bool openContainer(byte_range region, vkt_u32 pos, ValueFrame* f,
                     bool checkKeys = true);
  bool nextChild(byte_range region, ValueFrame* f, vkt_u32* child);
  vkt_u32 leafCount(vkt_u32 pos) const;
  enum Scan { kFault, kDone, kContainer };
  template <bool kCheck>
  Scan scanChildren(byte_range region, ValueFrame* f, vkt_u32* child);
  bool addToParent(ValueFrame* parent, vkt_u64 visits, vkt_u32 height,
                   vkt_u32 pos);
  bool finishWalk(vkt_u64 visits, vkt_u32 height, vkt_u32 pos);

  const vkt_u8* mHeader;
  const vkt_u8* mImage;
  vkt_u32 mInMemory;
  vkt_u32 mImageSize;
  VKTVerifyLimits mLimits;
  VKTVerifyReport* mReport;

  vkt_u32 mVersion = 0;
  vkt_u32 mOffsets[SECTION_COUNT] = {};
  vkt_u32 mKeyCount = 0;
  vkt_u32 mStringCount = 0;
  unsigned_array mStringOffsets = {};
  vkt_u32 mStringEntitySize = 0;
  bool mStringsChecked = false;  // every offset, or each as it is reached
  vkt_u32 mStreamCount = 0;
  vkt_u32 mBStreamCount = 0;
  vkt_u64 mEnd = 0;              // end of the last stream payload
  bool mSharedBranches = false;  // pass one's counts are not the answer
  vkt_u64 mValues = 0;           // the walk's totals, for the report
  vkt_u32 mDepth = 0;
  vkt_u64 mKeyNames = 0;      // bytes of all names, against maxValues
  vkt_u64 mKeyNameBytes = 0;  // the same with one NUL each
};

// Inline: the value walk calls it once or twice per container.
// One pass over the array's head: ids, count, then count x width against
// what is left of the section. Fills *a as setup_unsigned_array would.
VKT_ALWAYS_INLINE inline bool ImageVerifier::packedArray(byte_range r,
                                                         vkt_u64 at,
                                                         unsigned_array* a) {
  if (!require(within(r, at, 2), "packed array outside its section", at)) {
    return false;
  }
  const vkt_u8* p = mImage + at;
  const vkt_u64 room = r.end - at;
  if (!require(is_width_id(p[0]), "packed array count id", at)) return false;
  const vkt_u32 head = p[0] - (UNSIGNED_ID_BIAS - 2);  // both ids and count
  if (!require(head <= room, "packed array outside its section", at) ||
      !require(is_width_id(p[head - 1]), "packed array width id",
               at + head - 1)) {
    return false;
  }
  a->valueNum = parse_unsigned(p);
  a->valueSize = p[head - 1] - UNSIGNED_ID_BIAS;
  a->values = p + head;
  vkt_u64 length = head;
  if (!require(checked_mul_add(a->valueNum, a->valueSize, room, &length),
               "packed array outside its section", at)) {
    return false;
  }
  a->size = vkt_u32(length);
  return true;
}

}  // namespace vkt_internal

#endif  // VKT_VERIFY_H_
