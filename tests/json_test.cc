// vkt_json: JSON text to images and back.
#include <cmath>
#include <fstream>
#include <functional>
#include <iterator>
#include <limits>
#include <string>

#include "gtest/gtest.h"
#include "testutil.h"
#include "vkt.h"
#include "vkt/format.h"
#include "vkt/streams.h"  // VKTBinaryWriteStream
#include "vkt_json.h"

namespace {

typedef std::function<void(VKTWriterValue*)> TreeMaker;

vkt_binary image_of(const VKTWriterValue& tree) {
  return VKTWriterObject().createImage(tree);
}

vkt_binary make_image(const TreeMaker& make) {
  VKTWriterValue tree;
  make(&tree);
  return image_of(tree);
}

bool parse(const std::string& text, VKTWriterValue* tree, VKTJsonError* error,
           bool strict = true, bool streams = true) {
  VKTJsonParseOptions options;
  options.strict = strict;
  options.streams = streams;
  return vkt_json_parse(text.data(), text.size(), text.size(), tree, error,
                        options);
}

// vkt_json_pack on a copy with the parser's padding behind it, so that the
// text may take the path without a tree.
bool pack(const std::string& text, vkt_binary* image, VKTJsonError* error,
          bool strict = true, bool streams = true, bool share = true) {
  VKTJsonParseOptions options;
  options.strict = strict;
  options.streams = streams;
  const std::string padded = text + std::string(VKT_JSON_PADDING, ' ');
  image->clear();
  VKTBinaryWriteStream sink(*image);
  VKTWriterObject writer;
  writer.setOptimize(share);
  return vkt_json_pack(padded.data(), text.size(), padded.size(), writer, sink,
                       error, options);
}

// Prints the root of an image after verifying it as the tool does.
bool print(const vkt_binary& image, std::string* out, VKTJsonError* error,
           bool strict = true, bool pretty = false) {
  VKTVerifyLimits limits;
  limits.maxDepth = VKT_JSON_MAX_DEPTH;
  EXPECT_TRUE(VKTObject::verify(image, nullptr, &limits));
  VKTObject object(image.data(), vkt_u32(image.size()), VKT_ALLOC_REFER);
  VKTJsonPrintOptions options;
  options.strict = strict;
  options.pretty = pretty;
  return vkt_json_print(object.root(), out, error, options);
}

typedef void (*ImageEdit)(vkt_binary*);

std::string print_tree(const TreeMaker& make, bool strict = true,
                       ImageEdit edit = nullptr) {
  vkt_binary image = make_image(make);
  if (edit != nullptr) edit(&image);
  std::string out;
  VKTJsonError error;
  if (!print(image, &out, &error, strict)) {
    return "error: " + error.message + " at " + error.path;
  }
  return out;
}

// The printed text of a sample packs back to the same image: every value
// printed means what the image holds (the mapping table below checks that
// parsing reads the text right).
TEST(JsonRoundTrip, SampleDocumentsPrintBackToTheSameImage) {
  bool complete;
  for (const std::string& path :
       sample_documents(VKT_SAMPLE, VKT_DATA_DIR, &complete)) {
    SCOPED_TRACE(path);
    std::ifstream file(path);
    const std::string text{std::istreambuf_iterator<char>(file), {}};
    ASSERT_FALSE(text.empty());
    VKTWriterValue tree;
    VKTJsonError error;
    ASSERT_TRUE(parse(text, &tree, &error)) << error.message;
    const vkt_binary image = image_of(tree);
    vkt_binary packed;  // and packing with no tree makes the same bytes
    ASSERT_TRUE(pack(text, &packed, &error)) << error.message;
    EXPECT_EQ(packed, image);
    for (bool pretty : {false, true}) {
      std::string printed;
      ASSERT_TRUE(print(image, &printed, &error, true, pretty));
      VKTWriterValue again;
      ASSERT_TRUE(parse(printed, &again, &error)) << error.message;
      EXPECT_EQ(image_of(again), image);
    }
  }
  if (!complete) GTEST_SKIP() << VKT_DATA_DIR " is absent: the sample only";
}

std::string nested(const char* open, const char* inner, const char* close,
                   int levels) {
  std::string text;
  for (int i = 0; i < levels; ++i) text += open;
  text += inner;
  for (int i = 0; i < levels; ++i) text += close;
  return text;
}

TreeMaker nested_arrays(int levels, const TreeMaker& inner) {
  return [=](VKTWriterValue* v) {
    for (int i = 0; i < levels; ++i) v = &(*v)[0];
    inner(v);
  };
}

// One row per mapping rule: the tree the text must give, or the error.
struct MappingCase {
  std::string text;
  bool strict;
  TreeMaker expected;   // null when the text must be refused
  const char* error;    // a part of the message
  size_t offset;        // of the fault in the text
  bool streams = true;  // VKTJsonParseOptions::streams
};

void int_tree(vkt_s32 i, VKTWriterValue* v) { v->setInt(i); }
void long_tree(vkt_s64 i, VKTWriterValue* v) { v->setLongInt(i); }
void double_tree(double d, VKTWriterValue* v) { v->setDouble(d); }

using std::placeholders::_1;
const vkt_s64 kMin64 = std::numeric_limits<vkt_s64>::min();
const vkt_s64 kMax64 = std::numeric_limits<vkt_s64>::max();
const vkt_u8 kBytes[] = {0, 1, 2};

const MappingCase sMappingCases[] = {
    {R"({"id":5000000000,"name":"x","tags":["a",true,null,-1.25],"n":{}})",
     true,
     [](VKTWriterValue* v) {
       (*v)["id"].setLongInt(5000000000);
       (*v)["name"] = "x";
       (*v)["tags"][0] = "a";
       (*v)["tags"][1] = true;
       (*v)["tags"][3] = -1.25;  // [2] grows as null
       (*v)["n"].toObject();
     },
     "", 0},
    {"2147483647", true, std::bind(int_tree, 2147483647, _1), "", 0},
    {"-2147483648", true, std::bind(int_tree, -2147483647 - 1, _1), "", 0},
    {"2147483648", true, std::bind(long_tree, 2147483648, _1), "", 0},
    {"-2147483649", true, std::bind(long_tree, -2147483649, _1), "", 0},
    {"9223372036854775807", true, std::bind(long_tree, kMax64, _1), "", 0},
    {"-9223372036854775808", true, std::bind(long_tree, kMin64, _1), "", 0},
    {"[9223372036854775808]", true, nullptr, "beyond the signed 64-bit", 1},
    {"-9223372036854775809", true, nullptr, "beyond the signed 64-bit", 0},
    {"9223372036854775808", false,
     std::bind(double_tree, 9223372036854775808.0, _1), "", 0},
    {"-123456789012345678901234567890", false,
     std::bind(double_tree, -1.2345678901234568e29, _1), "", 0},
    {"1.5", true, std::bind(double_tree, 1.5, _1), "", 0},
    {"1e2", true, std::bind(double_tree, 100.0, _1), "", 0},
    // Nineteen digits and a fraction: how doubles of 1e18 and up print.
    {"8000000000000000000.0", true, std::bind(double_tree, 8e18, _1), "", 0},
    {"-0", true, std::bind(int_tree, 0, _1), "", 0},
    {"-0.0", true, std::bind(double_tree, -0.0, _1), "", 0},
    {R"({"a":1, "a":2})", true, nullptr, "duplicate member name \"a\"", 8},
    {R"({"a":[1,2,3],"b":0,"a":[4]})", false,
     [](VKTWriterValue* v) {
       (*v)["a"][0] = 4;
       (*v)["b"] = 0;
     },
     "", 0},
    {R"("a\u0000b")", true, nullptr, "string contains NUL", 0},
    {R"("a\u0000b")", false,
     [](VKTWriterValue* v) { v->setString(std::string("a\0b", 3)); }, "", 0},
    {R"({"a\u0000":1})", false, nullptr, "member name contains NUL", 1},
    {"[\"ok\", \"\xC3\x28\"]", false, nullptr, "UTF-8", 8},
    {"[1,]", true, nullptr, "", 3},
    {"[1] 2", true, nullptr, "", 0},
    {R"({"a":1} {})", true, nullptr, "text after the JSON value", 8},
    {R"({"$stream":"AAEC","align":16,"bound":true})", true,
     [](VKTWriterValue* v) {
       v->setStream(kBytes, 3, 16, VKT_ALLOC_DUPLICATE, VKT_STREAM_FLAG_BOUND);
     },
     "", 0},
    {R"({"bound":false,"$stream":"AA=="})", true,
     [](VKTWriterValue* v) { v->setStream(kBytes, 1, 0, VKT_ALLOC_DUPLICATE); },
     "", 0},
    {R"({"align":[1]})", true, [](VKTWriterValue* v) { (*v)["align"][0] = 1; },
     "", 0},
    {R"({"m":{"$stream":"text","other":1}})", true,
     [](VKTWriterValue* v) {
       (*v)["m"]["$stream"] = "text";
       (*v)["m"]["other"] = 1;
     },
     "", 0},
    {R"({"$stream":3,"align":16,"x":null})", true,
     [](VKTWriterValue* v) {
       (*v)["$stream"] = 3;
       (*v)["align"] = 16;
       (*v)["x"];
     },
     "", 0},
    {R"({"$stream":1})", true, nullptr, "must be a base64 string", 11},
    {R"({"$stream":1,"$stream":"AA==","x":0})", false,
     [](VKTWriterValue* v) {
       (*v)["$stream"] = "AA==";
       (*v)["x"] = 0;
     },
     "", 0},
    {R"({"x":0,"$stream":"\u0000"})", true, nullptr, "string contains NUL", 17},
    {R"({"$stream":"AA==","align":3})", true,
     [](VKTWriterValue* v) {
       (*v)["$stream"] = "AA==";
       (*v)["align"] = 3;
     },
     "", 0, false},
    {R"({"$stream":"","align":3})", true, nullptr, "power of two", 22},
    {R"({"$stream":"","bound":1})", true, nullptr, "true or false", 22},
    {R"({"$stream":"AAE"})", true, nullptr, "multiple of four", 15},
    {R"({"$stream":"AA-A"})", true, nullptr, "not a base64 character", 14},
    {R"({"$stream":"AB=="})", true, nullptr, "padding bits", 13},
    {R"({"$stream":"A==="})", true, nullptr, "not a base64 character", 13},
    {nested("[", "0", "]", 255), true,
     nested_arrays(255, std::bind(int_tree, 0, _1)), "", 0},
    {nested("[", R"({"$stream":""})", "]", 255), true,
     nested_arrays(255,
                   [](VKTWriterValue* v) {
                     v->setStream(kBytes, 0, 0, VKT_ALLOC_DUPLICATE);
                   }),
     "", 0},
    {nested("[", "0", "]", 256), true, nullptr, "deeper than 255", 255},
    {nested("{\"a\":", "0", "}", 1000), false, nullptr, "", 0},
};

TEST(JsonParse, MapsEachKindOfJsonValue) {
  for (const MappingCase& c : sMappingCases) {
    SCOPED_TRACE(c.text.substr(0, 60) + (c.strict ? " (strict)" : " (lax)"));
    VKTWriterValue tree;
    VKTJsonError error;
    const bool ok = parse(c.text, &tree, &error, c.strict, c.streams);
    // Packing without a tree gives the same image, or the same message.
    vkt_binary packed;
    VKTJsonError packError;
    EXPECT_EQ(pack(c.text, &packed, &packError, c.strict, c.streams), ok);
    EXPECT_EQ(packError.message, error.message);
    EXPECT_EQ(packError.offset, error.offset);
    if (c.expected) {
      ASSERT_TRUE(ok) << error.message << " at " << error.offset;
      EXPECT_EQ(image_of(tree), make_image(c.expected));
      EXPECT_EQ(packed, image_of(tree));
    } else {
      ASSERT_FALSE(ok);
      EXPECT_NE(error.message.find(c.error), std::string::npos)
          << error.message;
      if (c.offset != 0) {
        EXPECT_EQ(error.offset, c.offset);
      }
      EXPECT_EQ(image_of(tree), make_image([](VKTWriterValue*) {}));
    }
  }
}

std::string many(const std::string& open, const std::string& close, int n,
                 const std::function<std::string(int)>& item) {
  std::string text = open;
  for (int i = 0; i < n; ++i) text += (i ? "," : "") + item(i);
  return text + close;
}

// Texts whose image depends on member order and on sharing: packing them
// without a tree must make the tree's bytes, shared or not.
TEST(JsonPack, MakesTheTreesBytesWithoutTheTree) {
  auto key = [](int i) {
    return "\"k" + std::to_string(i * 7919 % 100) + "\"";
  };
  const std::string texts[] = {
      R"({"b":[1,2],"a":[1,2],"c":{"y":1,"x":1},"d":"s","e":"s"})",
      R"([[1,2],[1,2],{"k":"v"},{"k":"v"},"s","s",1.5,1.5,true,null,-7])",
      R"({"z":{"b":{"d":[0],"c":[0]},"a":{"d":[0],"c":[0]}},"y":[],"x":{}})",
      R"([{},[],{},[],[{}],[{}],"",""])",
      many("[", "]", 300,
           [](int i) { return "[" + std::to_string(i % 5) + "]"; }),
      many("{", "}", 100,
           [&](int i) { return key(i) + ":[" + std::to_string(i % 3) + "]"; }),
      many("[", "]", 50,
           [&](int i) {
             return many("{", "}", 40, [&](int j) {
               return key(j) + ":" + std::to_string((i + j) % 4);
             });
           }),
      nested("{\"a\":[", "{\"b\":\"x\",\"a\":1}", "]}", 120),
      "\"just a string\"",
      "12345678901",
  };
  for (const std::string& text : texts) {
    SCOPED_TRACE(text.substr(0, 60));
    for (bool share : {true, false}) {
      VKTWriterValue tree;
      VKTJsonError error;
      ASSERT_TRUE(parse(text, &tree, &error)) << error.message;
      VKTWriterObject writer;
      writer.setOptimize(share);
      vkt_binary packed;
      ASSERT_TRUE(pack(text, &packed, &error, true, true, share))
          << error.message;
      EXPECT_EQ(packed, writer.createImage(tree));
    }
  }
}

TEST(JsonParse, FindsDuplicatesInLargeObjects) {
  std::string text = "{";
  for (int i = 0; i < 40; ++i) text += "\"k" + std::to_string(i) + "\":0,";
  VKTWriterValue tree;
  VKTJsonError error;
  ASSERT_TRUE(parse(text + "\"k40\":0}", &tree, &error)) << error.message;
  ASSERT_FALSE(parse(text + "\"k7\":0}", &tree, &error));
  EXPECT_EQ(error.message, "duplicate member name \"k7\"");
}

TEST(JsonStreams, PayloadsKeepBytesKindAndAlignmentThroughJson) {
  const vkt_u32 kAlignments[] = {1, 2, 16, 4096, 65536};
  std::vector<vkt_binary> payloads;
  VKTWriterValue tree;
  tree["pad"] = "x";  // so that nothing lands aligned by chance
  for (vkt_u32 a : kAlignments) {
    for (vkt_u32 bound : {0u, 1u}) {
      payloads.push_back(vkt_binary(a + 5 + bound, vkt_u8(a + bound)));
      VKTWriterValue& v = tree["s"][vkt_u32(payloads.size() - 1)];
      v.setStream(payloads.back().data(), vkt_u32(payloads.back().size()), a,
                  VKT_ALLOC_DUPLICATE, bound ? VKT_STREAM_FLAG_BOUND : 0);
    }
  }
  std::string text;
  VKTJsonError error;
  ASSERT_TRUE(print(image_of(tree), &text, &error)) << error.message;
  VKTWriterValue again;
  ASSERT_TRUE(parse(text, &again, &error)) << error.message;
  const vkt_binary image = image_of(again);
  VKTObject object(image);
  const VKTValue streams = object.root()["s"];
  ASSERT_EQ(streams.size(), payloads.size());
  for (vkt_u32 i = 0; i < payloads.size(); ++i) {
    SCOPED_TRACE(i);
    const VKTValue v = streams[i];
    ASSERT_EQ(v.streamSize(), payloads[i].size());
    EXPECT_EQ(vkt_binary(v.asStream(), v.asStream() + v.streamSize()),
              payloads[i]);
    EXPECT_EQ(v.isBoundStream(), i % 2 == 1);
    const size_t offset = size_t(v.asStream() - object.image());
    EXPECT_EQ(offset % kAlignments[i / 2], 0u);
    EXPECT_EQ(vkt_json_stream_alignment(v) % kAlignments[i / 2], 0u);
  }
}

struct DoubleCase {
  double value;
  const char* text;
};

TEST(JsonPrint, DoublesInTheShortestFormThatReadsBackAsADouble) {
  const DoubleCase kCases[] = {
      {0.1, "0.1"},
      {1.0, "1.0"},
      {1e300, "1e+300"},
      {5e-324, "5e-324"},
      {-2.5, "-2.5"},
      {1e21, "1e+21"},
      {1e-7, "1e-7"},
      {1.5e-6, "0.0000015"},
      {-12345.678, "-12345.678"},
      {123456789012345680000.0, "123456789012345680000.0"},
  };
  for (const DoubleCase& c : kCases) {
    EXPECT_EQ(print_tree([&](VKTWriterValue* v) { v->setDouble(c.value); }),
              c.text);
  }
  EXPECT_EQ(print_tree([](VKTWriterValue* v) { v->setFloat(0.5f); }), "0.5");
}

struct PrintCase {
  TreeMaker make;
  const char* strict;  // output, or "error: message at path"
  const char* lax;
  ImageEdit edit = nullptr;  // damage the verifier lets through
};

// Points string 0 one byte further into the string entity, then re-seals.
void shift_string_0(vkt_binary* image) {
  VKTObject object(*image);
  for (const VKTSection& s : object.sections()) {
    if (std::string(s.name) == "string offset array") {
      ++(*image)[s.offset + s.size - 1];  // one string, one byte wide
    }
  }
  // testutil's seal() would link in its counting operator new, which the
  // simdjson library's own allocations do not go through.
  write_32bit_unsigned(&(*image)[HEADER_OFST_CHECKSUM],
                       header_checksum(image->data(), object.version()));
}

const double kInf = std::numeric_limits<double>::infinity();

const PrintCase sPrintCases[] = {
    {[](VKTWriterValue* v) { (*v)["a"]["b"][1].setDouble(kInf); },
     "error: number is not finite at a.b[1]", R"({"a":{"b":[null,null]}})"},
    {[](VKTWriterValue* v) { (*v)["x.y"][0].setDouble(std::nan("")); },
     "error: number is not finite at [\"x.y\"][0]", R"({"x.y":[null]})"},
    {[](VKTWriterValue* v) { (*v)[""]["q\""].setFloat(-kInf); },
     "error: number is not finite at [\"\"][\"q\\\"\"]",
     R"({"":{"q\"":null}})"},
    {[](VKTWriterValue* v) { (*v)[0] = "a\xFFz\xE2\x82"; },
     "error: string is not valid UTF-8 at [0]",
     "[\"a\xEF\xBF\xBDz\xEF\xBF\xBD\xEF\xBF\xBD\"]"},
    // Every string is UTF-8, but one starts inside a character.
    {[](VKTWriterValue* v) { (*v)[0] = "\xC3\xA9"; },
     "error: string is not valid UTF-8 at [0]", "[\"\xEF\xBF\xBD\"]",
     shift_string_0},
    {[](VKTWriterValue* v) { (*v)["k\xC0"] = 1; },
     "error: string is not valid UTF-8 at k\xC0", "{\"k\xEF\xBF\xBD\":1}"},
    {[](VKTWriterValue* v) { *v = "q\"b\\s/\n\t\r\b\f\x01\x1F\xC3\xA9"; },
     R"("q\"b\\s/\n\t\r\b\f\u0001\u001f)"
     "\xC3\xA9\"",
     R"("q\"b\\s/\n\t\r\b\f\u0001\u001f)"
     "\xC3\xA9\""},
    // NULs inside strings, and the last string of the table, print whole.
    {[](VKTWriterValue* v) {
       (*v)[0] = std::string("\0a\0", 3);
       (*v)[1] = "";
       (*v)[2] = std::string("z\0", 2);
     },
     R"(["\u0000a\u0000","","z\u0000"])", R"(["\u0000a\u0000","","z\u0000"])"},
    {[](VKTWriterValue* v) {
       (*v)[0] = vkt_s64(-5000000000);
       (*v)[1] = false;
       (*v)[2].toArray();
       (*v)[3].toObject();
       (*v)[4].setStream(kBytes, 3, 0, VKT_ALLOC_DUPLICATE,
                         VKT_STREAM_FLAG_BOUND);
     },
     R"([-5000000000,false,[],{},{"$stream":"AAEC","bound":true}])",
     R"([-5000000000,false,[],{},{"$stream":"AAEC","bound":true}])"},
};

