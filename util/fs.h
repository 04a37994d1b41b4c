#pragma once
// Path helpers.
//
// selfpath and abspath only read process state; make_path creates directories
// with mkdir(2) and is meant for the main thread during start-up and for the
// provider runner's own thread; open_standard_descriptors is for the first
// line of main, before any thread or file exists.

#include <dirent.h>
#include <unistd.h>

#include <cstddef>
#include <memory>
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

// Owns a directory stream and closes it.
struct DirCloser {
  void operator()(DIR* dir) const { ::closedir(dir); }
};
using Dir = std::unique_ptr<DIR, DirCloser>;

// Writes all `size` bytes, resuming after short writes and interruptions.
// False on an error, with errno telling which.
bool write_all(int fd, const void* data, size_t size);

// Appends everything left to read from `fd` to `data`. False on an error,
// with errno telling which.
bool read_all(int fd, std::string* data);

// Reads the whole file at `path` into `data` with plain open and read, never
// through a stream: a read that fails (a /proc entry whose process ended
// between open and read fails with ESRCH) is an error to report, not an
// exception. False on an error, with errno telling which; `data` then holds
// what was read before it.
bool read_file(const std::string& path, std::string* data);

// Absolute path of the running executable, or "" when the system cannot tell.
std::string selfpath();

// The path made absolute against the current directory; no "." or ".."
// component is removed. An absolute path is returned unchanged.
std::string abspath(const std::string& path);

// Makes sure `path` exists as a writable directory. An existing path must be
// writable by this process (logged otherwise); a missing one is created one
// level at a time, as "mkdir -p" would, with mode 0777 less the umask. The
// path is taken literally: blanks and shell syntax are ordinary characters.
// A level that cannot be made is logged with the reason.
bool make_path(const std::string& path);

// Opens /dev/null onto each of descriptors 0, 1 and 2 that is closed, so that
// no file the program opens later lands on one of them (where a stray printf
// would write into it, or a check of "descriptor > 0" would take it for a
// failure). False when /dev/null cannot be opened.
bool open_standard_descriptors();

// Raises the soft limit on open descriptors to the hard limit: a server
// holds one per connected peer, and the usual soft limit of 1,024 is far
// below a cluster's node count. Returns the limit now in force.
long raise_descriptor_limit();

}  // namespace vorn::fs
