// The deep verifier on hand-made images: one row per fault it must refuse,
// with the reason it names; limits, other versions, the stream-backed form.
// Writer-made images are checked in roundtrip_test.cc, damage sweeps in
// corruption_test.cc.
#include <gtest/gtest.h>

#include <utility>  // as_const

#include "full_walk.h"
#include "testutil.h"

namespace {

// A valid version-3 image: one key (the empty one), the string "x", one
// stream of 3 bytes, and a root array holding the string.
ImageParts valid_parts() {
  const vkt_binary none = hex("0D 00 0D");
  // clang-format off
  return ImageParts{3, 0, {}, hex("0D 02 0D 01 00 | 0D 02 0D 00 00 | 0D 01 0D 01"), hex("20 0D 01 0D 00 15 00"),
                    hex("0D 01 0D 00"), hex("78 00"), none, none, 0, {}, hex("0D 01 0D 00"), hex("0D 01 0D 03"), 0, hex("01 02 03")};
  // clang-format on
}

void set_field(vkt_binary* image, vkt_u32 field, vkt_u32 value) {
  write_32bit_unsigned(&(*image)[field], value);
  seal(image);
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

// One section of valid_parts() replaced: which, its bytes, the reason.
// clang-format off
const struct { vkt_binary ImageParts::*section; const char *bytes, *reason; } sSectionCases[] = {
    {&ImageParts::root, "20 0D 01 0D 05 15 00", "child outside the value section"},
    {&ImageParts::root, "20 20 01 0D 00 15 00", "packed array count id"},
    {&ImageParts::root, "20 0D 01 0C 00 15 00", "packed array width id"},
    {&ImageParts::root, "20 0D 09 0D 00 15 00", "packed array outside its section"},
    {&ImageParts::root, "20 0D 01 0D 00 15 01", "string tag"},
    {&ImageParts::root, "20 0D 01 0D 00 19 01", "stream tag"},
    {&ImageParts::root, "20 0D 01 0D 00 22 00", "bstream tag"},  // version 3
    {&ImageParts::root, "20 0D 01 0D 00 40", "not a value id"},
    {&ImageParts::root, "20 0D 01 0D 00 08 01", "value outside the value section"},
    {&ImageParts::root, "21 0D 02 0D 00 00 0D 02 0D 00 00 01", "member keys not ascending"},
    {&ImageParts::root, "21 0D 01 0D 01 0D 01 0D 00 01", "member key tag"},
    {&ImageParts::root, "21 0D 01 0D 00 0D 00 0D", "member key and offset arrays differ"},
    {&ImageParts::strings, "78 79", "string entity not NUL-terminated"},
    {&ImageParts::stringOffsets, "0D 01 0D 02", "string offset outside the string entity"},
    {&ImageParts::streamSizes, "0D 01 0D 04", "payload outside its entity"},
    {&ImageParts::streamSizes, "0D 00 0D", "payload offset and size arrays differ"},
    {&ImageParts::keyTable, "0D 03 0D 01 00 00 | 0D 03 0D 00 02 01 | 0D 01 0D 01", "key table check cycle"},
    {&ImageParts::keyTable, "0D 02 0D 01 00 | 0D 02 0D 00 07 | 0D 01 0D 01", "key table check entry"},
    {&ImageParts::keyTable, "0D 02 0D 01 00 | 0D 01 0D 00 | 0D 01 0D 01", "key table base and check"},
};
// clang-format on

// The bytes of the valid image changed after assembly, and the reason.
// clang-format off
const struct { void (*change)(vkt_binary*); const char* reason; vkt_fault fault; } sByteCases[] = {
    {[](vkt_binary* b) { set_field(b, HEADER_OFST_ROOT_VALUE, read_32bit_unsigned(&(*b)[HEADER_OFST_STRING_OFFSET_ARRAY]) + 1); }, "sections out of order", VKT_FAULT_DAMAGED},
    {[](vkt_binary* b) { set_field(b, HEADER_OFST_STREAM_ENTITY, vkt_u32(b->size() + 1)); }, "section beyond the image", VKT_FAULT_TRUNCATED},
    {[](vkt_binary* b) { b->pop_back(); }, "payload outside its entity", VKT_FAULT_TRUNCATED},
    {[](vkt_binary* b) { b->resize(HEADER_OFST_ROOT_VALUE); }, "image shorter than its header", VKT_FAULT_TRUNCATED},
    {[](vkt_binary* b) { b->resize(5); }, "image shorter than a header", VKT_FAULT_TRUNCATED},
    {[](vkt_binary* b) { b->assign({'{', '}'}); }, "magic", VKT_FAULT_NOT_AN_IMAGE},
    {[](vkt_binary* b) { (*b)[8] ^= 1; }, "header checksum", VKT_FAULT_CHECKSUM},
    {[](vkt_binary* b) { (*b)[HEADER_OFST_FLAGS] = VKT_FLAGS_FILTER_INFO; }, "filter bits set: decode first", VKT_FAULT_FILTERED},
    {[](vkt_binary* b) { (*b)[HEADER_OFST_VERSION] = 5; }, "version", VKT_FAULT_VERSION},
    {[](vkt_binary* b) { (*b)[0] = 'X'; }, "magic", VKT_FAULT_NOT_AN_IMAGE},
};
// clang-format on

void expect_refused(const vkt_binary& image, const char* reason,
                    vkt_fault fault = VKT_FAULT_DAMAGED) {
  VKTVerifyReport report;
  EXPECT_FALSE(VKTObject::verify(image, &report));
  EXPECT_STREQ(report.reason, reason);
  EXPECT_EQ(report.fault, fault);
}

}  // namespace

TEST(Verify, RefusesEachFaultWithItsReason) {
  ASSERT_TRUE(VKTObject::verify(valid_parts().assemble()));
  for (const auto& c : sSectionCases) {
    SCOPED_TRACE(c.bytes);
    ImageParts parts = valid_parts();
    parts.*c.section = hex(c.bytes);
    VKTVerifyReport report;
    EXPECT_FALSE(VKTObject::verify(parts.assemble(), &report));
    EXPECT_STREQ(report.reason, c.reason);
  }
  for (const auto& c : sByteCases) {
    SCOPED_TRACE(c.reason);
    vkt_binary image = valid_parts().assemble();
    c.change(&image);
    expect_refused(image, c.reason, c.fault);
  }
  ImageParts parts = valid_parts();
  parts.root = hex("20 0D 02 0D 00 01 01 15 07");  // string tag 7, second
  VKTVerifyReport report;
  ASSERT_FALSE(VKTObject::verify(parts.assemble(), &report));
  EXPECT_EQ(report.offset, 44 + 14 + 7);  // header, key table, into the root
}

TEST(Verify, HonoursLimits) {
  // Root, depth limit, reason (null: accepted).
  // clang-format off
  const struct { vkt_binary root; vkt_u32 maxDepth; const char* reason; } cases[] = {
      {nested_arrays(64), 64, nullptr}, {nested_arrays(65), 64, "nesting too deep"}, {nested_arrays(65), 65, nullptr},
      {shared_levels(2), 64, nullptr},  // a shared 255 x 255 matrix
      {shared_levels(4), 64, "too many values (sharing)"}};  // 255^4 visits
  // clang-format on
  for (const auto& c : cases) {
    ImageParts parts = valid_parts();
    parts.root = c.root;
    VKTVerifyLimits limits;
    limits.maxDepth = c.maxDepth;
    VKTVerifyReport report;
    EXPECT_EQ(VKTObject::verify(parts.assemble(), &report, &limits), !c.reason);
    EXPECT_STREQ(report.reason, c.reason ? c.reason : "");
  }
  VKTVerifyLimits small;
  small.maxImageSize = 60;
  EXPECT_FALSE(VKTObject::verify(valid_parts().assemble(), nullptr, &small));
}

TEST(Verify, ChecksVersionOneRecordsAndKeys) {
  // Key entity, root, reason (null: accepted).
  // clang-format off
  const struct { const char *keys, *root, *reason; } cases[] = {
      {"6B 00", "21 0D 01 0D 00 11 00 15 00", nullptr},  // {"k": "x"}
      {"6B 00", "21 0D 01 0D 00 11 05 15 00", "member key tag"}, {"6B 00", "21 0D 01 0D 00 15 00 15 00", "member record"},
      {"6B 6B", "01", "key without NUL"}};
  // clang-format on
  for (const auto& c : cases) {
    ImageParts parts = valid_parts();
    parts.version = 1;
    parts.keyOffsetArray = hex("0D 01 0D 00");
    parts.keyTable = hex(c.keys);
    parts.root = hex(c.root);
    const vkt_binary image = parts.assemble();
    VKTVerifyReport report;
    EXPECT_EQ(VKTObject::verify(image, &report), !c.reason) << c.root;
    EXPECT_STREQ(report.reason, c.reason ? c.reason : "");
    if (!c.reason) {
      full_walk::walk_image(image.data(), vkt_size(image.size()));
      EXPECT_STREQ(VKTObject(image).root()["k"].asString(), "x");
    }
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
    VKTObject object(new RecordingReadStream(
        vkt_binary(image.begin(), image.begin() + cut)));
    EXPECT_EQ(object.verify(), cut == image.size()) << cut;
  }
  // A header that claims a 4 GiB front part allocates no more than the source.
  vkt_binary huge = image;
  set_field(&huge, HEADER_OFST_STREAM_ENTITY, 0xFFFFFF00);
  AllocationCounter counter;
  VKTObject object(new RecordingReadStream(huge));
  EXPECT_LT(counter.largest(), 4 * huge.size() + 4096);
  EXPECT_FALSE(object.verify());
}

TEST(Verify, ReportsWhatTheImageHolds) {
  // {"a": [[1, 2], [1, 2]], "b": "x", "c": "y", "s": stream, "t": bstream}:
  // the two inner arrays share one encoding but count as values twice.
  VKTWriterValue root, pair;
  pair[0] = 1;
  pair[1] = 2;
  root["a"][0] = pair;
  root["a"][1] = pair;
  root["b"] = "x";
  root["c"] = "y";
  const vkt_u8 payload[] = {1, 2, 3};
  root["s"].setStream(payload, 3, 16, VKT_ALLOC_DUPLICATE);
  root["t"].setStream(payload, 2, 0, VKT_ALLOC_DUPLICATE,
                      VKT_STREAM_FLAG_BOUND);
  vkt_binary image = VKTWriterObject().createImage(root);
  VKTVerifyReport report;
  ASSERT_TRUE(VKTObject::verify(image, &report));
  EXPECT_EQ(report.keys, 5u);
  EXPECT_EQ(report.strings, 2u);
  EXPECT_EQ(report.streams, 1u);
  EXPECT_EQ(report.bstreams, 1u);
  EXPECT_EQ(report.values, 1u + 1 + 2 * 3 + 4);  // root, a, pairs, others
  EXPECT_EQ(report.depth, 3u);
  EXPECT_EQ(report.keyNameBytes, 5u * 2);  // five one-letter names and NULs

  VKTObject object(image);
  EXPECT_FALSE(object.root()["s"].isBoundStream());
  EXPECT_TRUE(object.root()["t"].isBoundStream());
  EXPECT_FALSE(object.root()["b"].isBoundStream());
  // Sections follow the header in file order and tile the rest of the image.
  const std::vector<VKTSection> sections = object.sections();
  ASSERT_EQ(sections.size(), 11u);  // version 4: bstreams
  vkt_u32 at = HEADER_SIZE_VER4;
  for (const VKTSection& s : sections) {
    EXPECT_EQ(s.offset, at) << s.name;
    at += s.size;
  }
  EXPECT_EQ(at, image.size());
  EXPECT_STREQ(sections.back().name, "stream entity");
  EXPECT_EQ(sections.back().size, object.totalStreamEntitySize());

  image[sections[2].offset] = 0xFF;  // the root's id byte
  EXPECT_FALSE(VKTObject::verify(image, &report));
  EXPECT_EQ(report.values, 0u);
  EXPECT_EQ(report.keys, 0u);
}

namespace {

// A trie whose one leaf is spelt by 254 steps of 'a', packed tight (each
// base is its position + 1 - 'a', so it wraps), and `names` tail entries
// that all name that leaf: 16.8 MB of table for 4 GiB of names.
vkt_binary long_names_key_table(vkt_u32 names) {
  const vkt_u32 kSteps = 254;
  std::vector<vkt_u32> base(kSteps + 2), check(kSteps + 2, 0);
  for (vkt_u32 x = 0; x < kSteps; ++x) {
    base[x] = x + 1 - 'a';
    check[x + 1] = x;
  }
  base[kSteps] = kSteps + 1;  // the terminator's step to the leaf
  check[kSteps + 1] = kSteps;
  base[kSteps + 1] = 0;  // the leaf: key tag 0
  std::vector<vkt_u32> tail(names, kSteps + 1);
  vkt_binary table;
  for (const std::vector<vkt_u32>* a : {&base, &check, &tail}) {
    const size_t at = table.size();
    table.resize(at + unsigned_array_size(*a));
    generate_unsigned_array(&table[at], *a);
  }
  return table;
}

// Summed in 32 bits, the names' bytes with their NULs wrapped and the
// decoded name block came out too small; the image passed verify.
TEST(Verify, RefusesKeyNamesPastFourGiB) {
  ImageParts parts;
  parts.keyTable = long_names_key_table(1000);
  vkt_binary image = parts.assemble();
  VKTVerifyReport report;
  ASSERT_TRUE(VKTObject::verify(image, &report)) << report.reason;
  EXPECT_EQ(report.keyNameBytes, 1000u * 255);
  VKTObject object(image);
  object.decodeKeyNames();
  EXPECT_EQ(object.root().type(), VKT_TYPE_NULL);
  EXPECT_EQ(VKTInternal::getKey(object, 999), std::string(254, 'a'));

  parts.keyTable = long_names_key_table(16843100);  // 255 x this > 2^32
  image = parts.assemble();
  EXPECT_FALSE(VKTObject::verify(image, &report));
  EXPECT_STREQ(report.reason, "key names too long in total");
}

}  // namespace

namespace {

// Bytes behind an image (another image, say) are not the image's: verify
// accepts it and tells where it ends, and so does verifyTables.
TEST(Verify, TellsWhereTheImageEnds) {
  const vkt_binary image = valid_parts().assemble();
  vkt_binary twice = image;
  twice.insert(twice.end(), image.begin(), image.end());
  vkt_binary cut = image;
  cut.pop_back();  // into the last stream payload
  VKTVerifyReport report;
  for (const vkt_binary* bytes : {&image, &std::as_const(twice)}) {
    ASSERT_TRUE(VKTObject::verify(*bytes, &report)) << report.reason;
    EXPECT_EQ(report.end, image.size());
    ASSERT_TRUE(VKTObject::verifyTables(bytes->data(), vkt_size(bytes->size()),
                                        &report));
    EXPECT_EQ(report.end, image.size());
  }
  EXPECT_FALSE(VKTObject::verify(cut, &report));
  EXPECT_EQ(report.fault, VKT_FAULT_TRUNCATED);
  EXPECT_EQ(report.end, image.size());  // the byte the cut took
}

// The checked path reads what it touches: a value whose bytes are damaged
// is refused where the path meets it, its sibling still reads, and the
// check of the whole root agrees with verify.
TEST(Verify, CheckedPathRefusesOnlyWhatItMeets) {
  VKTWriterValue root;
  root["good"][0] = "fine";
  root["good"][1] = 7;
  root["bad"][0] = 1;
  root["bad"][1] = 2;
  vkt_binary image = VKTWriterObject().createImage(root);
  VKTObject clean(image);
  const vkt_size at =
      vkt_size(VKTInternal::ptr(clean.root()["bad"]) - clean.image());
  image[at + 2] = 0x7F;  // the count of "bad"'s offsets: far too many
  VKTVerifyReport report;
  EXPECT_FALSE(VKTObject::verify(image, &report));
  ASSERT_TRUE(VKTObject::verifyTables(image.data(), vkt_size(image.size())));
  const VKTObject object(image.data(), vkt_u32(image.size()), VKT_ALLOC_REFER);
  const VKTValue r = object.root();
  ASSERT_TRUE(r.verifyStep());
  const VKTValue good = r["good"];
  ASSERT_TRUE(good.verify(&report)) << report.reason;
  EXPECT_EQ(report.values, 3u);
  EXPECT_STREQ(good[0].asString(), "fine");
  EXPECT_FALSE(r["bad"].verifyStep(&report));
  EXPECT_EQ(report.offset, at + 1);
  EXPECT_FALSE(r.verify());

  // A string that no value uses is checked by verify only.
  ImageParts parts = valid_parts();
  parts.stringOffsets = hex("0D 02 0D 00 07");
  const vkt_binary unused = parts.assemble();
  EXPECT_FALSE(VKTObject::verify(unused, &report));
  EXPECT_STREQ(report.reason, "string offset outside the string entity");
  ASSERT_TRUE(VKTObject::verifyTables(unused.data(), vkt_size(unused.size())));
  const VKTObject checked(unused.data(), vkt_u32(unused.size()),
                          VKT_ALLOC_REFER);
  EXPECT_TRUE(checked.root().verify());
  EXPECT_STREQ(checked.root()[0].asString(), "x");
}

}  // namespace
