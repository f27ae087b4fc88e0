// The writer's two walks over a tree: prepare interns keys, strings, streams
// and bstreams into the tables of one writeImage call and notes each entry's
// id in the tree, and createImage turns a node into its encoded value once
// the tables are numbered.
//
//   scalar:  id | payload (smallest id that holds the value)
//
// Containers are laid out by ContainerWriter (writer_container.h).
//
// prepare keeps its own stack of open containers and refuses a tree deeper
// than VKT_MAX_DEPTH, so createImage, which recurses once per container
// level, runs only on trees it has bounded.
#include "vkt/writer_container.h"

using vkt_internal::clamp_u32;
using vkt_internal::head_hint;
using vkt_internal::kSizeHint;
using vkt_internal::StreamEntry;

namespace {

// Types that prepareNode does more for than add their size hint.
const vkt_u32 kVisited =
    1u << TYPE_STRING | 1u << vkt_internal::kShortStringType |
    1u << TYPE_STREAM | 1u << TYPE_ARRAY | 1u << TYPE_OBJECT;

// An integer's image size, exactly: integers are common and often far
// below their widest, which kSizeHint counts.
vkt_u32 integer_hint(vkt_s32 value) {
  if (value == 0) return 1;
  return 2 + !fits_signed(value, 1) + !fits_signed(value, 2) +
         !fits_signed(value, 3);
}

// The entry of an object's member order in tables.orders, made on the
// first call of an image for each key list and count.
template <typename Object>
vkt_u32 member_order(vkt_internal::WriterTables& tables, const Object& o) {
  return tables.orders.find(o.keys(), vkt_u32(o.size()), tables.keys,
                            [&o](vkt_u32* places) { o.keyOrder(places); });
}

}  // namespace

// Interns what one node names and notes its share of the size hint; a
// container is only opened here, its elements follow from prepare's stack.
void VKTWriterValue::prepareNode(VKTWriterObject::Tables& tables) const {
  tables.sizeHint +=
      mType == TYPE_INTEGER ? integer_hint(mIntegerValue) : kSizeHint[mType];
  ++tables.values;
  switch (mType) {
    case TYPE_STRING:
      mStringInfo->mTag = tables.addString(mStringInfo->text());
      break;
    case vkt_internal::kShortStringType:
      setShortTag(tables.addString(shortText()));
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
      tables.sizeHint += head_hint(mObjectInfo->size(), true);
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
    vkt_u32 order;  // an object's entry in tables.orders
  };
  Open open[VKT_MAX_DEPTH];
  size_t depth = 0;  // containers open
  // An array of a few scalars that intern nothing, prepared in one step
  // without opening it; false for any other node (then nothing is done).
  auto scalar_hint = [](const VKTWriterValue& e) {
    return e.mType == TYPE_INTEGER ? integer_hint(e.mIntegerValue)
                                   : kSizeHint[e.mType];
  };
  auto prepareShort = [&](const VKTWriterValue& e) {
    if (e.mType != TYPE_ARRAY || depth == VKT_MAX_DEPTH ||
        e.mArrayInfo->size() > vkt_internal::kShortArray) {
      return false;
    }
    const ArrayInfo& array = *e.mArrayInfo;
    size_t hint = kSizeHint[TYPE_ARRAY] + head_hint(array.size(), false);
    for (const VKTWriterValue& x : array) {
      if (kVisited >> x.mType & 1) return false;
      hint += scalar_hint(x);
    }
    tables.sizeHint += hint;
    tables.values += 1 + array.size();
    if (depth + 1 > tables.deepest) tables.deepest = depth + 1;
    array.mSizeHint = clamp_u32(hint);
    return true;
  };
  const VKTWriterValue* node = this;
  for (;;) {
    // `node` is a value not yet visited.
    const size_t before = tables.sizeHint;
    node->prepareNode(tables);
    if (node->mType == TYPE_ARRAY || node->mType == TYPE_OBJECT) {
      if (depth == VKT_MAX_DEPTH) return false;
      const vkt_u32 order = node->mType == TYPE_OBJECT
                                ? member_order(tables, *node->mObjectInfo)
                                : 0;
      open[depth++] = Open{node, 0, before, order};
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
            if (prepareShort(e)) continue;
            node = &e;  // interned or opened above
            break;
          }
          tables.sizeHint += scalar_hint(e);
          ++tables.values;
        }
        if (node != nullptr) break;
        array.mSizeHint =
            vkt_internal::close_hint(tables, array.size(), false, top.before);
      } else {
        const ObjectInfo& object = *top.node->mObjectInfo;
        if (top.next < object.size()) {
          const vkt_u32 place = tables.orders.at(top.order)[top.next++];
          const VKTWriterValue& value = object.node(place);
          if (prepareShort(value)) continue;
          node = &value;
          break;
        }
        object.mSizeHint =
            vkt_internal::close_hint(tables, object.size(), true, top.before);
      }
      --depth;
    }
    if (node == nullptr) return true;
  }
}

