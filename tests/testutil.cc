#include "testutil.h"

#include <algorithm>
#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <new>

vkt_binary hex(const std::string& text) {
  vkt_binary out;
  int nibbles = 0;
  unsigned value = 0;
  for (char c : text) {
    int digit;
    if (c >= '0' && c <= '9') {
      digit = c - '0';
    } else if (c >= 'a' && c <= 'f') {
      digit = c - 'a' + 10;
    } else if (c >= 'A' && c <= 'F') {
      digit = c - 'A' + 10;
    } else {
      continue;
    }
    value = value << 4 | unsigned(digit);
    if (++nibbles == 2) {
      out.push_back(vkt_u8(value));
      nibbles = 0;
      value = 0;
    }
  }
  return out;
}

std::string to_hex(const vkt_binary& bytes) {
  std::string out;
  char buf[4];
  for (size_t i = 0; i < bytes.size(); ++i) {
    std::snprintf(buf, sizeof(buf), i ? " %02X" : "%02X", bytes[i]);
    out += buf;
  }
  return out;
}

namespace {

void append(vkt_binary* image, const vkt_binary& part) {
  image->insert(image->end(), part.begin(), part.end());
}

void pad(vkt_binary* image, vkt_u32 alignment) {
  while (alignment > 1 && image->size() % alignment != 0) image->push_back(0);
}

void fix_header_checksum(vkt_binary* image) {
  const vkt_u32 version = read_16bit_unsigned(&(*image)[HEADER_OFST_VERSION]);
  write_32bit_unsigned(&(*image)[HEADER_OFST_CHECKSUM],
                       header_checksum(image->data(), version));
}

}  // namespace

vkt_binary ImageParts::assemble() const {
  const vkt_u32 headerSize = header_size_of_version(version);
  vkt_binary image(headerSize, 0);
  std::memcpy(image.data(), MAGIC_NUMBER, MAGIC_NUMBER_LENGTH);
  write_16bit_unsigned(&image[HEADER_OFST_VERSION], version);
  if (version >= 3) write_16bit_unsigned(&image[HEADER_OFST_FLAGS], flags);
  auto field = [&](vkt_u32 f) {
    write_32bit_unsigned(&image[f], vkt_u32(image.size()));
  };
  field(HEADER_OFST_KEY_OFFSET_ARRAY);
  append(&image, keyOffsetArray);
  field(HEADER_OFST_KEY_ENTITY);
  append(&image, keyTable);
  field(HEADER_OFST_ROOT_VALUE);
  append(&image, root);
  field(HEADER_OFST_STRING_OFFSET_ARRAY);
  append(&image, stringOffsets);
  field(HEADER_OFST_STRING_ENTITY);
  append(&image, strings);
  if (version > 3) {
    field(HEADER_OFST_BSTREAM_OFFSET_ARRAY);
    append(&image, bstreamOffsets);
    field(HEADER_OFST_BSTREAM_SIZE_ARRAY);
    append(&image, bstreamSizes);
    pad(&image, bstreamAlignment);
    field(HEADER_OFST_BSTREAM_ENTITY);
    append(&image, bstreams);
  }
  field(HEADER_OFST_STREAM_OFFSET_ARRAY);
  append(&image, streamOffsets);
  field(HEADER_OFST_STREAM_SIZE_ARRAY);
  append(&image, streamSizes);
  pad(&image, streamAlignment);
  field(HEADER_OFST_STREAM_ENTITY);
  append(&image, streams);
  if (version >= 3) fix_header_checksum(&image);
  return image;
}

vkt_binary empty_key_table() { return hex("0D 01 0D 00 0D 01 0D 00 0D 00 0D"); }

vkt_size RecordingReadStream::Size() const {
  const_cast<RecordingReadStream*>(this)->calls += 'S';
  return vkt_size(bytes.size());
}

vkt_size RecordingReadStream::Read(vkt_u8* image, vkt_size size) {
  calls += 'R';
  if (pos >= bytes.size()) return 0;
  const vkt_size len = std::min<vkt_size>(size, vkt_size(bytes.size()) - pos);
  std::memcpy(image, bytes.data() + pos, len);
  pos += len;
  return len;
}

vkt_offset RecordingReadStream::Seek(vkt_offset offset, vkt_origin origin) {
  calls += 'K';
  if (origin == VKT_ORIGIN_SET) pos = offset;
  if (origin == VKT_ORIGIN_CUR) pos += offset;
  if (origin == VKT_ORIGIN_END) pos = vkt_offset(bytes.size()) + offset;
  return pos;
}

// ---------------------------------------------------------------------------
// Allocation counting: the global operator new of the test binary counts
// while a counter is alive.
// ---------------------------------------------------------------------------

namespace {

std::atomic<int> gCounting{0};
std::atomic<size_t> gAllocations{0};
std::atomic<size_t> gLargest{0};

void* counted_alloc(size_t size) {
  if (gCounting.load() > 0) {
    ++gAllocations;
    size_t largest = gLargest.load();
    while (size > largest && !gLargest.compare_exchange_weak(largest, size)) {
    }
  }
  void* p = std::malloc(size == 0 ? 1 : size);
  if (p == nullptr) throw std::bad_alloc();
  return p;
}

}  // namespace

void* operator new(size_t size) { return counted_alloc(size); }
void* operator new[](size_t size) { return counted_alloc(size); }
void operator delete(void* p) noexcept { std::free(p); }
void operator delete[](void* p) noexcept { std::free(p); }
void operator delete(void* p, size_t) noexcept { std::free(p); }
void operator delete[](void* p, size_t) noexcept { std::free(p); }

AllocationCounter::AllocationCounter() {
  gAllocations = 0;
  gLargest = 0;
  ++gCounting;
}
AllocationCounter::~AllocationCounter() { --gCounting; }
size_t AllocationCounter::count() const { return gAllocations.load(); }
size_t AllocationCounter::largest() const { return gLargest.load(); }

// ---------------------------------------------------------------------------
// Sections of written images.
// ---------------------------------------------------------------------------

static vkt_binary section(const vkt_binary& image, vkt_u32 from, vkt_u32 to) {
  return vkt_binary(image.begin() + read_32bit_unsigned(&image[from]),
                    image.begin() + read_32bit_unsigned(&image[to]));
}

vkt_binary written_root(const VKTWriterValue& root, bool optimize) {
  VKTWriterObject writer;
  writer.setOptimize(optimize);
  return section(writer.createImage(root), HEADER_OFST_ROOT_VALUE,
                 HEADER_OFST_STRING_OFFSET_ARRAY);
}

vkt_binary written_key_table(const std::vector<std::string>& keys) {
  VKTWriterValue root;
  root.toObject();
  for (const std::string& key : keys) root[key];
  return section(VKTWriterObject().createImage(root), HEADER_OFST_KEY_ENTITY,
                 HEADER_OFST_ROOT_VALUE);
}
