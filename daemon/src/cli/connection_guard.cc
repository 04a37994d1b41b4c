#include "daemon/src/cli/connection_guard.h"

#include <netdb.h>
#include <poll.h>
#include <sys/socket.h>

#include <algorithm>
#include <cerrno>
#include <condition_variable>
#include <cstdlib>
#include <map>
#include <mutex>

#include "util/fs.h"

namespace vorn::cli {

namespace {

using Clock = std::chrono::steady_clock;

enum class Phase {
  idle,       // waiting for the first byte of a request
  reading,    // the request has begun
  answering,  // the request is in; from the handler to the last byte sent
};

}  // namespace

// Who holds the places, in which phase since when. The accept loop admits
// (and closes others to make room); each connection's thread reports its
// phases and its end.
class ConnectionTable {
 public:
  explicit ConnectionTable(size_t capacity) : capacity_(std::max<size_t>(capacity, 1)) {}

  // Takes a place for a connection just accepted, waiting until one is free.
  void admit() {
    std::unique_lock<std::mutex> lock(mutex_);
    while (open_ >= capacity_) {
      // Places of connections already shut down come free by themselves.
      if (open_ - closing_ >= capacity_) {
        close_one();
      }
      changed_.wait_for(lock, std::chrono::milliseconds(100));
    }
    ++open_;
  }

  void enter(int fd) {
    std::lock_guard<std::mutex> lock(mutex_);
    entries_[fd] = Entry{Phase::idle, Clock::now(), false};
  }

  void set_phase(int fd, Phase phase) {
    std::lock_guard<std::mutex> lock(mutex_);
    Entry& entry = entries_[fd];
    entry.phase = phase;
    entry.since = Clock::now();
    // A connection that became closable may be what admit() waits for.
    changed_.notify_all();
  }

  // Called before the descriptor is closed, so that no other connection's
  // socket is ever shut down under the same number.
  void leave(int fd) {
    std::lock_guard<std::mutex> lock(mutex_);
    auto it = entries_.find(fd);
    if (it != entries_.end()) {
      closing_ -= it->second.closing ? 1 : 0;
      entries_.erase(it);
    }
    --open_;
    changed_.notify_all();
  }

  // Closes every connection not being answered; the server is stopping.
  void close_waiting() {
    std::lock_guard<std::mutex> lock(mutex_);
    for (auto& [fd, entry] : entries_) {
      if (entry.phase != Phase::answering) {
        close(fd, &entry);
      }
    }
  }

 private:
  struct Entry {
    Phase phase;
    Clock::time_point since;
    bool closing;
  };

  // The idle connection that waited longest, else the request that began
  // longest ago. Its thread sees the end of the stream at once and leaves.
  void close_one() {
    for (Phase phase : {Phase::idle, Phase::reading}) {
      auto oldest = entries_.end();
      for (auto it = entries_.begin(); it != entries_.end(); ++it) {
        if (it->second.phase == phase && !it->second.closing &&
            (oldest == entries_.end() || it->second.since < oldest->second.since)) {
          oldest = it;
        }
      }
      if (oldest != entries_.end()) {
        close(oldest->first, &oldest->second);
        return;
      }
    }
  }

  void close(int fd, Entry* entry) {
    if (!entry->closing) {
      ::shutdown(fd, SHUT_RDWR);
      entry->closing = true;
      ++closing_;
    }
  }

  const size_t capacity_;
  std::mutex mutex_;
  std::condition_variable changed_;
  std::map<int, Entry> entries_;
  size_t open_ = 0;     // places taken, admitted connections not yet entered too
  size_t closing_ = 0;  // entries shut down that have not left yet
};

namespace {

// The library's queue of accepted connections: one thread per place, and no
// connection queued without one.
class GuardedQueue : public httplib::TaskQueue {
 public:
  GuardedQueue(ConnectionTable* table, size_t threads) : table_(table), pool_(threads) {}

  void enqueue(std::function<void()> fn) override {
    table_->admit();
    pool_.enqueue(std::move(fn));
  }

  void shutdown() override {
    table_->close_waiting();
    pool_.shutdown();
  }

 private:
  ConnectionTable* table_;
  httplib::ThreadPool pool_;
};

// A connection's socket as the library reads and writes it, where every wait
// ends at the deadline of the phase rather than after a time per read.
class GuardedStream : public httplib::Stream {
 public:
  GuardedStream(int fd, ConnectionTable* table, const ConnectionLimits& limits)
      : fd_(fd), table_(table), limits_(limits) {}

  // Waits for the first byte of the next request; false when none came in
  // time. A request that came along with the last one is there already.
  bool next_request() {
    table_->set_phase(fd_, Phase::idle);
    answering_ = false;
    if (begin_ == end_) {
      deadline_ = Clock::now() + limits_.idle_time;
      if (!wait(POLLIN)) {
        return false;
      }
    }
    table_->set_phase(fd_, Phase::reading);
    deadline_ = Clock::now() + limits_.request_time;
    return true;
  }

