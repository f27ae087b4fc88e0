// vkt pack IN.json -o OUT.vkt: JSON text to an image, written exactly as the
// library's writer makes it from the parsed tree.
#include <unistd.h>

#include <cstring>  // memchr
#include <memory>

#include "files.h"
#include "tool.h"
#include "vkt_json.h"

namespace {

void configure(const Args& args, VKTWriterObject* writer) {
  if (args.has("no-share")) writer->setOptimize(false);
  // Only the header's mark: the image's numbers are little-endian either way.
  if (!args.has("endian-mark")) return;
  const std::string endian = args.value("endian-mark", "");
  if (endian != "big" && endian != "little") {
    usage_error("--endian-mark takes big or little, not '" + endian + "'");
  }
  writer->setEndian(endian == "big" ? VKT_ENDIAN_BIG : VKT_ENDIAN_LITTLE);
}

std::string parse_failure(const VKTJsonError& error, const char* of = "") {
  std::string what = error.message;
  if (error.offset != VKT_JSON_NO_OFFSET) {
    what += " at byte " + std::to_string(error.offset) + of;
  }
  return what;
}

bool is_blank(const char* p, size_t n) {
  for (size_t i = 0; i < n; ++i) {
    if (p[i] != ' ' && p[i] != '\t' && p[i] != '\r') return false;
  }
  return true;
}

// JSON Lines: one document per line into the root array, blank lines
// skipped. Each line is parsed in place; the rest of the file serves as the
// parser's padding.
void parse_lines(const InputFile& file, const VKTJsonParseOptions& options,
                 VKTWriterValue* root) {
  const char* text = reinterpret_cast<const char*>(file.data());
  root->toArray();
  size_t line = 1;
  for (size_t start = 0; start < file.size(); ++line) {
    const void* nl = std::memchr(text + start, '\n', file.size() - start);
    const size_t end = nl != nullptr
                           ? size_t(static_cast<const char*>(nl) - text)
                           : file.size();
    if (!is_blank(text + start, end - start)) {
      VKTWriterValue element;
      VKTJsonError error;
      if (!vkt_json_parse(text + start, end - start, file.capacity() - start,
                          &element, &error, options)) {
        fail(file.name(), "line " + std::to_string(line) + ": " +
                              parse_failure(error, " of the line"));
      }
      root->append(element);
    }
    start = end + 1;
  }
}

}  // namespace

int cmd_pack(const Args& args) {
  const std::string& in = args.positional[0];
  if (!args.has("output")) usage_error("pack needs -o OUT.vkt (- for stdout)");
  const std::string out = args.value("output", "");
  VKTWriterObject writer;
  configure(args, &writer);
  if (is_std_stream(out) && ::isatty(STDOUT_FILENO)) {
    fail(out, "will not write a binary image to a terminal");
  }

  refuse_same_file(in, out);
  VKTJsonParseOptions options;
  options.strict = !args.has("lax");
  const std::string streams = args.value("streams", "on");
  if (streams != "on" && streams != "off") {
    usage_error("--streams takes on or off, not '" + streams + "'");
  }
  options.streams = streams == "on";
  std::unique_ptr<InputFile> file(new InputFile(in));
  Progress progress(in, file->size());
  if (!args.has("lines")) {
    // Text to image in two reads of the text, with no tree in between.
    progress.stage("packing");
    const char* text = reinterpret_cast<const char*>(file->data());
    write_output(out, [&](const OutputPiece& put) {
      PieceSink sink(put);
      VKTJsonError error;
      if (!vkt_json_pack(text, file->size(), file->capacity(), writer, sink,
                         &error, options)) {
        fail(in, parse_failure(error));
      }
    });
    return 0;
  }
  progress.stage("parsing");
  // The tree is never freed: the process ends once the image is out, and
  // giving back a large tree node by node would only add to the time.
  // A global keeps it reachable, so leak checkers see no leak.
  static VKTWriterValue* tree = nullptr;
  tree = new VKTWriterValue;
  parse_lines(*file, options, tree);
  // The tree holds copies of every text it took, so the input can go before
  // the image is made.
  file.reset();
  progress.stage("writing");
  write_output(out, [&](const OutputPiece& put) {
    PieceSink sink(put);
    if (!writer.writeImage(*tree, sink)) fail(in, writer.error());
  });
  return 0;
}
