// A large image made in memory (a million seven-field records, about 70 MB):
// a whole-image verify beside one path read through the checked path (the
// tables, then each step, then the value read), with the heap each takes.
// The checked read should cost a thousandth of the whole check or less.
#include <benchmark/benchmark.h>

#include <string>

#include "alloc_meter.h"
#include "vkt.h"

namespace {

const vkt_u32 kRecords = 1000000;

// Records shaped like a dataset's rows: ids, names, a score, flags, tags.
const vkt_binary& large_image() {
  static const vkt_binary image = [] {
    VKTWriterValue root;
    root.toArray();
    for (vkt_u32 i = 0; i < kRecords; ++i) {
      VKTWriterValue& r = root[i];
      r["id"] = vkt_s64(i) * 7919;
      r["name"] = "user" + std::to_string(i);
      r["score"] = double(i % 1000) / 7.0;
      r["active"] = i % 3 == 0;
      r["group"] = vkt_s32(i % 50);
      r["email"] = "user" + std::to_string(i) + "@example.org";
      r["tags"][0] = "t" + std::to_string(i % 10);
    }
    return VKTWriterObject().createImage(root);
  }();
  return image;
}

void BM_LargeVerify(benchmark::State& state) {
  const vkt_binary& image = large_image();
  size_t peak = 0;
  for (auto _ : state) {
    AllocMeter meter;
    benchmark::DoNotOptimize(VKTObject::verify(image));
    peak = meter.peak();
  }
  state.counters["heap_per_byte"] = double(peak) / double(image.size());
  state.counters["image_MB"] = double(image.size()) / 1e6;
}

// verifyTables, open, then [i].name by checked steps, and the value itself.
void BM_LargeCheckedLookup(benchmark::State& state) {
  const vkt_binary& image = large_image();
  const vkt_u8* p = image.data();
  const vkt_size size = vkt_size(image.size());
  vkt_u32 i = 0;
  size_t peak = 0;
  for (auto _ : state) {
    AllocMeter meter;
    bool ok = VKTObject::verifyTables(p, size);
    const VKTObject object(p, size, VKT_ALLOC_REFER);
    const VKTValue root = object.root();
    ok = ok && root.verifyStep();
    const VKTValue record = root[i];
    ok = ok && record.verifyStep();
    const VKTValue name = record["name"];
    ok = ok && name.verify();
    benchmark::DoNotOptimize(ok ? name.asString() : nullptr);
    i = (i + 7919) % kRecords;
    peak = meter.peak();
  }
  state.counters["heap_bytes"] = double(peak);
}

BENCHMARK(BM_LargeVerify)->Unit(benchmark::kMillisecond)->Iterations(5);
BENCHMARK(BM_LargeCheckedLookup)->Unit(benchmark::kMicrosecond);

}  // namespace

BENCHMARK_MAIN();
