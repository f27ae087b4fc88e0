// Any bytes: decode, verify, and walk everything when accepted. Also opens
// the bytes through a read stream and lets the object verify itself.
#include <cstring>

#include "fuzz_common.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size > kMaxInput) return 0;
  stream_verify_walk(data, size);
  std::unique_ptr<vkt_u8[]> copy(new vkt_u8[size]);
  if (size != 0) std::memcpy(copy.get(), data, size);
  decode_verify_walk(copy.get(), size);
  return 0;
}
