#include "daemon/src/serverd/receiver.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <sys/stat.h>

#include <cerrno>
#include <cstring>
#include <functional>
#include <string_view>

#include "util/czmq.h"
#include "util/fs.h"
#include "util/log.h"
#include "util/str.h"

namespace {

constexpr const char* kLogSource = "daemon/src/serverd";

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

bool answered_requests::contains(uint64_t key, int64_t now_ms) {
  forget_expired(now_ms);
  return keys_.count(key) != 0;
}

void answered_requests::add(uint64_t key, int64_t now_ms) {
  forget_expired(now_ms);
  if (!keys_.insert(key).second) {
    return;
  }
  added_.emplace_back(now_ms, key);
  while (keys_.size() > kMaxKeys) {
    keys_.erase(added_.front().second);
    added_.pop_front();
  }
}

void answered_requests::forget_expired(int64_t now_ms) {
  while (!added_.empty() && now_ms - added_.front().first >= kKeepMs) {
    keys_.erase(added_.front().second);
    added_.pop_front();
  }
}

bool valid_reply_endpoint(std::string_view endpoint) {
  constexpr std::string_view kScheme = "tcp://";
  // zmq_connect reads the endpoint as a C string, so a NUL would cut it short
  // of what is checked here.
  if (endpoint.size() > kMaxEndpointSize || endpoint.substr(0, kScheme.size()) != kScheme ||
      endpoint.find('\0') != std::string_view::npos) {
    return false;
  }
  std::string_view rest = endpoint.substr(kScheme.size());
  size_t colon = rest.rfind(':');
  if (colon == std::string_view::npos) {
    return false;
  }
  std::string address(rest.substr(0, colon));
  std::string_view port = rest.substr(colon + 1);
  if (port.empty() || port.size() > 5 ||
      port.find_first_not_of("0123456789") != std::string_view::npos ||
      std::stoi(std::string(port)) == 0 || std::stoi(std::string(port)) > 65535) {
    return false;
  }
  unsigned char binary[sizeof(in6_addr)];
  if (address.size() > 2 && address.front() == '[' && address.back() == ']') {
    return inet_pton(AF_INET6, address.substr(1, address.size() - 2).c_str(), binary) == 1;
  }
  return inet_pton(AF_INET, address.c_str(), binary) == 1;
}

received_message::received_message() {
  for (zmq_msg_t& m : frames_) {
    zmq_msg_init(&m);
  }
}

received_message::~received_message() {
  for (zmq_msg_t& m : frames_) {
    zmq_msg_close(&m);
  }
}

void received_message::clear() {
  for (size_t i = 0; i < count_ && i < kKept; ++i) {
    zmq_msg_close(&frames_[i]);
    zmq_msg_init(&frames_[i]);
  }
  count_ = 0;
  total_size_ = 0;
}

bool received_message::receive(void* socket, int flags) {
  clear();
  zmq_msg_t part;
  zmq_msg_init(&part);
  for (bool more = true; more;) {
    // Once the first frame is there, the whole message is.
    if (zmq_msg_recv(&part, socket, count_ == 0 ? flags : 0) < 0) {
      zmq_msg_close(&part);
      return count_ > 0;
    }
    more = zmq_msg_more(&part) != 0;
    append(part);
  }
  zmq_msg_close(&part);
  return true;
}

void received_message::append(zmq_msg_t& frame) {
  total_size_ += zmq_msg_size(&frame);
  if (count_ < kKept) {
    zmq_msg_move(&frames_[count_], &frame);
  }
  ++count_;
}

std::string_view received_message::frame(size_t i) const {
  // zmq_msg_data does not change the message; its signature is older than const.
  auto* m = const_cast<zmq_msg_t*>(&frames_[i]);
  return {static_cast<const char*>(zmq_msg_data(m)), zmq_msg_size(m)};
}

bool received_message::parse_result() {
  // Frame 0, the topic, is not looked at.
  if (count_ != 5 || !parse_result_header(frame(1), header_) ||
      frame(2).size() < header_.stdout_size || frame(3).size() < header_.stderr_size) {
    return false;
  }
  nodes_csv_ = frame(4);
  return true;
}

result_view received_message::result() const {
  return result_view(header_, frame(2).substr(0, header_.stdout_size),
                     frame(3).substr(0, header_.stderr_size), nodes_csv_.c_str());
}

message_kind result_receiver::receive(zsock_t* socket, received_message& message, bool wait) {
  if (!message.receive(zsock_resolve(socket), wait ? 0 : ZMQ_DONTWAIT)) {
    return message_kind::nothing;
  }
  return classify(message);
}

message_kind result_receiver::classify(received_message& message) {
  if (message.count() == 4) {
    if (message.frame(1) != "PUB_ACK") {
      return message_kind::ignored;
    }
    std::string_view endpoint = message.frame(2);
    if (!valid_reply_endpoint(endpoint)) {
      uint64_t suppressed = 0;
      if (endpoint_warnings_.allow(zclock_mono(), &suppressed)) {
        VORN_LOG(4) << "Ignoring PUB_ACK request for endpoint '"
                    << vorn::str::printable(endpoint.substr(0, 80))
                    << "': only tcp:// with a numeric address and a port is answered"
                    << (suppressed > 0 ? " (" + std::to_string(suppressed) + " more ignored)" : "");
      }
      return message_kind::ignored;
    }
    std::string_view number_frame = message.frame(3);
    int32_t number = 0;
    std::string key_text = std::string(endpoint) + " ";
    if (number_frame.size() == sizeof number) {
      std::memcpy(&number, number_frame.data(), sizeof number);
      key_text += std::to_string(number);
    }
    uint64_t key = std::hash<std::string>{}(key_text);
    if (answered_.contains(key, zclock_mono())) {
      return message_kind::ignored;
    }
    request_ = pub_ack_request{std::string(endpoint), number, key};
    return message_kind::pub_ack;
  }
  if (!message.parse_result()) {
    VORN_LOG(3) << "Unrecognized message format";
    return message_kind::ignored;
  }
  VORN_LOG(6) << "Received data provider '" << vorn::str::printable(message.result().header.name)
              << "' from " << vorn::str::printable(message.result().header.hostname) << " ("
              << message.total_size() << " bytes)";
  return message_kind::result;
}

void result_receiver::mark_answered(uint64_t key) {
  answered_.add(key, zclock_mono());
}

void dump_result(const result_view& result, const daemon_config& config) {
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
