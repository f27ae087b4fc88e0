// As verify_fuzzer, but the header checksum is sealed after mutation, so that
// mutations get past decode and reach the sections.
#include <cstring>

#include "fuzz_common.h"
#include "vkt/format.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size > kMaxInput) return 0;
  std::unique_ptr<vkt_u8[]> copy(new vkt_u8[size]);
  if (size != 0) std::memcpy(copy.get(), data, size);
  if (size >= HEADER_SIZE) {
    const vkt_u32 version =
        read_16bit_unsigned(copy.get() + HEADER_OFST_VERSION);
    copy[HEADER_OFST_FLAGS] &= vkt_u8(~FLAGS_FILTER_BITS);
    write_32bit_unsigned(copy.get() + HEADER_OFST_CHECKSUM,
                         header_checksum(copy.get(), version));
  }
  stream_verify_walk(copy.get(), size);
  decode_verify_walk(copy.get(), size);
  return 0;
}
