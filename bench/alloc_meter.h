// Heap use of the code a benchmark runs: the global operator new of a
// benchmark program that links this counts live bytes and their peak.
#ifndef VKT_BENCH_ALLOC_METER_H_
#define VKT_BENCH_ALLOC_METER_H_

#include <cstddef>

// The peak of live heap bytes above what was live at construction.
class AllocMeter {
 public:
  AllocMeter();
  size_t peak() const;

 private:
  size_t mBase;
};

#endif  // VKT_BENCH_ALLOC_METER_H_
