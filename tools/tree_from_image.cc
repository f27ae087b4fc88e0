#include "tree_from_image.h"

#include <string>

#include "vkt_json.h"

namespace {

void set_integer(vkt_s64 v, VKTWriterValue* out) {
  if (v >= INT32_MIN && v <= INT32_MAX) {
    out->setInt(vkt_s32(v));
  } else {
    out->setLongInt(v);
  }
}

void set_stream(const VKTValue& value, VKTWriterValue* out) {
  out->setStream(value.asStream(), value.streamSize(),
                 vkt_json_stream_alignment(value), VKT_ALLOC_REFER,
                 value.isBoundStream() ? VKT_STREAM_FLAG_BOUND : 0);
}

}  // namespace

VKTWriterValue tree_from_image(const VKTValue& value) {
  VKTWriterValue out;
  switch (value.type()) {
    case VKT_TYPE_NULL:
      break;
    case VKT_TYPE_BOOL:
      out.setBool(value.asBool());
      break;
    case VKT_TYPE_INTEGER:
      set_integer(value.asLongInt(), &out);
      break;
    case VKT_TYPE_FLOAT:
      out.setDouble(value.asDouble());
      break;
    case VKT_TYPE_STRING:
      out.setString(value.asString());
      break;
    case VKT_TYPE_STREAM:
      set_stream(value, &out);
      break;
    case VKT_TYPE_ARRAY:
      out.toArray();
      for (VKTValue element : value.elements()) {
        out.append(tree_from_image(element));
      }
      break;
    case VKT_TYPE_OBJECT:
      out.toObject();
      for (const VKTMember& m : value.members()) {
        out.append(std::string(m.name), tree_from_image(m.value));
      }
      break;
  }
  return out;
}
