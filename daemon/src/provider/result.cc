#include "daemon/src/provider/result.h"

#include <czmq.h>

#include <cctype>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <iomanip>
#include <sstream>
#include <string_view>

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

namespace {

constexpr std::string_view kTimeOutStart = "vorn: killed after the time-out of ";
constexpr std::string_view kTimeOutEnd = " s\n";

}  // namespace

std::string time_out_line(int64_t seconds) {
  return std::string(kTimeOutStart) + std::to_string(seconds) + std::string(kTimeOutEnd);
}

bool killed_at_time_out(std::string_view stderr_data) {
  if (stderr_data.size() < kTimeOutEnd.size() ||
      stderr_data.substr(stderr_data.size() - kTimeOutEnd.size()) != kTimeOutEnd) {
    return false;
  }
  std::string_view rest = stderr_data.substr(0, stderr_data.size() - kTimeOutEnd.size());
  size_t digits = 0;
  while (digits < rest.size() &&
         std::isdigit(static_cast<unsigned char>(rest[rest.size() - 1 - digits]))) {
    ++digits;
  }
  if (digits == 0) {
    return false;
  }
  rest.remove_suffix(digits);
  if (rest.size() < kTimeOutStart.size() ||
      rest.substr(rest.size() - kTimeOutStart.size()) != kTimeOutStart) {
    return false;
  }
  rest.remove_suffix(kTimeOutStart.size());
  // A line of its own, not the end of a longer one.
  return rest.empty() || rest.back() == '\n';
}

std::string result_text(const result_view& result, api_text api) {
  const result_header& h = result.header;
  std::ostringstream text;
  text << "Name: " << h.name << "\n"
       << "Hostname: " << h.hostname << "\n"
       << "Duration: " << h.duration << "\n"
       << "Timestamp: " << h.timestamp.tv_sec << "." << std::setw(6) << std::setfill('0')
       << h.timestamp.tv_usec << std::setfill(' ') << "\n"
       << "Exit status: " << h.exit_status
       << (api == api_text::number && killed_at_time_out(result.stderr_data)
               ? " (killed after the time-out)"
               : "")
       << "\n"
       << "Encoding: " << h.encoding << "\n"
       << "API: "
       << (api == api_text::number ? std::to_string(h.api)
                                   : std::string(1, static_cast<char>(h.api)))
       << "\n"
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
