// Value images and the collected tables: the id each value gets, containers
// with and without sharing, and the order and merging of table entries.
#include <gtest/gtest.h>

#include <cstdio>

#include "testutil.h"

namespace {

using A = VKTTestAccess;
using Members = std::initializer_list<std::pair<const char*, VKTWriterValue>>;
const vkt_u8 kSevens[] = {7, 7, 7, 7, 7, 7, 7, 7, 7};

template <typename T>
VKTWriterValue val(T x) {
  VKTWriterValue v;
  v = x;
  return v;
}
VKTWriterValue arr(std::initializer_list<VKTWriterValue> elements) {
  VKTWriterValue v;
  v.toArray();
  for (const VKTWriterValue& e : elements) v.append(e);
  return v;
}
VKTWriterValue obj(Members members) {
  VKTWriterValue v;
  v.toObject();
  for (const auto& m : members) v.append(m.first, m.second);
  return v;
}
VKTWriterValue stream(vkt_u32 size, vkt_u32 alignment, vkt_u32 flags = 0,
                      vkt_alloc_type mode = VKT_ALLOC_REFER) {
  VKTWriterValue v;
  v.setStream(kSevens, size, alignment, mode, flags);
  return v;
}

TEST(WriterEncode, ValueImages) {
  const VKTWriterValue one = arr({val(1)});
  const std::pair<VKTWriterValue, const char*> rows[] = {
      // clang-format off
      {VKTWriterValue(), "01"}, {val(true), "02"}, {val(false), "03"},
      {val(0), "04"}, {val(127), "05 7F"}, {val(-128), "05 80"},
      {val(-129), "06 7F FF"}, {val(32768), "07 00 80 00"},
      {val(-8388609), "08 FF FF 7F FF"}, {val(2147483647), "08 FF FF FF 7F"},
      {val(vkt_s64(0)), "04"}, {val(vkt_s64(-129)), "06 7F FF"},  // long, small
      {val(vkt_s64(2147483647)), "08 FF FF FF 7F"},
      {val(vkt_s64(2147483648LL)), "09 00 00 00 80 00"},
      {val(vkt_s64(-549755813889LL)), "0A FF FF FF FF 7F FF"},
      {val(vkt_s64((1LL << 55) - 1)), "0B FF FF FF FF FF FF 7F"},
      {val(vkt_s64(-(1LL << 55) - 1)), "0C FF FF FF FF FF FF 7F FF"},
      {val(0.0f), "1D"}, {val(0.0), "1D"}, {val(-0.0), "1D"}, {val(-0.0f), "1D"},
      {val(1.5f), "1E 00 00 C0 3F"}, {val(1.5), "1F 00 00 00 00 00 00 F8 3F"},
      {arr({}), "20 0D 00 0D"}, {obj({}), "21 0D 00 0D 0D 00 0D"},
      {arr({val(1), val(2), val(1)}), "20 0D 03 0D 00 02 00 05 01 05 02"},
      {obj({{"b", val(1)}, {"a", val(1)}}), "21 0D 02 0D 00 01 0D 02 0D 00 00 05 01"},
      {stream(3, 0), "19 00"}, {stream(3, 0, VKT_STREAM_FLAG_BOUND), "22 00"},
      {arr({arr({val(1)}), arr({val(1)})}), "20 0D 02 0D 00 00 | 20 0D 01 0D 00 05 01"},
      {arr({obj({{"a", one}}), obj({{"b", one}})}),  // no sharing across objects
       "20 0D 02 0D 00 10 | 21 0D 01 0D 00 0D 01 0D 00 20 0D 01 0D 00 05 01 "
       "| 21 0D 01 0D 01 0D 01 0D 00 20 0D 01 0D 00 05 01"},
  };  // clang-format on
  for (const auto& row : rows) {
    SCOPED_TRACE(row.second);
    EXPECT_EQ(to_hex(A::valueImage(row.first)), to_hex(hex(row.second)));
  }
  EXPECT_EQ(to_hex(A::valueImage(arr({val(1), val(2), val(1)}), false)),
            "20 0D 03 0D 00 02 04 05 01 05 02 05 01");
}

TEST(WriterEncode, StringTagWidthFollowsTheTag) {
  VKTWriterValue v;
  char text[16];
  for (int i = 0; i < 257; ++i) {
    std::snprintf(text, sizeof(text), "s%03d", i);
    v[i] = text;
  }
  vkt_binary image = A::valueImage(v);  // the last string has tag 256
  EXPECT_EQ(to_hex({image.end() - 3, image.end()}), "16 00 01");
  v[256] = "s000";  // 256 strings: tag 255 is the last one stored
  image = A::valueImage(v);
  EXPECT_EQ(to_hex({image.end() - 2, image.end()}), "15 FF");
}

TEST(WriterEncode, StreamTableOrderAndMerging) {
  bool destroyed = false;
  VKTWriterValue reader, empty;
  reader.setStream(new RecordingReadStream(hex("07 07 07"), &destroyed), 4);
  empty.setStream(nullptr, 0, 4, VKT_ALLOC_REFER);
  const VKTWriterValue bound = stream(3, 4, VKT_STREAM_FLAG_BOUND);
  const struct {
    VKTWriterValue tree;
    std::vector<std::pair<vkt_u32, vkt_u32>> table;  // (alignment, size)
    const char* image;
  } rows[] = {
      // clang-format off
      {arr({stream(5, 16), stream(3, 16), stream(9, 4)}),
       {{4, 9}, {16, 3}, {16, 5}}, "20 0D 03 0D 00 02 04 19 02 19 01 19 00"},
      {arr({stream(3, 1), stream(3, 0)}), {{0, 3}, {1, 3}}, "20 0D 02 0D 00 02 19 01 19 00"},
      {arr({stream(3, 4), stream(3, 4, 0, VKT_ALLOC_DUPLICATE)}), {{4, 3}}, "20 0D 02 0D 00 00 19 00"},
      {arr({reader, stream(3, 4), reader}), {{4, 3}, {4, 3}}, "20 0D 03 0D 00 02 00 19 01 19 00"},
      {arr({bound, stream(3, 4)}), {{4, 3}}, "20 0D 02 0D 00 02 22 00 19 00"},
      {arr({stream(0, 4), empty}), {{4, 0}}, "20 0D 02 0D 00 00 19 00"},
  };  // clang-format on
  for (const auto& row : rows) {
    SCOPED_TRACE(row.image);
    EXPECT_EQ(A::streamTable(row.tree, false), row.table);
    EXPECT_EQ(to_hex(A::valueImage(row.tree)), to_hex(hex(row.image)));
  }
  EXPECT_FALSE(destroyed);
}

TEST(WriterEncode, StringTableMerging) {
  VKTWriterValue ten;
  for (int i = 0; i < 10; ++i) ten[i] = "a";
  EXPECT_EQ(A::stringTableSize(ten), 1u);
  EXPECT_EQ(to_hex(A::valueImage(ten)),
            "20 0D 0A 0D 00 00 00 00 00 00 00 00 00 00 15 00");
  const VKTWriterValue nul =
      arr({val(std::string("a\0b", 3)), val(std::string("a\0c", 3)), val("a")});
  EXPECT_EQ(to_hex(A::valueImage(nul)),
            "20 0D 03 0D 00 02 04 15 01 15 02 15 00");
}

}  // namespace
