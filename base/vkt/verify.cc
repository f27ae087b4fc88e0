// VKTObject::verify, first half: the header, the section offsets, every table
// of the image (key table, strings, streams, bstreams) and the entry points.
// The value walk is in verify_values.cc.
//
// Every check goes through ImageVerifier::require, and every bound through
// in_image (format.h), which forms no sum that can wrap. Once a check has
// passed, the reader's own helpers (setup_unsigned_array, parse_*) are safe
// on those bytes and are used as they are.
#include "vkt/verify.h"

#include <cstring>  // memchr, memcmp
#include <vector>

namespace vkt_internal {

namespace {

// Keeps every sum of visit counts far below 2^64.
const vkt_u64 kMaxValuesCap = vkt_u64(1) << 56;

vkt_u32 field_of(const vkt_u8* header, vkt_u32 field) {
  return read_32bit_unsigned(header + field);
}

}  // namespace

ImageVerifier::ImageVerifier(const vkt_u8* header, const vkt_u8* image,
                             vkt_u32 inMemory, vkt_u32 imageSize,
                             const VKTVerifyLimits* limits,
                             VKTVerifyReport* report)
    : mHeader(header),
      mImage(image),
      mInMemory(inMemory),
      mImageSize(imageSize),
      mReport(report) {
  if (limits != nullptr) mLimits = *limits;
  if (mLimits.maxDepth > VKT_MAX_DEPTH) mLimits.maxDepth = VKT_MAX_DEPTH;
  if (mLimits.maxValues == 0) {
    mLimits.maxValues = VKTVerifyLimits::defaultMaxValues(imageSize);
  }
  if (mLimits.maxValues > kMaxValuesCap) mLimits.maxValues = kMaxValuesCap;
  if (mReport != nullptr) *mReport = VKTVerifyReport();
}

bool ImageVerifier::fail(const char* reason, vkt_u64 offset, vkt_fault fault) {
  if (mReport != nullptr) {
    mReport->reason = reason;
    mReport->offset = vkt_size(offset);
    mReport->fault = fault;
    mReport->version = mVersion;
  }
  return false;
}

// A fault that a cut-short file explains, told apart from damage: the
// header (sealed by its checksum from version 3 on) names byte `end` of an
// image that has fewer.
bool ImageVerifier::failTruncated(const char* reason, vkt_u64 offset,
                                  vkt_u64 end) {
  const bool sealed = mVersion >= 3;
  fail(reason, offset, sealed ? VKT_FAULT_TRUNCATED : VKT_FAULT_DAMAGED);
  if (mReport != nullptr && sealed) mReport->end = end;
  return false;
}

void ImageVerifier::report() const {
  if (mReport == nullptr) return;
  mReport->version = mVersion;
  mReport->end = mEnd;
  mReport->keys = mKeyCount;
  mReport->strings = mStringCount;
  mReport->streams = mStreamCount;
  mReport->bstreams = mBStreamCount;
  mReport->values = mValues;
  mReport->depth = mDepth;
  mReport->keyNameBytes = mKeyNameBytes;
}

bool ImageVerifier::run(bool plainOnly) {
  if (!checkTables(plainOnly, true) || !checkValues()) return false;
  report();
  return true;
}

bool ImageVerifier::runTables(bool plainOnly) {
  if (!checkTables(plainOnly, false)) return false;
  report();
  return true;
}

// `allStrings` checks every string's offset; without it each string value
// checks its own as it is reached.
bool ImageVerifier::checkTables(bool plainOnly, bool allStrings) {
  return checkHeader(plainOnly) && checkSections() &&
         (mVersion == 1 ? checkSortedKeys() : checkDoubleArrayKeys()) &&
         checkStrings(allStrings) &&
         checkPayloadTable(SECTION_BSTREAM_OFFSET_ARRAY,
                           SECTION_BSTREAM_SIZE_ARRAY, SECTION_BSTREAM_ENTITY,
                           &mBStreamCount) &&
         checkPayloadTable(SECTION_STREAM_OFFSET_ARRAY,
                           SECTION_STREAM_SIZE_ARRAY, SECTION_STREAM_ENTITY,
                           &mStreamCount);
}

// Magic first, so that any other file is told as such; then the version,
// the header's length, and (from version 3) the flags and the checksum.
bool ImageVerifier::checkHeader(bool plainOnly) {
  const vkt_u32 magic =
      mInMemory < MAGIC_NUMBER_LENGTH ? mInMemory : MAGIC_NUMBER_LENGTH;
  if (!require(mImageSize != 0 && mInMemory != 0 &&
                   std::memcmp(mHeader, MAGIC_NUMBER, magic) == 0,
               "magic", HEADER_OFST_MAGICNUMBER, VKT_FAULT_NOT_AN_IMAGE) ||
      !require(mInMemory >= HEADER_OFST_VERSION + 2,
               "image shorter than a header", 0, VKT_FAULT_TRUNCATED)) {
    return false;
  }
  mVersion = read_16bit_unsigned(mHeader + HEADER_OFST_VERSION);
  if (!require(mVersion >= 1 && mVersion <= CURRENT_VERSION, "version",
               HEADER_OFST_VERSION, VKT_FAULT_VERSION)) {
    return false;
  }
  const vkt_u32 headerSize = header_size_of_version(mVersion);
  if (headerSize > mInMemory || headerSize > mImageSize) {
    fail("image shorter than its header", 0, VKT_FAULT_TRUNCATED);
    if (mReport != nullptr) mReport->end = headerSize;
    return false;
  }
  if (!require(mImageSize <= mLimits.maxImageSize, "image above the size limit",
               0, VKT_FAULT_LIMIT)) {
    return false;
  }
  if (mVersion < 3) return true;  // no flags word, no checksum
  const vkt_u32 flags = read_16bit_unsigned(mHeader + HEADER_OFST_FLAGS);
  return require(!plainOnly || (flags & FLAGS_FILTER_BITS) == 0,
                 "filter bits set: decode first", HEADER_OFST_FLAGS,
                 VKT_FAULT_FILTERED) &&
         require(header_checksum(mHeader, mVersion) ==
                     field_of(mHeader, HEADER_OFST_CHECKSUM),
                 "header checksum", HEADER_OFST_CHECKSUM, VKT_FAULT_CHECKSUM);
}

// Offsets ascend in file order from the end of the header; the stream
// entity, and so everything in front of it, lies in memory.
bool ImageVerifier::checkSections() {
  vkt_u32 previous = header_size_of_version(mVersion);
  for (vkt_u32 s = 0; s < SECTION_COUNT; ++s) {
    if (!section_present(s, mVersion)) continue;
    const vkt_u32 field = sSectionTable[s].field;
    mOffsets[s] = field_of(mHeader, field);
    if (!require(mOffsets[s] >= previous, "sections out of order", field)) {
      return false;
    }
    if (mOffsets[s] > mImageSize) {
      return failTruncated("section beyond the image", field, mOffsets[s]);
    }
    previous = mOffsets[s];
  }
  return require(mOffsets[SECTION_STREAM_ENTITY] <= mInMemory,
                 "front part not in memory", HEADER_OFST_STREAM_ENTITY);
}

byte_range ImageVerifier::section(vkt_u32 s) const {
  vkt_u32 next = s + 1;
  while (next < SECTION_COUNT && !section_present(next, mVersion)) ++next;
  return {mOffsets[s], next < SECTION_COUNT ? mOffsets[next] : mImageSize};
}

// Version 1: per key tag the offset of a NUL-terminated key in the entity.
bool ImageVerifier::checkSortedKeys() {
  unsigned_array offsets;
  const byte_range entity = section(SECTION_KEY_ENTITY);
  if (!packedArray(section(SECTION_KEY_OFFSET_ARRAY),
                   mOffsets[SECTION_KEY_OFFSET_ARRAY], &offsets)) {
    return false;
  }
  mKeyCount = offsets.valueNum;
  const vkt_u32 entitySize = entity.end - entity.begin;
  for (vkt_u32 k = 0; k < mKeyCount; ++k) {
    const vkt_u32 at = get_unsigned_array(&offsets, k);
    if (!require(at < entitySize, "key offset outside the key entity",
                 entity.begin)) {
      return false;
    }
    const vkt_u8* s = mImage + entity.begin + at;
    const void* nul = std::memchr(s, 0, entitySize - at);
    if (!require(nul != nullptr, "key without NUL", entity.begin + at)) {
      return false;
    }
    if (!addKeyName(vkt_u64(static_cast<const vkt_u8*>(nul) - s),
                    entity.begin + at)) {
      return false;
    }
  }
  return true;
}

// Names count against the values budget, and with one NUL each they must
// fit the 32-bit starts of the block decodeKeyNames makes of them.
bool ImageVerifier::addKeyName(vkt_u64 length, vkt_u32 at) {
  return require(checked_mul_add(1, length, mLimits.maxValues, &mKeyNames),
                 "key names too long in total", at) &&
         require(checked_mul_add(1, length + 1, 0xFFFFFFFF, &mKeyNameBytes),
                 "key names too long in total", at);
}

// base | check | tail: base and check of one length, and every climb from a
// leaf ending at the root.
bool ImageVerifier::checkDoubleArrayKeys() {
  const byte_range r = section(SECTION_KEY_ENTITY);
  unsigned_array base, check, tail;
  if (!packedArray(r, r.begin, &base) ||
      !packedArray(r, vkt_u64(r.begin) + base.size, &check) ||
      !packedArray(r, vkt_u64(r.begin) + base.size + check.size, &tail)) {
    return false;
  }
  const vkt_u32 n = base.valueNum;
  if (!require(n >= 1 && check.valueNum == n, "key table base and check",
               r.begin)) {
    return false;
  }
  mKeyCount = tail.valueNum;
  return checkKeyClimbs(check, tail);
}

// getKey climbs check from a leaf's parent to the root. Each position's
// distance to the root is found once (a position met again mid-climb is a
// cycle), so all climbs together cost linear time, and the sum of the
// distances is what getMemberNames may copy at most.
bool ImageVerifier::checkKeyClimbs(const unsigned_array& check,
                                   const unsigned_array& tail) {
  const vkt_u32 kUnknown = 0xFFFFFFFF;
  const vkt_u32 kOnPath = 0xFFFFFFFE;
  std::vector<vkt_u32> depth(check.valueNum, kUnknown);
  std::vector<vkt_u32> path;
  depth[0] = 0;
  const vkt_u32 n = check.valueNum;
  const vkt_u32 at = mOffsets[SECTION_KEY_ENTITY];
  for (vkt_u32 k = 0; k < tail.valueNum; ++k) {
    // Only the entries a climb reads are used as positions; findKey only
    // compares the others.
    const vkt_u32 leaf = get_unsigned_array(&tail, k);
    if (!require(leaf < n, "key table tail entry", at)) return false;
    vkt_u32 x = get_unsigned_array(&check, leaf);
    if (!require(x < n, "key table check entry", at)) return false;
    while (depth[x] == kUnknown) {
      depth[x] = kOnPath;
      path.push_back(x);
      x = get_unsigned_array(&check, x);
      if (!require(x < n, "key table check entry", at)) return false;
    }
    if (!require(depth[x] != kOnPath, "key table check cycle",
                 mOffsets[SECTION_KEY_ENTITY])) {
      return false;
    }
    for (vkt_u32 d = depth[x]; !path.empty(); path.pop_back()) {
      depth[path.back()] = ++d;
    }
    if (!addKeyName(
            depth[get_unsigned_array(&check, get_unsigned_array(&tail, k))],
            mOffsets[SECTION_KEY_ENTITY])) {
      return false;
    }
  }
  return true;
}

// Every string offset lies in the entity, and the entity ends with a NUL, so
// every string ends inside it.
bool ImageVerifier::checkStrings(bool all) {
  const byte_range entity = section(SECTION_STRING_ENTITY);
  if (!packedArray(section(SECTION_STRING_OFFSET_ARRAY),
                   mOffsets[SECTION_STRING_OFFSET_ARRAY], &mStringOffsets)) {
    return false;
  }
  mStringCount = mStringOffsets.valueNum;
  mStringEntitySize = entity.end - entity.begin;
  if (mStringCount == 0) return true;
  if (!require(mStringEntitySize != 0 && mImage[entity.end - 1] == 0,
               "string entity not NUL-terminated", entity.begin)) {
    return false;
  }
  // The first string answers asString on a value of any other kind, so it
  // is checked even when the others are left to the values that use them.
  const vkt_u32 checked = all ? mStringCount : 1;
  for (vkt_u32 t = 0; t < checked; ++t) {
    if (!checkStringOffset(t)) return false;
  }
  mStringsChecked = all;
  return true;
}

bool ImageVerifier::checkStringOffset(vkt_u32 tag) {
  return require(get_unsigned_array(&mStringOffsets, tag) < mStringEntitySize,
                 "string offset outside the string entity",
                 mOffsets[SECTION_STRING_OFFSET_ARRAY]);
}

// Offset and size arrays of one length; each payload inside the entity. A
// table missing from the version has no entries.
bool ImageVerifier::checkPayloadTable(vkt_u32 offsetSection,
                                      vkt_u32 sizeSection,
                                      vkt_u32 entitySection, vkt_u32* count) {
  *count = 0;
  if (!section_present(entitySection, mVersion)) return true;
  unsigned_array offsets, sizes;
  const byte_range entity = section(entitySection);
  if (!packedArray(section(offsetSection), mOffsets[offsetSection], &offsets) ||
      !packedArray(section(sizeSection), mOffsets[sizeSection], &sizes) ||
      !require(offsets.valueNum == sizes.valueNum,
               "payload offset and size arrays differ",
               mOffsets[sizeSection])) {
    return false;
  }
  // The image ends with the last stream payload: the largest payload end.
  const bool last = entitySection == SECTION_STREAM_ENTITY;
  const vkt_u32 entitySize = entity.end - entity.begin;
  for (vkt_u32 t = 0; t < offsets.valueNum; ++t) {
    const vkt_u64 end = vkt_u64(get_unsigned_array(&offsets, t)) +
                        get_unsigned_array(&sizes, t);  // 33 bits at most
    if (end > entitySize) {
      if (last) {
        return failTruncated("payload outside its entity",
                             mOffsets[offsetSection], entity.begin + end);
      }
      return fail("payload outside its entity", mOffsets[offsetSection]);
    }
    if (last && entity.begin + end > mEnd) mEnd = entity.begin + end;
  }
  if (last && entity.begin > mEnd) mEnd = entity.begin;
  *count = offsets.valueNum;
  return true;
}

// After verifyTables accepted the image, its offsets and table counts are
// read again as they stand: constant time for each checked step.
void ImageVerifier::loadTables() {
  mVersion = read_16bit_unsigned(mHeader + HEADER_OFST_VERSION);
  for (vkt_u32 s = 0; s < SECTION_COUNT; ++s) {
    if (section_present(s, mVersion)) {
      mOffsets[s] = field_of(mHeader, sSectionTable[s].field);
    }
  }
  auto count = [this](vkt_u32 s, vkt_u32 skip) {
    const vkt_u8* p = mImage + mOffsets[s];
    unsigned_array a;
    for (vkt_u32 i = 0; i <= skip; ++i, p += a.size) {
      setup_unsigned_array(&a, p);
    }
    return a.valueNum;
  };
  mKeyCount = mVersion == 1 ? count(SECTION_KEY_OFFSET_ARRAY, 0)
                            : count(SECTION_KEY_ENTITY, 2);  // the tail
  setup_unsigned_array(&mStringOffsets,
                       mImage + mOffsets[SECTION_STRING_OFFSET_ARRAY]);
  mStringCount = mStringOffsets.valueNum;
  const byte_range strings = section(SECTION_STRING_ENTITY);
  mStringEntitySize = strings.end - strings.begin;
  mStreamCount = count(SECTION_STREAM_OFFSET_ARRAY, 0);
  mBStreamCount = section_present(SECTION_BSTREAM_OFFSET_ARRAY, mVersion)
                      ? count(SECTION_BSTREAM_OFFSET_ARRAY, 0)
                      : 0;
}

}  // namespace vkt_internal

