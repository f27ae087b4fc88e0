// vkt pack IN.json -o OUT.vkt: JSON text to an image, written exactly as the
// library's writer makes it from the parsed tree.
#include <unistd.h>

#include "files.h"
#include "tool.h"
#include "vkt_json.h"

namespace {

void configure(const Args& args, VKTWriterObject* writer) {
  if (args.has("no-share")) writer->setOptimize(false);
  if (!args.has("endian")) return;
  const std::string endian = args.value("endian", "");
  if (endian != "big" && endian != "little") {
    usage_error("--endian takes big or little, not '" + endian + "'");
  }
  writer->setEndian(endian == "big" ? VKT_ENDIAN_BIG : VKT_ENDIAN_LITTLE);
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
  InputFile file(in);
  Progress progress(in, file.size());
  progress.stage("parsing");
  VKTWriterValue root;
  VKTJsonError error;
  VKTJsonParseOptions options;
  options.strict = !args.has("lax");
  const std::string streams = args.value("streams", "on");
  if (streams != "on" && streams != "off") {
    usage_error("--streams takes on or off, not '" + streams + "'");
  }
  options.streams = streams == "on";
  if (!vkt_json_parse(reinterpret_cast<const char*>(file.data()), file.size(),
                      file.capacity(), &root, &error, options)) {
    std::string what = error.message;
    if (error.offset != VKT_JSON_NO_OFFSET) {
      what += " at byte " + std::to_string(error.offset);
    }
    fail(in, what);
  }
  progress.stage("writing");
  const vkt_binary image = writer.createImage(root);
  write_output(out, image.data(), image.size());
  return 0;
}
