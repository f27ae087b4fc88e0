// The deep verifier on the three sample images, beside a values-only walk of
// the same image (every value reached from the root, shared ones each time,
// scalars parsed, no key strings) and FlexBuffers' own verifier on the same
// document.
#include <benchmark/benchmark.h>

#include "alloc_meter.h"
#include "corpus.h"
#include "vkt.h"
#include "vkt/format.h"
#include "vkt/internal.h"  // object members reached by their offsets
#include "vkt/packed_array.h"

namespace {

double walk_values(const VKTValue& v) {
  switch (v.type()) {
    case VKT_TYPE_ARRAY: {
      double sum = 0;
      const vkt_u32 n = vkt_u32(v.size());
      for (vkt_u32 i = 0; i < n; ++i) sum += walk_values(v[i]);
      return sum;
    }
    case VKT_TYPE_OBJECT: {
      const vkt_u8* p = VKTInternal::ptr(v);
      unsigned_array keys, offsets;
      setup_unsigned_array(&keys, p + 1);
      setup_unsigned_array(&offsets, p + 1 + keys.size);
      const vkt_u8* area = p + 1 + keys.size + offsets.size;
      double sum = 0;
      for (vkt_u32 i = 0; i < offsets.valueNum; ++i) {
        sum += walk_values(VKTInternal::view(
            v.object(), area + get_unsigned_array(&offsets, i)));
      }
      return sum;
    }
    case VKT_TYPE_STRING:
      return double(*v.asString());
    case VKT_TYPE_STREAM:
      return v.streamSize();
    default:
      return v.asDouble();
  }
}

void BM_Verify(benchmark::State& state, const char* name) {
  const vkt_binary image = corpus_image(name);
  size_t peak = 0;
  for (auto _ : state) {
    AllocMeter meter;
    benchmark::DoNotOptimize(
        VKTObject::verify(image.data(), vkt_size(image.size())));
    peak = meter.peak();
  }
  state.SetBytesProcessed(int64_t(state.iterations()) * int64_t(image.size()));
  state.counters["heap_per_byte"] = double(peak) / double(image.size());
}

void BM_WalkValues(benchmark::State& state, const char* name) {
  const vkt_binary image = corpus_image(name);
  const VKTObject object(image.data(), vkt_u32(image.size()), VKT_ALLOC_REFER);
  for (auto _ : state) benchmark::DoNotOptimize(walk_values(object.root()));
  state.SetBytesProcessed(int64_t(state.iterations()) * int64_t(image.size()));
}

#if VKT_BENCH_HAVE_FLEXBUFFERS
void BM_FlexVerify(benchmark::State& state, const char* name) {
  const std::vector<uint8_t> buffer = corpus_flexbuffer(name, false);
  std::vector<uint8_t> reuse;
  for (auto _ : state) {
    // The reuse tracker keeps shared values from being verified twice.
    reuse.assign(buffer.size(), 0);
    benchmark::DoNotOptimize(
        flexbuffers::VerifyBuffer(buffer.data(), buffer.size(), &reuse));
  }
  state.SetBytesProcessed(int64_t(state.iterations()) * int64_t(buffer.size()));
}
#endif

void register_all() {
  for (const char* name : kCorpusNames) {
    benchmark::RegisterBenchmark((std::string("Verify/") + name).c_str(),
                                 BM_Verify, name)
        ->Unit(benchmark::kMicrosecond);
    benchmark::RegisterBenchmark((std::string("WalkValues/") + name).c_str(),
                                 BM_WalkValues, name)
        ->Unit(benchmark::kMicrosecond);
#if VKT_BENCH_HAVE_FLEXBUFFERS
    benchmark::RegisterBenchmark((std::string("FlexVerify/") + name).c_str(),
                                 BM_FlexVerify, name)
        ->Unit(benchmark::kMicrosecond);
#endif
  }
}

}  // namespace

int main(int argc, char** argv) {
  register_all();
  benchmark::Initialize(&argc, argv);
  benchmark::RunSpecifiedBenchmarks();
  benchmark::Shutdown();
  return 0;
}
