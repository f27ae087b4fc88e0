// The reference-counted payload blocks of VKTWriterValue. Each starts with
// mRefCount, the number of nodes that point at it (1 when made); the last
// node to let go deletes the block and what it owns.
#ifndef VKT_WRITER_BLOCKS_H_
#define VKT_WRITER_BLOCKS_H_

#include <map>
#include <string>
#include <vector>

#include "vkt/format.h"

struct VKTWriterValue::StringInfo {
  vkt_s32 mRefCount = 1;
  std::string mStringValue;  // own copy; a NUL inside it stays
};

struct VKTWriterValue::StreamInfo {
  vkt_s32 mRefCount = 1;
  vkt_binary* mStreamImage = nullptr;  // owned copy of the bytes, or null
  const vkt_u8* mStreamPtr = nullptr;  // where the bytes are; never freed
  vkt_u32 mStreamSize = 0;
  vkt_u32 mStreamAlignment = 0;      // as passed; 0 and 1 mean none
  vkt_u32 mStreamFlags = 0;          // VKT_STREAM_FLAG_BOUND makes a bstream
  VKTReadStream* mReader = nullptr;  // owned; never set with mStreamImage

  ~StreamInfo() {
    delete mReader;
    delete mStreamImage;
  }
};

struct VKTWriterValue::ArrayInfo {
  vkt_s32 mRefCount = 1;
  std::vector<VKTWriterValue> mArrayValue;
};

struct VKTWriterValue::ObjectInfo {
  vkt_s32 mRefCount = 1;
  // Nodes are allocated one by one, so a member's address stays put while
  // the map grows. std::string orders as unsigned bytes, a prefix first.
  std::map<std::string, VKTWriterValue*> mObjectValue;

  ~ObjectInfo() {
    for (auto& member : mObjectValue) delete member.second;
  }
};

#endif  // VKT_WRITER_BLOCKS_H_
