// The writer's two walks over a tree: prepare collects keys, strings, streams
// and bstreams into the sorted tables of VKTWriterObject, and createImage
// turns a node into its encoded value once those tables are numbered.
//
//   scalar:  id | payload (smallest id that holds the value)
//   array:   ID_ARRAY  | offset array | entity area
//   object:  ID_OBJECT | key array | offset array | entity area
//
// With sharing on, byte-identical element images of one container are stored
// once in its entity area and their offsets repeat.
#include <cstring>  // memcmp
#include <set>

#include "vkt/packed_array.h"
#include "vkt/writer_blocks.h"

bool VKTWriterObject::StreamWrapper::operator<(const StreamWrapper& r) const {
  if (alignment != r.alignment) return alignment < r.alignment;
  if (size != r.size) return size < r.size;
  if (reader == nullptr && r.reader == nullptr) {
    // Memory compares by contents, so equal bytes are one payload.
    if (ptr == r.ptr || size == 0) return false;
    return std::memcmp(ptr, r.ptr, size) < 0;
  }
  // Readers compare by identity; memory (a null reader) sorts first.
  return std::less<const VKTReadStream*>()(reader, r.reader);
}

namespace {

// The element images of one container, stored once each in its entity area.
// An entry names a stretch of the area by offset and length, so an image is
// compared where it lies and never copied for the lookup.
class SharedImages {
 public:
  explicit SharedImages(const vkt_binary* entity) : mSet(Less{entity}) {}

  // The image just appended at [begin, end of entity): answers the offset of
  // an equal image stored before, or `begin` when it is new.
  vkt_u32 place(vkt_u32 begin, vkt_u32 end) {
    return mSet.insert(Stretch{begin, end - begin}).first->offset;
  }

 private:
  struct Stretch {
    vkt_u32 offset;
    vkt_u32 length;
  };
  struct Less {
    const vkt_binary* entity;
    bool operator()(const Stretch& a, const Stretch& b) const {
      const vkt_u8* p = entity->data();
      const int c = std::memcmp(p + a.offset, p + b.offset,
                                a.length < b.length ? a.length : b.length);
      return c != 0 ? c < 0 : a.length < b.length;
    }
  };
  std::set<Stretch, Less> mSet;
};

}  // namespace

VKTWriterObject::StreamWrapper VKTWriterValue::streamWrapper() const {
  return VKTWriterObject::StreamWrapper(
      mStreamInfo->mStreamPtr, mStreamInfo->mStreamSize,
      mStreamInfo->mStreamAlignment, mStreamInfo->mReader);
}

// Bound streams go to the bstream table, all others to the stream table.
VKTWriterObject::stream_table& VKTWriterValue::streamTable(
    VKTWriterObject* object) const {
  return (mStreamInfo->mStreamFlags & VKT_STREAM_FLAG_BOUND)
             ? object->mBStreamTable
             : object->mStreamTable;
}

void VKTWriterValue::prepare(VKTWriterObject* object) const {
  switch (mType) {
    case TYPE_STRING:
      object->mStringTable.emplace(mStringInfo->mStringValue, 0);
      break;
    case TYPE_STREAM:
      streamTable(object).emplace(streamWrapper(), 0);
      break;
    case TYPE_ARRAY:
      for (const VKTWriterValue& element : mArrayInfo->mArrayValue) {
        element.prepare(object);
      }
      break;
    case TYPE_OBJECT:
      for (const auto& member : mObjectInfo->mObjectValue) {
        object->mKeyTable.emplace(member.first, 0);
        member.second->prepare(object);
      }
      break;
    default:
      break;
  }
}

void VKTWriterValue::createImage(VKTWriterObject* object,
                                 vkt_binary* image) const {
  vkt_u8 buf[SCALAR_BUFFER_SIZE];
  switch (mType) {
    case TYPE_BOOL:
      buf[0] = mBoolValue ? ID_TRUE : ID_FALSE;
      break;
    case TYPE_INTEGER:
      generate_integer(buf, mIntegerValue);
      break;
    case TYPE_LONG_INTEGER:
      generate_long_integer(buf, mLongIntegerValue);
      break;
    case TYPE_SINGLE:
      generate_single(buf, mFloatValue);
      break;
    case TYPE_DOUBLE:
      generate_double(buf, mDoubleValue);
      break;
    case TYPE_STRING:
      generate_string(
          buf, object->mStringTable.find(mStringInfo->mStringValue)->second);
      break;
    case TYPE_STREAM: {
      const vkt_u32 tag = streamTable(object).find(streamWrapper())->second;
      if (mStreamInfo->mStreamFlags & VKT_STREAM_FLAG_BOUND) {
        generate_bstream(buf, tag);
      } else {
        generate_stream(buf, tag);
      }
      break;
    }
    case TYPE_ARRAY:
    case TYPE_OBJECT: {
      const bool isArray = mType == TYPE_ARRAY;
      const size_t count = isArray ? mArrayInfo->mArrayValue.size()
                                   : mObjectInfo->mObjectValue.size();
      std::vector<vkt_u32> keyArray;
      std::vector<vkt_u32> offsetArray;
      offsetArray.reserve(count);
      vkt_binary entity;
      SharedImages shared(&entity);
      auto add = [&](const VKTWriterValue& element) {
        const vkt_u32 begin = vkt_u32(entity.size());
        element.createImage(object, &entity);
        if (!object->mOptimize) {
          offsetArray.push_back(begin);
          return;
        }
        const vkt_u32 offset = shared.place(begin, vkt_u32(entity.size()));
        offsetArray.push_back(offset);
        if (offset != begin) entity.resize(begin);  // stored before: drop it
      };
      if (isArray) {
        for (const VKTWriterValue& element : mArrayInfo->mArrayValue) {
          add(element);
        }
      } else {
        keyArray.reserve(count);
        for (const auto& member : mObjectInfo->mObjectValue) {
          keyArray.push_back(object->mKeyTable.find(member.first)->second);
          add(*member.second);
        }
      }
      image->push_back(isArray ? ID_ARRAY : ID_OBJECT);
      if (!isArray) concat_unsigned_array(*image, keyArray);
      concat_unsigned_array(*image, offsetArray);
      concat_binary(*image, entity);
      return;
    }
    default:  // TYPE_NULL
      buf[0] = ID_NULL;
      break;
  }
  image->insert(image->end(), buf, buf + get_value_size(buf));
}
