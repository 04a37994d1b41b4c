#include "daemon/src/serverd/receiver.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <cerrno>
#include <cstring>
#include <string_view>

#include "util/czmq.h"
#include "util/fs.h"
#include "util/log.h"

namespace {

constexpr const char* kLogSource = "daemon/src/serverd";

// The frames of one received message, received straight into ZeroMQ
// messages: the server's hot path, where CZMQ's per-frame allocations show.
// Frames beyond kKept are counted and dropped, as no valid message has them.
class ReceivedMessage {
 public:
  static constexpr size_t kKept = 6;

  ReceivedMessage() {
    for (zmq_msg_t& m : frames_) {
      zmq_msg_init(&m);
    }
  }
  ReceivedMessage(const ReceivedMessage&) = delete;
  ReceivedMessage& operator=(const ReceivedMessage&) = delete;
  ~ReceivedMessage() {
    for (zmq_msg_t& m : frames_) {
      zmq_msg_close(&m);
    }
  }

  // False when no message could be received.
  bool receive(void* socket) {
    zmq_msg_t extra;
    zmq_msg_init(&extra);
    for (bool more = true; more;) {
      zmq_msg_t* target = count_ < kKept ? &frames_[count_] : &extra;
      if (zmq_msg_recv(target, socket, 0) < 0) {
        zmq_msg_close(&extra);
        return count_ > 0;
      }
      total_size_ += zmq_msg_size(target);
      more = zmq_msg_more(target) != 0;
      ++count_;
    }
    zmq_msg_close(&extra);
    return true;
  }

  size_t count() const { return count_; }
  size_t total_size() const { return total_size_; }
  std::string_view frame(size_t i) {
    return {static_cast<const char*>(zmq_msg_data(&frames_[i])), zmq_msg_size(&frames_[i])};
  }

 private:
  zmq_msg_t frames_[kKept];
  size_t count_ = 0;
  size_t total_size_ = 0;
};

// Copies a five-frame result into `result`; false when a frame is shorter
// than the header says.
bool parse_result(ReceivedMessage& message, provider_result& result) {
  // Frame 0, the topic, is not looked at.
  std::string_view header = message.frame(1);
  std::string_view out = message.frame(2);
  std::string_view err = message.frame(3);
  result_header h;
  if (!parse_result_header(header, h) || out.size() < h.stdout_size || err.size() < h.stderr_size) {
    return false;
  }
  result.header = h;
  result.stdout_data.append(out.data(), h.stdout_size);
  result.stderr_data.append(err.data(), h.stderr_size);
  result.nodes_csv = message.frame(4);
  return true;
}

// A file name that stays inside the dump directory.
std::string dump_file_name(const char* name) {
  std::string out(name);
  for (char& c : out) {
    if (c == '/') {
      c = '_';
    }
  }
  if (out.empty() || out == "." || out == "..") {
    out = "_" + out;
  }
  return out;
}

}  // namespace

bool answered_requests::contains(const std::string& key, int64_t now_ms) {
  forget_expired(now_ms);
  return keys_.count(key) != 0;
}

void answered_requests::add(const std::string& key, int64_t now_ms) {
  forget_expired(now_ms);
  auto [it, added] = keys_.insert(key);
  if (!added) {
    return;
  }
  added_.emplace_back(now_ms, &*it);
  while (keys_.size() > kMaxKeys) {
    forget_oldest();
  }
}

void answered_requests::forget_expired(int64_t now_ms) {
  while (!added_.empty() && now_ms - added_.front().first >= kKeepMs) {
    forget_oldest();
  }
}

void answered_requests::forget_oldest() {
  keys_.erase(keys_.find(*added_.front().second));
  added_.pop_front();
}

message_kind result_receiver::receive(zsock_t* socket, provider_result& result) {
  ReceivedMessage message;
  if (!message.receive(zsock_resolve(socket))) {
    return message_kind::none;
  }
  if (message.count() == 4) {
    if (message.frame(1) != "PUB_ACK") {
      return message_kind::none;
    }
    std::string endpoint(message.frame(2));
    // Only a TCP requester can be answered; anything else would make the
    // server open other kinds of connections on a stranger's word.
    if (endpoint.rfind("tcp://", 0) != 0) {
      return message_kind::none;
    }
    std::string_view number_frame = message.frame(3);
    int32_t number = 0;
    std::string key = endpoint + " ";
    if (number_frame.size() == sizeof number) {
      std::memcpy(&number, number_frame.data(), sizeof number);
      key += std::to_string(number);
    }
    if (answered_.contains(key, zclock_mono())) {
      return message_kind::none;
    }
    endpoint_ = std::move(endpoint);
    number_ = number;
    key_ = std::move(key);
    return message_kind::pub_ack;
  }
  if (message.count() != 5 || !parse_result(message, result)) {
    VORN_LOG(3) << "Unrecognized message format";
    return message_kind::none;
  }
  VORN_LOG(6) << "Received data provider '" << result.header.name << "' from "
              << result.header.hostname << " (" << message.total_size() << " bytes)";
  return message_kind::result;
}

void result_receiver::answer_pub_ack() {
  if (endpoint_.empty()) {
    return;
  }
  const std::string endpoint = std::move(endpoint_);
  endpoint_.clear();
  vorn::czmq::Socket reply(zsock_new(ZMQ_REQ));
  // zsock_connect never binds, whatever the endpoint text says.
  if (!reply || zsock_connect(reply.get(), "%s", endpoint.c_str()) != 0) {
    VORN_LOG(3) << "Unable to create pub-ack socket " << vorn::log::sys_error(errno);
    return;
  }
  zsock_set_linger(reply.get(), 1000);
  // A requester that is gone must not stall the server.
  zsock_set_sndtimeo(reply.get(), 1000);
  if (zsock_send(reply.get(), "i", number_) != 0) {
    VORN_LOG(3) << "Error replying to pub-ack request " << vorn::log::sys_error(errno);
  }
  answered_.add(key_, zclock_mono());
}

void dump_result(const provider_result& result, const daemon_config& config) {
  ::umask(022);
  std::string path =
      std::string(config.accumulate_output_dir) + "/" + dump_file_name(result.header.name);
  vorn::fs::Fd file(::open(path.c_str(), O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC, 0666));
  if (file.get() < 0) {
    VORN_LOG(3) << "Error opening log file '" << path << "'";
    return;
  }
  const std::string text = result_text(result);
  vorn::fs::write_all(file.get(), text.data(), text.size());
}
