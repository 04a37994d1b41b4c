#include "daemon/src/provider/stop.h"

#include <poll.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdint>

namespace vorn::stop {

namespace {

std::atomic<bool> requested{false};

}  // namespace

int stop_fd() {
  // Made once and kept open for the life of the process.
  static const int fd = ::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
  return fd;
}

void request_stop() {
  requested = true;
  uint64_t one = 1;
  // Never read back, so the descriptor stays readable.
  ssize_t ignored = ::write(stop_fd(), &one, sizeof one);
  (void)ignored;
}

bool stop_requested() {
  return requested;
}

bool wait_for_stop(int ms) {
  pollfd entry{stop_fd(), POLLIN, 0};
  while (!requested) {
    int rc = ::poll(&entry, 1, ms);
    if (rc < 0 && errno == EINTR) {
      continue;
    }
    break;
  }
  return requested;
}

}  // namespace vorn::stop
