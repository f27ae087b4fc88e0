// vkt verify IN.vkt: exit 0 when every reader operation is safe on the
// image, else the reason and the byte at which it was found.
#include <cstdio>
#include <string>

#include "image.h"
#include "tool.h"

int cmd_verify(const Args& args) {
  const CheckedImage image(args.positional[0], args.has("copy"),
                           CheckedImage::kWhole);
  if (image.trailingBytes() != 0) {
    fail(image.name(), std::to_string(image.trailingBytes()) +
                           " bytes after the image's end (byte " +
                           std::to_string(image.report().end) + ")");
  }
  if (!args.has("quiet")) std::printf("%s: ok\n", image.name().c_str());
  return 0;
}
