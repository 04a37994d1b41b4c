#pragma once
// The accumulate server's end of the result transport: one message at a time
// from its subscriber socket, results checked and left in their frames, and
// acknowledgement ("PUB_ACK") requests handed back to the caller. The answer
// tells a sender that what it sent so far has arrived, so the caller answers
// a request only once everything received before it is stored.
//
// Thread safety: a receiver and its socket belong to one thread (the
// accumulate server's).

#include <zmq.h>

#include <cstddef>
#include <cstdint>
#include <deque>
#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <unordered_map>
#include <unordered_set>
#include <utility>

#include "daemon/src/config/config.h"
#include "daemon/src/provider/result.h"
#include "util/log.h"

// Requests answered lately, so that each is answered once although its
// sender repeats it until the answer arrives. A request is known by a 64-bit
// hash of "<endpoint> <number>": whatever the endpoints, a key costs the same
// few bytes. Every handshake of every sender brings a new key, so keys are
// forgotten kKeepMs after their answer, and the oldest first beyond kMaxKeys:
// a request repeated that late is answered again, which does no harm.
class answered_requests {
 public:
  static constexpr int64_t kKeepMs = 10 * 60 * 1000;
  static constexpr size_t kMaxKeys = 100000;

  // `now_ms` is a monotonic clock in milliseconds, never going back between calls.
  bool contains(uint64_t key, int64_t now_ms);
  void add(uint64_t key, int64_t now_ms);
  size_t size() const { return keys_.size(); }

 private:
  void forget_expired(int64_t now_ms);

  std::unordered_set<uint64_t> keys_;
  std::deque<std::pair<int64_t, uint64_t>> added_;  // oldest first
};

// Whether a requester's endpoint may be connected to: "tcp://", a numeric
// IPv4 address or a bracketed IPv6 one, ":" and a port, at most
// kMaxEndpointSize bytes and no NUL. A host name would be looked up on ZeroMQ's I/O
// thread, where a slow name server would stall everything else.
constexpr size_t kMaxEndpointSize = 256;
bool valid_reply_endpoint(std::string_view endpoint);

// Whether the numeric address of a reply endpoint is `peer_address`, the
// address a request came from (ZeroMQ's "Peer-Address"; IPv4 written plain
// or as IPv4-mapped IPv6 alike). The server connects back only there: a
// request naming anyone else would make it a reflector against third parties.
bool endpoint_is_peer(std::string_view endpoint, std::string_view peer_address);

// Where a message came from, as the properties ZeroMQ attaches to it say:
// the peer's IP address, and with CURVE the peer's public key (Z85). Empty
// when unknown, as for a message assembled without a socket.
struct message_origin {
  std::string_view peer_address;
  std::string_view user_id;
};

enum class message_kind {
  nothing,  // no message was waiting
  ignored,  // a request answered already, or a message not understood (logged)
  result,   // a result, readable through the message's result()
  pub_ack,  // a new acknowledgement request, in the receiver's request()
};

// The frames of one received message, received straight into ZeroMQ
// messages and kept until the result's row is written, so that its outputs
// are stored from the frames themselves. Frames beyond kKept are counted and
// dropped, as no valid message has them.
//
// Thread safety: one thread at a time; it may pass from the receiving thread
// to the writing one.
class received_message {
 public:
  static constexpr size_t kKept = 6;

  received_message();
  received_message(const received_message&) = delete;
  received_message& operator=(const received_message&) = delete;
  ~received_message();

  // Replaces what the message held by the next message on `socket` (a
  // libzmq socket); false when none could be received. `flags` as for
  // zmq_msg_recv (ZMQ_DONTWAIT: only a message that is waiting).
  bool receive(void* socket, int flags = 0);
  // Adds the next frame of the message, as receive() does with each frame it
  // receives: one of the first kKept is taken over (`frame` is left empty),
  // a later one only counted. Lets a message be assembled without a socket.
  void append(zmq_msg_t& frame);
  // Gives the frames' buffers back.
  void clear();

  size_t count() const { return count_; }
  size_t total_size() const { return total_size_; }
  std::string_view frame(size_t i) const;
  // The properties of a received message; they stay valid while it holds
  // its frames. Empty for a message assembled with append().
  message_origin origin() const;
  // The descriptor of the connection the message came on, which tells one
  // sender's connection from another's while it lasts; -1 when unknown.
  int connection() const;

  // True when the message is a well-formed result; then result() reads it.
  bool parse_result();
  result_view result() const;

 private:
  zmq_msg_t frames_[kKept];
  size_t count_ = 0;
  size_t total_size_ = 0;
  result_header header_{};
  std::string nodes_csv_;  // terminated, as the store binds it as text
};

struct pub_ack_request {
  std::string endpoint;
  std::string public_key;  // the requester's, with CURVE: its reply socket's too
  int32_t number = 0;
  uint64_t key = 0;  // see answered_requests
};

// With CURVE, who may send what: for a listed public key (Z85), the
// hostname its certificate names ("*" for any host, "" for none); nullopt
// for a key that is not listed, or not any more.
using key_policy = std::function<std::optional<std::string>(const std::string& public_key)>;

// Without a key policy every message counts, as in plaintext. With one,
// every message is checked against the current policy, not only the
// connection's handshake, so that a key removed while its connection stays
// open is refused from then on; a result is stored only when its Hostname is
// the one its key's certificate names. Refusals are logged, one warning per
// 10 s of each kind; refused PUB_ACK requests count in
// server_health::pub_ack_refused.
class result_receiver {
 public:
  explicit result_receiver(key_policy keys = nullptr) : keys_(std::move(keys)) {}

  // Receives one message from `socket` into `message`; with `wait` false,
  // only one that is waiting already.
  message_kind receive(zsock_t* socket, received_message& message, bool wait = true);
  // What receive() makes of a message once it is received (never nothing),
  // given where it came from.
  message_kind classify(received_message& message, const message_origin& origin);

  // The request that receive() last returned as pub_ack.
  const pub_ack_request& request() const { return request_; }

  // Once answered, a request (known by its key) is not returned again
  // while it is remembered.
  void mark_answered(uint64_t key);

 private:
  // The hostname the message's key may send for; nullopt (logged) when the
  // key is refused.
  std::optional<std::string> allowed_hostname(const message_origin& origin);
  bool hostname_allowed(const received_message& message, const message_origin& origin,
                        const std::string& allowed);

  // Whether the key's results were refused within kRefusedKeyMs.
  bool recently_refused(std::string_view user_id, int64_t now_ms);

  // A sender whose results are refused (its host is not its certificate's)
  // must not be told that they are stored: a node would delete them. Its
  // requests go unanswered until it has sent none that is refused for this
  // long, and its results wait on its disk meanwhile.
  static constexpr int64_t kRefusedKeyMs = 60000;

  key_policy keys_;
  pub_ack_request request_;
  answered_requests answered_;
  // Key (Z85) -> when a result it sent was last refused. Only listed keys
  // get here, so the directory bounds it.
  std::unordered_map<std::string, int64_t> refused_keys_;
  vorn::log::RateLimit endpoint_warnings_{10000};
  vorn::log::RateLimit key_warnings_{10000};
  vorn::log::RateLimit hostname_warnings_{10000};
  vorn::log::RateLimit unanswered_warnings_{10000};
};

// Appends the text form of the result to accumulate_output_dir + "/" + name.
// A name that could leave the directory ("/", "." or "..") is made safe.
void dump_result(const result_view& result, const daemon_config& config);
