// vkt_json_pack: JSON text straight to an image, with no tree in between.
//
// The writer walks what it writes twice: once to fill its tables (keys,
// strings) and once to encode. Here both walks read the text itself, with
// simdjson's On-Demand front end, so the memory is the text's, the tables'
// and the image's: no node per value. What the walks keep between them:
//
//   strings   the table id of every string value, in text order
//   numbers   the image of every number, in text order (read once)
//   hints     per container, in text order: element count, likely size
//   texts     one owned copy of each distinct key and string
//
// An object's members come in text order but are written in key order: the
// second walk writes them behind the object's place, moves them aside, and
// adds them back sorted, so that sharing finds the same images as the tree.
//
// The text takes this path only when the tree's parse would read it into a
// plain tree: strict, and no "$stream" object to make. Anything else, and
// any fault, goes to vkt_json_parse and writeImage, which make the same
// bytes (or the same message) through a tree.
#include <simdjson.h>

#include <algorithm>
#include <cstring>
#include <memory>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "name_set.h"
#include "vkt/internal.h"
#include "vkt/writer_container.h"
#include "vkt_json.h"

namespace od = simdjson::ondemand;

using vkt_internal::ContainerWriter;
using vkt_internal::kSizeHint;
using vkt_internal::WriterTables;

namespace {

// Copies of the texts the tables point at, each with a NUL behind it (the
// key table builder reads up to it), in blocks that never move.
class TextStore {
 public:
  std::string_view keep(std::string_view s) {
    const size_t need = s.size() + 1;
    if (need > mLeft) {
      const size_t size = std::max(need, kBlock);
      mBlocks.emplace_back(new char[size]);
      mNext = mBlocks.back().get();
      mLeft = size;
    }
    char* p = mNext;
    if (!s.empty()) std::memcpy(p, s.data(), s.size());
    p[s.size()] = 0;
    mNext += need;
    mLeft -= need;
    return std::string_view(p, s.size());
  }

 private:
  static constexpr size_t kBlock = 1 << 20;
  std::vector<std::unique_ptr<char[]>> mBlocks;
  char* mNext = nullptr;
  size_t mLeft = 0;
};

// What the first walk learned of one container for the second.
struct ContainerHint {
  vkt_u32 count;
  vkt_u32 sizeHint;
  bool shortArray;  // an array of at most kShortArray scalars
};

// One member of an object in the second walk: its key and where its image
// lies behind the object's place.
struct MemberImage {
  vkt_u32 keyTag;
  bool isContainer;
  size_t begin;  // from the object's place
  size_t size;
};

// The members of an open object, one per nesting level of the text.
struct ObjectScratch {
  std::vector<MemberImage> members;
  vkt_binary bytes;
};

// Reads a result of the second walk, which goes over text the first walk
// read to its end without a fault, so the result is always there.
template <typename R, typename T>
void known(R&& result, T* out) {
  if (std::forward<R>(result).get(*out) != simdjson::SUCCESS) *out = T();
}

class JsonSource : public vkt_internal::ValueSource {
 public:
  JsonSource(od::parser& parser, const char* text, size_t size, size_t capacity,
             bool streams)
      : mParser(parser),
        mText(text),
        mSize(size),
        mCapacity(capacity),
        mStreams(streams) {}

  // True when the text must take the tree's path instead.
  bool declined() const { return mDeclined; }

  const char* prepare(WriterTables& tables) override {
    od::document doc;
    if (mParser.iterate(mText, mSize, mCapacity).get(doc) !=
            simdjson::SUCCESS ||
        !collect(doc, tables, 1) || !atEnd(doc)) {
      mDeclined = true;
      return "the text takes the tree's path";
    }
    return nullptr;
  }

  void encode(WriterTables& tables) override {
    od::document doc;
    // The first walk read this text to its end without a fault.
    if (mParser.iterate(mText, mSize, mCapacity).get(doc) !=
        simdjson::SUCCESS) {
      return;
    }
    mNextString = 0;
    mNextNumber = 0;
    mNextHint = 0;
    if (isContainer(doc)) {
      emitContainer(doc, tables, 0);
    } else {
      vkt_u8 buf[SCALAR_BUFFER_SIZE] = {};
      tables.value->append(buf, emitScalar(doc, tables, buf));
    }
  }

