// Random trees written in every writer configuration and read back in every
// way an image opens; and a 1 GiB reader payload written in little memory.
#include <gtest/gtest.h>

#include <cmath>
#include <cstring>
#include <list>
#include <memory>
#include <random>
#include <set>

#include "testutil.h"

// What a node was made to hold, kept beside the tree, which has no getters.
struct Expect {
  vkt_type type = VKT_TYPE_NULL;
  vkt_s64 integer = 0;  // bools too; a stream's alignment
  double real = 0;
  bool bound = false;
  std::string text;               // a string or a payload
  std::vector<std::string> keys;  // an object's, ascending
  std::vector<Expect> elements;   // members in key order
};

struct TreeMaker {
  std::mt19937 rng;
  std::list<vkt_binary> payloads;  // outlive the tree

  unsigned pick(unsigned n) { return rng() % n; }
  // Any bytes, or text without NUL over a few bytes, 0x80 and 0xFF among them.
  std::string text(unsigned maxLength, bool anyByte) {
    std::string s(pick(maxLength + 1), 'a');
    for (char& c : s) c = anyByte ? char(rng()) : "a\x01\x80\xFF"[pick(4)];
    return s;
  }

  void make(VKTWriterValue& v, Expect& e, int depth, bool top = false) {
    static const vkt_u32 kAlignments[] = {0, 1, 3, 4, 8, 0, 1, 4, 8, 4096};
    const bool container = depth > 0 && (top || pick(3) == 0);
    e.type = vkt_type(container ? 6 + pick(2) : pick(6));
    if (e.type == VKT_TYPE_BOOL) {
      v = (e.integer = pick(2)) != 0;
    } else if (e.type == VKT_TYPE_INTEGER) {
      e.integer = vkt_s64(vkt_u64(rng()) << 32 | rng()) >> pick(64);
      const bool narrow = pick(2) && e.integer == vkt_s32(e.integer);
      narrow ? v.setInt(vkt_s32(e.integer)) : v.setLongInt(e.integer);
    } else if (e.type == VKT_TYPE_FLOAT) {  // subnormal to infinite, never NaN
      const bool single = pick(2);
      e.real = std::ldexp(vkt_s32(rng()), single ? int(pick(270)) - 180
                                                 : int(pick(2100)) - 1100);
      if (single) e.real = float(e.real);
      single ? v.setFloat(float(e.real)) : v.setDouble(e.real);
    } else if (e.type == VKT_TYPE_STRING) {
      v = e.text = text(12, false);
    } else if (e.type == VKT_TYPE_STREAM) {  // only REFER may keep the bytes
      const unsigned mode = pick(6), a = kAlignments[pick(10)];  // 5: a reader
      const vkt_u32 flags =
          (e.bound = pick(3) == 0) ? VKT_STREAM_FLAG_BOUND : 0;
      e.integer = a;
      e.text = pick(4) ? text(300, true) : "";
      vkt_binary& bytes = payloads.emplace_back(e.text.begin(), e.text.end());
      mode == 5 ? v.setStream(new RecordingReadStream(bytes), a, flags)
                : v.setStream(bytes.data(), vkt_u32(bytes.size()), a,
                              vkt_alloc_type(mode), flags);
      if (mode != VKT_ALLOC_REFER) bytes.assign(bytes.size(), 0xEE);
    } else if (container) {  // up to 300 elements or members
      const vkt_u32 n = pick(12) ? pick(8) : 300;
      std::set<std::string> keys;
      while (e.type == VKT_TYPE_OBJECT && keys.size() < n)
        keys.insert(text(5, false));
      e.keys.assign(keys.begin(), keys.end());
      e.type == VKT_TYPE_OBJECT ? v.toObject() : v.toArray();
      for (vkt_u32 i = 0; i < n; ++i) {
        VKTWriterValue& child = keys.empty() ? v[i] : v[e.keys[i]];
        const bool same = i > 0 && pick(4) == 0;  // shares the block before it
        e.elements.push_back(same ? e.elements.back() : Expect());
        if (same) child = keys.empty() ? v[i - 1] : v[e.keys[i - 1]];
        if (!same) make(child, e.elements.back(), n > 20 ? 0 : depth - 1);
      }
    }
  }
};

