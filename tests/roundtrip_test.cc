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

namespace {

// What a node was made to hold, kept beside the tree, which has no getters.
struct Expect {
  vkt_type type = VKT_TYPE_NULL;
  vkt_s64 integer = 0;  // bools too; a stream's alignment
  double real = 0;
  bool single = false, bound = false;
  std::string text;               // a string or a payload
  std::vector<std::string> keys;  // ascending
  std::vector<Expect> elements;   // members in key order
};

class TreeMaker {
 public:
  explicit TreeMaker(unsigned start) : rng(start) {}

  void make(VKTWriterValue& v, Expect& e, int depth, bool top = false) {
    const unsigned kind =
        depth > 0 && (top || pick(3) == 0) ? 7 + pick(2) : pick(7);
    if (kind == 1) {
      e.type = VKT_TYPE_BOOL;
      v = (e.integer = pick(2)) != 0;
    } else if (kind == 2) {
      e.type = VKT_TYPE_INTEGER;
      e.integer = vkt_s64(bits()) >> pick(64);
      if (pick(2) && e.integer == vkt_s32(e.integer)) {
        v.setInt(vkt_s32(e.integer));
      } else {
        v.setLongInt(e.integer);
      }
    } else if (kind == 3) {  // from subnormal to infinite, never NaN
      e.type = VKT_TYPE_FLOAT;
      e.single = pick(2);
      const int exponent =
          e.single ? int(pick(270)) - 180 : int(pick(2100)) - 1100;
      e.real = std::ldexp(double(vkt_s32(rng())), exponent);
      if (e.single) e.real = float(e.real);
      e.single ? v.setFloat(float(e.real)) : v.setDouble(e.real);
    } else if (kind == 4) {
      e.type = VKT_TYPE_STRING;
      v = e.text = text(12, false);
    } else if (kind == 5 || kind == 6) {
      stream(v, e);
    } else if (kind == 7) {
      e.type = VKT_TYPE_ARRAY;
      v.toArray();
      const vkt_u32 n = pick(12) ? pick(8) : 300;
      for (vkt_u32 i = 0; i < n; ++i) {
        if (i > 0 && pick(4) == 0) {  // shares the block before it
          v.append(v[i - 1]);
          e.elements.push_back(e.elements.back());
        } else {
          e.elements.emplace_back();
          make(v[i], e.elements.back(), n > 20 ? 0 : depth - 1);
        }
      }
    } else if (kind == 8) {
      e.type = VKT_TYPE_OBJECT;
      v.toObject();
      std::set<std::string> keys;
      for (unsigned n = pick(8); n > 0; --n) keys.insert(text(5, false));
      e.keys.assign(keys.begin(), keys.end());
      e.elements.resize(keys.size());
      for (size_t i = 0; i < keys.size(); ++i) {
        make(v[e.keys[i]], e.elements[i], depth - 1);
      }
    }
  }

 private:
  unsigned pick(unsigned n) { return rng() % n; }
  vkt_u64 bits() { return vkt_u64(rng()) << 32 | rng(); }

  // Any bytes, or text without NUL: ASCII, 0x80 to 0xFF and UTF-8.
  std::string text(unsigned maxLength, bool anyByte) {
    static const char* const kPieces[] = {
        "a", "z", "\x01", "\x80", "\xFF", "\xC3\xA9", "\xF0\x9F\x98\x80"};
    std::string s;
    for (unsigned n = pick(maxLength + 1); n > 0; --n) {
      s += anyByte ? std::string(1, char(rng())) : kPieces[pick(7)];
    }
    return s;
  }

  void stream(VKTWriterValue& v, Expect& e) {
    static const vkt_u32 kAlignments[] = {0, 1, 3, 4, 8, 0, 1, 4, 8, 4096};
    e.type = VKT_TYPE_STREAM;
    e.bound = pick(3) == 0;
    e.text = pick(4) ? text(300, true) : "";
    const vkt_binary bytes(e.text.begin(), e.text.end());
    const vkt_u32 alignment = kAlignments[pick(10)];
    e.integer = alignment;
    const vkt_u32 flags = e.bound ? VKT_STREAM_FLAG_BOUND : 0;
    const unsigned source = pick(6);  // 5: a reader, else memory in a mode
    if (source == 5) {
      v.setStream(new RecordingReadStream(bytes), alignment, flags);
    } else {
      referred.push_back(bytes);
      v.setStream(referred.back().data(), vkt_u32(bytes.size()), alignment,
                  vkt_alloc_type(source), flags);
    }
  }

