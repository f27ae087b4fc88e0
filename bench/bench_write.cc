// Writer benchmarks.
//
// - Encode/<format>/<sample>: the three sample documents, parsed once, then
//   encoded from the parsed value: vkt (tree build + createImage, and each
//   step alone) side by side with FlexBuffers (default and share-all) and
//   MessagePack. Each reports the encoded size and the heap peak of one
//   encode (live bytes above the start, tree included).
// - Records/n: n synthetic records of 7 fields (id, name, score, active, two
//   tags, count) built and written; time per record, MB/s of image, heap peak
//   and its ratio to the image size; and the build and the write apart.
// - The double-array key table builder as the key count grows, a whole image
//   of a wide object, and a large stream payload copied from a read stream
//   into a sink that stores nothing.
#include <benchmark/benchmark.h>
#include <malloc.h>  // malloc_usable_size

#include <cstdlib>
#include <functional>
#include <new>
#include <random>
#include <set>
#include <string>
#include <string_view>
#include <thread>

#include "corpus.h"
#include "vkt.h"
#include "vkt/internal.h"  // the key table builder
#include "vkt/streams.h"   // VKTDummyWriteStream

// ---------------------------------------------------------------------------
// Heap accounting: every operator new of this program carries its size in a
// 16-byte prefix, so live bytes and their peak can be followed. A block
// counts what the system allocator (glibc) spends on it: the bytes asked
// plus its 8-byte header, rounded up to 16, and at least 32; so a tree of
// many small blocks shows what it really costs, and one large buffer what
// it asked.
// ---------------------------------------------------------------------------

namespace {

// One thread allocates at a time (heap_peak's work runs while the main
// thread waits for it), so plain counters serve.
size_t gLive = 0;
size_t gPeak = 0;

size_t footprint(size_t size) {
  const size_t chunk = (size + 8 + 15) & ~size_t(15);
  return chunk < 32 ? 32 : chunk;
}

void* counted_alloc(size_t size) {
  void* p = std::malloc(size + 16);
  if (p == nullptr) throw std::bad_alloc();
  size = footprint(size);
  *static_cast<size_t*>(p) = size;
  gLive += size;
  if (gLive > gPeak) gPeak = gLive;
  return static_cast<char*>(p) + 16;
}

void counted_free(void* p) {
  if (p == nullptr) return;
  void* block = static_cast<char*>(p) - 16;
  gLive -= *static_cast<size_t*>(block);
  std::free(block);
}

// Over-aligned blocks (the writer's slabs) come from aligned_alloc and
// count what it made room for.
void* counted_aligned_alloc(size_t size, std::align_val_t alignment) {
  const size_t a = size_t(alignment);
  void* p = std::aligned_alloc(a, (size + a - 1) / a * a);
  if (p == nullptr) throw std::bad_alloc();
  gLive += malloc_usable_size(p);
  if (gLive > gPeak) gPeak = gLive;
  return p;
}

void counted_aligned_free(void* p, std::align_val_t) {
  if (p == nullptr) return;
  gLive -= malloc_usable_size(p);
  std::free(p);
}

// Heap bytes live at the peak of `work`, above what was live before it.
// The work runs on a thread of its own, which starts with the writer's
// per-thread block lists empty, so that every block it uses is counted.
size_t heap_peak(const std::function<void()>& work) {
  std::thread thread;
  const size_t before = gLive;
  gPeak = before;
  thread = std::thread(work);
  thread.join();
  return gPeak - before;
}

}  // namespace

void* operator new(size_t size) { return counted_alloc(size); }
void* operator new[](size_t size) { return counted_alloc(size); }
void operator delete(void* p) noexcept { counted_free(p); }
void operator delete[](void* p) noexcept { counted_free(p); }
void operator delete(void* p, size_t) noexcept { counted_free(p); }
void operator delete[](void* p, size_t) noexcept { counted_free(p); }
void* operator new(size_t size, std::align_val_t a) {
  return counted_aligned_alloc(size, a);
}
void operator delete(void* p, std::align_val_t a) noexcept {
  counted_aligned_free(p, a);
}
void operator delete(void* p, size_t, std::align_val_t a) noexcept {
  counted_aligned_free(p, a);
}

