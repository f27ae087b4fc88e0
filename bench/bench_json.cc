// JSON conversion on the three sample documents, each beside the pass a user
// would otherwise run:
//   pack:   vkt_json_pack (text to image, no tree; what `vkt pack` runs),
//           and vkt_json_parse + createImage through a tree, beside
//           simdjson's DOM parse + a FlexBuffer built from it, keys shared
//           (the default) and BUILDER_FLAG_SHARE_ALL;
//   unpack: verify + open + decodeKeyNames + vkt_json_print, beside simdjson's
//   DOM parse +
//           minified print of the same JSON text (a JSON-to-JSON pass).
// Every row counts bytes of JSON text, so MB/s compare across rows.
#include <benchmark/benchmark.h>

#include <string>

#include "corpus.h"
#include "vkt.h"
#include "vkt/streams.h"  // VKTBinaryWriteStream
#include "vkt_json.h"

namespace {

// The sample's text with the parser's padding behind it, so that neither
// parser copies it.
struct PaddedText {
  explicit PaddedText(const std::string& name) : text(corpus_text(name)) {
    size = text.size();
    text.resize(size + VKT_JSON_PADDING);
  }
  std::string text;
  size_t size;
};

void processed(benchmark::State& state, size_t jsonBytes) {
  state.SetBytesProcessed(int64_t(state.iterations()) * int64_t(jsonBytes));
}

void BM_PackVkt(benchmark::State& state, const char* name) {
  const PaddedText in(name);
  vkt_binary image;
  for (auto _ : state) {
    image.clear();
    VKTBinaryWriteStream sink(image);
    VKTWriterObject writer;
    VKTJsonError error;
    if (!vkt_json_pack(in.text.data(), in.size, in.text.size(), writer, sink,
                       &error)) {
      state.SkipWithError(error.message.c_str());
      break;
    }
    benchmark::DoNotOptimize(image.data());
  }
  processed(state, in.size);
}

void BM_PackVktTree(benchmark::State& state, const char* name) {
  const PaddedText in(name);
  for (auto _ : state) {
    VKTWriterValue root;
    VKTJsonError error;
    if (!vkt_json_parse(in.text.data(), in.size, in.text.size(), &root,
                        &error)) {
      state.SkipWithError(error.message.c_str());
      break;
    }
    VKTWriterObject writer;
    const vkt_binary image = writer.createImage(root);
    if (image.empty()) {
      state.SkipWithError(writer.error());
      break;
    }
    benchmark::DoNotOptimize(image.data());
  }
  processed(state, in.size);
}

// The parse alone: the tree built and freed, nothing written.
void BM_ParseVkt(benchmark::State& state, const char* name) {
  const PaddedText in(name);
  for (auto _ : state) {
    VKTWriterValue root;
    VKTJsonError error;
    benchmark::DoNotOptimize(
        vkt_json_parse(in.text.data(), in.size, in.text.size(), &root, &error));
  }
  processed(state, in.size);
}

// The peers' rows: simdjson's DOM parse of the sample, then `use` of it.
template <typename Use>
void simdjson_pass(benchmark::State& state, const char* name, Use use) {
  const PaddedText in(name);
  simdjson::dom::parser parser;
  for (auto _ : state) {
    simdjson::dom::element root;
    if (parser.parse(in.text.data(), in.size, false).get(root) !=
        simdjson::SUCCESS) {
      state.SkipWithError("simdjson refused the sample");
      break;
    }
    use(root);
  }
  processed(state, in.size);
}

#if VKT_BENCH_HAVE_FLEXBUFFERS
void flexbuffers_pass(benchmark::State& state, const char* name,
                      flexbuffers::BuilderFlag flags) {
  simdjson_pass(state, name, [flags](simdjson::dom::element root) {
    flexbuffers::Builder builder(512, flags);
    json_to_flexbuffers(root, builder);
    builder.Finish();
    benchmark::DoNotOptimize(builder.GetBuffer().data());
  });
}
void BM_PackFlexBuffers(benchmark::State& state, const char* name) {
  flexbuffers_pass(state, name, flexbuffers::BUILDER_FLAG_SHARE_KEYS);
}
void BM_PackFlexBuffersShareAll(benchmark::State& state, const char* name) {
  flexbuffers_pass(state, name, flexbuffers::BUILDER_FLAG_SHARE_ALL);
}
#endif

void BM_UnpackVkt(benchmark::State& state, const char* name) {
  const size_t jsonBytes = corpus_text(name).size();
  const vkt_binary image = corpus_image(name);
  std::string out;
  for (auto _ : state) {
    out.clear();
    VKTJsonError error;
    if (!VKTObject::verify(image)) {
      state.SkipWithError("verify refused the sample image");
      break;
    }
    VKTObject object(image.data(), vkt_u32(image.size()), VKT_ALLOC_REFER);
    object.decodeKeyNames();
    if (!vkt_json_print(object.root(), &out, &error)) {
      state.SkipWithError(error.message.c_str());
      break;
    }
    benchmark::DoNotOptimize(out.data());
  }
  processed(state, jsonBytes);
}

// The print alone, on an image verified and opened once.
void BM_PrintVkt(benchmark::State& state, const char* name) {
  const size_t jsonBytes = corpus_text(name).size();
  const vkt_binary image = corpus_image(name);
  VKTObject object(image.data(), vkt_u32(image.size()), VKT_ALLOC_REFER);
  object.decodeKeyNames();
  std::string out;
  for (auto _ : state) {
    out.clear();
    VKTJsonError error;
    benchmark::DoNotOptimize(vkt_json_print(object.root(), &out, &error));
  }
  processed(state, jsonBytes);
}

void BM_JsonMinify(benchmark::State& state, const char* name) {
  std::string out;
  simdjson_pass(state, name, [&](simdjson::dom::element root) {
    out = simdjson::to_string(root);  // minified
    benchmark::DoNotOptimize(out.data());
  });
}

void add(const char* label, void (*fn)(benchmark::State&, const char*)) {
  for (const char* name : kCorpusNames) {
    benchmark::RegisterBenchmark((std::string(label) + "/" + name).c_str(), fn,
                                 name);
  }
}

}  // namespace

int main(int argc, char** argv) {
  add("pack/vkt", BM_PackVkt);
  add("pack/vkt_tree", BM_PackVktTree);
  add("pack/vkt_parse_only", BM_ParseVkt);
#if VKT_BENCH_HAVE_FLEXBUFFERS
  add("pack/simdjson_flexbuffers", BM_PackFlexBuffers);
  add("pack/simdjson_flexbuffers_share_all", BM_PackFlexBuffersShareAll);
#endif
  add("unpack/vkt", BM_UnpackVkt);
  add("unpack/vkt_print_only", BM_PrintVkt);
  add("unpack/simdjson_minify", BM_JsonMinify);
  benchmark::Initialize(&argc, argv);
  if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
  benchmark::RunSpecifiedBenchmarks();
  benchmark::Shutdown();
  return 0;
}
