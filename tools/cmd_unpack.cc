// vkt unpack IN.vkt [-o OUT.json]: a whole image as JSON text.
#include "files.h"
#include "image.h"
#include "print.h"
#include "tool.h"

int cmd_unpack(const Args& args) {
  const std::string out = args.value("output", "-");
  refuse_same_file(args.positional[0], out);
  CheckedImage image(args.positional[0]);
  image.decodeKeyNames();
  Progress progress(image.name(), image.object().size());
  progress.stage("printing");
  const std::string text = print_value(image.name(), image.root(), args);
  progress.stage("writing");
  write_output(out, text.data(), text.size());
  return 0;
}