TEST(JsonPrint, StrictRefusesWhatJsonCannotHoldAndLaxReplacesIt) {
  for (const PrintCase& c : sPrintCases) {
    SCOPED_TRACE(c.strict);
    EXPECT_EQ(print_tree(c.make, true, c.edit), c.strict);
    EXPECT_EQ(print_tree(c.make, false, c.edit), c.lax);
  }
}

TEST(JsonPrint, PrettyIndentsByTwoSpaces) {
  VKTWriterValue tree;
  tree["a"][0] = 1;
  tree["a"][1].toObject();
  tree["b"]["c"] = "d";
  tree["e"].toArray();
  std::string out;
  VKTJsonError error;
  ASSERT_TRUE(print(image_of(tree), &out, &error, true, true));
  EXPECT_EQ(out,
            "{\n"
            "  \"a\": [\n"
            "    1,\n"
            "    {}\n"
            "  ],\n"
            "  \"b\": {\n"
            "    \"c\": \"d\"\n"
            "  },\n"
            "  \"e\": []\n"
            "}");
}

// Sharing bombs: 2^19 references to one 30,000-byte string (16 GB of
// text) stop once the text passes the bound, with the path where it did;
// the same image prints whole with the bound lifted as far as it needs.
TEST(JsonPrint, StopsTextThatSharingExpandsPastItsBound) {
  const vkt_binary bomb = shared_string_bomb(19, 30000);
  ASSERT_LT(bomb.size(), 40000u);
  VKTVerifyReport report;
  ASSERT_TRUE(VKTObject::verify(bomb, &report)) << report.reason;
  EXPECT_EQ(report.values, (vkt_u64(1) << 20) - 1);
  VKTObject object(bomb);
  struct Case {
    vkt_u64 maxExpansion, allowance;
    size_t largestText;  // bound plus one value's overshoot
  };
  const Case cases[] = {
      {100, vkt_u64(8) << 20, (size_t(8) << 20) + 30100},
      {1000, 0, bomb.size() * 1000 + 30100},
  };
  for (const Case& c : cases) {
    VKTJsonPrintOptions options;
    options.maxExpansion = c.maxExpansion;
    options.expansionAllowance = c.allowance;
    std::string out;
    VKTJsonError error;
    EXPECT_FALSE(vkt_json_print(object.root(), &out, &error, options));
    EXPECT_TRUE(error.tooLarge);
    EXPECT_NE(error.message.find("times the image's size"), std::string::npos);
    EXPECT_EQ(error.path.rfind("[0][0]", 0), 0u) << error.path;
    EXPECT_LT(out.size(), c.largestText);
  }
  const vkt_binary small = shared_string_bomb(10, 30000);
  VKTObject whole(small);
  VKTJsonPrintOptions lifted;
  lifted.maxExpansion = 0;
  std::string out;
  VKTJsonError error;
  EXPECT_TRUE(vkt_json_print(whole.root(), &out, &error, lifted));
  EXPECT_EQ(out.size(), size_t(30002 + 1) * 1024 + 2 * 1023 - 1);
}

}  // namespace
