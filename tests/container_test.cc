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
// miss leaves *value alone, by name and by prepared key alike. The text comes
// from the walks by position, which must agree with the lookups.
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
  std::string out;
  vkt_u32 i = 0;
  for (VKTValue e : v.elements()) {
    const bool same = names.empty() && i && e == v[i - 1];
    EXPECT_EQ(e, names.empty() ? v[i] : v[names.at(i)]) << i;
    out += (i ? "," : "") +
           (names.empty() ? std::string(same ? "=" : "") : names[i] + ":") +
           render(e);
    ++i;
  }
  EXPECT_EQ(i, v.size());
  i = 0;
  for (const VKTMember& m : v.members()) {
    EXPECT_EQ(m.name, names.at(i)) << i;
    EXPECT_EQ(m.value, v[names[i++]]);
    EXPECT_EQ(v[m.key()], m.value);
  }
  EXPECT_EQ(i, names.size());
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
  const vkt_binary keyTable = written_key_table({"a", "ab", "b"});
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

TEST(ContainerTest, VersionOneRecordsWithTwoByteKeyTags) {
  // Keys k000 to k299; members under tags 1 and 255 (one byte), 256 and 299
  // (two bytes).
  ImageParts p;
  p.version = 1;
  std::vector<vkt_u32> offsets;
  for (int i = 0; i < 300; ++i) {
    offsets.push_back(vkt_u32(p.keyTable.size()));
    const std::string key = "k" + std::to_string(1000 + i).substr(1);
    p.keyTable.insert(p.keyTable.end(), key.c_str(), key.c_str() + 5);
  }
  p.keyOffsetArray = create_unsigned_array(offsets);
  p.root = hex(
      "21 0D 04 0D 00 04 08 0D | 11 01 05 01 | 11 FF 05 02 | 12 00 01 05 03 | "
      "12 2B 01 05 04");
  VKTObject obj(p.assemble());
  EXPECT_EQ(render(obj.root()), "{k001:1,k255:2,k256:3,k299:4}");
  obj.decodeKeyNames();
  EXPECT_EQ(render(obj.root()), "{k001:1,k255:2,k256:3,k299:4}");
  // Through the name index, the second pass by the names' remembered
  // addresses.
  obj.buildKeyIndex();
  const std::string names[] = {"k255", "k256", "k257"};
  for (int pass = 0; pass < 2; ++pass) {
    EXPECT_EQ(obj.root()[names[0]].asInt(), 2);
    EXPECT_EQ(obj.root()[names[1]].asInt(), 3);
    EXPECT_FALSE(obj.root()[names[2]].object());
  }
}

TEST(ContainerTest, LookupsAcrossObjectShapesFindEachMember) {
  // One prepared key, and one name's slot of the name index, serve objects
  // of every shape in turn: the position where the last object held a name
  // may hold it again, hold another name, or lie past the members.
  const std::vector<std::vector<std::pair<std::string, int>>> shapes = {
      {{"a", 1}, {"b", 2}, {"c", 3}, {"d", 4}},
      {{"c", 5}},
      {{"a", 6}, {"b", 7}, {"c", 8}},
      {},
      {{"d", 9}},
      {{"b", 10}, {"c", 11}, {"d", 12}},
      {{"a", 13}, {"d", 14}}};
  // Filler names keep the table larger than the first pass resolves, so
  // that it runs without the name index, and the second with it.
  VKTWriterValue root;
  for (size_t o = 0; o < shapes.size(); ++o) {
    root[o].toObject();
    for (const auto& m : shapes[o]) root[o][m.first] = m.second;
  }
  for (int f = 0; f < 200; ++f) root[shapes.size()]["f" + std::to_string(f)];
  VKTObject obj(VKTWriterObject().createImage(root));
  const std::vector<std::string> names = {"a", "b", "c", "d", "zz"};
  for (int indexed = 0; indexed < 2; ++indexed) {
    if (indexed) obj.buildKeyIndex();
    std::vector<VKTKey> keys;
    for (const std::string& n : names) keys.push_back(obj.prepareKey(n));
    for (int pass = 0; pass < 2; ++pass) {  // forward, then backward
      for (size_t step = 0; step < shapes.size(); ++step) {
        const size_t o = pass ? shapes.size() - 1 - step : step;
        const VKTValue v = obj.root()[vkt_u32(o)];
        for (size_t k = 0; k < names.size(); ++k) {
          int expected = -1;
          for (const auto& m : shapes[o])
            if (m.first == names[k]) expected = m.second;
          SCOPED_TRACE(names[k] + " in object " + std::to_string(o));
          EXPECT_EQ(v.isMember(keys[k]), expected >= 0);
          EXPECT_EQ(v[keys[k]].asInt(), expected >= 0 ? expected : 0);
          EXPECT_EQ(v[names[k]].asInt(), expected >= 0 ? expected : 0);
        }
      }
    }
    EXPECT_EQ(obj.hasKeyIndex(), indexed == 1);
  }
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
    EXPECT_EQ(o.size(), n);
    EXPECT_EQ(o[keys[0]][21999].asInt(), 22999);
    for (unsigned i = 1; i < n; ++i) {
      EXPECT_EQ(o[keys[i]].asInt(), int(i));
      EXPECT_EQ(o[prepared[i]].asInt(), int(i));
    }
    unsigned i = 0;
    for (const VKTMember& m : o.members()) {
      EXPECT_EQ(m.name, keys[i]);
      EXPECT_EQ(m.value, o[prepared[i++]]);
    }
    EXPECT_EQ(i, n);
    i = 0;  // member values by position, past two-byte key tags
    for (VKTValue e : o.elements()) {
      ASSERT_LT(i, n);
      EXPECT_EQ(e, o[prepared[i++]]);
    }
    EXPECT_EQ(i, n);
    vkt_s64 sum = 0;
    for (VKTValue e : o[prepared[0]].elements()) sum += e.asInt();
    EXPECT_EQ(counter.count(), 0u) << n;
    EXPECT_EQ(sum, 22000 * 1000 + 21999 * 22000 / 2);
  }
}

}  // namespace
