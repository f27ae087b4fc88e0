#include "testutil.h"

#include <algorithm>
#include <atomic>
#include <cctype>
#include <cstdlib>
#include <fstream>
#include <new>
#include <tuple>

vkt_binary hex(const std::string& text) {
  std::string digits;
  for (char c : text)
    if (std::isxdigit(static_cast<unsigned char>(c))) digits += c;
  vkt_binary out;
  for (size_t i = 0; i + 1 < digits.size(); i += 2)
    out.push_back(vkt_u8(std::stoul(digits.substr(i, 2), nullptr, 16)));
  return out;
}

std::string to_hex(const vkt_binary& bytes) {
  static const char kDigits[] = "0123456789ABCDEF";
  std::string out;
  for (vkt_u8 b : bytes)
    out += (out.empty() ? "" : " ") +
           std::string{kDigits[b >> 4], kDigits[b & 15]};
  return out;
}

vkt_binary ImageParts::assemble() const {
  vkt_binary image(header_size_of_version(version), 0);
  std::memcpy(image.data(), MAGIC_NUMBER, MAGIC_NUMBER_LENGTH);
  write_16bit_unsigned(&image[HEADER_OFST_VERSION], version);
  if (version >= 3) write_16bit_unsigned(&image[HEADER_OFST_FLAGS], flags);
  // Header field, section, its alignment; the bstream fields (version 4 on)
  // lie behind the checksum.
  // clang-format off
  const std::tuple<vkt_u32, const vkt_binary*, vkt_u32> sections[] = {
      {HEADER_OFST_KEY_OFFSET_ARRAY, &keyOffsetArray, 0}, {HEADER_OFST_KEY_ENTITY, &keyTable, 0}, {HEADER_OFST_ROOT_VALUE, &root, 0},
      {HEADER_OFST_STRING_OFFSET_ARRAY, &stringOffsets, 0}, {HEADER_OFST_STRING_ENTITY, &strings, 0},
      {HEADER_OFST_BSTREAM_OFFSET_ARRAY, &bstreamOffsets, 0}, {HEADER_OFST_BSTREAM_SIZE_ARRAY, &bstreamSizes, 0}, {HEADER_OFST_BSTREAM_ENTITY, &bstreams, bstreamAlignment},
      {HEADER_OFST_STREAM_OFFSET_ARRAY, &streamOffsets, 0}, {HEADER_OFST_STREAM_SIZE_ARRAY, &streamSizes, 0}, {HEADER_OFST_STREAM_ENTITY, &streams, streamAlignment}};
  // clang-format on
  for (const auto& [field, bytes, alignment] : sections) {
    if (field > HEADER_OFST_CHECKSUM && version <= 3) continue;
    while (alignment > 1 && image.size() % alignment != 0) image.push_back(0);
    write_32bit_unsigned(&image[field], vkt_u32(image.size()));
    image.insert(image.end(), bytes->begin(), bytes->end());
  }
  seal(&image);
  return image;
}

void seal(vkt_binary* image) {
  const vkt_u32 version = read_16bit_unsigned(&(*image)[HEADER_OFST_VERSION]);
  if (version != 3 && version != 4) return;
  write_32bit_unsigned(&(*image)[HEADER_OFST_CHECKSUM],
                       header_checksum(image->data(), version));
}

vkt_binary empty_key_table() { return hex("0D 01 0D 00 0D 01 0D 00 0D 00 0D"); }

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
// The nothrow forms too (libraries such as simdjson use them), so that every
// block the delete operators above free came from malloc.
void* operator new(size_t size, const std::nothrow_t&) noexcept {
  return std::malloc(size == 0 ? 1 : size);
}
void* operator new[](size_t size, const std::nothrow_t&) noexcept {
  return std::malloc(size == 0 ? 1 : size);
}

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

vkt_binary shared_string_bomb(int levels, size_t length) {
  ImageParts parts;
  parts.keyTable = empty_key_table();
  parts.root.clear();
  for (int i = 0; i < levels; ++i) {
    concat_binary(parts.root, hex("20 0D 02 0D 00 00"));  // [child, child]
  }
  concat_binary(parts.root, hex("15 00"));  // string 0
  parts.stringOffsets = hex("0D 01 0D 00");
  parts.strings.assign(length, 'x');
  parts.strings.push_back(0);
  return parts.assemble();
}

std::vector<std::string> sample_documents(const char* sample,
                                          const char* dataDir, bool* complete) {
  std::vector<std::string> paths{sample};
  const std::string dir = dataDir;
  *complete = std::ifstream(dir + "/twitter.json").good();
  if (*complete) {
    for (const char* name : {"twitter", "citm_catalog", "canada"}) {
      paths.push_back(dir + "/" + name + ".json");
    }
  }
  return paths;
}
