// The vkt tool, run as a user runs it: its exit code, its output and what it
// leaves on disk.
#include <fcntl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

#include "gtest/gtest.h"
#include "simdjson.h"
#include "vkt.h"
#include "vkt_json.h"

namespace {

using simdjson::dom::element;
using simdjson::dom::element_type;

// Equal as JSON: members in any order, numbers by value.
bool same_json(element a, element b) {
  if (a.is_number() && b.is_number()) return double(a) == double(b);
  if (a.type() != b.type()) return false;
  switch (a.type()) {
    case element_type::ARRAY: {
      simdjson::dom::array x = a, y = b;
      if (x.size() != y.size()) return false;
      for (auto i = x.begin(), j = y.begin(); i != x.end(); ++i, ++j) {
        if (!same_json(*i, *j)) return false;
      }
      return true;
    }
    case element_type::OBJECT: {
      simdjson::dom::object x = a, y = b;
      if (x.size() != y.size()) return false;
      for (simdjson::dom::key_value_pair m : x) {
        element other;
        if (y.at_key(m.key).get(other) || !same_json(m.value, other)) {
          return false;
        }
      }
      return true;
    }
    case element_type::STRING:
      return std::string_view(a) == std::string_view(b);
    case element_type::BOOL:
      return bool(a) == bool(b);
    default:
      return true;  // null
  }
}

// The parsed document lives in `parser`.
element parse(simdjson::dom::parser& parser, const std::string& text) {
  return parser.parse(simdjson::padded_string(text));
}

struct Outcome {
  int code;
  std::string out;
  std::string err;
};

std::string read_file(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  return std::string(std::istreambuf_iterator<char>(in), {});
}

void write_file(const std::string& path, const std::string& bytes) {
  std::ofstream(path, std::ios::binary) << bytes;
}

class ToolTest : public ::testing::Test {
 protected:
  static void SetUpTestSuite() {
    char dir[] = "/tmp/vkt_tool_test.XXXXXX";
    ASSERT_NE(::mkdtemp(dir), nullptr);
    sDir = dir;
  }
  static void TearDownTestSuite() {
    ASSERT_EQ(std::system(("rm -rf " + sDir).c_str()), 0);
  }
  static std::string at(const std::string& name) { return sDir + "/" + name; }

  // Runs the tool with `args`, standard input from `input` when given.
  static Outcome vkt(const std::vector<std::string>& args,
                     const std::string& input = "/dev/null") {
    const std::string out = at("stdout"), err = at("stderr");
    const pid_t pid = ::fork();
    if (pid == 0) {
      std::vector<char*> argv{const_cast<char*>(VKT_TOOL_PATH)};
      for (const std::string& a : args)
        argv.push_back(const_cast<char*>(a.c_str()));
      argv.push_back(nullptr);
      ::dup2(::open(input.c_str(), O_RDONLY), 0);
      ::dup2(::open(out.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644), 1);
      ::dup2(::open(err.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644), 2);
      ::execv(VKT_TOOL_PATH, argv.data());
      ::_exit(127);
    }
    int status = 0;
    ::waitpid(pid, &status, 0);
    return {WIFEXITED(status) ? WEXITSTATUS(status) : -1, read_file(out),
            read_file(err)};
  }

  // Packs JSON text into an image file; answers its path.
  static std::string pack(const std::string& name, const std::string& text) {
    write_file(at(name + ".json"), text);
    const Outcome r =
        vkt({"pack", at(name + ".json"), "-o", at(name + ".vkt")});
    EXPECT_EQ(r.code, 0) << r.err;
    return at(name + ".vkt");
  }

