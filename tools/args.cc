// Command-line parsing shared by every command.
#include "tool.h"

void fail(const std::string& file, const std::string& what) {
  throw ToolError{kExitFailure, file + ": " + what};
}

void usage_error(const std::string& what) { throw ToolError{kExitUsage, what}; }

namespace {

const Option* find_long(const Option* options, const std::string& name) {
  for (; options->name != nullptr; ++options) {
    if (name == options->name) return options;
  }
  return nullptr;
}

const Option* find_short(const Option* options, char letter) {
  for (; options->name != nullptr; ++options) {
    if (options->letter != '\0' && options->letter == letter) return options;
  }
  return nullptr;
}

// The option named by `arg` ("--name[=value]" or "-x"); *inlineValue takes
// what follows '=' and *hasInline says whether there was one.
const Option* option_of(const Option* options, const std::string& arg,
                        std::string* inlineValue, bool* hasInline) {
  *hasInline = false;
  if (arg.compare(0, 2, "--") == 0) {
    const size_t eq = arg.find('=');
    if (eq != std::string::npos) {
      *inlineValue = arg.substr(eq + 1);
      *hasInline = true;
    }
    return find_long(
        options,
        arg.substr(2, eq == std::string::npos ? std::string::npos : eq - 2));
  }
  return arg.size() == 2 ? find_short(options, arg[1]) : nullptr;
}

}  // namespace

Args parse_args(int argc, char** argv, int first, const Option* options) {
  Args args;
  bool optionsEnded = false;
  for (int i = first; i < argc; ++i) {
    const std::string arg = argv[i];
    if (optionsEnded || arg == "-" || arg[0] != '-') {
      args.positional.push_back(arg);
      continue;
    }
    if (arg == "--") {
      optionsEnded = true;
      continue;
    }
    std::string value;
    bool hasInline;
    const Option* option = option_of(options, arg, &value, &hasInline);
    if (option == nullptr) usage_error("unknown option " + arg);
    if (!option->takesValue && hasInline) {
      usage_error("option --" + std::string(option->name) + " takes no value");
    }
    if (option->takesValue && !hasInline) {
      if (i + 1 >= argc) usage_error("option " + arg + " needs a value");
      value = argv[++i];
    }
    args.options[option->name] = value;
  }
  return args;
}