 private:
  // The first walk: intern, count, hint; false on anything the tree's
  // parse would treat otherwise or refuse. `depth` counts as the image
  // does: 1 for a container at the root.
  template <typename V>
  bool collect(V& v, WriterTables& tables, vkt_u32 depth) {
    od::json_type type;
    if (v.type().get(type) != simdjson::SUCCESS) return false;
    ++tables.values;
    switch (type) {
      case od::json_type::array:
      case od::json_type::object:
        return collectContainer(v, type == od::json_type::array, tables, depth);
      case od::json_type::number: {
        Number n;
        if (!readNumber(v, &n)) return false;
        tables.sizeHint += kSizeHint[n.type];
        keepNumber(n);
        return true;
      }
      case od::json_type::string: {
        std::string_view s;
        if (v.get_string().get(s) != simdjson::SUCCESS ||
            std::memchr(s.data(), 0, s.size()) != nullptr) {
          return false;
        }
        mStrings.push_back(tables.addString(
            s, [this](std::string_view x) { return mTexts.keep(x); }));
        tables.sizeHint += kSizeHint[TYPE_STRING];
        return true;
      }
      case od::json_type::boolean: {
        bool b;
        tables.sizeHint += kSizeHint[TYPE_BOOL];
        return v.get_bool().get(b) == simdjson::SUCCESS;
      }
      case od::json_type::null: {
        bool isNull;
        tables.sizeHint += kSizeHint[TYPE_NULL];
        return v.is_null().get(isNull) == simdjson::SUCCESS && isNull;
      }
    }
    return false;
  }

  template <typename V>
  bool collectContainer(V& v, bool isArray, WriterTables& tables,
                        vkt_u32 depth) {
    if (depth > VKT_JSON_MAX_DEPTH) return false;
    if (depth > tables.deepest) tables.deepest = depth;
    const size_t before = tables.sizeHint;
    const size_t hint = mHints.size();
    mHints.push_back(ContainerHint{0, 0, false});
    vkt_u32 count = 0;
    if (isArray) {
      od::array a;
      if (v.get_array().get(a) != simdjson::SUCCESS) return false;
      for (auto element : a) {
        od::value e;
        if (element.get(e) != simdjson::SUCCESS ||
            !collect(e, tables, depth + 1)) {
          return false;
        }
        ++count;
      }
    } else {
      od::object o;
      if (v.get_object().get(o) != simdjson::SUCCESS) return false;
      NameSet& names = namesAt(depth);
      names.clear();
      for (auto result : o) {
        od::field field;
        std::string_view key;
        if (std::move(result).get(field) != simdjson::SUCCESS ||
            field.unescaped_key().get(key) != simdjson::SUCCESS ||
            std::memchr(key.data(), 0, key.size()) != nullptr ||
            (mStreams && key == "$stream") || !names.insert(key)) {
          return false;
        }
        keyId(key, count, tables);
        if (!collect(field.value(), tables, depth + 1)) return false;
        ++count;
      }
    }
    tables.sizeHint += vkt_internal::head_hint(count, !isArray);
    // No container inside added a hint of its own.
    const bool shortArray = isArray && count <= vkt_internal::kShortArray &&
                            mHints.size() == hint + 1;
    mHints[hint] = ContainerHint{
        count, vkt_internal::close_hint(tables, count, !isArray, before),
        shortArray};
    return true;
  }

  // A number as the tree's parse reads it: a double for a fraction or
  // exponent, an integer for one that fits 32 bits, a long integer for one
  // that fits 64. Larger integers decline (strict parsing refuses them).
  struct Number {
    vkt_u32 type = TYPE_DOUBLE;
    double d = 0;
    vkt_s64 i = 0;
  };
  // The same calls as the tree's parse makes, so that every number reads
  // as there (a single get_number call reads some differently).
  template <typename V>
  static bool readNumber(V& v, Number* n) {
    od::number_type kind;
    if (v.get_number_type().get(kind) != simdjson::SUCCESS) return false;
    if (kind == od::number_type::floating_point_number) {
      n->type = TYPE_DOUBLE;
      return v.get_double().get(n->d) == simdjson::SUCCESS;
    }
    if (kind != od::number_type::signed_integer ||
        v.get_int64().get(n->i) != simdjson::SUCCESS) {
      return false;
    }
    n->type = n->i >= INT32_MIN && n->i <= INT32_MAX ? TYPE_INTEGER
                                                     : TYPE_LONG_INTEGER;
    return true;
  }

