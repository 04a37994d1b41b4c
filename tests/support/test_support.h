#pragma once
// Helpers shared by the tests: temporary directories, files, waiting on a
// condition, and real processes started with their output kept in files.

#include <sys/types.h>

#include <chrono>
#include <functional>
#include <sstream>
#include <string>
#include <type_traits>
#include <vector>

namespace vorn::test {

using std::chrono::milliseconds;

// A fresh directory under $TMPDIR (or /tmp), removed with its contents.
class TempDir {
 public:
  TempDir();
  TempDir(const TempDir&) = delete;
  TempDir& operator=(const TempDir&) = delete;
  ~TempDir();

  const std::string& path() const { return path_; }
  std::string operator/(const std::string& name) const { return path_ + "/" + name; }

 private:
  std::string path_;
};

std::string read_file(const std::string& path);
void write_file(const std::string& path, const std::string& content, int mode = 0644);

// Regular files in a directory (a node's output files waiting; sub-directories
// such as rejected/ are not counted); 0 when it cannot be read.
int output_files(const std::string& directory);

// How many times `part` occurs in `text` (a log line, say).
int occurrences(const std::string& text, const std::string& part);

// Polls `condition` until it holds or the time is up; true when it held.
bool wait_until(const std::function<bool()>& condition, milliseconds timeout);

// A port on 127.0.0.1 that was free a moment ago (the kernel picked it).
int free_tcp_port();

// A TCP connection to the numeric IPv4 `host`:`port`, for the caller to own
// and close; -1 when it could not be made.
int tcp_connect(const std::string& host, int port);

// A value as text (enumerations as their numbers, booleans as words), so that
// one table can compare fields of any type.
template <typename T>
std::string text(const T& value) {
  std::ostringstream out;
  if constexpr (std::is_enum_v<T>) {
    out << static_cast<std::underlying_type_t<T>>(value);
  } else {
    out << std::boolalpha << value;
  }
  return out.str();
}

// A daemon configuration file body: `keys` inside a configuration element,
// with discovery switched off so that no test broadcasts, and health rows
// off unless `keys` sets heartbeat_period.
std::string config_xml(const std::string& keys);

// A program run with fork and exec; standard output and error go to files in
// `log_dir`. A test that fails prints both. The process is killed, if still
// running, when the object goes. Descriptors in `closed` (0 to 2) are closed
// in the child instead, as a careless supervisor or a shell's "<&-" leaves them.
class Process {
 public:
  Process(const std::vector<std::string>& argv, const std::string& log_dir,
          const std::vector<int>& closed = {});
  Process(const Process&) = delete;
  Process& operator=(const Process&) = delete;
  ~Process();

  pid_t pid() const { return pid_; }
  std::string out() const;
  std::string err() const;

  // True once standard error holds `text`.
  bool wait_for_err(const std::string& text, milliseconds timeout = milliseconds(10000)) const;

  // The exit status, 128 + signal number for a killed process, or -1 when it
  // is still running after `timeout`.
  int wait_exit(milliseconds timeout = milliseconds(10000));

  void send_signal(int signal_number) const;

  // SIGTERM, then wait_exit: 0 for a daemon that stopped cleanly.
  int terminate(milliseconds timeout = milliseconds(10000));

 private:
  std::string out_path_;
  std::string err_path_;
  pid_t pid_ = -1;
  bool reaped_ = false;
};

// The most memory a process has held (VmHWM of /proc/PID/status), in KiB;
// -1 when it cannot be read.
long peak_memory_kib(pid_t pid);

// True while `pid` exists and is not a zombie.
bool process_alive(pid_t pid);

}  // namespace vorn::test
