// Writer benchmarks: the double-array key table builder as the key count
// grows, a whole image of a wide object, and a large stream payload copied
// from a read stream into a sink that stores nothing.
#include <benchmark/benchmark.h>

#include <random>
#include <set>
#include <string>

#include "vkt.h"

// The benchmarks' window on the key table builder, which is private.
class VKTTestAccess {
 public:
  static vkt_binary keyTable(const std::set<std::string>& keys) {
    std::vector<std::string_view> views(keys.begin(), keys.end());
    vkt_binary image;
    VKTWriterObject::createDAImage(views, &image);
    return image;
  }
};

namespace {

// Distinct random words of 3 to 20 lowercase letters, the same every run.
std::set<std::string> random_words(size_t count) {
  std::mt19937 rng(12345);
  std::uniform_int_distribution<int> length(3, 20);
  std::uniform_int_distribution<int> letter('a', 'z');
  std::set<std::string> words;
  while (words.size() < count) {
    std::string w(size_t(length(rng)), ' ');
    for (char& c : w) c = char(letter(rng));
    words.insert(w);
  }
  return words;
}

void BM_KeyTable(benchmark::State& state) {
  const std::set<std::string> words = random_words(size_t(state.range(0)));
  size_t bytes = 0;
  for (auto _ : state) {
    vkt_binary image = VKTTestAccess::keyTable(words);
    bytes = image.size();
    benchmark::DoNotOptimize(image.data());
  }
  state.counters["keys"] = double(words.size());
  state.counters["section_bytes"] = double(bytes);
}
BENCHMARK(BM_KeyTable)
    ->Arg(1000)
    ->Arg(10000)
    ->Arg(100000)
    ->Unit(benchmark::kMillisecond);

void BM_WriteWideObject(benchmark::State& state) {
  const std::set<std::string> words = random_words(size_t(state.range(0)));
  VKTWriterValue root;
  vkt_s32 i = 0;
  for (const std::string& w : words) root[w] = i++;
  VKTWriterObject writer;
  size_t bytes = 0;
  for (auto _ : state) {
    vkt_binary image = writer.createImage(root);
    bytes = image.size();
    benchmark::DoNotOptimize(image.data());
  }
  state.counters["image_bytes"] = double(bytes);
}
BENCHMARK(BM_WriteWideObject)->Arg(100000)->Unit(benchmark::kMillisecond);

// Fabricates `size` bytes on demand, so that no payload exists in memory.
class GeneratorStream : public VKTReadStream {
 public:
  explicit GeneratorStream(vkt_size size) : size(size) {}
  vkt_size Size() const override { return size; }
  vkt_size Read(vkt_u8* image, vkt_size want) override {
    const vkt_size len = pos < size ? std::min(size - pos, want) : 0;
    for (vkt_size i = 0; i < len; ++i) image[i] = vkt_u8(pos + i);
    pos += len;
    return len;
  }
  vkt_offset Seek(vkt_offset offset, vkt_origin origin) override {
    if (origin == VKT_ORIGIN_SET) pos = offset;
    return pos;
  }

 private:
  vkt_size size;
  vkt_offset pos = 0;
};

// Counts the bytes of an image and keeps none of them.
class CountingSink : public VKTWriteStream {
 public:
  using VKTWriteStream::Write;
  vkt_u32 Offset() const override { return count; }
  void Write(const vkt_u8*, vkt_u32 size) override { count += size; }
  vkt_u32 count = 0;
};

void BM_WriteStreamFromReader(benchmark::State& state) {
  const vkt_size size = vkt_size(state.range(0)) << 20;
  VKTWriterValue root;
  root["payload"].setStream(new GeneratorStream(size), 16);
  VKTWriterObject writer;
  for (auto _ : state) {
    CountingSink sink;
    writer.writeImage(root, sink);
    benchmark::DoNotOptimize(sink.count);
  }
  state.SetBytesProcessed(int64_t(state.iterations()) * size);
}
BENCHMARK(BM_WriteStreamFromReader)->Arg(1024)->Unit(benchmark::kMillisecond);

}  // namespace

BENCHMARK_MAIN();