// The common kinds as whole words (see generate_words); every kind fills
// all SCALAR_BUFFER_SIZE bytes of out, zero behind the image, or only the
// image's bytes of a buffer its caller zeroed.
vkt_u32 VKTWriterValue::encodeScalar(const VKTWriterObject::Tables& tables,
                                     vkt_u8* out) const {
  switch (mType) {
    case TYPE_BOOL:
      generate_words(out, mBoolValue ? ID_TRUE : ID_FALSE);
      break;
    case TYPE_INTEGER:
      generate_words(out, integer_word(mIntegerValue));
      break;
    case TYPE_LONG_INTEGER:
      generate_long_integer(out, mLongIntegerValue);
      break;
    case TYPE_SINGLE:
      generate_single(out, mFloatValue);
      break;
    case TYPE_DOUBLE:
      generate_double_words(out, mDoubleValue);
      break;
    case TYPE_STRING:
      generate_words(out, unsigned_word(tables.strings.tag(mStringInfo->mTag),
                                        ID_STRING_TAG8));
      break;
    case vkt_internal::kShortStringType:
      generate_words(
          out, unsigned_word(tables.strings.tag(shortTag()), ID_STRING_TAG8));
      break;
    case TYPE_STREAM:
      if (mStreamInfo->mStreamFlags & VKT_STREAM_FLAG_BOUND) {
        generate_bstream(out, tables.bstreams.tag(mStreamInfo->mTag));
      } else {
        generate_stream(out, tables.streams.tag(mStreamInfo->mTag));
      }
      break;
    default:  // TYPE_NULL
      generate_words(out, ID_NULL);
      break;
  }
  return get_value_size(out);
}

void VKTWriterValue::createImage(VKTWriterObject::Tables& tables) const {
  if (mType == TYPE_ARRAY || mType == TYPE_OBJECT) {
    createContainerImage(tables);
    return;
  }
  vkt_u8 buf[SCALAR_BUFFER_SIZE] = {};
  tables.value->append(buf, encodeScalar(tables, buf));
}

// The elements in order (an object's sorted by key) through a
// ContainerWriter; a container element is written one depth deeper first.
void VKTWriterValue::createContainerImage(
    VKTWriterObject::Tables& tables) const {
  if (tables.tooLarge) return;
  vkt_internal::ContainerWriter writer(tables);
  const bool isArray = mType == TYPE_ARRAY;
  const size_t count = isArray ? mArrayInfo->size() : mObjectInfo->size();
  vkt_u32 order = 0;
  if (!isArray) {
    order = member_order(tables, *mObjectInfo);
    const vkt_u32* ids = tables.orders.at(order) + count;
    std::vector<vkt_u32>& keys = writer.level().keys;
    keys.clear();
    for (size_t i = 0; i < count; ++i) keys.push_back(tables.keys.tag(ids[i]));
  }
  writer.open(isArray, count,
              isArray ? mArrayInfo->mSizeHint : mObjectInfo->mSizeHint);
  // A short array of scalars in one step; false for any other node.
  auto writeShort = [&tables](const VKTWriterValue& node) {
    if (node.mType != TYPE_ARRAY ||
        node.mArrayInfo->size() > vkt_internal::kShortArray) {
      return false;
    }
    vkt_internal::ShortArray a;
    for (const VKTWriterValue& e : *node.mArrayInfo) {
      if (e.mType == TYPE_ARRAY || e.mType == TYPE_OBJECT) return false;
      a.add(e.encodeScalar(tables, a.next()));
    }
    vkt_internal::write_short_array(tables, a);
    return true;
  };
  auto add = [&](const VKTWriterValue& element) {
    if (element.mType == TYPE_ARRAY || element.mType == TYPE_OBJECT) {
      const vkt_u32 begin = vkt_u32(tables.value->size());
      if (!writeShort(element)) element.createContainerImage(tables);
      writer.addContainer(begin);
    } else {
      vkt_u8 buf[SCALAR_BUFFER_SIZE] = {};
      writer.addScalar(buf, element.encodeScalar(tables, buf));
    }
  };
  if (isArray) {
    for (const VKTWriterValue& element : *mArrayInfo) add(element);
  } else {
    for (size_t i = 0; i < count; ++i) {
      add(mObjectInfo->node(tables.orders.at(order)[i]));
    }
  }
  writer.close();
}