static void expect_value(const VKTValue& v, const Expect& e) {
  ASSERT_EQ(v.type(), e.type);
  EXPECT_EQ(v.asLongInt(), e.type < VKT_TYPE_FLOAT ? e.integer : v.asLongInt());
  EXPECT_EQ(v.asDouble(), e.type == VKT_TYPE_FLOAT ? e.real : v.asDouble());
  EXPECT_EQ(v.asString(), e.type == VKT_TYPE_STRING ? e.text : v.asString());
  if (e.type == VKT_TYPE_STREAM) {
    ASSERT_EQ(v.streamSize(), e.text.size());
    const char* p = reinterpret_cast<const char*>(v.asStream());
    const std::unique_ptr<VKTReadStream> reader(v.buildStreamReader());
    std::string got(p ? p : "", p ? e.text.size() : 0);
    for (vkt_u8 c; !p && reader && reader->Read(&c, 1) == 1;) got += char(c);
    EXPECT_EQ(got, p || reader || e.bound ? e.text : "");  // gone if purged
    const vkt_u8* entity = VKTInternal::streamEntity(*v.object());
    if (p && !e.bound && e.integer > 1) {  // aligned in the entity
      EXPECT_EQ((v.asStream() - entity) % e.integer, 0);
    }
  }
  ASSERT_EQ(v.size(), e.elements.size());
  for (vkt_u32 i = 0; i < e.elements.size(); ++i) {
    expect_value(e.keys.empty() ? v[i] : v[e.keys[i]], e.elements[i]);
  }
}

// Values as a reader walking every reference meets them, and the deepest
// nesting: what verify's report must say, counted the plain way.
vkt_u64 count_values(const VKTValue& v, vkt_u32 level, vkt_u32* depth) {
  vkt_u64 n = 1;
  const vkt_type t = v.type();
  if (t != VKT_TYPE_ARRAY && t != VKT_TYPE_OBJECT) return n;
  if (level + 1 > *depth) *depth = level + 1;
  for (VKTValue e : v.elements()) n += count_values(e, level + 1, depth);
  return n;
}

TEST(RoundTrip, RandomTreesReadBackInEveryConfiguration) {
  for (unsigned tree = 1; tree <= 150 && !HasFailure(); ++tree) {
    TreeMaker maker{std::mt19937(tree), {}};
    VKTWriterValue root;
    Expect e;
    maker.make(root, e, 1 + int(tree % 6), true);
    for (unsigned config = 0; config < 4; ++config) {
      SCOPED_TRACE(tree * 10 + config);  // bit 0: no sharing, 1: filtered v4
      VKTWriterObject writer;
      writer.setOptimize(!(config & 1));
      if (config & 2) writer.setEndian(VKT_ENDIAN_BIG);
      TestFilter filter, again, forStream, forDecode;  // each side a fresh one
      vkt_binary image = writer.createImage(root, &filter, config & 2 ? 3 : 0);
      vkt_binary twice = hex("EE EE EE");  // bytes already in the sink
      VKTBinaryWriteStream sink(twice);
      writer.writeImage(root, sink, &again, config & 2 ? 3 : 0);
      ASSERT_EQ(vkt_binary(twice.begin() + 3, twice.end()), image);
      const VKTObject streamed(new RecordingReadStream(image), &forStream);
      EXPECT_TRUE(streamed.verify());
      expect_value(streamed.root(), e);
      EXPECT_EQ(VKTObject::verify(image), !(config & 2));  // filter bits set
      ASSERT_TRUE(VKTObject::decode(image, &forDecode));
      VKTVerifyReport report;
      ASSERT_TRUE(VKTObject::verify(image, &report)) << report.reason;
      EXPECT_EQ(report.end, image.size());  // nothing behind the image
      const VKTObject counted(image);
      vkt_u32 depth = 0;
      EXPECT_EQ(report.values, count_values(counted.root(), 0, &depth));
      EXPECT_EQ(report.depth, depth);
      for (int mode = 0; mode < 5; ++mode) {  // DUPLICATE to PURGE_REFER
        const bool owned = mode == VKT_ALLOC_OWN || mode == VKT_ALLOC_PURGE;
        vkt_u8* buffer = owned ? new vkt_u8[image.size()] : image.data();
        std::memmove(buffer, image.data(), image.size());
        VKTObject object(buffer, vkt_u32(image.size()), vkt_alloc_type(mode));
        expect_value(object.root(), e);
        object.purgeStreamEntity();
        expect_value(object.root(), e);
      }
    }
  }
}

TEST(RoundTrip, GigabyteReaderPayloadIsNeverHeldWhole) {
  // A window shows 1 GiB of an empty source, whose bytes are never written.
  VKTMemoryReadStream empty(nullptr, 0);
  VKTWriterValue root;
  root["big"].setStream(new VKTReadStreamWindow(&empty, 0, 1u << 30), 4096);
  VKTDummyWriteStream sink(0);  // counts, stores nothing
  AllocationCounter counter;
  VKTWriterObject().writeImage(root, sink);
  EXPECT_LT(counter.largest(), size_t(1) << 20);
  EXPECT_EQ(sink.Offset(), 4096 + (1u << 30));  // the payload last, aligned
}
