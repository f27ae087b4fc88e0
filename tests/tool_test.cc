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
#include "testutil.h"
#include "vkt.h"
#include "vkt_json.h"

namespace {

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
    std::string command = shell_quoted(VKT_TOOL_PATH);
    for (const std::string& a : args) command += " " + shell_quoted(a);
    command += " <" + shell_quoted(input) + " >" + shell_quoted(out) + " 2>" +
               shell_quoted(err);
    const int status = std::system(command.c_str());
    return {WIFEXITED(status) ? WEXITSTATUS(status) : -1, read_file(out),
            read_file(err)};
  }
  static std::string shell_quoted(const std::string& s) {
    std::string q = "'";
    for (char c : s) q += c == '\'' ? std::string("'\\''") : std::string(1, c);
    return q + "'";
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

// Pack gives the library writer's bytes; unpack gives text that packs back
// to them (json_test.cc checks the conversion itself).
TEST_F(ToolTest, PackUnpackRoundTripsEverySample) {
  bool complete;
  for (const std::string& path :
       sample_documents(VKT_SAMPLE, VKT_DATA_DIR, &complete)) {
    SCOPED_TRACE(path);
    const std::string text = read_file(path);
    ASSERT_FALSE(text.empty());
    const Outcome packed = vkt({"pack", path, "-o", at("s.vkt")});
    ASSERT_EQ(packed.code, 0) << packed.err;
    const vkt_binary expected = library_image(text, true, nullptr);
    const std::string image = read_file(at("s.vkt"));
    EXPECT_EQ(image, std::string(expected.begin(), expected.end()));
    const Outcome unpacked = vkt({"unpack", at("s.vkt"), "-o", at("s.json")});
    ASSERT_EQ(unpacked.code, 0) << unpacked.err;
    EXPECT_EQ(read_file(at("s.json")).back(), '\n');
    ASSERT_EQ(vkt({"pack", at("s.json"), "-o", at("s2.vkt")}).code, 0);
    EXPECT_EQ(read_file(at("s2.vkt")), image);
  }
  if (!complete) GTEST_SKIP() << VKT_DATA_DIR " is absent: the sample only";
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
  const Case cases[] = {
      {{}, true, nullptr},
      {{"--no-share"}, false, nullptr},
      {{"--endian-mark", "big"}, true, "big"},
      {{"--endian-mark=little", "--no-share"}, false, "little"}};
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

// Streams come back through unpack and pack; info counts them.
TEST_F(ToolTest, StreamsSurviveUnpackAndPack) {
  const std::string image =
      pack("streams", R"({"s":{"$stream":"AAECAw==","align":64},
                    "b":{"$stream":"/w==","align":16,"bound":true}})");
  const Outcome first = vkt({"unpack", image, "-o", at("streams2.json")});
  ASSERT_EQ(first.code, 0) << first.err;
  ASSERT_EQ(vkt({"pack", at("streams2.json"), "-o", at("streams3.vkt")}).code,
            0);
  EXPECT_EQ(read_file(at("streams3.vkt")), read_file(image));
  // With --streams off the objects stay objects.
  const Outcome off = vkt(
      {"pack", at("streams2.json"), "--streams", "off", "-o", at("off.vkt")});
  ASSERT_EQ(off.code, 0) << off.err;
  EXPECT_EQ(vkt({"unpack", at("off.vkt")}).out, read_file(at("streams2.json")));
  const std::string offInfo = vkt({"info", at("off.vkt")}).out;
  EXPECT_NE(offInfo.find("streams      0\n"), std::string::npos) << offInfo;

  const Outcome info = vkt({"info", image, "--sharing"});
  ASSERT_EQ(info.code, 0) << info.err;
  for (const char* line :
       {"streams      1\n", "bstreams     1\n", "version      4\n", "saves"}) {
    EXPECT_NE(info.out.find(line), std::string::npos) << info.out;
  }
  const std::string json = vkt({"info", image, "--json"}).out;
  EXPECT_NE(json.find("\"bstreams\":1,"), std::string::npos) << json;
  EXPECT_NE(json.find("\"size\":" + std::to_string(read_file(image).size())),
            std::string::npos);
}

// Paths to values print them; a path to nothing names the step that failed
// (exit 1); a path that does not parse is a usage error (exit 2).
TEST_F(ToolTest, GetFollowsPaths) {
  const std::string image = pack("get", R"({
      "statuses": [{"user": {"screen_name": "ann", "id": 7}}, 2.5],
      "a.b": {"x[y]": [true, {"q\"": null}]}, "": 5, "\u00e9": "e",
      "n": {"1": "one"}, "b\\s": 1})");
  struct Case {
    const char* path;
    int code;
    const char* text;  // stdout when found, else a part of stderr
  };
  const Case cases[] = {
      {"statuses[0].user.screen_name", 0, "\"ann\""},
      {".statuses[1]", 0, "2.5"},
      {"[\"statuses\"][0][\"user\"].id", 0, "7"},
      {"[\"a.b\"][\"x[y]\"][1][\"q\\\"\"]", 0, "null"},
      {"[\"\"]", 0, "5"},
      {"\xc3\xa9", 0, "\"e\""},
      {"[\"\\u00e9\"]", 0, "\"e\""},
      {"n.1", 0, "\"one\""},
      {"b\\s", 0, "1"},
      {"statuses[0].user", 0, R"({"id":7,"screen_name":"ann"})"},
      {"statuses[0].nope.deeper", 1,
       ": no value at statuses[0].nope: statuses[0] has no such member\n"},
      {"statuses[2]", 1,
       ": no value at statuses[2]: statuses has 2 elements\n"},
      {"n[0]", 1, ": no value at n[0]: n is an object, not an array\n"},
      {"n.1.c", 1, ": no value at n.1.c: n.1 is a string, not an object\n"},
      {"[0]", 1, ": no value at [0]: the root is an object, not an array\n"},
      {"a[", 2, "a quoted name at byte 2"},
      {"a..b", 2, "bad PATH 'a..b': empty name"},
      {"a[", 2, "expected an index"},
      {"a[x]", 2, "expected an index"},
      {"[\"a", 2, "unterminated name"},
      {"a]", 2, "needs a quoted name"},
      {"a[99999999999]", 2, "index too large"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.path);
    const Outcome r = vkt({"get", image, c.path});
    EXPECT_EQ(r.code, c.code) << r.err;
    if (c.code == 0) {
      EXPECT_EQ(r.out, std::string(c.text) + "\n");
    } else {
      EXPECT_EQ(r.err.rfind("vkt: ", 0), 0u) << r.err;
      EXPECT_NE(r.err.find(c.text), std::string::npos) << r.err;
    }
  }
  EXPECT_EQ(vkt({"get", image, "."}).out, vkt({"get", image, ""}).out);
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

// --lax packs NULs in strings; unpack and get print the strings whole.
TEST_F(ToolTest, LaxPackKeepsNulsInStrings) {
  const std::string text = R"({"a":"x\u0000y","b":["\u0000",""]})";
  write_file(at("nul.json"), text);
  ASSERT_EQ(vkt({"pack", at("nul.json"), "--lax", "-o", at("nul.vkt")}).code,
            0);
  EXPECT_EQ(vkt({"unpack", at("nul.vkt")}).out, text + "\n");
  EXPECT_EQ(vkt({"get", at("nul.vkt"), "b[0]"}).out, "\"\\u0000\"\n");
}

// JSON Lines in and out: blank lines skipped, one element a line.
TEST_F(ToolTest, JsonLinesRoundTrip) {
  std::string text, expected;  // members in key order, as unpack prints them
  for (int i = 0; i < 3000; ++i) {
    const std::string line = R"({"id":)" + std::to_string(i) +
                             R"(,"name":"user)" + std::to_string(i % 97) +
                             R"(","tags":["a","b"]})";
    text += line + (i % 500 == 0 ? "\n  \r\n" : "\n");
    expected += line + "\n";
  }
  write_file(at("lines.jsonl"), text + "[]");  // the last line has no newline
  expected += "[]\n";
  const Outcome packed =
      vkt({"pack", at("lines.jsonl"), "--lines", "-o", at("lines.vkt")});
  ASSERT_EQ(packed.code, 0) << packed.err;
  const Outcome lines = vkt({"unpack", at("lines.vkt"), "--lines"});
  ASSERT_EQ(lines.code, 0) << lines.err;
  EXPECT_TRUE(lines.out == expected) << lines.out.substr(0, 200);
  EXPECT_EQ(vkt({"get", at("lines.vkt"), "[2999].id"}).out, "2999\n");
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
    const char* option = nullptr;  // more arguments
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
       "truncated image: 50 bytes, but its header names byte"},
      {"unpack", good.substr(0, 30), nullptr, 1,
       "truncated image: only 30 bytes"},
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
      {"pack", "[]", nullptr, 2, "--streams takes on or off, not 'no'",
       "--streams=no"},
      {"pack", "1\n\n[2]\n{\"a\":}\n", nullptr, 1, "line 4: ", "--lines"},
      {"unpack", good, nullptr, 1, "--lines needs an array at the root",
       "--lines"},
      {"unpack", good, nullptr, 2, "--pretty breaks", "--lines --pretty"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.message);
    const std::string in = at(c.path != nullptr ? c.path : "bad.in");
    if (c.path == nullptr) write_file(in, c.input);
    write_file(out, "keep me");
    std::vector<std::string> args{c.command, in};
    if (std::string(c.command) != "verify")
      args.insert(args.end(), {"-o", out});
    if (c.option != nullptr) {
      std::string option = c.option;  // words parted by spaces
      for (size_t space; (space = option.find(' ')) != std::string::npos;) {
        args.push_back(option.substr(0, space));
        option.erase(0, space + 1);
      }
      args.push_back(option);
    } else if (c.code == 2) {
      args.push_back("--bogus");
    }
    const Outcome r = vkt(args);
    EXPECT_EQ(r.code, c.code);
    EXPECT_EQ(r.err.rfind("vkt: ", 0), 0u) << r.err;
    EXPECT_NE(r.err.find(c.message), std::string::npos) << r.err;
    EXPECT_EQ(read_file(out), "keep me");
  }
  const Outcome r = vkt({"pack", at("good.json"), "-o", missingDir});
  EXPECT_EQ(r.code, 1);
  EXPECT_EQ(r.err, "vkt: " + at("nodir/") +
                       ": cannot make a temporary file for " + missingDir +
                       ": No such file or directory\n");
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
  // A link to a file not yet there makes that file, beside the link.
  ::symlink("made", at("dangling").c_str());
  EXPECT_EQ(vkt({"unpack", image, "-o", at("dangling")}).code, 0);
  EXPECT_EQ(read_file(at("made")), "[1]\n");
  struct stat link_stat;
  ASSERT_EQ(::lstat(at("dangling").c_str(), &link_stat), 0);
  EXPECT_TRUE(S_ISLNK(link_stat.st_mode));

  if (::geteuid() == 0) {
    GTEST_SKIP() << "run as root, whom permissions do not refuse: the "
                    "read-only file and directory cases need another user";
  }
  const std::string readOnly = at("ro"), roDir = at("rodir");
  write_file(readOnly, "old");
  ::chmod(readOnly.c_str(), 0444);
  const Outcome refused = vkt({"unpack", image, "-o", readOnly});
  EXPECT_EQ(refused.code, 1);
  EXPECT_NE(refused.err.find("may not write"), std::string::npos);
  EXPECT_EQ(read_file(readOnly), "old");
  EXPECT_EQ(vkt({"unpack", image, "-o", readOnly, "--force"}).code, 0);
  EXPECT_EQ(read_file(readOnly), "[1]\n");
  struct stat forced;
  ::stat(readOnly.c_str(), &forced);
  EXPECT_EQ(forced.st_mode & 0777, 0444u);
  ::mkdir(roDir.c_str(), 0555);
  const Outcome noTemp = vkt({"unpack", image, "-o", roDir + "/x"});
  EXPECT_EQ(noTemp.code, 1);
  EXPECT_EQ(noTemp.err.rfind("vkt: " + roDir + "/: cannot make a temporary", 0),
            0u)
      << noTemp.err;
}

