#pragma once
// Answers to acknowledgement ("PUB_ACK") requests, sent from a thread and a
// ZeroMQ context of their own: a requester that is slow, gone or flooding can
// hold up neither the intake of results nor the server's shutdown.
//
// Each answer is a REQ socket that connects to the requester's numeric
// endpoint, sends the request's number as decimal text once the connection
// is up, and closes with a short linger. At most kMaxInFlight answers are
// under way at once; answer() refuses more, and a requester that is not
// reached within kAnswerTimeoutMs is given up (it repeats its request).
// Sockets that cannot be made (descriptors or the context's sockets
// exhausted) cost that answer, never the process.
//
// Thread safety: answer() may be called from any thread; the destructor
// from the owner's.

#include <cstddef>
#include <cstdint>
#include <deque>
#include <mutex>
#include <thread>

#include "daemon/src/serverd/receiver.h"
#include "util/fs.h"

class pub_ack_answerer {
 public:
  static constexpr size_t kMaxInFlight = 64;
  static constexpr int kAnswerTimeoutMs = 2000;
  static constexpr int kLingerMs = 100;

  pub_ack_answerer();
  pub_ack_answerer(const pub_ack_answerer&) = delete;
  pub_ack_answerer& operator=(const pub_ack_answerer&) = delete;
  // Gives up the answers still under way.
  ~pub_ack_answerer();

  // Queues an answer; false when kMaxInFlight are under way already.
  bool answer(const pub_ack_request& request);

 private:
  void run();
  void finished(size_t count);

  void* context_;
  vorn::fs::Fd wake_;  // eventfd: new requests, or stop
  std::mutex mutex_;
  std::deque<pub_ack_request> queued_;
  size_t in_flight_ = 0;  // queued or connecting
  bool stopping_ = false;
  std::thread thread_;
};
