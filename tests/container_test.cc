// Arrays and objects read in place: elements, members and member names, what
// views that are no container answer, sharing, position walks and prepared
// keys against the lookups, and lookups and walks that allocate nothing.
#include <gtest/gtest.h>

#include <algorithm>

#include "testutil.h"

namespace {

// Text of a value read through the container operations: "=" marks an element
// that shares the encoding of the one before, "none" the null view. On the
// way it checks what every view answers alike: index size() gives the null
// view, getMemberNames replaces the stale name (only objects have names, and
// only containers a size), and a lookup finds exactly those names while a
// miss leaves *value alone, by name and by prepared key alike.
// Members and elements by position give the names, views and key tags of the
// lookups, in stored order.
void expect_walks_agree(const VKTValue& v, const vkt_members& names) {
  std::vector<VKTValue> values;
  for (VKTValue e : v.elements()) values.push_back(e);
  EXPECT_EQ(values.size(), v.size());
  size_t i = 0;
  for (const VKTMember& m : v.members()) {
    SCOPED_TRACE(i);
    ASSERT_LT(i, names.size());
    EXPECT_EQ(m.name, names[i]);
    EXPECT_EQ(m.value, v[names[i]]);
    EXPECT_EQ(m.value, values[i]);
    EXPECT_EQ(v[m.key()], m.value);
    ++i;
  }
  EXPECT_EQ(i, names.size());
  for (vkt_u32 j = 0; names.empty() && j < values.size(); ++j) {
    EXPECT_EQ(values[j], v[j]) << j;
  }
}

std::string render(const VKTValue& v) {
  vkt_members names = {"stale"};
  v.getMemberNames(&names);
  EXPECT_EQ(v[v.size()], VKTValue());
  for (const char* key : {"a", "ab", "b", "zz"}) {
    VKTValue found = v;
    const bool member = std::count(names.begin(), names.end(), key) != 0;
    EXPECT_EQ(v.findMember(key, &found, nullptr), member) << key;
    EXPECT_EQ(found == v, !member) << key;
    const VKTKey prepared = v.object() ? v.object()->prepareKey(key) : VKTKey();
    EXPECT_EQ(v.findMember(prepared, &found), member) << key;
    EXPECT_EQ(v[prepared], v[key]) << key;
  }
  EXPECT_FALSE(v.isMember(VKTKey()));
  expect_walks_agree(v, names);
  std::string out;
  for (vkt_u32 i = 0; names.empty() && i < v.size(); ++i) {
    out += (i ? "," : "") + std::string(i && v[i] == v[i - 1] ? "=" : "") +
           render(v[i]);
  }
  for (const std::string& name : names)
    out += (out.empty() ? "" : ",") + name + ":" + render(v[name]);
  if (v.type() == VKT_TYPE_ARRAY) return "[" + out + "]";
  if (v.type() == VKT_TYPE_OBJECT) return "{" + out + "}";
  if (v.type() != VKT_TYPE_NULL) return std::to_string(v.asInt());
  return v.object() ? "null" : "none";
}

TEST(ContainerTest, ReadsTheEncodedExamples) {
  // Keys a, ab, b.
  // clang-format off
  const struct { vkt_u32 version; const char* bytes; const char* text; } rows[] = {
      {3, "20 0D 03 0D 00 01 04 02 06 2C 01 01", "[1,300,null]"},
      {3, "20 0D 03 0D 00 00 02 05 07 05 08", "[7,=7,8]"},
      {3, "20 0D 03 0D 00 02 04 05 07 05 07 05 08", "[7,7,8]"},
      {3, "20 0D 02 0D 00 07 20 0D 01 0D 00 05 01 05 02", "[[1],2]"},
      {3, "21 0D 03 0D 00 01 02 0D 03 0D 00 02 03 05 01 01 05 02", "{a:1,ab:null,b:2}"},
      {3, "20 0D 02 0D 00 00 21 0D 02 0D 00 02 0D 02 0D 00 02 05 01 05 02", "[{a:1,b:2},={a:1,b:2}]"},
      {1, "21 0D 02 0D 00 04 11 00 05 01 11 02 05 02", "{a:1,b:2}"},
      {3, "20 0D 00 0D", "[]"},
      {3, "21 0D 00 0D 0D 00 0D", "{}"},
      {1, "21 0D 00 0D", "{}"},
  };
  // clang-format on
  const vkt_binary keyTable = VKTTestAccess::keyTableImage({"a", "ab", "b"});
  for (const auto& row : rows) {
    SCOPED_TRACE(row.bytes);
    ImageParts p;
    p.version = row.version;
    p.keyOffsetArray = hex(row.version == 1 ? "0D 03 0D 00 02 05" : "");
    p.keyTable = row.version == 1 ? hex("61 00 61 62 00 62 00") : keyTable;
    p.root = hex(row.bytes);
    VKTObject obj(p.assemble());
    EXPECT_EQ(render(obj.root()), row.text);
    obj.decodeKeyNames();  // names now come from the object's block
    EXPECT_EQ(render(obj.root()), row.text);
  }
  EXPECT_EQ(render(VKTValue()), "none");
}

TEST(ContainerTest, LargeObjectsFindAndWalkEveryMemberWithoutAllocating) {
  // 300 keys sorting in front push the key tags to two bytes, and a large
  // first member the offsets of the others to three.
  std::vector<std::string> keys;
  for (int i = 0; i < 256; ++i) keys.push_back("k" + std::to_string(1000 + i));
  for (unsigned n : {2u, 3u, 255u, 256u}) {
    VKTWriterValue root;
    for (int i = 0; i < 300; ++i) root["p"]["a" + std::to_string(i)];
    for (int i = 0; i < 22000; ++i) root["o"][keys[0]][i] = 1000 + i;
    for (unsigned i = 1; i < n; ++i) root["o"][keys[i]] = i;
    VKTObject obj(VKTWriterObject().createImage(root));
    vkt_members rebuilt;  // two-byte key tags, names from the key table
    obj.root()["o"].getMemberNames(&rebuilt);
    EXPECT_EQ(rebuilt, vkt_members(keys.begin(), keys.begin() + n));
    obj.decodeKeyNames();
    std::vector<VKTKey> prepared;
    for (unsigned i = 0; i < n; ++i)
      prepared.push_back(obj.prepareKey(keys[i]));
    const VKTValue o = obj.root()["o"];
    const AllocationCounter counter;
    bool right = o.size() == n && o[keys[0]][21999].asInt() == 22999;
    for (unsigned i = 1; i < n; ++i) right &= o[keys[i]].asInt() == int(i);
    for (unsigned i = 1; i < n; ++i) right &= o[prepared[i]].asInt() == int(i);
    unsigned i = 0;
    for (const VKTMember& m : o.members()) {
      right &= m.name == keys[i] && m.value == o[prepared[i]];
      ++i;
    }
    i = 0;  // member values by position, past two-byte key tags
    for (VKTValue e : o.elements()) {
      right &= i < n && e == o[prepared[i]];
      ++i;
    }
    vkt_s64 sum = 0;
    for (VKTValue e : o[prepared[0]].elements()) sum += e.asInt();
    EXPECT_EQ(counter.count(), 0u);
    EXPECT_TRUE(right && i == n) << n;
    EXPECT_EQ(sum, 22000 * 1000 + 21999 * 22000 / 2);
  }
}

}  // namespace