TEST_F(ToolTest, VerifyAndUsage) {
  const std::string image = pack("v", "[1,2,3]");
  EXPECT_EQ(vkt({"verify", image}).out, image + ": ok\n");
  EXPECT_EQ(vkt({"verify", "-q", image}).out, "");
  struct Case {
    std::vector<std::string> args;
    int code;
    bool toStdout;
    const char* message = "";
  };
  const Case cases[] = {
      {{"--help"}, 0, true},
      {{"get", "--help"}, 0, true},
      {{}, 2, false},
      {{"frob"}, 2, false},
      {{"info"}, 2, false, "info needs an input file (- reads standard input)"},
      {{"pack", "-o", "x.vkt"}, 2, false, "pack needs an input file (- reads"},
      {{"get", image}, 2, false, "get needs an image file and a PATH"},
      {{"info", image, image}, 2, false, "info takes only an input file"},
      {{"pack", image}, 2, false},
      {{"pack", image, "-o", "x", "--endian-mark", "odd"},
       2,
       false,
       "--endian-mark takes big or little"},
      {{"pack", image, "-o", "x", "--endian", "big"},
       2,
       false,
       "unknown option --endian"}};
  for (const Case& c : cases) {
    const Outcome r = vkt(c.args);
    SCOPED_TRACE(::testing::PrintToString(c.args));
    EXPECT_EQ(r.code, c.code);
    const std::string& text = c.toStdout ? r.out : r.err;
    EXPECT_NE(text.find("usage"), std::string::npos) << r.out << r.err;
    EXPECT_NE(text.find(c.message), std::string::npos) << text;
  }
}

