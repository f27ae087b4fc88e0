// vkt_json_print: a value of a verified image as JSON text.
//
// One walk by position (members() and elements(), no lookups) appends into
// the caller's string, grown by doubling and written through a raw pointer,
// so a value costs no allocation. The walk recurses once per level: the
// image has been verified, which bounds its nesting (VKTVerifyLimits::
// maxDepth, at most 255).
//
// The path of a value, needed only for a message, is a chain of steps on
// the stack, formatted when something fails.

#include <simdjson.h>

#include <charconv>
#include <cmath>
#include <cstdio>  // snprintf
#include <cstring>
#include <string>
#include <string_view>

#include "json_internal.h"
#include "vkt_json.h"

namespace {

// What a byte of a string becomes: 0 stays as it is, 'u' is written as
// \u00XX, any other letter follows a backslash.
struct EscapeTable {
  char escape[256];
};

constexpr EscapeTable make_escape_table() {
  EscapeTable t{};
  for (int c = 0; c < 0x20; ++c) t.escape[c] = 'u';
  t.escape[int('\b')] = 'b';
  t.escape[int('\f')] = 'f';
  t.escape[int('\n')] = 'n';
  t.escape[int('\r')] = 'r';
  t.escape[int('\t')] = 't';
  t.escape[int('"')] = '"';
  t.escape[int('\\')] = '\\';
  return t;
}

constexpr EscapeTable sEscapes = make_escape_table();

// U+FFFD, which lax printing puts in place of each byte that is not UTF-8.
const char kReplacement[] = "\xEF\xBF\xBD";

// The string entity holds every string value back to back, each closed by a
// NUL. One NUL is a whole UTF-8 sequence and no longer sequence holds a zero
// byte, so when the entity as a whole is UTF-8 every string in it that starts
// on a character is: one vectorised check instead of one per string printed.
// A string offset may point anywhere in the entity, so print still looks at
// each string's first byte (starts_inside_character).
bool string_entity_is_utf8(const VKTObject& object) {
  for (const VKTSection& s : object.sections()) {
    if (s.id != VKT_SECTION_STRING_ENTITY) continue;
    const char* p = reinterpret_cast<const char*>(object.image()) + s.offset;
    return simdjson::validate_utf8(p, s.size);
  }
  return false;
}

// True when `s` begins with a UTF-8 continuation byte: inside a character.
bool starts_inside_character(std::string_view s) {
  return !s.empty() && (static_cast<unsigned char>(s[0]) & 0xC0) == 0x80;
}

// One step from the printed root down to the value being printed.
struct PathStep {
  const PathStep* parent;
  std::string_view name;  // a member name, unless isIndex
  vkt_u32 index;
  bool isIndex;
};

// True when a member name can stand in a path as it is: not empty, and
// none of the characters that the path syntax uses.
bool is_plain_name(std::string_view name) {
  return !name.empty() && name.find_first_of(".[]\"") == std::string_view::npos;
}

// `a.b[3].c`; a name that is not plain as `["a.b"]`.
void append_path(const PathStep* step, std::string* out) {
  if (step == nullptr) return;
  append_path(step->parent, out);
  if (step->isIndex) {
    out->push_back('[');
    out->append(std::to_string(step->index));
    out->push_back(']');
  } else if (is_plain_name(step->name)) {
    if (step->parent != nullptr) out->push_back('.');
    out->append(step->name);
  } else {
    out->push_back('[');
    vkt_json_quote(step->name, out);
    out->push_back(']');
  }
}

class JsonPrinter {
 public:
  JsonPrinter(std::string* out, const VKTJsonPrintOptions& options,
              VKTJsonError* error)
      : out_(out), pos_(out->size()), options_(options), error_(error) {}

  // The text's bound for an image of `imageSize` bytes (see
  // VKTJsonPrintOptions::maxExpansion), from the text already in *out.
  void bound(vkt_u64 imageSize) {
    const vkt_u64 ratio = options_.maxExpansion;
    if (ratio == 0 || (imageSize != 0 && ratio > kUnbounded / imageSize)) {
      return;
    }
    vkt_u64 limit = imageSize * ratio;
    if (limit < options_.expansionAllowance) {
      limit = options_.expansionAllowance;
    }
    if (limit < kUnbounded - pos_) end_ = pos_ + limit;
  }

  // Hands the text to `sink` in pieces of about kPiece bytes instead of
  // keeping it whole in *out, which becomes the scratch buffer.
  void streamTo(VKTWriteStream* sink) { sink_ = sink; }

