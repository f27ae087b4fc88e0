// A value of a checked image as JSON text, for unpack and get.
#ifndef VKT_TOOLS_PRINT_H_
#define VKT_TOOLS_PRINT_H_

#include <string>

#include "tool.h"
#include "vkt.h"

// `value` as JSON with a newline at the end, pretty with --pretty, lax with
// --lax. REQUIRES: a value of a verified image held whole in memory. Throws
// ToolError naming `file` when the value cannot be printed.
std::string print_value(const std::string& file, const VKTValue& value,
                        const Args& args);

#endif  // VKT_TOOLS_PRINT_H_
