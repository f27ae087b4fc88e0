// Packed unsigned arrays: exact bytes at the width and count boundaries,
// appending behind other bytes, and reading back what was generated.
#include "vkt/packed_array.h"

#include <gtest/gtest.h>

#include "testutil.h"

TEST(PackedArray, BytesAtEveryBoundaryAndReadBack) {
  // The leading bytes of each encoding; the short ones are whole.
  // clang-format off
  const std::pair<std::vector<vkt_u32>, const char*> rows[] = {
      {{}, "0D 00 0D"}, {{5}, "0D 01 0D 05"}, {{0, 1, 300}, "0D 03 0E 00 00 01 00 2C 01"},
      {{70000}, "0D 01 0F 70 11 01"}, {{16777216}, "0D 01 10 00 00 00 01"},
      {{0, 255}, "0D 02 0D 00 FF"}, {{256, 1}, "0D 02 0E 00 01 01 00"}, {{65535}, "0D 01 0E FF FF"},
      {{65536, 2}, "0D 02 0F 00 00 01 02 00 00"}, {{16777215}, "0D 01 0F FF FF FF"},
      {{3, 16777216}, "0D 02 10 03 00 00 00 00 00 00 01"},
      {std::vector<vkt_u32>(255, 7), "0D FF 0D 07"}, {std::vector<vkt_u32>(256, 7), "0E 00 01 0D 07"}, {std::vector<vkt_u32>(65535, 7), "0E FF FF 0D 07"},
      {std::vector<vkt_u32>(65536, 7), "0F 00 00 01 0D 07"}, {std::vector<vkt_u32>(16777215, 7), "0F FF FF FF 0D 07"},
      {std::vector<vkt_u32>(16777216, 7), "10 00 00 00 01 0D 07"}};
  // clang-format on
  for (const auto& [values, want] : rows) {
    SCOPED_TRACE(want);
    vkt_binary bytes = {0xAB};
    concat_unsigned_array(bytes, values);
    // The byte in front stays, and behind it lies what create makes.
    const vkt_binary made(bytes.begin() + 1, bytes.end());
    EXPECT_TRUE(bytes[0] == 0xAB && made == create_unsigned_array(values));
    const size_t n = std::min(made.size(), hex(want).size());
    EXPECT_EQ(to_hex(vkt_binary(made.begin(), made.begin() + n)), want);
    unsigned_array a;
    setup_unsigned_array(&a, &bytes[1]);
    EXPECT_TRUE(a.size == made.size() && a.size == unsigned_array_size(values));
    for (vkt_u32 i = 0; i < values.size(); ++i)
      if (get_unsigned_array(&a, i) != values[i]) FAIL() << "element " << i;
  }
}

TEST(PackedArray, BoundedSetupAcceptsOnlyWholeArrays) {
  // Every width of count and element; `bad` bytes replace the ids.
  // clang-format off
  const struct { std::vector<vkt_u32> values; const char* bad; } rows[] = {
      {{}, ""}, {{0, 1, 300}, ""}, {{70000, 3}, ""}, {{16777216}, ""},
      {std::vector<vkt_u32>(256, 7), ""}, {std::vector<vkt_u32>(65536, 1), ""},
      {{1}, "0C 01 0D 01"}, {{1}, "0D 01 11 01"}, {{1}, "11 01 0D 01"}};
  // clang-format on
  for (const auto& row : rows) {
    SCOPED_TRACE(&row - rows);
    vkt_binary whole = {0xEE, 0xEE};  // what the offset skips
    concat_unsigned_array(whole, row.values);
    const vkt_binary bad = hex(row.bad);
    std::copy(bad.begin(), bad.end(), whole.begin() + 2);
    unsigned_array want = {};  // the unbounded setup, on sound bytes only
    if (bad.empty()) setup_unsigned_array(&want, &whole[2]);
    // Cut at every length up to the whole (a few at the end of big ones).
    const vkt_u32 size = vkt_u32(whole.size());
    for (vkt_u32 cut = size > 300 ? size - 8 : 0; cut <= size; ++cut) {
      vkt_binary bytes(whole.begin(), whole.begin() + cut);
      bytes.shrink_to_fit();  // so that ASan sees any read past the cut
      unsigned_array a;
      const bool fits = cut == size && bad.empty();
      EXPECT_EQ(setup_unsigned_array_within(&a, bytes.data(), cut, 2), fits);
      EXPECT_EQ(a.valueNum, fits ? want.valueNum : 0) << cut;
      EXPECT_EQ(fits ? a.size : 0u, fits ? want.size : 0u) << cut;
    }
    // Width-fixed reads give what the generic read gives.
    with_width(want.valueSize, [&](auto w) {
      for (vkt_u32 i = 0; i < std::min(want.valueNum, 300u); ++i) {
        EXPECT_EQ(read_packed<decltype(w)::value>(want.values, i),
                  get_unsigned_array(&want, i));
      }
      return 0;
    });
  }
}