// 110^3 zeros in three levels of shared arrays: an image of a few hundred
// bytes whose values expand far beyond the verifier's default of 256 a byte.
TEST_F(ToolTest, HeavilySharedImagesReadBack) {
  auto repeat = [](const std::string& item) {
    std::string list = "[" + item;
    for (int i = 1; i < 110; ++i) list += "," + item;
    return list + "]";
  };
  const std::string cube = repeat(repeat(repeat("0")));
  const std::string image = pack("cube", cube);
  EXPECT_EQ(vkt({"unpack", image}).out, cube + "\n");
  const Outcome info = vkt({"info", image, "--sharing"});
  EXPECT_NE(info.out.find("values       1343211"), std::string::npos);
  EXPECT_NE(info.out.find("not measured"), std::string::npos) << info.out;
}

// A 30 KB image that stands for 16 GB of text: printing stops at its bound
// with exit 1 (it used to end in an uncaught bad_alloc), info leaves the
// sharing figure out, and a lifted bound prints a smaller bomb whole.
TEST_F(ToolTest, SharingBombsStopWithAClearError) {
  const vkt_binary bomb = shared_string_bomb(19, 30000);
  write_file(at("bomb.vkt"), std::string(bomb.begin(), bomb.end()));
  struct Case {
    std::vector<std::string> args;
    int code;
    const char* message;
  };
  const Case cases[] = {
      {{"unpack", at("bomb.vkt"), "-o", at("bomb.json")},
       1,
       "times the image's size"},
      {{"get", at("bomb.vkt"), "[0]"}, 1, "--max-expansion N raises"},
      {{"get", at("bomb.vkt"), "[0]", "--max-expansion", "x"},
       2,
       "--max-expansion takes a whole number"},
      {{"info", at("bomb.vkt"), "--sharing"}, 0, ""},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.args[0]);
    const Outcome r = vkt(c.args);
    EXPECT_EQ(r.code, c.code) << r.err;
    EXPECT_NE(r.err.find(c.message), std::string::npos) << r.err;
  }
  EXPECT_NE(::access(at("bomb.json").c_str(), F_OK), 0);
  EXPECT_NE(vkt({"info", at("bomb.vkt"), "--sharing"}).out.find("not measured"),
            std::string::npos);
  const vkt_binary small = shared_string_bomb(10, 30000);
  write_file(at("small.vkt"), std::string(small.begin(), small.end()));
  const Outcome whole =
      vkt({"unpack", at("small.vkt"), "--max-expansion", "0"});
  EXPECT_EQ(whole.code, 0) << whole.err;
  EXPECT_EQ(whole.out.size(), size_t(30002 + 1) * 1024 + 2 * 1023);
}

}  // namespace

