// The library's own read and write streams. Programs know them only through
// VKTReadStream and VKTWriteStream; the classes stay inside the library, with
// internal linkage.
#ifndef VKT_STREAMS_H_
#define VKT_STREAMS_H_

#include <algorithm>
#include <cstring>  // memcpy

#include "vkt.h"

namespace {

// New position of a Seek, the same for every stream of the library: 32-bit
// arithmetic that wraps, never clamped, so a position may lie past the end
// (where Read answers 0). An unknown origin leaves the position alone.
inline vkt_offset seek_position(vkt_offset pos, vkt_size size,
                                vkt_offset offset, vkt_origin origin) {
  switch (origin) {
    case VKT_ORIGIN_SET:
      return offset;
    case VKT_ORIGIN_CUR:
      return pos + offset;
    case VKT_ORIGIN_END:
      return size + offset;
    default:
      return pos;
  }
}

// Length of a read of `want` bytes at `pos` in a range of `size` bytes.
inline vkt_size read_length(vkt_offset pos, vkt_size size, vkt_size want) {
  return pos < size ? std::min(size - pos, want) : 0;
}

// Reads a range of memory that it does not own; the memory must outlive it.
class VKTMemoryReadStream : public VKTReadStream {
 public:
  VKTMemoryReadStream(const vkt_u8* image, vkt_size size)
      : image(image), size(size), pos(0) {}

  vkt_size Size() const override { return size; }
  vkt_size Read(vkt_u8* dest, vkt_size want) override {
    const vkt_size len = read_length(pos, size, want);
    if (len != 0) std::memcpy(dest, image + pos, len);
    pos += len;
    return len;
  }
  vkt_offset Seek(vkt_offset offset, vkt_origin origin) override {
    return pos = seek_position(pos, size, offset, origin);
  }

 private:
  const vkt_u8* image;
  vkt_size size;
  vkt_offset pos;
};

// Shows `size` bytes of another stream, from `offset` on, as a stream of its
// own. Every Read seeks the inner stream first, so any number of windows can
// share one inner stream and be read in turns. The inner stream is not owned
// and must outlive the window; it is expected to hold the whole range.
class VKTReadStreamWindow : public VKTReadStream {
 public:
  VKTReadStreamWindow(VKTReadStream* reader, vkt_offset offset, vkt_size size)
      : reader(reader), offset(offset), size(size), pos(0) {}

  vkt_size Size() const override { return size; }
  // Answers the length asked of the inner stream, not what it delivered: a
  // source shorter than its image's tables leaves the rest unwritten.
  vkt_size Read(vkt_u8* dest, vkt_size want) override {
    if (pos >= size) return 0;
    const vkt_size len = read_length(pos, size, want);
    reader->Seek(offset + pos, VKT_ORIGIN_SET);
    reader->Read(dest, len);
    pos += len;
    return len;
  }
  vkt_offset Seek(vkt_offset offset_, vkt_origin origin) override {
    return pos = seek_position(pos, size, offset_, origin);
  }

 private:
  VKTReadStream* reader;
  vkt_offset offset;
  vkt_size size;
  vkt_offset pos;
};

// Appends to a vector that it does not own. Offset starts at what the vector
// already holds.
class VKTBinaryWriteStream : public VKTWriteStream {
 public:
  using VKTWriteStream::Write;
  explicit VKTBinaryWriteStream(vkt_binary& _image) : image(_image) {}

  vkt_u32 Offset() const override { return vkt_u32(image.size()); }
  void Write(const vkt_u8* catImage, vkt_u32 size) override {
    image.insert(image.end(), catImage, catImage + size);
  }

 private:
  vkt_binary& image;
};

// Counts bytes and stores none; catImage is never read. The writer measures
// stream layouts with it before any payload is touched.
class VKTDummyWriteStream : public VKTWriteStream {
 public:
  using VKTWriteStream::Write;
  explicit VKTDummyWriteStream(vkt_u32 initialOffset) : offset(initialOffset) {}

  vkt_u32 Offset() const override { return offset; }
  void Write(const vkt_u8*, vkt_u32 size) override { offset += size; }

 private:
  vkt_u32 offset;
};

}  // namespace

#endif  // VKT_STREAMS_H_
