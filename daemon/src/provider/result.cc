#include "daemon/src/provider/result.h"

#include <sys/stat.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <iomanip>
#include <set>
#include <sstream>

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

std::string frame_text(zframe_t* frame) {
  return std::string(reinterpret_cast<const char*>(zframe_data(frame)), zframe_size(frame));
}

// Connects back to the requester and sends it the number of its request.
void answer_pub_ack(zmsg_t* message) {
  zmsg_first(message);
  zframe_t* tag = zmsg_next(message);
  zframe_t* endpoint_frame = zmsg_next(message);
  zframe_t* number_frame = zmsg_next(message);
  if (frame_text(tag) != "PUB_ACK") {
    return;
  }
  std::string endpoint = frame_text(endpoint_frame);
  std::string key = endpoint + " ";
  int32_t number = 0;
  if (zframe_size(number_frame) == sizeof number) {
    std::memcpy(&number, zframe_data(number_frame), sizeof number);
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
bool parse_result(zmsg_t* message, provider_result& result) {
  zmsg_first(message);  // the topic is not looked at
  zframe_t* header = zmsg_next(message);
  zframe_t* out = zmsg_next(message);
  zframe_t* err = zmsg_next(message);
  zframe_t* nodes = zmsg_next(message);
  if (zframe_size(header) < kResultHeaderSize) {
    return false;
  }
  result_header h;
  std::memcpy(&h, zframe_data(header), kResultHeaderSize);
  if (zframe_size(out) < h.stdout_size || zframe_size(err) < h.stderr_size) {
    return false;
  }
  // Text fields of a foreign header need not be terminated.
  h.name[sizeof h.name - 1] = '\0';
  h.hostname[sizeof h.hostname - 1] = '\0';
  h.option_id[sizeof h.option_id - 1] = '\0';
  result.header = h;
  result.stdout_data.append(reinterpret_cast<const char*>(zframe_data(out)), h.stdout_size);
  result.stderr_data.append(reinterpret_cast<const char*>(zframe_data(err)), h.stderr_size);
  result.nodes_csv = frame_text(nodes);
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

std::string accumulate_topic(const daemon_config& config) {
  std::string topic = "ACCUMULATE";
  if (!config.network_partition.empty()) {
    topic += " " + config.network_partition;
  }
  return topic;
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
  vorn::czmq::Message message(zmsg_recv(socket));
  if (!message) {
    return 0;
  }
  size_t frames = zmsg_size(message.get());
  if (frames == 4) {
    answer_pub_ack(message.get());
    return 0;
  }
  if (frames != 5 || !parse_result(message.get(), result)) {
    VORN_LOG(3) << "Unrecognized message format";
    return 0;
  }
  VORN_LOG(6) << "Received data provider '" << result.header.name << "' from "
              << result.header.hostname << " (" << zmsg_content_size(message.get())
              << " bytes)";
  return 1;
}

void dump_result(const provider_result& result, const daemon_config& config) {
  ::umask(022);
  const result_header& h = result.header;
  std::string path =
      std::string(config.accumulate_output_dir) + "/" + dump_file_name(h.name);
  FILE* file = std::fopen(path.c_str(), "ab");
  if (file == nullptr) {
    VORN_LOG(3) << "Error opening log file '" << path << "'";
    return;
  }
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
       << "nodes (" << h.num_nodes << " nodes, " << h.nodes_size << " bytes): "
       << result.nodes_csv << "\n";
  const std::string& bytes = text.str();
  std::fwrite(bytes.data(), 1, bytes.size(), file);
  std::fclose(file);
}
