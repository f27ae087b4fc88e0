// The deep verifier on hand-made images: one row per fault it must refuse,
// with the reason it names; limits; the stream-backed form. Writer-made images
// are checked in roundtrip_test.cc and the damage sweep in corruption_test.cc.
#include <gtest/gtest.h>

#include <functional>

#include "full_walk.h"
#include "testutil.h"

namespace {

// A valid version-3 image: one key (the empty one), the string "x", and a
// root array holding that string.
ImageParts valid_parts() {
  ImageParts p;
  p.keyTable = hex("0D 02 0D 01 00 | 0D 02 0D 00 00 | 0D 01 0D 01");
  p.root = hex("20 0D 01 0D 00 15 00");
  p.stringOffsets = hex("0D 01 0D 00");
  p.strings = hex("78 00");
  return p;
}

void set_field(vkt_binary* image, vkt_u32 field, vkt_u32 value) {
  write_32bit_unsigned(&(*image)[field], value);
  write_32bit_unsigned(
      &(*image)[HEADER_OFST_CHECKSUM],
      header_checksum(image->data(), (*image)[HEADER_OFST_VERSION]));
}

vkt_binary nested_arrays(int depth) {
  vkt_binary root;
  for (int i = 0; i < depth; ++i) concat_binary(root, hex("20 0D 01 0D 00"));
  root.push_back(ID_NULL);
  return root;
}

// `levels` arrays of 255 elements that all share the level below.
vkt_binary shared_levels(int levels) {
  vkt_binary root;
  for (int i = 0; i < levels; ++i) {
    concat_binary(root, hex("20 0D FF 0D"));
    root.resize(root.size() + 255, 0);
  }
  root.push_back(ID_TRUE);
  return root;
}

struct RejectCase {
  const char* name;
  std::function<void(ImageParts*)> parts;
  std::function<void(vkt_binary*)> bytes;  // after assembly; may be null
  const char* reason;
};

const RejectCase sRejectCases[] = {
    {"child offset past the root value",
     [](ImageParts* p) { p->root = hex("20 0D 01 0D 05 15 00"); }, nullptr,
     "child outside the value section"},
    {"count id out of range",
     [](ImageParts* p) { p->root = hex("20 20 01 0D 00 15 00"); }, nullptr,
     "packed array count id"},
    {"width id out of range",
     [](ImageParts* p) { p->root = hex("20 0D 01 0C 00 15 00"); }, nullptr,
     "packed array width id"},
    {"count x width past the section",
     [](ImageParts* p) { p->root = hex("20 0D 09 0D 00 15 00"); }, nullptr,
     "packed array outside its section"},
    {"string tag past the table",
     [](ImageParts* p) { p->root = hex("20 0D 01 0D 00 15 01"); }, nullptr,
     "string tag"},
    {"string entity without final NUL",
     [](ImageParts* p) { p->strings = hex("78 79"); }, nullptr,
     "string entity not NUL-terminated"},
    {"string offset past the entity",
     [](ImageParts* p) { p->stringOffsets = hex("0D 01 0D 02"); }, nullptr,
     "string offset outside the string entity"},
    {"stream payload past the entity",
     [](ImageParts* p) {
       p->streamOffsets = hex("0D 01 0D 01");
       p->streamSizes = hex("0D 01 0D 03");
       p->streams = hex("01 02 03");
     },
     nullptr, "payload outside its entity"},
    {"stream offset and size counts differ",
     [](ImageParts* p) { p->streamSizes = hex("0D 01 0D 00"); }, nullptr,
     "payload offset and size arrays differ"},
    {"stream tag without streams",
     [](ImageParts* p) { p->root = hex("20 0D 01 0D 00 19 00"); }, nullptr,
     "stream tag"},
    {"bstream tag in version 3",
     [](ImageParts* p) { p->root = hex("20 0D 01 0D 00 22 00"); }, nullptr,
     "bstream tag"},
    {"no value id", [](ImageParts* p) { p->root = hex("20 0D 01 0D 00 40"); },
     nullptr, "not a value id"},
    {"payload past the root value",
     [](ImageParts* p) { p->root = hex("20 0D 01 0D 00 08 01"); }, nullptr,
     "value outside the value section"},
    {"member keys repeat",
     [](ImageParts* p) {
       p->root = hex("21 0D 02 0D 00 00 0D 02 0D 00 00 01");
     },
     nullptr, "member keys not ascending"},
    {"member key past the key table",
     [](ImageParts* p) { p->root = hex("21 0D 01 0D 01 0D 01 0D 00 01"); },
     nullptr, "member key tag"},
    {"member key and offset counts differ",
     [](ImageParts* p) { p->root = hex("21 0D 01 0D 00 0D 00 0D"); }, nullptr,
     "member key and offset arrays differ"},
    {"key table check cycle",
     [](ImageParts* p) {
       p->keyTable = hex("0D 03 0D 01 00 00 | 0D 03 0D 00 02 01 | 0D 01 0D 01");
     },
     nullptr, "key table check cycle"},
    {"key table check past the positions",
     [](ImageParts* p) {
       p->keyTable = hex("0D 02 0D 01 00 | 0D 02 0D 00 07 | 0D 01 0D 01");
     },
     nullptr, "key table check entry"},
    {"key table base and check differ",
     [](ImageParts* p) {
       p->keyTable = hex("0D 02 0D 01 00 | 0D 01 0D 00 | 0D 01 0D 01");
     },
     nullptr, "key table base and check"},
    {"version-1 record with a key past the table",
     [](ImageParts* p) {
       p->version = 1;
       p->keyOffsetArray = hex("0D 01 0D 00");
       p->keyTable = hex("6B 00");
       p->root = hex("21 0D 01 0D 00 11 05 01");
     },
     nullptr, "member key tag"},
    {"version-1 key without NUL",
     [](ImageParts* p) {
       p->version = 1;
       p->keyOffsetArray = hex("0D 01 0D 00");
       p->keyTable = hex("6B 6B");
     },
     nullptr, "key without NUL"},
    {"65 nested arrays", [](ImageParts* p) { p->root = nested_arrays(65); },
     nullptr, "nesting too deep"},
    {"sharing that expands to 255^4 values",
     [](ImageParts* p) { p->root = shared_levels(4); }, nullptr,
     "too many values (sharing)"},
    {"sections out of order", nullptr,
     [](vkt_binary* b) {
       set_field(
           b, HEADER_OFST_ROOT_VALUE,
           read_32bit_unsigned(&(*b)[HEADER_OFST_STRING_OFFSET_ARRAY]) + 1);
     },
     "sections out of order"},
    {"stream entity past the end", nullptr,
     [](vkt_binary* b) {
       set_field(b, HEADER_OFST_STREAM_ENTITY, vkt_u32(b->size() + 1));
     },
     "section beyond the image"},
    {"cut short", nullptr, [](vkt_binary* b) { b->pop_back(); },
     "section beyond the image"},
    {"checksum", nullptr, [](vkt_binary* b) { (*b)[8] ^= 1; },
     "header checksum"},
    {"filter bits", nullptr,
     [](vkt_binary* b) { (*b)[HEADER_OFST_FLAGS] = VKT_FLAGS_FILTER_INFO; },
     "filter bits set: decode first"},
    {"version 5", nullptr, [](vkt_binary* b) { (*b)[HEADER_OFST_VERSION] = 5; },
     "version"},
    {"magic", nullptr, [](vkt_binary* b) { (*b)[0] = 'X'; }, "magic"},
};

}  // namespace