  static std::string sDir;
};
std::string ToolTest::sDir;

const char* const kSamples[] = {"twitter", "citm_catalog", "canada"};

std::string sample(const char* name) {
  return std::string(VKT_DATA_DIR) + "/" + name + ".json";
}

// What the library's own writer makes of the same text.
vkt_binary library_image(const std::string& text, bool share,
                         const char* endian) {
  VKTWriterValue root;
  VKTJsonError error;
  EXPECT_TRUE(
      vkt_json_parse(text.data(), text.size(), text.size(), &root, &error))
      << error.message;
  VKTWriterObject writer;
  writer.setOptimize(share);
  if (endian != nullptr) {
    writer.setEndian(std::string(endian) == "big" ? VKT_ENDIAN_BIG
                                                  : VKT_ENDIAN_LITTLE);
  }
  return writer.createImage(root);
}

TEST_F(ToolTest, PackUnpackRoundTripsEverySample) {
  for (const char* name : kSamples) {
    SCOPED_TRACE(name);
    const std::string text = read_file(sample(name));
    if (text.empty()) GTEST_SKIP() << "no sample documents";
    const Outcome packed = vkt({"pack", sample(name), "-o", at("s.vkt")});
    ASSERT_EQ(packed.code, 0) << packed.err;
    const vkt_binary expected = library_image(text, true, nullptr);
    EXPECT_EQ(read_file(at("s.vkt")),
              std::string(expected.begin(), expected.end()));
    const Outcome unpacked = vkt({"unpack", at("s.vkt")});
    ASSERT_EQ(unpacked.code, 0) << unpacked.err;
    EXPECT_EQ(unpacked.out.back(), '\n');
    simdjson::dom::parser original, roundTrip;
    EXPECT_TRUE(
        same_json(parse(original, text), parse(roundTrip, unpacked.out)));
  }
}

// Writer settings reach the image, and "-" reads stdin and writes stdout.
TEST_F(ToolTest, PackOptionsGiveTheWritersBytes) {
  const std::string text = R"({"a":[1,1,1,{"x":[2,2]},{"x":[2,2]}],"b":"s"})";
  write_file(at("opt.json"), text);
  struct Case {
    std::vector<std::string> options;
    bool share;
    const char* endian;
  };
  const Case cases[] = {{{}, true, nullptr},
                        {{"--no-share"}, false, nullptr},
                        {{"--endian", "big"}, true, "big"},
                        {{"--endian=little", "--no-share"}, false, "little"}};
  for (const Case& c : cases) {
    std::vector<std::string> args{"pack", "-", "-o", "-"};
    args.insert(args.end(), c.options.begin(), c.options.end());
    const Outcome r = vkt(args, at("opt.json"));
    ASSERT_EQ(r.code, 0) << r.err;
    const vkt_binary expected = library_image(text, c.share, c.endian);
    EXPECT_EQ(r.out, std::string(expected.begin(), expected.end()))
        << ::testing::PrintToString(c.options);
  }
}

// Payloads, alignments and the bound flag come back through unpack and pack.
TEST_F(ToolTest, StreamsSurviveUnpackAndPack) {
  const std::string image =
      pack("streams", R"({"s":{"$stream":"AAECAw==","align":64},
                    "b":{"$stream":"/w==","align":16,"bound":true}})");
  const Outcome first = vkt({"unpack", image, "-o", at("streams2.json")});
  ASSERT_EQ(first.code, 0) << first.err;
  const std::string text = read_file(at("streams2.json"));
  simdjson::dom::parser parser;
  const element doc = parse(parser, text);
  EXPECT_EQ(std::string_view(doc["s"]["$stream"]), "AAECAw==");
  EXPECT_EQ(int64_t(doc["s"]["align"]) % 64, 0);
  EXPECT_EQ(std::string_view(doc["b"]["$stream"]), "/w==");
  EXPECT_TRUE(bool(doc["b"]["bound"]));
  ASSERT_EQ(vkt({"pack", at("streams2.json"), "-o", at("streams3.vkt")}).code,
            0);
  EXPECT_EQ(vkt({"unpack", at("streams3.vkt")}).out, text);

