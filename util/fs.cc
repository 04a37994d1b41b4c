#include "util/fs.h"

#include <fcntl.h>
#include <limits.h>
#include <sys/resource.h>
#include <sys/stat.h>
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

bool read_file(const std::string& path, std::string* data) {
  data->clear();
  Fd fd(::open(path.c_str(), O_RDONLY | O_CLOEXEC));
  if (fd.get() < 0) {
    return false;
  }
  return read_all(fd.get(), data);
}

bool make_path(const std::string& path) {
  if (::access(path.c_str(), F_OK) == 0) {
    if (::access(path.c_str(), W_OK) == 0) {
      return true;
    }
    VORN_LOG(3) << "path exists but is not accessible for writing: " << path;
    return false;
  }
  if (path.empty()) {
    VORN_LOG(3) << "cannot create a directory with an empty name";
    return false;
  }
  // Every prefix that ends before a slash is a level; the whole path is the
  // last one. Another process may make a level at the same moment, so EEXIST
  // is success when a directory stands there.
  for (size_t end = path.find('/', 1);; end = path.find('/', end + 1)) {
    std::string level = path.substr(0, end);
    if (level.back() != '/' && ::mkdir(level.c_str(), 0777) != 0) {
      int error = errno;
      struct stat st;
      if (error != EEXIST || ::stat(level.c_str(), &st) != 0 || !S_ISDIR(st.st_mode)) {
        VORN_LOG(3) << "cannot create directory '" << level << "' " << vorn::log::sys_error(error);
        return false;
      }
    }
    if (end == std::string::npos) {
      return true;
    }
  }
}

bool open_standard_descriptors() {
  for (int fd = STDIN_FILENO; fd <= STDERR_FILENO; ++fd) {
    if (::fcntl(fd, F_GETFD) != -1 || errno != EBADF) {
      continue;
    }
    // The lower descriptors are open by now, so open() returns `fd` itself.
    int null_fd = ::open("/dev/null", O_RDWR);
    if (null_fd < 0) {
      return false;
    }
    if (null_fd != fd) {
      ::dup2(null_fd, fd);
      ::close(null_fd);
    }
  }
  return true;
}

long raise_descriptor_limit() {
  struct rlimit limit;
  if (::getrlimit(RLIMIT_NOFILE, &limit) != 0) {
    return -1;
  }
  if (limit.rlim_cur < limit.rlim_max) {
    limit.rlim_cur = limit.rlim_max;
    if (::setrlimit(RLIMIT_NOFILE, &limit) != 0) {
      ::getrlimit(RLIMIT_NOFILE, &limit);
    }
  }
  return limit.rlim_cur == RLIM_INFINITY ? -1 : static_cast<long>(limit.rlim_cur);
}

}  // namespace vorn::fs