// The key table builder alone, which is private to the writer.
static vkt_binary key_table(const std::set<std::string>& keys) {
  std::vector<std::string_view> views(keys.begin(), keys.end());
  vkt_binary image;
  VKTInternal::keyTable(views, &image);
  return image;
}

namespace {

// ---------------------------------------------------------------------------
// Encode of the sample documents.
// ---------------------------------------------------------------------------

// Runs `encode` (which answers the encoded size) in the timed loop and
// reports the size and the heap peak of one extra, untimed run.
void run_encode(benchmark::State& state,
                const std::function<size_t()>& encode) {
  size_t bytes = 0;
  for (auto _ : state) {
    bytes = encode();
    benchmark::DoNotOptimize(bytes);
  }
  state.counters["bytes"] = double(bytes);
  state.counters["heap_peak"] = double(heap_peak([&] { encode(); }));
  state.SetBytesProcessed(int64_t(state.iterations()) * int64_t(bytes));
}

void register_encode(const std::string& name) {
  // The parsed documents live for the whole program.
  auto* parser = new simdjson::dom::parser;
  const simdjson::dom::element doc = load_corpus(name, *parser);
  auto add = [&](const std::string& what, std::function<size_t()> encode) {
    benchmark::RegisterBenchmark(
        ("Encode/" + what + "/" + name).c_str(),
        [encode](benchmark::State& state) { run_encode(state, encode); })
        ->Unit(benchmark::kMillisecond);
  };

  add("vkt", [doc] {
    VKTWriterValue root;
    json_to_writer(doc, &root);
    return VKTWriterObject().createImage(root).size();
  });
  add("vkt_build", [doc] {
    VKTWriterValue root;
    json_to_writer(doc, &root);
    return size_t(0);
  });
  auto* tree = new VKTWriterValue;
  json_to_writer(doc, tree);
  add("vkt_write",
      [tree] { return VKTWriterObject().createImage(*tree).size(); });
#if VKT_BENCH_HAVE_FLEXBUFFERS
  for (const bool shareAll : {false, true}) {
    add(shareAll ? "flex_share_all" : "flex", [doc, shareAll] {
      flexbuffers::Builder b(512, shareAll
                                      ? flexbuffers::BUILDER_FLAG_SHARE_ALL
                                      : flexbuffers::BUILDER_FLAG_SHARE_KEYS);
      json_to_flexbuffers(doc, b);
      b.Finish();
      return b.GetBuffer().size();
    });
  }
#endif
#if VKT_BENCH_HAVE_MSGPACK
  add("msgpack", [doc] {
    msgpack::sbuffer buffer;
    msgpack::packer<msgpack::sbuffer> pk(buffer);
    json_to_msgpack(doc, pk);
    return buffer.size();
  });
#endif
}

// ---------------------------------------------------------------------------
// Scaling: n synthetic records.
// ---------------------------------------------------------------------------

const char* const kTags[] = {"red",     "green",  "blue",  "cyan",
                             "magenta", "yellow", "black", "white"};

// An array of n records, the same every run.
void build_records(size_t n, VKTWriterValue* root) {
  std::mt19937 rng(7);
  root->toArray();
  for (size_t i = 0; i < n; ++i) {
    VKTWriterValue& r = (*root)[vkt_u32(i)];
    r["id"] = vkt_s32(i);
    r["name"] = "user" + std::to_string(rng() % 100000);
    r["score"] = double(rng() % 10000) / 100;
    r["active"] = (rng() & 1) != 0;
    VKTWriterValue& tags = r["tags"];
    tags[0] = kTags[rng() % 8];
    tags[1] = kTags[rng() % 8];
    r["count"] = vkt_s32(rng() % 1000);
  }
}

void BM_Records(benchmark::State& state) {
  const size_t n = size_t(state.range(0));
  size_t bytes = 0;
  auto once = [&] {
    VKTWriterValue root;
    build_records(n, &root);
    bytes = VKTWriterObject().createImage(root).size();
  };
  for (auto _ : state) once();
  const size_t peak = heap_peak(once);
  size_t tree = 0;  // the tree alone, built and not yet written
  heap_peak([&] {
    const size_t before = gLive;
    VKTWriterValue root;
    build_records(n, &root);
    tree = gLive - before;
  });
  state.counters["ns_per_record"] = benchmark::Counter(
      double(n) * 1e-9, benchmark::Counter::kIsIterationInvariantRate |
                            benchmark::Counter::kInvert);
  state.counters["image_bytes"] = double(bytes);
  state.counters["heap_peak"] = double(peak);
  state.counters["tree_bytes"] = double(tree);
  state.counters["peak_per_image"] = double(peak) / double(bytes);
  state.SetBytesProcessed(int64_t(state.iterations()) * int64_t(bytes));
}
BENCHMARK(BM_Records)
    ->Arg(10000)
    ->Arg(100000)
    ->Arg(1000000)
    ->Unit(benchmark::kMillisecond)
    ->Iterations(3);

void per_record(benchmark::State& state, size_t n) {
  state.counters["ns_per_record"] = benchmark::Counter(
      double(n) * 1e-9, benchmark::Counter::kIsIterationInvariantRate |
                            benchmark::Counter::kInvert);
}

// The two halves of BM_Records apart: building (and destroying) the tree,
// and writing a tree built once.
void BM_RecordsBuild(benchmark::State& state) {
  const size_t n = size_t(state.range(0));
  for (auto _ : state) {
    VKTWriterValue root;
    build_records(n, &root);
  }
  per_record(state, n);
}
BENCHMARK(BM_RecordsBuild)
    ->Arg(10000)
    ->Arg(1000000)
    ->Unit(benchmark::kMillisecond)
    ->Iterations(3);

void BM_RecordsWrite(benchmark::State& state) {
  const size_t n = size_t(state.range(0));
  VKTWriterValue root;
  build_records(n, &root);
  VKTWriterObject writer;
  for (auto _ : state) {
    benchmark::DoNotOptimize(writer.createImage(root).size());
  }
  per_record(state, n);
}
BENCHMARK(BM_RecordsWrite)
    ->Arg(10000)
    ->Arg(1000000)
    ->Unit(benchmark::kMillisecond)
    ->Iterations(3);

// ---------------------------------------------------------------------------
// Key table, wide object, stream payload from a reader.
// ---------------------------------------------------------------------------

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
    vkt_binary image = key_table(words);
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

void BM_WriteStreamFromReader(benchmark::State& state) {
  const vkt_size size = vkt_size(state.range(0)) << 20;
  VKTWriterValue root;
  root["payload"].setStream(new GeneratorStream(size), 16);
  VKTWriterObject writer;
  for (auto _ : state) {
    VKTDummyWriteStream sink(0);  // counts the bytes, keeps none
    if (!writer.writeImage(root, sink)) {
      state.SkipWithError(writer.error());
      break;
    }
    benchmark::DoNotOptimize(sink.Offset());
  }
  state.SetBytesProcessed(int64_t(state.iterations()) * size);
}
BENCHMARK(BM_WriteStreamFromReader)->Arg(1024)->Unit(benchmark::kMillisecond);

}  // namespace

int main(int argc, char** argv) {
  for (const char* name : kCorpusNames) register_encode(name);
  benchmark::Initialize(&argc, argv);
  if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
  benchmark::RunSpecifiedBenchmarks();
  benchmark::Shutdown();
  return 0;
}
