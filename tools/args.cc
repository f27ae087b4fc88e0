// Command-line parsing shared by every command.
#include <cstring>  // strcmp, strchr

#include "tool.h"

void fail(const std::string& file, const std::string& what) {
  throw ToolError{kExitFailure, file + ": " + what};
}

void usage_error(const std::string& what) { throw ToolError{kExitUsage, what}; }

namespace {

const OptionSpec* find_long(const OptionSpec* specs, const std::string& name) {
  for (; specs->name != nullptr; ++specs) {
    if (name == specs->name) return specs;
  }
  return nullptr;
}

const OptionSpec* find_short(const OptionSpec* specs, char letter) {
  for (; specs->name != nullptr; ++specs) {
    if (specs->letter != '\0' && specs->letter == letter) return specs;
  }
  return nullptr;
}

// The spec named by `arg` ("--name[=value]" or "-x"); *inlineValue takes
// what follows '=' and *hasInline says whether there was one.
const OptionSpec* option_of(const OptionSpec* specs, const std::string& arg,
                            std::string* inlineValue, bool* hasInline) {
  *hasInline = false;
  if (arg.compare(0, 2, "--") == 0) {
    const size_t eq = arg.find('=');
    if (eq != std::string::npos) {
      *inlineValue = arg.substr(eq + 1);
      *hasInline = true;
    }
    return find_long(
        specs,
        arg.substr(2, eq == std::string::npos ? std::string::npos : eq - 2));
  }
  return arg.size() == 2 ? find_short(specs, arg[1]) : nullptr;
}

}  // namespace

Args parse_args(int argc, char** argv, int first, const OptionSpec* specs) {
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
    const OptionSpec* spec = option_of(specs, arg, &value, &hasInline);
    if (spec == nullptr) usage_error("unknown option " + arg);
    if (!spec->takesValue && hasInline) {
      usage_error("option --" + std::string(spec->name) + " takes no value");
    }
    if (spec->takesValue && !hasInline) {
      if (i + 1 >= argc) usage_error("option " + arg + " needs a value");
      value = argv[++i];
    }
    args.options[spec->name] = value;
  }
  return args;
}