  bool is_readable() const override { return begin_ != end_ || wait(POLLIN); }

  bool is_writable() const override { return wait(POLLOUT); }

  ssize_t read(char* ptr, size_t size) override {
    if (begin_ == end_) {
      if (!wait(POLLIN)) {
        return -1;
      }
      ssize_t got;
      do {
        got = ::recv(fd_, buffer_, sizeof buffer_, 0);
      } while (got < 0 && errno == EINTR);
      if (got <= 0) {
        return got < 0 ? -1 : 0;
      }
      begin_ = 0;
      end_ = static_cast<size_t>(got);
    }
    size_t n = std::min(size, end_ - begin_);
    std::copy(buffer_ + begin_, buffer_ + begin_ + n, ptr);
    begin_ += n;
    return static_cast<ssize_t>(n);
  }

  // The first write ends the request's phase: the library has read all of it.
  ssize_t write(const char* ptr, size_t size) override {
    if (!answering_) {
      answering_ = true;
      table_->set_phase(fd_, Phase::answering);
      deadline_ = Clock::now() + limits_.answer_time;
    }
    if (!wait(POLLOUT)) {
      return -1;
    }
    ssize_t sent;
    do {
      sent = ::send(fd_, ptr, size, MSG_NOSIGNAL);
    } while (sent < 0 && errno == EINTR);
    return sent < 0 ? -1 : sent;
  }

  void get_remote_ip_and_port(std::string& ip, int& port) const override {
    address(&getpeername, ip, port);
  }

  void get_local_ip_and_port(std::string& ip, int& port) const override {
    address(&getsockname, ip, port);
  }

  socket_t socket() const override { return fd_; }

 private:
  // True once the socket is ready for `events` (or at its end) before the
  // deadline.
  bool wait(short events) const {
    for (;;) {
      auto left = std::chrono::ceil<std::chrono::milliseconds>(deadline_ - Clock::now());
      if (left.count() <= 0) {
        return false;
      }
      pollfd p{fd_, events, 0};
      int ready = ::poll(&p, 1, static_cast<int>(left.count()));
      if (ready > 0) {
        return true;
      }
      if (ready < 0 && errno != EINTR) {
        return false;
      }
    }
  }

  void address(int (*name)(int, sockaddr*, socklen_t*), std::string& ip, int& port) const {
    sockaddr_storage storage{};
    socklen_t length = sizeof storage;
    char host[NI_MAXHOST];
    char service[NI_MAXSERV];
    if (name(fd_, reinterpret_cast<sockaddr*>(&storage), &length) == 0 &&
        getnameinfo(reinterpret_cast<sockaddr*>(&storage), length, host, sizeof host, service,
                    sizeof service, NI_NUMERICHOST | NI_NUMERICSERV) == 0) {
      ip = host;
      port = std::atoi(service);
    }
  }

  const int fd_;
  ConnectionTable* const table_;
  const ConnectionLimits& limits_;
  Clock::time_point deadline_;
  bool answering_ = false;
  char buffer_[4096];
  size_t begin_ = 0;
  size_t end_ = 0;
};

// A connection's place in the table, from its first moment on its thread to
// just before its socket is closed.
class Entered {
 public:
  Entered(ConnectionTable* table, int fd) : table_(table), fd_(fd) { table_->enter(fd_); }
  Entered(const Entered&) = delete;
  Entered& operator=(const Entered&) = delete;
  ~Entered() { table_->leave(fd_); }

 private:
  ConnectionTable* table_;
  int fd_;
};

}  // namespace

bool has_body(const httplib::Request& request) {
  std::string length = request.get_header_value("Content-Length");
  return request.has_header("Transfer-Encoding") || (!length.empty() && length != "0");
}

GuardedServer::GuardedServer(const ConnectionLimits& limits)
    : limits_(limits), table_(std::make_unique<ConnectionTable>(limits.connections)) {
  new_task_queue = [this] { return new GuardedQueue(table_.get(), limits_.connections); };
}

GuardedServer::~GuardedServer() = default;

bool GuardedServer::listen_after_bind() {
  // listen() on a listening socket only sets its backlog.
  ::listen(svr_sock_, SOMAXCONN);
  return httplib::Server::listen_after_bind();
}

bool GuardedServer::process_and_close_socket(socket_t sock) {
  vorn::fs::Fd owned(sock);
  Entered entered(table_.get(), sock);
  GuardedStream stream(sock, table_.get(), limits_);
  for (size_t left = keep_alive_max_count_; left > 0 && svr_sock_ != INVALID_SOCKET; --left) {
    if (!stream.next_request()) {
      break;
    }
    bool closed = false;
    auto end_after_a_body = [&closed](httplib::Request& request) {
      if (has_body(request)) {
        closed = true;
        request.headers.erase("Connection");
        request.set_header("Connection", "close");
      }
    };
    if (!process_request(stream, left == 1, closed, end_after_a_body) || closed) {
      break;
    }
  }
  ::shutdown(sock, SHUT_RDWR);
  return true;
}

}  // namespace vorn::cli
