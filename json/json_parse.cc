// vkt_json_parse: JSON text to a VKTWriterValue tree.
//
// The text is walked once with simdjson's On-Demand front end, which checks
// the whole text (UTF-8 included) as it goes and points into it, so that
// every fault gets the byte offset of the token at fault. Each value goes
// straight into its node of the tree; nothing is built twice.
#include <simdjson.h>

#include <cstring>
#include <deque>
#include <memory>
#include <string>
#include <string_view>
#include <utility>

#include "json_internal.h"
#include "name_set.h"
#include "vkt_json.h"

namespace od = simdjson::ondemand;

static_assert(VKT_JSON_PADDING >= simdjson::SIMDJSON_PADDING,
              "callers' padding must satisfy the parser");

namespace {

// A parser keeps its buffers from one text to the next; texts larger than
// this leave it so that a thread does not hold their memory for good.
const size_t kKeptParserCapacity = 16 << 20;

// What a member value was, as far as a "$stream" object needs to know.
struct ValueSummary {
  bool isInteger = false;
  bool isBool = false;
  bool isString = false;
  vkt_s64 integer = 0;
  bool boolean = false;
  std::string_view text;  // unescaped, in the parser's string buffer
};

// The members of one object that a "$stream" object may hold.
struct StreamMembers {
  bool hasStream = false;
  ValueSummary base64;
  size_t base64Offset = 0;
  bool hasAlign = false;
  ValueSummary align;
  size_t alignOffset = 0;
  bool hasBound = false;
  ValueSummary bound;
  size_t boundOffset = 0;
  bool hasOther = false;  // a member that makes the object ordinary
};

std::string_view token_of(od::value& v) { return v.raw_json_token(); }
std::string_view token_of(od::document& d) {
  std::string_view token;
  if (d.raw_json_token().get(token) != simdjson::SUCCESS) return {};
  return token;
}

// True when `token` is an integer as JSON writes one (optional '-', no
// leading zero), followed by nothing but white space.
bool is_integer_token(std::string_view token) {
  size_t i = token.empty() || token[0] != '-' ? 0 : 1;
  const size_t first = i;
  while (i < token.size() && token[i] >= '0' && token[i] <= '9') ++i;
  if (i == first || (token[first] == '0' && i > first + 1)) return false;
  for (; i < token.size(); ++i) {
    const char c = token[i];
    if (c != ' ' && c != '\t' && c != '\n' && c != '\r') return false;
  }
  return true;
}

// simdjson's text for `e`, without the closing full stop, so that a place
// can follow it.
std::string parser_message(simdjson::error_code e) {
  std::string message = simdjson::error_message(e);
  if (!message.empty() && message.back() == '.') message.pop_back();
  return message;
}

class TreeBuilder {
 public:
  TreeBuilder(const char* text, size_t size, const VKTJsonParseOptions& options,
              VKTJsonError* error)
      : text_(text),
        size_(size),
        strict_(options.strict),
        streams_(options.streams),
        error_(error) {}

  bool build(od::document& doc, VKTWriterValue* root) {
    doc_ = &doc;
    if (!value(doc, root, 1, nullptr)) return false;
    // Past the root value simdjson has no location left to give.
    const char* rest = nullptr;
    if (doc.current_location().get(rest) == simdjson::SUCCESS) {
      return fail("text after the JSON value", offset_of(rest));
    }
    return true;
  }

 private:
  // Parses the value `v` into the null node *node. `depth` is the nesting
  // that a container here would have in the image (1 for the root).
  template <typename V>
  bool value(V& v, VKTWriterValue* node, vkt_u32 depth, ValueSummary* seen) {
    od::json_type type;
    if (auto e = v.type().get(type)) return failed(e);
    const size_t offset = offset_of(token_of(v).data());
    switch (type) {
      case od::json_type::array: {
        od::array a;
        if (auto e = v.get_array().get(a)) return failed(e);
        return array(a, offset, node, depth);
      }
      case od::json_type::object: {
        od::object o;
        if (auto e = v.get_object().get(o)) return failed(e);
        return object(o, offset, node, depth);
      }
      case od::json_type::number:
        return number(v, offset, node, seen);
      case od::json_type::string: {
        std::string_view s;
        if (auto e = v.get_string().get(s)) return failed(e);
        if (seen != nullptr) {
          seen->isString = true;
          seen->text = s;
        }
        return string(s, offset, node);
      }
      case od::json_type::boolean: {
        bool b;
        if (auto e = v.get_bool().get(b)) return failed(e);
        node->setBool(b);
        if (seen != nullptr) {
          seen->isBool = true;
          seen->boolean = b;
        }
        return true;
      }
      case od::json_type::null: {
        bool isNull;
        if (auto e = v.is_null().get(isNull)) return failed(e);
        if (!isNull) return fail("not a JSON value", offset);
        return true;  // the node is null already
      }
    }
    return fail("not a JSON value", offset);
  }