  const Outcome info = vkt({"info", image});
  ASSERT_EQ(info.code, 0) << info.err;
  EXPECT_NE(info.out.find("streams      1\n"), std::string::npos) << info.out;
  EXPECT_NE(info.out.find("bstreams     1\n"), std::string::npos) << info.out;
  EXPECT_NE(info.out.find("version      4\n"), std::string::npos) << info.out;
  EXPECT_NE(info.out.find("saves"), std::string::npos);
  const element infoJson = parse(parser, vkt({"info", image, "--json"}).out);
  EXPECT_EQ(int64_t(infoJson["bstreams"]), 1);
  EXPECT_EQ(uint64_t(infoJson["size"]), read_file(image).size());
}

TEST_F(ToolTest, GetFollowsPaths) {
  const std::string image = pack("get", R"({
      "statuses": [{"user": {"screen_name": "ann", "id": 7}}, 2.5],
      "a.b": {"x[y]": [true, {"q\"": null}]}, "": 5, "\u00e9": "e",
      "n": {"1": "one"}, "b\\s": 1})");
  struct Case {
    const char* path;
    const char* value;
  };
  const Case cases[] = {
      {"statuses[0].user.screen_name", "\"ann\""},
      {".statuses[1]", "2.5"},
      {"[\"statuses\"][0][\"user\"].id", "7"},
      {"[\"a.b\"][\"x[y]\"][1][\"q\\\"\"]", "null"},
      {"[\"\"]", "5"},
      {"\xc3\xa9", "\"e\""},
      {"[\"\\u00e9\"]", "\"e\""},
      {"n.1", "\"one\""},
      {"b\\s", "1"},
      {"statuses[0].user", R"({"id":7,"screen_name":"ann"})"},
  };
  for (const Case& c : cases) {
    const Outcome r = vkt({"get", image, c.path});
    EXPECT_EQ(r.code, 0) << c.path << ": " << r.err;
    EXPECT_EQ(r.out, std::string(c.value) + "\n") << c.path;
  }
  EXPECT_EQ(vkt({"get", image, "."}).out, vkt({"get", image, ""}).out);
}

TEST_F(ToolTest, GetNamesTheStepThatFailed) {
  const std::string image = pack("miss", R"({"a": {"b": [1, 2]}})");
  struct Case {
    const char* path;
    int code;
    const char* message;
  };
  const Case cases[] = {
      {"a.nope.deeper", 1, ": no value at a.nope\n"},
      {"a.b[2]", 1, ": no value at a.b[2]\n"},
      {"a[0]", 1, ": no value at a[0]\n"},
      {"a.b.c", 1, ": no value at a.b.c\n"},
      {"a..b", 2, "bad PATH 'a..b': empty name"},
      {"a[", 2, "expected an index"},
      {"a[x]", 2, "expected an index"},
      {"[\"a", 2, "unterminated name"},
      {"a]", 2, "needs a quoted name"},
      {"a[99999999999]", 2, "index too large"},
  };
  for (const Case& c : cases) {
    const Outcome r = vkt({"get", image, c.path});
    EXPECT_EQ(r.code, c.code) << c.path;
    EXPECT_EQ(r.err.rfind("vkt: ", 0), 0u) << r.err;
    EXPECT_NE(r.err.find(c.message), std::string::npos) << r.err;
  }
}

// A value that strict printing refuses is named by a path that get takes.
TEST_F(ToolTest, PrintErrorPathsFeedGet) {
  VKTWriterValue root;
  root["a.b"][1]["c"] = std::string("\xff");
  const vkt_binary image = VKTWriterObject().createImage(root);
  write_file(at("utf8.vkt"), std::string(image.begin(), image.end()));
  const Outcome strict = vkt({"unpack", at("utf8.vkt")});
  EXPECT_EQ(strict.code, 1);
  const std::string path = "[\"a.b\"][1].c";
  EXPECT_NE(strict.err.find(" at " + path + " "), std::string::npos)
      << strict.err;
  const Outcome lax = vkt({"get", at("utf8.vkt"), path, "--lax"});
  EXPECT_EQ(lax.code, 0) << lax.err;
  EXPECT_EQ(lax.out, "\"\xef\xbf\xbd\"\n");
}

