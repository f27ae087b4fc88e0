// Inputs are mapped or read whole, never byte by byte; outputs go through
// a temporary file and a rename.
#include "files.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>  // free
#include <cstring>  // strerror

#include "tool.h"
#include "vkt_json.h"

const size_t InputFile::kPadding = VKT_JSON_PADDING;

namespace {

std::string os_error() { return std::strerror(errno); }

std::string sActivityFile;
std::string sActivity;

// What the SIGBUS handler needs, kept where it can read it without
// allocating: the message for the mapped input, and the temporary output
// to remove. Plain arrays: a handler may only call async-signal-safe code.
char sInputChanged[4200];
size_t sInputChangedSize = 0;
char sTempOutput[4096];

void on_input_changed(int) {
  if (sTempOutput[0] != '\0') ::unlink(sTempOutput);
  const ssize_t ignored =
      ::write(STDERR_FILENO, sInputChanged, sInputChangedSize);
  (void)ignored;
  ::_exit(1);
}

// From here on a SIGBUS (a mapped page past the file's new end) is
// reported as the input changing under the tool.
void watch_mapped_input(const std::string& name) {
  const std::string text =
      "vkt: " + name + ": input changed while being read\n";
  sInputChangedSize =
      text.size() < sizeof(sInputChanged) ? text.size() : sizeof(sInputChanged);
  std::memcpy(sInputChanged, text.data(), sInputChangedSize);
  struct sigaction action;
  std::memset(&action, 0, sizeof(action));
  action.sa_handler = on_input_changed;
  ::sigaction(SIGBUS, &action, nullptr);
}

void remember_temp_output(const std::string& path) {
  if (path.size() >= sizeof(sTempOutput)) return;
  std::memcpy(sTempOutput, path.c_str(), path.size() + 1);
}

// Closes a descriptor when the scope ends, unless it is one of ours to keep.
struct FdCloser {
  int fd;
  ~FdCloser() {
    if (fd > STDERR_FILENO) ::close(fd);
  }
};

}  // namespace

void set_activity(const std::string& file, const char* what) {
  sActivityFile = file;
  sActivity = what;
}

std::string out_of_memory_message() {
  if (sActivity.empty()) return "out of memory";
  return sActivityFile + ": out of memory while " + sActivity;
}

InputFile::InputFile(const std::string& path, bool copy) : mName(path) {
  set_activity(path, "reading");
  int fd = STDIN_FILENO;
  if (!is_std_stream(path)) {
    fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0) fail(path, os_error());
  }
  FdCloser closer{fd};
  struct stat st;
  if (::fstat(fd, &st) != 0) fail(path, os_error());
  if (S_ISDIR(st.st_mode)) fail(path, std::strerror(EISDIR));
  // Some regular files (under /proc, say) report size 0 and still hold
  // bytes: those are read like a pipe.
  if (copy || !S_ISREG(st.st_mode) || st.st_size == 0 ||
      !map(fd, size_t(st.st_size))) {
    readAll(fd);
  }
}

InputFile::~InputFile() {
  if (mMap != nullptr) ::munmap(mMap, mMapSize);
}

