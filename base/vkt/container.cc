// Arrays and objects, read in place.
//
//   array:              ID_ARRAY  | offset array | entity area
//   object (v2 and up): ID_OBJECT | key array | offset array | entity area
//   object (v1):        ID_OBJECT | offset array | records (key tag, value)
//
// Offsets count from the start of the container's own entity area, so an
// encoded value means the same wherever it lies and equal elements may share
// one encoding. Key arrays ascend strictly, which a binary search relies on.
//
// Guards: every operation (and every walk) answers as for an empty container on
// the null view and on a view of another kind (one test of the id byte), and an
// index at or beyond size() gives the null view (one compare with the count
// already read). The image's bytes themselves are trusted.
#include "vkt/format.h"
#include "vkt/key_state.h"
#include "vkt/packed_array.h"

namespace {

bool is_container(const VKTObject* obj, const vkt_u8* p) {
  return obj != nullptr && (*p == ID_ARRAY || *p == ID_OBJECT);
}

// Binary search of an object's strictly ascending key tags: the index whose
// tag is `tag`, or `count` when there is none.
template <typename TagAt>
vkt_u32 search_tag(vkt_u32 count, vkt_u32 tag, TagAt tagAt) {
  vkt_u32 begin = 0;
  vkt_u32 end = count;
  while (begin < end) {
    const vkt_u32 mid = (begin + end) / 2;
    const vkt_u32 objectTag = tagAt(mid);
    if (objectTag == tag) return mid;
    if (objectTag < tag) {
      begin = mid + 1;
    } else {
      end = mid;
    }
  }
  return count;
}

// search_tag over a key array; the width is picked once, so the search loop
// reads without a switch.
#if defined(__GNUC__) || defined(__clang__)
__attribute__((noinline))
#endif
vkt_u32
search_keys(const vkt_u8* keys, vkt_u32 count, vkt_u32 width, vkt_u32 tag) {
  return with_width(width, [&](auto w) {
    return search_tag(count, tag, [&](vkt_u32 i) {
      return read_packed<decltype(w)::value>(keys, i);
    });
  });
}

// An array's width for the walks, which index with it: a width id outside the
// family reads every entry as 0, as get_unsigned_array does.
vkt_u32 usable_width(const unsigned_array& a) {
  return a.valueSize <= 4 ? a.valueSize : 0;
}

}  // namespace

vkt_size VKTValue::size() const {
  static_assert(
      kArrayId == ID_ARRAY && kObjectId == ID_OBJECT &&
          kStringTagId == ID_STRING_TAG8 && kDoubleId == ID_DOUBLE_FLOAT &&
          kTrueId == ID_TRUE && kInteger0Id == ID_INTEGER0 &&
          ID_INTEGER32 == kInteger0Id + 4 && ID_FALSE == kTrueId + 1 &&
          kUnsignedIdBias == UNSIGNED_ID_BIAS,
      "the inline walks and at(index) read containers as the "
      "library writes them");
  if (!is_container(mObj, mPtr)) return 0;
  return parse_unsigned(mPtr + 1);  // the first array's count
}

// The search behind the guess tests, and the lookups that hold no guess.
bool VKTValue::searchTag(vkt_u32 tag, std::atomic<vkt_u32>* guess,
                         VKTValue* value) const {
  if (mObj->mVersion == 1) return findRecordTag(tag, value);
  // ID_OBJECT | key array | offset array | member values, the heads read as
  // the walks read them.
  vkt_u32 count, width;
  const vkt_u8* keys = packedHead(mPtr + 1, &count, &width);
  const vkt_u32 found = search_keys(keys, count, width, tag);
  if (found == count) return false;
  if (guess != nullptr) guess->store(found, std::memory_order_relaxed);
  *value = memberAt(keys, count, width, found);
  return true;
}

VKTValue VKTValue::at(const char* key, vkt_u32* hint) const {
  VKTValue value;
  findMember(key, &value, hint);
  return value;
}

bool VKTValue::isMember(const char* key, vkt_u32* hint) const {
  VKTValue value;
  return findMember(key, &value, hint);
}

