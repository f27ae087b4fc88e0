// Value images: the id each value gets, sharing of equal containers, and the
// order and merging of stream table entries, which the tags show.
#include <gtest/gtest.h>

#include <set>
#include <string>

#include "testutil.h"
#include "vkt/writer_tables.h"  // hash_bytes, OpenIndex

template <typename T>
static VKTWriterValue val(T x) {
  VKTWriterValue v;
  v = x;
  return v;
}
// An array, or with `keys` an object under those one-letter keys.
static VKTWriterValue arr(std::initializer_list<VKTWriterValue> elements,
                          const char* keys = nullptr) {
  VKTWriterValue v;
  keys ? v.toObject() : v.toArray();
  for (const auto& e : elements) keys ? v.append({*keys++}, e) : v.append(e);
  return v;
}
static const vkt_u8 kSevens[] = {7, 7, 7, 7, 7, 7, 7, 7, 7};
static VKTWriterValue stream(int size, int align, int flags = 0, int mode = 1) {
  VKTWriterValue v;  // mode 1: VKT_ALLOC_REFER
  v.setStream(kSevens, size, align, vkt_alloc_type(mode), flags);
  return v;
}

TEST(WriterEncode, ValueImages) {
  VKTWriterValue one = arr({val(1)}), x121 = arr({val(1), val(2), val(1)});
  VKTWriterValue reader, tags;
  reader.setStream(new RecordingReadStream(hex("07 07 07")), 4);
  const std::pair<VKTWriterValue, const char*> rows[] = {
      // clang-format off
      {VKTWriterValue(), "01"}, {val(true), "02"}, {val(false), "03"}, {val(0), "04"}, {val(0.0f), "1D"}, {val(0.0), "1D"}, {val(-0.0), "1D"},
      {val(1.5f), "1E 00 00 C0 3F"}, {val(1.5), "1F 00 00 00 00 00 00 F8 3F"}, {val(-128), "05 80"}, {val(-129), "06 7F FF"},
      {val(2147483647), "08 FF FF FF 7F"}, {val(vkt_s64(2147483648LL)), "09 00 00 00 80 00"}, {arr({}), "20 0D 00 0D"},
      {arr({}, ""), "21 0D 00 0D 0D 00 0D"}, {x121, "20 0D 03 0D 00 02 00 05 01 05 02"}, {stream(3, 0), "19 00"},
      {arr({val(1), val(1)}, "ba"), "21 0D 02 0D 00 01 0D 02 0D 00 00 05 01"}, {stream(3, 0, VKT_STREAM_FLAG_BOUND), "22 00"},
      {arr({one, arr({val(1)})}), "20 0D 02 0D 00 00 | 20 0D 01 0D 00 05 01"},
      {arr({arr({one}, "a"), arr({one}, "b")}),  // no sharing across objects
       "20 0D 02 0D 00 10 | 21 0D 01 0D 00 0D 01 0D 00 20 0D 01 0D 00 05 01 | 21 0D 01 0D 01 0D 01 0D 00 20 0D 01 0D 00 05 01"},
      // Stream tags: by alignment, then size; 0 and 1 apart; equal bytes
      // merged whatever the mode; readers after memory.
      {arr({stream(5, 16), stream(3, 16), stream(9, 4)}), "20 0D 03 0D 00 02 04 19 02 19 01 19 00"},
      {arr({stream(3, 1), stream(3, 0)}), "20 0D 02 0D 00 02 19 01 19 00"},
      {arr({stream(3, 4), stream(3, 4, 0, VKT_ALLOC_DUPLICATE)}), "20 0D 02 0D 00 00 19 00"},
      {arr({reader, stream(3, 4), reader}), "20 0D 03 0D 00 02 00 19 01 19 00"},
  };  // clang-format on
  for (const auto& [tree, image] : rows) {
    EXPECT_EQ(to_hex(written_root(tree)), to_hex(hex(image)));
  }
  EXPECT_EQ(to_hex(written_root(x121, false)),  // without sharing
            "20 0D 03 0D 00 02 04 05 01 05 02 05 01");
  for (int i = 0; i < 257; ++i) tags[i] = std::to_string(1000 + i);
  vkt_binary image = written_root(tags);  // the last string has tag 256
  EXPECT_EQ(to_hex({image.end() - 3, image.end()}), "16 00 01");
  tags[256] = "1000";  // one string fewer: the last has tag 255
  image = written_root(tags);
  EXPECT_EQ(to_hex({image.end() - 2, image.end()}), "15 FF");
}

