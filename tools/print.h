// A value of a checked image as JSON text, for unpack and get.
#ifndef VKT_TOOLS_PRINT_H_
#define VKT_TOOLS_PRINT_H_

#include <string>

#include "tool.h"
#include "vkt.h"
#include "vkt_json.h"

// --pretty, --lax and --max-expansion as print options.
VKTJsonPrintOptions print_options(const Args& args);

// True when `bytes` of output made from an image of `imageSize` bytes stay
// within the expansion bound of `options`.
bool within_expansion(const VKTJsonPrintOptions& options, vkt_u64 imageSize,
                      vkt_u64 bytes);

// `value` as JSON with a newline at the end. REQUIRES: a value of a verified
// image held whole in memory. Throws ToolError naming `file` when the value
// cannot be printed.
std::string print_value(const std::string& file, const VKTValue& value,
                        const VKTJsonPrintOptions& options);

// The same text written to `out` (see write_output) as it is made, so that
// memory does not grow with the text.
// The value as JSON to `out`; with `lines`, a root array one element a line.
void write_value(const std::string& file, const VKTValue& value,
                 const VKTJsonPrintOptions& options, const std::string& out,
                 bool lines = false);

#endif  // VKT_TOOLS_PRINT_H_