using vkt_internal::ImageVerifier;

bool VKTObject::verify(const vkt_u8* p, vkt_size size) {
  return verify(p, size, nullptr, nullptr);
}

bool VKTObject::verify(const vkt_u8* p, vkt_size size, VKTVerifyReport* report,
                       const VKTVerifyLimits* limits) {
  return ImageVerifier(p, p, size, size, limits, report).run(true);
}

bool VKTObject::verify(const vkt_binary& image, VKTVerifyReport* report,
                       const VKTVerifyLimits* limits) {
  if (image.size() > 0xFFFFFFFFu) {
    if (report != nullptr) {
      *report = VKTVerifyReport();
      report->reason = "image above 4 GiB";
      report->fault = VKT_FAULT_LIMIT;
    }
    return false;
  }
  return verify(image.data(), vkt_size(image.size()), report, limits);
}

bool VKTObject::verify(VKTVerifyReport* report,
                       const VKTVerifyLimits* limits) const {
  // The header copy is plain whatever the stored flags say.
  return ImageVerifier(mHeader, mImage, frontPartSize(), mImageSize, limits,
                       report)
      .run(false);
}

bool VKTObject::verifyTables(const vkt_u8* p, vkt_size size,
                             VKTVerifyReport* report,
                             const VKTVerifyLimits* limits) {
  return ImageVerifier(p, p, size, size, limits, report).runTables(true);
}

bool VKTValue::verifyStep(VKTVerifyReport* report) const {
  if (mObj == nullptr) return true;  // the null view reads nothing
  return ImageVerifier(mObj->mHeader, mObj->mImage, mObj->frontPartSize(),
                       mObj->mImageSize, nullptr, report)
      .runStep(vkt_u64(mPtr - mObj->mImage));
}

bool VKTValue::verify(VKTVerifyReport* report,
                      const VKTVerifyLimits* limits) const {
  if (mObj == nullptr) return true;
  return ImageVerifier(mObj->mHeader, mObj->mImage, mObj->frontPartSize(),
                       mObj->mImageSize, limits, report)
      .runValue(vkt_u64(mPtr - mObj->mImage));
}
