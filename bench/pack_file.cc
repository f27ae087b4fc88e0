// vkt_bench_pack_file MODE FILE: packs one large JSON file once, the way a
// user's program would, and prints the time and the process's peak memory:
//
//   vkt        vkt_json_pack, as `vkt pack` runs it: the image goes out to a
//              sink as it is made (here one that only counts, as a file
//              would take it)
//   vkt_tree   vkt_json_parse into a tree, then writeImage to the same sink
//   flex       simdjson's DOM parse, then a FlexBuffer with
//              BUILDER_FLAG_SHARE_ALL (needs libflatbuffers-dev), which
//              holds the whole output in memory by its design
//
// Each mode runs in a process of its own, so that the peak (getrusage's
// maximum resident size) is that mode's alone; bench/README.md runs the
// three one after another on a file from bench/make_records.py and compares
// ratios. The file is read whole into padded memory in every mode.
#include <simdjson.h>
#include <sys/resource.h>

#include <chrono>
#include <cstdio>
#include <cstring>
#include <string>

#include "corpus.h"
#include "vkt.h"
#include "vkt/streams.h"  // VKTDummyWriteStream
#include "vkt_json.h"

namespace {

double peak_mb() {
  rusage usage;
  getrusage(RUSAGE_SELF, &usage);
  return double(usage.ru_maxrss) / 1024.0;  // kilobytes on Linux
}

// Packs the text; answers the output's size, 0 on a failure.
size_t pack(const std::string& mode, const simdjson::padded_string& text) {
  if (mode == "vkt") {
    VKTDummyWriteStream sink(0);
    VKTWriterObject writer;
    VKTJsonError error;
    if (!vkt_json_pack(text.data(), text.size(),
                       text.size() + simdjson::SIMDJSON_PADDING, writer, sink,
                       &error)) {
      std::fprintf(stderr, "%s\n", error.message.c_str());
      return 0;
    }
    return sink.Offset();
  }
  if (mode == "vkt_tree") {
    VKTWriterValue root;
    VKTJsonError error;
    if (!vkt_json_parse(text.data(), text.size(),
                        text.size() + simdjson::SIMDJSON_PADDING, &root,
                        &error)) {
      std::fprintf(stderr, "%s\n", error.message.c_str());
      return 0;
    }
    VKTDummyWriteStream sink(0);
    return VKTWriterObject().writeImage(root, sink) ? sink.Offset() : 0;
  }
#if VKT_BENCH_HAVE_FLEXBUFFERS
  if (mode == "flex") {
    simdjson::dom::parser parser;
    simdjson::dom::element root;
    if (parser.parse(text).get(root) != simdjson::SUCCESS) return 0;
    flexbuffers::Builder b(512, flexbuffers::BUILDER_FLAG_SHARE_ALL);
    json_to_flexbuffers(root, b);
    b.Finish();
    return b.GetBuffer().size();
  }
#endif
  std::fprintf(stderr, "unknown mode %s\n", mode.c_str());
  return 0;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 3) {
    std::fprintf(stderr, "usage: %s vkt|vkt_tree|flex FILE.json\n", argv[0]);
    return 2;
  }
  simdjson::padded_string text;
  if (simdjson::padded_string::load(argv[2]).get(text) != simdjson::SUCCESS) {
    std::fprintf(stderr, "cannot read %s\n", argv[2]);
    return 1;
  }
  const auto start = std::chrono::steady_clock::now();
  const size_t bytes = pack(argv[1], text);
  const std::chrono::duration<double> took =
      std::chrono::steady_clock::now() - start;
  if (bytes == 0) return 1;
  std::printf("%-8s %8.2f s %8.0f MB peak %12zu bytes out\n", argv[1],
              took.count(), peak_mb(), bytes);
  return 0;
}