namespace {

// An image cut short while unpack reads it: a mapped page past the new end
// would end the tool with SIGBUS; it says what happened and exits 1. The
// output goes to a FIFO, so the test can cut the image once printing runs.
TEST_F(ToolTest, InputCutWhileBeingReadEndsWithAMessage) {
  VKTWriterValue root;
  for (vkt_u32 i = 0; i < 100000; ++i) {
    root[i] = "value " + std::to_string(i) + std::string(40, 'x');
  }
  const vkt_binary image = VKTWriterObject().createImage(root);
  const std::string in = at("cut.vkt"), fifo = at("cut.fifo");
  write_file(in, std::string(image.begin(), image.end()));
  ASSERT_EQ(::mkfifo(fifo.c_str(), 0600), 0);
  const std::string command =
      "(" + shell_quoted(VKT_TOOL_PATH) + " unpack " + shell_quoted(in) +
      " -o " + shell_quoted(fifo) + " 2>" + shell_quoted(at("cut.err")) +
      "; echo $? >" + shell_quoted(at("cut.code")) + ") &";
  ASSERT_EQ(std::system(command.c_str()), 0);
  const int fd = ::open(fifo.c_str(), O_RDONLY);
  ASSERT_GE(fd, 0);
  char buffer[65536];
  ASSERT_GT(::read(fd, buffer, sizeof(buffer)), 0);
  ASSERT_EQ(::truncate(in.c_str(), 100), 0);
  while (::read(fd, buffer, sizeof(buffer)) > 0) {
  }
  ::close(fd);
  for (int i = 0; i < 200 && read_file(at("cut.code")).empty(); ++i) {
    ::usleep(50000);
  }
  EXPECT_EQ(read_file(at("cut.code")), "1\n");
  EXPECT_EQ(read_file(at("cut.err")),
            "vkt: " + in + ": input changed while being read\n");
}

}  // namespace

