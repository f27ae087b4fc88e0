// The vkt Python module's shared pieces: the image a view belongs to, the
// module's error, and the conversions both ways.
#ifndef VKT_PYTHON_VKT_PY_H_
#define VKT_PYTHON_VKT_PY_H_

#include <pybind11/pybind11.h>

#include <memory>
#include <string>
#include <vector>

#include "vkt.h"

namespace py = pybind11;

// An opened image and the Python buffer it reads in place. Views hold it
// through a shared pointer, so the buffer stays exported (an mmap cannot be
// closed under them) until the last view goes. `trusted` images skip the
// per-value checks; the others passed VKTObject::verifyTables at open, and
// each view passes VKTValue::verifyStep before it is read.
struct ImageState {
  py::buffer_info buffer;
  std::unique_ptr<VKTObject> object;
  bool trusted = false;
  // Member names as Python strings, by key tag, made once each (with the
  // GIL held) so that a whole-image conversion shares them.
  mutable std::vector<py::object> names;
};
typedef std::shared_ptr<const ImageState> ImageRef;

// A container of an image, as vkt.Value.
struct PyValue {
  ImageRef image;
  VKTValue value;
};

// Raises vkt.Error (a ValueError) with .reason and .offset.
[[noreturn]] void raise_error(const std::string& what,
                              const VKTVerifyReport& report);
// Checks `v` before it is read, unless the image is trusted.
void check_step(const ImageRef& image, const VKTValue& v);
void check_subtree(const ImageRef& image, const VKTValue& v);

// A checked view as Python sees it: scalars as Python objects, streams as
// read-only memoryviews into the image, containers as vkt.Value.
py::object wrap(const ImageRef& image, const VKTValue& v);
// A value and everything below it as Python objects (checked first).
py::object to_python(const ImageRef& image, const VKTValue& v);
// The same for a value already checked, with no further checks.
py::object to_python_checked(const ImageRef& image, const VKTValue& v);

// Python objects to an image (dump.cc).
py::bytes dumps(const py::handle& obj, bool share, py::handle streamType);

void register_error(py::module_& m);
void register_image(py::module_& m);
void register_dump(py::module_& m);

#endif  // VKT_PYTHON_VKT_PY_H_
