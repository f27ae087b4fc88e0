// vkt.Image and vkt.Value: an image read in place from any buffer, and lazy
// views of its containers. Untrusted images are checked as they are read:
// the tables when the image opens, each value before it is read, and a
// whole subtree before to_py turns it into Python objects.
#include <pybind11/stl.h>

#include <cstring>
#include <vector>

#include "path.h"
#include "vkt_py.h"

namespace {

py::object sErrorType;

// Key names are decoded and indexed once when the image opens, so that every
// lookup by name hashes it once, unless sharing makes the names alone far
// larger than the image (the same bound as the tool's text).
bool worth_decoding(vkt_u64 nameBytes, vkt_u64 imageSize) {
  return nameBytes <= (vkt_u64(8) << 20) || nameBytes / 100 <= imageSize;
}

std::shared_ptr<ImageState> open_image(py::buffer data, bool trusted) {
  auto state = std::make_shared<ImageState>();
  state->buffer = data.request();
  state->trusted = trusted;
  const size_t size =
      size_t(state->buffer.size) * size_t(state->buffer.itemsize);
  const vkt_u8* p = static_cast<const vkt_u8*>(state->buffer.ptr);
  VKTVerifyReport report;
  if (size > 0xFFFFFFFFu) {
    report.reason = "image above 4 GiB";
    raise_error("not a vkt image: image above 4 GiB", report);
  }
  bool ok;
  {
    py::gil_scoped_release unlocked;
    ok = VKTObject::verifyTables(p, vkt_size(size), &report);
  }
  if (!ok) raise_error(std::string("bad image: ") + report.reason, report);
  state->object.reset(new VKTObject(p, vkt_u32(report.end), VKT_ALLOC_REFER));
  if (worth_decoding(report.keyNameBytes, report.end)) {
    state->object->buildKeyIndex();
  }
  return state;
}

// A stream payload exported as a buffer, so that a memoryview of it keeps
// the image alive.
struct StreamView {
  ImageRef image;
  const vkt_u8* data;
  size_t size;
};

// The whole string, NULs inside it included.
std::string_view string_of(const VKTValue& v) { return v.asStringView(); }

py::object scalar(const ImageRef& image, const VKTValue& v) {
  switch (v.type()) {
    case VKT_TYPE_BOOL:
      return py::bool_(v.asBool());
    case VKT_TYPE_INTEGER:
      return py::int_(v.asLongInt());
    case VKT_TYPE_FLOAT:
      return py::float_(v.asDouble());
    case VKT_TYPE_STRING: {
      const std::string_view s = string_of(v);
      return py::str(s.data(), s.size());
    }
    case VKT_TYPE_STREAM: {
      const vkt_u8* payload = v.asStream();
      if (payload == nullptr && v.streamSize() != 0) {
        raise_error("stream payload not in memory", VKTVerifyReport());
      }
      py::object view = py::cast(StreamView{image, payload, v.streamSize()});
      return py::memoryview(view);
    }
    default:
      return py::none();
  }
}

bool is_container(const VKTValue& v) {
  return v.type() == VKT_TYPE_ARRAY || v.type() == VKT_TYPE_OBJECT;
}

const char* type_name(vkt_type t) {
  static const char* const kNames[] = {"null", "bool",   "int",   "float",
                                       "str",  "stream", "array", "object"};
  return kNames[t];
}

// An index from Python, negative ones counting from the end.
VKTValue element(const PyValue& self, long long index) {
  const long long n = (long long)self.value.size();
  if (index < 0) index += n;
  if (index < 0 || index >= n) throw py::index_error("index out of range");
  return self.value[vkt_u32(index)];
}

bool member(const PyValue& self, const std::string& key, VKTValue* out) {
  if (self.value.type() != VKT_TYPE_OBJECT) return false;
  return self.value.findMember(key, out);
}

py::object item(const PyValue& self, py::handle key) {
  VKTValue child;
  if (py::isinstance<py::str>(key)) {
    if (self.value.type() != VKT_TYPE_OBJECT) {
      throw py::type_error("an array takes integer indexes");
    }
    if (!member(self, key.cast<std::string>(), &child)) {
      throw py::key_error(key.cast<std::string>());
    }
  } else if (py::isinstance<py::int_>(key)) {
    if (self.value.type() != VKT_TYPE_ARRAY) {
      throw py::type_error("an object takes str keys");
    }
    child = element(self, key.cast<long long>());
  } else {
    throw py::type_error("keys are str, indexes int");
  }
  check_step(self.image, child);
  return wrap(self.image, child);
}

py::object keys_of(const PyValue& self) {
  py::list out;
  for (const VKTMember& m : self.value.members()) {
    out.append(py::str(m.name.data(), m.name.size()));
  }
  return out;
}

py::list values_of(const PyValue& self) {
  py::list out;
  for (VKTValue e : self.value.elements()) {
    check_step(self.image, e);
    out.append(wrap(self.image, e));
  }
  return out;
}

py::list items_of(const PyValue& self) {
  py::list out;
  for (const VKTMember& m : self.value.members()) {
    check_step(self.image, m.value);
    out.append(py::make_tuple(py::str(m.name.data(), m.name.size()),
                              wrap(self.image, m.value)));
  }
  return out;
}

py::object get_path(const ImageRef& image, const std::string& path,
                    py::object fallback) {
  std::vector<PathStep> steps;
  std::string error;
  if (!parse_path(path, &steps, &error)) {
    throw py::value_error("bad path '" + path + "': " + error);
  }
  VKTValue value;
  VKTVerifyReport report;
  const size_t found = resolve_path(image->object->root(), steps, &value,
                                    image->trusted ? nullptr : &report);
  if (report.fault != VKT_FAULT_NONE) {
    raise_error(std::string("bad image: ") + report.reason, report);
  }
  if (found < steps.size()) return fallback;
  check_step(image, value);
  return wrap(image, value);
}

}  // namespace

