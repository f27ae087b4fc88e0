// Shared helpers of the tests: hex images, a header assembler for hand-built
// images, checksum re-sealing, a filter that records its calls, an allocation
// counter, and sections cut out of images the writer made.
#ifndef VKT_TESTS_TESTUTIL_H_
#define VKT_TESTS_TESTUTIL_H_

#include <cstddef>
#include <memory>
#include <string>
#include <vector>

#include "vkt.h"
#include "vkt/format.h"
#include "vkt/internal.h"
#include "vkt/packed_array.h"
#include "vkt/streams.h"
#include "vkt/test_filter.h"

// Bytes from hex text; spaces and '|' separate groups and are ignored.
vkt_binary hex(const std::string& text);
// "0D 00 0D" form, for failure messages.
std::string to_hex(const vkt_binary& bytes);

// The sections of an image, in file order, as a hand-built test gives them.
// assemble() lays them out as the writer would (zero bytes in front of an
// entity only as its alignment asks), fills in the header and, from version
// 3 on, seals the checksum.
struct ImageParts {
  vkt_u32 version = 3;
  vkt_u32 flags = 0;
  vkt_binary keyOffsetArray;  // version 1 only: the sorted form's offsets
  vkt_binary keyTable;        // double-array section, or v1 key entity
  vkt_binary root = {ID_NULL};
  vkt_binary stringOffsets = {0x0D, 0x00, 0x0D};
  vkt_binary strings;
  vkt_binary bstreamOffsets = {0x0D, 0x00, 0x0D};
  vkt_binary bstreamSizes = {0x0D, 0x00, 0x0D};
  vkt_u32 bstreamAlignment = 0;
  vkt_binary bstreams;
  vkt_binary streamOffsets = {0x0D, 0x00, 0x0D};
  vkt_binary streamSizes = {0x0D, 0x00, 0x0D};
  vkt_u32 streamAlignment = 0;
  vkt_binary streams;

  vkt_binary assemble() const;
};

// Recomputes the header checksum of a version-3 or -4 image.
void seal(vkt_binary* image);

// The empty double-array key table: base 0, check 0, no tail.
vkt_binary empty_key_table();

// A filter that XORs a running counter, like the self-check's, and records
// the size of each call.
class RecordingFilter : public VKTFilter {
 public:
  void Filter(vkt_u8* ptr, vkt_size size) override {
    sizes.push_back(size);
    for (vkt_size i = 0; i < size; ++i) ptr[i] ^= count++;
  }
  std::vector<vkt_size> sizes;

 private:
  vkt_u8 count = 0;
};

// A read stream over a copy of some bytes that records the calls made on it
// and whether it was destroyed.
class RecordingReadStream : public VKTReadStream {
 public:
  explicit RecordingReadStream(vkt_binary bytes, bool* destroyed = nullptr)
      : bytes(std::move(bytes)),
        inner(new VKTMemoryReadStream(this->bytes.data(),
                                      vkt_size(this->bytes.size()))),
        destroyed(destroyed) {}
  ~RecordingReadStream() override {
    if (destroyed != nullptr) *destroyed = true;
  }
  vkt_size Size() const override {
    calls += 'S';
    return inner->Size();
  }
  vkt_size Read(vkt_u8* p, vkt_size size) override {
    calls += 'R';
    return inner->Read(p, size);
  }
  vkt_offset Seek(vkt_offset offset, vkt_origin origin) override {
    calls += 'K';
    return inner->Seek(offset, origin);
  }

  const vkt_binary bytes;
  mutable std::string calls;  // one letter per call: R(ead), S(ize), K (seek)

 private:
  const std::unique_ptr<VKTReadStream> inner;  // over `bytes`
  bool* destroyed;
};

// Counts calls of the global operator new while alive (all threads).
class AllocationCounter {
 public:
  AllocationCounter();
  ~AllocationCounter();
  size_t count() const;
  // The largest single block asked for since construction.
  size_t largest() const;
};

// The root value section, or the key table, of the image that the writer
// makes of `root`.
vkt_binary written_root(const VKTWriterValue& root, bool optimize = true);
// The key table of an image whose root object has these member names.
vkt_binary written_key_table(const std::vector<std::string>& keys);

// An image whose root holds 2^levels references, through `levels` nested
// pairs of one shared array, to one string of `length` bytes: a few KB that
// stand for length x 2^levels bytes of text.
vkt_binary shared_string_bomb(int levels, size_t length);

// JSON documents to run whole-document checks on: the repository's own
// `sample`, then twitter, citm_catalog and canada from `dataDir` when that
// folder is there (*complete says whether it was).
std::vector<std::string> sample_documents(const char* sample,
                                          const char* dataDir, bool* complete);

#endif  // VKT_TESTS_TESTUTIL_H_
