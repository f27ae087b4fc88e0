#include "print.h"

#include <cerrno>
#include <cstdlib>  // strtoull

#include "files.h"

VKTJsonPrintOptions print_options(const Args& args) {
  VKTJsonPrintOptions options;
  options.pretty = args.has("pretty");
  options.strict = !args.has("lax");
  if (args.has("max-expansion")) {
    const std::string text = args.value("max-expansion", "");
    char* end = nullptr;
    errno = 0;
    const unsigned long long ratio = std::strtoull(text.c_str(), &end, 10);
    if (text.empty() || text[0] == '-' || *end != '\0' || errno != 0) {
      usage_error(
          "--max-expansion takes a whole number (0 lifts the bound), "
          "not '" +
          text + "'");
    }
    options.maxExpansion = ratio;
  }
  return options;
}

bool within_expansion(const VKTJsonPrintOptions& options, vkt_u64 imageSize,
                      vkt_u64 bytes) {
  if (options.maxExpansion == 0 || bytes <= options.expansionAllowance) {
    return true;
  }
  return imageSize != 0 && bytes / imageSize < options.maxExpansion;
}

namespace {

[[noreturn]] void fail_print(const std::string& file,
                             const VKTJsonPrintOptions& options,
                             const VKTJsonError& error) {
  std::string what = error.message;
  if (!error.path.empty()) what += " at " + error.path;
  if (error.tooLarge) {
    what += " (--max-expansion N raises the bound, 0 lifts it)";
  } else if (options.strict) {
    what += " (--lax writes it anyway)";
  }
  fail(file, what);
}

}  // namespace

std::string print_value(const std::string& file, const VKTValue& value,
                        const VKTJsonPrintOptions& options) {
  std::string text;
  VKTJsonError error;
  if (!vkt_json_print(value, &text, &error, options)) {
    fail_print(file, options, error);
  }
  text += '\n';
  return text;
}

void write_value(const std::string& file, const VKTValue& value,
                 const VKTJsonPrintOptions& options, const std::string& out,
                 bool lines) {
  if (lines && value.type() != VKT_TYPE_ARRAY) {
    fail(file, "--lines needs an array at the root");
  }
  write_output(out, [&](const OutputPiece& put) {
    PieceSink sink(put);
    VKTJsonError error;
    if (!lines) {
      if (!vkt_json_print(value, &sink, &error, options)) {
        fail_print(file, options, error);
      }
      put("\n", 1);
      return;
    }
    // One element a line. Each print bounds its own text; the bound on the
    // whole is checked between elements.
    vkt_u32 index = 0;
    for (VKTValue element : value.elements()) {
      if (!within_expansion(options, value.object()->size(), sink.Offset64())) {
        error.tooLarge = true;
        error.message = "text passes " + std::to_string(options.maxExpansion) +
                        " times the image's size (its values are shared many "
                        "times over)";
        fail_print(file, options, error);
      }
      if (!vkt_json_print(element, &sink, &error, options)) {
        const std::string inner = error.path;
        error.path = "[" + std::to_string(index) + "]" +
                     (inner.empty() || inner[0] == '[' ? inner : "." + inner);
        fail_print(file, options, error);
      }
      put("\n", 1);
      ++index;
    }
  });
}
