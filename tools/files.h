// Reading an input whole and writing an output all or nothing.
#ifndef VKT_TOOLS_FILES_H_
#define VKT_TOOLS_FILES_H_

#include <cstddef>
#include <functional>
#include <string>
#include <vector>

#include "vkt.h"

// A whole input in memory: a regular file is mapped (privately, so that
// writes stay ours), anything else ("-" for stdin, a pipe) is read in large
// blocks, and so is a regular file when `copy` asks for a private copy. At
// least kPadding readable bytes follow the data, so the JSON parser can work
// on it without a copy. Failures throw ToolError naming the path as given.
//
// A mapped file cut short while the tool runs would end it with SIGBUS: the
// tool then says "FILE: input changed while being read", removes its
// temporary output and exits 1. Bytes rewritten in place after they were
// checked are not seen by the checks; only a copy guards against that.
class InputFile {
 public:
  static const size_t kPadding;  // VKT_JSON_PADDING

  explicit InputFile(const std::string& path, bool copy = false);
  ~InputFile();
  InputFile(const InputFile&) = delete;
  InputFile& operator=(const InputFile&) = delete;

  const std::string& name() const { return mName; }
  vkt_u8* data() { return mData; }
  const vkt_u8* data() const { return mData; }
  size_t size() const { return mSize; }
  // Readable bytes from data(): size() + kPadding or more.
  size_t capacity() const { return mCapacity; }

 private:
  bool map(int fd, size_t size);
  void readAll(int fd);

  std::string mName;
  vkt_u8* mData = nullptr;
  size_t mSize = 0;
  size_t mCapacity = 0;
  void* mMap = nullptr;  // the mapping, when there is one
  size_t mMapSize = 0;
  std::vector<vkt_u8> mBuffer;  // the data, when read
};

// True for "-", which names standard input or output.
inline bool is_std_stream(const std::string& path) { return path == "-"; }

// Writes `size` bytes to `path` ("-": standard output). A file is written
// to a temporary name in the target's directory, flushed to disk and
// renamed over the target, so that a failure leaves an existing target as
// it was and no partial file behind; an existing file keeps its
// permissions, and a link to one stays a link. A device or pipe is written
// in place. A link, even one to a file not yet there, is written through
// to its target; a hard link is not kept (the name gets a new file). A file
// the user may not write is refused unless set_output_force(true). Throws
// ToolError naming `path`, or the directory that refused the temporary file.
void write_output(const std::string& path, const void* data, size_t size);

// --force: replace an existing file even where the user may not write it.
void set_output_force(bool force);

// Takes one piece of an output.
typedef std::function<void(const void* data, size_t size)> OutputPiece;
// As above, with the bytes made as they are written: `produce` hands them
// to its argument piece by piece. When it throws, an existing target stays
// as it was (a device or standard output keeps what it was given).
void write_output(const std::string& path,
                  const std::function<void(const OutputPiece&)>& produce);

// A VKTWriteStream that hands what it takes to one output's pieces, for
// writers and printers that write through write_output.
class PieceSink : public VKTWriteStream {
 public:
  using VKTWriteStream::Write;
  explicit PieceSink(const OutputPiece& put) : mPut(put) {}
  vkt_u32 Offset() const override { return vkt_u32(mSize); }
  vkt_u64 Offset64() const { return mSize; }
  void Write(const vkt_u8* data, vkt_u32 size) override {
    mPut(data, size);
    mSize += size;
  }

 private:
  const OutputPiece& mPut;
  vkt_u64 mSize = 0;
};

// Fails naming `out` when it is the file `in` (the same file under any
// name): writing it would replace what the user gave with the result.
void refuse_same_file(const std::string& in, const std::string& out);

// What the tool is doing now ("FILE: printing"), for the messages of
// failures that cannot say it where they happen: running out of memory, or
// the input changing under the tool. Progress::stage sets it.
void set_activity(const std::string& file, const char* what);
// "FILE: out of memory while printing" (or "out of memory" before any stage).
std::string out_of_memory_message();

// Tells a person at a terminal what a long run is doing: stage names on
// stderr for inputs above kThreshold bytes, when stderr is a terminal;
// silent otherwise. The line is cleared when the object goes. Every stage
// is also recorded with set_activity.
class Progress {
 public:
  static const size_t kThreshold = size_t(50) << 20;

  Progress(const std::string& name, size_t bytes);
  ~Progress();
  void stage(const char* what);

 private:
  std::string mName;
  size_t mBytes;
  bool mOn;
};

#endif  // VKT_TOOLS_FILES_H_
