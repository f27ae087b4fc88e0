// What the tool does with an image it is given: a sealed mutation that
// verify accepts (with the default limits, which the tool uses) is printed as
// JSON with the printer's bound (a smaller allowance), strictly and laxly, with
// key names rebuilt per member and then decoded once. No print may read outside
// the image, and none may produce more text than the bound allows. Then the
// full walk of the image sealed harness runs, lookups and the checked path
// included.
#include <cstring>
#include <string>

#include "fuzz_common.h"
#include "vkt_json.h"

namespace {

// The default ratio with a smaller allowance than the default 8 MiB, so
// that sharing bombs among the inputs stay quick to print.
const vkt_u64 kAllowance = vkt_u64(64) << 10;

void print_root(const VKTObject& object, bool strict) {
  VKTJsonPrintOptions options;
  options.strict = strict;
  options.expansionAllowance = kAllowance;
  std::string text;
  VKTJsonError error;
  vkt_json_print(object.root(), &text, &error, options);
  // The bound, plus one value's overshoot: at most a string of the whole
  // image escaped six bytes a byte, or its stream in base64.
  const vkt_u64 ratio = options.maxExpansion * object.size();
  const vkt_u64 bound = (ratio > kAllowance ? ratio : kAllowance) +
                        6 * vkt_u64(object.size()) + 64;
  if (text.size() > bound) std::abort();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size > kMaxInput) return 0;
  std::unique_ptr<vkt_u8[]> copy(new vkt_u8[size]);
  if (size != 0) std::memcpy(copy.get(), data, size);
  seal_header(copy.get(), size);
  if (!VKTObject::decode(copy.get(), vkt_size(size)) ||
      !VKTObject::verify(copy.get(), vkt_size(size))) {
    return 0;
  }
  {
    VKTObject object(copy.get(), vkt_u32(size), VKT_ALLOC_REFER);
    print_root(object, true);
    print_root(object, false);
    object.decodeKeyNames();
    print_root(object, true);
  }
  // And every lookup of the full walk, and the checked path beside it.
  decode_verify_walk(copy.get(), size);
  return 0;
}
