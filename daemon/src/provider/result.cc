#include "daemon/src/provider/result.h"

#include <sys/stat.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <iomanip>
#include <set>
#include <sstream>
#include <string_view>

#include "util/czmq.h"
#include "util/log.h"

namespace {

constexpr const char* kLogSource = "daemon/src/provider";

// Requests already answered, as "<endpoint> <number>"; lives as long as the
// process, so a requester is answered once per number.
std::set<std::string>& acknowledged_requests() {
  static std::set<std::string> keys;
  return keys;
}

// The frames of one received message, received straight into reused ZeroMQ
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

// Connects back to the requester and sends it the number of its request.
void answer_pub_ack(ReceivedMessage& message) {
  if (message.frame(1) != "PUB_ACK") {
    return;
  }
  std::string endpoint(message.frame(2));
  // Only a TCP requester can be answered; anything else would make the
  // server open other kinds of connections on a stranger's word.
  if (endpoint.rfind("tcp://", 0) != 0) {
    return;
  }
  std::string_view number_frame = message.frame(3);
  std::string key = endpoint + " ";
  int32_t number = 0;
  if (number_frame.size() == sizeof number) {
    std::memcpy(&number, number_frame.data(), sizeof number);
    key += std::to_string(number);
  }
  if (acknowledged_requests().count(key) != 0) {
    return;
  }
  vorn::czmq::Socket reply(zsock_new(ZMQ_REQ));
  // zsock_connect never binds, whatever the endpoint text says.
  if (!reply || zsock_connect(reply.get(), "%s", endpoint.c_str()) != 0) {
    VORN_LOG(3) << "Unable to create pub-ack socket " << vorn::log::sys_error(errno);
    return;
  }
  zsock_set_linger(reply.get(), 1000);
  // A requester that is gone must not stall the server.
  zsock_set_sndtimeo(reply.get(), 1000);
  if (zsock_send(reply.get(), "i", number) != 0) {
    VORN_LOG(3) << "Error replying to pub-ack request " << vorn::log::sys_error(errno);
  }
  acknowledged_requests().insert(key);
}

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

bool parse_result_header(std::string_view bytes, result_header& header) {
  if (bytes.size() < kResultHeaderSize) {
    return false;
  }
  std::memcpy(&header, bytes.data(), kResultHeaderSize);
  // Text fields of a foreign header need not be terminated.
  header.name[sizeof header.name - 1] = '\0';
  header.hostname[sizeof header.hostname - 1] = '\0';
  header.option_id[sizeof header.option_id - 1] = '\0';
  return true;
}

std::string accumulate_topic(const daemon_config& config) {
  return with_partition("ACCUMULATE", config);
}

int send_result(const provider_result& result, const daemon_config& config, zsock_t* socket) {
  if (result.header.stdout_size > result.stdout_data.size() ||
      result.header.stderr_size > result.stderr_data.size()) {
    std::fprintf(stderr, "send_result: the header claims more output than the result holds\n");
    return 0;
  }
  zmsg_t* message = zmsg_new();
  zmsg_addstr(message, accumulate_topic(config).c_str());
  zmsg_addmem(message, &result.header, kResultHeaderSize);
  zmsg_addmem(message, result.stdout_data.data(), result.header.stdout_size);
  zmsg_addmem(message, result.stderr_data.data(), result.header.stderr_size);
  zmsg_addmem(message, result.nodes_csv.data(), result.nodes_csv.size());
  if (zmsg_send(&message, socket) != 0) {
    std::fprintf(stderr, "zmsg_send: %d\n", errno);
    zmsg_destroy(&message);
    return 0;
  }
  return 1;
}

int receive_result(provider_result& result, const daemon_config&, zsock_t* socket) {
  ReceivedMessage message;
  if (!message.receive(zsock_resolve(socket))) {
    return 0;
  }
  if (message.count() == 4) {
    answer_pub_ack(message);
    return 0;
  }
  if (message.count() != 5 || !parse_result(message, result)) {
    VORN_LOG(3) << "Unrecognized message format";
    return 0;
  }
  VORN_LOG(6) << "Received data provider '" << result.header.name << "' from "
              << result.header.hostname << " (" << message.total_size() << " bytes)";
  return 1;
}

std::string result_text(const provider_result& result) {
  const result_header& h = result.header;
  std::ostringstream text;
  text << "Name: " << h.name << "\n"
       << "Hostname: " << h.hostname << "\n"
       << "Duration: " << h.duration << "\n"
       << "Timestamp: " << h.timestamp.tv_sec << "." << std::setw(6) << std::setfill('0')
       << h.timestamp.tv_usec << std::setfill(' ') << "\n"
       << "Exit status: " << h.exit_status << "\n"
       << "Encoding: " << h.encoding << "\n"
       << "API: " << static_cast<char>(h.api) << "\n"
       << "OptionID: " << h.option_id << "\n"
       << "version: " << h.version << "\n"
       << "stdout (" << h.stdout_size << " bytes): \n"
       << result.stdout_data << "\n"
       << "stderr (" << h.stderr_size << " bytes): \n"
       << result.stderr_data << "\n"
       << "nodes (" << h.num_nodes << " nodes, " << h.nodes_size << " bytes): " << result.nodes_csv
       << "\n";
  return text.str();
}

void dump_result(const provider_result& result, const daemon_config& config) {
  ::umask(022);
  std::string path =
      std::string(config.accumulate_output_dir) + "/" + dump_file_name(result.header.name);
  FILE* file = std::fopen(path.c_str(), "ab");
  if (file == nullptr) {
    VORN_LOG(3) << "Error opening log file '" << path << "'";
    return;
  }
  const std::string text = result_text(result);
  std::fwrite(text.data(), 1, text.size(), file);
  std::fclose(file);
}