TEST(Verify, RefusesEachFaultWithItsReason) {
  ASSERT_TRUE(VKTObject::verify(valid_parts().assemble()));
  for (const RejectCase& c : sRejectCases) {
    SCOPED_TRACE(c.name);
    ImageParts parts = valid_parts();
    if (c.parts) c.parts(&parts);
    vkt_binary image = parts.assemble();
    if (c.bytes) c.bytes(&image);
    VKTVerifyReport report;
    EXPECT_FALSE(VKTObject::verify(image, &report));
    EXPECT_STREQ(report.reason, c.reason);
  }
}

TEST(Verify, ReportsTheOffsetOfTheFailingValue) {
  ImageParts parts = valid_parts();
  parts.root = hex("20 0D 02 0D 00 01 01 15 07");  // string tag 7, second
  VKTVerifyReport report;
  ASSERT_FALSE(VKTObject::verify(parts.assemble(), &report));
  EXPECT_EQ(report.offset, 44 + 14 + 7);  // header, key table, into the root
}

TEST(Verify, HonoursLimitsAndAcceptsOtherVersions) {
  struct LimitCase {
    vkt_binary root;
    vkt_u32 maxDepth;
    vkt_size maxImageSize;
    bool accepted;
  };
  const LimitCase cases[] = {
      {nested_arrays(64), 64, 0xFFFFFFFF, true},
      {nested_arrays(65), 65, 0xFFFFFFFF, true},
      {nested_arrays(3), 2, 0xFFFFFFFF, false},
      {shared_levels(2), 64, 0xFFFFFFFF, true},  // a 255 x 255 shared matrix
      {hex("01"), 64, 60, false},
  };
  for (const LimitCase& c : cases) {
    ImageParts parts = valid_parts();
    parts.root = c.root;
    VKTVerifyLimits limits;
    limits.maxDepth = c.maxDepth;
    limits.maxImageSize = c.maxImageSize;
    EXPECT_EQ(VKTObject::verify(parts.assemble(), nullptr, &limits),
              c.accepted);
  }
  // Versions 1, 2 and 4 read the same tree.
  for (vkt_u32 version : {1u, 2u, 4u}) {
    ImageParts parts = valid_parts();
    parts.version = version;
    parts.root = hex("21 0D 01 0D 00 11 00 15 00");  // v1 record: key 0, "x"
    if (version == 1) {
      parts.keyOffsetArray = hex("0D 01 0D 00");
      parts.keyTable = hex("6B 00");
    } else {
      parts.root = hex("21 0D 01 0D 00 0D 01 0D 00 15 00");
    }
    const vkt_binary image = parts.assemble();
    VKTVerifyReport report;
    EXPECT_TRUE(VKTObject::verify(image, &report)) << version << report.reason;
    full_walk::walk_image(image.data(), vkt_size(image.size()));
    VKTObject object(image);
    EXPECT_STREQ(object.root()[version == 1 ? "k" : ""].asString(), "x");
  }
}

