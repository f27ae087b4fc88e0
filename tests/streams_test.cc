// The library's read streams: a memory range and a window on another stream.
// VKTWriteStream::Write(reader) is the writer's way of copying reader
// payloads: the round trips write each tree twice from the same readers, and a
// 1 GiB payload passes without any large block.
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
