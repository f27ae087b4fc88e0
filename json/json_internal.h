// Helpers shared by the parse and print halves of vkt_json: base64 for
// stream payloads, UTF-8 checks, and JSON string quoting for messages and
// paths. Internal to the library; nothing here is installed.
#ifndef VKT_JSON_INTERNAL_H_
#define VKT_JSON_INTERNAL_H_

#include <cstddef>
#include <string>
#include <string_view>

#include "vkt.h"

// The largest "align" of a "$stream" object, in both directions: parse
// refuses more (a payload is padded up to it, so an unbounded value would let
// a short text demand gigabytes), and print measures up to it, so that what
// parse accepted reads back at least as aligned.
const vkt_u32 kMaxStreamAlignment = 65536;

// Characters base64 needs for `size` bytes: four per started group of three.
inline size_t base64_encoded_size(size_t size) { return (size + 2) / 3 * 4; }

// Writes the base64 of `size` bytes (standard alphabet, '=' padding) to
// `out`, which has room for base64_encoded_size(size) characters; answers
// the end of what it wrote.
char* base64_encode(const vkt_u8* data, size_t size, char* out);

// Decodes base64 text into *out (replacing it). Only the standard alphabet
// with '=' padding to a multiple of four is taken, and the bits that padding
// leaves over must be zero, so that every payload has one text. On failure
// answers false, and *why is a static message and *where the offset of the
// offending character in `text`.
bool base64_decode(std::string_view text, vkt_binary* out, const char** why,
                   size_t* where);

// Length of the valid UTF-8 sequence at p[0..size), 0 when the bytes there
// are no valid sequence (overlong forms, surrogates and code points beyond
// U+10FFFF are invalid). REQUIRES: size > 0.
size_t utf8_sequence_length(const unsigned char* p, size_t size);

// Offset of the first byte of `text` that starts no valid UTF-8 sequence,
// or text.size() when all of it is valid.
size_t utf8_first_invalid(std::string_view text);

#endif  // VKT_JSON_INTERNAL_H_