TEST(Verify, StreamBackedOpenReadsOnlyWhatTheSourceHolds) {
  VKTWriterValue root;
  const vkt_u8 payload[] = {1, 2, 3, 4, 5};
  root["s"].setStream(payload, 5, 4, VKT_ALLOC_DUPLICATE);
  root["b"].setStream(payload, 3, 0, VKT_ALLOC_DUPLICATE,
                      VKT_STREAM_FLAG_BOUND);
  const vkt_binary image = VKTWriterObject().createImage(root);
  for (size_t cut = 0; cut <= image.size(); ++cut) {
    SCOPED_TRACE(cut);
    vkt_binary head(image.begin(), image.begin() + cut);
    VKTObject object(new RecordingReadStream(head));
    const bool ok = object.verify();
    EXPECT_EQ(ok, cut == image.size());
    if (ok) {
      EXPECT_EQ(object.root()["s"].streamSize(), 5u);
    }
  }
  // A header that claims a 4 GiB front part allocates no more than the source.
  vkt_binary huge = image;
  set_field(&huge, HEADER_OFST_STREAM_ENTITY, 0xFFFFFF00);
  AllocationCounter counter;
  VKTObject object(new RecordingReadStream(huge));
  EXPECT_LT(counter.peakBytes(), 4 * huge.size() + 4096);
  EXPECT_FALSE(object.verify());
}
