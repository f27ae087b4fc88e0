// VKTObject: opening an image in its five ownership modes or through a read
// stream, the plain header copy and the section pointers, the purge of the
// stream entity, and decode, the one validation of an image.
//
// Opening never parses a section: it copies the header into the object (and,
// by mode, the image or its front part), unscrambles what the flags say, and
// turns each header offset into a pointer. It reads nothing but the header,
// so it is safe on bytes that only decode has seen, and it stays a few
// nanoseconds; a lookup sets up the few arrays it needs itself.
#include <cstring>  // memcpy, memcmp, memset
#include <utility>  // move

#include "vkt/format.h"
#include "vkt/key_state.h"
#include "vkt/packed_array.h"
#include "vkt/streams.h"

static_assert(HEADER_SIZE == 56, "VKTObject::mHeader holds the largest header");

namespace {

vkt_u32 header_field(const vkt_u8* header, vkt_u32 field) {
  return read_32bit_unsigned(header + field);
}

vkt_u8* copy_bytes(const vkt_u8* src, vkt_u32 size) {
  vkt_u8* dest = new vkt_u8[size];
  if (size != 0) std::memcpy(dest, src, size);
  return dest;
}

}  // namespace

VKTObject::VKTObject(const vkt_binary& image, VKTFilter* structFilter)
    : VKTObject(image.data(), vkt_u32(image.size()), VKT_ALLOC_DUPLICATE,
                structFilter) {}

VKTObject::VKTObject(const vkt_u8* ptr, vkt_u32 size, vkt_alloc_type allocType,
                     VKTFilter* structFilter)
    : mImageSize(size), mAllocType(allocType) {
  switch (allocType) {
    case VKT_ALLOC_DUPLICATE:
      mImage = copy_bytes(ptr, size);
      init(structFilter);
      break;
    case VKT_ALLOC_PURGE:
    case VKT_ALLOC_PURGE_REFER:
      // Open as if owned, then copy the front part away from the payloads.
      mImage = ptr;
      mAllocType = VKT_ALLOC_OWN;
      init(structFilter);
      preparePurge();
      mAllocType = allocType;
      break;
    default:  // VKT_ALLOC_REFER, VKT_ALLOC_OWN
      mImage = ptr;
      init(structFilter);
      break;
  }
  // In the purge modes the pointers already lie in the copy, so the caller's
  // bytes are never written.
  filterInfo(structFilter);
  loadStringTable();
}

VKTObject::VKTObject(VKTReadStream* reader, VKTFilter* structFilter)
    : mReader(reader), mAllocType(VKT_ALLOC_OWN) {
  // The header first: 8 bytes tell the version, and the version how much
  // more to read (a version-3 image gives up 12 unused bytes).
  // A source shorter than a header leaves zeros, never stack garbage.
  vkt_u8 header[HEADER_SIZE] = {};
  reader->Read(header, HEADER_OFST_KEY_OFFSET_ARRAY);
  const vkt_u32 version = read_16bit_unsigned(header + HEADER_OFST_VERSION);
  const vkt_u32 wanted = version < 3 ? HEADER_SIZE_VER2 : HEADER_SIZE;
  reader->Read(header + HEADER_OFST_KEY_OFFSET_ARRAY,
               wanted - HEADER_OFST_KEY_OFFSET_ARRAY);
  loadHeader(header, structFilter);

  // Then the front part: everything in front of the stream entity, which
  // stays in the source and is reached through windows.
  mStreamOffset = header_field(mHeader, HEADER_OFST_STREAM_ENTITY);
  // The front part never outgrows the source, whatever the header claims;
  // verify tells whether the header and the source agree.
  mImageSize = reader->Size();
  const vkt_u32 frontSize = frontPartSize();
  vkt_u8* front = new vkt_u8[frontSize];
  reader->Seek(0, VKT_ORIGIN_SET);
  const vkt_size got = reader->Read(front, frontSize);
  if (got < frontSize) std::memset(front + got, 0, frontSize - got);
  mImage = front;
  decodeInfo(mHeader);
  mStreamEntity = nullptr;
  filterInfo(structFilter);
  loadStringTable();
}

VKTObject::~VKTObject() { freeOwned(); }

void VKTObject::freeOwned() {
  delete mReader;
  releaseStreamBuffer();
  if (mAllocType != VKT_ALLOC_REFER) delete[] mImage;
  delete mKeyState;
  delete vkt_internal::block_of(mNames.load(std::memory_order_relaxed));
}

void VKTObject::release() {
  freeOwned();
  makeEmpty();
}

