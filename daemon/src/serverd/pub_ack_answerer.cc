#include "daemon/src/serverd/pub_ack_answerer.h"

#include <pthread.h>
#include <sys/eventfd.h>
#include <unistd.h>
#include <zmq.h>

#include <algorithm>
#include <cerrno>
#include <string>
#include <utility>
#include <vector>

#include "daemon/src/serverd/health.h"
#include "util/czmq.h"
#include "util/log.h"

namespace {

constexpr const char* kLogSource = "daemon/src/serverd";
// Lingering sockets count against the context's limit; the in-flight cap
// keeps far below it.
constexpr int kMaxSockets = 4096;

struct connecting {
  void* socket;
  uint64_t key;
  std::string number;  // as decimal text, as CZMQ's "i" picture sends it
  int64_t deadline_ms;
};

void close_socket(void* socket, int linger_ms) {
  zmq_setsockopt(socket, ZMQ_LINGER, &linger_ms, sizeof linger_ms);
  zmq_close(socket);
}

}  // namespace

pub_ack_answerer::pub_ack_answerer(std::optional<vorn::curve::certificate> own)
    : own_(std::move(own)),
      context_(zmq_ctx_new()),
      wake_(::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)) {
  if (context_ != nullptr) {
    zmq_ctx_set(context_, ZMQ_MAX_SOCKETS, kMaxSockets);
  }
  if (context_ == nullptr || wake_.get() < 0) {
    VORN_LOG(3) << "Cannot answer PUB_ACK requests " << vorn::log::sys_error(errno);
    return;
  }
  thread_ = std::thread([this] { run(); });
}

pub_ack_answerer::~pub_ack_answerer() {
  {
    std::lock_guard<std::mutex> lock(mutex_);
    stopping_ = true;
  }
  uint64_t one = 1;
  if (wake_.get() >= 0 && ::write(wake_.get(), &one, sizeof one) < 0) {
    // The counter cannot overflow with one write per stop; nothing to do.
  }
  if (thread_.joinable()) {
    thread_.join();
  }
  if (context_ != nullptr) {
    zmq_ctx_term(context_);
  }
}

bool pub_ack_answerer::answer(const pub_ack_request& request) {
  if (!thread_.joinable()) {
    return false;
  }
  {
    std::lock_guard<std::mutex> lock(mutex_);
    if (in_flight_.count(request.key) != 0) {
      return true;
    }
    if (in_flight_.size() >= kMaxInFlight) {
      return false;
    }
    in_flight_.insert(request.key);
    queued_.push_back(request);
  }
  uint64_t one = 1;
  if (::write(wake_.get(), &one, sizeof one) < 0) {
    // A full counter still wakes the thread.
  }
  return true;
}

std::vector<uint64_t> pub_ack_answerer::take_delivered() {
  std::vector<uint64_t> keys;
  // Looked at for every message received: no lock while there is nothing.
  if (any_delivered_.load(std::memory_order_acquire)) {
    std::lock_guard<std::mutex> lock(mutex_);
    keys.swap(delivered_);
    any_delivered_.store(false, std::memory_order_relaxed);
  }
  return keys;
}

void pub_ack_answerer::finished(const std::vector<uint64_t>& done,
                                const std::vector<uint64_t>& delivered) {
  std::lock_guard<std::mutex> lock(mutex_);
  for (uint64_t key : done) {
    in_flight_.erase(key);
  }
  if (!delivered.empty()) {
    delivered_.insert(delivered_.end(), delivered.begin(), delivered.end());
    any_delivered_.store(true, std::memory_order_release);
  }
}

void pub_ack_answerer::run() {
  pthread_setname_np(pthread_self(), "vorn-pub-ack");
  vorn::log::RateLimit socket_warnings(10000);
  std::vector<connecting> open;
  std::vector<zmq_pollitem_t> items;
  for (;;) {
    std::deque<pub_ack_request> fresh;
    {
      std::lock_guard<std::mutex> lock(mutex_);
      if (stopping_) {
        break;
      }
      fresh.swap(queued_);
    }
    std::vector<uint64_t> done;
    std::vector<uint64_t> delivered;
    for (const pub_ack_request& request : fresh) {
      void* socket = zmq_socket(context_, ZMQ_REQ);
      int immediate = 1;
      if (socket == nullptr ||
          zmq_setsockopt(socket, ZMQ_IMMEDIATE, &immediate, sizeof immediate) != 0 ||
          (own_ && !vorn::curve::make_client(socket, *own_, request.public_key)) ||
          zmq_connect(socket, request.endpoint.c_str()) != 0) {
        int error = errno;
        uint64_t suppressed = 0;
        if (socket_warnings.allow(zclock_mono(), &suppressed)) {
          VORN_LOG(4) << "Unable to create pub-ack socket " << vorn::log::sys_error(error)
                      << (suppressed > 0 ? " (and " + std::to_string(suppressed) + " more)" : "");
        }
        if (socket != nullptr) {
          close_socket(socket, 0);
        }
        ++server_health_counters().pub_ack_dropped;
        done.push_back(request.key);
        continue;
      }
      open.push_back(
          {socket, request.key, std::to_string(request.number), zclock_mono() + kAnswerTimeoutMs});
    }

    items.clear();
    items.push_back({nullptr, wake_.get(), ZMQ_POLLIN, 0});
    int64_t now = zclock_mono();
    int64_t wait_ms = -1;
    for (const connecting& c : open) {
      items.push_back({c.socket, 0, ZMQ_POLLOUT, 0});
      int64_t left = c.deadline_ms > now ? c.deadline_ms - now : 0;
      wait_ms = wait_ms < 0 ? left : std::min(wait_ms, left);
    }
    if (zmq_poll(items.data(), static_cast<int>(items.size()), static_cast<long>(wait_ms)) < 0 &&
        errno != EINTR) {
      break;
    }
    if (items[0].revents & ZMQ_POLLIN) {
      uint64_t count;
      if (::read(wake_.get(), &count, sizeof count) < 0) {
        // Already cleared; the queue is looked at anyway.
      }
    }
    now = zclock_mono();
    std::vector<connecting> still_open;
    for (size_t i = 0; i < open.size(); ++i) {
      connecting& c = open[i];
      if (items[i + 1].revents & ZMQ_POLLOUT) {
        if (zmq_send(c.socket, c.number.data(), c.number.size(), ZMQ_DONTWAIT) >= 0) {
          delivered.push_back(c.key);
          ++server_health_counters().pub_ack_answered;
        } else {
          ++server_health_counters().pub_ack_dropped;
        }
        close_socket(c.socket, kLingerMs);
        done.push_back(c.key);
      } else if (now >= c.deadline_ms) {
        // Unreachable: answered when its sender asks again.
        close_socket(c.socket, 0);
        ++server_health_counters().pub_ack_dropped;
        done.push_back(c.key);
      } else {
        still_open.push_back(c);
      }
    }
    open.swap(still_open);
    if (!done.empty()) {
      finished(done, delivered);
    }
  }
  for (connecting& c : open) {
    close_socket(c.socket, 0);
  }
}
