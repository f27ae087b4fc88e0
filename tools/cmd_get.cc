// vkt get IN.vkt PATH: one value as JSON, reached by lookups in place. Only
// what the lookups touch is checked, then the value printed: the cost
// follows the path and the value, not the image.
#include "files.h"
#include "image.h"
#include "path.h"
#include "print.h"
#include "tool.h"

int cmd_get(const Args& args) {
  const std::string& path = args.positional[1];
  std::vector<PathStep> steps;
  std::string error;
  if (!parse_path(path, &steps, &error)) {
    usage_error("bad PATH '" + path + "': " + error);
  }
  const VKTJsonPrintOptions options = print_options(args);
  const CheckedImage image(args.positional[0], args.has("copy"),
                           CheckedImage::kTables);
  VKTValue value;
  VKTVerifyReport report;
  const size_t found = resolve_path(image.root(), steps, &value, &report);
  if (report.fault != VKT_FAULT_NONE) image.refuse(report);
  if (found < steps.size()) {
    const std::string parent =
        found == 0 ? "" : path.substr(0, steps[found - 1].end);
    fail(image.name(), "no value at " + path.substr(0, steps[found].end) +
                           ": " + why_no_value(value, steps[found], parent));
  }
  image.checkValue(value);
  set_activity(image.name(), "printing");
  const std::string text = print_value(image.name(), value, options);
  write_output("-", text.data(), text.size());
  return 0;
}
