// Whole images: header bytes, version and flags, the filter's calls, and
// where sections and payloads lie.
#include <gtest/gtest.h>

#include <cstring>
#include <memory>

#include "testutil.h"

namespace {

using A = VKTTestAccess;

vkt_u32 field(const vkt_binary& image, vkt_u32 offset) {
  return read_32bit_unsigned(&image[offset]);
}

const vkt_u8* text(const char* s) { return reinterpret_cast<const vkt_u8*>(s); }

TEST(WriterObject, ImagesOfANullRoot) {
  const VKTWriterValue root;
  VKTWriterObject w;
  EXPECT_EQ(
      to_hex(w.createImage(root)),
      to_hex(hex("56 4B 54 00 03 00 00 00 | 2C 00 00 00 2C 00 00 00 38 00 "
                 "00 00 3B 00 00 00 3B 00 00 00 3E 00 00 00 41 00 00 00 "
                 "37 00 00 00 | BD 01 C8 1D | 0D 01 0D 00 0D 01 0D 00 0D "
                 "00 0D | 01 | 0D 00 0D | 0D 00 0D | 0D 00 0D")));
  w.setEndian(VKT_ENDIAN_BIG);
  vkt_binary big = w.createImage(root);
  EXPECT_EQ(to_hex(big),
            to_hex(hex("56 4B 54 00 04 00 04 00 38 00 00 00 38 00 00 00 44 00 "
                       "00 00 47 00 00 00 4D 00 00 00 50 00 00 00 53 00 00 00 "
                       "43 00 00 00 0D 03 6C 46 47 00 00 00 4A 00 00 00 4D 00 "
                       "00 00 | 0D 01 0D 00 0D 01 0D 00 0D 00 0D | 01 | 0D 00 "
                       "0D 0D 00 0D 0D 00 0D 0D 00 0D 0D 00 0D")));
  w.setEndian(VKT_ENDIAN_LITTLE);
  big[HEADER_OFST_FLAGS] = 0;
  EXPECT_EQ(w.createImage(root), big);
}

TEST(WriterObject, FlagsVersionsAndFilters) {
  VKTWriterValue root;
  root["k"] = "str";
  root["n"] = 300;
  const vkt_size keys = vkt_size(A::keyTableImage({"k", "n"}).size());
  const vkt_size value = vkt_size(A::valueImage(root).size());
  const struct {
    vkt_u32 flags;
    bool filter, setEndian;
    vkt_u32 version, stored;
  } rows[] = {
      // clang-format off
      {3, false, false, 3, 0}, {3, true, false, 3, 3}, {4, false, false, 3, 4},
      {0xFFF8, false, false, 3, 0xFFF8}, {0x10006, true, false, 3, 6},
      {0, true, false, 3, 0}, {0, false, true, 4, 4}, {1, true, true, 4, 5},
      {3, true, true, 4, 7},
  };  // clang-format on
  for (const auto& row : rows) {
    SCOPED_TRACE(row.flags);
    VKTWriterObject w;
    if (row.setEndian) w.setEndian(VKT_ENDIAN_BIG);
    RecordingFilter filter;
    const vkt_binary image =
        w.createImage(root, row.filter ? &filter : nullptr, row.flags);
    EXPECT_EQ(read_16bit_unsigned(&image[HEADER_OFST_VERSION]), row.version);
    EXPECT_EQ(read_16bit_unsigned(&image[HEADER_OFST_FLAGS]), row.stored);
    std::vector<vkt_size> calls;
    if (row.stored & 1) calls.push_back(36);
    if ((row.stored & 1) && row.version == 4) calls.push_back(12);
    if (row.stored & 2) calls.insert(calls.end(), {keys, value, 4, 4});
    EXPECT_EQ(filter.sizes, calls);
    vkt_binary decoded = image;
    RecordingFilter forDecode;
    ASSERT_TRUE(VKTObject::decode(decoded, &forDecode));
    EXPECT_EQ(decoded, w.createImage(root, nullptr, row.stored & ~3u));

    for (int mode = VKT_ALLOC_DUPLICATE; mode <= 5; ++mode) {
      SCOPED_TRACE(mode);  // 5: through a read stream
      RecordingFilter fresh;
      vkt_binary mine = image;
      vkt_u8* buffer = mode == VKT_ALLOC_OWN || mode == VKT_ALLOC_PURGE
                           ? new vkt_u8[image.size()]
                           : mine.data();
      std::memcpy(buffer, image.data(), image.size());
      const std::unique_ptr<VKTObject> o(
          mode == 5 ? new VKTObject(new RecordingReadStream(image), &fresh)
                    : new VKTObject(buffer, vkt_u32(image.size()),
                                    vkt_alloc_type(mode), &fresh));
      EXPECT_EQ(o->endian(),
                row.stored & 4 ? VKT_ENDIAN_BIG : VKT_ENDIAN_LITTLE);
      EXPECT_STREQ(o->root()["k"].asString(), "str");
      EXPECT_EQ(o->root()["n"].asInt(), 300);
    }
  }
  RecordingFilter filter;  // an empty string entity is filtered too
  VKTWriterObject().createImage(VKTWriterValue(), &filter, 2);
  EXPECT_EQ(filter.sizes, (std::vector<vkt_size>{11, 1, 3, 0}));
}

TEST(WriterObject, LayoutOfStringsBStreamsAndStreams) {
  for (bool withBStream : {true, false}) {
    SCOPED_TRACE(withBStream);
    VKTWriterValue root;
    root["x"] = "ab";
    root["y"] = "c";
    if (withBStream) {
      root["b"].setStream(text("0123456789"), 10, 16, VKT_ALLOC_REFER,
                          VKT_STREAM_FLAG_BOUND);
    }
    root["t"][0].setStream(text("ghijk"), 5, 8, VKT_ALLOC_REFER);
    root["t"][1].setStream(text("abcdef"), 6, 4, VKT_ALLOC_REFER);
    const vkt_binary image = VKTWriterObject().createImage(root);

    // From the string offset array on, the image must read as `want`.
    const vkt_u32 from = field(image, HEADER_OFST_STRING_OFFSET_ARRAY);
    vkt_binary want = hex("0D 02 0D 00 03 | 61 62 00 63 00");
    auto pad = [&](vkt_u32 alignment) {
      while ((from + want.size()) % alignment != 0) want.push_back(0);
    };
    auto add = [&](const char* hexText) {
      const vkt_binary more = hex(hexText);
      want.insert(want.end(), more.begin(), more.end());
    };
    if (withBStream) {
      EXPECT_EQ(field(image, HEADER_OFST_BSTREAM_OFFSET_ARRAY),
                from + want.size());
      add("0D 01 0D 00 | 0D 01 0D 0A");
      pad(16);
      EXPECT_EQ(field(image, HEADER_OFST_BSTREAM_ENTITY), from + want.size());
      add("30 31 32 33 34 35 36 37 38 39");
    }
    EXPECT_EQ(field(image, HEADER_OFST_STREAM_OFFSET_ARRAY),
              from + want.size());
    add("0D 02 0D 00 08 | 0D 02 0D 06 05");
    pad(8);
    const vkt_u32 entity = field(image, HEADER_OFST_STREAM_ENTITY);
    EXPECT_EQ(entity, from + want.size());
    add("61 62 63 64 65 66 | 00 00 | 67 68 69 6A 6B");
    EXPECT_EQ(to_hex({image.begin() + from, image.end()}), to_hex(want));
    EXPECT_EQ(VKTObject(image).totalStreamEntitySize(), 13u);
  }
}

}  // namespace
