// UTF-8 checks and JSON string quoting shared by parse and print.
#include "json_internal.h"

size_t utf8_sequence_length(const unsigned char* p, size_t size) {
  const unsigned char c = p[0];
  if (c < 0x80) return 1;
  // Lead byte: sequence length and the range its first continuation byte
  // must fall in, which rules out overlong forms, surrogates and code
  // points beyond U+10FFFF.
  size_t length;
  unsigned char low = 0x80, high = 0xBF;
  if (c >= 0xC2 && c <= 0xDF) {
    length = 2;
  } else if (c >= 0xE0 && c <= 0xEF) {
    length = 3;
    if (c == 0xE0) low = 0xA0;
    if (c == 0xED) high = 0x9F;
  } else if (c >= 0xF0 && c <= 0xF4) {
    length = 4;
    if (c == 0xF0) low = 0x90;
    if (c == 0xF4) high = 0x8F;
  } else {
    return 0;
  }
  if (size < length || p[1] < low || p[1] > high) return 0;
  for (size_t i = 2; i < length; ++i) {
    if ((p[i] & 0xC0) != 0x80) return 0;
  }
  return length;
}

size_t utf8_first_invalid(std::string_view text) {
  const unsigned char* p = reinterpret_cast<const unsigned char*>(text.data());
  size_t i = 0;
  while (i < text.size()) {
    const size_t n = utf8_sequence_length(p + i, text.size() - i);
    if (n == 0) return i;
    i += n;
  }
  return i;
}

void vkt_json_quote(std::string_view text, std::string* out) {
  static const char kHex[] = "0123456789abcdef";
  out->push_back('"');
  for (char ch : text) {
    const unsigned char c = static_cast<unsigned char>(ch);
    if (c == '"' || c == '\\') {
      out->push_back('\\');
      out->push_back(ch);
    } else if (c < 0x20) {
      out->append("\\u00");
      out->push_back(kHex[c >> 4]);
      out->push_back(kHex[c & 15]);
    } else {
      out->push_back(ch);
    }
  }
  out->push_back('"');
}
