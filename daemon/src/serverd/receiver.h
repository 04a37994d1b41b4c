#pragma once
// The accumulate server's end of the result transport: one message at a time
// from its subscriber socket, results parsed into a reused record, and
// acknowledgement ("PUB_ACK") requests handed back to the caller. The answer
// tells a sender that what it sent so far has arrived, so the caller answers
// a request only once everything received before it is stored.
//
// Thread safety: a receiver, its socket and its record belong to one thread
// (the accumulate server's).

#include <cstddef>
#include <cstdint>
#include <deque>
#include <string>
#include <unordered_set>
#include <utility>

#include "daemon/src/config/config.h"
#include "daemon/src/provider/result.h"

// Requests answered lately, as "<endpoint> <number>", so that each is
// answered once although its sender repeats it until the answer arrives.
// Every handshake of every sender brings a new key, so keys are forgotten
// kKeepMs after their answer, and the oldest first beyond kMaxKeys: a request
// repeated that late is answered again, which does no harm.
class answered_requests {
 public:
  static constexpr int64_t kKeepMs = 10 * 60 * 1000;
  static constexpr size_t kMaxKeys = 100000;

  // `now_ms` is a monotonic clock in milliseconds, never going back between calls.
  bool contains(const std::string& key, int64_t now_ms);
  void add(const std::string& key, int64_t now_ms);
  size_t size() const { return keys_.size(); }

 private:
  void forget_expired(int64_t now_ms);
  void forget_oldest();

  std::unordered_set<std::string> keys_;
  // When each key was added, oldest first; the pointers stay valid while their
  // key is in the set.
  std::deque<std::pair<int64_t, const std::string*>> added_;
};

enum class message_kind {
  none,     // nothing received, a request answered already, or a message not understood (logged)
  result,   // a result, parsed into the caller's record
  pub_ack,  // a new acknowledgement request, waiting for answer_pub_ack()
};

class result_receiver {
 public:
  // Receives one message from `socket`. `result`'s output fields must be
  // empty; they are appended to, so that their buffers are reused.
  message_kind receive(zsock_t* socket, provider_result& result);

  // Connects back to the sender of the request that receive() last returned
  // as pub_ack and sends it the request's number. Once answered, the request
  // is not returned again while it is remembered.
  void answer_pub_ack();

 private:
  std::string endpoint_;  // of the request waiting for its answer; "" when none
  int32_t number_ = 0;
  std::string key_;
  answered_requests answered_;
};

// Appends the text form of the result to accumulate_output_dir + "/" + name.
// A name that could leave the directory ("/", "." or "..") is made safe.
void dump_result(const provider_result& result, const daemon_config& config);
