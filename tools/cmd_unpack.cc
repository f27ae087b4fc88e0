// vkt unpack IN.vkt [-o OUT.json]: a whole image as JSON text, written as
// it is made.
#include "files.h"
#include "image.h"
#include "print.h"
#include "tool.h"

int cmd_unpack(const Args& args) {
  const std::string out = args.value("output", "-");
  refuse_same_file(args.positional[0], out);
  const VKTJsonPrintOptions options = print_options(args);
  if (args.has("lines") && options.pretty) {
    usage_error("--lines prints one element a line, which --pretty breaks");
  }
  CheckedImage image(args.positional[0], args.has("copy"),
                     CheckedImage::kWhole);
  Progress progress(image.name(), image.object().size());
  // Names decoded once make the print faster. Sharing can make the names
  // alone far larger than the image; those are rebuilt as they are printed,
  // and the print's own bound stops the text.
  if (within_expansion(options, image.object().size(),
                       image.report().keyNameBytes)) {
    progress.stage("decoding key names");
    image.decodeKeyNames();
  }
  progress.stage("printing");
  write_value(image.name(), image.root(), options, out, args.has("lines"));
  return 0;
}
