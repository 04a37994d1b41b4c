#pragma once
// An HTTP server that a few slow or idle clients cannot take from everyone
// else.
//
// The library gives each connection a worker thread for its whole life, queues
// the rest without limit, and times out each read on its own: four clients
// that send a byte every four seconds, or a few hundred that send nothing,
// leave no worker for anyone. GuardedServer keeps the library's parsing and
// routing and takes over the connections:
// - at most `connections` are open at once, each with a thread of its own, so
//   none waits in a queue behind another;
// - when one more arrives and every place is taken, the connection that has
//   been idle longest (waiting for the first byte of its next request) is
//   closed; when none is idle, the one whose request began longest ago. A
//   connection being answered is never closed: the newcomer waits in the
//   kernel's backlog until one ends;
// - a request must arrive whole within `request_time` of its first byte, and
//   its answer be taken within `answer_time`, however slowly the bytes come;
// - a connection waits `idle_time` at most for its next request and carries
//   the library's five requests at most (set_keep_alive_max_count);
// - a request with a body ends its connection after the answer: a handler
//   may leave the body unread, and its bytes must not be taken for the next
//   request.
// The library's own read, write and keep-alive time-outs do not apply.
//
// Thread safety: as httplib::Server; stop() may be called from any thread,
// and closes every connection that is not being answered.

#include <chrono>
#include <cstddef>
#include <memory>

#include <httplib.h>

namespace vorn::cli {

struct ConnectionLimits {
  size_t connections = 32;
  std::chrono::milliseconds request_time{10000};
  std::chrono::milliseconds answer_time{60000};
  std::chrono::milliseconds idle_time{5000};
};

// Whether the request says a body follows its headers.
bool has_body(const httplib::Request& request);

class ConnectionTable;

class GuardedServer : public httplib::Server {
 public:
  explicit GuardedServer(const ConnectionLimits& limits = {});
  ~GuardedServer() override;

  // As the library's, with a backlog long enough for a burst of connections
  // (the library listens with five, and a connection refused there waits a
  // second for its SYN to be sent again).
  bool listen_after_bind();

 private:
  bool process_and_close_socket(socket_t sock) override;

  ConnectionLimits limits_;
  std::unique_ptr<ConnectionTable> table_;
};

}  // namespace vorn::cli
