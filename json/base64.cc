// Base64 of stream payloads: standard alphabet, '=' padding, no line breaks.
//
//   bytes:  aaaaaaaa bbbbbbbb cccccccc
//   text:   aaaaaa aabbbb bbbbcc cccccc   (four characters per three bytes)
//
// A last group of one or two bytes gives two or three characters and '='
// up to four. Decoding refuses every other form, so text and payload map
// one to one.
#include <cstring>

#include "json_internal.h"

namespace {

constexpr char sBase64Alphabet[] =
    "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
const vkt_u8 kNotBase64 = 0xFF;

struct DecodeTable {
  vkt_u8 value[256];
};

constexpr DecodeTable make_decode_table() {
  DecodeTable t{};
  for (int i = 0; i < 256; ++i) t.value[i] = kNotBase64;
  for (int i = 0; i < 64; ++i) {
    t.value[static_cast<unsigned char>(sBase64Alphabet[i])] = vkt_u8(i);
  }
  return t;
}

constexpr DecodeTable sBase64Values = make_decode_table();

}  // namespace

char* base64_encode(const vkt_u8* data, size_t size, char* out) {
  size_t i = 0;
  for (; i + 3 <= size; i += 3) {
    const vkt_u32 group = vkt_u32(data[i]) << 16 | vkt_u32(data[i + 1]) << 8 |
                          vkt_u32(data[i + 2]);
    out[0] = sBase64Alphabet[group >> 18];
    out[1] = sBase64Alphabet[(group >> 12) & 63];
    out[2] = sBase64Alphabet[(group >> 6) & 63];
    out[3] = sBase64Alphabet[group & 63];
    out += 4;
  }
  const size_t rest = size - i;
  if (rest == 0) return out;
  const vkt_u32 group =
      vkt_u32(data[i]) << 16 | (rest == 2 ? vkt_u32(data[i + 1]) << 8 : 0);
  out[0] = sBase64Alphabet[group >> 18];
  out[1] = sBase64Alphabet[(group >> 12) & 63];
  out[2] = rest == 2 ? sBase64Alphabet[(group >> 6) & 63] : '=';
  out[3] = '=';
  return out + 4;
}

bool base64_decode(std::string_view text, vkt_binary* out, const char** why,
                   size_t* where) {
  out->clear();
  if (text.size() % 4 != 0) {
    *why = "base64 text is not a multiple of four characters";
    *where = text.size();
    return false;
  }
  // '=' may only close the last group, once or twice.
  size_t padding = 0;
  if (!text.empty() && text.back() == '=') {
    padding = text[text.size() - 2] == '=' ? 2 : 1;
  }
  const size_t digits = text.size() - padding;
  out->resize(digits * 3 / 4);
  vkt_u8* dst = out->data();
  vkt_u32 group = 0;
  for (size_t i = 0; i < digits; ++i) {
    const vkt_u8 v = sBase64Values.value[static_cast<unsigned char>(text[i])];
    if (v == kNotBase64) {
      *why = "not a base64 character";
      *where = i;
      return false;
    }
    group = group << 6 | v;
    if (i % 4 == 3) {
      dst[0] = vkt_u8(group >> 16);
      dst[1] = vkt_u8(group >> 8);
      dst[2] = vkt_u8(group);
      dst += 3;
      group = 0;
    }
  }
  // The bits of a short last group that no byte takes must be zero.
  if (padding == 2) {
    if ((group & 0xF) != 0) {
      *why = "base64 padding bits are not zero";
      *where = digits - 1;
      return false;
    }
    dst[0] = vkt_u8(group >> 4);
  } else if (padding == 1) {
    if ((group & 0x3) != 0) {
      *why = "base64 padding bits are not zero";
      *where = digits - 1;
      return false;
    }
    dst[0] = vkt_u8(group >> 10);
    dst[1] = vkt_u8(group >> 2);
  }
  return true;
}