  std::mt19937 rng;
  std::list<vkt_binary> referred;  // outlives the tree
};

enum Where { kInMemory, kInSource, kGone };  // of unbound stream payloads

void expect_value(const VKTValue& v, const Expect& e, Where where) {
  ASSERT_EQ(v.type(), e.type);
  if (e.type == VKT_TYPE_BOOL || e.type == VKT_TYPE_INTEGER) {
    EXPECT_EQ(v.asLongInt(), e.integer);
  } else if (e.type == VKT_TYPE_FLOAT) {
    EXPECT_EQ(e.single ? v.asFloat() : v.asDouble(), e.real);
  } else if (e.type == VKT_TYPE_STRING) {
    EXPECT_EQ(v.asString(), e.text);
  } else if (e.type == VKT_TYPE_STREAM) {
    ASSERT_EQ(v.streamSize(), e.text.size());
    std::string got;
    if (e.bound || where == kInMemory) {
      ASSERT_NE(v.asStream(), nullptr);
      got.assign(reinterpret_cast<const char*>(v.asStream()), e.text.size());
      if (!e.bound && e.integer > 1) {  // aligned within the entity
        const VKTObject& o = *v.object();
        EXPECT_EQ((v.asStream() - VKTTestAccess::streamEntity(o)) % e.integer,
                  0);
      }
    } else {
      EXPECT_EQ(v.asStream(), nullptr);
      std::unique_ptr<VKTReadStream> reader(v.buildStreamReader());
      EXPECT_EQ(reader == nullptr, where == kGone);
      if (!reader) got = e.text;  // gone: only the size is left
      vkt_u8 buffer[64];
      for (vkt_size n; reader && (n = reader->Read(buffer, 64)) != 0;) {
        got.append(reinterpret_cast<const char*>(buffer), n);
      }
    }
    EXPECT_EQ(got, e.text);
  } else if (e.type == VKT_TYPE_OBJECT) {
    vkt_members names;
    v.getMemberNames(&names);
    ASSERT_EQ(names, e.keys);
  } else if (e.type == VKT_TYPE_ARRAY) {
    ASSERT_EQ(v.size(), e.elements.size());
  }
  for (vkt_u32 i = 0; i < e.elements.size(); ++i) {
    expect_value(e.keys.empty() ? v[i] : v[e.keys[i]], e.elements[i], where);
  }
}

void read_back_everywhere(const vkt_binary& image, const Expect& e) {
  expect_value(VKTObject(image).root(), e, kInMemory);
  for (vkt_alloc_type mode : {VKT_ALLOC_REFER, VKT_ALLOC_OWN, VKT_ALLOC_PURGE,
                              VKT_ALLOC_PURGE_REFER}) {
    SCOPED_TRACE(mode);
    vkt_binary mine = image;
    vkt_u8* buffer = mine.data();
    if (mode == VKT_ALLOC_OWN || mode == VKT_ALLOC_PURGE) {
      buffer = new vkt_u8[image.size()];
      std::memcpy(buffer, image.data(), image.size());
    }
    VKTObject object(buffer, vkt_u32(image.size()), mode);
    expect_value(object.root(), e, kInMemory);
    object.purgeStreamEntity();
    expect_value(object.root(), e, mode == VKT_ALLOC_PURGE ? kGone : kInMemory);
  }
  expect_value(VKTObject(new RecordingReadStream(image)).root(), e, kInSource);
}

TEST(RoundTrip, RandomTreesReadBackInEveryConfiguration) {
  for (unsigned tree = 1; tree <= 150 && !HasFailure(); ++tree) {
    SCOPED_TRACE(tree);
    TreeMaker maker(tree);
    VKTWriterValue root;
    Expect expect;
    maker.make(root, expect, 1 + int(tree % 6), true);
    for (int config = 0; config < 4; ++config) {
      SCOPED_TRACE(config);  // bit 0: no sharing, bit 1: filtered
      VKTWriterObject writer;
      writer.setOptimize(!(config & 1));
      TestFilter scramble, unscramble;
      vkt_binary image = writer.createImage(
          root, config & 2 ? &scramble : nullptr, config & 2 ? 3 : 0);
      if (config & 2) {
        ASSERT_TRUE(VKTObject::decode(image, &unscramble));
      } else {  // the same bytes again, also behind bytes already written
        vkt_binary again = hex("EE EE EE");
        VKTBinaryWriteStream sink(again);
        writer.writeImage(root, sink);
        ASSERT_EQ(vkt_binary(again.begin() + 3, again.end()), image);
      }
      read_back_everywhere(image, expect);
    }
  }
}

// Fabricates 1 GiB of bytes without holding them.
class GeneratorStream : public VKTReadStream {
 public:
  static constexpr vkt_size kSize = vkt_size(1) << 30;
  vkt_size Size() const override { return kSize; }
  vkt_size Read(vkt_u8* image, vkt_size size) override {
    const vkt_size len = pos < kSize ? std::min(size, kSize - pos) : 0;
    std::memset(image, int(pos >> 13), len);
    pos += len;
    return len;
  }
  vkt_offset Seek(vkt_offset offset, vkt_origin origin) override {
    return pos = origin == VKT_ORIGIN_SET ? offset : pos + offset;
  }

 private:
  vkt_offset pos = 0;
};

TEST(RoundTrip, GigabyteReaderPayloadIsNeverHeldWhole) {
  VKTWriterValue root;
  root["big"].setStream(new GeneratorStream, 4096);
  root["small"] = "text";
  VKTDummyWriteStream sink(0);  // counts, stores nothing
  AllocationCounter counter;
  VKTWriterObject().writeImage(root, sink);
  EXPECT_LT(counter.peakBytes(), size_t(1) << 20);
  // The payload ends the image and its entity starts on a multiple of 4096.
  ASSERT_GT(sink.Offset(), GeneratorStream::kSize);
  EXPECT_EQ((sink.Offset() - GeneratorStream::kSize) % 4096, 0u);
}

}  // namespace
