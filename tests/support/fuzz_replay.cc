// Runs fuzz inputs through a target's LLVMFuzzerTestOneInput without
// libFuzzer, so that the gcc build with its sanitizers replays every committed
// seed (and every crashing input added to a corpus) as an ordinary test.
//
// Usage: <target>_replay PATH...  A PATH is a corpus directory (each regular
// file in it, in name order) or a single input file. Exit status 1 when a
// path cannot be read or a directory holds no input, since a replay of
// nothing must not pass; a failing input ends the process with the
// sanitizer's or the target's report.

#include <dirent.h>
#include <sys/stat.h>

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <fstream>
#include <iterator>
#include <memory>
#include <string>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size);

namespace {

bool is_regular_file(const std::string& path) {
  struct stat st;
  return ::stat(path.c_str(), &st) == 0 && S_ISREG(st.st_mode);
}

bool is_directory(const std::string& path) {
  struct stat st;
  return ::stat(path.c_str(), &st) == 0 && S_ISDIR(st.st_mode);
}

// The regular files of a directory, sorted; false when it cannot be read.
bool list_inputs(const std::string& dir, std::vector<std::string>* files) {
  std::unique_ptr<DIR, int (*)(DIR*)> handle(::opendir(dir.c_str()), ::closedir);
  if (!handle) {
    return false;
  }
  std::vector<std::string> found;
  while (const dirent* entry = ::readdir(handle.get())) {
    std::string path = dir + "/" + entry->d_name;
    if (entry->d_name[0] != '.' && is_regular_file(path)) {
      found.push_back(path);
    }
  }
  std::sort(found.begin(), found.end());
  files->insert(files->end(), found.begin(), found.end());
  return true;
}

bool replay(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  if (!in) {
    std::fprintf(stderr, "cannot read %s\n", path.c_str());
    return false;
  }
  std::string bytes((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
  // A buffer of exactly the input's size, as libFuzzer passes, so that a
  // read past its end is the sanitizer's to report.
  std::unique_ptr<uint8_t[]> data(new uint8_t[bytes.size()]);
  std::copy(bytes.begin(), bytes.end(), data.get());
  LLVMFuzzerTestOneInput(data.get(), bytes.size());
  return true;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc < 2) {
    std::fprintf(stderr, "usage: %s CORPUS_DIR_OR_FILE...\n", argv[0]);
    return 1;
  }
  for (int i = 1; i < argc; ++i) {
    const std::string path = argv[i];
    std::vector<std::string> inputs;
    if (is_directory(path)) {
      if (!list_inputs(path, &inputs)) {
        std::fprintf(stderr, "cannot list %s\n", path.c_str());
        return 1;
      }
      if (inputs.empty()) {
        std::fprintf(stderr, "%s holds no input\n", path.c_str());
        return 1;
      }
    } else if (is_regular_file(path)) {
      inputs.push_back(path);
    } else {
      std::fprintf(stderr, "%s is neither a corpus directory nor an input file\n", path.c_str());
      return 1;
    }
    for (const std::string& input : inputs) {
      if (!replay(input)) {
        return 1;
      }
    }
    std::printf("%s: %zu inputs replayed\n", path.c_str(), inputs.size());
  }
  return 0;
}
