#pragma once
// Path helpers.
//
// selfpath and abspath only read process state; make_path creates directories
// through the shell and is meant for the main thread during start-up and for
// the provider runner's own thread.

#include <unistd.h>

#include <cstddef>
#include <string>

namespace vorn::fs {

// Owns a file descriptor and closes it.
class Fd {
 public:
  Fd() = default;
  explicit Fd(int fd) : fd_(fd) {}
  Fd(const Fd&) = delete;
  Fd& operator=(const Fd&) = delete;
  ~Fd() { reset(); }
  int get() const { return fd_; }
  void reset(int fd = -1) {
    if (fd_ >= 0) {
      ::close(fd_);
    }
    fd_ = fd;
  }

 private:
  int fd_ = -1;
};

// Writes all `size` bytes, resuming after short writes and interruptions.
// False on an error, with errno telling which.
bool write_all(int fd, const void* data, size_t size);

// Appends everything left to read from `fd` to `data`. False on an error,
// with errno telling which.
bool read_all(int fd, std::string* data);

// Absolute path of the running executable, or "" when the system cannot tell.
std::string selfpath();

// The path made absolute against the current directory; no "." or ".."
// component is removed. An absolute path is returned unchanged.
std::string abspath(const std::string& path);

// Makes sure `path` exists as a writable directory. An existing path must be
// writable by this process (logged otherwise); a missing one is created with
// "mkdir -p" run by the shell, with the path unquoted: a path with blanks or
// shell syntax makes the shell see several words, so such paths are not
// supported.
bool make_path(const std::string& path);

}  // namespace vorn::fs
