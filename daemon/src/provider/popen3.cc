#include "daemon/src/provider/popen3.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <map>
#include <mutex>
#include <set>
#include <thread>
#include <vector>

#include "daemon/src/provider/result.h"
#include "daemon/src/provider/run_record.h"
#include "daemon/src/provider/stop.h"
#include "util/fs.h"
#include "util/log.h"
#include "util/proc.h"

namespace {

constexpr const char* kLogSource = "daemon/src/provider";
constexpr size_t kChunk = 65536;  // a whole pipe's worth per read
constexpr short kEvents = POLLIN | POLLERR | POLLHUP | POLLNVAL;

using vorn::fs::Fd;

// The daemon's environment with the run's mark, made before the fork: the
// child may only make async-signal-safe calls.
struct ChildEnvironment {
  std::vector<std::string> entries;
  std::vector<char*> pointers;

  explicit ChildEnvironment(const std::string& run_id) {
    const std::string prefix = std::string(vorn::runs::kRunIdVariable) + "=";
    for (char** entry = environ; *entry != nullptr; ++entry) {
      if (std::strncmp(*entry, prefix.c_str(), prefix.size()) != 0) {
        entries.emplace_back(*entry);
      }
    }
    entries.push_back(prefix + run_id);
    for (std::string& entry : entries) {
      pointers.push_back(entry.data());
    }
    pointers.push_back(nullptr);
  }
};

// Only async-signal-safe calls between fork and exec: the daemon may have
// other threads.
[[noreturn]] void run_child(const std::string& command, int out_fd, int err_fd,
                            char* const* environment, pid_t parent) {
  ::setpgid(0, 0);
  // The shell dies with the thread that forked it (popen3 blocks that thread
  // for the whole run), so a killed daemon leaves no run behind without a
  // time-out. A parent that died before this call is seen in getppid().
  ::prctl(PR_SET_PDEATHSIG, SIGKILL);
  if (::getppid() != parent) {
    ::_exit(125);
  }
  // Copies above the standard descriptors, so that neither dup2 below can
  // overwrite the other's source when the daemon runs with 0 to 2 closed.
  out_fd = ::fcntl(out_fd, F_DUPFD_CLOEXEC, 3);
  err_fd = ::fcntl(err_fd, F_DUPFD_CLOEXEC, 3);
  int null_fd = ::open("/dev/null", O_RDONLY | O_CLOEXEC);
  if (null_fd >= 0) {
    ::dup2(null_fd, STDIN_FILENO);
  }
  if (out_fd < 0 || ::dup2(out_fd, STDOUT_FILENO) < 0) {
    static const char message[] = "failed to redirect stdout.\n";
    ssize_t ignored = ::write(STDERR_FILENO, message, sizeof message - 1);
    (void)ignored;
    ::_exit(254);
  }
  if (err_fd < 0 || ::dup2(err_fd, STDERR_FILENO) < 0) {
    static const char message[] = "failed to redirect stderr.\n";
    ssize_t ignored = ::write(STDOUT_FILENO, message, sizeof message - 1);
    (void)ignored;
    ::_exit(253);
  }
  const char* argv[] = {"/bin/sh", "-c", command.c_str(), nullptr};
  ::execve("/bin/sh", const_cast<char* const*>(argv), environment);
  ::_exit(127);
}

// One output stream of the run: what is kept, and how much was not.
struct Capture {
  std::string& data;
  int64_t& discarded;
  int64_t limit;
};

// Appends one chunk, up to the limit; returns the read's result.
ssize_t read_chunk(int fd, Capture into) {
  static thread_local char buffer[kChunk];
  ssize_t n;
  do {
    n = ::read(fd, buffer, sizeof buffer);
  } while (n < 0 && errno == EINTR);
  if (n > 0) {
    int64_t room = std::max<int64_t>(0, into.limit - static_cast<int64_t>(into.data.size()));
    int64_t kept = std::min<int64_t>(room, n);
    into.data.append(buffer, static_cast<size_t>(kept));
    into.discarded += n - kept;
  }
  return n;
}

void drain(int fd, Capture into) {
  while (read_chunk(fd, into) > 0) {
  }
}

void note_cut(popen3_job& job) {
  const struct {
    const char* stream;
    int64_t discarded;
  } streams[] = {{"output", job.stdout_discarded}, {"error", job.stderr_discarded}};
  for (const auto& s : streams) {
    if (s.discarded > 0) {
      job.stderr_data += "vorn: standard " + std::string(s.stream) + " cut at " +
                         std::to_string(job.max_output_size) + " bytes, " +
                         std::to_string(s.discarded) + " bytes discarded\n";
    }
  }
}

// The line that marks a run killed at its time-out (result.h), on a line of
// its own.
void note_time_out(popen3_job& job) {
  if (!job.stderr_data.empty() && job.stderr_data.back() != '\n') {
    job.stderr_data += '\n';
  }
  job.stderr_data += time_out_line(job.timeout);
}

// Process table: pid -> (parent pid, state letter), from /proc.
std::map<pid_t, std::pair<pid_t, char>> processes() {
  std::map<pid_t, std::pair<pid_t, char>> table;
  for (const vorn::proc::Stat& stat : vorn::proc::list_processes()) {
    table[stat.pid] = {stat.parent, stat.state};
  }
  return table;
}

std::set<pid_t> children_of_self(const std::map<pid_t, std::pair<pid_t, char>>& table) {
  std::set<pid_t> children;
  pid_t self = ::getpid();
  for (const auto& [pid, info] : table) {
    if (info.first == self) {
      children.insert(pid);
    }
  }
  return children;
}

// Runs in progress on any thread, and orphans of runs that ended, which are
// ours to reap once they end.
std::mutex runs_mutex;
std::set<pid_t> running;
std::set<pid_t> orphans;

// Orphans land on the runner rather than on init, where they could no longer
// be told apart from unrelated processes.
void become_subreaper() {
  static std::once_flag once;
  std::call_once(once, [] {
    if (::prctl(PR_SET_CHILD_SUBREAPER, 1) != 0) {
      VORN_LOG(4) << "cannot become a child subreaper " << vorn::log::sys_error(errno)
                  << "; processes a provider moves out of its group may outlive its time-out";
    }
  });
}

void reap_orphans() {
  std::lock_guard<std::mutex> lock(runs_mutex);
  for (auto it = orphans.begin(); it != orphans.end();) {
    pid_t rc = ::waitpid(*it, nullptr, WNOHANG);
    it = (rc == 0) ? std::next(it) : orphans.erase(it);
  }
}

// The run's processes: `pid`, our children that were not there before it
// started, and all their descendants; other runs in progress are left out.
std::set<pid_t> members(pid_t pid, const std::set<pid_t>& before,
                        const std::map<pid_t, std::pair<pid_t, char>>& table) {
  std::set<pid_t> found = {pid};
  std::lock_guard<std::mutex> lock(runs_mutex);
  for (pid_t child : children_of_self(table)) {
    if (before.count(child) == 0 && running.count(child) == 0) {
      found.insert(child);
    }
  }
  for (bool grew = true; grew;) {
    grew = false;
    for (const auto& [p, info] : table) {
      if (found.count(info.first) != 0 && running.count(p) == 0 && found.insert(p).second) {
        grew = true;
      }
    }
  }
  return found;
}

// SIGKILL for every process left of the run, until none lives and every one
// that became our child is reaped. `pid` itself was dealt with by kill_child.
void kill_descendants(pid_t pid, const std::set<pid_t>& before) {
  pid_t self = ::getpid();
  auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(5);
  for (;;) {
    auto table = processes();
    bool left = false;
    for (pid_t p : members(pid, before, table)) {
      auto it = table.find(p);
      if (p == pid || it == table.end()) {
        continue;
      }
      left = true;
      if (it->second.second != 'Z') {
        ::kill(p, SIGKILL);
      }
      if (it->second.first == self) {
        ::waitpid(p, nullptr, WNOHANG);
      }
    }
    if (!left) {
      return;
    }
    if (std::chrono::steady_clock::now() > deadline) {
      // Reaped by a later run once they end.
      std::lock_guard<std::mutex> lock(runs_mutex);
      for (pid_t child : children_of_self(table)) {
        if (before.count(child) == 0 && child != pid) {
          orphans.insert(child);
        }
      }
      VORN_LOG(3) << "processes started by " << pid << " are still running after SIGKILL";
      return;
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  }
}

// Children the run left behind when it ended in time: not killed (a provider
// may start a service on purpose), only reaped later.
void adopt_orphans(pid_t pid, const std::set<pid_t>& before) {
  auto table = processes();
  std::set<pid_t> now = children_of_self(table);
  std::lock_guard<std::mutex> lock(runs_mutex);
  for (pid_t child : now) {
    if (before.count(child) == 0 && child != pid && running.count(child) == 0) {
      orphans.insert(child);
    }
  }
}

// A descriptor that becomes readable when the child ends, so that one poll
// watches the pipes, the child and the stop request; -1 on kernels without
// pidfd_open.
int open_pidfd(pid_t pid) {
#ifdef SYS_pidfd_open
  return static_cast<int>(::syscall(SYS_pidfd_open, pid, 0));
#else
  (void)pid;
  return -1;
#endif
}

}  // namespace

pid_t kill_child(pid_t pid, int* status, double term_grace, double give_up) {
  pid_t rc = ::waitpid(pid, status, WNOHANG);
  if (rc != 0) {
    // The command itself is gone; what it started may still hold on.
    ::kill(-pid, SIGKILL);
    return rc;
  }
  std::time_t t0 = std::time(nullptr);
  ::kill(-pid, SIGTERM);
  bool killed = false;
  for (;;) {
    rc = ::waitpid(pid, status, WNOHANG);
    if (rc != 0) {
      ::kill(-pid, SIGKILL);
      return rc;
    }
    std::time_t t1 = std::time(nullptr);
    if (!killed && std::difftime(t1, t0) > term_grace) {
      ::kill(-pid, SIGKILL);
      killed = true;
    }
    if (std::difftime(t1, t0) > give_up) {
      VORN_LOG(3) << "failed to kill process " << pid << " process may be in a zombie state.";
      return 0;
    }
    ::sleep(1);
  }
}

int popen3(popen3_job& job) {
  become_subreaper();
  reap_orphans();
  const std::set<pid_t> before = children_of_self(processes());
  int out_pipe[2];
  int err_pipe[2];
  if (::pipe2(out_pipe, O_CLOEXEC) != 0) {
    VORN_LOG(3) << "error creating pipes " << vorn::log::sys_error(errno);
    return -1;
  }
  Fd out_read(out_pipe[0]);
  Fd out_write(out_pipe[1]);
  if (::pipe2(err_pipe, O_CLOEXEC) != 0) {
    VORN_LOG(3) << "error creating pipes " << vorn::log::sys_error(errno);
    return -1;
  }
  Fd err_read(err_pipe[0]);
  Fd err_write(err_pipe[1]);

  const std::string run_id = vorn::runs::new_run_id();
  ChildEnvironment environment(run_id);
  const pid_t parent = ::getpid();
  pid_t pid = ::fork();
  if (pid < 0) {
    VORN_LOG(3) << "failed to fork child process";
    std::exit(255);
  }
  if (pid == 0) {
    run_child(job.command, out_write.get(), err_write.get(), environment.pointers.data(), parent);
  }
  // Set here too, so the group exists before the parent may signal it.
  ::setpgid(pid, pid);
  {
    std::lock_guard<std::mutex> lock(runs_mutex);
    running.insert(pid);
  }
  vorn::runs::started(pid, run_id);
  out_write.reset();
  err_write.reset();
  Fd child(open_pidfd(pid));

  // Pipes, the child's end, and the daemon's stop request.
  pollfd fds[4] = {{out_read.get(), kEvents, 0},
                   {err_read.get(), kEvents, 0},
                   {child.get(), POLLIN, 0},
                   {vorn::stop::stop_fd(), POLLIN, 0}};
  std::time_t start = std::time(nullptr);
  int rc = 0;
  Capture out{job.stdout_data, job.stdout_discarded, job.max_output_size};
  Capture err{job.stderr_data, job.stderr_discarded, job.max_output_size};
  for (;;) {
    double elapsed = std::difftime(std::time(nullptr), start);
    double wait_ms = (static_cast<double>(job.timeout) - elapsed) * 1000.0;
    int poll_ms = wait_ms > 0 ? static_cast<int>(std::min(wait_ms, 2147483647.0)) : 0;
    int ready = ::poll(fds, 4, poll_ms);
    if (ready < 0 && errno == EINTR) {
      continue;  // a signal for someone else; the clock decides
    }
    if (ready < 0) {
      VORN_LOG(3) << "error polling pipes " << vorn::log::sys_error(errno);
      rc = -1;
      break;
    }
    if ((fds[0].revents & POLLIN) && read_chunk(fds[0].fd, out) < 0) {
      VORN_LOG(3) << "error reading stdout pipe " << vorn::log::sys_error(errno);
      rc = -1;
      break;
    }
    if ((fds[1].revents & POLLIN) && read_chunk(fds[1].fd, err) < 0) {
      VORN_LOG(3) << "error reading stderr pipe " << vorn::log::sys_error(errno);
      rc = -1;
      break;
    }
    if (fds[3].revents & POLLIN) {
      job.stopped = true;
      break;
    }
    if (fds[2].revents & POLLIN) {
      fds[2].fd = -1;  // ended; reaped below
    }
    bool out_done = fds[0].fd < 0 || (fds[0].revents & POLLHUP);
    bool err_done = fds[1].fd < 0 || (fds[1].revents & POLLHUP);
    // Without a pidfd the child is waited for without a time-out, as before.
    bool child_done = fds[2].fd < 0;
    if (out_done && err_done) {
      drain(out_read.get(), out);
      drain(err_read.get(), err);
      fds[0].fd = -1;
      fds[1].fd = -1;
      if (child_done) {
        break;
      }
    }
    if ((fds[0].revents & POLLERR) || (fds[1].revents & POLLERR)) {
      VORN_LOG(3) << "poll error " << vorn::log::sys_error(errno);
      rc = -1;
      break;
    }
    // A pipe that hung up with nothing left to read would wake every poll
    // until the other one hangs up too: stop watching it.
    for (pollfd& entry : fds) {
      if ((entry.revents & POLLHUP) && !(entry.revents & POLLIN)) {
        entry.fd = -1;
      }
    }
    if (!(static_cast<double>(job.timeout) > elapsed)) {
      break;
    }
  }

  double elapsed = std::difftime(std::time(nullptr), start);
  int status = -1;
  pid_t waited;
  bool expired = false;
  if (job.stopped) {
    VORN_LOG(5) << "Stopping: killing the command " << job.command;
    job.timed_out = true;
    waited = kill_child(pid, &status, 3.0, 10.0);
  } else if (elapsed >= static_cast<double>(job.timeout) || rc < 0) {
    VORN_LOG(3) << "The following command has timed out and will be killed: " << job.command;
    job.timed_out = true;
    expired = rc == 0;
    waited = kill_child(pid, &status, 3.0, 10.0);
  } else {
    waited = ::waitpid(pid, &status, 0);
  }
  if (waited < 0) {
    VORN_LOG(3) << "error while waiting for child process to complete "
                << vorn::log::sys_error(errno);
    rc = -1;
  }
  int wait_error = errno;  // the caller reports it when rc is -1
  if (job.timed_out) {
    kill_descendants(pid, before);
  } else {
    adopt_orphans(pid, before);
  }
  {
    std::lock_guard<std::mutex> lock(runs_mutex);
    running.erase(pid);
    if (waited == 0) {
      orphans.insert(pid);  // given up on for now; a later run reaps it
    }
  }
  vorn::runs::ended(pid);
  note_cut(job);
  if (expired) {
    note_time_out(job);
  }
  errno = wait_error;
  job.exit_status = (status & 0xff00) >> 8;
  job.pid = waited;
  job.duration = elapsed;
  return rc;
}