void raise_error(const std::string& what, const VKTVerifyReport& report) {
  py::object error = sErrorType(what);
  error.attr("reason") = py::str(report.reason);
  error.attr("offset") = report.offset;
  PyErr_SetObject(sErrorType.ptr(), error.ptr());
  throw py::error_already_set();
}

void check_step(const ImageRef& image, const VKTValue& v) {
  VKTVerifyReport report;
  if (!image->trusted && !v.verifyStep(&report)) {
    raise_error(std::string("bad image: ") + report.reason, report);
  }
}

void check_subtree(const ImageRef& image, const VKTValue& v) {
  if (image->trusted) return;
  VKTVerifyReport report;
  bool ok;
  {
    py::gil_scoped_release unlocked;
    ok = v.verify(&report);
  }
  if (!ok) raise_error(std::string("bad image: ") + report.reason, report);
}

py::object wrap(const ImageRef& image, const VKTValue& v) {
  if (is_container(v)) return py::cast(PyValue{image, v});
  return scalar(image, v);
}

// The Python string of a member's name, made once per key tag.
const py::object& name_of(const ImageRef& image, const VKTMember& m) {
  std::vector<py::object>& names = image->names;
  if (m.keyTag >= names.size()) names.resize(size_t(m.keyTag) + 1);
  py::object& name = names[m.keyTag];
  if (!name) name = py::str(m.name.data(), m.name.size());
  return name;
}

py::object to_python_checked(const ImageRef& image, const VKTValue& v) {
  if (v.type() == VKT_TYPE_ARRAY) {
    py::list out(v.size());
    size_t i = 0;
    for (VKTValue e : v.elements()) {
      out[i++] = to_python_checked(image, e);
    }
    return out;
  }
  if (v.type() == VKT_TYPE_OBJECT) {
    py::dict out;
    for (const VKTMember& m : v.members()) {
      out[name_of(image, m)] = to_python_checked(image, m.value);
    }
    return out;
  }
  return scalar(image, v);
}

py::object to_python(const ImageRef& image, const VKTValue& v) {
  check_subtree(image, v);
  return to_python_checked(image, v);
}

void register_error(py::module_& m) {
  sErrorType = py::reinterpret_steal<py::object>(
      PyErr_NewExceptionWithDoc("vkt.Error",
                                "A damaged or unreadable vkt image; .reason "
                                "says what is wrong and .offset where.",
                                PyExc_ValueError, nullptr));
  m.attr("Error") = sErrorType;
}

