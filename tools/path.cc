// Parsing and following the PATH of `vkt get`.
#include "path.h"

#include <cstring>  // strchr

namespace {

// Characters a bare name cannot hold, the ones the syntax itself uses; a
// quoted name can hold anything.
bool needs_quotes(char c) {
  return c != '\0' && std::strchr(".[]\"", c) != nullptr;
}

const char* const kSimpleEscapes = "\"\\/bfnrt";
const char* const kSimpleValues = "\"\\/\b\f\n\r\t";

void append_utf8(vkt_u32 c, std::string* out) {
  if (c < 0x80) {
    *out += char(c);
  } else if (c < 0x800) {
    *out += char(0xC0 | c >> 6);
    *out += char(0x80 | (c & 0x3F));
  } else if (c < 0x10000) {
    *out += char(0xE0 | c >> 12);
    *out += char(0x80 | (c >> 6 & 0x3F));
    *out += char(0x80 | (c & 0x3F));
  } else {
    *out += char(0xF0 | c >> 18);
    *out += char(0x80 | (c >> 12 & 0x3F));
    *out += char(0x80 | (c >> 6 & 0x3F));
    *out += char(0x80 | (c & 0x3F));
  }
}

class PathParser {
 public:
  PathParser(const std::string& text, std::string* error)
      : mText(text), mError(error) {}

  bool parse(std::vector<PathStep>* steps) {
    steps->clear();
    // "", "." and a leading "." before a bracket all start at the root.
    if (mText == "." || mText.compare(0, 2, ".[") == 0) mPos = 1;
    if (mPos == 0 && !atEnd() && !peek('.') && !peek('[')) {
      if (!bareName(steps)) return false;
    }
    while (!atEnd()) {
      const bool ok = peek('.')   ? (++mPos, bareName(steps))
                      : peek('[') ? bracket(steps)
                                  : fail("expected '.' or '['");
      if (!ok) return false;
    }
    return true;
  }

 private:
  bool atEnd() const { return mPos >= mText.size(); }
  bool peek(char c) const { return !atEnd() && mText[mPos] == c; }
  bool fail(const char* what) {
    *mError = std::string(what) + " at byte " + std::to_string(mPos);
    return false;
  }
  void push(PathStep step, std::vector<PathStep>* steps) const {
    step.end = mPos;
    steps->push_back(std::move(step));
  }

  bool bareName(std::vector<PathStep>* steps) {
    PathStep step;
    while (!atEnd() && !peek('.') && !peek('[')) {
      if (needs_quotes(mText[mPos])) {
        return fail("this character needs a quoted name, [\"...\"],");
      }
      step.name += mText[mPos++];
    }
    if (step.name.empty()) return fail("empty name (quote it: [\"\"])");
    push(std::move(step), steps);
    return true;
  }

  // [digits] or ["name"].
  bool bracket(std::vector<PathStep>* steps) {
    ++mPos;
    PathStep step;
    if (peek('"')) {
      if (!quotedName(&step.name)) return false;
    } else if (!index(&step)) {
      return false;
    }
    if (!peek(']')) return fail("expected ']'");
    ++mPos;
    push(std::move(step), steps);
    return true;
  }

  bool index(PathStep* step) {
    step->isIndex = true;
    vkt_u64 value = 0;
    const size_t begin = mPos;
    while (!atEnd() && mText[mPos] >= '0' && mText[mPos] <= '9') {
      value = value * 10 + vkt_u32(mText[mPos++] - '0');
      if (value > 0xFFFFFFFFu) return fail("index too large");
    }
    if (mPos == begin) return fail("expected an index or a quoted name");
    step->index = vkt_u32(value);
    return true;
  }

  bool quotedName(std::string* name) {
    ++mPos;  // the opening quote
    while (!peek('"')) {
      if (atEnd()) return fail("unterminated name");
      const unsigned char c = static_cast<unsigned char>(mText[mPos]);
      if (c < 0x20) return fail("control character in a quoted name");
      if (c != '\\') {
        *name += char(c);
        ++mPos;
      } else if (!escape(name)) {
        return false;
      }
    }
    ++mPos;  // the closing quote
    return true;
  }

