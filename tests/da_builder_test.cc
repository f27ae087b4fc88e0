// The double-array key table, byte for byte against a plain first-fit build:
// tables of known shape, then random key sets.
#include <gtest/gtest.h>

#include <map>
#include <random>
#include <set>
#include <tuple>

#include "testutil.h"

using Keys = std::vector<std::string>;  // ascending as unsigned bytes, unique
using It = Keys::const_iterator;

// Each node takes the lowest base from 1 at which the codes of all its
// children land on unused positions (0 is always used); code 0 ends a key,
// and the base of its position is the key's number in the tail.
struct Reference {
  std::vector<vkt_u32> base{0}, check{0}, tail;
  std::vector<bool> used{true};
  vkt_u32 firstFree = 1;  // every position before it is used

  void build(It begin, It end, size_t depth, vkt_u32 x) {
    std::map<vkt_u8, It> kids;  // where each child's keys start, by code
    for (It k = begin; k != end; ++k) kids.emplace(vkt_u8((*k)[depth]), k);
    if (kids.empty()) return;
    while (firstFree < used.size() && used[firstFree]) ++firstFree;
    vkt_u32 y = std::max(1, int(firstFree) - kids.begin()->first);
    // First fit: after a clash, all codes again from the next base.
    for (auto c = kids.begin(); c != kids.end();) {
      const bool clash = y + c->first < used.size() && used[y + c->first];
      c = clash ? (++y, kids.begin()) : std::next(c);
    }
    const size_t size = y + kids.rbegin()->first + 1;
    if (size > used.size())
      base.resize(size), check.resize(size), used.resize(size);
    base[x] = y;
    for (const auto& c : kids) check[y + c.first] = x, used[y + c.first] = true;
    for (auto c = kids.begin(); c != kids.end(); ++c) {
      const It stop = std::next(c) == kids.end() ? end : std::next(c)->second;
      if (c->first == 0) base[y] = vkt_u32(tail.size()), tail.push_back(y);
      if (c->first != 0) build(c->second, stop, depth + 1, y + c->first);
    }
  }
};

TEST(KeyTableBuilder, MatchesAPlainFirstFitBuild) {
  // clang-format off
  const std::tuple<Keys, size_t, size_t, size_t, std::vector<vkt_u32>> shapes[] = {  // positions, unused, bytes, tail
      {{}, 1, 0, 11, {}}, {{""}, 2, 0, 14, {1}}, {{"a"}, 99, 96, 208, {1}}, {{"a", "ab", "b"}, 101, 94, 214, {2, 1, 3}},
      {{"\xFF"}, 257, 254, 783, {1}},  // two-byte positions
      {{"array_test1", "array_test2", "bool_test", "bstream_test", "double_test", "float_test", "longint_test", "object_test", "stream_test", "string_test"}, 189, 83, 397, {1, 2, 3, 4, 5, 6, 7, 8, 9, 10}},
  };  // clang-format on
  std::vector<Keys> sets;
  for (const auto& shape : shapes) sets.push_back(std::get<0>(shape));
  std::mt19937 rng(7);
  while (sets.size() < 106) {  // the last: thousands of keys over every byte
    const bool large = sets.size() == 105;
    const unsigned alphabet = large ? 255 : 2 + rng() % 254;
    std::set<std::string> keys;
    for (unsigned n = large ? 4000 : rng() % 80; n > 0; --n) {
      std::string key(rng() % (large ? 12 : 8), ' ');
      for (char& c : key) c = char(1 + rng() % alphabet);
      keys.insert(key);
    }
    sets.emplace_back(keys.begin(), keys.end());
  }
  for (size_t i = 0; i < sets.size(); ++i) {
    Reference r;
    r.build(sets[i].begin(), sets[i].end(), 0, 0);
    const vkt_binary image = written_key_table(sets[i]);
    vkt_binary want;
    for (auto* v : {&r.base, &r.check, &r.tail})
      concat_unsigned_array(want, *v);
    EXPECT_TRUE(image == want) << "key set " << i;
    if (i >= std::size(shapes)) continue;
    const auto& [keys, positions, unused, bytes, tail] = shapes[i];
    EXPECT_EQ(r.base.size(), positions);
    EXPECT_EQ(size_t(std::count(r.used.begin(), r.used.end(), false)), unused);
    EXPECT_EQ(image.size(), bytes);
    EXPECT_EQ(r.tail, tail);
  }
}
