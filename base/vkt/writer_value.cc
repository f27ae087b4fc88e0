// VKTWriterValue: the editable tree. Scalars live in the node; strings,
// streams, arrays and objects in shared, reference-counted blocks (see
// writer_blocks.h). There is no copy on write: nodes sharing a block see
// every change made to its contents.
#include "vkt/writer_blocks.h"

namespace {

// Drops one reference; the last one deletes the block.
template <typename Block>
void release(Block* block) {
  if (--block->mRefCount < 1) delete block;
}

}  // namespace

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

void VKTWriterValue::clear() {
  static_assert(kNullType == TYPE_NULL, "the header's null is the encoding's");
  switch (mType) {
    case TYPE_STRING:
      release(mStringInfo);
      break;
    case TYPE_STREAM:
      release(mStreamInfo);
      break;
    case TYPE_ARRAY:
      release(mArrayInfo);
      break;
    case TYPE_OBJECT:
      release(mObjectInfo);
      break;
    default:
      break;
  }
  mType = TYPE_NULL;
}

void VKTWriterValue::setInt(vkt_s32 value) {
  clear();
  mType = TYPE_INTEGER;
  mIntegerValue = value;
}

void VKTWriterValue::setLongInt(vkt_s64 value) {
  clear();
  mType = TYPE_LONG_INTEGER;
  mLongIntegerValue = value;
}

void VKTWriterValue::setFloat(float value) {
  clear();
  mType = TYPE_SINGLE;
  mFloatValue = value;
}

void VKTWriterValue::setDouble(double value) {
  clear();
  mType = TYPE_DOUBLE;
  mDoubleValue = value;
}

void VKTWriterValue::setBool(bool value) {
  clear();
  mType = TYPE_BOOL;
  mBoolValue = value;
}

void VKTWriterValue::setString(const std::string& value) {
  StringInfo* info = new StringInfo;  // before clear: value may be ours
  info->mStringValue = value;
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

void VKTWriterValue::toArray() {
  if (mType == TYPE_ARRAY) return;
  clear();
  mType = TYPE_ARRAY;
  mArrayInfo = new ArrayInfo;
}

void VKTWriterValue::toObject() {
  if (mType == TYPE_OBJECT) return;
  clear();
  mType = TYPE_OBJECT;
  mObjectInfo = new ObjectInfo;
}

void VKTWriterValue::append(const VKTWriterValue& ref) {
  // Copy first: ref may be this node or live in the payload toArray drops.
  VKTWriterValue held(ref);
  toArray();
  mArrayInfo->mArrayValue.push_back(std::move(held));
}

VKTWriterValue& VKTWriterValue::operator[](vkt_u32 index) {
  toArray();
  std::vector<VKTWriterValue>& elements = mArrayInfo->mArrayValue;
  if (elements.size() <= index) elements.resize(size_t(index) + 1);
  return elements[index];
}

void VKTWriterValue::append(const std::string& key, const VKTWriterValue& ref) {
  VKTWriterValue held(ref);
  (*this)[key] = held;
}

VKTWriterValue& VKTWriterValue::operator[](const std::string& key) {
  toObject();
  VKTWriterValue*& member = mObjectInfo->mObjectValue[key];
  if (member == nullptr) member = new VKTWriterValue;
  return *member;
}

VKTWriterValue& VKTWriterValue::operator[](const char* key) {
  return (*this)[std::string(key)];
}