// Reserves zeroed anonymous pages for size + padding, then maps the file
// over their front: the padding reads as zeros and needs no copy.
bool InputFile::map(int fd, size_t size) {
  const size_t page = size_t(::sysconf(_SC_PAGESIZE));
  const size_t total = (size + kPadding + page - 1) / page * page;
  void* base = ::mmap(nullptr, total, PROT_READ | PROT_WRITE,
                      MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
  if (base == MAP_FAILED) return false;
  if (size != 0 && ::mmap(base, size, PROT_READ | PROT_WRITE,
                          MAP_PRIVATE | MAP_FIXED, fd, 0) == MAP_FAILED) {
    ::munmap(base, total);
    return false;
  }
  watch_mapped_input(mName);
  mMap = base;
  mMapSize = total;
  mData = static_cast<vkt_u8*>(base);
  mSize = size;
  mCapacity = total;
  return true;
}

// Pipes and terminals: read in blocks that double as the input grows.
void InputFile::readAll(int fd) {
  size_t used = 0;
  mBuffer.resize(size_t(1) << 16);
  for (;;) {
    if (mBuffer.size() - used < kPadding + 4096) {
      mBuffer.resize(mBuffer.size() * 2);
    }
    const ssize_t got =
        ::read(fd, mBuffer.data() + used, mBuffer.size() - used - kPadding);
    if (got == 0) break;
    if (got < 0) {
      if (errno == EINTR) continue;
      fail(mName, os_error());
    }
    used += size_t(got);
  }
  mData = mBuffer.data();
  mSize = used;
  mCapacity = mBuffer.size();
}

namespace {

void write_all(int fd, const std::string& name, const void* data, size_t size) {
  const char* p = static_cast<const char*>(data);
  while (size > 0) {
    const ssize_t put = ::write(fd, p, size);
    if (put < 0) {
      if (errno == EINTR) continue;
      fail(name, os_error());
    }
    p += put;
    size -= size_t(put);
  }
}

// The temporary file of one output: removed again unless it was renamed.
// Made beside `target` with permissions `mode`; messages name `name`.
class TempFile {
 public:
  TempFile(const std::string& target, const std::string& name, mode_t mode)
      : mTarget(target), mName(name) {
    const size_t slash = target.rfind('/');
    const std::string dir =
        slash == std::string::npos ? "." : target.substr(0, slash + 1);
    const std::string base =
        slash == std::string::npos ? target : target.substr(slash + 1);
    mPath = (slash == std::string::npos ? "./" : dir) + "." + base + ".XXXXXX";
    mFd = ::mkstemp(&mPath[0]);
    if (mFd < 0) {
      fail(slash == std::string::npos ? "." : dir,
           "cannot make a temporary file for " + name + ": " + os_error());
    }
    remember_temp_output(mPath);
    ::fchmod(mFd, mode);  // mkstemp makes the file private
  }
  ~TempFile() {
    if (mFd >= 0) ::close(mFd);
    if (!mRenamed) ::unlink(mPath.c_str());
    remember_temp_output("");
  }
  int fd() const { return mFd; }
  void commit() {
    if (::fsync(mFd) != 0) fail(mName, os_error());
    const int fd = mFd;
    mFd = -1;
    if (::close(fd) != 0) fail(mName, os_error());
    if (::rename(mPath.c_str(), mTarget.c_str()) != 0) fail(mName, os_error());
    mRenamed = true;
  }

 private:
  std::string mTarget;
  std::string mName;
  std::string mPath;
  int mFd = -1;
  bool mRenamed = false;
};

typedef std::function<void(const OutputPiece&)> Producer;

void replace_file(const std::string& target, const std::string& name,
                  mode_t mode, const Producer& produce) {
  TempFile temp(target, name, mode);
  produce([&](const void* data, size_t size) {
    write_all(temp.fd(), name, data, size);
  });
  temp.commit();
}

// The file a path names once its links are followed: the one to replace.
std::string resolved(const std::string& path) {
  char* real = ::realpath(path.c_str(), nullptr);
  if (real == nullptr) return path;
  const std::string result = real;
  std::free(real);
  return result;
}

// Where a link that leads to nothing (yet) points, as a path from here; the
// path itself when it is no link. Followed up to 40 links, as the system does.
std::string link_target(std::string path) {
  for (int hops = 0; hops < 40; ++hops) {
    struct stat st;
    if (::lstat(path.c_str(), &st) != 0 || !S_ISLNK(st.st_mode)) break;
    std::string target(size_t(st.st_size) + 1, '\0');
    const ssize_t n = ::readlink(path.c_str(), &target[0], target.size());
    if (n < 0 || size_t(n) >= target.size()) break;
    target.resize(size_t(n));
    const size_t slash = path.rfind('/');
    if (target[0] != '/' && slash != std::string::npos) {
      target = path.substr(0, slash + 1) + target;
    }
    path = target;
  }
  return path;
}

bool sForce = false;

}  // namespace

// A device, pipe or socket is written where it is, since a file renamed
// over it would take its place; an existing file is replaced with its
// permissions kept and, through a link, the link left as it was.
void write_output(const std::string& path, const void* data, size_t size) {
  write_output(path, [&](const OutputPiece& put) { put(data, size); });
}

void write_output(const std::string& path, const Producer& produce) {
  auto to = [&](int fd) {
    produce([&](const void* data, size_t size) {
      write_all(fd, path, data, size);
    });
  };
  if (is_std_stream(path)) {
    std::fflush(stdout);  // what stdio holds goes first
    to(STDOUT_FILENO);
    return;
  }
  struct stat st;
  if (::stat(path.c_str(), &st) != 0) {
    const mode_t mask = ::umask(0);
    ::umask(mask);
    replace_file(link_target(path), path, 0666 & ~mask, produce);
  } else if (S_ISDIR(st.st_mode)) {
    fail(path, std::strerror(EISDIR));
  } else if (S_ISREG(st.st_mode)) {
    if (!sForce && ::access(path.c_str(), W_OK) != 0) {
      fail(path, "you may not write this file (--force replaces it anyway)");
    }
    replace_file(resolved(path), path, st.st_mode & 07777, produce);
  } else {
    const int fd = ::open(path.c_str(), O_WRONLY | O_CLOEXEC);
    if (fd < 0) fail(path, os_error());
    FdCloser closer{fd};
    to(fd);
  }
}

void set_output_force(bool force) { sForce = force; }

void refuse_same_file(const std::string& in, const std::string& out) {
  if (is_std_stream(in) || is_std_stream(out)) return;
  struct stat a, b;
  if (::stat(in.c_str(), &a) != 0 || ::stat(out.c_str(), &b) != 0) return;
  if (a.st_dev == b.st_dev && a.st_ino == b.st_ino) {
    fail(out, "is the input file; write the output to another file");
  }
}

Progress::Progress(const std::string& name, size_t bytes)
    : mName(name),
      mBytes(bytes),
      mOn(bytes > kThreshold && ::isatty(STDERR_FILENO)) {}

Progress::~Progress() {
  if (mOn) std::fprintf(stderr, "\r\033[K");
}

void Progress::stage(const char* what) {
  set_activity(mName, what);
  if (!mOn) return;
  std::fprintf(stderr, "\r\033[Kvkt: %s: %s (%zu MB)...", mName.c_str(), what,
               mBytes >> 20);
  std::fflush(stderr);
}
