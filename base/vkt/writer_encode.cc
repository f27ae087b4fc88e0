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
//
// prepare keeps its own stack of open containers and refuses a tree deeper
// than VKT_MAX_DEPTH, so createImage, which recurses once per container
// level, runs only on trees it has bounded.
#include "vkt/packed_array.h"
#include "vkt/writer_tables.h"

using vkt_internal::kMaxImageSize;
using vkt_internal::ScalarTraits;
using vkt_internal::StreamEntry;
using vkt_internal::ValueBuffer;

namespace {

// A likely size of each value's image by type, for reserving the value
// buffer up front: scalars at their widest, tags at two bytes, a container's
// head with one-byte keys and offsets (sharing only makes images smaller).
const vkt_u8 kSizeHint[] = {0, 1, 1, 5, 9, 0, 0, 3, 3, 0, 5, 9, 0, 0};
static_assert(sizeof(kSizeHint) == TYPE_OBJECT + 1, "one entry per type");

// Types that prepareNode does more for than add their size hint.
const vkt_u32 kVisited = 1u << TYPE_STRING | 1u << TYPE_STREAM |
                         1u << TYPE_ARRAY | 1u << TYPE_OBJECT;

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
  ++tables.values;
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
          ++tables.values;
        }
        if (node != nullptr) break;
        array.mSizeHint = clamp_u32(tables.sizeHint - top.before);
      } else {
        const ObjectInfo& object = *top.node->mObjectInfo;
        if (top.next < object.mMembers.size()) {
          const Member* member = object.mMembers[top.next++];
          member->mKeyTag = tables.keyAt(top.next - 1, member->key());
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

vkt_u32 VKTWriterValue::encodeScalar(const VKTWriterObject::Tables& tables,
                                     vkt_u8* out) const {
  switch (mType) {
    case TYPE_BOOL:
      out[0] = mBoolValue ? ID_TRUE : ID_FALSE;
      break;
    case TYPE_INTEGER:
      generate_integer(out, mIntegerValue);
      break;
    case TYPE_LONG_INTEGER:
      generate_long_integer(out, mLongIntegerValue);
      break;
    case TYPE_SINGLE:
      generate_single(out, mFloatValue);
      break;
    case TYPE_DOUBLE:
      generate_double(out, mDoubleValue);
      break;
    case TYPE_STRING:
      generate_string(out, tables.strings.tag(mStringInfo->mTag));
      break;
    case TYPE_STREAM:
      if (mStreamInfo->mStreamFlags & VKT_STREAM_FLAG_BOUND) {
        generate_bstream(out, tables.bstreams.tag(mStreamInfo->mTag));
      } else {
        generate_stream(out, tables.streams.tag(mStreamInfo->mTag));
      }
      break;
    default:  // TYPE_NULL
      out[0] = ID_NULL;
      break;
  }
  return get_value_size(out);
}

void VKTWriterValue::createImage(VKTWriterObject::Tables& tables) const {
  if (mType == TYPE_ARRAY || mType == TYPE_OBJECT) {
    createContainerImage(tables);
    return;
  }
  vkt_u8 buf[SCALAR_BUFFER_SIZE];
  tables.value->append(buf, encodeScalar(tables, buf));
}

// The elements go into the entity area one after another. With sharing on,
// a scalar is matched by its bytes as two words and a container by its
// stretch of the buffer; the two never match each other (their first bytes
// differ), so they are looked up apart.
void VKTWriterValue::createContainerImage(
    VKTWriterObject::Tables& tables) const {
  if (tables.tooLarge) return;
  ValueBuffer& out = *tables.value;
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
  if (tables.optimize) {
    level.siblings.reset(count);
    level.scalars.reset(count);
  }
  // Room for the head with offsets as wide as the size prepare noted asks;
  // a wrong guess slides the entity area once at the end.
  const vkt_u32 keysSize = isArray ? 0 : unsigned_array_size(level.keys);
  const vkt_u32 start = vkt_u32(out.size());
  const vkt_u32 hint = isArray ? mArrayInfo->mSizeHint : mObjectInfo->mSizeHint;
  const vkt_u32 reserved =
      1 + keysSize + unsigned_array_size(vkt_u32(count), unsigned_width(hint));
  out.resize(start + reserved);
  const vkt_u32 entityStart = start + reserved;
  ++tables.depth;
  auto add = [&](const VKTWriterValue& element) {
    if (tables.tooLarge) return;
    const vkt_u32 begin = vkt_u32(out.size());
    vkt_u32 offset = begin;
    if (element.mType == TYPE_ARRAY || element.mType == TYPE_OBJECT) {
      element.createContainerImage(tables);
      if (tables.optimize && !tables.tooLarge) {
        offset = level.siblings.place({begin, vkt_u32(out.size()) - begin, 0},
                                      out.data());
        if (offset != begin) out.resize(begin);  // stored before
      }
    } else {
      vkt_u8 buf[SCALAR_BUFFER_SIZE] = {};
      const vkt_u32 size = element.encodeScalar(tables, buf);
      if (tables.optimize) {
        offset = level.scalars.place(ScalarTraits::of(buf, begin), nullptr);
      }
      if (offset == begin) out.appendScalar(buf, size);
    }
    // Past 32-bit offsets: the walk winds down and the image is refused.
    if (out.size() > kMaxImageSize) tables.tooLarge = true;
    level.offsets.push_back(offset - entityStart);
  };
  if (isArray) {
    for (const VKTWriterValue& element : *mArrayInfo) add(element);
  } else {
    for (const Member* member : mObjectInfo->mMembers) add(member->mValue);
  }
  --tables.depth;
  if (tables.tooLarge) return;
  // ID | [key array] | offset array, in front of the entity area.
  const vkt_u32 headSize = 1 + keysSize + unsigned_array_size(level.offsets);
  if (headSize != reserved) {
    out.slide(entityStart, std::ptrdiff_t(headSize) - std::ptrdiff_t(reserved));
  }
  vkt_u8* p = out.data() + start;
  *p++ = isArray ? ID_ARRAY : ID_OBJECT;
  if (!isArray) generate_unsigned_array(p, level.keys);
  generate_unsigned_array(p + keysSize, level.offsets);
}
