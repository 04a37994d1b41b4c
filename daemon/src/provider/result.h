#pragma once
// The result of one provider run, and its travel as a ZeroMQ message.
//
// A result is a fixed 456-byte header, carried and stored as raw bytes in host
// byte order (padding included, zero in records made here), followed by the
// standard output, standard error and the comma-separated node list, whose
// sizes the header gives. The same bytes, without the topic frame, form a
// provider output file.
//
// Message: five frames, the topic ("ACCUMULATE" plus a blank and the network
// partition), the header, stdout, stderr, the node list. A four-frame
// "PUB_ACK" request on the same subscription asks the server to connect back
// to the sender, so that it learns its results are received. The receiving
// end lives with the accumulate server (daemon/src/serverd/receiver.h).
//
// Thread safety: send_result uses only the caller's socket.

#include <sys/time.h>

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

#include "daemon/src/config/config.h"

// CZMQ's own name for its socket type, so that users of the record need not
// include czmq.h.
typedef struct _zsock_t zsock_t;

struct result_header {
  uint8_t api;
  int32_t exit_status;
  char name[64];
  int32_t encoding;  // 0 none, 1 base64, 2 raw
  struct timeval timestamp;
  double duration;
  char hostname[256];
  uint64_t nodes_size;
  uint16_t num_nodes;
  uint64_t stdout_size;
  uint64_t stderr_size;
  char option_id[60];
  int32_t version;
};

constexpr size_t kResultHeaderSize = 456;
static_assert(sizeof(result_header) == kResultHeaderSize, "the wire header is 456 bytes");
static_assert(offsetof(result_header, exit_status) == 4);
static_assert(offsetof(result_header, name) == 8);
static_assert(offsetof(result_header, encoding) == 72);
static_assert(offsetof(result_header, timestamp) == 80);
static_assert(offsetof(result_header, duration) == 96);
static_assert(offsetof(result_header, hostname) == 104);
static_assert(offsetof(result_header, nodes_size) == 360);
static_assert(offsetof(result_header, num_nodes) == 368);
static_assert(offsetof(result_header, stdout_size) == 376);
static_assert(offsetof(result_header, stderr_size) == 384);
static_assert(offsetof(result_header, option_id) == 392);
static_assert(offsetof(result_header, version) == 452);

struct provider_result {
  result_header header{};  // all bytes zero, padding included
  std::string stdout_data;
  std::string stderr_data;
  std::string nodes_csv;
};

// A result whose outputs are stored elsewhere (the frames of a received
// message, say), so that handing it on copies no output. What it refers to
// must outlive it. A provider_result converts to it implicitly, as every
// consumer of results reads them through a view.
struct result_view {
  result_view(const result_header& header, std::string_view stdout_data,
              std::string_view stderr_data, const char* nodes_csv)
      : header(header), stdout_data(stdout_data), stderr_data(stderr_data), nodes_csv(nodes_csv) {}
  result_view(const provider_result& result)  // NOLINT: implicit on purpose
      : result_view(result.header, result.stdout_data, result.stderr_data,
                    result.nodes_csv.c_str()) {}

  const result_header& header;
  std::string_view stdout_data;
  std::string_view stderr_data;
  const char* nodes_csv;  // NUL-terminated
};

// Copies the first 456 bytes into `header`, terminating its text fields inside
// their arrays; false when there are fewer bytes.
bool parse_result_header(std::string_view bytes, result_header& header);

// "ACCUMULATE", followed by a blank and the partition when there is one.
std::string accumulate_topic(const daemon_config& config);

// Publishes the result as one five-frame message. Returns 1 on success, 0
// when sending failed (reported on standard error).
int send_result(const provider_result& result, const daemon_config& config, zsock_t* socket);

// A run killed at its time-out may still exit with status 0 (the decoded
// wait status of a signal), so the runner ends its standard error with this
// line: "vorn: killed after the time-out of N s" and a newline, after any
// line about cut output. A result is one that timed out exactly when its
// standard error ends with such a line; the same text anywhere else is only
// output. The line is at most kTimeOutLineMax bytes long, so the last
// kTimeOutLineMax bytes of standard error tell.
constexpr size_t kTimeOutLineMax = 64;
std::string time_out_line(int64_t seconds);
bool killed_at_time_out(std::string_view stderr_data);

// How the API field appears in the text form: the server's text dump keeps
// the raw byte its readers expect; people read the number.
enum class api_text { raw_byte, number };

// The text form of a result: one "Field: value" line per header field, then
// the outputs and the node list as they are (bytes unchanged). For people
// (api_text::number), the exit status of a run killed at its time-out says so.
std::string result_text(const result_view& result, api_text api = api_text::raw_byte);
