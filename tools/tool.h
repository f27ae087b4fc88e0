// Shared pieces of the vkt tool: how a command fails, its parsed command
// line, and the commands themselves.
#ifndef VKT_TOOLS_TOOL_H_
#define VKT_TOOLS_TOOL_H_

#include <map>
#include <string>
#include <vector>

// Exit codes: 0 done, 1 a file could not be read, converted or written,
// 2 the command line is wrong.
const int kExitFailure = 1;
const int kExitUsage = 2;

// Thrown by a command; main prints "vkt: <message>" and exits with `code`.
struct ToolError {
  int code;
  std::string message;
};

// A failure about one file: "FILE: what" ("-" for stdin or stdout).
[[noreturn]] void fail(const std::string& file, const std::string& what);
// A wrong command line, exit 2.
[[noreturn]] void usage_error(const std::string& what);

// One option of a command. `letter` is its short form ('\0' for none).
struct Option {
  const char* name;
  char letter;
  bool takesValue;
};

// A command line after its options were taken out.
struct Args {
  std::vector<std::string> positional;
  std::map<std::string, std::string> options;  // long name -> value ("")

  bool has(const char* name) const { return options.count(name) != 0; }
  std::string value(const char* name, const std::string& fallback) const {
    auto it = options.find(name);
    return it == options.end() ? fallback : it->second;
  }
};

// Splits argv[first..argc) into positional arguments and the options listed
// in `options` (ended by an entry with a null name). "--name=value",
// "--name value", "-o value" and "--" are understood; a lone "-" is
// positional. Throws a usage error for an option the command does not know
// or one that misses its value.
Args parse_args(int argc, char** argv, int first, const Option* options);

int cmd_pack(const Args& args);
int cmd_unpack(const Args& args);
int cmd_info(const Args& args);
int cmd_verify(const Args& args);
int cmd_get(const Args& args);

#endif  // VKT_TOOLS_TOOL_H_
