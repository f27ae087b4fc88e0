// VKTWriterValue: the editable tree. Scalars live in the node; strings,
// streams, arrays and objects in shared, reference-counted blocks (see
// writer_blocks.h). There is no copy on write: nodes sharing a block see
// every change made to its contents.
#include <algorithm>
#include <vector>

#include "vkt/writer_blocks.h"

using vkt_internal::hash_bytes;
using vkt_internal::kBlockTypes;

namespace {

// Drops one reference; the last one gives the block back.
template <typename Block>
void release(Block* block) {
  if (--block->mRefCount < 1) Block::destroy(block);
}

}  // namespace

// The setters test kBlockTypes themselves and call this only for a block.
void VKTWriterValue::clear() {
  static_assert(kNullType == TYPE_NULL, "the header's null is the encoding's");
  if (kBlockTypes >> mType & 1) {
    switch (mType) {
      case TYPE_STRING:
        release(mStringInfo);
        break;
      case TYPE_STREAM:
        release(mStreamInfo);
        break;
      default:
        releaseContainer();
        break;
    }
  }
  mType = TYPE_NULL;
}

VKTWriterValue::VKTWriterValue(VKTWriterValue&& r) noexcept : mType(TYPE_NULL) {
  share(r);
  r.clear();  // hands r's reference over; the block lives on in this node
}

void VKTWriterValue::share(const VKTWriterValue& r) {
  mType = r.mType;
  switch (mType) {
    case TYPE_BOOL:
      mBoolValue = r.mBoolValue;
      break;
    case TYPE_INTEGER:
      mIntegerValue = r.mIntegerValue;
      break;
    case TYPE_LONG_INTEGER:
      mLongIntegerValue = r.mLongIntegerValue;
      break;
    case TYPE_SINGLE:
      mFloatValue = r.mFloatValue;
      break;
    case TYPE_DOUBLE:
      mDoubleValue = r.mDoubleValue;
      break;
    case TYPE_STRING:
      mStringInfo = r.mStringInfo;
      ++mStringInfo->mRefCount;
      break;
    case TYPE_STREAM:
      mStreamInfo = r.mStreamInfo;
      ++mStreamInfo->mRefCount;
      break;
    case TYPE_ARRAY:
      mArrayInfo = r.mArrayInfo;
      ++mArrayInfo->mRefCount;
      break;
    case TYPE_OBJECT:
      mObjectInfo = r.mObjectInfo;
      ++mObjectInfo->mRefCount;
      break;
    case vkt_internal::kShortStringType:
      std::memcpy(mShortHead, r.mShortHead, sizeof mShortHead);
      std::memcpy(mShortTail, r.mShortTail, sizeof mShortTail);
      break;
    default:  // TYPE_NULL: nothing to copy
      break;
  }
}

VKTWriterValue& VKTWriterValue::operator=(const VKTWriterValue& r) {
  if (&r == this) return *this;
  // Hold r's block before releasing our own: r may live inside our payload
  // (root = root["child"]) and die with it.
  VKTWriterValue held(r);
  clear();
  share(held);
  return *this;
}

void VKTWriterValue::releaseContainer() {
  // A walk in element order over the blocks whose last reference is gone,
  // as a recursive delete would take them, with its stack on the heap past
  // a few levels. Each container element drops its reference and is made
  // null before its block goes, so the block's own destructor never
  // reaches a container and the call stack stays flat whatever the depth.
  struct Dying {
    bool isArray;
    void* block;
    size_t next;  // index of the next element to look at
  };
  const size_t kFew = 16;
  Dying few[kFew];
  size_t fewCount = 0;
  std::vector<Dying> more;
  auto detach = [&](VKTWriterValue& node) {
    const bool isArray = node.mType == TYPE_ARRAY;
    if (!isArray && node.mType != TYPE_OBJECT) return;
    void* block = isArray ? static_cast<void*>(node.mArrayInfo)
                          : static_cast<void*>(node.mObjectInfo);
    node.mType = TYPE_NULL;
    if (--(isArray ? static_cast<ArrayInfo*>(block)->mRefCount
                   : static_cast<ObjectInfo*>(block)->mRefCount) > 0) {
      return;
    }
    if (isArray) {  // an array of plain scalars goes at once
      ArrayInfo* array = static_cast<ArrayInfo*>(block);
      vkt_u32 types = 0;
      for (const VKTWriterValue& e : *array) types |= 1u << e.mType;
      if (!(types & kBlockTypes)) {
        delete array;
        return;
      }
    }
    if (fewCount < kFew) {
      few[fewCount++] = Dying{isArray, block, 0};
    } else {
      more.push_back(Dying{isArray, block, 0});
    }
  };
  detach(*this);
  while (fewCount != 0) {
    Dying& top = more.empty() ? few[fewCount - 1] : more.back();
    VKTWriterValue* child = nullptr;
    if (top.isArray) {
      ArrayInfo* block = static_cast<ArrayInfo*>(top.block);
      if (top.next < block->mSize) {
        child = &block->data()[top.next++];
      } else {
        delete block;
      }
    } else {
      ObjectInfo* block = static_cast<ObjectInfo*>(top.block);
      if (top.next < block->size()) {
        child = &block->node(top.next++);
      } else {
        ObjectInfo::destroy(block);
      }
    }
    if (child != nullptr) {
      detach(*child);
    } else if (!more.empty()) {
      more.pop_back();
    } else {
      --fewCount;
    }
  }
}

