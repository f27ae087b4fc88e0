// Runs a fuzz target over files without libFuzzer, so that any compiler
// builds the harnesses and ctest replays the corpus and the saved crashes.
// Arguments are files or directories (read one level deep); a missing
// directory counts as empty.
#include <dirent.h>

#include <cstdint>
#include <cstdio>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size);

static void run_file(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  const std::vector<char> bytes((std::istreambuf_iterator<char>(in)), {});
  // A copy of the exact size, so that a read past the end is caught.
  std::vector<uint8_t> exact(bytes.begin(), bytes.end());
  exact.shrink_to_fit();
  LLVMFuzzerTestOneInput(exact.data(), exact.size());
}

int main(int argc, char** argv) {
  int files = 0;
  for (int i = 1; i < argc; ++i) {
    const std::string arg = argv[i];
    if (DIR* dir = opendir(arg.c_str())) {
      while (dirent* e = readdir(dir)) {
        if (e->d_name[0] == '.') continue;
        run_file(arg + "/" + e->d_name);
        ++files;
      }
      closedir(dir);
    } else if (std::ifstream(arg).good()) {
      run_file(arg);
      ++files;
    }
  }
  std::printf("%d inputs replayed\n", files);
  return 0;
}
