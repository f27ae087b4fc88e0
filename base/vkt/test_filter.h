// The filter of the self-check: XORs each byte with a running counter. It
// restores what it scrambled when it sees the same bytes from the same
// count, however the sequence is cut into calls, so it exercises the order
// in which writer and reader filter.
#ifndef VKT_TEST_FILTER_H_
#define VKT_TEST_FILTER_H_

#include "vkt.h"

namespace {

class TestFilter : public VKTFilter {
 public:
  void Filter(vkt_u8* ptr, vkt_size size) override {
    for (vkt_size i = 0; i < size; ++i) ptr[i] ^= count++;
  }

 private:
  vkt_u8 count = 0;  // wraps from 255 to 0
};

}  // namespace

#endif  // VKT_TEST_FILTER_H_
