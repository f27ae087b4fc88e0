// Whole images: header bytes, version and flags, the filter's calls, and
// where sections and payloads lie.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <tuple>

#include "testutil.h"

TEST(WriterObject, HeaderFlagsAndFilterCalls) {
  // flags given, filter given, endian set; version and flags stored; the
  // filter's calls (header ranges; keys, root, strings); the whole image
  // clang-format off
  const std::tuple<vkt_u32, bool, int, vkt_u32, vkt_u32, std::vector<vkt_size>, const char*> rows[] = {
      {0, false, -1, 3, 0, {}, "56 4B 54 00 03 00 00 00 2C 00 00 00 2C 00 00 00 38 00 00 00 3B 00 00 00 3B 00 00 00 3E 00 00 00 41 00 00 00 37 00 00 00 BD 01 C8 1D 0D 01 0D 00 0D 01 0D 00 0D 00 0D 01 0D 00 0D 0D 00 0D 0D 00 0D"},
      {0, false, VKT_ENDIAN_BIG, 4, 4, {}, "56 4B 54 00 04 00 04 00 38 00 00 00 38 00 00 00 44 00 00 00 47 00 00 00 4D 00 00 00 50 00 00 00 53 00 00 00 43 00 00 00 0D 03 6C 46 47 00 00 00 4A 00 00 00 4D 00 00 00 0D 01 0D 00 0D 01 0D 00 0D 00 0D 01 0D 00 0D 0D 00 0D 0D 00 0D 0D 00 0D 0D 00 0D"},
      {0, false, VKT_ENDIAN_LITTLE, 4, 0, {}, ""}, {3, false, -1, 3, 0, {}, ""}, {3, true, -1, 3, 3, {36, 11, 1, 3, 0}, ""}, {4, false, -1, 3, 4, {}, ""},
      {0x10006, true, -1, 3, 6, {11, 1, 3, 0}, ""}, {0xA500, false, -1, 3, 0xA500, {}, ""}, {1, true, VKT_ENDIAN_BIG, 4, 5, {36, 12}, ""},
      {3, true, VKT_ENDIAN_BIG, 4, 7, {36, 12, 11, 1, 3, 0}, ""},
  };
  // clang-format on
  for (const auto& [in, filter, endian, version, out, calls, bytes] : rows) {
    SCOPED_TRACE(in);
    VKTWriterObject w;
    if (endian >= 0) w.setEndian(vkt_endian(endian));
    RecordingFilter rec;
    const vkt_binary image = w.createImage({}, filter ? &rec : nullptr, in);
    EXPECT_EQ(read_16bit_unsigned(&image[HEADER_OFST_VERSION]), version);
    EXPECT_EQ(read_16bit_unsigned(&image[HEADER_OFST_FLAGS]), out);
    EXPECT_EQ(rec.sizes, calls);
    EXPECT_EQ(*bytes ? to_hex(image) : "", bytes);  // when given
  }
}

TEST(WriterObject, LayoutOfStringsBStreamsAndStreams) {
  const vkt_u8* text = reinterpret_cast<const vkt_u8*>("0123456789abcdefghijk");
  VKTWriterValue root;  // keys of low codes keep the key table small
  root["\x01"] = "ab";
  root["\x02"] = "c";
  root["\x03"].setStream(text, 10, 16, VKT_ALLOC_REFER, VKT_STREAM_FLAG_BOUND);
  root["\x04"][0].setStream(text + 16, 5, 8, VKT_ALLOC_REFER);
  root["\x04"][1].setStream(text + 10, 6, 4, VKT_ALLOC_REFER);
  const vkt_binary image = VKTWriterObject().createImage(root);
  // Header | keys | root | strings | bstream tables, 8 zeros, the bstream at
  // 144 | stream tables, 4 zeros, the streams at 168: 6 bytes, 2 zeros, 5.
  // clang-format off
  EXPECT_EQ(to_hex(image), to_hex(hex(
      "56 4B 54 00 04 00 00 00 38 00 00 00 38 00 00 00 76 00 00 00 7B 00 00 00 9A 00 00 00 9F 00 00 00 A8 00 00 00 57 00 00 00 2E 05 34 71 80 00 00 00 84 00 00 00 90 00 00 00 | "
      "0D 09 0D 01 00 01 06 07 08 01 02 03 0D 09 0D 00 02 00 00 00 00 03 04 05 0D 04 0D 01 06 07 08 | 21 0D 04 0D 00 01 02 03 0D 04 0D 00 02 04 06 15 00 15 01 22 00 20 0D 02 0D 00 02 19 01 19 00 | "
      "0D 02 0D 00 03 61 62 00 63 00 | 0D 01 0D 00 0D 01 0D 0A 00 00 00 00 00 00 00 00 30 31 32 33 34 35 36 37 38 39 | 0D 02 0D 00 08 0D 02 0D 06 05 00 00 00 00 61 62 63 64 65 66 00 00 67 68 69 6A 6B")));
  // clang-format on
}

