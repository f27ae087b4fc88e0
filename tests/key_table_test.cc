// The key table read in place, in its double-array and its sorted form, and
// the key cache in front of the double-array walk.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <map>
#include <thread>

#include "testutil.h"

namespace {

using A = VKTInternal;

// Keys a, ab and b (tags 0, 1, 2) in 101 positions: leaves at 1 (ab), 2 (a)
// and 3 (b), nodes at 98 (a), 99 (b) and 100 (ab); 94 zero bytes between.
// base | check | tail
const std::string kZeros(188, '0');
// clang-format off
const vkt_binary kWorked = hex("0D 65 0D 01 01 00 02" + kZeros + "02 03 01 | 0D 65 0D 00 64 62 63" + kZeros +
                               "00 00 62 | 0D 03 0D 02 01 03");
// clang-format on

vkt_u32 hash_of(const std::string& key) {
  vkt_u32 h = 0;
  for (unsigned char c : key) h = h * 37 + c;
  return h % 307;
}

TEST(KeyTableTest, FindsEveryKeyAndCachesVerdicts) {
  // The first `members` keys in tag order, then keys that the table lacks.
  // In the first row "A" passes the root into a free position and "\xff" lies
  // past the end. In the last double-array row "\x0c" reaches position 13,
  // whose terminator step lands on 14, the count: the tail's first byte
  // behind the check array would pass as check[14] == 13.
  // clang-format off
  const struct { vkt_u32 version; vkt_binary offsets, table; size_t members; std::vector<std::string> keys; } rows[] = {
      {3, {}, kWorked, 3, {"a", "ab", "b", "", "A", "c", "aa", "abc", "ba", "\x01", "\xff", "a\x80"}},
      {3, {}, hex("0D 01 0D 00 0D 01 0D 00 0D 00 0D"), 0, {"a", "\x01", "\xff"}},
      {3, {}, hex("0D 02 0D 01 00 0D 02 0D 00 00 0D 01 0D 01"), 1, {"", "a", "\x01", "\xff"}},
      {3, {}, written_key_table({"a", "\x80", "\xc3\xa9", "\xff"}), 4, {"a", "\x80", "\xc3\xa9", "\xff", "", "\x7f", "\xc3", "\x80\x80", "\xfe"}},
      {3, {}, hex("0D 0E 0D 01 00 00 00 00 00 00 00 00 00 00 00 00 0E | 0D 0E 0D 00 FF FF FF FF FF FF FF FF FF FF FF FF 00 | 0D 00 0D"), 0, {"\x0c", "", "\x0c\x01"}},
      {1, hex("0D 04 0D 00 02 05 07"), hex("61 00 61 62 00 62 00 FF 00"), 4, {"a", "ab", "b", "\xff", "", "A", "aa", "abc", "c", "\x80", "\xff\xff"}},
      {1, hex("0D 00 0D"), {}, 0, {"", "a"}},
  };
  // clang-format on
  for (const auto& row : rows) {
    // Each key is looked up with the cache off (as it starts), on, on again
    // (the entries kept) at another address, where the cache answers, and off
    // again. A sorted table leaves hints alone.
    ImageParts p;
    p.version = row.version;
    p.keyOffsetArray = row.offsets;
    p.keyTable = row.table;
    VKTObject obj(p.assemble());
    for (int pass = 0; pass < 4; ++pass) {
      if (pass > 0) obj.setKeyHashEnabled(pass < 3);
      const bool hinted = pass % 3 != 0 && row.version != 1;
      for (vkt_u32 i = 0; i < row.keys.size(); ++i) {
        SCOPED_TRACE((&row - rows) * 1000 + pass * 100 + i);  // row pass key
        const std::string copy = row.keys[i];
        const char* key = pass == 2 ? copy.c_str() : row.keys[i].c_str();
        const bool member = i < row.members;
        vkt_u32 found = 12345, hint = 0;
        EXPECT_EQ(A::findKey(obj, key, &found, &hint), member);
        EXPECT_EQ(found, member ? i : pass == 2 && hinted ? ~0u : 12345);
        EXPECT_EQ(hint, hinted ? hash_of(copy) + 1 : 0);
        EXPECT_EQ(member ? A::getKey(obj, i) : copy, copy);
      }
      EXPECT_EQ(A::keyHashEntries(obj), hinted ? row.keys.size() : 0);
    }
    // Prepared keys walk the table like a plain lookup and leave the cache
    // alone; the decoded names are the names getKey rebuilds.
    obj.setKeyHashEnabled(true);
    for (vkt_u32 i = 0; i < row.keys.size(); ++i) {
      const VKTKey key = obj.prepareKey(row.keys[i]);
      EXPECT_EQ(key.isPresent(), i < row.members) << i;
      EXPECT_EQ(key.isPresent() ? key.tag() : i, i);
    }
    EXPECT_EQ(A::keyHashEntries(obj), 0u);
    obj.decodeKeyNames();
    for (vkt_u32 i = 0; i < row.members; ++i) {
      EXPECT_EQ(A::getKey(obj, i), row.keys[i]) << i;
    }
    EXPECT_EQ(A::getKey(obj, vkt_u32(row.members)), "");
    // The name index answers every lookup as the walk did, and the cache
    // still records what goes through it.
    obj.buildKeyIndex();
    EXPECT_TRUE(obj.hasKeyIndex());
    for (vkt_u32 i = 0; i < row.keys.size(); ++i) {
      const bool member = i < row.members;
      vkt_u32 found = 12345, hint = 0;
      EXPECT_EQ(A::findKey(obj, row.keys[i].c_str(), &found, nullptr), member);
      EXPECT_EQ(found, member ? i : 12345) << i;
      EXPECT_EQ(A::findKey(obj, row.keys[i].c_str(), &found, &hint), member);
    }
    EXPECT_EQ(A::keyHashEntries(obj), row.version != 1 ? row.keys.size() : 0);
  }
}

TEST(KeyTableTest, NamesOfEveryLengthComeBackWhole) {
  // Around the rebuild's stack buffer of 256 bytes, and names sharing it.
  VKTWriterValue root;
  std::vector<std::string> names;
  for (size_t n : {0, 1, 15, 16, 255, 256, 257, 600}) {
    names.push_back(std::string(n, 'a') + (n ? "z" : ""));
    root[names.back()] = int(n);
  }
  VKTObject obj(VKTWriterObject().createImage(root));
  for (int decoded = 0; decoded < 2; ++decoded) {
    if (decoded) obj.decodeKeyNames();
    vkt_members listed;
    obj.root().getMemberNames(&listed);
    std::vector<std::string> walked;
    for (const VKTMember& m : obj.root().members()) {
      walked.emplace_back(m.name);
      EXPECT_EQ(A::getKey(obj, m.keyTag), walked.back());
      EXPECT_EQ(obj.root()[m.key()], obj.root()[walked.back()]);
    }
    std::sort(names.begin(), names.end());
    EXPECT_EQ(listed, names);
    EXPECT_EQ(walked, names);
  }
}

TEST(KeyTableTest, CopiesOfARebuildingWalkStepOnTheirOwn) {
  // Without decoded names each iterator rebuilds names into a buffer of its
  // own: a copy taken at each position and stepped after the walk (and its
  // range) ended names the next member, in place and past the buffer's
  // in-place size, while the name of the iterator it was copied from stays
  // whole; an iterator moved from steps on too.
  // The root's own keys keep the table larger than the walks and lookups
  // resolve, so that no block of decoded names is made.
  VKTWriterValue root;
  std::vector<std::string> names;
  for (size_t n : {1, 47, 48, 49, 90, 3, 120}) {
    names.push_back(std::string(n, 'k') + std::to_string(n));
    root["walked"][names.back()] = int(n);
    for (int k = 0; k < 4; ++k) root["other" + std::to_string(n * 10 + k)];
  }
  std::sort(names.begin(), names.end());
  const vkt_binary image = VKTWriterObject().createImage(root);
  VKTObject obj(image.data(), vkt_u32(image.size()), VKT_ALLOC_REFER);
  const VKTValue walked = obj.root()["walked"];
  std::vector<VKTMemberIterator> copies;
  for (auto it = walked.members().begin(); copies.size() < names.size(); ++it) {
    copies.push_back(it);
    copies.back() = copies.back();  // assignment to itself keeps the buffer
    VKTMemberIterator next = it;
    if (++next != walked.members().end()) {
      EXPECT_EQ(next->name, names[copies.size()]);
    }
    EXPECT_EQ(it->name, names[copies.size() - 1]);
  }
  for (size_t i = 0; i + 1 < copies.size(); ++i) {
    VKTMemberIterator moved = std::move(copies[i]);
    EXPECT_EQ((++moved)->name, names[i + 1]) << i;
    EXPECT_EQ(moved->value.asInt(), walked[names[i + 1]].asInt());
    EXPECT_EQ((++copies[i])->name, names[i + 1]) << i;  // moved from
  }
  EXPECT_FALSE(obj.hasKeyIndex());
}

TEST(KeyTableTest, ANameAtAReusedAddressIsReadAfresh) {
  // Lookups remember the name last found at an address; a buffer that a
  // program refills must still find what it now spells: another member, a
  // prefix or extension of the last one, or a name the table lacks.
  VKTWriterValue root;
  const char* const names[] = {"a", "ab", "abc", "b", "ba", "longer name"};
  for (size_t i = 0; i < 6; ++i) root[names[i]] = int(i);
  VKTObject obj(VKTWriterObject().createImage(root));
  obj.buildKeyIndex();
  const char* const spelled[] = {"a",  "ab", "a", "abc",         "ba", "b",
                                 "zz", "b",  "",  "longer name", "ab"};
  char buffer[32];
  for (int pass = 0; pass < 2; ++pass) {
    for (const char* text : spelled) {
      std::strcpy(buffer, text);
      int expected = -1;
      for (int i = 0; i < 6; ++i)
        if (std::strcmp(names[i], text) == 0) expected = i;
      SCOPED_TRACE(text);
      EXPECT_EQ(obj.root().isMember(buffer), expected >= 0);
      EXPECT_EQ(obj.root()[buffer].asInt(), expected >= 0 ? expected : 0);
      VKTValue found;
      EXPECT_EQ(obj.root().findMember(buffer, &found, nullptr), expected >= 0);
    }
  }
}

TEST(KeyTableTest, WalksAndLookupsWithoutDecodedNamesAgreeAcrossThreads) {
  // Objects with fewer members than the table: the first walks rebuild
  // names and the first lookups walk the trie, one of them decodes and
  // indexes the table for all, and threads reading at the same time all see
  // the same names and find the same members.
  VKTWriterValue root;
  for (int o = 0; o < 6; ++o) {
    VKTWriterValue& child = root["o" + std::to_string(o)];
    for (int k = 0; k < 30; ++k) {
      child[std::string(size_t(k * 7 % 61), 'n') +
            std::to_string(o * 100 + k)] = k;
    }
  }
  const vkt_binary image = VKTWriterObject().createImage(root);
  // Keys prepared once and shared by every thread, which all move their
  // guessed positions.
  std::map<std::string, VKTKey> shared;
  auto walk = [&shared](const VKTObject& obj) {
    std::vector<std::string> names;
    for (const VKTMember& top : obj.root().members()) {
      names.emplace_back(top.name);
      for (const VKTMember& m : top.value.members()) {
        names.emplace_back(m.name);
        EXPECT_EQ(m.value.asInt(), top.value[m.key()].asInt());
        EXPECT_EQ(top.value[std::string(m.name)], m.value);
      }
      for (const auto& key : shared) {
        EXPECT_EQ(top.value[key.second], top.value[key.first]);
      }
    }
    return names;
  };
  VKTObject decoded(image);
  decoded.decodeKeyNames();
  const std::vector<std::string> expected = walk(decoded);
  ASSERT_EQ(expected.size(), 6u * 31);
  VKTObject opened(image.data(), vkt_u32(image.size()), VKT_ALLOC_REFER);
  for (int k = 0; k < 30; ++k) {  // the names of object o0
    const std::string name =
        std::string(size_t(k * 7 % 61), 'n') + std::to_string(k);
    shared.emplace(name, opened.prepareKey(name));
  }
  std::vector<std::vector<std::string>> seen(4 * 3);
  std::vector<std::thread> threads;
  for (size_t t = 0; t < 4; ++t) {
    threads.emplace_back([&, t] {
      for (size_t pass = 0; pass < 3; ++pass) seen[t * 3 + pass] = walk(opened);
    });
  }
  for (std::thread& t : threads) t.join();
  for (const auto& names : seen) EXPECT_EQ(names, expected);
}

}  // namespace