  // Appends a number's image to those the second walk takes in text order:
  // no larger than the number's text, mostly, and read without a parse.
  void keepNumber(const Number& n) {
    vkt_u8 buf[SCALAR_BUFFER_SIZE] = {};
    if (n.type == TYPE_DOUBLE) {
      generate_double_words(buf, n.d);
    } else if (n.type == TYPE_INTEGER) {
      generate_words(buf, integer_word(vkt_s32(n.i)));
    } else {
      generate_long_integer(buf, n.i);
    }
    mNumberImages.appendScalar(buf, get_value_size(buf));
  }

  template <typename V>
  bool atEnd(V& doc) {
    // Past the root value simdjson has no location left to give.
    const char* rest = nullptr;
    return doc.current_location().get(rest) != simdjson::SUCCESS;
  }

  // The id of a member's key, kept as a copy when new.
  vkt_u32 keyId(std::string_view key, size_t position, WriterTables& tables) {
    return tables.keyAt(position, key,
                        [this](std::string_view x) { return mTexts.keep(x); });
  }

  template <typename V>
  static bool isContainer(V& v) {
    od::json_type type;
    return v.type().get(type) == simdjson::SUCCESS &&
           (type == od::json_type::array || type == od::json_type::object);
  }

  // The second walk: a container's image at the end of the value buffer.
  // `level` counts the text's nesting, for the objects' scratch space.
  template <typename V>
  void emitContainer(V& v, WriterTables& tables, size_t level) {
    const ContainerHint hint = mHints[mNextHint++];
    od::json_type type = od::json_type::null;
    known(v.type(), &type);
    if (type == od::json_type::array) {
      od::array a;
      known(v.get_array(), &a);
      if (hint.shortArray) {  // in one step, as the tree's walk does
        vkt_internal::ShortArray scalars;
        for (auto element : a) {
          od::value e;
          known(element, &e);
          scalars.add(emitScalar(e, tables, scalars.next()));
        }
        vkt_internal::write_short_array(tables, scalars);
        return;
      }
      ContainerWriter writer(tables);
      writer.open(true, hint.count, hint.sizeHint);
      for (auto element : a) {
        od::value e;
        known(element, &e);
        emitElement(e, tables, level, writer);
      }
      writer.close();
      return;
    }
    od::object o;
    known(v.get_object(), &o);
    emitObject(o, hint, tables, level);
  }

  void emitElement(od::value& e, WriterTables& tables, size_t level,
                   ContainerWriter& writer) {
    if (isContainer(e)) {
      const size_t begin = tables.value->size();
      emitContainer(e, tables, level + 1);
      writer.addContainer(vkt_u32(begin));
    } else {
      vkt_u8 buf[SCALAR_BUFFER_SIZE] = {};
      writer.addScalar(buf, emitScalar(e, tables, buf));
    }
  }

  // Members in text order behind the object's place, then moved aside and
  // added back in key order.
  void emitObject(od::object& o, const ContainerHint& hint,
                  WriterTables& tables, size_t level) {
    if (mObjects.size() <= level) mObjects.resize(level + 1);
    vkt_internal::ValueBuffer& out = *tables.value;
    const size_t place = out.size();
    std::vector<MemberImage> members;
    members.swap(mObjects[level].members);  // the slot's room, reused
    members.clear();
    size_t position = 0;
    for (auto result : o) {
      od::field field;
      std::string_view key;
      known(std::move(result), &field);
      known(field.unescaped_key(), &key);
      const vkt_u32 tag = tables.keys.tag(keyId(key, position++, tables));
      od::value v = field.value();
      const size_t begin = out.size();
      const bool container = isContainer(v);
      if (container) {
        emitContainer(v, tables, level + 1);
      } else {
        vkt_u8 buf[SCALAR_BUFFER_SIZE] = {};
        out.append(buf, emitScalar(v, tables, buf));
      }
      members.push_back(
          MemberImage{tag, container, begin - place, out.size() - begin});
    }
    if (out.size() > vkt_internal::kMaxImageSize) tables.tooLarge = true;
    vkt_binary& bytes = mObjects[level].bytes;
    bytes.assign(out.data() + place, out.data() + out.size());
    out.resize(place);
    std::sort(members.begin(), members.end(),
              [](const MemberImage& a, const MemberImage& b) {
                return a.keyTag < b.keyTag;
              });
    ContainerWriter writer(tables);
    writer.level().keys.clear();
    for (const MemberImage& m : members)
      writer.level().keys.push_back(m.keyTag);
    writer.open(false, hint.count, hint.sizeHint);
    for (const MemberImage& m : members) {
      if (m.isContainer) {
        const size_t begin = out.size();
        out.append(bytes.data() + m.begin, m.size);
        writer.addContainer(vkt_u32(begin));
      } else {
        vkt_u8 buf[SCALAR_BUFFER_SIZE] = {};
        std::memcpy(buf, bytes.data() + m.begin, m.size);
        writer.addScalar(buf, vkt_u32(m.size));
      }
    }
    writer.close();
    members.swap(mObjects[level].members);
  }