// Past a handful of elements, equal images are found by hash; an entity area
// beyond 255 bytes widens the offsets, one that sharing keeps small narrows
// them, and the container around sees the final image.
TEST(WriterEncode, LargeContainersShareAndWidenOffsets) {
  VKTWriterValue repeats, wide, same, outer;
  std::string offsets, entity, zeros;
  for (int i = 0; i < 40; ++i) {
    repeats[i] = i % 5;  // 04, 05 01 .. 05 04
    offsets += " " + to_hex({vkt_u8(i % 5 ? 2 * (i % 5) - 1 : 0)});
  }
  EXPECT_EQ(
      to_hex(written_root(repeats)),
      to_hex(hex("20 0D 28 0D" + offsets + " 04 05 01 05 02 05 03 05 04")));
  offsets.clear();
  for (int i = 0; i < 100; ++i) {
    wide[i] = 1.5 + i;
    same[i] = 1.5;  // sized for wide offsets, stored once: narrow ones
    vkt_u8 b[8];
    write_double_float(b, 1.5 + i);
    offsets += " " + to_hex({vkt_u8(9 * i), vkt_u8(9 * i >> 8)});
    entity += " 1F " + to_hex({b, b + 8});
    zeros += " 00";
  }
  const std::string wideImage = "20 0D 64 0E" + offsets + entity;  // 1104 bytes
  EXPECT_EQ(to_hex(written_root(wide)), to_hex(hex(wideImage)));
  EXPECT_EQ(to_hex(written_root(same)),
            to_hex(hex("20 0D 64 0D" + zeros + " 1F 00 00 00 00 00 00 F8 3F")));
  outer[0] = wide;
  outer[1] = 1;
  EXPECT_EQ(to_hex(written_root(outer)),
            to_hex(hex("20 0D 02 0E 00 00 50 04 " + wideImage + " 05 01")));
}

// The tables find equal entries by hash wherever their bytes lie: strings met
// out of order and again after the tables regrow, payloads with equal bytes
// at two addresses, and empty payloads with and without a pointer.
TEST(WriterEncode, TablesStoreEachStringAndPayloadOnce) {
  static const vkt_u8 kA[] = {1, 2, 3}, kB[] = {1, 2, 3}, kC[] = {1, 2, 4};
  // Bytes, size, and the element whose payload this one shares.
  // clang-format off
  const struct { const vkt_u8* bytes; vkt_u32 size; int sameAs; } payloads[] = {{kA, 3, 0}, {kB, 3, 0}, {kC, 3, 2}, {nullptr, 0, 3}, {kA, 0, 3}};
  // clang-format on
  VKTWriterValue root;
  for (int i = 0; i < 3000; ++i)
    root[0][i] = "s" + std::to_string(i * 7 % 1000);
  for (int i = 0; i < 5; ++i) {
    root[1][i].setStream(payloads[i].bytes, payloads[i].size, 4,
                         VKT_ALLOC_REFER);
  }
  const vkt_binary image = VKTWriterObject().createImage(root);
  auto count = [&](vkt_u32 field) {
    unsigned_array a;
    setup_unsigned_array(
        &a, image.data() + read_32bit_unsigned(image.data() + field));
    return a.valueNum;
  };
  EXPECT_EQ(count(HEADER_OFST_STRING_OFFSET_ARRAY), 1000u);
  EXPECT_EQ(count(HEADER_OFST_STREAM_OFFSET_ARRAY), 3u);
  VKTObject object(image);
  const VKTValue strings = object.root()[0], streams = object.root()[1];
  for (int i = 0; i < 3000; ++i) {
    ASSERT_EQ(strings[i].asString(), "s" + std::to_string(i * 7 % 1000)) << i;
  }
  for (int i = 0; i < 5; ++i) {
    EXPECT_EQ(streams[i].asStream(), streams[payloads[i].sameAs].asStream())
        << i;
  }
  EXPECT_NE(streams[0].asStream(), streams[2].asStream());
}

