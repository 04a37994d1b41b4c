#include "daemon/src/serverd/receiver.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <sys/stat.h>

#include <cerrno>
#include <cstring>
#include <functional>
#include <string_view>

#include "daemon/src/curve/curve.h"
#include "daemon/src/serverd/health.h"
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

// A PUB_ACK request left unanswered because its sender may not store
// results here, or would have the answer sent elsewhere.
void count_refused(bool pub_ack) {
  if (pub_ack) {
    ++server_health_counters().pub_ack_refused;
  }
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

namespace {

// The address part of "tcp://ADDRESS:port", brackets included; "" when the
// endpoint has no such form.
std::string_view endpoint_address(std::string_view endpoint) {
  constexpr std::string_view kScheme = "tcp://";
  if (endpoint.substr(0, kScheme.size()) != kScheme) {
    return {};
  }
  std::string_view rest = endpoint.substr(kScheme.size());
  size_t colon = rest.rfind(':');
  return colon == std::string_view::npos ? std::string_view() : rest.substr(0, colon);
}

// A numeric address as IPv6, IPv4 as its mapped form (::ffff:a.b.c.d), so
// that the two ways of writing an IPv4 peer compare equal. An IPv6 scope
// ("%eth0") is not part of the address. False when `text` is not numeric.
bool parse_address(std::string_view text, in6_addr* out) {
  if (text.size() > 2 && text.front() == '[' && text.back() == ']') {
    text = text.substr(1, text.size() - 2);
  }
  std::string address(text.substr(0, text.find('%')));
  in_addr v4;
  if (inet_pton(AF_INET, address.c_str(), &v4) == 1) {
    std::memset(out, 0, sizeof *out);
    out->s6_addr[10] = 0xff;
    out->s6_addr[11] = 0xff;
    std::memcpy(&out->s6_addr[12], &v4, sizeof v4);
    return true;
  }
  return inet_pton(AF_INET6, address.c_str(), out) == 1;
}

}  // namespace

bool valid_reply_endpoint(std::string_view endpoint) {
  // zmq_connect reads the endpoint as a C string, so a NUL would cut it short
  // of what is checked here.
  if (endpoint.size() > kMaxEndpointSize || endpoint.find('\0') != std::string_view::npos) {
    return false;
  }
  std::string_view address = endpoint_address(endpoint);
  if (address.empty()) {
    return false;
  }
  std::string_view port = endpoint.substr(endpoint.rfind(':') + 1);
  if (port.empty() || port.size() > 5 ||
      port.find_first_not_of("0123456789") != std::string_view::npos ||
      std::stoi(std::string(port)) == 0 || std::stoi(std::string(port)) > 65535) {
    return false;
  }
  unsigned char binary[sizeof(in6_addr)];
  if (address.size() > 2 && address.front() == '[' && address.back() == ']') {
    return inet_pton(AF_INET6, std::string(address.substr(1, address.size() - 2)).c_str(),
                     binary) == 1;
  }
  return inet_pton(AF_INET, std::string(address).c_str(), binary) == 1;
}

bool endpoint_is_peer(std::string_view endpoint, std::string_view peer_address) {
  in6_addr named;
  in6_addr peer;
  return parse_address(endpoint_address(endpoint), &named) && parse_address(peer_address, &peer) &&
         std::memcmp(&named, &peer, sizeof named) == 0;
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

int received_message::connection() const {
  if (count_ == 0) {
    return -1;
  }
  return zmq_msg_get(const_cast<zmq_msg_t*>(&frames_[0]), ZMQ_SRCFD);
}

message_origin received_message::origin() const {
  if (count_ == 0) {
    return {};
  }
  // Every frame of a message carries the same properties.
  auto* first = const_cast<zmq_msg_t*>(&frames_[0]);
  auto property = [first](const char* name) {
    const char* value = zmq_msg_gets(first, name);
    return value != nullptr ? std::string_view(value) : std::string_view();
  };
  return {property("Peer-Address"), property("User-Id")};
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
  return classify(message, message.origin());
}

std::optional<std::string> result_receiver::allowed_hostname(const message_origin& origin) {
  std::optional<std::string> hostname;
  if (!origin.user_id.empty()) {
    hostname = keys_(std::string(origin.user_id));
  }
  if (hostname && !hostname->empty()) {
    return hostname;
  }
  uint64_t suppressed = 0;
  if (key_warnings_.allow(zclock_mono(), &suppressed)) {
    VORN_LOG(4) << "Ignoring a message from '" << vorn::str::printable(origin.peer_address)
                << "' with key '" << vorn::str::printable(origin.user_id) << "': "
                << (hostname ? "its certificate names no hostname" : "the key is not listed")
                << (suppressed > 0 ? " (" + std::to_string(suppressed) + " more ignored)" : "");
  }
  return std::nullopt;
}

bool result_receiver::hostname_allowed(const received_message& message,
                                       const message_origin& origin, const std::string& allowed) {
  const char* hostname = message.result().header.hostname;
  if (vorn::curve::may_send_for(allowed, hostname)) {
    return true;
  }
  refused_keys_[std::string(origin.user_id)] = zclock_mono();
  uint64_t suppressed = 0;
  if (hostname_warnings_.allow(zclock_mono(), &suppressed)) {
    VORN_LOG(4) << "Not storing a result for host '" << vorn::str::printable(hostname) << "' from '"
                << vorn::str::printable(origin.peer_address) << "': certificate '"
                << vorn::str::printable(origin.user_id) << "' is for host '"
                << vorn::str::printable(allowed) << "'"
                << (suppressed > 0 ? " (" + std::to_string(suppressed) + " more ignored)" : "");
  }
  return false;
}

message_kind result_receiver::classify(received_message& message, const message_origin& origin) {
  std::optional<std::string> allowed;
  const bool pub_ack = message.count() == 4 && message.frame(1) == "PUB_ACK";
  if (keys_) {
    allowed = allowed_hostname(origin);
    if (!allowed) {
      count_refused(pub_ack);
      return message_kind::ignored;
    }
  }
  if (message.count() == 4) {
    if (!pub_ack) {
      return message_kind::ignored;
    }
    std::string_view endpoint = message.frame(2);
    if (!valid_reply_endpoint(endpoint) || !endpoint_is_peer(endpoint, origin.peer_address)) {
      count_refused(true);
      uint64_t suppressed = 0;
      if (endpoint_warnings_.allow(zclock_mono(), &suppressed)) {
        VORN_LOG(4) << "Ignoring PUB_ACK request for endpoint '"
                    << vorn::str::printable(endpoint.substr(0, 80)) << "' from '"
                    << vorn::str::printable(origin.peer_address)
                    << "': only tcp:// with the sender's own numeric address and a port is "
                       "answered"
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
    if (recently_refused(origin.user_id, zclock_mono())) {
      count_refused(true);
      uint64_t suppressed = 0;
      if (unanswered_warnings_.allow(zclock_mono(), &suppressed)) {
        VORN_LOG(4) << "Not answering PUB_ACK from '" << vorn::str::printable(origin.peer_address)
                    << "' with key '" << vorn::str::printable(origin.user_id)
                    << "': results it sent for another host were not stored, and it keeps them"
                    << (suppressed > 0 ? " (" + std::to_string(suppressed) + " more)" : "");
      }
      return message_kind::ignored;
    }
    request_ = pub_ack_request{std::string(endpoint), std::string(origin.user_id), number, key};
    return message_kind::pub_ack;
  }
  if (!message.parse_result()) {
    VORN_LOG(3) << "Unrecognized message format";
    return message_kind::ignored;
  }
  if (allowed && !hostname_allowed(message, origin, *allowed)) {
    return message_kind::ignored;
  }
  VORN_LOG(6) << "Received data provider '" << vorn::str::printable(message.result().header.name)
              << "' from " << vorn::str::printable(message.result().header.hostname) << " ("
              << message.total_size() << " bytes)";
  return message_kind::result;
}

bool result_receiver::recently_refused(std::string_view user_id, int64_t now_ms) {
  if (refused_keys_.empty() || user_id.empty()) {
    return false;
  }
  auto it = refused_keys_.find(std::string(user_id));
  if (it == refused_keys_.end()) {
    return false;
  }
  if (now_ms - it->second < kRefusedKeyMs) {
    return true;
  }
  refused_keys_.erase(it);
  return false;
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