// No image: nothing to free (REFER), no sections, the null root.
void VKTObject::makeEmpty() {
  mReader = nullptr;
  mStreamOffset = 0;
  mImage = nullptr;
  std::memset(mHeader, 0, sizeof(mHeader));
  mImageSize = 0;
  mAllocType = VKT_ALLOC_REFER;
  mVersion = 0;
  mFlags = 0;
  for (const vkt_u8** p :
       {&mKeyOffsetArray, &mKeyEntity, &mStringOffsetArray, &mStringEntity,
        &mStreamOffsetArray, &mStreamSizeArray, &mStreamEntity,
        &mBStreamOffsetArray, &mBStreamSizeArray, &mBStreamEntity,
        &mRootValuePtr}) {
    *p = nullptr;
  }
  mTotalStreamEntitySize = 0;
  mStringOffsets = nullptr;
  mStringCount = 0;
  mStringWidth = 0;
  mKeyState = nullptr;
  mNames.store(nullptr, std::memory_order_relaxed);
  mResolvedNames.store(0, std::memory_order_relaxed);
  mDecodedNames = nullptr;
}

VKTObject::VKTObject(VKTObject&& other) noexcept {
  makeEmpty();
  *this = std::move(other);
}

// Every member is taken over; the pointers lead into buffers that do not
// move, except mHeader, which is copied.
VKTObject& VKTObject::operator=(VKTObject&& other) noexcept {
  if (this == &other) return *this;
  release();
  mReader = other.mReader;
  mStreamOffset = other.mStreamOffset;
  mImage = other.mImage;
  std::memcpy(mHeader, other.mHeader, sizeof(mHeader));
  mImageSize = other.mImageSize;
  mAllocType = other.mAllocType;
  mVersion = other.mVersion;
  mFlags = other.mFlags;
  mKeyOffsetArray = other.mKeyOffsetArray;
  mKeyEntity = other.mKeyEntity;
  mStringOffsetArray = other.mStringOffsetArray;
  mStringEntity = other.mStringEntity;
  mStreamOffsetArray = other.mStreamOffsetArray;
  mStreamSizeArray = other.mStreamSizeArray;
  mStreamEntity = other.mStreamEntity;
  mBStreamOffsetArray = other.mBStreamOffsetArray;
  mBStreamSizeArray = other.mBStreamSizeArray;
  mBStreamEntity = other.mBStreamEntity;
  mRootValuePtr = other.mRootValuePtr;
  mTotalStreamEntitySize = other.mTotalStreamEntitySize;
  mStringOffsets = other.mStringOffsets;
  mStringCount = other.mStringCount;
  mStringWidth = other.mStringWidth;
  // The key cache and the name block move as pointers, so the name view
  // stays valid.
  mKeyState = other.mKeyState;
  mNames.store(other.mNames.load(std::memory_order_relaxed),
               std::memory_order_relaxed);
  mResolvedNames.store(other.mResolvedNames.load(std::memory_order_relaxed),
                       std::memory_order_relaxed);
  mDecodedNames = other.mDecodedNames;
  other.makeEmpty();
  return *this;
}

void VKTObject::loadHeader(const vkt_u8* header, VKTFilter* structFilter) {
  mVersion = read_16bit_unsigned(header + HEADER_OFST_VERSION);
  // Versions 1 and 2 have no flags word and filter their info range only.
  mFlags = mVersion < 3 ? VKT_FLAGS_FILTER_INFO
                        : read_16bit_unsigned(header + HEADER_OFST_FLAGS);
  // One fixed-size copy per header size, which the compiler turns into a
  // few moves instead of a library call.
  if (mVersion >= 4) {
    std::memcpy(mHeader, header, HEADER_SIZE_VER4);
  } else if (mVersion == 3) {
    std::memcpy(mHeader, header, HEADER_SIZE_VER3);
    std::memset(mHeader + HEADER_SIZE_VER3, 0, HEADER_SIZE - HEADER_SIZE_VER3);
  } else {
    std::memcpy(mHeader, header, HEADER_SIZE_VER2);
    std::memset(mHeader + HEADER_SIZE_VER2, 0, HEADER_SIZE - HEADER_SIZE_VER2);
  }
  static_assert(HEADER_SIZE_VER4 == sizeof(mHeader), "the largest header");
  if (structFilter != nullptr && (mFlags & VKT_FLAGS_FILTER_HEADER)) {
    filter_header(structFilter, mHeader, mVersion);
  }
}

// The section offsets are read from the image's own header bytes unless a
// filter changed the copy: a load from the copy just written would wait for
// its stores, which costs an open about a quarter of its time.
void VKTObject::init(VKTFilter* structFilter) {
  loadHeader(mImage, structFilter);
  const bool filtered =
      structFilter != nullptr && (mFlags & VKT_FLAGS_FILTER_HEADER);
  decodeInfo(filtered ? mHeader : mImage);
}

