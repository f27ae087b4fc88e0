// The vkt Python module: write images from Python objects and read them in
// place. See vkt.pyi for the interface.
#include "vkt_py.h"

PYBIND11_MODULE(vkt, m) {
  m.doc() =
      "vkt images: a tree of typed values in one binary image, read in "
      "place.\n\nvkt.dumps(obj) makes an image; vkt.Image(buffer) or "
      "vkt.Image.open(path) reads one without unpacking it, and "
      "vkt.loads(data) turns a whole image into Python objects.";
  m.attr("MAX_DEPTH") = VKT_MAX_DEPTH;
  register_error(m);
  register_dump(m);
  register_image(m);
}
