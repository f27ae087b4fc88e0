// The library's read streams (memory range, window) and write streams.
#include "vkt/streams.h"

#include <gtest/gtest.h>

#include "testutil.h"

TEST(ReadStreams, MemoryAndWindowsSeekAndRead) {
  RecordingReadStream inner(hex("AA BB 00 01 02 03 CC DD"));
  VKTMemoryReadStream memory(&inner.bytes[2], 4);
  VKTReadStreamWindow window(&inner, 2, 4), empty(&inner, 0, 0);
  vkt_u8 buf[16];
  // An empty window never touches its inner stream.
  EXPECT_EQ(empty.Read(buf, 4) + empty.Read(buf, 0) + inner.calls.size(), 0u);
  // Over the bytes 00-03, from position 0, each row goes on from the last:
  // Seek(offset, origin) answers pos, then a Read of want bytes delivers got.
  // Origin 3 is unknown and leaves the position; positions wrap at 2^32.
  // clang-format off
  struct Row { vkt_u32 offset, origin, pos, want; const char* got; };
  const Row rows[] = {
      {1, VKT_ORIGIN_CUR, 1, 2, "01 02"}, {7, 3, 3, 1, "03"}, {0xFFFFFFFD, VKT_ORIGIN_CUR, 1, 1, "01"},
      {1, VKT_ORIGIN_CUR, 3, 10, "03"}, {0, VKT_ORIGIN_CUR, 4, 1, ""}, {0xFFFFFFFF, VKT_ORIGIN_END, 3, 5, "03"},
      {0, VKT_ORIGIN_CUR, 4, 0, ""}, {10, VKT_ORIGIN_SET, 10, 1, ""}, {0, VKT_ORIGIN_CUR, 10, 0, ""},
      {0, VKT_ORIGIN_SET, 0, 4, "00 01 02 03"}, {0xFFFFFFFF, VKT_ORIGIN_SET, 0xFFFFFFFF, 1, ""},
      {2, VKT_ORIGIN_CUR, 1, 1, "01"}};
  // clang-format on
  for (VKTReadStream* s : std::vector<VKTReadStream*>{&memory, &window}) {
    for (const Row& r : rows) {
      // Someone else moves the inner stream between the window's calls.
      inner.Seek(7, VKT_ORIGIN_SET);
      EXPECT_EQ(s->Seek(r.offset, vkt_origin(r.origin)), r.pos) << &r - rows;
      EXPECT_EQ(to_hex(vkt_binary(buf, buf + s->Read(buf, r.want))), r.got)
          << &r - rows;
    }
  }
}

TEST(WriteStreams, CopiesAReaderFromItsStartInBlocks) {
  // A sink that keeps the size of every call of the virtual Write.
  struct CallSink : VKTWriteStream {
    vkt_u32 Offset() const override { return vkt_u32(bytes.size()); }
    void Write(const vkt_u8* p, vkt_u32 size) override {
      calls.push_back(size);
      bytes.insert(bytes.end(), p, p + size);
    }
    std::vector<vkt_u32> calls;
    vkt_binary bytes;
  };
  for (vkt_u32 n : {8192u, 8193u}) {
    vkt_binary data(n);
    for (size_t i = 0; i < n; ++i) data[i] = vkt_u8(i * 7 + i / 251);
    // A reader standing in its middle is still copied from its start.
    RecordingReadStream reader(data);
    reader.Seek(n / 2, VKT_ORIGIN_SET);
    CallSink sink;
    sink.VKTWriteStream::Write(&reader);
    sink.VKTWriteStream::Write(vkt_binary());  // no call for an empty vector
    // Blocks of 8192 bytes: one call for 8192, two for 8193.
    EXPECT_EQ(sink.calls.size(), n - 8191);
    EXPECT_EQ(sink.calls[0], 8192u);
    EXPECT_TRUE(sink.bytes == data);
  }
}