bool VKTValue::findMember(const char* key, VKTValue* value,
                          vkt_u32* hint) const {
  if (mObj == nullptr || *mPtr != ID_OBJECT) return false;
  // A name that no object of the image uses is turned away by the key table.
  vkt_u32 tag;
  std::atomic<vkt_u32>* guess = nullptr;
  if (!mObj->findKey(key, &tag, hint, &guess)) return false;
  return guess != nullptr ? findTag(tag, guess, value)
                          : searchTag(tag, nullptr, value);
}

bool VKTValue::findMember(const VKTKey& key, VKTValue* value) const {
  if (mObj == nullptr || *mPtr != ID_OBJECT || !key.isPresent()) return false;
  return findTag(key.tag(), &key.mGuess, value);
}

// A version-1 object: the first array holds offsets of records that open
// with the key tag.
bool VKTValue::findRecordTag(vkt_u32 tag, VKTValue* value) const {
  unsigned_array records;
  setup_unsigned_array(&records, mPtr + 1);
  const vkt_u8* base = mPtr + 1 + records.size;
  auto record = [&](vkt_u32 i) {
    return base + get_unsigned_array(&records, i);
  };
  const vkt_u32 found = search_tag(
      records.valueNum, tag, [&](vkt_u32 i) { return parse_key(record(i)); });
  if (found == records.valueNum) return false;
  const vkt_u8* p = record(found);
  *value = VKTValue(mObj, p + get_value_size(p));
  return true;
}

void VKTValue::getMemberNames(vkt_members* result) const {
  result->clear();
  if (mObj == nullptr || *mPtr != ID_OBJECT) return;
  unsigned_array a;
  setup_unsigned_array(&a, mPtr + 1);
  const vkt_u8* base = mPtr + 1 + a.size;
  result->resize(a.valueNum);
  if (mObj->mVersion != 1) {
    mObj->getKeysInto(a.values, usable_width(a), a.valueNum, result->data());
    return;
  }
  for (vkt_u32 i = 0; i < a.valueNum; ++i) {
    mObj->getKeyInto(parse_key(base + get_unsigned_array(&a, i)),
                     &(*result)[i]);
  }
}

// ---------------------------------------------------------------------------
// Walks by position. A range reads the container's array headers once; each
// step then reads one entry of each array it walks.
// ---------------------------------------------------------------------------

VKTElementRange VKTValue::recordElements() const {
  VKTElementRange range;
  unsigned_array records;
  setup_unsigned_array(&records, mPtr + 1);
  VKTElementIterator& it = range.mBegin;
  it.mObj = mObj;
  it.mOffsets = records.values;
  it.mWidth = usable_width(records) + VKTElementIterator::kRecords;
  it.mEntity = mPtr + 1 + records.size;
  range.mCount = records.valueNum;
  return range;
}

const vkt_u8* VKTElementIterator::recordValue(const vkt_u8* entity,
                                              const vkt_u8* offsets,
                                              vkt_u32 width, vkt_u32 index) {
  const vkt_u8* p =
      entity + read_packed(offsets, width & (kRecords - 1), index);
  return p + get_value_size(p);
}

VKTMemberRange VKTValue::recordMembers() const {
  VKTMemberRange range;
  range.mValues = recordElements();  // the key tags open the records
  return range;
}

// A step whose name no decoded block holds: rebuilt from the key table, or
// for version 1 (whose records open with the key tag) taken whole; a block
// decoded since the walk began serves too.
VKTMember VKTMemberIterator::rebuilt(VKTElementIterator values,
                                     const vkt_u8* keys, vkt_u32 keyWidth,
                                     vkt_internal::NameScratch* scratch) {
  const vkt_u32 i = values.mIndex;
  const VKTObject* obj = values.mObj;
  VKTMember member;
  member.keyTag =
      values.records()
          ? parse_key(values.mEntity +
                      read_packed(values.mOffsets, values.entryWidth(), i))
          : read_packed(keys, keyWidth, i);
  member.value = *values;
  if (obj->hasKeyNames()) {
    member.name = obj->keyName(member.keyTag);
  } else if (values.records()) {
    obj->getKeyInto(member.keyTag, &scratch->longName);
    member.name = scratch->longName;
  } else {
    member.name = obj->rebuildMemberName(scratch, member.keyTag);
  }
  return member;
}
