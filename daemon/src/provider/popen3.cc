#include "daemon/src/provider/popen3.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <ctime>

#include "daemon/src/provider/stop.h"
#include "util/fs.h"
#include "util/log.h"

namespace {

constexpr const char* kLogSource = "daemon/src/provider";
constexpr size_t kChunk = 4096;
constexpr short kEvents = POLLIN | POLLERR | POLLHUP | POLLNVAL;

using vorn::fs::Fd;

// Only async-signal-safe calls between fork and exec: the daemon may have
// other threads.
[[noreturn]] void run_child(const std::string& command, int out_fd, int err_fd) {
  ::setpgid(0, 0);
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
  ::execv("/bin/sh", const_cast<char* const*>(argv));
  ::_exit(127);
}

// Appends one chunk; returns the read's result.
ssize_t read_chunk(int fd, std::string& into) {
  char buffer[kChunk];
  ssize_t n;
  do {
    n = ::read(fd, buffer, sizeof buffer);
  } while (n < 0 && errno == EINTR);
  if (n > 0) {
    into.append(buffer, static_cast<size_t>(n));
  }
  return n;
}

void drain(int fd, std::string& into) {
  while (read_chunk(fd, into) > 0) {
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

  pid_t pid = ::fork();
  if (pid < 0) {
    VORN_LOG(3) << "failed to fork child process";
    std::exit(255);
  }
  if (pid == 0) {
    run_child(job.command, out_write.get(), err_write.get());
  }
  // Set here too, so the group exists before the parent may signal it.
  ::setpgid(pid, pid);
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
    if ((fds[0].revents & POLLIN) && read_chunk(fds[0].fd, job.stdout_data) < 0) {
      VORN_LOG(3) << "error reading stdout pipe " << vorn::log::sys_error(errno);
      rc = -1;
      break;
    }
    if ((fds[1].revents & POLLIN) && read_chunk(fds[1].fd, job.stderr_data) < 0) {
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
      drain(out_read.get(), job.stdout_data);
      drain(err_read.get(), job.stderr_data);
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
  if (job.stopped) {
    VORN_LOG(5) << "Stopping: killing the command " << job.command;
    job.timed_out = true;
    waited = kill_child(pid, &status, 3.0, 10.0);
  } else if (elapsed >= static_cast<double>(job.timeout) || rc < 0) {
    VORN_LOG(3) << "The following command has timed out and will be killed: " << job.command;
    job.timed_out = true;
    waited = kill_child(pid, &status, 3.0, 10.0);
  } else {
    waited = ::waitpid(pid, &status, 0);
  }
  if (waited < 0) {
    VORN_LOG(3) << "error while waiting for child process to complete "
                << vorn::log::sys_error(errno);
    rc = -1;
  }
  job.exit_status = (status & 0xff00) >> 8;
  job.pid = waited;
  job.duration = elapsed;
  return rc;
}