  // A scalar's image into `buf`; answers its size.
  template <typename V>
  vkt_u32 emitScalar(V& v, WriterTables& tables, vkt_u8* buf) {
    od::json_type type = od::json_type::null;
    known(v.type(), &type);
    switch (type) {
      case od::json_type::number: {
        // The first walk kept its image; the text's number is skipped.
        // Every image was appended with 16 bytes of room behind its start.
        const vkt_u8* image = mNumbers.data() + mNextNumber;
        const vkt_u32 size = get_value_size(image);
        copy_scalar_words(buf, image, size);
        mNextNumber += size;
        break;
      }
      case od::json_type::string: {
        od::raw_json_string unused;  // the first walk kept its id
        known(v.get_raw_json_string(), &unused);
        generate_words(
            buf, unsigned_word(tables.strings.tag(mStrings[mNextString++]),
                               ID_STRING_TAG8));
        break;
      }
      case od::json_type::boolean: {
        bool b = false;
        known(v.get_bool(), &b);
        generate_words(buf, b ? ID_TRUE : ID_FALSE);
        break;
      }
      default:
        generate_words(buf, ID_NULL);
        break;
    }
    return get_value_size(buf);
  }

  NameSet& namesAt(vkt_u32 depth) {
    while (mNames.size() <= depth) mNames.emplace_back(new NameSet);
    return *mNames[depth];
  }

  od::parser& mParser;
  const char* mText;
  size_t mSize;
  size_t mCapacity;
  bool mStreams;
  bool mDeclined = false;
  TextStore mTexts;
  std::vector<vkt_u32> mStrings;  // string ids in text order
  size_t mNextString = 0;
  vkt_binary mNumbers;  // number images in text order
  vkt_internal::ValueBuffer mNumberImages{&mNumbers};  // appends to mNumbers
  size_t mNextNumber = 0;
  std::vector<ContainerHint> mHints;  // in text order
  size_t mNextHint = 0;
  std::vector<std::unique_ptr<NameSet>> mNames;  // one per depth
  std::vector<ObjectScratch> mObjects;           // one per nesting level
};

bool opens_with_bom(const char* text, size_t size) {
  return size >= 3 && std::memcmp(text, "\xEF\xBB\xBF", 3) == 0;
}

// The tree's path: parse, then write.
bool pack_through_tree(const char* text, size_t size, size_t capacity,
                       VKTWriterObject& writer, VKTWriteStream& sink,
                       VKTJsonError* error,
                       const VKTJsonParseOptions& options) {
  VKTWriterValue root;
  if (!vkt_json_parse(text, size, capacity, &root, error, options)) {
    return false;
  }
  if (writer.writeImage(root, sink)) return true;
  error->message = writer.error();
  error->offset = VKT_JSON_NO_OFFSET;
  error->path.clear();
  return false;
}

}  // namespace

bool vkt_json_pack(const char* text, size_t size, size_t capacity,
                   VKTWriterObject& writer, VKTWriteStream& sink,
                   VKTJsonError* error, const VKTJsonParseOptions& options) {
  if (!options.strict || opens_with_bom(text, size) || capacity < size ||
      capacity - size < VKT_JSON_PADDING) {
    return pack_through_tree(text, size, capacity, writer, sink, error,
                             options);
  }
  bool declined = false;
  {
    od::parser parser;
    JsonSource source(parser, text, size, capacity, options.streams);
    if (VKTInternal::writeImage(writer, source, sink)) return true;
    declined = source.declined();
  }  // the parser's and the source's memory go before the tree's path
  if (declined) {
    return pack_through_tree(text, size, capacity, writer, sink, error,
                             options);
  }
  error->message = writer.error();
  error->offset = VKT_JSON_NO_OFFSET;
  error->path.clear();
  return false;
}
