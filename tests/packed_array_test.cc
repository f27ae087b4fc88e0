// Packed unsigned arrays: exact bytes, the width and count boundaries, and
// reading back what was generated.
#include "vkt/packed_array.h"

#include <gtest/gtest.h>

#include <random>
#include <vector>

#include "testutil.h"

namespace {

// Parses `bytes` at `at` and checks every field against `values`.
void expect_reads_back(const vkt_binary& bytes, size_t at,
                       const std::vector<vkt_u32>& values) {
  unsigned_array a;
  setup_unsigned_array(&a, bytes.data() + at);
  ASSERT_EQ(a.valueNum, values.size());
  EXPECT_EQ(a.size, bytes.size() - at);  // ends where the bytes end
  EXPECT_EQ(a.size, unsigned_array_size(values));
  for (vkt_u32 i = 0; i < a.valueNum; ++i) {
    if (get_unsigned_array(&a, i) != values[i]) {
      FAIL() << "element " << i << " reads " << get_unsigned_array(&a, i);
    }
  }
}

TEST(PackedArray, ExactBytesAndWidthOfLargestElement) {
  const std::pair<std::vector<vkt_u32>, const char*> rows[] = {
      {{}, "0D 00 0D"},
      {{5}, "0D 01 0D 05"},
      {{0, 1, 300}, "0D 03 0E 00 00 01 00 2C 01"},
      {{70000}, "0D 01 0F 70 11 01"},
      {{16777216}, "0D 01 10 00 00 00 01"},
      {{0, 255}, "0D 02 0D 00 FF"},
      {{256, 1}, "0D 02 0E 00 01 01 00"},
      {{65535}, "0D 01 0E FF FF"},
      {{65536}, "0D 01 0F 00 00 01"},
      {{16777215}, "0D 01 0F FF FF FF"},
      {{7, 0xFFFFFFFF}, "0D 02 10 07 00 00 00 FF FF FF FF"}};
  for (const auto& row : rows) {
    SCOPED_TRACE(row.second);
    const vkt_binary bytes = create_unsigned_array(row.first);
    EXPECT_EQ(to_hex(bytes), to_hex(hex(row.second)));
    expect_reads_back(bytes, 0, row.first);
  }
}

TEST(PackedArray, CountIdFollowsTheCount) {
  const std::pair<vkt_u32, vkt_u8> rows[] = {{255, 13},      {256, 14},
                                             {65535, 14},    {65536, 15},
                                             {16777215, 15}, {16777216, 16}};
  for (const auto& row : rows) {
    SCOPED_TRACE(row.first);
    std::vector<vkt_u32> values(row.first, 0);
    values.back() = 9;  // the last element lies at the very end
    const vkt_binary bytes = create_unsigned_array(values);
    EXPECT_EQ(bytes[0], row.second);
    EXPECT_EQ(bytes.size(), row.second - 10u + row.first);
    unsigned_array a;
    setup_unsigned_array(&a, bytes.data());
    EXPECT_EQ(a.valueNum, row.first);
    EXPECT_EQ(a.valueSize, 1u);
    EXPECT_EQ(get_unsigned_array(&a, row.first - 1), 9u);
  }
}

TEST(PackedArray, ConcatKeepsOldBytesAndRandomListsReadBack) {
  std::mt19937 rng(1234);
  for (int round = 0; round < 300; ++round) {
    std::vector<vkt_u32> values(rng() % 300);
    const int bits = 1 + int(rng() % 32);  // spread over all four widths
    for (auto& v : values) v = vkt_u32(rng()) >> (32 - bits);
    vkt_binary bytes = {0xAB, 0xCD, 0xEF};
    bytes.resize(rng() % 4);
    const vkt_binary old = bytes;
    concat_unsigned_array(bytes, values);
    SCOPED_TRACE(testing::Message() << "round " << round);
    ASSERT_EQ(to_hex(vkt_binary(bytes.begin(), bytes.begin() + old.size())),
              to_hex(old));
    expect_reads_back(bytes, old.size(), values);
  }
}

}  // namespace
