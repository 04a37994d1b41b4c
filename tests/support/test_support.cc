#include "tests/support/test_support.h"

#include <arpa/inet.h>
#include <dirent.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <cstdlib>
#include <fstream>
#include <iostream>
#include <sstream>
#include <stdexcept>
#include <thread>

#include <gtest/gtest.h>

namespace vorn::test {

TempDir::TempDir() {
  const char* base = std::getenv("TMPDIR");
  std::string pattern =
      std::string(base != nullptr && *base != '\0' ? base : "/tmp") + "/vorn-test.XXXXXX";
  std::vector<char> buffer(pattern.begin(), pattern.end());
  buffer.push_back('\0');
  if (::mkdtemp(buffer.data()) == nullptr) {
    throw std::runtime_error("mkdtemp failed for " + pattern);
  }
  path_ = buffer.data();
}

TempDir::~TempDir() {
  // Tests may leave read-only directories behind; give the owner access back.
  std::string command = "chmod -R u+rwx '" + path_ + "' 2>/dev/null; rm -rf '" + path_ + "'";
  int ignored = std::system(command.c_str());
  (void)ignored;
}

std::string read_file(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  std::ostringstream out;
  out << in.rdbuf();
  return out.str();
}

void write_file(const std::string& path, const std::string& content, int mode) {
  {
    std::ofstream out(path, std::ios::binary | std::ios::trunc);
    out << content;
    if (!out) {
      throw std::runtime_error("cannot write " + path);
    }
  }
  ::chmod(path.c_str(), static_cast<mode_t>(mode));
}

bool wait_until(const std::function<bool()>& condition, milliseconds timeout) {
  auto deadline = std::chrono::steady_clock::now() + timeout;
  for (;;) {
    if (condition()) {
      return true;
    }
    if (std::chrono::steady_clock::now() >= deadline) {
      return false;
    }
    std::this_thread::sleep_for(milliseconds(10));
  }
}

int free_tcp_port() {
  int fd = ::socket(AF_INET, SOCK_STREAM, 0);
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  socklen_t length = sizeof address;
  bool found = fd >= 0 && ::bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) == 0 &&
               ::getsockname(fd, reinterpret_cast<sockaddr*>(&address), &length) == 0;
  if (fd >= 0) {
    ::close(fd);
  }
  if (!found) {
    throw std::runtime_error("cannot find a free port");
  }
  return ntohs(address.sin_port);
}

std::string config_xml(const std::string& keys) {
  // Health rows only where a test asks for them, so that the rows of every
  // other test are its own results.
  const std::string health = keys.find("<heartbeat_period>") == std::string::npos
                                 ? "  <heartbeat_period>0</heartbeat_period>\n"
                                 : "";
  return "<?xml version=\"1.0\"?>\n<configuration>\n"
         "  <enable_discovery>false</enable_discovery>\n" +
         health + keys + "\n</configuration>\n";
}

namespace {
int next_process_number() {
  static std::atomic<int> counter{0};
  return counter++;
}
}  // namespace

Process::Process(const std::vector<std::string>& argv, const std::string& log_dir,
                 const std::vector<int>& closed)
    : out_path_(log_dir + "/process" + std::to_string(next_process_number()) + ".out"),
      err_path_(out_path_.substr(0, out_path_.size() - 4) + ".err") {
  // Everything the child needs is made before fork: the test may have threads.
  std::vector<char*> args;
  for (const std::string& a : argv) {
    args.push_back(const_cast<char*>(a.c_str()));
  }
  args.push_back(nullptr);
  pid_ = ::fork();
  if (pid_ < 0) {
    throw std::runtime_error("fork failed");
  }
  if (pid_ == 0) {
    int out = ::open(out_path_.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
    int err = ::open(err_path_.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
    if (out < 0 || err < 0 || ::dup2(out, STDOUT_FILENO) < 0 || ::dup2(err, STDERR_FILENO) < 0) {
      ::_exit(126);
    }
    for (int fd : {out, err}) {
      if (fd > STDERR_FILENO) {
        ::close(fd);
      }
    }
    for (int fd : closed) {
      ::close(fd);
    }
    ::execvp(args[0], args.data());
    ::_exit(127);
  }
}

Process::~Process() {
  if (!reaped_) {
    ::kill(pid_, SIGKILL);
    ::waitpid(pid_, nullptr, 0);
  }
  if (::testing::Test::HasFailure()) {
    std::cerr << "---- stdout of pid " << pid_ << " ----\n"
              << out() << "---- stderr of pid " << pid_ << " ----\n"
              << err() << "----\n";
  }
}

std::string Process::out() const {
  return read_file(out_path_);
}
std::string Process::err() const {
  return read_file(err_path_);
}

bool Process::wait_for_err(const std::string& text, milliseconds timeout) const {
  return wait_until([&] { return err().find(text) != std::string::npos; }, timeout);
}

int Process::wait_exit(milliseconds timeout) {
  if (reaped_) {
    return -1;
  }
  int status = 0;
  bool ended = wait_until([&] { return ::waitpid(pid_, &status, WNOHANG) == pid_; }, timeout);
  if (!ended) {
    return -1;
  }
  reaped_ = true;
  if (WIFSIGNALED(status)) {
    return 128 + WTERMSIG(status);
  }
  return WEXITSTATUS(status);
}

void Process::send_signal(int signal_number) const {
  ::kill(pid_, signal_number);
}

int Process::terminate(milliseconds timeout) {
  send_signal(SIGTERM);
  return wait_exit(timeout);
}

int output_files(const std::string& directory) {
  int count = 0;
  if (DIR* dir = ::opendir(directory.c_str())) {
    while (dirent* entry = ::readdir(dir)) {
      count += entry->d_type == DT_REG ? 1 : 0;
    }
    ::closedir(dir);
  }
  return count;
}

int occurrences(const std::string& text, const std::string& part) {
  int count = 0;
  for (size_t at = text.find(part); at != std::string::npos; at = text.find(part, at + 1)) {
    ++count;
  }
  return count;
}

int tcp_connect(const std::string& host, int port) {
  int fd = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_port = htons(static_cast<uint16_t>(port));
  if (fd >= 0 &&
      (inet_pton(AF_INET, host.c_str(), &address.sin_addr) != 1 ||
       ::connect(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0)) {
    ::close(fd);
    return -1;
  }
  return fd;
}

long peak_memory_kib(pid_t pid) {
  const std::string status = read_file("/proc/" + std::to_string(pid) + "/status");
  const size_t at = status.find("\nVmHWM:");
  return at == std::string::npos ? -1 : std::strtol(status.c_str() + at + 7, nullptr, 10);
}

bool process_alive(pid_t pid) {
  std::string stat = read_file("/proc/" + std::to_string(pid) + "/stat");
  if (stat.empty()) {
    return false;
  }
  // The state letter follows the parenthesised command name.
  size_t close = stat.rfind(')');
  return close != std::string::npos && close + 2 < stat.size() && stat[close + 2] != 'Z';
}

}  // namespace vorn::test
