// vkt: JSON to vkt images and back, and a look inside an image.
//
// Exit codes: 0 done, 1 a file could not be read, converted or written,
// 2 a wrong command line.
#include <cstdio>
#include <cstring>    // strcmp
#include <new>        // bad_alloc
#include <stdexcept>  // length_error
#include <string>

#include "files.h"
#include "tool.h"

namespace {

const Option sPackOptions[] = {
    {"output", 'o', true},       {"no-share", '\0', false},
    {"endian-mark", '\0', true}, {"lax", '\0', false},
    {"streams", '\0', true},     {"lines", '\0', false},
    {"force", '\0', false},      {nullptr, '\0', false}};
const Option sPrintOptions[] = {
    {"output", 'o', true},  {"pretty", '\0', false},
    {"lax", '\0', false},   {"max-expansion", '\0', true},
    {"copy", '\0', false},  {"lines", '\0', false},
    {"force", '\0', false}, {nullptr, '\0', false}};
const Option sGetOptions[] = {{"pretty", '\0', false},
                              {"lax", '\0', false},
                              {"max-expansion", '\0', true},
                              {"copy", '\0', false},
                              {nullptr, '\0', false}};
const Option sInfoOptions[] = {{"json", '\0', false},
                               {"sharing", '\0', false},
                               {"copy", '\0', false},
                               {nullptr, '\0', false}};
const Option sVerifyOptions[] = {
    {"quiet", 'q', false}, {"copy", '\0', false}, {nullptr, '\0', false}};

struct Command {
  const char* name;
  int (*run)(const Args&);
  const Option* options;
  size_t operands;  // positional arguments, exactly
  const char* synopsis;
  const char* help;
};

const Command sCommands[] = {
    {"pack", cmd_pack, sPackOptions, 1,
     "pack IN.json -o OUT.vkt [--no-share] [--endian-mark big|little] [--lax]"
     " [--streams on|off] [--lines] [--force]",
     "Turns JSON text into an image, byte for byte what the library's writer\n"
     "makes of the same tree.\n"
     "  -o, --output FILE  the image; - writes to standard output (not a\n"
     "                     terminal). A new file replaces FILE at once,\n"
     "                     with its mode; a symlink is written through; a\n"
     "                     hard link is not kept\n"
     "  --force            replace FILE even where you may not write it\n"
     "  --no-share         do not share equal elements of a container\n"
     "  --endian-mark ORDER\n"
     "                     set the header's byte-order mark to big or\n"
     "                     little (a version-4 image); only a mark: the\n"
     "                     image's numbers are little-endian either way\n"
     "  --lax              accept duplicate names (the last wins), integers\n"
     "                     beyond 64 bits (as doubles) and NUL in strings\n"
     "  --streams off      read {\"$stream\": ...} objects as objects; with\n"
     "                     on (the default) an object whose members are\n"
     "                     exactly $stream and optionally align and bound\n"
     "                     becomes a stream\n"
     "  --lines            read JSON Lines: one document a line (blank lines\n"
     "                     skipped) into a root array\n"},
    {"unpack", cmd_unpack, sPrintOptions, 1,
     "unpack IN.vkt [-o OUT.json] [--pretty] [--lax] [--max-expansion N]"
     " [--lines] [--force]",
     "Prints the whole image as JSON. Streams and bstreams become\n"
     "{\"$stream\": \"<base64>\", \"align\": N, \"bound\": true}, which pack\n"
     "reads back.\n"
     "  -o, --output FILE  write there (default: standard output), as pack\n"
     "                     does\n"
     "  --force            replace FILE even where you may not write it\n"
     "  --pretty           indent two spaces, one member or element a line\n"
     "  --lax              print non-finite floats as null and replace bytes\n"
     "                     that are not UTF-8, instead of failing\n"
     "  --max-expansion N  fail once the text passes N times the image's\n"
     "                     size (after its first 8 MiB): sharing can make a\n"
     "                     small image stand for a huge text. Default 100;\n"
     "                     0 lifts the bound\n"
     "  --lines            print a root array as JSON Lines, one element a\n"
     "                     line (not with --pretty)\n"
     "  --copy             read the image into memory instead of mapping it,\n"
     "                     so that a program rewriting the file meanwhile\n"
     "                     cannot change what is read after the checks\n"},
    {"info", cmd_info, sInfoOptions, 1, "info IN.vkt [--json] [--sharing]",
     "Shows version, flags, byte order, sections, table sizes, depth, the\n"
     "number of values and any bytes behind the image's end.\n"
     "  --json     one JSON object instead of text\n"
     "  --sharing  also measure what sibling sharing saves, by writing the\n"
     "             values again with and without it (about as long as a\n"
     "             pack)\n"
     "  --copy     read the image into memory instead of mapping it\n"},
    {"verify", cmd_verify, sVerifyOptions, 1, "verify IN.vkt [-q]",
     "Checks that every read of the image stays inside it. Prints\n"
     "\"IN.vkt: ok\" and exits 0 when it does; else says why and where, and\n"
     "exits 1.\n"
     "  -q, --quiet  print nothing on success\n"
     "  --copy       read the image into memory instead of mapping it\n"},
    {"get", cmd_get, sGetOptions, 2, "get IN.vkt PATH [--pretty] [--lax]",
     "Prints one value as JSON, found by lookups in place.\n"
     "PATH: names and indexes, e.g. statuses[3].user.screen_name; a name\n"
     "holding . [ ] or \" is quoted with JSON escapes: a[\"x.y\"][0].\n"
     "An empty PATH or . is the whole image.\n"
     "  --pretty, --lax, --max-expansion, --copy  as for unpack\n"},
};

const char* const sUsageTail =
    "Use - for standard input or output. vkt COMMAND --help tells more.\n"
    "Exit status: 0 done, 1 failed (message on stderr), 2 wrong usage.\n";

void print_usage(FILE* out) {
  std::fprintf(out, "usage:\n");
  for (const Command& c : sCommands)
    std::fprintf(out, "  vkt %s\n", c.synopsis);
  std::fprintf(out, "%s", sUsageTail);
}

const Command* find_command(const char* name) {
  for (const Command& c : sCommands) {
    if (std::strcmp(c.name, name) == 0) return &c;
  }
  return nullptr;
}

bool asks_for_help(int argc, char** argv, int first) {
  for (int i = first; i < argc; ++i) {
    if (std::strcmp(argv[i], "--") == 0) return false;
    if (std::strcmp(argv[i], "--help") == 0 || std::strcmp(argv[i], "-h") == 0)
      return true;
  }
  return false;
}

int run(const Command& command, int argc, char** argv) {
  if (asks_for_help(argc, argv, 2)) {
    std::printf("usage: vkt %s\n%s", command.synopsis, command.help);
    return 0;
  }
  try {
    const Args args = parse_args(argc, argv, 2, command.options);
    const size_t given = args.positional.size();
    if (given != command.operands) {
      const std::string what =
          command.operands == 1 ? "an input file" : "an image file and a PATH";
      usage_error(std::string(command.name) +
                  (given < command.operands ? " needs " : " takes only ") +
                  what + " (- reads standard input)");
    }
    set_output_force(args.has("force"));
    return command.run(args);
  } catch (ToolError& e) {
    if (e.code == kExitUsage)
      e.message += "\nusage: vkt " + std::string(command.synopsis);
    throw;
  }
}

int dispatch(int argc, char** argv) {
  if (argc < 2) {
    print_usage(stderr);
    return kExitUsage;
  }
  const char* name = argv[1];
  if (std::strcmp(name, "--help") == 0 || std::strcmp(name, "-h") == 0 ||
      std::strcmp(name, "help") == 0) {
    print_usage(stdout);
    return 0;
  }
  if (std::strcmp(name, "--version") == 0) {
    std::printf("vkt %s\n", VKT_VERSION);
    return 0;
  }
  const Command* command = find_command(name);
  if (command == nullptr) {
    usage_error(std::string("unknown command '") + name +
                "': the commands are pack, unpack, info, verify and get "
                "(vkt --help shows their usage)");
  }
  return run(*command, argc, argv);
}

}  // namespace

int main(int argc, char** argv) {
  int code;
  try {
    code = dispatch(argc, argv);
  } catch (const ToolError& e) {
    std::fflush(stdout);
    std::fprintf(stderr, "vkt: %s\n", e.message.c_str());
    return e.code;
  } catch (const std::bad_alloc&) {
    std::fflush(stdout);
    std::fprintf(stderr, "vkt: %s\n", out_of_memory_message().c_str());
    return kExitFailure;
  } catch (const std::length_error&) {  // a size past what a vector holds
    std::fflush(stdout);
    std::fprintf(stderr, "vkt: %s\n", out_of_memory_message().c_str());
    return kExitFailure;
  }
  if (std::fflush(stdout) != 0 || std::ferror(stdout)) {
    std::fprintf(stderr, "vkt: -: cannot write to standard output\n");
    return kExitFailure;
  }
  return code;
}