// A nested array of up to eight scalars is written in one step: its image
// must be the bytes the general path gives the same array at the root, for
// every length around the bound, with repeats and with sharing off.
TEST(WriterEncode, ShortArraysNestedMatchTheirImageAtTheRoot) {
  VKTWriterValue text, longInt, single;
  text = "s";
  longInt = vkt_s64(1) << 40;
  single = 2.5f;
  const VKTWriterValue pool[] = {
      VKTWriterValue(), val(true), val(false), val(0), val(-129), val(1.5),
      val(0.0),         text,      longInt,    single, val(1.5),  text};
  for (const bool optimize : {true, false}) {
    for (size_t n = 0; n <= 10; ++n) {
      for (size_t start = 0; start < 4; ++start) {
        VKTWriterValue inner, outer;
        inner.toArray();
        for (size_t i = 0; i < n; ++i) {
          inner.append(pool[(start + i * (start + 1)) % 12]);
        }
        outer.append(inner);
        const vkt_binary whole = written_root(outer, optimize);
        ASSERT_GE(whole.size(), 5u);
        EXPECT_EQ(to_hex({whole.begin() + 5, whole.end()}),
                  to_hex(written_root(inner, optimize)))
            << "n " << n << " start " << start << " optimize " << optimize;
      }
    }
  }
}

// The tables find entries by the writer's hash: it must read every byte of
// a text of any length (its words overlap near the end), tell lengths apart,
// and spread small changes into the low bits the tables index by.
TEST(WriterEncode, HashSeesEveryByteAndSpreadsLowBits) {
  const std::string text(48, 'a');
  std::set<vkt_u64> lengths;
  for (size_t n = 0; n <= text.size(); ++n) {
    const vkt_u64 whole = vkt_internal::hash_bytes(text.data(), n);
    EXPECT_TRUE(lengths.insert(whole).second) << "length " << n;
    for (size_t i = 0; i < n; ++i) {
      std::string changed = text.substr(0, n);
      changed[i] ^= 1;
      EXPECT_NE(vkt_internal::hash_bytes(changed.data(), n), whole)
          << "length " << n << " byte " << i;
    }
  }
  std::set<vkt_u64> low;
  for (vkt_u64 i = 0; i < 4096; ++i) {
    low.insert(vkt_internal::hash_bytes(&i, sizeof i) & 0xFFFF);
  }
  EXPECT_GT(low.size(), 3800u);  // about 3,970 for an even spread
}

// The writer's index finds every entry again past the count it was sized
// for, whether the hashes differ throughout, only in the high bits its
// slots keep (one probe chain), or not at all (only `same` tells entries
// apart).
TEST(WriterEncode, OpenIndexFindsEveryEntry) {
  const vkt_u32 kEntries = 300;
  for (const vkt_u64 mask : {~0ull, 0xFFFFFFFF00000000ull, 0ull}) {
    vkt_internal::OpenIndex index;
    index.reserve(4);
    std::vector<vkt_u64> hashes;
    auto hashOf = [&](vkt_u32 i) { return hashes[i]; };
    for (vkt_u32 i = 0; i < kEntries; ++i) {
      hashes.push_back(vkt_internal::hash_bytes(&i, sizeof i) & mask);
      EXPECT_EQ(index.findOrAdd(
                    hashes[i], i, [](vkt_u32) { return false; }, hashOf),
                i);
    }
    for (vkt_u32 i = 0; i < kEntries; ++i) {
      EXPECT_EQ(
          index.findOrAdd(
              hashes[i], kEntries, [&](vkt_u32 j) { return j == i; }, hashOf),
          i)
          << mask;
    }
  }
}
