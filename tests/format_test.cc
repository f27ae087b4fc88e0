// Header checksum, the width-named byte helpers and the scalar generators.
#include "vkt/format.h"

#include <gtest/gtest.h>
#include <zlib.h>  // its adler32() is the reference for ours

#include "testutil.h"

namespace {

TEST(Adler32, MatchesZlib) {
  // 5552 bytes of 0xFF is where a sum first needs its modulus.
  const vkt_binary inputs[] = {{},
                               {'a'},
                               hex("00 FF 80 7F 01 FE"),
                               vkt_binary(5552, 0xFF),
                               vkt_binary(5553, 0xFF)};
  for (const vkt_binary& in : inputs) {
    SCOPED_TRACE(in.size());
    const vkt_u32 want = vkt_u32(::adler32(1, in.data(), uInt(in.size())));
    class adler32 whole(in.data(), vkt_size(in.size()));
    EXPECT_EQ(vkt_u32(whole), want);
  }
}

TEST(HeaderChecksum, CoversOffsetFieldsOnly) {
  // A version-4 header: key table at 56, root at 82, strings at 101/106,
  // bstreams at 111/115/128, streams at 138/143/152.
  const vkt_binary h = hex(
      "56 4B 54 00 04 00 00 00 | 38 00 00 00 38 00 00 00 | 65 00 00 00 6A 00 "
      "00 00 | 8A 00 00 00 8F 00 00 00 | 98 00 00 00 52 00 00 00 | A5 04 4C "
      "66 | 6F 00 00 00 73 00 00 00 80 00 00 00");
  const vkt_u32 v4 = header_checksum(h.data(), 4);
  const vkt_u32 v3 = header_checksum(h.data(), 3);
  EXPECT_EQ(v4, 0x664C04A5u);
  EXPECT_EQ(v3, vkt_u32(::adler32(1, &h[8], 32)));
  for (size_t i = 0; i < h.size(); ++i) {
    SCOPED_TRACE(i);
    vkt_binary changed = h;
    changed[i] ^= 0x10;
    const bool covered3 = i >= 8 && i < 40;  // not magic/version/flags/sum
    EXPECT_EQ(header_checksum(changed.data(), 4) != v4, covered3 || i >= 44);
    EXPECT_EQ(header_checksum(changed.data(), 3) != v3, covered3);
  }
}

// The bytes a generator wrote, as far as their id byte says; the rest of the
// buffer is checked to be untouched.
template <typename G, typename T>
vkt_binary gen(G generate, T value) {
  vkt_u8 buf[SCALAR_BUFFER_SIZE];
  std::memset(buf, 0xAA, sizeof(buf));
  generate(buf, value);
  const vkt_u32 size = get_value_size(buf);
  for (vkt_u32 i = size; i < SCALAR_BUFFER_SIZE; ++i) EXPECT_EQ(buf[i], 0xAA);
  return vkt_binary(buf, buf + size);
}
template <typename T>
T from_bits(vkt_u64 bits) {
  T t;
  std::memcpy(&t, &bits, sizeof(t));
  return t;
}

TEST(Generators, SmallestIdAndExactBytes) {
  const std::pair<vkt_binary, const char*> rows[] = {
      {gen(generate_integer, 0), "04"},
      {gen(generate_integer, -128), "05 80"},
      {gen(generate_integer, 128), "06 80 00"},
      {gen(generate_integer, -129), "06 7F FF"},
      {gen(generate_integer, -32769), "07 FF 7F FF"},
      {gen(generate_integer, 2147483647), "08 FF FF FF 7F"},
      {gen(generate_long_integer, -128), "05 80"},
      {gen(generate_long_integer, 2147483648), "09 00 00 00 80 00"},
      {gen(generate_long_integer, 0x123456789ABCDEF0),
       "0C F0 DE BC 9A 78 56 34 12"},
      {gen(generate_single, 1.5f), "1E 00 00 C0 3F"},
      {gen(generate_single, -0.0f), "1D"},
      {gen(generate_single, from_bits<float>(0x7FC01234)), "1E 34 12 C0 7F"},
      {gen(generate_double, 1.5), "1F 00 00 00 00 00 00 F8 3F"},
      {gen(generate_double, 1.0), "1F 00 00 00 00 00 00 F0 3F"},
      {gen(generate_double, -0.0), "1D"},
      {gen(generate_double, from_bits<double>(0xFFF8000000000123)),
       "1F 23 01 00 00 00 00 F8 FF"},
      {gen(generate_string, 256), "16 00 01"}};

  for (const auto& row : rows) {
    SCOPED_TRACE(row.second);
    EXPECT_EQ(to_hex(row.first), to_hex(hex(row.second)));
  }
}

// Both ends of every width, and the first values beyond them, pass through
// the write_ and read_ helpers of their width and come back.
TEST(Generators, RoundTripAcrossEveryWidth) {
  for (int bytes = 1; bytes <= 8; ++bytes) {
    const vkt_u64 top =
        ~vkt_u64(0) >> (65 - 8 * bytes);  // largest of the width
    for (vkt_u64 bits : {top, ~top, top + 1, ~top - 1}) {  // ~top is -top-1
      const vkt_s64 v = vkt_s64(bits);
      SCOPED_TRACE(v);
      const bool fits = v >= vkt_s64(~top) && v <= vkt_s64(top);
      const vkt_binary b = gen(generate_long_integer, v);
      EXPECT_EQ(b[0], ID_INTEGER0 + (fits ? bytes : bytes + 1));
      const vkt_s64 back = identify_value(b.data()) == TYPE_INTEGER
                               ? parse_integer(b.data())
                               : parse_long_integer(b.data());
      EXPECT_EQ(back, v);
    }
  }
}

TEST(Endian, LocalMachineIsLittle) {
  EXPECT_EQ(vkt_get_local_endian(), VKT_ENDIAN_LITTLE);
}

}  // namespace
