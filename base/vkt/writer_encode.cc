// The writer's two walks over a tree: prepare interns keys, strings, streams
// and bstreams into the tables of one writeImage call and notes each entry's
// id in the tree, and createImage turns a node into its encoded value once
// the tables are numbered.
//
//   scalar:  id | payload (smallest id that holds the value)
//   array:   ID_ARRAY  | offset array | entity area
//   object:  ID_OBJECT | key array | offset array | entity area
//
// With sharing on, byte-identical element images of one container are stored
// once in its entity area and their offsets repeat. A container writes its
// elements straight into the value buffer behind room for its head; the
// offsets' width is known only at the end, and when it differs from the
// guess the elements slide once.
#include "vkt/packed_array.h"
#include "vkt/writer_tables.h"

namespace {

// A likely size of each value's image by type, for reserving the value
// buffer up front: scalars at their widest, tags at two bytes, a container's
// head with one-byte keys and offsets (sharing only makes images smaller).
const vkt_u8 kSizeHint[] = {0, 1, 1, 5, 9, 0, 0, 3, 3, 0, 5, 9, 0, 0};
static_assert(sizeof(kSizeHint) == TYPE_OBJECT + 1, "one entry per type");

// Makes room for `more` bytes. The buffer starts at the size prepare noted,
// which is seldom far off, so it grows by halves rather than doubling.
void room_for(vkt_binary* image, size_t more) {
  const size_t need = image->size() + more;
  if (need > image->capacity()) image->reserve(need + image->capacity() / 2);
}

// Types that prepareNode does more for than add their size hint.
const vkt_u32 kVisited =
    1u << TYPE_STRING | 1u << TYPE_STREAM | 1u << TYPE_ARRAY | 1u << TYPE_OBJECT;

vkt_u32 clamp_u32(size_t n) {
  return n > 0xFFFFFFFFu ? 0xFFFFFFFFu : vkt_u32(n);
}

vkt_u32 head_hint(size_t count, bool withKeys) {
  const vkt_u32 n = vkt_u32(count);
  return 1 + unsigned_array_size(n, 1) * (withKeys ? 2 : 1);
}

}  // namespace

// Interns what one node names and notes its share of the size hint; a
// container is only opened here, its elements follow from prepare's stack.
void VKTWriterValue::prepareNode(VKTWriterObject::Tables& tables) const {
  tables.sizeHint += kSizeHint[mType];
  switch (mType) {
    case TYPE_STRING:
      mStringInfo->mTag = tables.strings.add(mStringInfo->text());
      break;
    case TYPE_STREAM: {
      // Bound streams go to the bstream table, all others to the stream table.
      const StreamInfo& s = *mStreamInfo;
      auto& table = (s.mStreamFlags & VKT_STREAM_FLAG_BOUND) ? tables.bstreams
                                                             : tables.streams;
      s.mTag = table.add(StreamEntry{s.mStreamPtr, s.mStreamSize,
                                     s.mStreamAlignment, s.mReader});
      break;
    }
    case TYPE_ARRAY:
      tables.sizeHint += head_hint(mArrayInfo->size(), false);
      break;
    case TYPE_OBJECT:
      tables.sizeHint += head_hint(mObjectInfo->mMembers.size(), true);
      mObjectInfo->sort();
      break;
    default:
      break;
  }
}

// Depth first in element order (a member's key before its value), with an
// explicit stack of open containers that never holds more than
// VKT_MAX_DEPTH of them; the elements of one container are taken in a
// tight loop until one is a container itself.
bool VKTWriterValue::prepare(VKTWriterObject::Tables& tables) const {
  struct Open {
    const VKTWriterValue* node;
    size_t next;    // index of the next element to visit
    size_t before;  // the size hint when the container was opened
  };
  Open open[VKT_MAX_DEPTH];
  size_t depth = 0;  // containers open
  const VKTWriterValue* node = this;
  for (;;) {
    // `node` is a value not yet visited.
    const size_t before = tables.sizeHint;
    node->prepareNode(tables);
    if (node->mType == TYPE_ARRAY || node->mType == TYPE_OBJECT) {
      if (depth == VKT_MAX_DEPTH) return false;
      open[depth++] = Open{node, 0, before};
      if (depth > tables.deepest) tables.deepest = depth;
    }
    node = nullptr;
    while (node == nullptr && depth != 0) {
      Open& top = open[depth - 1];
      if (top.node->mType == TYPE_ARRAY) {
        const ArrayInfo& array = *top.node->mArrayInfo;
        while (top.next < array.size()) {
          const VKTWriterValue& e = array.begin()[top.next++];
          if (kVisited >> e.mType & 1) {
            node = &e;  // interned or opened above
            break;
          }
          tables.sizeHint += kSizeHint[e.mType];
        }
        if (node != nullptr) break;
        array.mSizeHint = clamp_u32(tables.sizeHint - top.before);
      } else {
        const ObjectInfo& object = *top.node->mObjectInfo;
        if (top.next < object.mMembers.size()) {
          const Member* member = object.mMembers[top.next++];
          member->mKeyTag = tables.keys.add(member->key());
          node = &member->mValue;
          break;
        }
        object.mSizeHint = clamp_u32(tables.sizeHint - top.before);
      }
      --depth;
    }
    if (node == nullptr) return true;
  }
}

