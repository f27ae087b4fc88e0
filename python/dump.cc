// vkt.dumps and vkt.dump: Python objects to a writer tree, then an image.
//
//   None -> null, bool -> bool, int -> integer (32 or 64 bits by size),
//   float -> double, str -> string, bytes/bytearray/memoryview -> stream,
//   vkt.Stream -> stream or bstream with its alignment, list/tuple -> array,
//   dict with str keys -> object.
//
// The same choices as the JSON parser, so that what json.loads gives is
// written exactly as `vkt pack` writes the text.
#include <pybind11/stl.h>

#include <cstring>
#include <unordered_set>
#include <vector>

#include "vkt_py.h"

namespace {

// vkt.Stream: a payload with the placement a plain bytes object cannot say.
struct Stream {
  py::object data;
  vkt_u32 align;
  bool bound;
};

// One step from the root, for messages in the PATH syntax of `vkt get`.
struct Step {
  bool isIndex;
  std::string name;
  size_t index;
};

class TreeBuilder {
 public:
  explicit TreeBuilder(py::handle streamType) : mStreamType(streamType) {}

  void build(py::handle obj, VKTWriterValue* out, vkt_u32 depth) {
    if (obj.is_none()) return;
    PyObject* p = obj.ptr();
    if (PyBool_Check(p)) {
      out->setBool(p == Py_True);
    } else if (PyLong_Check(p)) {
      integer(p, out);
    } else if (PyFloat_Check(p)) {
      out->setDouble(PyFloat_AS_DOUBLE(p));
    } else if (PyUnicode_Check(p)) {
      out->setString(text(p, "string"));
    } else if (py::isinstance(obj, mStreamType)) {
      const Stream& s = obj.cast<const Stream&>();
      payload(s.data, s.align, s.bound, out);
    } else if (PyList_Check(p) || PyTuple_Check(p)) {
      array(obj, out, depth + 1);
    } else if (PyDict_Check(p)) {
      object(obj, out, depth + 1);
    } else if (PyObject_CheckBuffer(p)) {
      payload(py::reinterpret_borrow<py::object>(obj), 0, false, out);
    } else {
      fail(PyExc_TypeError, std::string("cannot store a ") +
                                Py_TYPE(p)->tp_name + " in a vkt image");
    }
  }

 private:
  void integer(PyObject* p, VKTWriterValue* out) {
    int overflow = 0;
    const long long v = PyLong_AsLongLongAndOverflow(p, &overflow);
    if (overflow != 0) {
      fail(PyExc_OverflowError, "integer beyond 64 bits");
    }
    if (v >= INT32_MIN && v <= INT32_MAX) {
      out->setInt(vkt_s32(v));
    } else {
      out->setLongInt(vkt_s64(v));
    }
  }

  // UTF-8 of a str; a NUL inside is refused, as readers see a string up to
  // its NUL.
  std::string text(PyObject* p, const char* what) {
    Py_ssize_t size = 0;
    const char* s = PyUnicode_AsUTF8AndSize(p, &size);
    if (s == nullptr) throw py::error_already_set();
    if (std::memchr(s, 0, size_t(size)) != nullptr) {
      fail(PyExc_ValueError, std::string(what) + " with a NUL inside");
    }
    return std::string(s, size_t(size));
  }

  void payload(const py::object& data, vkt_u32 align, bool bound,
               VKTWriterValue* out) {
    const py::buffer_info b =
        py::reinterpret_borrow<py::buffer>(data).request();
    const size_t size = size_t(b.size) * size_t(b.itemsize);
    if (size > 0xFFFFFFFFu) fail(PyExc_ValueError, "stream above 4 GiB");
    out->setStream(static_cast<const vkt_u8*>(b.ptr), vkt_u32(size), align,
                   VKT_ALLOC_DUPLICATE, bound ? VKT_STREAM_FLAG_BOUND : 0);
  }

  void array(py::handle obj, VKTWriterValue* out, vkt_u32 depth) {
    Open open(this, obj, depth);
    out->toArray();
    const py::sequence items = py::reinterpret_borrow<py::sequence>(obj);
    const size_t n = items.size();
    for (size_t i = 0; i < n; ++i) {
      mPath.push_back(Step{true, std::string(), i});
      build(items[i], &(*out)[vkt_u32(i)], depth);
      mPath.pop_back();
    }
  }