namespace {

// Each command reads what it needs: get checks only its path and the value
// it prints, so damage elsewhere does not stop it; info shows the layout of
// a damaged image before it names the fault; verify counts the bytes
// behind an image, which the other commands leave alone.
TEST_F(ToolTest, CommandsReadWhatTheyTouch) {
  const vkt_binary clean =
      library_image(R"({"good":{"a":"fine"},"bad":[1,2]})", true, nullptr);
  const VKTObject object(clean);
  vkt_binary damaged = clean;
  damaged[VKTInternal::ptr(object.root()["bad"]) - object.image() + 2] = 0x7F;
  write_file(at("damaged.vkt"), std::string(damaged.begin(), damaged.end()));
  const std::string one(clean.begin(), clean.end());
  write_file(at("twice.vkt"), one + one);
  struct Case {
    std::vector<std::string> args;
    int code;
    std::string out, err;
  };
  const Case cases[] = {
      {{"get", at("damaged.vkt"), "good.a"}, 0, "\"fine\"\n", ""},
      {{"get", at("damaged.vkt"), "bad[0]"},
       1,
       "",
       "damaged image: packed array outside its section"},
      {{"get", at("damaged.vkt"), "."}, 1, "", "damaged image"},
      {{"unpack", at("damaged.vkt")}, 1, "", "damaged image"},
      {{"info", at("damaged.vkt")},
       1,
       "values       damaged: packed array",
       "damaged image: packed array outside its section"},
      {{"verify", at("twice.vkt")},
       1,
       "",
       std::to_string(one.size()) + " bytes after the image's end"},
      {{"info", at("twice.vkt")},
       0,
       "trailing     " + std::to_string(one.size()) + " bytes",
       ""},
      {{"get", at("twice.vkt"), "good.a"}, 0, "\"fine\"\n", ""},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.args[0] + " " + c.args[1]);
    const Outcome r = vkt(c.args);
    EXPECT_EQ(r.code, c.code) << r.err;
    EXPECT_NE(r.out.find(c.out), std::string::npos) << r.out;
    EXPECT_NE(r.err.find(c.err), std::string::npos) << r.err;
  }
}

}  // namespace

namespace {

// An output whose directory refuses new files fails with exit 1 and leaves
// the file there as it was. Root writes anywhere, so root skips this.
TEST_F(ToolTest, OutputIntoAReadOnlyDirectoryFails) {
  if (::geteuid() == 0) GTEST_SKIP() << "root may write into any directory";
  const std::string in = pack("rodir", "[1]");
  ::mkdir(at("rodir").c_str(), 0755);
  write_file(at("rodir/out.json"), "keep me");
  ::chmod(at("rodir").c_str(), 0555);
  const Outcome r = vkt({"unpack", in, "-o", at("rodir/out.json")});
  ::chmod(at("rodir").c_str(), 0755);
  EXPECT_EQ(r.code, 1);
  EXPECT_NE(r.err.find(at("rodir/") + ": cannot make a temporary file"),
            std::string::npos)
      << r.err;
  EXPECT_EQ(read_file(at("rodir/out.json")), "keep me");
}

}  // namespace