  bool array(od::array& a, size_t offset, VKTWriterValue* node, vkt_u32 depth) {
    if (depth > VKT_JSON_MAX_DEPTH) return tooDeep(offset);
    node->toArray();
    vkt_u32 index = 0;
    for (auto element : a) {
      od::value v;
      if (auto e = element.get(v)) return failed(e);
      if (!value(v, &(*node)[index++], depth + 1, nullptr)) return false;
    }
    return true;
  }

  bool object(od::object& o, size_t offset, VKTWriterValue* node,
              vkt_u32 depth) {
    // A "$stream" object is a leaf and may stand one level deeper than a
    // container; anything deeper is refused before it is walked, so that
    // this recursion stays within two levels of the limit.
    if (depth > VKT_JSON_MAX_DEPTH + 1) return tooDeep(offset);
    node->toObject();
    NameSet* names = strict_ ? &namesAt(depth) : nullptr;
    if (names != nullptr) names->clear();
    StreamMembers stream;
    for (auto result : o) {
      od::field field;
      if (auto e = std::move(result).get(field)) return failed(e);
      const size_t keyOffset = offset_of(field.key().raw()) - 1;  // the '"'
      std::string_view key;
      if (auto e = field.unescaped_key().get(key)) return failed(e);
      if (std::memchr(key.data(), 0, key.size()) != nullptr) {
        return fail("member name contains NUL", keyOffset);
      }
      if (names != nullptr && !names->insert(key)) {
        std::string message = "duplicate member name ";
        vkt_json_quote(key, &message);
        return fail(message, keyOffset);
      }
      if (!member(key, field.value(), node, depth, &stream)) {
        return false;
      }
    }
    if (streams_ && stream.hasStream && !stream.hasOther) {
      return streamObject(stream, node);
    }
    if (depth > VKT_JSON_MAX_DEPTH) return tooDeep(offset);
    if (stream.base64.isString) {  // held back, the object is ordinary
      return string(stream.base64.text, stream.base64Offset,
                    &(*node)["$stream"]);
    }
    return true;
  }

  // One member of the object *node; notes what a "$stream" object needs.
  bool member(std::string_view key, od::value& v, VKTWriterValue* node,
              vkt_u32 depth, StreamMembers* stream) {
    ValueSummary* seen = nullptr;
    // Every member is kept: only once the object has ended is it known
    // whether its members make a stream, which replaces them. A "$stream"
    // string, a payload as base64, waits for that instead of being copied.
    if (key == "$stream") {
      stream->hasStream = true;
      stream->base64 = ValueSummary();
      stream->base64Offset = offset_of(v.raw_json_token().data());
      seen = &stream->base64;
      od::json_type type;
      if (streams_ && v.type().get(type) == simdjson::SUCCESS &&
          type == od::json_type::string) {
        if (auto e = v.get_string().get(seen->text)) return failed(e);
        seen->isString = true;
        return true;
      }
    } else if (key == "align") {
      stream->hasAlign = true;
      stream->align = ValueSummary();
      stream->alignOffset = offset_of(v.raw_json_token().data());
      seen = &stream->align;
    } else if (key == "bound") {
      stream->hasBound = true;
      stream->bound = ValueSummary();
      stream->boundOffset = offset_of(v.raw_json_token().data());
      seen = &stream->bound;
    } else {
      stream->hasOther = true;
    }
    keyBuffer_.assign(key.data(), key.size());
    VKTWriterValue& child = (*node)[keyBuffer_];
    // Lax: a later member of the same name replaces the earlier one whole
    // (toArray and toObject would keep what the earlier one held).
    if (!strict_) child = VKTWriterValue();
    return value(v, &child, depth + 1, seen);
  }

  // Turns *node into the stream that the "$stream" object describes.
  bool streamObject(const StreamMembers& s, VKTWriterValue* node) {
    if (!s.base64.isString) {
      return fail("\"$stream\" must be a base64 string", s.base64Offset);
    }
    vkt_u32 alignment = 0;
    if (s.hasAlign) {
      const vkt_s64 a = s.align.integer;
      if (!s.align.isInteger || a < 0 || vkt_u64(a) > kMaxStreamAlignment ||
          (a & (a - 1)) != 0) {
        return fail("\"align\" must be 0 or a power of two up to 65536",
                    s.alignOffset);
      }
      alignment = vkt_u32(a);
    }
    if (s.hasBound && !s.bound.isBool) {
      return fail("\"bound\" must be true or false", s.boundOffset);
    }
    const char* why = nullptr;
    size_t where = 0;
    if (!base64_decode(s.base64.text, &payload_, &why, &where)) {
      // The text is unescaped; an offset inside it is exact unless the
      // string held escapes, which base64 never needs.
      return fail(std::string("\"$stream\": ") + why,
                  s.base64Offset + 1 + where);
    }
    node->setStream(payload_.data(), vkt_u32(payload_.size()), alignment,
                    VKT_ALLOC_DUPLICATE,
                    s.hasBound && s.bound.boolean ? VKT_STREAM_FLAG_BOUND : 0);
    return true;
  }

