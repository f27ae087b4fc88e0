// vkt_test: builds one fixed tree that touches every value kind and the width
// boundaries of the integer encoding, writes it, opens it and reads every
// entry back, in 20 configurations (five stream arrangements times four filter
// settings). Each value read is compared with the one written, and the number
// of differences is the routine's only report.
#include <cstring>  // memcmp, strcmp, strlen

#include "vkt/test_filter.h"

namespace {

const bool bool_test[] = {true, false};
const vkt_u32 bool_test_num = sizeof(bool_test) / sizeof(bool_test[0]);

// 0, growing patterns (one per integer id), then four values at each width
// boundary; the 40-bit boundary has none.
const vkt_s64 longint_test[] = {
    0,
    0x12,
    0x1234,
    0x123456,
    0x12345678,
    0x123456789ALL,
    0x123456789ABCLL,
    0x123456789ABCDELL,
    0x123456789ABCDEF0LL,
    128,
    127,
    -129,
    -128,
    32768,
    32767,
    -32769,
    -32768,
    8388608,
    8388607,
    -8388609,
    -8388608,
    2147483648LL,
    2147483647LL,
    -2147483649LL,
    -2147483647LL - 1,
    140737488355328LL,
    140737488355327LL,
    -140737488355329LL,
    -140737488355328LL,
    36028797018963968LL,
    36028797018963967LL,
    -36028797018963969LL,
    -36028797018963968LL,
};
const vkt_u32 longint_test_num = sizeof(longint_test) / sizeof(longint_test[0]);

const float float_test[] = {0.0f, 3.141592f, 2.1312311e20f, -5060.3213213f};
const vkt_u32 float_test_num = sizeof(float_test) / sizeof(float_test[0]);
const double double_test[] = {0.0, 3.141592653589793, 2.1312311e20,
                              -5060.3213213};
const vkt_u32 double_test_num = sizeof(double_test) / sizeof(double_test[0]);

const char* const string_test[] = {
    "", "test string", "an long string test.\nwhich includes meta character."};
const vkt_u32 string_test_num = sizeof(string_test) / sizeof(string_test[0]);

// Keys, strings and stream payloads at once.
const char* const object_test[] = {
    "",  "a word",     "a word long", "bririant",    "basterd",
    "0", "0123456789", "0123653022",  "01233029192", "01234567890123"};
const vkt_u32 object_test_num = sizeof(object_test) / sizeof(object_test[0]);

const vkt_u32 flags[] = {0, VKT_FLAGS_FILTER_HEADER, VKT_FLAGS_FILTER_INFO,
                         VKT_FLAGS_FILTER_HEADER | VKT_FLAGS_FILTER_INFO};
const vkt_u32 flags_test_num = sizeof(flags) / sizeof(flags[0]);

struct StreamArrangement {
  bool purge;
  bool stream;
  bool bstream;
};
const StreamArrangement stream_test[] = {
    {false, false, false}, {false, true, false}, {true, true, false},
    {false, true, true},   {true, true, true},
};
const vkt_u32 stream_test_num = sizeof(stream_test) / sizeof(stream_test[0]);

const vkt_u32 array_test1_num = 255;  // the largest one-byte count
const vkt_u32 array_test2_num = 256;  // the smallest two-byte count
const vkt_u32 array_test1_period = 20;
const vkt_u32 stream_test_num_payloads = 10;
const vkt_u32 stream_base_alignment = 8;

// Counts the values that did not read back as written.
class Mismatches {
 public:
  template <typename T>
  void expectEqual(const T& got, const T& want) {
    if (!(got == want)) ++count;
  }
  void expectString(const char* got, const char* want) {
    if (got == nullptr || std::strcmp(got, want) != 0) ++count;
  }
  void expectBytes(const vkt_u8* got, vkt_u32 gotSize, const char* want) {
    const size_t wantSize = std::strlen(want);
    if (got == nullptr || gotSize != wantSize ||
        std::memcmp(got, want, wantSize) != 0) {
      ++count;
    }
  }
  vkt_u32 count = 0;
};

void build_tree(VKTWriterValue& root, const StreamArrangement& s) {
  for (vkt_u32 i = 0; i < bool_test_num; ++i)
    root["bool_test"][i] = bool_test[i];
  for (vkt_u32 i = 0; i < longint_test_num; ++i) {
    root["longint_test"][i] = longint_test[i];
  }
  for (vkt_u32 i = 0; i < float_test_num; ++i) {
    root["float_test"][i] = float_test[i];
  }
  for (vkt_u32 i = 0; i < double_test_num; ++i) {
    root["double_test"][i] = double_test[i];
  }
  for (vkt_u32 i = 0; i < array_test1_num; ++i) {
    root["array_test1"][i] = vkt_s32(i % array_test1_period);
  }
  for (vkt_u32 i = 0; i < array_test2_num; ++i) {
    root["array_test2"][i] = vkt_s32(i);
  }
  for (vkt_u32 i = 0; i < string_test_num; ++i) {
    root["string_test"][i] = string_test[i];
  }
  for (vkt_u32 i = 0; i < object_test_num; ++i) {
    root["object_test"][object_test[i]] = object_test[i];
  }
  const char* const streamKeys[] = {"stream_test", "bstream_test"};
  const bool wanted[] = {s.stream, s.bstream};
  const vkt_u32 streamFlags[] = {0, VKT_STREAM_FLAG_BOUND};
  for (int k = 0; k < 2; ++k) {
    if (!wanted[k]) continue;
    for (vkt_u32 i = 0; i < stream_test_num_payloads; ++i) {
      root[streamKeys[k]][i].setStream(
          reinterpret_cast<const vkt_u8*>(object_test[i]),
          vkt_u32(std::strlen(object_test[i])), stream_base_alignment << i,
          VKT_ALLOC_REFER, streamFlags[k]);
    }
  }
}

void read_back(VKTValue root, const StreamArrangement& s, Mismatches& m) {
  vkt_u32 bool_test_hint = 0, longint_test_hint = 0, float_test_hint = 0,
          double_test_hint = 0, array_test1_hint = 0, array_test2_hint = 0,
          string_test_hint = 0, object_test_hint = 0, stream_test_hint = 0,
          bstream_test_hint = 0;
  m.expectEqual(root.size(),
                vkt_size(8 + (s.stream ? 1 : 0) + (s.bstream ? 1 : 0)));
  for (vkt_u32 i = 0; i < bool_test_num; ++i) {
    m.expectEqual(root.at("bool_test", &bool_test_hint)[i].asBool(),
                  bool_test[i]);
  }
  for (vkt_u32 i = 0; i < longint_test_num; ++i) {
    m.expectEqual(root.at("longint_test", &longint_test_hint)[i].asLongInt(),
                  longint_test[i]);
  }
  for (vkt_u32 i = 0; i < float_test_num; ++i) {
    m.expectEqual(root.at("float_test", &float_test_hint)[i].asFloat(),
                  float_test[i]);
  }
  for (vkt_u32 i = 0; i < double_test_num; ++i) {
    m.expectEqual(root.at("double_test", &double_test_hint)[i].asDouble(),
                  double_test[i]);
  }
  for (vkt_u32 i = 0; i < array_test1_num; ++i) {
    m.expectEqual(root.at("array_test1", &array_test1_hint)[i].asInt(),
                  vkt_s32(i % array_test1_period));
  }
  for (vkt_u32 i = 0; i < array_test2_num; ++i) {
    m.expectEqual(root.at("array_test2", &array_test2_hint)[i].asInt(),
                  vkt_s32(i));
  }
  for (vkt_u32 i = 0; i < string_test_num; ++i) {
    m.expectString(root.at("string_test", &string_test_hint)[i].asString(),
                   string_test[i]);
  }

  vkt_members members;
  root.at("object_test", &object_test_hint).getMemberNames(&members);
  m.expectEqual(vkt_u32(members.size()), object_test_num);
  for (vkt_u32 i = 0; i < members.size(); ++i) {
    m.expectString(
        root.at("object_test", &object_test_hint)[members[i]].asString(),
        members[i].c_str());
  }

  // Stream payloads are in memory unless the stream entity was cut off; bstream
  // payloads always are.
  const struct {
    bool read;
    const char* key;
    vkt_u32* hint;
  } streams[] = {{s.stream && !s.purge, "stream_test", &stream_test_hint},
                 {s.bstream, "bstream_test", &bstream_test_hint}};
  for (const auto& st : streams) {
    if (!st.read) continue;
    for (vkt_u32 i = 0; i < stream_test_num_payloads; ++i) {
      const vkt_u8* p = root.at(st.key, st.hint)[i].asStream();
      const vkt_u32 size = root.at(st.key, st.hint)[i].streamSize();
      m.expectBytes(p, size, object_test[i]);
    }
  }
}

}  // namespace