  bool print(const VKTValue& v) {
    if (v.object() != nullptr) bound(v.object()->size());
    // A whole image prints to about its own size; start there. Its strings
    // are checked in one pass over the string entity, which a single value
    // (`vkt get`) is not worth.
    if (v.object() != nullptr && v == v.root()) {
      const size_t whole = size_t(v.object()->size()) + v.object()->size() / 2;
      ensure(sink_ != nullptr && whole > 2 * kPiece ? 2 * kPiece : whole);
      stringsValid_ = string_entity_is_utf8(*v.object());
    }
    const bool ok = value(v, nullptr, 0);
    if (ok && sink_ != nullptr) flush();
    out_->resize(pos_);
    return ok;
  }

 private:
  bool value(const VKTValue& v, const PathStep* path, vkt_u32 depth) {
    if (flushed_ + pos_ > end_) return tooLarge(path);
    if (sink_ != nullptr && pos_ >= kPiece) flush();
    switch (v.type()) {
      case VKT_TYPE_BOOL:
        if (v.asBool()) {
          append("true", 4);
        } else {
          append("false", 5);
        }
        return true;
      case VKT_TYPE_INTEGER: {
        ensure(24);
        char* p = cursor();
        pos_ += std::to_chars(p, p + 24, v.asLongInt()).ptr - p;
        return true;
      }
      case VKT_TYPE_FLOAT:
        return number(v.asDouble(), path);
      case VKT_TYPE_STRING: {
        const std::string_view text = v.asStringView();
        if (stringsValid_ && !starts_inside_character(text)) {
          return string<true>(text, path);
        }
        return string<false>(text, path);
      }
      case VKT_TYPE_STREAM:
        return stream(v, path, depth);
      case VKT_TYPE_ARRAY:
        return array(v, path, depth);
      case VKT_TYPE_OBJECT:
        return object(v, path, depth);
      default:  // null, and nothing else in a verified image
        append("null", 4);
        return true;
    }
  }

  bool array(const VKTValue& v, const PathStep* path, vkt_u32 depth) {
    const VKTElementRange elements = v.elements();
    if (elements.empty()) {
      append("[]", 2);
      return true;
    }
    put('[');
    PathStep step{path, std::string_view(), 0, true};
    for (VKTValue element : elements) {
      if (step.index != 0) put(',');
      newline(depth + 1);
      if (!value(element, &step, depth + 1)) return false;
      ++step.index;
    }
    newline(depth);
    put(']');
    return true;
  }

  bool object(const VKTValue& v, const PathStep* path, vkt_u32 depth) {
    const VKTMemberRange members = v.members();
    if (members.empty()) {
      append("{}", 2);
      return true;
    }
    put('{');
    bool first = true;
    for (const VKTMember& m : members) {
      if (!first) put(',');
      first = false;
      newline(depth + 1);
      const PathStep step{path, m.name, 0, false};
      if (!string<false>(m.name, &step)) return false;
      colon();
      if (!value(m.value, &step, depth + 1)) return false;
    }
    newline(depth);
    put('}');
    return true;
  }

  // {"$stream":"<base64>","align":N,"bound":true}, without the defaults.
  bool stream(const VKTValue& v, const PathStep* path, vkt_u32 depth) {
    const vkt_u8* payload = v.asStream();
    const vkt_u32 size = v.streamSize();
    if (payload == nullptr && size != 0) {
      return fail("stream payload is not in memory", path);
    }
    put('{');
    newline(depth + 1);
    append("\"$stream\"", 9);
    colon();
    ensure(base64_encoded_size(size) + 2);
    put('"');
    pos_ = base64_encode(payload, size, cursor()) - out_->data();
    put('"');
    const vkt_u32 alignment = vkt_json_stream_alignment(v);
    if (alignment > 1) {
      put(',');
      newline(depth + 1);
      append("\"align\"", 7);
      colon();
      ensure(12);
      char* p = cursor();
      pos_ += std::to_chars(p, p + 12, alignment).ptr - p;
    }
    if (v.isBoundStream()) {
      put(',');
      newline(depth + 1);
      append("\"bound\"", 7);
      colon();
      append("true", 4);
    }
    newline(depth);
    put('}');
    return true;
  }

