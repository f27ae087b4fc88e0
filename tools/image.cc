// Every command that reads an image comes through here: the header bytes
// are looked at first, for messages that say what is wrong in plain words,
// then decode and the deep verifier have the last word.
//
// Header: magic "VKT\0" | version (2 bytes) | flags (2, from version 3) |
// eight section offsets (4 each) | checksum (version 3 and up) | three
// bstream section offsets (version 4); all little-endian.
#include "image.h"

#include <cstring>  // memcmp

#include "tool.h"
#include "vkt_json.h"

namespace {

const vkt_u8 kMagic[4] = {'V', 'K', 'T', 0};
const size_t kVersionAt = 4;
const size_t kFlagsAt = 6;
const vkt_u32 kNewestVersion = 4;
const size_t kLargestHeader = 56;
const vkt_u32 kFilterBits = VKT_FLAGS_FILTER_HEADER | VKT_FLAGS_FILTER_INFO;

// Header size of each version, and where its section offsets lie.
struct VersionLayout {
  size_t headerSize;
  size_t offsetFields[11];
  size_t offsetCount;
};
const VersionLayout sLayouts[kNewestVersion + 1] = {
    {0, {}, 0},
    {40, {8, 12, 16, 20, 24, 28, 32, 36}, 8},
    {40, {8, 12, 16, 20, 24, 28, 32, 36}, 8},
    {44, {8, 12, 16, 20, 24, 28, 32, 36}, 8},
    {56, {8, 12, 16, 20, 24, 28, 32, 36, 44, 48, 52}, 11},
};

vkt_u32 read_le(const vkt_u8* p, size_t width) {
  vkt_u32 v = 0;
  for (size_t i = width; i-- > 0;) v = v << 8 | p[i];
  return v;
}

}  // namespace

CheckedImage::CheckedImage(const std::string& path, bool copy)
    : mFile(path, copy) {
  if (mFile.size() > 0xFFFFFFFFu) fail(path, "too large for a vkt image");
  Progress progress(path, mFile.size());
  progress.stage("verifying");
  checkHeader();
  if (mVersion >= 3 &&
      !VKTObject::decode(mFile.data(), vkt_size(mFile.size()))) {
    // Magic, version, size and filter bits were fine: the checksum is not.
    fail(path, "damaged image: header checksum does not match");
  }
  checkSectionsInFile();
  // As deep as pack accepts, so that every packed image reads back; and as
  // much sharing as a JSON document of about 100 MB can ask for, however
  // small the image it packs into (the default allows 256 values a byte).
  VKTVerifyLimits limits;
  limits.maxDepth = VKT_JSON_MAX_DEPTH;
  const vkt_u64 kLeastMaxValues = vkt_u64(1) << 26;
  limits.maxValues = vkt_u64(VKTVerifyLimits::kValuesPerByte) * mFile.size();
  if (limits.maxValues < kLeastMaxValues) limits.maxValues = kLeastMaxValues;
  if (!VKTObject::verify(mFile.data(), vkt_size(mFile.size()), &mReport,
                         &limits)) {
    fail(path, std::string("damaged image: ") + mReport.reason + " at byte " +
                   std::to_string(mReport.offset));
  }
  mObject.reset(
      new VKTObject(mFile.data(), vkt_u32(mFile.size()), VKT_ALLOC_REFER));
}

void CheckedImage::checkHeader() {
  const vkt_u8* p = mFile.data();
  const size_t size = mFile.size();
  const std::string& path = mFile.name();
  if (size == 0) fail(path, "not a vkt image (empty file)");
  const size_t magicBytes = size < sizeof(kMagic) ? size : sizeof(kMagic);
  if (std::memcmp(p, kMagic, magicBytes) != 0) {
    fail(path, "not a vkt image (wrong magic)");
  }
  if (size < kVersionAt + 2) fail(path, "truncated image: no header");
  mVersion = read_le(p + kVersionAt, 2);
  if (mVersion == 0 || mVersion > kNewestVersion) {
    fail(path, "unsupported version " + std::to_string(mVersion) +
                   " (this tool reads 1 to " + std::to_string(kNewestVersion) +
                   ")");
  }
  // Every image the writer makes is longer than the largest header, which
  // decode insists on for versions 3 and 4.
  const size_t least =
      mVersion >= 3 ? kLargestHeader : sLayouts[mVersion].headerSize;
  if (size < least) {
    fail(path, "truncated image: only " + std::to_string(size) + " bytes");
  }
  if (mVersion < 3) return;
  mFlags = read_le(p + kFlagsAt, 2);
  if (mFlags & kFilterBits) {
    fail(path,
         "filtered image: it can be read only with the filter it was "
         "written with, which this tool does not have");
  }
}

// With the checksum right, an offset beyond the file means the file was
// cut short rather than damaged.
void CheckedImage::checkSectionsInFile() {
  if (mVersion < 3) return;  // no checksum: leave it to the verifier
  const VersionLayout& layout = sLayouts[mVersion];
  for (size_t i = 0; i < layout.offsetCount; ++i) {
    const vkt_u32 offset = read_le(mFile.data() + layout.offsetFields[i], 4);
    if (offset > mFile.size()) {
      fail(mFile.name(), "truncated image: " + std::to_string(mFile.size()) +
                             " bytes, but its header names byte " +
                             std::to_string(offset));
    }
  }
}