  bool escape(std::string* name) {
    ++mPos;
    if (atEnd()) return fail("unterminated escape");
    const char* simple = std::strchr(kSimpleEscapes, mText[mPos]);
    if (simple != nullptr && *simple != '\0') {
      *name += kSimpleValues[simple - kSimpleEscapes];
      ++mPos;
      return true;
    }
    if (mText[mPos] != 'u') return fail("unknown escape");
    ++mPos;
    vkt_u32 c;
    if (!hex4(&c)) return false;
    if (c >= 0xD800 && c < 0xDC00) {  // a high surrogate: its pair follows
      vkt_u32 low;
      if (mText.compare(mPos, 2, "\\u") != 0) return fail("lone surrogate");
      mPos += 2;
      if (!hex4(&low)) return false;
      if (low < 0xDC00 || low >= 0xE000) return fail("lone surrogate");
      c = 0x10000 + ((c - 0xD800) << 10) + (low - 0xDC00);
    } else if (c >= 0xDC00 && c < 0xE000) {
      return fail("lone surrogate");
    }
    append_utf8(c, name);
    return true;
  }

  bool hex4(vkt_u32* c) {
    *c = 0;
    for (int i = 0; i < 4; ++i, ++mPos) {
      if (atEnd()) return fail("short \\u escape");
      const char h = mText[mPos];
      const char* digits = "0123456789abcdef0123456789ABCDEF";
      const char* at = std::strchr(digits, h);
      if (h == '\0' || at == nullptr) return fail("bad hex digit");
      *c = *c << 4 | vkt_u32((at - digits) & 15);
    }
    return true;
  }

  const std::string& mText;
  std::string* mError;
  size_t mPos = 0;
};

// One step in place: a member of an object or an element of an array. Names
// never hold a NUL in an image, so a name with one is simply missing.
bool step_into(const PathStep& step, VKTValue* value) {
  if (step.isIndex) {
    if (value->type() != VKT_TYPE_ARRAY || step.index >= value->size()) {
      return false;
    }
    *value = value->at(step.index);
    return true;
  }
  if (value->type() != VKT_TYPE_OBJECT ||
      step.name.find('\0') != std::string::npos) {
    return false;
  }
  VKTValue member;
  if (!value->findMember(step.name, &member)) return false;
  *value = member;
  return true;
}

const char* kind_name(vkt_type type) {
  switch (type) {
    case VKT_TYPE_NULL:
      return "null";
    case VKT_TYPE_BOOL:
      return "a bool";
    case VKT_TYPE_INTEGER:
      return "an integer";
    case VKT_TYPE_FLOAT:
      return "a number";
    case VKT_TYPE_STRING:
      return "a string";
    case VKT_TYPE_STREAM:
      return "a stream";
    case VKT_TYPE_ARRAY:
      return "an array";
    case VKT_TYPE_OBJECT:
      return "an object";
  }
  return "a value";
}

}  // namespace

bool parse_path(const std::string& path, std::vector<PathStep>* steps,
                std::string* error) {
  return PathParser(path, error).parse(steps);
}

size_t resolve_path(VKTValue root, const std::vector<PathStep>& steps,
                    VKTValue* value, VKTVerifyReport* report) {
  *value = root;
  for (size_t i = 0; i < steps.size(); ++i) {
    if (report != nullptr && !value->verifyStep(report)) return i;
    if (!step_into(steps[i], value)) return i;
  }
  return steps.size();
}

std::string why_no_value(const VKTValue& parent, const PathStep& step,
                         const std::string& parentPath) {
  const std::string name = parentPath.empty() ? "the root" : parentPath;
  const vkt_type want = step.isIndex ? VKT_TYPE_ARRAY : VKT_TYPE_OBJECT;
  if (parent.type() != want) {
    return name + " is " + kind_name(parent.type()) + ", not " +
           kind_name(want);
  }
  if (step.isIndex) {
    return name + " has " + std::to_string(parent.size()) + " elements";
  }
  return name + " has no such member";
}