// Each bad input fails with a message of its own, and the output file that
// was there stays as it was.
TEST_F(ToolTest, BadInputsFailCleanly) {
  const std::string good = read_file(pack("good", R"({"k":[1,"two",3.5]})"));
  const size_t root = vkt_u8(good[36]) | vkt_u8(good[37]) << 8;
  auto damaged = [&](size_t at, char byte) {
    std::string bytes = good;
    bytes[at] = byte;
    return bytes;
  };
  ::mkdir(at("dir").c_str(), 0755);
  const std::string out = at("out"), missingDir = at("nodir/out");
  struct Case {
    const char* command;
    std::string input;  // written to the input file, unless `path` is set
    const char* path;
    int code;
    std::string message;
  };
  const Case cases[] = {
      {"pack", "{\"a\":", nullptr, 1,
       "ended early in the middle of an object or array at byte 5\n"},
      {"pack", "\"abc", nullptr, 1, "A string is opened, but never closed\n"},
      {"pack", "\xEF\xBB\xBF[1]", nullptr, 1, "byte order mark"},
      {"pack", "{\"a\":1,\"a\":2}", nullptr, 1, "duplicate"},
      {"pack", "", nullptr, 1, ""},
      {"unpack", "", nullptr, 1, "not a vkt image (empty file)"},
      {"unpack", good.substr(0, 50), nullptr, 1,
       "truncated image: only 50 bytes"},
      {"unpack", good.substr(0, good.size() - 1), nullptr, 1,
       "truncated image: " + std::to_string(good.size() - 1) +
           " bytes, but its header names byte " + std::to_string(good.size())},
      {"unpack", damaged(10, 0x7F), nullptr, 1, "header checksum"},
      {"unpack", damaged(root, char(0xFF)), nullptr, 1,
       "damaged image: not a value id at byte " + std::to_string(root)},
      {"unpack", damaged(0, 'X'), nullptr, 1, "not a vkt image (wrong magic)"},
      {"unpack", damaged(4, 9), nullptr, 1, "unsupported version 9"},
      {"unpack", damaged(6, 1), nullptr, 1, "filtered image"},
      {"unpack", "", "missing", 1, "No such file or directory"},
      {"unpack", "", "dir", 1, "Is a directory"},
      {"unpack", good, nullptr, 2, "unknown option --bogus"},
      {"verify", damaged(root, char(0xFF)), nullptr, 1, "not a value id"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.message);
    const std::string in = at(c.path != nullptr ? c.path : "bad.in");
    if (c.path == nullptr) write_file(in, c.input);
    write_file(out, "keep me");
    std::vector<std::string> args{c.command, in};
    if (std::string(c.command) != "verify")
      args.insert(args.end(), {"-o", out});
    if (c.code == 2) args.push_back("--bogus");
    const Outcome r = vkt(args);
    EXPECT_EQ(r.code, c.code);
    EXPECT_EQ(r.err.rfind("vkt: ", 0), 0u) << r.err;
    EXPECT_NE(r.err.find(c.message), std::string::npos) << r.err;
    EXPECT_EQ(read_file(out), "keep me");
  }
  const Outcome r = vkt({"pack", at("good.json"), "-o", missingDir});
  EXPECT_EQ(r.code, 1);
  EXPECT_EQ(r.err, "vkt: " + missingDir + ": No such file or directory\n");
  // The input named as the output, also through a second name, stays.
  ::link(at("good.vkt").c_str(), at("alias.vkt").c_str());
  const std::vector<std::string> sameFile[] = {
      {"pack", at("good.json"), "-o", at("good.json")},
      {"unpack", at("good.vkt"), "-o", at("alias.vkt")}};
  for (const std::vector<std::string>& args : sameFile) {
    const std::string before = read_file(args[3]);
    const Outcome same = vkt(args);
    EXPECT_EQ(same.code, 1);
    EXPECT_NE(same.err.find("is the input file"), std::string::npos);
    EXPECT_EQ(read_file(args[3]), before);
  }
}

