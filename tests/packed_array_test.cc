// Packed unsigned arrays: exact bytes at the width and count boundaries,
// appending behind other bytes, and reading back what was generated through
// the generic and the width-fixed reads.
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
      {{3, 16777216}, "0D 02 10 03 00 00 00 00 00 00 01"}, {{4294967295u}, "0D 01 10 FF FF FF FF"},
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
    EXPECT_EQ(bytes[0], 0xAB);
    EXPECT_EQ(made, create_unsigned_array(values));
    const size_t n = std::min(made.size(), hex(want).size());
    EXPECT_EQ(to_hex(vkt_binary(made.begin(), made.begin() + n)), want);
    unsigned_array a;
    setup_unsigned_array(&a, &bytes[1]);
    EXPECT_EQ(a.size, made.size());
    EXPECT_EQ(a.size, unsigned_array_size(values));
    // The generic read and the one fixed to the width while compiling.
    with_width(a.valueSize, [&](auto w) {
      for (vkt_u32 i = 0; i < values.size(); ++i) {
        if (get_unsigned_array(&a, i) != values[i]) ADD_FAILURE() << i;
        if (read_packed<decltype(w)::value>(a.values, i) != values[i])
          ADD_FAILURE() << "fixed width, element " << i;
      }
      return 0;
    });
  }
}