  // The shortest digits that read back to `d`, laid out as JavaScript
  // does (plain from 1e-7 up to 1e21, with an exponent outside), and always
  // with a '.' or an exponent, so that the text reads back as a double.
  bool number(double d, const PathStep* path) {
    if (!std::isfinite(d)) {
      if (options_.strict) return fail("number is not finite", path);
      append("null", 4);
      return true;
    }
    char sci[32];  // [-]d[.ddd]e(+|-)xx
    const char* end =
        std::to_chars(sci, sci + sizeof(sci), d, std::chars_format::scientific)
            .ptr;
    const char* e = static_cast<const char*>(std::memchr(sci, 'e', end - sci));
    int exponent = 0;
    std::from_chars(e + (e[1] == '+' ? 2 : 1), end, exponent);
    const bool negative = sci[0] == '-';
    char digits[20];  // at most 17 significant digits
    int count = 0;
    for (const char* q = sci + negative; q != e; ++q) {
      if (*q != '.') digits[count++] = *q;
    }
    ensure(32);
    char* p = cursor();
    char* start = p;
    if (negative) *p++ = '-';
    const int point = exponent + 1;  // digits in front of the '.'
    if (point > 21 || point < -5) {
      *p++ = digits[0];
      if (count > 1) {
        *p++ = '.';
        p = copy(p, digits + 1, count - 1);
      }
      *p++ = 'e';
      *p++ = exponent < 0 ? '-' : '+';
      p = std::to_chars(p, p + 4, exponent < 0 ? -exponent : exponent).ptr;
    } else if (point <= 0) {
      p = copy(p, "0.000000", 2 - point);
      p = copy(p, digits, count);
    } else if (point >= count) {
      p = copy(p, digits, count);
      std::memset(p, '0', point - count);
      p += point - count;
      p = copy(p, ".0", 2);
    } else {
      p = copy(p, digits, point);
      *p++ = '.';
      p = copy(p, digits + point, count - point);
    }
    pos_ += p - start;
    return true;
  }
  static char* copy(char* p, const char* from, size_t n) {
    std::memcpy(p, from, n);
    return p + n;
  }

  // Copies `s` as a JSON string in one pass: runs of plain ASCII move as
  // they are (eight bytes tested at a time), ASCII that JSON needs escaped
  // is escaped, and longer UTF-8 sequences are checked where they stand.
  // A byte that starts no valid sequence fails strict printing and becomes
  // U+FFFD in lax. With kKnownUtf8 the text has been checked already, so
  // bytes above 0x7F are copied as they are and only escapes stop a run.
  template <bool kKnownUtf8>
  bool string(std::string_view s, const PathStep* path) {
    const unsigned char* q = reinterpret_cast<const unsigned char*>(s.data());
    const unsigned char* end = q + s.size();
    const unsigned char* run = q;
    put('"');
    while (q != end) {
      if (end - q >= 8 && plain8<kKnownUtf8>(q)) {
        q += 8;
        continue;
      }
      const unsigned char c = *q;
      if (c >= 0x80) {
        const size_t n =
            kKnownUtf8 ? 1 : utf8_sequence_length(q, size_t(end - q));
        if (n != 0) {
          q += n;
          continue;
        }
        if (options_.strict) return fail("string is not valid UTF-8", path);
        append(run, q - run);
        append(kReplacement, 3);
        run = ++q;
        continue;
      }
      if (sEscapes.escape[c] == 0) {
        ++q;
        continue;
      }
      append(run, q - run);
      run = ++q;
      escape(c);
    }
    append(run, end - run);
    put('"');
    return true;
  }

  // True when none of the eight bytes at p is below 0x20, '"' or '\\', nor
  // (unless kKnownUtf8) above 0x7F: the classic zero-byte tests, exact as a
  // yes or no.
  template <bool kKnownUtf8>
  static bool plain8(const unsigned char* p) {
    const vkt_u64 kOnes = 0x0101010101010101ull;
    const vkt_u64 kHighs = 0x8080808080808080ull;
    vkt_u64 w;
    std::memcpy(&w, p, 8);
    const vkt_u64 quote = w ^ (kOnes * '"');
    const vkt_u64 backslash = w ^ (kOnes * '\\');
    const vkt_u64 special =
        ((w - kOnes * 0x20) & ~w) | ((quote - kOnes) & ~quote) |
        ((backslash - kOnes) & ~backslash) | (kKnownUtf8 ? 0 : w);
    return (special & kHighs) == 0;
  }

