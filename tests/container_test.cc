// Arrays and objects read in place: elements, members and member names, what
// views that are no container answer, sharing, and lookups that allocate
// nothing.
#include <gtest/gtest.h>

#include <memory>
#include <string>

#include "testutil.h"

namespace {

// Text of a value read through the container operations. On the way it checks
// that every view answers alike: index size() and keys that the value does
// not hold give the null view, and only objects have names.
std::string render(const VKTValue& v) {
  const vkt_size n = v.size();
  const vkt_type type = v.type();
  VKTValue untouched = v;
  vkt_members names = {"stale"};
  v.getMemberNames(&names);
  EXPECT_EQ(v.count(), n);
  EXPECT_EQ(v[n], VKTValue());
  EXPECT_FALSE(v.findMember("ab", &untouched, nullptr));  // in no object
  EXPECT_EQ(untouched, v);
  EXPECT_FALSE(v.isMember("zz", nullptr));  // no key of the image
  EXPECT_EQ(v["ab"], VKTValue());
  EXPECT_TRUE(n == 0 || type == VKT_TYPE_ARRAY || type == VKT_TYPE_OBJECT);
  EXPECT_EQ(names.size(), type == VKT_TYPE_OBJECT ? n : 0);
  std::string out;
  for (vkt_u32 i = 0; type == VKT_TYPE_ARRAY && i < n; ++i) {
    out += (i ? "," : "") + render(v[i]);
  }
  for (const std::string& name : names) {
    VKTValue member;
    EXPECT_TRUE(v.findMember(name, &member)) << name;
    EXPECT_EQ(v.at(name.c_str(), nullptr), member);
    out += (out.empty() ? "" : ",") + name + ":" + render(v[name]);
  }
  if (type == VKT_TYPE_ARRAY) return "[" + out + "]";
  if (type == VKT_TYPE_OBJECT) return "{" + out + "}";
  if (type == VKT_TYPE_STRING) return std::string("'") + v.asString() + "'";
  if (type == VKT_TYPE_INTEGER) return std::to_string(v.asInt());
  return type == VKT_TYPE_BOOL ? (v.asBool() ? "true" : "false") : "null";
}

TEST(ContainerTest, ReadsTheEncodedExamples) {
  const struct {
    vkt_u32 version;
    const char* bytes;
    const char* text;
  } rows[] = {
      {3, "20 0D 03 0D 00 01 04 02 06 2C 01 01", "[true,300,null]"},
      {3, "20 0D 03 0D 00 00 02 05 07 05 08", "[7,7,8]"},
      {3, "20 0D 03 0D 00 02 04 05 07 05 07 05 08", "[7,7,8]"},
      {3, "20 0D 02 0D 00 07 20 0D 01 0D 00 05 01 05 02", "[[1],2]"},
      {3, "21 0D 02 0D 00 02 0D 02 0D 00 02 05 01 15 00", "{a:1,b:'x'}"},
      {1, "21 0D 02 0D 00 04 11 00 05 01 11 02 15 00", "{a:1,b:'x'}"},
      {3, "20 0D 00 0D", "[]"},
      {3, "21 0D 00 0D 0D 00 0D", "{}"},
      {1, "21 0D 00 0D", "{}"},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.bytes);
    const bool v1 = row.version == 1;  // keys a, ab, b; one string, "x"
    ImageParts p;
    p.version = row.version;
    p.keyOffsetArray = hex(v1 ? "0D 03 0D 00 02 05" : "");
    p.keyTable = v1 ? hex("61 00 61 62 00 62 00")
                    : VKTTestAccess::keyTableImage({"a", "ab", "b"});
    p.root = hex(row.bytes);
    p.stringOffsets = hex("0D 01 0D 00");
    p.strings = hex("78 00");
    EXPECT_EQ(render(VKTObject(p.assemble()).root()), row.text);
  }
  EXPECT_EQ(render(VKTValue()), "null");
}

TEST(ContainerTest, FindsEveryMemberOfLargeObjects) {
  // Keys sorting in front push the key tags to two bytes, and a large first
  // member the offsets of the others to three.
  const struct {
    unsigned members, keysBefore, firstElements;
  } rows[] = {{2, 0, 0}, {3, 0, 0}, {255, 0, 0}, {256, 300, 22000}};
  for (const auto& row : rows) {
    SCOPED_TRACE(row.members);
    VKTWriterValue root, big;
    for (unsigned i = 0; i < row.keysBefore; ++i)
      root["p"]["a" + std::to_string(1000 + i)];
    for (unsigned i = 0; i < row.members; ++i)
      root["o"]["k" + std::to_string(1000 + i)] = i;
    for (unsigned i = 0; i < row.firstElements; ++i) big[i] = 1000 + i;
    if (row.firstElements != 0) root["o"]["k1000"] = big;
    const VKTObject obj(VKTWriterObject().createImage(root));
    const VKTValue o = obj.root()["o"];
    ASSERT_EQ(o.size(), row.members);
    for (unsigned i = 0; i < row.members; ++i) {
      VKTValue m;
      ASSERT_TRUE(o.findMember("k" + std::to_string(1000 + i), &m)) << i;
      EXPECT_EQ(i == 0 && row.firstElements ? m.size() : vkt_u32(m.asInt()),
                i == 0 && row.firstElements ? row.firstElements : i);
    }
    EXPECT_FALSE(o.isMember("o"));  // keys of the image, not of the object
    EXPECT_FALSE(o.isMember("a1000"));
    const vkt_u8* p = VKTTestAccess::ptr(o);
    if (row.firstElements != 0) {  // key width 2, offset width 3
      EXPECT_EQ(
          to_hex(vkt_binary(p, p + 5)) + to_hex(vkt_binary(p + 517, p + 521)),
          "21 0E 00 01 0E0E 00 01 0F");
    }
  }
}

TEST(ContainerTest, WrittenImages) {
  VKTWriterValue root;
  root["n"];  // created as null
  root["x"]["m"] = 1;
  root["s"][0] = 7;
  root["s"][1] = 7;
  root["s"][2] = 8;
  root["d"] = 2.5;
  root["l"] = vkt_s64(1) << 40;
  for (bool optimize : {true, false}) {
    SCOPED_TRACE(optimize);
    VKTWriterObject writer;
    writer.setOptimize(optimize);
    const VKTObject obj(writer.createImage(root));
    const VKTValue r = obj.root(), s = r["s"];
    EXPECT_TRUE(r.isMember("n"));
    EXPECT_EQ(r["n"].object(), &obj);
    EXPECT_EQ(r["m"], VKTValue());  // a key of the image, not of the root
    EXPECT_EQ(s[0] == s[1], optimize);
    EXPECT_EQ(s[0].asInt() * 10 + s[1].asInt(), 77);
    // Lookups and scalar reads allocate nothing.
    const std::string key = "s";
    VKTValue found;
    const AllocationCounter counter;
    // clang-format off
    const vkt_s64 got[] = {
        r.findMember("n", &found, nullptr), r.size(), r[key][2].asInt(),
        r.at(key).size(), r["l"].asLongInt(), r.isMember(key),
        r["x"]["m"].asBool(), r["zz"].type(), vkt_s64(r["d"].asDouble() * 2),
        vkt_s64(r["d"].asFloat() * 2)};
    // clang-format on
    EXPECT_EQ(counter.count(), 0u);
    const vkt_s64 want[] = {1, 5, 8, 3, vkt_s64(1) << 40, 1, 1, 0, 5, 5};
    EXPECT_TRUE(std::equal(std::begin(got), std::end(got), std::begin(want)));
  }
}

}  // namespace