void vkt_test() { vkt_test(nullptr); }

void vkt_test(vkt_u32* mismatches) {
  Mismatches m;
  vkt_binary image;
  for (vkt_u32 s = 0; s < stream_test_num; ++s) {
    for (vkt_u32 f = 0; f < flags_test_num; ++f) {
      {
        VKTWriterValue root;
        build_tree(root, stream_test[s]);
        TestFilter filter;
        VKTWriterObject obj;
        if (stream_test[s].bstream) obj.setEndian(VKT_ENDIAN_LITTLE);
        image = obj.createImage(root, &filter, flags[f]);
      }
      TestFilter filter0;
      TestFilter filter;
      m.expectEqual(VKTObject::decode(image, &filter0), true);
      VKTObject obj(
          image.data(), vkt_u32(image.size()),
          stream_test[s].purge ? VKT_ALLOC_PURGE_REFER : VKT_ALLOC_DUPLICATE,
          &filter);
      obj.setKeyHashEnabled(true);
      if (stream_test[s].purge) obj.purgeStreamEntity();
      read_back(obj.root(), stream_test[s], m);
    }
  }
  if (mismatches != nullptr) *mismatches += m.count;
}

void vkt_dump_image(const vkt_binary& image) {
  // The library has no output of its own, so nothing is printed. The walk
  // still reads every byte (the volatile keeps the compiler from dropping
  // it), so under a memory checker it flags an image that is not wholly
  // readable. A program that wants a listing formats image.data() itself.
  volatile vkt_u8 last = 0;
  for (size_t i = 0; i < image.size(); ++i) last = image[i];
  (void)last;
}