void VKTWriterValue::setInt(vkt_s32 value) {
  if (kBlockTypes >> mType & 1) clear();
  mType = TYPE_INTEGER;
  mIntegerValue = value;
}

void VKTWriterValue::setLongInt(vkt_s64 value) {
  if (kBlockTypes >> mType & 1) clear();
  mType = TYPE_LONG_INTEGER;
  mLongIntegerValue = value;
}

void VKTWriterValue::setFloat(float value) {
  if (kBlockTypes >> mType & 1) clear();
  mType = TYPE_SINGLE;
  mFloatValue = value;
}

void VKTWriterValue::setDouble(double value) {
  if (kBlockTypes >> mType & 1) clear();
  mType = TYPE_DOUBLE;
  mDoubleValue = value;
}

void VKTWriterValue::setBool(bool value) {
  if (kBlockTypes >> mType & 1) clear();
  mType = TYPE_BOOL;
  mBoolValue = value;
}

void VKTWriterValue::setString(const std::string& value) {
  if (value.size() <= vkt_internal::kShortMost) {
    if (kBlockTypes >> mType & 1) clear();
    mType = vkt_u8(vkt_internal::kShortStringType);
    mShortHead[0] = char(value.size());
    if (!value.empty()) {
      std::memcpy(reinterpret_cast<char*>(this) + 2, value.data(),
                  value.size());
    }
    return;
  }
  // Made before clear: value may be ours.
  StringInfo* info = StringInfo::make(value);
  clear();
  mType = TYPE_STRING;
  mStringInfo = info;
}

void VKTWriterValue::setStream(const vkt_u8* stream, vkt_u32 size,
                               vkt_u32 alignment, vkt_alloc_type allocType,
                               vkt_u32 flags) {
  StreamInfo* info = new StreamInfo;
  if (size == 0 || allocType == VKT_ALLOC_REFER) {
    info->mStreamPtr = stream;  // the caller keeps the bytes valid
  } else {
    info->mStreamImage = new vkt_binary(stream, stream + size);
    info->mStreamPtr = info->mStreamImage->data();
  }
  info->mStreamSize = size;
  info->mStreamAlignment = alignment;
  info->mStreamFlags = flags;
  clear();
  mType = TYPE_STREAM;
  mStreamInfo = info;
}

void VKTWriterValue::setStream(VKTReadStream* reader, vkt_u32 alignment,
                               vkt_u32 flags) {
  StreamInfo* info = new StreamInfo;
  info->mReader = reader;
  info->mStreamSize = reader->Size();  // asked once; read when written
  info->mStreamAlignment = alignment;
  info->mStreamFlags = flags;
  clear();
  mType = TYPE_STREAM;
  mStreamInfo = info;
}

// The block is made first, so a failed allocation leaves the node as it was.
void VKTWriterValue::toArray() {
  if (mType == TYPE_ARRAY) return;
  ArrayInfo* array = new ArrayInfo;
  if (kBlockTypes >> mType & 1) clear();
  mType = TYPE_ARRAY;
  mArrayInfo = array;
}

void VKTWriterValue::toObject() { toObject(std::string_view()); }

// `firstKey` sizes the new block for the shape it begins.
void VKTWriterValue::toObject(std::string_view firstKey) {
  if (mType == TYPE_OBJECT) return;
  ObjectInfo* object = ObjectInfo::make(firstKey);
  if (kBlockTypes >> mType & 1) clear();
  mType = TYPE_OBJECT;
  mObjectInfo = object;
}

void VKTWriterValue::append(const VKTWriterValue& ref) {
  // Copy first: ref may be this node or live in the payload toArray drops.
  VKTWriterValue held(ref);
  toArray();
  mArrayInfo->growTo(mArrayInfo->size() + 1);
  mArrayInfo->data()[mArrayInfo->size() - 1].share(held);
}

VKTWriterValue& VKTWriterValue::operator[](vkt_u32 index) {
  if (mType != TYPE_ARRAY) toArray();
  mArrayInfo->growTo(size_t(index) + 1);
  return mArrayInfo->data()[index];
}

void VKTWriterValue::append(const std::string& key, const VKTWriterValue& ref) {
  VKTWriterValue held(ref);
  (*this)[key] = held;
}

VKTWriterValue& VKTWriterValue::operator[](const std::string& key) {
  toObject(key);
  return mObjectInfo->at(key);
}

VKTWriterValue& VKTWriterValue::operator[](const char* key) {
  const std::string_view k(key);
  toObject(k);
  return mObjectInfo->at(k);
}
