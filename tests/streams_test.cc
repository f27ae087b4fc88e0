// The library's read streams (memory range, window) and write streams.
#include "vkt/streams.h"

#include <gtest/gtest.h>

#include <vector>

#include "testutil.h"

namespace {

// A sink that keeps the size of every call of the virtual Write.
class CallSink : public VKTWriteStream {
 public:
  using VKTWriteStream::Write;
  vkt_u32 Offset() const override { return vkt_u32(bytes.size()); }
  void Write(const vkt_u8* p, vkt_u32 size) override {
    calls.push_back(size);
    bytes.insert(bytes.end(), p, p + size);
  }
  std::vector<vkt_u32> calls;
  vkt_binary bytes;
};

// Seek(start, SET), then Seek(offset, origin) answering `pos`, then a Read of
// `want` bytes delivering `got`; Tell answers `after`. Over the bytes 00-03.
struct SeekRead {
  vkt_u32 start, offset, origin, pos, want;
  const char* got;
  vkt_u32 after;
};
const SeekRead kSeekReads[] = {
    {1, 0, VKT_ORIGIN_CUR, 1, 0, "", 1},
    {1, 0, VKT_ORIGIN_CUR, 1, 2, "01 02", 3},
    {2, 1, VKT_ORIGIN_CUR, 3, 10, "03", 4},
    {3, 0xFFFFFFFE, VKT_ORIGIN_CUR, 1, 1, "01", 2},
    {0, 0, VKT_ORIGIN_END, 4, 1, "", 4},
    {0, 0xFFFFFFFF, VKT_ORIGIN_END, 3, 5, "03", 4},
    {0, 10, VKT_ORIGIN_SET, 10, 1, "", 10},
    {10, 0, VKT_ORIGIN_SET, 0, 4, "00 01 02 03", 4},
    {0, 0xFFFFFFFF, VKT_ORIGIN_SET, 0xFFFFFFFF, 1, "", 0xFFFFFFFF},
    {2, 7, 3, 2, 1, "02", 3}};  // unknown origin: position stays

void run_seek_reads(VKTReadStream* s) {
  for (const SeekRead& r : kSeekReads) {
    SCOPED_TRACE(testing::Message() << r.start << " " << r.offset << " "
                                    << r.origin << " want " << r.want);
    s->Seek(r.start, VKT_ORIGIN_SET);
    EXPECT_EQ(s->Seek(r.offset, vkt_origin(r.origin)), r.pos);
    vkt_binary buf(16, 0xEE);
    buf.resize(s->Read(buf.data(), r.want));
    EXPECT_EQ(to_hex(buf), to_hex(hex(r.got)));
    EXPECT_EQ(s->Tell(), r.after);
    EXPECT_EQ(s->Size(), 4u);
  }
}

TEST(ReadStreams, MemoryAndWindowSeekAndRead) {
  const vkt_binary bytes = hex("AA BB 00 01 02 03 CC DD");
  VKTMemoryReadStream memory(bytes.data() + 2, 4);
  run_seek_reads(&memory);
  RecordingReadStream inner(bytes);
  VKTReadStreamWindow window(&inner, 2, 4);
  run_seek_reads(&window);
}

TEST(ReadStreams, WindowsShareOneInnerStream) {
  RecordingReadStream inner(hex("00 01 02 03 04 05 06 07 08 09"));
  VKTReadStreamWindow a(&inner, 2, 3), b(&inner, 6, 4), empty(&inner, 0, 0);
  vkt_u8 buf[4];
  inner.pos = 5;
  a.Seek(0, VKT_ORIGIN_SET);
  EXPECT_EQ(empty.Read(buf, 4), 0u);
  EXPECT_EQ(empty.Read(buf, 0), 0u);
  EXPECT_EQ(inner.calls, "");  // construction, Seek and an empty window
  EXPECT_EQ(inner.pos, 5u);
  const char* expected[] = {"02 03", "06 07", "04", "08 09", "", ""};
  for (int i = 0; i < 6; ++i) {
    VKTReadStreamWindow& w = i % 2 ? b : a;
    EXPECT_EQ(to_hex(vkt_binary(buf, buf + w.Read(buf, 2))),
              to_hex(hex(expected[i])));
  }
  inner.calls.clear();
  EXPECT_EQ(a.Seek(1, VKT_ORIGIN_SET), 1u);
  EXPECT_EQ(a.Read(buf, 0), 0u);
  EXPECT_EQ(inner.calls, "KR");  // a read of 0 inside still seeks
}

TEST(WriteStreams, CopiesAReaderFromItsStartInBlocks) {
  const std::pair<size_t, std::vector<vkt_u32>> rows[] = {
      {0, {}}, {8192, {8192}}, {8193, {8192, 1}}};
  for (const auto& row : rows) {
    SCOPED_TRACE(row.first);
    vkt_binary data(row.first);
    for (size_t i = 0; i < data.size(); ++i) data[i] = vkt_u8(i * 7 + i / 251);
    RecordingReadStream reader(data);
    reader.Seek(vkt_offset(row.first / 2), VKT_ORIGIN_SET);
    reader.calls.clear();
    CallSink sink;
    sink.Write(&reader);
    EXPECT_EQ(sink.calls, row.second);
    EXPECT_EQ(reader.calls, "K" + std::string(row.second.size() + 1, 'R'));
    EXPECT_TRUE(sink.bytes == data);
  }
  CallSink sink;
  sink.Write(static_cast<VKTReadStream*>(nullptr));
  sink.Write(vkt_binary());
  EXPECT_TRUE(sink.calls.empty());
  sink.Write(hex("01 02 03"));
  EXPECT_EQ(sink.calls, std::vector<vkt_u32>{3});
}

TEST(WriteStreams, DummyCountsAndBinaryAppends) {
  VKTDummyWriteStream dummy(5);
  dummy.Write(nullptr, 3);
  dummy.Write(nullptr, 4);
  EXPECT_EQ(dummy.Offset(), 12u);
  vkt_binary vec = hex("01 02 03");
  VKTBinaryWriteStream binary(vec);
  EXPECT_EQ(binary.Offset(), 3u);
  binary.Write(hex("04 05"));
  EXPECT_EQ(to_hex(vec), "01 02 03 04 05");
  EXPECT_EQ(binary.Offset(), 5u);
}

}  // namespace