  template <typename V>
  bool number(V& v, size_t offset, VKTWriterValue* node, ValueSummary* seen) {
    od::number_type type;
    if (auto e = v.get_number_type().get(type)) return failed(e);
    if (type == od::number_type::floating_point_number) {
      double d;
      if (auto e = v.get_double().get(d)) return failed(e);
      node->setDouble(d);
      return true;
    }
    if (type == od::number_type::signed_integer) {
      vkt_s64 i;
      if (v.get_int64().get(i) == simdjson::SUCCESS) {
        if (i >= INT32_MIN && i <= INT32_MAX) {
          node->setInt(vkt_s32(i));
        } else {
          node->setLongInt(i);
        }
        if (seen != nullptr) {
          seen->isInteger = true;
          seen->integer = i;
        }
        return true;
      }
    }
    // An integer from 2^63 on, below -2^63, or of too many digits for 64
    // bits at all; anything else that reaches here is no number.
    if (!is_integer_token(token_of(v))) {
      double unused;
      auto e = v.get_double().get(unused);
      return failed(e == simdjson::SUCCESS ? simdjson::NUMBER_ERROR : e);
    }
    if (strict_) {
      return fail("integer beyond the signed 64-bit range", offset);
    }
    double d;
    if (auto e = v.get_double().get(d)) return failed(e);
    node->setDouble(d);
    return true;
  }

  bool string(std::string_view s, size_t offset, VKTWriterValue* node) {
    if (strict_ && std::memchr(s.data(), 0, s.size()) != nullptr) {
      return fail("string contains NUL", offset);
    }
    stringBuffer_.assign(s.data(), s.size());
    node->setString(stringBuffer_);
    return true;
  }

  NameSet& namesAt(vkt_u32 depth) {
    while (names_.size() <= depth) names_.emplace_back();
    return names_[depth];
  }

  size_t offset_of(const char* p) const {
    return p == nullptr ? size_ : size_t(p - text_);
  }
  // Where simdjson stopped: the token at fault, or the end of the text.
  size_t location() {
    const char* p = nullptr;
    if (doc_->current_location().get(p) != simdjson::SUCCESS) return size_;
    return offset_of(p);
  }

  bool tooDeep(size_t offset) {
    return fail("arrays and objects nest deeper than " +
                    std::to_string(VKT_JSON_MAX_DEPTH) + " levels",
                offset);
  }
  bool failed(simdjson::error_code e) {
    // A text that ends inside a container is found before any token is
    // read, so the parser's location says nothing; the end of the text is
    // where the missing bracket belongs.
    if (e == simdjson::INCOMPLETE_ARRAY_OR_OBJECT) {
      return fail(parser_message(e), size_);
    }
    return fail(parser_message(e), location());
  }
  bool fail(std::string message, size_t offset) {
    error_->message = std::move(message);
    error_->offset = offset;
    error_->path.clear();
    return false;
  }

  const char* text_;
  size_t size_;
  bool strict_;
  bool streams_;  // "$stream" objects become streams
  VKTJsonError* error_;
  od::document* doc_ = nullptr;
  std::deque<NameSet> names_;  // one per depth; a deque keeps references
  std::string keyBuffer_;      // reused, so a member costs no allocation
  std::string stringBuffer_;
  vkt_binary payload_;
};

// Explains a failure of the parser's first pass, which reads the whole text
// before any value is looked at.
void first_pass_failed(simdjson::error_code e, const char* text, size_t size,
                       VKTJsonError* error) {
  error->message = parser_message(e);
  // The first pass tells what is wrong but not where, except that invalid
  // UTF-8 can be found again.
  error->offset = VKT_JSON_NO_OFFSET;
  error->path.clear();
  if (e == simdjson::UTF8_ERROR) {
    error->offset = utf8_first_invalid(std::string_view(text, size));
  }
}

}  // namespace

bool vkt_json_parse(const char* text, size_t size, size_t capacity,
                    VKTWriterValue* root, VKTJsonError* error,
                    const VKTJsonParseOptions& options) {
  *root = VKTWriterValue();
  if (size >= 3 && std::memcmp(text, "\xEF\xBB\xBF", 3) == 0) {
    error->message =
        "the text opens with a byte order mark, which JSON "
        "does not allow";
    error->offset = VKT_JSON_NO_OFFSET;
    error->path.clear();
    return false;
  }
  std::unique_ptr<char[]> copy;
  if (capacity < size || capacity - size < VKT_JSON_PADDING) {
    copy.reset(new char[size + VKT_JSON_PADDING]);
    if (size != 0) std::memcpy(copy.get(), text, size);
    std::memset(copy.get() + size, 0, VKT_JSON_PADDING);
    text = copy.get();
  }

  thread_local od::parser parser;
  struct ParserTrim {  // releases a large text's buffers on every way out
    ~ParserTrim() {
      if (parser.capacity() > kKeptParserCapacity) parser = od::parser();
    }
  } trim;

  od::document doc;
  auto e = parser.iterate(text, size, size + VKT_JSON_PADDING).get(doc);
  if (e != simdjson::SUCCESS) {
    first_pass_failed(e, text, size, error);
    return false;
  }
  TreeBuilder builder(text, size, options, error);
  if (!builder.build(doc, root)) {
    *root = VKTWriterValue();
    return false;
  }
  return true;
}