void register_image(py::module_& m) {
  py::class_<StreamView>(m, "_StreamView", py::buffer_protocol())
      .def_buffer([](StreamView& s) {
        return py::buffer_info(const_cast<vkt_u8*>(s.data), 1,
                               py::format_descriptor<vkt_u8>::format(), 1,
                               {py::ssize_t(s.size)}, {py::ssize_t(1)}, true);
      });

  py::class_<PyValue>(m, "Value", "A view of an array or object of an image.")
      .def_property_readonly(
          "type", [](const PyValue& v) { return type_name(v.value.type()); })
      .def("__len__", [](const PyValue& v) { return v.value.size(); })
      .def("__getitem__", &item)
      .def(
          "get",
          [](const PyValue& v, const std::string& key, py::object fallback) {
            VKTValue child;
            if (!member(v, key, &child)) return fallback;
            check_step(v.image, child);
            return wrap(v.image, child);
          },
          py::arg("key"), py::arg("default") = py::none())
      .def("__contains__",
           [](const PyValue& v, py::handle key) {
             VKTValue child;
             return py::isinstance<py::str>(key) &&
                    member(v, key.cast<std::string>(), &child);
           })
      .def("__iter__",
           [](const PyValue& v) {
             py::object all =
                 v.value.type() == VKT_TYPE_OBJECT ? keys_of(v) : values_of(v);
             return py::iter(all);
           })
      .def("keys", &keys_of)
      .def("values", &values_of)
      .def("items", &items_of)
      .def("to_py",
           [](const PyValue& v) { return to_python(v.image, v.value); })
      .def("__repr__", [](const PyValue& v) {
        return "<vkt.Value " + std::string(type_name(v.value.type())) + " of " +
               std::to_string(v.value.size()) + ">";
      });

  py::class_<ImageState, std::shared_ptr<ImageState>>(m, "Image",
                                                      R"(An image read in place.

Image(buffer, trusted=False) reads any bytes-like object (bytes, bytearray,
memoryview, mmap) without copying it and keeps it alive. Untrusted images
are checked as they are read; trusted=True skips the checks, for bytes the
program wrote itself.)")
      .def(py::init(&open_image), py::arg("buffer"), py::kw_only(),
           py::arg("trusted") = false)
      .def_static(
          "open",
          [](const std::string& path, bool trusted) {
            py::module_ mmap = py::module_::import("mmap");
            py::object file =
                py::module_::import("builtins").attr("open")(path, "rb");
            py::object data;
            try {
              data = mmap.attr("mmap")(
                  file.attr("fileno")(), 0,
                  py::arg("access") = mmap.attr("ACCESS_READ"));
            } catch (py::error_already_set&) {  // an empty file
              data = file.attr("read")();
            }
            file.attr("close")();
            return open_image(data, trusted);
          },
          py::arg("path"), py::kw_only(), py::arg("trusted") = false,
          "Maps the file at `path` and reads it in place.")
      .def_property_readonly("root",
                             [](const std::shared_ptr<ImageState>& s) {
                               const VKTValue root = s->object->root();
                               check_step(s, root);
                               return wrap(s, root);
                             })
      .def("get", &get_path, py::arg("path"), py::arg("default") = py::none(),
           "The value at a PATH such as 'statuses[3].user.name'.")
      .def("verify",
           [](const std::shared_ptr<ImageState>& s) {
             check_subtree(s, s->object->root());
           })
      .def_property_readonly("size", [](const std::shared_ptr<ImageState>& s) {
        return s->object->size();
      });

  m.def(
      "loads",
      [](py::buffer data) {
        const ImageRef image = open_image(data, false);
        return to_python(image, image->object->root());
      },
      py::arg("data"), "The whole image in `data` as Python objects.");
  m.def(
      "load",
      [](py::object fp) {
        py::buffer data = fp.attr("read")();
        const ImageRef image = open_image(data, false);
        return to_python(image, image->object->root());
      },
      py::arg("fp"), "The whole image read from the binary file `fp`.");
}
