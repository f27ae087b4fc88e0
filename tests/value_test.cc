// VKTValue: the public kind and the conversion matrix of every id byte, the
// null view, and identity comparison.
#include <gtest/gtest.h>

#include <cmath>

#include "testutil.h"

TEST(Value, ConversionMatrixNullViewAndIdentity) {
  ImageParts parts;
  parts.keyTable = empty_key_table();
  // A root value of the given bytes (none: the null view) and what type,
  // asBool, asInt, asLongInt, asFloat (after narrowing f) and asDouble answer.
  // key() shows every integer digit and the sign of zero and NaN.
  // clang-format off
  const vkt_type N = VKT_TYPE_NULL, B = VKT_TYPE_BOOL, I = VKT_TYPE_INTEGER, F = VKT_TYPE_FLOAT, S = VKT_TYPE_STRING, T = VKT_TYPE_STREAM;
  struct Row { const char* root; vkt_type type; bool b; vkt_s32 i; vkt_s64 l; double f, d;
    auto key() const { return std::make_tuple(type, b, i, l, std::to_string(float(f)), std::to_string(d)); } };
  const Row rows[] = {
      {nullptr, N, false, 0, 0, 0, 0}, {"01", N, false, 0, 0, 0, 0}, {"02", B, true, 1, 1, 1, 1},
      // Up to 4 bytes inline: no payload, and each width's extremes.
      {"04", I, false, 0, 0, 0, 0}, {"05 7F", I, true, 127, 127, 127, 127},
      {"05 80", I, true, -128, -128, -128, -128}, {"06 00 80", I, true, -32768, -32768, -32768, -32768},
      {"07 00 00 80", I, true, -8388608, -8388608, -8388608, -8388608},
      {"07 FF FF 7F", I, true, 8388607, 8388607, 8388607, 8388607},
      {"08 00 00 00 80", I, true, INT32_MIN, INT32_MIN, INT32_MIN, INT32_MIN},
      {"08 FF FF FF 7F", I, true, INT32_MAX, INT32_MAX, 0x1p31, INT32_MAX},
      {"09 FF FF FF 7F FF", I, true, INT32_MAX, -2147483649, -0x1p31, -2147483649},
      {"0A 00 00 00 00 00 80", I, true, 0, -(1LL << 47), -0x1p47, -0x1p47},
      {"0B 00 00 00 00 00 00 80", I, true, 0, -(1LL << 55), -0x1p55, -0x1p55},
      // Straight from 64 bits to float; through double it would round down.
      {"0C 01 00 00 00 10 00 00 10", I, true, 1, 0x1000001000000001, 0x1.000002p60, 0x1.000001p60},
      {"0C FF FF FF FF FF FF FF 7F", I, true, -1, INT64_MAX, 0x1p63, 0x1p63},
      {"1D", F, false, 0, 0, 0, 0}, {"1E 00 00 00 80", F, false, 0, 0, -0.0, -0.0},
      {"1E 00 00 20 40", F, true, 2, 2, 2.5, 2.5}, {"1E 00 00 20 C0", F, true, -2, -2, -2.5, -2.5},
      {"1E 00 00 C0 7F", F, true, 0, 0, NAN, NAN}, {"1F 00 00 00 00 00 00 F8 7F", F, true, 0, 0, NAN, NAN},
      {"1E EC 78 AD 60", F, true, INT32_MAX, INT64_MAX, 1e20f, 1e20f},
      {"1E 00 00 00 4F", F, true, INT32_MAX, 1LL << 31, 0x1p31, 0x1p31},
      {"1F 9C 75 00 88 3C E4 37 7E", F, true, INT32_MAX, INT64_MAX, INFINITY, 1e300},
      {"1F EA 8C A0 39 59 3E 29 C6", F, true, INT32_MIN, INT64_MIN, -1e30f, -1e30},
      {"1F 00 00 00 00 00 00 E0 43", F, true, INT32_MAX, INT64_MAX, 0x1p63, 0x1p63},
      {"1F 00 00 00 00 00 00 00 80", F, false, 0, 0, -0.0, -0.0},
      // Unsigned numbers, tags, containers and non-ids do not convert.
      {"0D 05", N, false, 0, 0, 0, 0}, {"15 01", S, false, 0, 0, 0, 0}, {"19 01", T, false, 0, 0, 0, 0},
      {"22 01", T, false, 0, 0, 0, 0}, {"20 0D 01 0D 00 05 01", VKT_TYPE_ARRAY, false, 0, 0, 0, 0},
      {"21 0D 00 0D 0D 00 0D", VKT_TYPE_OBJECT, false, 0, 0, 0, 0},
      {"00", N, false, 0, 0, 0, 0}, {"26", N, false, 0, 0, 0, 0}};
  // clang-format on
  for (const Row& r : rows) {
    parts.root = hex(r.root ? r.root : "01");
    VKTObject obj(parts.assemble());
    const VKTValue v = r.root ? obj.root() : VKTValue();
    const Row got{nullptr,       v.type(),    v.asBool(),  v.asInt(),
                  v.asLongInt(), v.asFloat(), v.asDouble()};
    EXPECT_EQ(got.key(), r.key()) << (r.root ? r.root : "null view");
  }
  EXPECT_TRUE(VKTValue().root() == VKTValue());
  // A view is its object and its place: b has a's place but another object,
  // and views order by object first, then by place.
  parts.root = hex("20 0D 01 0D 00 05 01");
  VKTObject one(parts.assemble()), two(parts.assemble());
  const VKTValue a = one.root(), b = two.root(), later = a[0];
  EXPECT_TRUE(a == one.root());
  EXPECT_EQ(a.getHash(), one.root().getHash());
  EXPECT_TRUE(a != b);
  EXPECT_TRUE(later.root() == a);
  EXPECT_TRUE(a < later);
  EXPECT_FALSE(later < a);
  EXPECT_FALSE(a < a);
  EXPECT_NE(a < b, b < a);
  EXPECT_NE(a.getHash(), later.getHash());
}

