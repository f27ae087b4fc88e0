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

bool tree_from_image(const VKTValue& value, vkt_u64* budget,
                     VKTWriterValue* out) {
  switch (value.type()) {
    case VKT_TYPE_NULL:
      break;
    case VKT_TYPE_BOOL:
      out->setBool(value.asBool());
      break;
    case VKT_TYPE_INTEGER:
      set_integer(value.asLongInt(), out);
      break;
    case VKT_TYPE_FLOAT:
      out->setDouble(value.asDouble());
      break;
    case VKT_TYPE_STRING: {
      const std::string text(value.asStringView());
      if (text.size() > *budget) return false;
      *budget -= text.size();
      out->setString(text);
      break;
    }
    case VKT_TYPE_STREAM:
      set_stream(value, out);
      break;
    case VKT_TYPE_ARRAY:
      out->toArray();
      for (VKTValue element : value.elements()) {
        VKTWriterValue child;
        if (!tree_from_image(element, budget, &child)) return false;
        out->append(child);
      }
      break;
    case VKT_TYPE_OBJECT:
      out->toObject();
      for (const VKTMember& m : value.members()) {
        VKTWriterValue child;
        if (!tree_from_image(m.value, budget, &child)) return false;
        out->append(std::string(m.name), child);
      }
      break;
  }
  return true;
}
