#include "print.h"

#include "vkt_json.h"

std::string print_value(const std::string& file, const VKTValue& value,
                        const Args& args) {
  VKTJsonPrintOptions options;
  options.pretty = args.has("pretty");
  options.strict = !args.has("lax");
  std::string text;
  VKTJsonError error;
  if (!vkt_json_print(value, &text, &error, options)) {
    std::string what = error.message;
    if (!error.path.empty()) what += " at " + error.path;
    if (options.strict) what += " (--lax writes it anyway)";
    fail(file, what);
  }
  text += '\n';
  return text;
}