// An output that exists is written through, not replaced by something else:
// a pipe stays a pipe, a link stays a link, a private file stays private.
TEST_F(ToolTest, OutputKeepsWhatItNames) {
  const std::string image = pack("through", "[1]");
  const std::string fifo = at("out.fifo"), link = at("out.link"),
                    priv = at("out.private");
  ASSERT_EQ(::mkfifo(fifo.c_str(), 0644), 0);
  const int reader = ::open(fifo.c_str(), O_RDWR | O_NONBLOCK);
  write_file(at("linked"), "old");
  ::symlink(at("linked").c_str(), link.c_str());
  write_file(priv, "old");
  ::chmod(priv.c_str(), 0600);
  for (const std::string& out : {fifo, link, priv}) {
    SCOPED_TRACE(out);
    struct stat before, after;
    ::lstat(out.c_str(), &before);
    EXPECT_EQ(vkt({"unpack", image, "-o", out}).code, 0);
    ::lstat(out.c_str(), &after);
    EXPECT_EQ(after.st_mode, before.st_mode);
  }
  char got[8] = {};
  EXPECT_EQ(::read(reader, got, sizeof got), 4);
  EXPECT_EQ(std::string(got), "[1]\n");
  ::close(reader);
  EXPECT_EQ(read_file(at("linked")), "[1]\n");
  EXPECT_EQ(read_file(priv), "[1]\n");
}

TEST_F(ToolTest, VerifyAndUsage) {
  const std::string image = pack("v", "[1,2,3]");
  EXPECT_EQ(vkt({"verify", image}).out, image + ": ok\n");
  EXPECT_EQ(vkt({"verify", "-q", image}).out, "");
  struct Case {
    std::vector<std::string> args;
    int code;
    bool toStdout;
  };
  const Case cases[] = {
      {{"--help"}, 0, true},
      {{"get", "--help"}, 0, true},
      {{}, 2, false},
      {{"frob"}, 2, false},
      {{"info"}, 2, false},
      {{"pack", image}, 2, false},
      {{"pack", image, "-o", "x", "--endian", "odd"}, 2, false}};
  for (const Case& c : cases) {
    const Outcome r = vkt(c.args);
    SCOPED_TRACE(::testing::PrintToString(c.args));
    EXPECT_EQ(r.code, c.code);
    EXPECT_NE((c.toStdout ? r.out : r.err).find("usage"), std::string::npos)
        << r.out << r.err;
  }
}

}  // namespace

namespace {

// 110^3 zeros in three levels of shared arrays: an image of a few hundred
// bytes whose values expand far beyond the verifier's default of 256 a byte.
TEST_F(ToolTest, HeavilySharedImagesReadBack) {
  std::string row = "[", plane = "[", cube = "[";
  for (int i = 0; i < 110; ++i) row += i ? ",0" : "0";
  row += "]";
  for (int i = 0; i < 110; ++i) plane += (i ? "," : "") + row;
  plane += "]";
  for (int i = 0; i < 110; ++i) cube += (i ? "," : "") + plane;
  cube += "]";
  const std::string image = pack("cube", cube);
  EXPECT_EQ(vkt({"unpack", image}).out, cube + "\n");
  const Outcome info = vkt({"info", image});
  EXPECT_NE(info.out.find("values       1343211"), std::string::npos);
  EXPECT_NE(info.out.find("not measured"), std::string::npos) << info.out;
}

}  // namespace