void VKTObject::decodeInfo(const vkt_u8* header) {
  // A section missing from this version's header is null.
  auto section = [this, header](vkt_u32 s) -> const vkt_u8* {
    if (!section_present(s, mVersion)) return nullptr;
    return mImage + header_field(header, sSectionTable[s].field);
  };
  mKeyOffsetArray = section(SECTION_KEY_OFFSET_ARRAY);
  mKeyEntity = section(SECTION_KEY_ENTITY);
  mStringOffsetArray = section(SECTION_STRING_OFFSET_ARRAY);
  mStringEntity = section(SECTION_STRING_ENTITY);
  mStreamOffsetArray = section(SECTION_STREAM_OFFSET_ARRAY);
  mStreamSizeArray = section(SECTION_STREAM_SIZE_ARRAY);
  mStreamEntity = section(SECTION_STREAM_ENTITY);
  mBStreamOffsetArray = section(SECTION_BSTREAM_OFFSET_ARRAY);
  mBStreamSizeArray = section(SECTION_BSTREAM_SIZE_ARRAY);
  mBStreamEntity = section(SECTION_BSTREAM_ENTITY);
  mRootValuePtr = section(SECTION_ROOT_VALUE);
  mTotalStreamEntitySize =
      mImageSize - header_field(header, HEADER_OFST_STREAM_ENTITY);
}

// The head is 2 to 6 bytes (count id, count, width id). A header that puts
// it outside the bytes in memory (an image nobody checked) leaves no strings
// to read rather than a read beyond them; a count id outside the family
// counts none, as the array readers do. Read byte by byte: nothing has
// checked the image yet, so the word reads of the walks may not be used.
void VKTObject::loadStringTable() {
  mStringOffsets = nullptr;
  mStringCount = 0;
  mStringWidth = 0;
  if (mStringOffsetArray == nullptr) return;
  const vkt_u64 at = vkt_u64(mStringOffsetArray - mImage);
  const vkt_u64 front = frontPartSize();
  if (at >= front) return;
  const vkt_u32 countWidth = vkt_u32(*mStringOffsetArray) - UNSIGNED_ID_BIAS;
  if (countWidth > 4 || at + 2 + countWidth > front) return;
  unsigned_array strings;
  setup_unsigned_array(&strings, mStringOffsetArray);
  mStringOffsets = strings.values;
  mStringCount = strings.valueNum;
  mStringWidth = strings.valueSize <= 4 ? strings.valueSize : 0;
}

std::vector<VKTSection> VKTObject::sections() const {
  std::vector<VKTSection> result;
  if (mImage == nullptr) return result;  // moved from
  for (vkt_u32 s = 0; s < SECTION_COUNT; ++s) {
    if (!section_present(s, mVersion)) continue;
    const vkt_u32 offset = header_field(mHeader, sSectionTable[s].field);
    // Each section runs to the next one's start.
    if (!result.empty()) result.back().size = offset - result.back().offset;
    result.push_back({vkt_section(s), sSectionTable[s].name, offset, 0});
  }
  result.back().size = mImageSize - result.back().offset;
  return result;
}

vkt_u32 VKTObject::frontPartSize() const {
  const bool frontOnly = mReader != nullptr || mAllocType == VKT_ALLOC_PURGE ||
                         mAllocType == VKT_ALLOC_PURGE_REFER;
  if (!frontOnly) return mImageSize;
  const vkt_u32 streamEntity = header_field(mHeader, HEADER_OFST_STREAM_ENTITY);
  return streamEntity < mImageSize ? streamEntity : mImageSize;
}

void VKTObject::filterInfo(VKTFilter* structFilter) {
  if (structFilter == nullptr || !(mFlags & VKT_FLAGS_FILTER_INFO)) return;
  // A header whose info range leaves the bytes in memory is not filtered
  // through: nothing outside the image is ever written.
  const vkt_u32 begin = header_field(mHeader, HEADER_OFST_KEY_OFFSET_ARRAY);
  const vkt_u32 end = header_field(
      mHeader, sSectionTable[info_range_end_section(mVersion)].field);
  if (begin > end || !in_image(begin, end - begin, frontPartSize())) return;
  // The bytes are ours or were handed over for writing (REFER, OWN).
  structFilter->Filter(const_cast<vkt_u8*>(mImage) + begin, end - begin);
}

void VKTObject::preparePurge() {
  if (mAllocType != VKT_ALLOC_DUPLICATE && mAllocType != VKT_ALLOC_OWN) return;
  // A stream-backed image has no stream entity in memory to part from.
  if (mReader != nullptr) return;
  const vkt_u8* newEntity = mStreamEntity;
  mAllocType = VKT_ALLOC_PURGE;
  mImage = copy_bytes(mImage, frontPartSize());
  decodeInfo(mHeader);
  loadStringTable();
  // The payloads stay in the old allocation, which mStreamEntity now stands
  // for: its start lies the stream entity's offset before it.
  mStreamEntity = newEntity;
}