void VKTWriterValue::createImage(VKTWriterObject::Tables& tables,
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
      generate_string(buf, tables.strings.tag(mStringInfo->mTag));
      break;
    case TYPE_STREAM:
      if (mStreamInfo->mStreamFlags & VKT_STREAM_FLAG_BOUND) {
        generate_bstream(buf, tables.bstreams.tag(mStreamInfo->mTag));
      } else {
        generate_stream(buf, tables.streams.tag(mStreamInfo->mTag));
      }
      break;
    case TYPE_ARRAY:
    case TYPE_OBJECT: {
      if (tables.tooLarge) return;
      const bool isArray = mType == TYPE_ARRAY;
      const size_t count =
          isArray ? mArrayInfo->size() : mObjectInfo->mMembers.size();
      VKTWriterObject::Tables::Level& level = tables.levels[tables.depth];
      level.keys.clear();
      level.offsets.clear();
      if (!isArray) {
        for (const Member* member : mObjectInfo->mMembers) {
          level.keys.push_back(tables.keys.tag(member->mKeyTag));
        }
      }
      if (tables.optimize) level.siblings.reset(count);
      // Room for the head with offsets as wide as the size prepare noted
      // asks; a wrong guess slides the entity area once at the end.
      const vkt_u32 keysSize = isArray ? 0 : unsigned_array_size(level.keys);
      const vkt_u32 start = vkt_u32(image->size());
      const vkt_u32 hint =
          isArray ? mArrayInfo->mSizeHint : mObjectInfo->mSizeHint;
      const vkt_u32 reserved =
          1 + keysSize +
          unsigned_array_size(vkt_u32(count), unsigned_width(hint));
      room_for(image, reserved);
      image->resize(start + reserved);
      const vkt_u32 entityStart = start + reserved;
      ++tables.depth;
      auto add = [&](const VKTWriterValue& element) {
        if (tables.tooLarge) return;
        const vkt_u32 begin = vkt_u32(image->size());
        element.createImage(tables, image);
        // Past 32-bit offsets: the walk winds down and the image is refused.
        if (image->size() > kMaxImageSize) tables.tooLarge = true;
        if (tables.tooLarge) return;
        vkt_u32 offset = begin;
        if (tables.optimize) {
          offset = level.siblings.place(*image, begin, vkt_u32(image->size()));
          if (offset != begin) image->resize(begin);  // stored before
        }
        level.offsets.push_back(offset - entityStart);
      };
      if (isArray) {
        for (const VKTWriterValue& element : *mArrayInfo) {
          add(element);
        }
      } else {
        for (const Member* member : mObjectInfo->mMembers) add(member->mValue);
      }
      --tables.depth;
      if (tables.tooLarge) return;
      // ID | [key array] | offset array, in front of the entity area.
      const vkt_u32 headSize =
          1 + keysSize + unsigned_array_size(level.offsets);
      if (headSize > reserved) {
        room_for(image, headSize - reserved);
        image->insert(image->begin() + entityStart, headSize - reserved, 0);
      } else if (headSize < reserved) {
        image->erase(image->begin() + start + headSize,
                     image->begin() + entityStart);
      }
      vkt_u8* p = image->data() + start;
      *p++ = isArray ? ID_ARRAY : ID_OBJECT;
      if (!isArray) generate_unsigned_array(p, level.keys);
      generate_unsigned_array(p + keysSize, level.offsets);
      return;
    }
    default:  // TYPE_NULL
      buf[0] = ID_NULL;
      break;
  }
  const vkt_u32 size = get_value_size(buf);
  room_for(image, size);
  image->insert(image->end(), buf, buf + size);
}
