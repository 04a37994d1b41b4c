#include "util/fs.h"

#include <limits.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <vector>

#include "util/log.h"

namespace vorn::fs {

namespace {
constexpr const char* kLogSource = "util/fs";
}  // namespace

std::string selfpath() {
  std::vector<char> buffer(PATH_MAX);
  for (;;) {
    ssize_t n = ::readlink("/proc/self/exe", buffer.data(), buffer.size());
    if (n < 0) {
      return {};
    }
    if (static_cast<size_t>(n) < buffer.size()) {
      return std::string(buffer.data(), static_cast<size_t>(n));
    }
    buffer.resize(buffer.size() * 2);
  }
}

std::string abspath(const std::string& path) {
  if (!path.empty() && path[0] == '/') {
    return path;
  }
  char* cwd = ::getcwd(nullptr, 0);
  if (cwd == nullptr) {
    return path;
  }
  std::string out(cwd);
  std::free(cwd);
  if (path.empty()) {
    return out;
  }
  if (out.back() != '/') {
    out += '/';
  }
  return out + path;
}

bool write_all(int fd, const void* data, size_t size) {
  const char* next = static_cast<const char*>(data);
  while (size > 0) {
    ssize_t n = ::write(fd, next, size);
    if (n < 0) {
      if (errno == EINTR) {
        continue;
      }
      return false;
    }
    next += n;
    size -= static_cast<size_t>(n);
  }
  return true;
}

bool read_all(int fd, std::string* data) {
  char buffer[65536];
  for (;;) {
    ssize_t n = ::read(fd, buffer, sizeof buffer);
    if (n == 0) {
      return true;
    }
    if (n < 0) {
      if (errno == EINTR) {
        continue;
      }
      return false;
    }
    data->append(buffer, static_cast<size_t>(n));
  }
}

bool make_path(const std::string& path) {
  if (::access(path.c_str(), F_OK) == 0) {
    if (::access(path.c_str(), W_OK) == 0) {
      return true;
    }
    VORN_LOG(3) << "path exists but is not accessible for writing: " << path;
    return false;
  }
  std::string command = "mkdir -p " + path;
  return std::system(command.c_str()) == 0;
}

}  // namespace vorn::fs
