// A tree made from the input bytes is written (sharing on or off, version 3
// or 4, filtered or not), decoded, and must pass verify and read back equal.
#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <list>
#include <map>
#include <string>
#include <vector>

#include "fuzz_common.h"
#include "vkt/test_filter.h"

namespace {

// What a node holds, kept beside the tree, which has no getters.
struct Shadow {
  vkt_type type = VKT_TYPE_NULL;
  vkt_s64 integer = 0;
  double real = 0;
  std::string text;  // string (up to its first NUL) or payload
  std::vector<Shadow> elements;
  std::map<std::string, Shadow> members;  // byte order, as the image's
};

class Input {
 public:
  Input(const uint8_t* p, size_t n) : p_(p), n_(n) {}
  vkt_u32 byte() { return i_ < n_ ? p_[i_++] : 0; }
  vkt_u64 bytes(int k) {
    vkt_u64 v = 0;
    for (int j = 0; j < k; ++j) v = v << 8 | byte();
    return v;
  }
  std::string text(bool nul) {
    std::string s(byte() % 24, '\0');
    for (char& c : s) c = char(byte());
    if (!nul) s.erase(std::remove(s.begin(), s.end(), '\0'), s.end());
    return s;
  }

 private:
  const uint8_t* p_;
  size_t n_;
  size_t i_ = 0;
};

void make(Input& in, std::list<std::string>& payloads, VKTWriterValue& v,
          Shadow& s, int depth) {
  static const vkt_u32 kAlignments[] = {0, 1, 2, 4, 8, 16, 64, 3};
  switch (in.byte() % (depth > 0 ? 10 : 8)) {
    case 1:
      s.type = VKT_TYPE_BOOL;
      s.integer = in.byte() & 1;
      v = s.integer != 0;
      break;
    case 2:
      s.type = VKT_TYPE_INTEGER;
      s.integer = vkt_s32(in.bytes(4));
      v.setInt(vkt_s32(s.integer));
      break;
    case 3:
      s.type = VKT_TYPE_INTEGER;
      s.integer = vkt_s64(in.bytes(8)) >> (in.byte() % 64);
      v.setLongInt(s.integer);
      break;
    case 4: {
      s.type = VKT_TYPE_FLOAT;
      vkt_u64 bits = in.bytes(8);
      std::memcpy(&s.real, &bits, sizeof(s.real));
      if (s.real != s.real) s.real = 1.5;  // NaN never equals itself
      v.setDouble(s.real);
      break;
    }
    case 5: {
      s.type = VKT_TYPE_FLOAT;
      const float f = float(vkt_s32(in.bytes(4))) / 7.0f;
      s.real = f;
      v.setFloat(f);
      break;
    }
    case 6: {
      s.type = VKT_TYPE_STRING;
      const std::string text = in.text(true);
      v = text;
      s.text = text.c_str();
      break;
    }
    case 7: {
      s.type = VKT_TYPE_STREAM;
      s.text = payloads.emplace_back(in.text(true));
      const vkt_u32 flags = in.byte() & 1 ? VKT_STREAM_FLAG_BOUND : 0;
      v.setStream(reinterpret_cast<const vkt_u8*>(s.text.data()),
                  vkt_u32(s.text.size()), kAlignments[in.byte() % 8],
                  VKT_ALLOC_DUPLICATE, flags);
      break;
    }
    case 8: {
      s.type = VKT_TYPE_ARRAY;
      v.toArray();
      const vkt_u32 n = in.byte() % 6;
      for (vkt_u32 i = 0; i < n; ++i) {
        s.elements.emplace_back();
        const bool same = i > 0 && in.byte() % 3 == 0;
        if (same) {
          const VKTWriterValue previous = v[i - 1];  // v[i] may move it
          v[i] = previous;
          s.elements[i] = s.elements[i - 1];
        } else {
          make(in, payloads, v[i], s.elements[i], depth - 1);
        }
      }
      break;
    }
    case 9: {
      s.type = VKT_TYPE_OBJECT;
      v.toObject();
      const vkt_u32 n = in.byte() % 6;
      for (vkt_u32 i = 0; i < n; ++i) {
        const std::string key = in.text(false);
        Shadow& m = s.members[key];
        m = Shadow();
        v[key] = VKTWriterValue();
        make(in, payloads, v[key], m, depth - 1);
      }
      break;
    }
    default:
      break;  // null
  }
}

void expect(bool ok, const char* what) {
  if (ok) return;
  std::fprintf(stderr, "write_verify_fuzzer: %s\n", what);
  std::abort();
}

void compare(const VKTValue& v, const Shadow& s) {
  expect(v.type() == s.type, "type");
  switch (s.type) {
    case VKT_TYPE_BOOL:
    case VKT_TYPE_INTEGER:
      expect(v.asLongInt() == s.integer, "integer");
      break;
    case VKT_TYPE_FLOAT:
      expect(v.asDouble() == s.real, "float");
      break;
    case VKT_TYPE_STRING:
      expect(s.text == v.asString(), "string");
      break;
    case VKT_TYPE_STREAM: {
      expect(v.streamSize() == s.text.size(), "stream size");
      const vkt_u8* p = v.asStream();
      expect(s.text.empty() ||
                 (p && std::memcmp(p, s.text.data(), s.text.size()) == 0),
             "stream bytes");
      break;
    }
    case VKT_TYPE_ARRAY:
      expect(v.size() == s.elements.size(), "array size");
      for (size_t i = 0; i < s.elements.size(); ++i) {
        compare(v[i], s.elements[i]);
      }
      break;
    case VKT_TYPE_OBJECT: {
      vkt_members names;
      v.getMemberNames(&names);
      expect(names.size() == s.members.size(), "member count");
      size_t i = 0;
      for (const auto& m : s.members) {
        expect(names[i++] == m.first, "member name");
        compare(v[m.first], m.second);
      }
      break;
    }
    default:
      break;
  }
}

// Nesting of arrays and objects, counted as verify counts it.
vkt_u32 depth_of(const Shadow& s) {
  vkt_u32 deepest = 0;
  for (const Shadow& e : s.elements) deepest = std::max(deepest, depth_of(e));
  for (const auto& m : s.members)
    deepest = std::max(deepest, depth_of(m.second));
  const bool container = s.type == VKT_TYPE_ARRAY || s.type == VKT_TYPE_OBJECT;
  return container ? deepest + 1 : 0;
}

// Wraps the tree in `count` one-element arrays, beside and in the shadow.
void wrap(vkt_u32 count, VKTWriterValue& root, Shadow& shadow) {
  for (vkt_u32 i = 0; i < count; ++i) {
    VKTWriterValue outer;
    outer.append(root);
    root = outer;
    Shadow s;
    s.type = VKT_TYPE_ARRAY;
    s.elements.push_back(std::move(shadow));
    shadow = std::move(s);
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size > kMaxInput) return 0;
  Input in(data, size);
  const vkt_u32 config = in.byte();
  std::list<std::string> payloads;
  VKTWriterValue root;
  Shadow shadow;
  make(in, payloads, root, shadow, 6);
  // Deep trees: past VKT_MAX_DEPTH the writer refuses, and says why.
  if (config & 8) wrap(in.byte() + in.byte(), root, shadow);
  const bool tooDeep = depth_of(shadow) > VKT_MAX_DEPTH;

  VKTWriterObject writer;
  writer.setOptimize(!(config & 1));
  if (config & 2) writer.setEndian(VKT_ENDIAN_BIG);
  TestFilter filter, forDecode;
  const bool filtered = config & 4;
  vkt_binary image =
      writer.createImage(root, filtered ? &filter : nullptr, filtered ? 3 : 0);
  expect(image.empty() == tooDeep, "refused exactly the deep trees");
  if (tooDeep) {
    expect(std::strcmp(writer.error(), "tree nests deeper than 255") == 0,
           "reason");
    return 0;
  }
  expect(*writer.error() == 0, "no reason after a success");
  expect(VKTObject::decode(image, filtered ? &forDecode : nullptr), "decode");
  VKTVerifyReport report;
  if (!VKTObject::verify(image, &report)) {
    std::fprintf(stderr, "refused: %s at %u\n", report.reason, report.offset);
    std::abort();
  }
  VKTObject object(image);
  compare(object.root(), shadow);
  full_walk::walk_image(image.data(), vkt_size(image.size()));
  return 0;
}
