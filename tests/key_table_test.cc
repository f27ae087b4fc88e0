// The key table read in place, in its double-array and its sorted form, and
// the key cache in front of the double-array walk.
#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

#include "testutil.h"

namespace {

using Chain = std::vector<std::pair<const char*, vkt_u32>>;

std::string zeros(int n) { return n == 0 ? "" : " 00" + zeros(n - 1); }

// Keys a, ab and b (tags 0, 1, 2) in 101 positions: leaves at 1 (ab), 2 (a)
// and 3 (b), nodes at 98 (a), 99 (b) and 100 (ab).
const vkt_binary kWorked =
    hex("0D 65 0D 01 01 00 02" + zeros(94) + " 02 03 01" +   // base
        " 0D 65 0D 00 64 62 63" + zeros(94) + " 00 00 62" +  // check
        " 0D 03 0D 02 01 03");                               // tail

std::unique_ptr<VKTObject> open_keys(vkt_u32 version, const vkt_binary& offsets,
                                     const vkt_binary& keys,
                                     const char* root = "01") {
  ImageParts p;
  p.version = version;
  p.keyOffsetArray = offsets;
  p.keyTable = keys;
  p.root = hex(root);
  return std::make_unique<VKTObject>(p.assemble());
}

vkt_u32 hash_of(const std::string& key) {
  vkt_u32 h = 0;
  for (unsigned char c : key) h = h * 37 + c;
  return h % 307;
}

bool find(const VKTObject& o, const char* key, vkt_u32* result, vkt_u32* hint) {
  return VKTTestAccess::findKey(o, key, result, hint);
}
size_t entries(const VKTObject& o) { return VKTTestAccess::keyHashEntries(o); }
Chain chain(const VKTObject& o, const char* key) {
  return VKTTestAccess::keyHashChain(o, hash_of(key));
}

TEST(KeyTableTest, FindsEveryKeyAndNothingElse) {
  ASSERT_EQ(kWorked.size(), 214u);
  const struct {
    const char* name;
    vkt_u32 version;
    vkt_binary offsets, keys;
    std::vector<std::string> members, others;  // members in tag order
  } rows[] = {
      // clang-format off
      // "A" passes the root into a free position; "\xff" lies past the end.
      {"worked example", 3, {}, kWorked, {"a", "ab", "b"},
       {"", "A", "c", "aa", "abc", "ba", "\x01", "\xff", "a\x80"}},
      {"no keys", 3, {}, hex("0D 01 0D 00 0D 01 0D 00 0D 00 0D"), {},
       {"a", "\x01", "\xff"}},
      {"empty key only", 3, {}, hex("0D 02 0D 01 00 0D 02 0D 00 00 0D 01 0D 01"),
       {""}, {"a", "\x01", "\xff"}},
      {"high bytes", 3, {},
       VKTTestAccess::keyTableImage({"a", "\x80", "\xc3\xa9", "\xff"}),
       {"a", "\x80", "\xc3\xa9", "\xff"}, {"", "\x7f", "\xc3", "\x80\x80", "\xfe"}},
      {"sorted", 1, hex("0D 04 0D 00 02 05 07"), hex("61 00 61 62 00 62 00 FF 00"),
       {"a", "ab", "b", "\xff"}, {"", "A", "aa", "abc", "c", "\x80", "\xff\xff"}},
      {"sorted, no keys", 1, hex("0D 00 0D"), {}, {}, {"", "a"}},
      // clang-format on
  };
  for (const auto& row : rows) {
    // Each lookup runs first with the cache off and then with it on; a
    // sorted table leaves hints alone either way.
    for (bool cached : {false, true}) {
      SCOPED_TRACE(testing::Message()
                   << row.name << (cached ? ", cached" : ""));
      const auto obj = open_keys(row.version, row.offsets, row.keys);
      obj->setKeyHashEnabled(cached);
      const bool hinted = cached && row.version != 1;
      const size_t n = row.members.size();
      for (size_t i = 0; i < n + row.others.size(); ++i) {
        const std::string& key = i < n ? row.members[i] : row.others[i - n];
        vkt_u32 found = 12345, hint = 0;
        EXPECT_EQ(find(*obj, key.c_str(), &found, &hint), i < n)
            << to_hex(vkt_binary(key.begin(), key.end()));
        EXPECT_EQ(found, i < n ? i : 12345);
        EXPECT_EQ(hint, hinted ? hash_of(key) + 1 : 0);
        EXPECT_EQ(i < n ? VKTTestAccess::getKey(*obj, vkt_u32(i)) : key, key);
      }
      EXPECT_EQ(entries(*obj),
                hinted ? row.members.size() + row.others.size() : 0);
    }
  }
}

TEST(KeyCacheTest, RemembersVerdictsOfViewLookups) {
  std::string miss;  // two letters in the chain of "b", in no table
  for (char c1 = 'a'; c1 <= 'z'; ++c1) {
    for (char c2 = 'a'; c2 <= 'z' && miss.empty(); ++c2) {
      if (hash_of({c1, c2}) == hash_of("b")) miss = {c1, c2};
    }
  }
  ASSERT_FALSE(miss.empty());
  const auto obj =
      open_keys(3, {}, kWorked,
                "21 0D 03 0D 00 01 02 0D 03 0D 00 02 04 05 01 05 02 05 03");
  const VKTValue root = obj->root();  // {a: 1, ab: 2, b: 3}
  obj->setKeyHashEnabled(true);
  // A miss leaves *result alone on the walk; the cache answers FALSE_HASH.
  vkt_u32 result = 7, hint = 0;
  EXPECT_FALSE(find(*obj, miss.c_str(), &result, &hint));
  EXPECT_EQ(result, 7u);
  EXPECT_FALSE(find(*obj, miss.c_str(), &result, &hint));
  EXPECT_EQ(result, 0xFFFFFFFFu);
  // Hits through views hand their hints on; walk and cache answer alike.
  const char* const keys[] = {"a", "ab", "b"};
  vkt_u32 hints[3] = {};
  for (int round = 0; round < 2; ++round) {
    for (int tag = 0; tag < 3; ++tag) {
      EXPECT_EQ(root.at(keys[tag], &hints[tag]).asInt(), tag + 1);
    }
  }
  // An equal string at another address is served by the same entry.
  char copy[] = "ab";
  vkt_u32 copyHint = 0;
  EXPECT_TRUE(root.isMember(copy, &copyHint));
  EXPECT_EQ(entries(*obj), 4u);
  EXPECT_EQ(chain(*obj, "ab"), (Chain{{keys[1], 1}}));
  EXPECT_EQ(chain(*obj, "b"),
            (Chain{{miss.c_str(), 0xFFFFFFFF}, {keys[2], 2}}));
  // Enabling again keeps the entries, disabling drops them, and an old hint
  // still leads to the right chain.
  obj->setKeyHashEnabled(true);
  EXPECT_EQ(entries(*obj), 4u);
  obj->setKeyHashEnabled(false);
  EXPECT_EQ(VKTTestAccess::keyHashChains(*obj), 0u);
  obj->setKeyHashEnabled(true);
  EXPECT_TRUE(find(*obj, keys[2], &result, &hints[2]));
  EXPECT_EQ(result, 2u);
  EXPECT_EQ(chain(*obj, "b"), (Chain{{keys[2], 2}}));
  EXPECT_EQ(entries(*obj), 1u);
}

}  // namespace
