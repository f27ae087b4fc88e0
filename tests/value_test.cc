// VKTValue: the public kind and the conversion matrix of every id byte, the
// null view, and identity comparison.
#include <gtest/gtest.h>

#include <cmath>
#include <cstdint>
#include <functional>

#include "testutil.h"

namespace {

const vkt_type N = VKT_TYPE_NULL, B = VKT_TYPE_BOOL, I = VKT_TYPE_INTEGER,
               F = VKT_TYPE_FLOAT, S = VKT_TYPE_STRING, T = VKT_TYPE_STREAM;
const double kNaN = std::nan(""), kInf = HUGE_VAL;

// A root value of the given bytes; what each accessor answers for it.
struct Row {
  const char* root;
  vkt_type type;
  bool b;
  vkt_s32 i;
  vkt_s64 l;
  double f, d;  // asFloat is compared after narrowing f
};
const Row kRows[] = {
    {"01", N, false, 0, 0, 0, 0},
    {"02", B, true, 1, 1, 1, 1},
    {"03", B, false, 0, 0, 0, 0},
    {"04", I, false, 0, 0, 0, 0},
    {"05 80", I, true, -128, -128, -128, -128},
    {"06 00 80", I, true, -32768, -32768, -32768, -32768},
    {"07 00 00 80", I, true, -8388608, -8388608, -8388608, -8388608},
    {"08 00 00 00 80", I, true, INT32_MIN, INT32_MIN, INT32_MIN, INT32_MIN},
    {"09 00 00 00 00 01", I, true, 0, 1LL << 32, 0x1p32, 0x1p32},
    {"09 FF FF FF 7F FF", I, true, INT32_MAX, -2147483649, -0x1p31,
     -2147483649},
    {"0B 00 00 00 00 00 00 80", I, true, 0, -(1LL << 55), -0x1p55, -0x1p55},
    // Straight from 64 bits to float; through double it would round down.
    {"0C 01 00 00 00 10 00 00 10", I, true, 1, 0x1000001000000001,
     0x1.000002p60, 0x1.000001p60},
    {"0C FF FF FF FF FF FF FF 7F", I, true, -1, INT64_MAX, 0x1p63, 0x1p63},
    {"1D", F, false, 0, 0, 0, 0},
    {"1E 00 00 20 40", F, true, 2, 2, 2.5, 2.5},
    {"1E 00 00 20 C0", F, true, -2, -2, -2.5, -2.5},
    {"1E 00 00 00 80", F, false, 0, 0, -0.0, -0.0},
    {"1E 00 00 C0 7F", F, true, 0, 0, kNaN, kNaN},
    {"1E EC 78 AD 60", F, true, INT32_MAX, INT64_MAX, 1e20f, 1e20f},
    {"1E 00 00 00 4F", F, true, INT32_MAX, 1LL << 31, 0x1p31, 0x1p31},
    {"1F 9C 75 00 88 3C E4 37 7E", F, true, INT32_MAX, INT64_MAX, kInf, 1e300},
    {"1F EA 8C A0 39 59 3E 29 C6", F, true, INT32_MIN, INT64_MIN, -1e30f,
     -1e30},
    {"1F 00 00 00 00 00 00 E0 43", F, true, INT32_MAX, INT64_MAX, 0x1p63,
     0x1p63},
    {"1F 00 00 00 00 00 00 F8 7F", F, true, 0, 0, kNaN, kNaN},
    // Tags, unsigned numbers, containers and non-ids do not convert.
    {"0D 05", N, false, 0, 0, 0, 0},
    {"11 01", N, false, 0, 0, 0, 0},
    {"15 01", S, false, 0, 0, 0, 0},
    {"19 01", T, false, 0, 0, 0, 0},
    {"22 01", T, false, 0, 0, 0, 0},
    {"20 0D 01 0D 00 05 01", VKT_TYPE_ARRAY, false, 0, 0, 0, 0},
    {"21 0D 00 0D 0D 00 0D", VKT_TYPE_OBJECT, false, 0, 0, 0, 0},
    {"00", N, false, 0, 0, 0, 0},
    {"26", N, false, 0, 0, 0, 0}};

vkt_binary image_with_root(const char* root) {
  ImageParts parts;
  parts.keyTable = empty_key_table();
  parts.root = hex(root);
  return parts.assemble();
}

// Equal values of the same sign, or both NaN.
::testing::AssertionResult Same(double got, double want) {
  if (std::isnan(want) ? std::isnan(got)
                       : got == want && std::signbit(got) == std::signbit(want))
    return ::testing::AssertionSuccess();
  return ::testing::AssertionFailure() << got << " instead of " << want;
}

TEST(ValueScalars, ConversionMatrix) {
  for (const Row& r : kRows) {
    SCOPED_TRACE(r.root);
    VKTObject obj(image_with_root(r.root));
    const VKTValue v = obj.root();
    EXPECT_EQ(v.type(), r.type);
    EXPECT_EQ(v.asBool(), r.b);
    EXPECT_EQ(v.asInt(), r.i);
    EXPECT_EQ(v.asLongInt(), r.l);
    EXPECT_TRUE(Same(v.asFloat(), float(r.f)));
    EXPECT_TRUE(Same(v.asDouble(), r.d));
  }
}

TEST(ValueIdentity, NullViewAndComparisonByPlace) {
  const VKTValue none;
  EXPECT_TRUE(none.type() == VKT_TYPE_NULL && !none.asBool() &&
              none.asInt() == 0 && none.asLongInt() == 0 &&
              none.asFloat() == 0 && none.asDouble() == 0 && !none.object());
  EXPECT_TRUE(none == VKTValue() && !(none != VKTValue()));
  EXPECT_EQ(none.getHash(), VKTValue().getHash());

  // The same bytes in two images: equal content, different views.
  const vkt_binary image = image_with_root("05 07");
  VKTObject one(image), two(image);
  const VKTObject* lo = std::less<const VKTObject*>()(&one, &two) ? &one : &two;
  const VKTObject* hi = lo == &one ? &two : &one;
  const VKTValue a = lo->root(), b = hi->root();
  EXPECT_TRUE(a == lo->root() && a.getHash() == lo->root().getHash());
  EXPECT_TRUE(a != b && !(a == b));
  EXPECT_EQ(a.object(), lo);
  EXPECT_TRUE(a.root() == a && none.root() == none);
  // Object first, then place: a later byte of the lower object still sorts
  // before an earlier byte of the higher one.
  const VKTValue aLater = VKTTestAccess::view(lo, VKTTestAccess::ptr(a) + 1);
  const VKTValue bEarlier = VKTTestAccess::view(hi, hi->image());
  EXPECT_TRUE(a < aLater && !(aLater < a) && !(a < a));
  EXPECT_TRUE(aLater < bEarlier && !(bEarlier < aLater));
  EXPECT_NE(a.getHash(), aLater.getHash());
}

}  // namespace