  void object(py::handle obj, VKTWriterValue* out, vkt_u32 depth) {
    Open open(this, obj, depth);
    out->toObject();
    for (const auto& item : py::reinterpret_borrow<py::dict>(obj)) {
      if (!PyUnicode_Check(item.first.ptr())) {
        fail(PyExc_TypeError, std::string("member name of type ") +
                                  Py_TYPE(item.first.ptr())->tp_name +
                                  " (names are str)");
      }
      std::string key = text(item.first.ptr(), "member name");
      mPath.push_back(Step{false, key, 0});
      build(item.second, &(*out)[key], depth);
      mPath.pop_back();
    }
  }

  // A container on the way from the root: refused when it is already open
  // (a cycle) or nests deeper than an image may.
  struct Open {
    Open(TreeBuilder* b, py::handle obj, vkt_u32 depth)
        : builder(b), key(obj.ptr()) {
      if (depth > VKT_MAX_DEPTH) {
        b->fail(
            PyExc_ValueError,
            "nesting deeper than " + std::to_string(VKT_MAX_DEPTH) + " levels");
      }
      if (!b->mOpen.insert(key).second) {
        b->fail(PyExc_ValueError, "a container that holds itself");
      }
    }
    ~Open() { builder->mOpen.erase(key); }
    TreeBuilder* builder;
    PyObject* key;
  };

  [[noreturn]] void fail(PyObject* type, const std::string& what) {
    std::string message = what;
    if (!mPath.empty()) message += " at " + pathText();
    PyErr_SetString(type, message.c_str());
    throw py::error_already_set();
  }

  std::string pathText() const {
    std::string out;
    for (const Step& s : mPath) {
      if (s.isIndex) {
        out += "[" + std::to_string(s.index) + "]";
      } else if (!s.name.empty() &&
                 s.name.find_first_of(".[]\"") == std::string::npos) {
        if (!out.empty()) out += '.';
        out += s.name;
      } else {
        out += "[\"";
        for (char c : s.name) {
          if (c == '"' || c == '\\') out += '\\';
          out += c;
        }
        out += "\"]";
      }
    }
    return out;
  }

  py::handle mStreamType;
  std::vector<Step> mPath;
  std::unordered_set<PyObject*> mOpen;
};

}  // namespace

py::bytes dumps(const py::handle& obj, bool share, py::handle streamType) {
  VKTWriterValue root;
  TreeBuilder(streamType).build(obj, &root, 0);
  VKTWriterObject writer;
  writer.setOptimize(share);
  vkt_binary image;
  {
    py::gil_scoped_release unlocked;
    image = writer.createImage(root);
  }
  if (image.empty()) {
    throw py::value_error(std::string("cannot write the image: ") +
                          writer.error());
  }
  return py::bytes(reinterpret_cast<const char*>(image.data()), image.size());
}

void register_dump(py::module_& m) {
  py::class_<Stream> stream(m, "Stream", R"(A payload stored as a stream.

Stream(data, align=1, bound=False): `data` is any bytes-like object; the
payload is placed at a multiple of `align` bytes in the image; a bound
stream (a bstream) stays with the image's structure.)");
  stream
      .def(py::init([](py::buffer data, vkt_u32 align, bool bound) {
             return Stream{data, align, bound};
           }),
           py::arg("data"), py::arg("align") = 1, py::arg("bound") = false)
      .def_readonly("data", &Stream::data)
      .def_readonly("align", &Stream::align)
      .def_readonly("bound", &Stream::bound);
  py::handle streamType = stream;
  m.def(
      "dumps",
      [streamType](py::handle obj, bool share) {
        return dumps(obj, share, streamType);
      },
      py::arg("obj"), py::kw_only(), py::arg("share") = true,
      "The image of `obj` as bytes. share=False keeps equal elements of a "
      "container apart.");
  m.def(
      "dump",
      [streamType](py::handle obj, py::object fp, bool share) {
        fp.attr("write")(dumps(obj, share, streamType));
      },
      py::arg("obj"), py::arg("fp"), py::kw_only(), py::arg("share") = true,
      "Writes the image of `obj` to the binary file `fp`.");
}
