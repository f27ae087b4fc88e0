// Header checksum, the scalar generators and the width-named byte helpers.
#include "vkt/format.h"

#include <gtest/gtest.h>
#include <zlib.h>  // its adler32() is the reference for ours

#include "testutil.h"

using Adler32 = class adler32;

TEST(Checksums, Adler32AndHeaderCoverage) {
  // Past 5552 bytes of 0xFF a sum first needs its modulus.
  const vkt_binary ff(5553, 0xFF);
  EXPECT_EQ(vkt_u32(Adler32(ff.data(), 5553)), ::adler32(1, ff.data(), 5553));
  // A version-4 header: key table at 56, root at 82, strings at 101/106,
  // bstreams at 111/115/128, streams at 138/143/152.
  // clang-format off
  vkt_binary h = hex("56 4B 54 00 04 00 00 00 | 38 00 00 00 38 00 00 00 | 65 00 00 00 6A 00 00 00 | 8A 00 00 00 8F 00 00 00 | 98 00 00 00 52 00 00 00 | A5 04 4C 66 | 6F 00 00 00 73 00 00 00 80 00 00 00");
  // clang-format on
  const vkt_u32 v4 = header_checksum(h.data(), 4);
  const vkt_u32 v3 = header_checksum(h.data(), 3);
  EXPECT_EQ(v4, 0x664C04A5u);
  EXPECT_EQ(v3, ::adler32(1, &h[8], 32));
  // Version 3 covers bytes 8..39; version 4 adds 44..55.
  for (size_t i = 0; i < h.size(); h[i++] ^= 0x10) {
    h[i] ^= 0x10;
    const bool v3covers = i >= 8 && i < 40;
    EXPECT_EQ(header_checksum(h.data(), 4) != v4, v3covers || i >= 44) << i;
    EXPECT_EQ(header_checksum(h.data(), 3) != v3, v3covers) << i;
  }
}

TEST(Generators, SmallestIdExactBytesAndRoundTrip) {
  // The bytes a generator writes, as far as their id byte says: a negative
  // zero takes the zero id, a NaN keeps its payload. (The writer's value
  // images show the other widths.)
  const auto gen = [](auto generate, auto value) {
    vkt_u8 buf[SCALAR_BUFFER_SIZE];
    generate(buf, value);
    return to_hex(vkt_binary(buf, buf + get_value_size(buf)));
  };
  // clang-format off
  const std::pair<std::string, const char*> rows[] = {
      {gen(generate_single, -0.0f), "1D"},
      {gen(generate_single, read_single_float(hex("34 12 C0 7F").data())), "1E 34 12 C0 7F"},
      {gen(generate_double, read_double_float(hex("23 01 00 00 00 00 F8 FF").data())), "1F 23 01 00 00 00 00 F8 FF"}};
  // clang-format on
  for (const auto& r : rows) EXPECT_EQ(r.first, r.second);
  EXPECT_EQ(vkt_get_local_endian(), VKT_ENDIAN_LITTLE);
  // Both ends of every width, and the first values beyond them, take the
  // smallest id and come back with their sign extended from that width.
  for (int bytes = 1; bytes <= 8; ++bytes) {
    // The largest value of the width; ~top is its most negative.
    const vkt_u64 top = ~vkt_u64(0) >> (65 - 8 * bytes);
    for (vkt_u64 bits : {top, ~top, top + 1, ~top - 1}) {
      const vkt_s64 v = vkt_s64(bits);
      const vkt_binary b = hex(gen(generate_long_integer, v));
      const bool fits = v >= vkt_s64(~top) && v <= vkt_s64(top);
      EXPECT_EQ(b[0], ID_INTEGER0 + bytes + !fits) << v;
      // Each parser answers 0 for the ids of the other.
      EXPECT_EQ(parse_integer(b.data()) + parse_long_integer(b.data()), v);
    }
  }
}
