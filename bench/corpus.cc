#include "corpus.h"

#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <limits>
#include <sstream>

namespace {

using simdjson::dom::element;
using simdjson::dom::element_type;

std::string corpus_path(const std::string& name) {
  return std::string(VKT_DATA_DIR) + "/" + name + ".json";
}

bool fits_int32(int64_t v) {
  return v >= std::numeric_limits<vkt_s32>::min() &&
         v <= std::numeric_limits<vkt_s32>::max();
}

}  // namespace

const char* const kCorpusNames[3] = {"twitter", "citm_catalog", "canada"};

std::string corpus_text(const std::string& name) {
  std::ifstream in(corpus_path(name), std::ios::binary);
  if (!in) {
    std::fprintf(stderr, "bench: %s: cannot open the sample document\n",
                 corpus_path(name).c_str());
    std::exit(1);
  }
  std::ostringstream text;
  text << in.rdbuf();
  return text.str();
}

element load_corpus(const std::string& name, simdjson::dom::parser& parser) {
  element root;
  if (parser.load(corpus_path(name)).get(root) != simdjson::SUCCESS) {
    std::fprintf(stderr, "bench: %s: not a readable JSON document\n",
                 corpus_path(name).c_str());
    std::exit(1);
  }
  return root;
}

void json_to_writer(element e, VKTWriterValue* out) {
  switch (e.type()) {
    case element_type::ARRAY: {
      out->toArray();
      vkt_u32 index = 0;
      for (element child : e.get_array())
        json_to_writer(child, &(*out)[index++]);
      break;
    }
    case element_type::OBJECT:
      out->toObject();
      for (simdjson::dom::key_value_pair field : e.get_object()) {
        json_to_writer(field.value, &(*out)[std::string(field.key)]);
      }
      break;
    case element_type::INT64: {
      const int64_t v = e.get_int64();
      if (fits_int32(v)) {
        out->setInt(vkt_s32(v));
      } else {
        out->setLongInt(v);
      }
      break;
    }
    case element_type::UINT64:
      out->setDouble(double(uint64_t(e.get_uint64())));
      break;
    case element_type::DOUBLE:
      out->setDouble(e.get_double());
      break;
    case element_type::STRING:
      out->setString(std::string(std::string_view(e.get_string())));
      break;
    case element_type::BOOL:
      out->setBool(e.get_bool());
      break;
    case element_type::NULL_VALUE:
      *out = VKTWriterValue();
      break;
  }
}

vkt_binary corpus_image(const std::string& name) {
  simdjson::dom::parser parser;
  VKTWriterValue root;
  json_to_writer(load_corpus(name, parser), &root);
  return VKTWriterObject().createImage(root);
}

#if VKT_BENCH_HAVE_FLEXBUFFERS
void json_to_flexbuffers(element e, flexbuffers::Builder& b) {
  switch (e.type()) {
    case element_type::ARRAY: {
      const size_t start = b.StartVector();
      for (element child : e.get_array()) json_to_flexbuffers(child, b);
      b.EndVector(start, false, false);
      break;
    }
    case element_type::OBJECT: {
      const size_t start = b.StartMap();
      for (simdjson::dom::key_value_pair field : e.get_object()) {
        b.Key(field.key.data(), field.key.size());
        json_to_flexbuffers(field.value, b);
      }
      b.EndMap(start);
      break;
    }
    case element_type::INT64:
      b.Int(int64_t(e.get_int64()));
      break;
    case element_type::UINT64:
      b.Double(double(uint64_t(e.get_uint64())));
      break;
    case element_type::DOUBLE:
      b.Double(e.get_double());
      break;
    case element_type::STRING: {
      const std::string_view s = e.get_string();
      b.String(s.data(), s.size());
      break;
    }
    case element_type::BOOL:
      b.Bool(e.get_bool());
      break;
    case element_type::NULL_VALUE:
      b.Null();
      break;
  }
}

std::vector<uint8_t> corpus_flexbuffer(const std::string& name, bool shareAll) {
  simdjson::dom::parser parser;
  flexbuffers::Builder b(512, shareAll ? flexbuffers::BUILDER_FLAG_SHARE_ALL
                                       : flexbuffers::BUILDER_FLAG_SHARE_KEYS);
  json_to_flexbuffers(load_corpus(name, parser), b);
  b.Finish();
  return b.GetBuffer();
}
#endif

#if VKT_BENCH_HAVE_MSGPACK
void json_to_msgpack(element e, msgpack::packer<msgpack::sbuffer>& pk) {
  switch (e.type()) {
    case element_type::ARRAY: {
      simdjson::dom::array array = e.get_array();
      pk.pack_array(uint32_t(array.size()));
      for (element child : array) json_to_msgpack(child, pk);
      break;
    }
    case element_type::OBJECT: {
      simdjson::dom::object object = e.get_object();
      pk.pack_map(uint32_t(object.size()));
      for (simdjson::dom::key_value_pair field : object) {
        pk.pack_str(uint32_t(field.key.size()));
        pk.pack_str_body(field.key.data(), uint32_t(field.key.size()));
        json_to_msgpack(field.value, pk);
      }
      break;
    }
    case element_type::INT64:
      pk.pack_int64(e.get_int64());
      break;
    case element_type::UINT64:
      pk.pack_double(double(uint64_t(e.get_uint64())));
      break;
    case element_type::DOUBLE:
      pk.pack_double(e.get_double());
      break;
    case element_type::STRING: {
      const std::string_view s = e.get_string();
      pk.pack_str(uint32_t(s.size()));
      pk.pack_str_body(s.data(), uint32_t(s.size()));
      break;
    }
    case element_type::BOOL:
      if (e.get_bool()) {
        pk.pack_true();
      } else {
        pk.pack_false();
      }
      break;
    case element_type::NULL_VALUE:
      pk.pack_nil();
      break;
  }
}

msgpack::sbuffer corpus_msgpack(const std::string& name) {
  simdjson::dom::parser parser;
  msgpack::sbuffer buffer;
  msgpack::packer<msgpack::sbuffer> pk(buffer);
  json_to_msgpack(load_corpus(name, parser), pk);
  return buffer;
}
#endif