  // Writes the escape of ASCII byte c, which JSON does not take as it is.
  void escape(unsigned char c) {
    static const char kHex[] = "0123456789abcdef";
    const char e = sEscapes.escape[c];
    ensure(6);
    char* p = cursor();
    p[0] = '\\';
    p[1] = e;
    if (e != 'u') {
      pos_ += 2;
      return;
    }
    p[2] = '0';
    p[3] = '0';
    p[4] = kHex[c >> 4];
    p[5] = kHex[c & 15];
    pos_ += 6;
  }

  void newline(vkt_u32 depth) {
    if (!options_.pretty) return;
    ensure(1 + 2 * size_t(depth));
    char* p = cursor();
    *p = '\n';
    std::memset(p + 1, ' ', 2 * size_t(depth));
    pos_ += 1 + 2 * size_t(depth);
  }
  void colon() {
    if (options_.pretty) {
      append(": ", 2);
    } else {
      put(':');
    }
  }

  // Room for n more bytes behind pos_: the string is grown (by doubling)
  // and written through a pointer; print trims it to pos_ at the end.
  void ensure(size_t n) {
    if (out_->size() - pos_ >= n) return;
    size_t size = out_->size() < 256 ? 256 : 2 * out_->size();
    if (size < pos_ + n) size = pos_ + n;
    out_->resize(size);
  }
  // The text so far to the sink, in writes its 32-bit sizes can take.
  void flush() {
    const vkt_u8* p = reinterpret_cast<const vkt_u8*>(out_->data());
    for (size_t done = 0; done < pos_;) {
      const size_t n = pos_ - done < kPiece ? pos_ - done : kPiece;
      sink_->Write(p + done, vkt_u32(n));
      done += n;
    }
    flushed_ += pos_;
    pos_ = 0;
  }
  char* cursor() { return &(*out_)[0] + pos_; }
  void put(char c) {
    ensure(1);
    (*out_)[pos_++] = c;
  }
  void append(const unsigned char* p, size_t n) {
    append(reinterpret_cast<const char*>(p), n);
  }
  void append(const char* p, size_t n) {
    ensure(n);
    if (n != 0) std::memcpy(cursor(), p, n);
    pos_ += n;
  }

  bool tooLarge(const PathStep* path) {
    char message[128];
    std::snprintf(message, sizeof(message),
                  "text passes %llu times the image's size (its values are "
                  "shared many times over)",
                  static_cast<unsigned long long>(options_.maxExpansion));
    fail(message, path);
    error_->tooLarge = true;
    return false;
  }

  bool fail(const char* message, const PathStep* path) {
    error_->message = message;
    error_->offset = 0;
    error_->tooLarge = false;
    error_->path.clear();
    append_path(path, &error_->path);
    return false;
  }

  std::string* out_;
  static constexpr vkt_u64 kUnbounded = ~vkt_u64(0);
  static constexpr size_t kPiece = size_t(1) << 20;
  VKTWriteStream* sink_ = nullptr;
  vkt_u64 flushed_ = 0;  // bytes handed to sink_
  size_t pos_;           // end of the text; out_ holds scratch bytes behind it
  vkt_u64 end_ = kUnbounded;  // printing stops once pos_ passes it
  const VKTJsonPrintOptions& options_;
  VKTJsonError* error_;
  // Every string of the image is UTF-8, so string values skip the check.
  bool stringsValid_ = false;
};

}  // namespace

bool vkt_json_print(const VKTValue& value, std::string* out,
                    VKTJsonError* error, const VKTJsonPrintOptions& options) {
  JsonPrinter printer(out, options, error);
  return printer.print(value);
}

bool vkt_json_print(const VKTValue& value, VKTWriteStream* sink,
                    VKTJsonError* error, const VKTJsonPrintOptions& options) {
  std::string buffer;
  JsonPrinter printer(&buffer, options, error);
  printer.streamTo(sink);
  return printer.print(value);
}

vkt_u32 vkt_json_stream_alignment(const VKTValue& stream) {
  if (stream.type() != VKT_TYPE_STREAM) return 1;
  const vkt_u8* payload = stream.asStream();
  if (payload == nullptr) return 1;
  const size_t offset = size_t(payload - stream.object()->image());
  // The lowest set bit of the offset; an offset of 0 is aligned to anything.
  const size_t alignment = offset & (~offset + 1);
  return alignment == 0 || alignment > kMaxStreamAlignment ? kMaxStreamAlignment
                                                           : vkt_u32(alignment);
}