void VKTObject::purgeStreamEntity() { releaseStreamBuffer(); }

void VKTObject::releaseStreamBuffer() {
  if (mAllocType != VKT_ALLOC_PURGE || mStreamEntity == nullptr) return;
  delete[](mStreamEntity - header_field(mHeader, HEADER_OFST_STREAM_ENTITY));
  mStreamEntity = nullptr;
}

bool VKTObject::decode(vkt_binary& image, VKTFilter* structFilter) {
  return decode(image.data(), vkt_size(image.size()), structFilter);
}

bool VKTObject::decode(vkt_u8* p, vkt_size size, VKTFilter* structFilter) {
  if (size < HEADER_SIZE) return false;
  if (std::memcmp(p, MAGIC_NUMBER, MAGIC_NUMBER_LENGTH) != 0) return false;
  const vkt_u32 version = read_16bit_unsigned(p + HEADER_OFST_VERSION);
  if (version != 3 && version != 4) return false;

  // Cleared whatever comes next, so that the filter runs once per image
  // however often decode is called.
  const vkt_u8 flags = p[HEADER_OFST_FLAGS];
  p[HEADER_OFST_FLAGS] = vkt_u8(flags & ~FLAGS_FILTER_BITS);

  if (structFilter != nullptr && (flags & VKT_FLAGS_FILTER_HEADER)) {
    filter_header(structFilter, p, version);
  }
  if (header_checksum(p, version) != header_field(p, HEADER_OFST_CHECKSUM)) {
    return false;
  }
  if (structFilter == nullptr || !(flags & VKT_FLAGS_FILTER_INFO)) return true;

  const vkt_u32 begin = header_field(p, HEADER_OFST_KEY_OFFSET_ARRAY);
  const vkt_u32 end =
      header_field(p, sSectionTable[info_range_end_section(version)].field);
  if (begin > end || !in_image(begin, end - begin, size)) return false;
  structFilter->Filter(p + begin, end - begin);
  return true;
}

// ---------------------------------------------------------------------------
// Strings, streams and bstreams: a tag indexes the offset and size arrays of
// its table. Stream payloads may be gone (purged) or in the source only.
// ---------------------------------------------------------------------------

namespace {

vkt_u32 array_element(const vkt_u8* array, vkt_u32 index) {
  unsigned_array a;
  setup_unsigned_array(&a, array);
  return get_unsigned_array(&a, index);
}

// A reader over `size` bytes at `offset` in an entity: a window on the
// source of a stream-backed image (where the entity starts at `sourceEntity`),
// else a memory reader when the entity is in memory, else null.
VKTReadStream* build_reader(VKTReadStream* source, vkt_offset sourceEntity,
                            const vkt_u8* entity, vkt_u32 offset,
                            vkt_u32 size) {
  if (source != nullptr) {
    return new VKTReadStreamWindow(source, sourceEntity + offset, size);
  }
  if (entity != nullptr) return new VKTMemoryReadStream(entity + offset, size);
  return nullptr;
}

}  // namespace

const vkt_u8* VKTObject::getStream(vkt_u32 streamTag) const {
  if (mStreamEntity == nullptr) return nullptr;
  return mStreamEntity + array_element(mStreamOffsetArray, streamTag);
}

const vkt_u8* VKTObject::getBStream(vkt_u32 streamTag) const {
  if (mBStreamEntity == nullptr) return nullptr;
  return mBStreamEntity + array_element(mBStreamOffsetArray, streamTag);
}

vkt_u32 VKTObject::streamSize(vkt_u32 streamTag) const {
  return array_element(mStreamSizeArray, streamTag);
}

vkt_u32 VKTObject::bstreamSize(vkt_u32 streamTag) const {
  if (mBStreamSizeArray == nullptr) return 0;
  return array_element(mBStreamSizeArray, streamTag);
}

VKTReadStream* VKTObject::buildStreamReader(vkt_u32 streamTag) const {
  return build_reader(mReader, mStreamOffset, mStreamEntity,
                      array_element(mStreamOffsetArray, streamTag),
                      array_element(mStreamSizeArray, streamTag));
}

VKTReadStream* VKTObject::buildBStreamReader(vkt_u32 streamTag) const {
  if (mBStreamSizeArray == nullptr) return nullptr;
  // A stream-backed image reads bstreams from the source like streams,
  // although their bytes are in memory too.
  return build_reader(mReader, vkt_offset(mBStreamEntity - mImage),
                      mBStreamEntity,
                      array_element(mBStreamOffsetArray, streamTag),
                      array_element(mBStreamSizeArray, streamTag));
}