// A source that claims `size` zero bytes and counts what is read of it.
class ZeroStream : public VKTReadStream {
 public:
  ZeroStream(vkt_size size, vkt_u64* reads) : size(size), reads(reads) {}
  vkt_size Size() const override { return size; }
  vkt_size Read(vkt_u8* p, vkt_size want) override {
    const vkt_size n = pos < size ? std::min(size - pos, want) : 0;
    std::memset(p, 0, n);
    pos += n;
    *reads += n;
    return n;
  }
  vkt_offset Seek(vkt_offset offset, vkt_origin origin) override {
    return pos = origin == VKT_ORIGIN_SET ? offset : pos + offset;
  }

 private:
  vkt_size size, pos = 0;
  vkt_u64* reads;
};

// `depth` containers, arrays and objects in turn, around an integer.
static VKTWriterValue nested(vkt_u32 depth) {
  VKTWriterValue root;
  root = 1;
  for (vkt_u32 i = 0; i < depth; ++i) {
    VKTWriterValue outer;
    i % 2 ? outer.append("k", root) : outer.append(root);
    root = outer;
  }
  return root;
}

// Trees that verify would refuse for their depth, and images that 32-bit
// offsets cannot address, are refused with the reason, before a byte is
// written or a payload read; the same writer then writes a good tree again.
TEST(WriterObject, RefusesTreesTooDeepAndImagesTooLarge) {
  const vkt_u32 G = 1u << 30;
  const char* kDeep = "tree nests deeper than 255";
  const char* kLarge = "image larger than 4 GiB";
  // clang-format off
  const std::tuple<vkt_u32, std::vector<std::pair<vkt_u32, vkt_u32>>, const char*> rows[] = {
      {255, {}, ""}, {256, {}, kDeep}, {100000, {}, kDeep}, {1, {{16, 0}}, ""},
      {1, {{3 * G, 0}, {2 * G, 0}, {16, 0}}, kLarge}, {1, {{3 * G, 1}, {2 * G, 0}}, kLarge},
      {1, {{0xFFFFFFFF, 0}}, kLarge}, {1, {{0xFFFFFFF0, 1}, {0, 0}}, kLarge},
  };
  // clang-format on
  VKTWriterObject writer;
  for (const auto& [depth, streams, reason] : rows) {
    SCOPED_TRACE(depth);
    VKTWriterValue root = nested(depth);
    vkt_u64 reads = 0;
    for (const auto& [size, flags] : streams) {
      VKTWriterValue s;
      s.setStream(new ZeroStream(size, &reads), 16, flags);
      root.append(s);
    }
    VKTDummyWriteStream sink(0);  // counts, keeps nothing
    EXPECT_EQ(writer.writeImage(root, sink), !*reason);
    EXPECT_STREQ(writer.error(), reason);
    EXPECT_EQ(*reason ? 0 : sink.Offset(), sink.Offset());
    const vkt_binary image = writer.createImage(root);
    EXPECT_STREQ(writer.error(), reason);
    EXPECT_EQ(image.size(), *reason ? 0 : sink.Offset());
    EXPECT_EQ(reads, *reason ? 0 : 2 * streams.size() * 16);
    VKTVerifyReport report;
    if (!*reason) {
      EXPECT_TRUE(VKTObject::verify(image, &report)) << report.reason;
      EXPECT_EQ(report.depth, std::max<vkt_u32>(depth, 1));
    }
  }  // a 100,000-deep tree goes here, one container at a time
}

// A small image that stands for more values than verify's default allows
// for its size (70 M references through one shared array) is refused like
// any image verify would refuse.
TEST(WriterObject, RefusesSharingBeyondVerifysBudget) {
#if defined(__SANITIZE_ADDRESS__)
  GTEST_SKIP() << "70 M values take minutes under the sanitizers; the "
                  "optimised build runs this";
#endif
  VKTWriterValue row;
  for (vkt_u32 i = 0; i < 1000; ++i) row[i] = vkt_s32(i);
  VKTWriterValue table;
  for (vkt_u32 i = 0; i < 70000; ++i) table.append(row);
  VKTWriterObject writer;
  EXPECT_TRUE(writer.createImage(table).empty());
  EXPECT_STREQ(writer.error(),
               "values shared more often than verify accepts for the image's "
               "size");
}
