// The editable tree: blocks shared without copy on write, growing subscripts,
// conversions, and who owns a stream's bytes or reader.
#include <gtest/gtest.h>

#include <memory>

#include "testutil.h"

namespace {

using A = VKTTestAccess;

std::string image(const VKTWriterValue& v) {
  return to_hex(A::valueImage(v, false));
}

TEST(WriterValue, CopiesShareOneBlock) {
  VKTWriterValue a, b, o, p, s;
  a[1] = 7;
  b = a;
  EXPECT_EQ(A::refCount(a), 2);
  b.append(a[1]);  // a sees it too
  EXPECT_EQ(to_hex(A::valueImage(a)), "20 0D 03 0D 00 01 01 01 05 07");
  b.setInt(1);  // drops b's reference only
  EXPECT_EQ(A::refCount(a), 1);
  VKTWriterValue& self = a;
  a = self;
  EXPECT_EQ(A::refCount(a), 1);
  b = a;
  b.toObject();
  EXPECT_EQ(A::refCount(a), 1);
  EXPECT_EQ(A::type(a), vkt_u32(TYPE_ARRAY));
  o["x"] = 1;
  p = o;
  s.setString("old");
  p.append("k", s);  // o sees the member
  EXPECT_EQ(A::refCount(s), 2);
  p.append("k", o["x"]);  // replaces it
  EXPECT_EQ(A::refCount(s), 1);
  EXPECT_EQ(image(o), "21 0D 02 0D 00 01 0D 02 0D 00 02 05 01 05 01");
  s = vkt_s64(5);  // a long integer, whatever its value
  EXPECT_EQ(A::type(s), vkt_u32(TYPE_LONG_INTEGER));
}

TEST(WriterValue, GrowingSubscriptsAndConversions) {
  VKTWriterValue a;
  a[3] = 5;
  a.toArray();
  EXPECT_EQ(image(a), "20 0D 04 0D 00 01 02 03 01 01 01 05 05");
  a["k"] = 4;
  EXPECT_EQ(image(a), "21 0D 01 0D 00 0D 01 0D 00 05 04");
  a.append(a["k"]);  // the member outlives the object it leaves
  EXPECT_EQ(image(a), "20 0D 01 0D 00 05 04");
  a = 9;
  a[1];
  EXPECT_EQ(image(a), "20 0D 02 0D 00 01 01 01");
  a.toObject();
  EXPECT_EQ(image(a), "21 0D 00 0D 0D 00 0D");
  a["child"]["x"] = 1;
  a["other"] = 2;
  a = a["child"];
  EXPECT_EQ(image(a), "21 0D 01 0D 00 0D 01 0D 00 05 01");
  a[0][1] = 2;
  a = a[0];
  EXPECT_EQ(image(a), "20 0D 02 0D 00 01 01 05 02");
}

TEST(WriterValue, ReaderLivesUntilTheLastCopyGoes) {
  bool destroyed = false;
  auto keep = std::make_unique<VKTWriterValue>();
  {
    VKTWriterValue a, c;
    a.setStream(new RecordingReadStream(hex("01 02"), &destroyed), 0);
    VKTWriterValue b(a);
    c = b;
    keep->append(c);
    a.setInt(1);
  }
  EXPECT_EQ(VKTWriterObject().createImage(*keep).back(), 0x02);
  EXPECT_FALSE(destroyed);
  keep.reset();
  EXPECT_TRUE(destroyed);  // a second delete would be caught by ASan
}

TEST(WriterValue, StreamBytesAreCopiedUnlessReferred) {
  vkt_u8* mine = new vkt_u8[3]{1, 2, 3};
  vkt_u8 referred[3] = {1, 2, 3};
  VKTWriterValue own, refer, empty;
  own.setStream(mine, 3, 0, VKT_ALLOC_OWN);
  refer.setStream(referred, 3, 0, VKT_ALLOC_REFER);
  mine[0] = 9;
  delete[] mine;  // still the caller's to free
  referred[0] = 8;
  const vkt_binary a = VKTWriterObject().createImage(own);
  const vkt_binary b = VKTWriterObject().createImage(refer);
  EXPECT_EQ(to_hex({a.end() - 3, a.end()}), "01 02 03");
  EXPECT_EQ(to_hex({b.end() - 3, b.end()}), "08 02 03");
  AllocationCounter counter;
  empty.setStream(nullptr, 0, 4, VKT_ALLOC_DUPLICATE);
  EXPECT_EQ(counter.count(), 1u);  // the block, no copy
}

}  // namespace
