#pragma once
// Answers to acknowledgement ("PUB_ACK") requests, sent from a thread and a
// ZeroMQ context of their own: a requester that is slow, gone or flooding can
// hold up neither the intake of results nor the server's shutdown.
//
// Each answer is a REQ socket that connects to the requester's numeric
// endpoint, sends the request's number as decimal text once the connection
// is up, and closes with a short linger. At most kMaxInFlight answers are
// under way at once; answer() refuses more, and a requester that is not
// reached within kAnswerTimeoutMs is given up. Only answers sent on a live
// connection are reported by take_delivered(): the caller counts a request
// as answered only then, so a given-up one is answered when its sender
// repeats it.
// Sockets that cannot be made (descriptors or the context's sockets
// exhausted) cost that answer, never the process.
//
// With CURVE, each answer is a CURVE client with the server's own key, of
// the requester's key: a node's reply socket is a CURVE server with its own.
//
// Answers sent count in server_health::pub_ack_answered; requests given up
// (unreachable, no socket) in pub_ack_dropped, like those the caller drops.
//
// Thread safety: answer() may be called from any thread; the destructor
// from the owner's.

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <mutex>
#include <optional>
#include <thread>
#include <unordered_set>
#include <vector>

#include "daemon/src/curve/curve.h"
#include "daemon/src/serverd/receiver.h"
#include "util/fs.h"

class pub_ack_answerer {
 public:
  // A CURVE answer needs a handshake before its number goes out; with 64,
  // 10,000 CURVE nodes restarted together waited over a minute for theirs.
  static constexpr size_t kMaxInFlight = 256;
  static constexpr int kAnswerTimeoutMs = 2000;
  static constexpr int kLingerMs = 100;

  // `own`: the server's certificate when results travel with CURVE.
  explicit pub_ack_answerer(std::optional<vorn::curve::certificate> own = std::nullopt);
  pub_ack_answerer(const pub_ack_answerer&) = delete;
  pub_ack_answerer& operator=(const pub_ack_answerer&) = delete;
  // Gives up the answers still under way.
  ~pub_ack_answerer();

  // Queues an answer; false when kMaxInFlight are under way already. A
  // request whose answer is under way is accepted once.
  bool answer(const pub_ack_request& request);

  // The keys of the requests answered since the last call.
  std::vector<uint64_t> take_delivered();

 private:
  void run();
  void finished(const std::vector<uint64_t>& done, const std::vector<uint64_t>& delivered);

  std::optional<vorn::curve::certificate> own_;
  void* context_;
  vorn::fs::Fd wake_;  // eventfd: new requests, or stop
  std::mutex mutex_;
  std::deque<pub_ack_request> queued_;
  std::unordered_set<uint64_t> in_flight_;  // keys queued or connecting
  std::vector<uint64_t> delivered_;
  std::atomic<bool> any_delivered_{false};
  bool stopping_ = false;
  std::thread thread_;
};
