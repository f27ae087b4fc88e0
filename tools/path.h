// The PATH of `vkt get`: which value of an image to print.
//
//   statuses[3].user.screen_name     names and indexes
//   .statuses[3]                     a leading dot is allowed
//   a["x.y"][0]                      a quoted name, JSON string escapes inside
//   "" or "."                        the root
//
// A bare name runs up to the next '.' or '['; a name that is empty or holds
// any of . [ ] " must be quoted. An index is decimal. The JSON converter's
// messages name values in the same syntax, so they can be pasted here.
#ifndef VKT_TOOLS_PATH_H_
#define VKT_TOOLS_PATH_H_

#include <string>
#include <vector>

#include "vkt.h"

struct PathStep {
  bool isIndex = false;
  std::string name;   // a member name, UTF-8
  vkt_u32 index = 0;  // an array index
  size_t end = 0;     // where the step ends in the PATH text
};

// Parses `path`. On a syntax error answers false with *error saying what
// and where.
bool parse_path(const std::string& path, std::vector<PathStep>* steps,
                std::string* error);

// Follows `steps` from `root` by lookups in place. Answers how many steps
// were found: steps.size() when *value is the value named. With `report`
// (an image checked by VKTObject::verifyTables only), each value passes
// VKTValue::verifyStep before a step is taken from it; a refusal stops the
// walk there and fills *report.
size_t resolve_path(VKTValue root, const std::vector<PathStep>& steps,
                    VKTValue* value, VKTVerifyReport* report = nullptr);

// Why `step` names nothing in `parent` (reached by `parentPath`, empty for
// the root): "a is a string, not an object", "n has 3 elements".
std::string why_no_value(const VKTValue& parent, const PathStep& step,
                         const std::string& parentPath);

#endif  // VKT_TOOLS_PATH_H_
