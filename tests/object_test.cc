// Opening an image in every ownership mode and through a read stream, decode,
// the purge of the stream entity, and which payloads each way reaches.
#include <gtest/gtest.h>

#include <memory>
#include <vector>

#include "testutil.h"

namespace {

// Root [bstream 0 (version 4) or 7, stream 0, stream 1, empty stream 2, "ab",
// 300]; the stream entity is 6 bytes, 2 of padding and 5; the info range is
// 44 bytes. Flag bit 0 scrambles the header ranges, bit 1 the info range
// (always filtered below version 3, where the flags word is not read and
// holds bits 0-2 set), bit 2 tells a big-endian image.
vkt_binary stream_image(vkt_u32 version, vkt_u32 flags) {
  // clang-format off
  vkt_binary image = ImageParts{version, flags, {}, empty_key_table(),
      hex(std::string("20 0D 06 0D 00 02 04 06 08 0A") + (version > 3 ? "22 00" : "05 07") + "19 00 19 01 19 02 15 00 06 2C 01"),
      hex("0D 02 0D 00 03"), hex("61 62 00 63 00"), hex("0D 01 0D 00"), hex("0D 01 0D 0A"), 16, hex("30 31 32 33 34 35 36 37 38 39"),
      hex("0D 03 0D 00 08 0D"), hex("0D 03 0D 06 05 00"), 8, hex("10 11 12 13 14 15 00 00 20 21 22 23 24")}.assemble();
  // clang-format on
  if (version < 3) image[HEADER_OFST_FLAGS] = 0x07;
  TestFilter writer;
  if (version > 2 && (flags & 1)) filter_header(&writer, image.data(), version);
  if (flags & 2) writer.Filter(&image[header_size_of_version(version)], 44);
  return image;
}

vkt_u8* owned_copy(const vkt_binary& image) {
  return static_cast<vkt_u8*>(
      std::memcpy(new vkt_u8[image.size()], image.data(), image.size()));
}

// A string of the root, and per payload where asStream points (`home`: the
// buffer holding the stream entity, null when it is not in memory) and what a
// reader delivers (none once `gone`). The stream entity lies at 96, 104 or 136
// by version, the bstream entity at 112.
void expect_reads(const VKTObject& obj, const vkt_u8* home, bool gone) {
  EXPECT_STREQ(obj.root()[4].asString(), "ab");
  const vkt_u32 s = obj.version() == 2 ? 96 : obj.version() == 3 ? 104 : 136;
  // clang-format off
  const char* const bytes[] = {"30 31 32 33 34 35 36 37 38 39", "10 11 12 13 14 15", "20 21 22 23 24", ""};
  const vkt_u32 at[] = {112, s, s + 8, s + 13};
  // clang-format on
  for (vkt_u32 i = obj.version() > 3 ? 0 : 1; i < 4; ++i) {
    const vkt_u8* base = i ? home : obj.image();  // a bstream stays in front
    EXPECT_EQ(obj.root()[i].streamSize(), hex(bytes[i]).size()) << i;
    EXPECT_EQ(obj.root()[i].asStream(), base ? base + at[i] : nullptr) << i;
    std::unique_ptr<VKTReadStream> reader(obj.root()[i].buildStreamReader());
    vkt_binary got(11);
    got.resize(reader ? reader->Read(got.data(), 11) : 0);
    EXPECT_EQ(reader ? to_hex(got) : "none", gone && i ? "none" : bytes[i]);
  }
}

const int kBinary = 5, kStream = 6;  // after the vkt_alloc_type modes

TEST(ObjectTest, EveryModeReadsAndPurgesTheSameImage) {
  // clang-format off
  const struct { vkt_u32 version, flags; std::vector<vkt_size> filterCalls; } cases[] = {
      {2, 3, {44}}, {3, 0, {}}, {3, 3, {36, 44}}, {4, 0, {}}, {4, 0x8007, {36, 12, 44}}};
  // clang-format on
  for (const auto& c : cases) {
    const vkt_binary image = stream_image(c.version, c.flags);
    for (int m = VKT_ALLOC_DUPLICATE; m <= kStream; ++m) {
      SCOPED_TRACE((&c - cases) * 10 + m);  // case, mode
      RecordingFilter filter;
      vkt_binary caller = image;
      vkt_u8* buf = caller.data();
      if (m == VKT_ALLOC_OWN || m == VKT_ALLOC_PURGE) buf = owned_copy(image);
      auto* source = m == kStream ? new RecordingReadStream(image) : nullptr;
      const std::unique_ptr<VKTObject> obj(
          m == kBinary ? new VKTObject(caller, &filter)
          : source     ? new VKTObject(source, &filter)
                       : new VKTObject(buf, vkt_u32(image.size()),
                                       vkt_alloc_type(m), &filter));
      EXPECT_EQ(filter.sizes, c.filterCalls);
      EXPECT_EQ(source ? source->calls : "RRSKR", "RRSKR");
      // Only REFER and OWN read (and unscramble) the given buffer in place,
      // as the stream payloads tell below.
      if (m != VKT_ALLOC_REFER && m != VKT_ALLOC_OWN) {
        EXPECT_EQ(std::memcmp(buf, image.data(), image.size()), 0);
      }
      // Flag bit 2; a version-2 image, whose flags go unread, is little-endian.
      EXPECT_EQ(obj->endian(), vkt_endian(c.flags >> 2 & 1));
      EXPECT_EQ(obj->totalStreamEntitySize(), 13u);  // from the whole size
      // As opened, after purgeStreamEntity, and after preparePurge and another
      // purge: only a DUPLICATE or OWN object moves to PURGE.
      const bool copies = m == VKT_ALLOC_DUPLICATE || m == kBinary;
      const vkt_u8* home = copies ? obj->image() : buf;
      bool gone = false;
      for (int stage = 0; stage < 3; ++stage) {
        if (stage == 2) obj->preparePurge();
        if (stage > 0) obj->purgeStreamEntity();
        gone = (stage > 0 && m == VKT_ALLOC_PURGE) ||
               (stage == 2 && (copies || m == VKT_ALLOC_OWN));
        EXPECT_EQ(obj->isPurged(), gone || source);
        expect_reads(*obj, gone || source ? nullptr : home, gone);
      }
      // Moved (and moved again as the vector grows), the object reads the
      // same; the one left behind is empty, and an assignment frees what the
      // target held.
      std::vector<VKTObject> moved;
      moved.push_back(std::move(*obj));
      moved.push_back(VKTObject(image));
      expect_reads(moved[0], gone || source ? nullptr : home, gone);
      EXPECT_EQ(obj->root().type(), VKT_TYPE_NULL);
      EXPECT_TRUE(obj->sections().empty());
      moved[1] = std::move(moved[0]);
      expect_reads(moved[1], gone || source ? nullptr : home, gone);
      EXPECT_EQ(moved[0].image(), nullptr);
    }
  }
  // A PURGE object without streams releases the given buffer once.
  const vkt_binary image = VKTWriterObject().createImage(VKTWriterValue());
  VKTObject obj(owned_copy(image), vkt_u32(image.size()), VKT_ALLOC_PURGE);
  EXPECT_FALSE(obj.isPurged());
  obj.purgeStreamEntity();
  obj.purgeStreamEntity();
  EXPECT_TRUE(obj.isPurged());
  EXPECT_EQ(obj.root().type(), VKT_TYPE_NULL);
}

TEST(ObjectTest, OpenInPlaceAndKeyCacheAllocateAlmostNothing) {
  VKTWriterValue root;
  for (int i = 0; i < 500; ++i) root["k" + std::to_string(i)] = i;
  const vkt_binary image = VKTWriterObject().createImage(root);
  std::vector<std::string> keys;
  for (int i = 0; i < 1000; ++i) keys.push_back("k" + std::to_string(i));
  std::vector<vkt_u32> hints(keys.size(), 0);
  const AllocationCounter counter;
  VKTObject obj(image.data(), vkt_u32(image.size()), VKT_ALLOC_REFER);
  EXPECT_EQ(obj.root()["k7"].asInt(), 7);
  EXPECT_EQ(counter.count(), 0u);  // the header copy lives in the object
  obj.setKeyHashEnabled(true);
  EXPECT_EQ(counter.count(), 1u);  // the key state; chains come with an entry
  // Half of the keys miss; views hand each hint on and every verdict is
  // cached, in chains that many keys share. Then the cache is emptied and
  // the old hints lead to the right chains again.
  for (int pass = 0; pass < 3; ++pass) {
    if (pass == 2) {
      // One growing vector of entries, and the shared name block that the
      // lookups made once they had resolved 500 names through the trie (its
      // names grow the same way): a logarithmic number of allocations, not
      // one per entry or per lookup.
      EXPECT_LE(counter.count(), 32u);
      obj.setKeyHashEnabled(false);
      obj.setKeyHashEnabled(true);
    }
    for (size_t i = 0; i < keys.size(); ++i) {
      EXPECT_EQ(obj.root().isMember(keys[i].c_str(), &hints[i]), i < 500);
    }
    EXPECT_EQ(VKTInternal::keyHashEntries(obj), keys.size());
  }
}

TEST(ObjectDecodeTest, ValidatesAndUnscramblesOnce) {
  // image[at] ^= mask; `size` of the image given (the whole is 117 bytes in
  // version 3 and 149 in version 4; the info range ends at 88);
  // `ahead`: the filter is a step ahead; `again`: the answer of a second call.
  // clang-format off
  const struct { vkt_u32 version, flags, at, mask, size; bool ahead, result; vkt_u32 flagsAfter, calls; bool again; } rows[] = {
      {4, 3, 0, 0, 55, false, false, 3, 0, false},              // too short
      {4, 3, 3, 0x20, 149, false, false, 3, 0, false},          // magic
      {4, 3, 4, 6, 149, false, false, 3, 0, false},             // version 2
      {4, 3, 4, 1, 149, false, false, 3, 0, false},             // version 5
      {4, 0x8007, 50, 1, 149, false, false, 0x8004, 2, false},  // checksum
      {4, 3, 0, 0, 149, true, false, 0, 2, false},              // wrong filter, then the right one
      {3, 2, 0, 0, 87, false, false, 0, 0, true},               // info range past the size
      {3, 2, 0, 0, 88, false, true, 0, 1, true},                // info range up to the size
      {3, 0, 0, 0, 117, false, true, 0, 0, true},               // no filter flags
      {3, 3, 0, 0, 117, false, true, 0, 2, true},
      {4, 0x8007, 0, 0, 149, false, true, 0x8004, 3, true},     // big endian
  };
  // clang-format on
  for (const auto& row : rows) {
    SCOPED_TRACE(&row - rows);
    vkt_binary image = stream_image(row.version, row.flags);
    image[row.at] ^= vkt_u8(row.mask);
    // A failure before the bits are cleared leaves the image as it was.
    const vkt_binary want =
        row.result ? stream_image(row.version, row.flagsAfter) : image;
    RecordingFilter filter, fresh;
    filter.Filter(vkt_binary(1).data(), row.ahead);  // a step ahead, or none
    EXPECT_EQ(VKTObject::decode(image.data(), row.size, &filter), row.result);
    EXPECT_EQ(filter.sizes.size(), row.calls + 1);
    EXPECT_EQ(read_16bit_unsigned(&image[HEADER_OFST_FLAGS]), row.flagsAfter);
    // Once the bits are clear no call runs a filter again.
    EXPECT_EQ(VKTObject::decode(image.data(), row.size, &fresh), row.again);
    EXPECT_TRUE(fresh.sizes.empty());
    if (row.result || row.flagsAfter == row.flags) {
      EXPECT_EQ(image, want);
    }
  }
}

}  // namespace