TEST(Value, AsStringGoesByTagAlone) {
  // Strings "ab" and "c". A value that is no string reads tag 0; a tag at or
  // beyond the count, or any tag of an image without strings, reads "".
  ImageParts parts;
  parts.keyTable = empty_key_table();
  // clang-format off
  const struct { const char *root, *offsets, *strings, *want; } rows[] = {
      {"15 00", "0D 02 0D 00 03", "61 62 00 63 00", "ab"}, {"16 01 00", "0D 02 0D 00 03", "61 62 00 63 00", "c"},
      {"17 01 00 00", "0D 02 0D 00 03", "61 62 00 63 00", "c"}, {"18 01 00 00 00", "0D 02 0D 00 03", "61 62 00 63 00", "c"},
      {"19 01", "0D 02 0D 00 03", "61 62 00 63 00", "ab"}, {"15 02", "0D 02 0D 00 03", "61 62 00 63 00", ""},
      {"05 07", "0D 02 0D 00 03", "61 62 00 63 00", "ab"}, {"05 07", "0D 00 0D", "", ""}};
  // clang-format on
  for (const auto& r : rows) {
    parts.root = hex(r.root);
    parts.stringOffsets = hex(r.offsets);
    parts.strings = hex(r.strings);
    VKTObject obj(parts.assemble());
    EXPECT_STREQ(obj.root().asString(), r.want) << r.root << " | " << r.offsets;
  }
}

TEST(Value, AsStringViewTakesTheLengthFromTheTable) {
  // The library's layout: "a\0b", "" and "c", each closed by a NUL, so the
  // length comes from the next offset or, for the last string, the table's
  // end. Other layouts fall back to the first NUL; each row passes the checked
  // path (verifyTables, then verifyStep of the root) before it is read.
  ImageParts parts;
  parts.keyTable = empty_key_table();
  const std::string kNul("\0", 1);
  // clang-format off
  const struct { const char *root, *offsets, *strings; std::string want; } rows[] = {
      {"15 00", "0D 03 0D 00 04 05", "61 00 62 00 00 63 00", "a" + kNul + "b"},
      {"15 01", "0D 03 0D 00 04 05", "61 00 62 00 00 63 00", ""},
      {"15 02", "0D 03 0D 00 04 05", "61 00 62 00 00 63 00", "c"},
      {"15 00", "0D 01 0D 00", "00 61 00", kNul + "a"},     // last, leading NUL
      {"15 00", "0D 02 0D 02 00", "61 00 62 00", "b"},       // next one in front
      {"15 00", "0D 02 0D 00 09", "61 00 62 00", "a"},       // next one outside
      {"15 00", "0D 02 0D 00 01", "61 62 00", "ab"},         // no NUL before next
      {"05 07", "0D 00 0D", "", ""}};
  // clang-format on
  for (const auto& r : rows) {
    parts.root = hex(r.root);
    parts.stringOffsets = hex(r.offsets);
    parts.strings = hex(r.strings);
    const vkt_binary image = parts.assemble();
    ASSERT_TRUE(VKTObject::verifyTables(image.data(), image.size()))
        << r.offsets;
    VKTObject obj(image.data(), vkt_u32(image.size()), VKT_ALLOC_REFER);
    ASSERT_TRUE(obj.root().verifyStep()) << r.offsets;
    EXPECT_EQ(obj.root().asStringView(), r.want)
        << r.root << " | " << r.offsets;
  }
}
