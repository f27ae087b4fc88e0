// The two non-virtual Write forms of VKTWriteStream, shared by every sink.
#include "vkt/streams.h"

void VKTWriteStream::Write(const vkt_binary& image) {
  if (!image.empty()) Write(image.data(), vkt_u32(image.size()));
}

void VKTWriteStream::Write(VKTReadStream* reader) {
  if (reader == nullptr) return;
  // A payload need not fit in memory: one stack buffer carries it through.
  const vkt_size kCopyBufferSize = 8192;
  vkt_u8 buffer[kCopyBufferSize];
  reader->Seek(0, VKT_ORIGIN_SET);
  for (vkt_size len = reader->Read(buffer, kCopyBufferSize); len != 0;
       len = reader->Read(buffer, kCopyBufferSize)) {
    Write(buffer, len);
  }
}
