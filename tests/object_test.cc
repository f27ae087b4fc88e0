// Opening an image in every ownership mode and through a read stream, decode,
// the purge of the stream entity, and which stream data each way of holding
// an image reaches.
#include <gtest/gtest.h>

#include <cstring>
#include <memory>
#include <string>

#include "testutil.h"

namespace {

const vkt_binary kStream0 = hex("10 11 12 13 14 15");  // alignment 4
const vkt_binary kStream1 = hex("20 21 22 23 24");     // alignment 8
const vkt_binary kBStream = hex("30 31 32 33 34 35 36 37 38 39");  // 16

vkt_u32 field(const vkt_binary& image, vkt_u32 offset) {
  return read_32bit_unsigned(&image[offset]);
}
vkt_u32 info_end(const vkt_binary& image, vkt_u32 version) {
  return field(image, version > 3 ? HEADER_OFST_BSTREAM_OFFSET_ARRAY
                                  : HEADER_OFST_STREAM_OFFSET_ARRAY);
}

// Root [bstream 0 (version 4) or 7, stream 0, stream 1, empty stream 2, "ab",
// 300]; the stream entity is 6 bytes, 2 of padding and 5. Below version 3
// `flags` only tells whether the info range is scrambled.
vkt_binary stream_image(vkt_u32 version, vkt_u32 flags) {
  const std::string root = std::string("20 0D 06 0D 00 02 04 06 08 0A") +
                           (version > 3 ? "22 00" : "05 07") +
                           "19 00 19 01 19 02 15 00 06 2C 01";
  // clang-format off
  vkt_binary image = ImageParts{
      version, flags, {}, empty_key_table(), hex(root),
      hex("0D 02 0D 00 03"), hex("61 62 00 63 00"),            // "ab", "c"
      hex("0D 01 0D 00"), hex("0D 01 0D 0A"), 16, kBStream,    // one bstream
      hex("0D 03 0D 00 08 0D"), hex("0D 03 0D 06 05 00"), 8,   // three streams
      hex("10 11 12 13 14 15 00 00 20 21 22 23 24")}.assemble();
  // clang-format on
  if (version < 3) image[HEADER_OFST_FLAGS] = 0x07;  // not read below 3
  const vkt_u32 begin = field(image, HEADER_OFST_KEY_OFFSET_ARRAY);
  const vkt_u32 end = info_end(image, version);
  TestFilter writer;
  if (version > 2 && (flags & 1)) filter_header(&writer, image.data(), version);
  if (flags & 2) writer.Filter(&image[begin], end - begin);
  return image;
}

enum Mode { kDuplicate, kRefer, kOwn, kPurge, kPurgeRefer, kBinary, kStream };

// An object opened in one mode, with the buffers it was given.
struct Opened {
  Opened(Mode mode, const vkt_binary& image, VKTFilter* filter)
      : caller(image) {
    const vkt_u32 size = vkt_u32(image.size());
    if (mode == kOwn || mode == kPurge) {
      owned = new vkt_u8[size];
      std::memcpy(owned, image.data(), size);
    }
    if (mode == kStream) source = new RecordingReadStream(image);
    object.reset(mode == kBinary ? new VKTObject(caller, filter)
                 : mode == kStream
                     ? new VKTObject(source, filter)
                     : new VKTObject(owned ? owned : caller.data(), size,
                                     vkt_alloc_type(mode), filter));
  }
  vkt_binary caller;
  vkt_u8* owned = nullptr;                // handed over in OWN and PURGE
  RecordingReadStream* source = nullptr;  // owned by the object
  std::unique_ptr<VKTObject> object;
};

void expect_root(const VKTObject& obj) {
  EXPECT_STREQ(obj.root()[4].asString(), "ab");
  EXPECT_EQ(obj.root()[5].asInt(), 300);
}

// Where asStream points (null while the stream entity is not in memory) and
// what a reader delivers (nothing once purged).
void expect_payloads(const Opened& o, const vkt_binary& plain,
                     const vkt_u8* streamHome, bool purged) {
  const VKTObject& obj = *o.object;
  const vkt_u32 entity = field(plain, HEADER_OFST_STREAM_ENTITY);
  const vkt_binary empty;
  const struct {
    vkt_u32 index;
    const vkt_binary& bytes;
    vkt_u32 offset;  // in the image
    bool bound;
  } payloads[] = {
      {1, kStream0, entity, false},
      {2, kStream1, entity + 8, false},
      {3, empty, entity + 13, false},
      {0, kBStream, field(plain, HEADER_OFST_BSTREAM_ENTITY), true}};
  for (const auto& p : payloads) {
    if (p.bound && obj.version() < 4) continue;
    SCOPED_TRACE(p.index);
    const VKTValue v = obj.root()[p.index];
    EXPECT_EQ(v.streamSize(), p.bytes.size());
    EXPECT_EQ(v.asStream(), p.bound                ? obj.image() + p.offset
                            : (o.source || purged) ? nullptr
                                                   : streamHome + p.offset);
    std::unique_ptr<VKTReadStream> reader(v.buildStreamReader());
    ASSERT_EQ(reader != nullptr, p.bound || !purged);
    if (reader == nullptr) continue;
    EXPECT_EQ(reader->Size(), p.bytes.size());
    vkt_binary got(p.bytes.size() + 1);
    got.resize(reader->Read(got.data(), vkt_size(got.size())));
    EXPECT_EQ(got, p.bytes);
  }
}

TEST(ObjectTest, EveryModeReadsTheSameImage) {
  for (vkt_u32 version : {2u, 3u, 4u}) {
    for (vkt_u32 flags : {0u, 3u}) {
      if (version < 3 && flags == 0) continue;  // a filter always runs there
      const vkt_binary image = stream_image(version, flags);
      const vkt_binary plain = stream_image(version, 0);
      std::vector<vkt_size> calls = {36, 12};
      calls.resize(flags == 0 ? 0 : version - 2);
      if (flags != 0) {
        calls.push_back(info_end(plain, version) - field(plain, 8));
      }
      for (int m = kDuplicate; m <= kStream; ++m) {
        SCOPED_TRACE(testing::Message() << "version " << version << " flags "
                                        << flags << " mode " << m);
        RecordingFilter filter;
        Opened o(Mode(m), image, &filter);
        VKTObject& obj = *o.object;
        EXPECT_EQ(filter.sizes, calls);
        EXPECT_EQ(o.source ? o.source->calls : "RRSKR", "RRSKR");
        // Only REFER and OWN read (and unscramble) the given buffer in place.
        const vkt_u8* given = o.owned ? o.owned : o.caller.data();
        EXPECT_EQ(obj.image() == given, m == kRefer || m == kOwn);
        if (m != kRefer && m != kOwn) {
          EXPECT_EQ(0, std::memcmp(given, image.data(), image.size()));
        }
        EXPECT_EQ(0, std::memcmp(obj.image(), image.data(),
                                 header_size_of_version(version)));
        EXPECT_EQ(obj.version(), version);
        EXPECT_EQ(obj.endian(), VKT_ENDIAN_LITTLE);
        const vkt_u8* streamHome = m == kPurgeRefer ? given
                                   : m == kPurge    ? o.owned
                                                    : obj.image();
        for (bool purge : {false, true}) {
          if (purge) obj.purgeStreamEntity();
          const bool purged = purge && m == kPurge;
          EXPECT_EQ(obj.isPurged(), purged || m == kStream);
          EXPECT_EQ(obj.size(), image.size());
          EXPECT_EQ(obj.totalStreamEntitySize(), 13u);
          expect_root(obj);
          expect_payloads(o, plain, streamHome, purged);
        }
        // Only a DUPLICATE or OWN object moves to PURGE.
        const vkt_alloc_type type = VKTTestAccess::allocType(obj);
        obj.preparePurge();
        const bool moves = type == VKT_ALLOC_DUPLICATE || m == kOwn;
        EXPECT_EQ(VKTTestAccess::allocType(obj),
                  moves ? VKT_ALLOC_PURGE : type);
        obj.purgeStreamEntity();
        EXPECT_EQ(obj.isPurged(), moves || m == kPurge || m == kStream);
        expect_root(obj);
      }
    }
  }
}

TEST(ObjectTest, PurgeWithoutStreamsReleasesTheBuffer) {
  ImageParts p;
  p.keyTable = empty_key_table();
  EXPECT_FALSE(Opened(kDuplicate, p.assemble(), nullptr).object->isPurged());
  Opened o(kPurge, p.assemble(), nullptr);
  VKTObject& obj = *o.object;
  EXPECT_FALSE(obj.isPurged());
  obj.purgeStreamEntity();
  EXPECT_TRUE(obj.isPurged());
  obj.purgeStreamEntity();
  EXPECT_EQ(obj.root().type(), VKT_TYPE_NULL);
}

TEST(ObjectDecodeTest, ValidatesAndUnscramblesOnce) {
  ASSERT_EQ(info_end(stream_image(3, 0), 3), 88u);
  const struct {
    const char* name;
    vkt_u32 version, flags, at, mask, size;  // image[at] ^= mask; size 0: all
    bool wrongFilter, result;
    vkt_u32 flagsAfter, calls;
    bool again;  // the answer of a second call
  } rows[] = {
      {"55 bytes", 4, 3, 0, 0, 55, false, false, 3, 0, false},
      {"magic", 4, 3, 3, 0x20, 0, false, false, 3, 0, false},
      {"version 2", 4, 3, 4, 6, 0, false, false, 3, 0, false},
      {"version 5", 4, 3, 4, 1, 0, false, false, 3, 0, false},
      {"checksum", 4, 0x8007, 50, 1, 0, false, false, 0x8004, 2, false},
      {"wrong filter", 4, 3, 0, 0, 0, true, false, 0, 2, false},
      {"info range past size", 3, 2, 0, 0, 87, false, false, 0, 0, true},
      {"info range up to size", 3, 2, 0, 0, 88, false, true, 0, 1, true},
      {"no filter flags", 3, 0, 0, 0, 0, false, true, 0, 0, true},
      {"version 3", 3, 3, 0, 0, 0, false, true, 0, 2, true},
      {"version 4, big endian", 4, 0x8007, 0, 0, 0, false, true, 0x8004, 3,
       true},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.name);
    vkt_binary image = stream_image(row.version, row.flags);
    image[row.at] ^= vkt_u8(row.mask);
    const vkt_binary before = image;
    const vkt_size size = row.size ? row.size : vkt_size(image.size());
    RecordingFilter filter, fresh;
    vkt_u8 byte = 0;
    if (row.wrongFilter) filter.Filter(&byte, 1);  // a step ahead
    EXPECT_EQ(VKTObject::decode(image.data(), size, &filter), row.result);
    EXPECT_EQ(filter.sizes.size(), row.calls + row.wrongFilter);
    EXPECT_EQ(read_16bit_unsigned(&image[HEADER_OFST_FLAGS]), row.flagsAfter);
    EXPECT_TRUE(row.flagsAfter != row.flags || image == before);
    // Once the bits are clear no call runs a filter again.
    EXPECT_EQ(VKTObject::decode(image.data(), size, &fresh), row.again);
    if (row.result) {
      EXPECT_EQ(image, stream_image(row.version, row.flagsAfter));
      expect_root(VKTObject(image, &fresh));
      EXPECT_EQ(VKTObject(image).endian(),
                vkt_endian((row.flagsAfter >> 2) & 1));
    }
    EXPECT_TRUE(fresh.sizes.empty());
  }
}

}  // namespace
