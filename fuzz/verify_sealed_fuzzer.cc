// As verify_fuzzer, but the header checksum is sealed after mutation, so that
// mutations get past decode and reach the sections.
#include <cstring>

#include "fuzz_common.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size > kMaxInput) return 0;
  std::unique_ptr<vkt_u8[]> copy(new vkt_u8[size]);
  if (size != 0) std::memcpy(copy.get(), data, size);
  seal_header(copy.get(), size);
  stream_verify_walk(copy.get(), size);
  decode_verify_walk(copy.get(), size);
  return 0;
}
