// The double-array key table: exact layouts of small tables, and for random
// key sets that every key is found under its table position and given back.
#include <gtest/gtest.h>

#include <random>
#include <set>

#include "testutil.h"

namespace {

using A = VKTTestAccess;

// base, check and tail of a key table section.
std::vector<std::vector<vkt_u32>> unpack(const vkt_binary& image) {
  std::vector<std::vector<vkt_u32>> out(3);
  const vkt_u8* p = image.data();
  for (auto& values : out) {
    unsigned_array a;
    setup_unsigned_array(&a, p);
    for (vkt_u32 i = 0; i < a.valueNum; ++i) {
      values.push_back(get_unsigned_array(&a, i));
    }
    p += a.size;
  }
  EXPECT_EQ(p, image.data() + image.size());
  EXPECT_EQ(out[0].size(), out[1].size());
  for (vkt_u32 k = 0; k < out[2].size(); ++k) EXPECT_EQ(out[0][out[2][k]], k);
  return out;
}

TEST(KeyTableBuilder, Layouts) {
  EXPECT_EQ(to_hex(A::keyTableImage({})), "0D 01 0D 00 0D 01 0D 00 0D 00 0D");
  EXPECT_EQ(to_hex(A::keyTableImage({""})),
            "0D 02 0D 01 00 0D 02 0D 00 00 0D 01 0D 01");
  const struct {
    std::vector<std::string> keys;
    size_t positions, free, bytes;
    std::vector<vkt_u32> tail, used;  // used: position, base, check, ...
  } rows[] = {
      // clang-format off
      {{"a"}, 99, 96, 208, {1}, {0, 1, 0,  1, 0, 98,  98, 1, 0}},
      {{"a", "ab", "b"}, 101, 94, 214, {2, 1, 3},
       {0, 1, 0,  1, 1, 100,  2, 0, 98,  3, 2, 99,  98, 2, 0,  99, 3, 0,
        100, 1, 98}},
      {{"ba", "bb"}, 102, 96, 215, {1, 2},
       {0, 1, 0,  1, 0, 100,  2, 1, 101,  99, 3, 0,  100, 1, 99,  101, 2, 99}},
      {{"", "b", "ba"}, 101, 96, 214, {1, 3, 2},
       {0, 1, 0,  2, 2, 100,  3, 1, 99,  99, 3, 0,  100, 2, 99}},
      {{"\xFF"}, 257, 254, 783, {1}, {0, 1, 0,  1, 0, 256,  256, 1, 0}},
      {{"array_test1", "array_test2", "bool_test", "bstream_test",
        "double_test", "float_test", "longint_test", "object_test",
        "stream_test", "string_test"},
       189, 83, 397, {1, 2, 3, 4, 5, 6, 7, 8, 9, 10}, {}},
  };  // clang-format on
  for (const auto& row : rows) {
    SCOPED_TRACE(row.keys[0]);
    const vkt_binary image = A::keyTableImage(row.keys);
    const auto t = unpack(image);
    EXPECT_EQ(image.size(), row.bytes);
    EXPECT_EQ(t[0].size(), row.positions);
    EXPECT_EQ(t[2], row.tail);
    std::vector<vkt_u32> used;
    size_t free = 0;
    for (vkt_u32 y = 0; y < t[0].size(); ++y) {
      if (t[0][y] == 0 && t[1][y] == 0 && y != 0) {
        ++free;
      } else if (!row.used.empty()) {
        used.insert(used.end(), {y, t[0][y], t[1][y]});
      }
    }
    EXPECT_EQ(free, row.free);
    EXPECT_EQ(used, row.used);
  }
  // Position 256 needs a two-byte count, and check alone two-byte values.
  const vkt_binary ff = A::keyTableImage({"\xFF"});
  EXPECT_EQ(to_hex({ff.begin(), ff.begin() + 4}), "0E 01 01 0D");
  EXPECT_EQ(to_hex({ff.begin() + 261, ff.begin() + 265}), "0E 01 01 0E");
}

TEST(KeyTableBuilder, RandomKeySetsAreFoundUnderTheirTableOrder) {
  std::mt19937 rng(20240521);
  const std::string alphabet("ab\x01\x7F\x80\xFE\xFF", 7);
  for (int round = 0; round < 60; ++round) {
    SCOPED_TRACE(round);
    std::set<std::string> keys;  // ascending unsigned bytes, like the table
    for (int i = 1 + int(rng() % 40); i > 0; --i) {
      std::string key(rng() % 7, 'a');
      for (char& c : key) {
        c = rng() % 2 ? alphabet[rng() % 7] : char(1 + rng() % 255);
      }
      keys.insert(key);
    }
    VKTWriterValue root;
    vkt_s32 tag = 0;
    for (const std::string& key : keys) root[key] = tag++;
    const vkt_binary image = VKTWriterObject().createImage(root);
    const std::vector<std::string> list(keys.begin(), keys.end());
    const vkt_binary table = A::keyTableImage(list);
    ASSERT_TRUE(std::equal(table.begin(), table.end(),
                           image.begin() + HEADER_SIZE_VER3));
    unpack(table);
    const VKTObject object(image);
    for (vkt_u32 k = 0; k < list.size(); ++k) {
      vkt_u32 found = ~0u;
      EXPECT_TRUE(A::findKey(object, list[k].c_str(), &found, nullptr));
      EXPECT_EQ(found, k);
      EXPECT_EQ(A::getKey(object, k), list[k]);
      EXPECT_EQ(object.root()[list[k]].asInt(), vkt_s32(k));
      const std::string longer = list[k] + "\x7F";
      if (!keys.count(longer)) {
        EXPECT_FALSE(A::findKey(object, longer.c_str(), &found, nullptr));
      }
    }
  }
}

}  // namespace
