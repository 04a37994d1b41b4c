#include "tests/support/fuzz_support.h"

#include <fcntl.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <set>
#include <vector>

#include "util/fs.h"
#include "util/log.h"

namespace vorn::fuzz {

namespace {

// The process's scratch directory, made on first use.
class ScratchDir {
 public:
  ScratchDir() {
    const char* base = std::getenv("TMPDIR");
    std::string pattern =
        std::string(base != nullptr && *base != '\0' ? base : "/tmp") + "/vorn-fuzz.XXXXXX";
    std::vector<char> buffer(pattern.begin(), pattern.end());
    buffer.push_back('\0');
    if (::mkdtemp(buffer.data()) == nullptr) {
      std::perror(("mkdtemp " + pattern).c_str());
      std::abort();
    }
    path_ = buffer.data();
  }
  ScratchDir(const ScratchDir&) = delete;
  ScratchDir& operator=(const ScratchDir&) = delete;
  ~ScratchDir() {
    for (const std::string& file : files_) {
      ::unlink(file.c_str());
    }
    ::rmdir(path_.c_str());
  }

  std::string file(const char* name) {
    std::string path = path_ + "/" + name;
    files_.insert(path);
    return path;
  }

 private:
  std::string path_;
  std::set<std::string> files_;
};

}  // namespace

void quiet_logs() {
  static const bool done = [] {
    const char* keep = std::getenv("VORN_FUZZ_LOG");
    if (keep == nullptr || *keep == '\0' || *keep == '0') {
      vorn::log::LOG_LEVEL = 0;
    }
    return true;
  }();
  (void)done;
}

void check(bool ok, const char* what) {
  if (!ok) {
    std::fprintf(stderr, "fuzz check failed: %s\n", what);
    std::abort();
  }
}

std::string scratch_file(const char* name) {
  static ScratchDir dir;
  return dir.file(name);
}

void write_file(const std::string& path, const uint8_t* data, size_t size) {
  vorn::fs::Fd file(::open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600));
  if (file.get() < 0 || !vorn::fs::write_all(file.get(), data, size)) {
    std::perror(("writing " + path).c_str());
    std::abort();
  }
}

}  // namespace vorn::fuzz
