#include "daemon/src/serverd/health_row.h"

#include <zmq.h>

#include <cstring>
#include <sstream>
#include <string>
#include <string_view>

#include "util/czmq.h"

namespace {

void append_frame(received_message& message, std::string_view bytes) {
  zmq_msg_t frame;
  zmq_msg_init_size(&frame, bytes.size());
  if (!bytes.empty()) {
    std::memcpy(zmq_msg_data(&frame), bytes.data(), bytes.size());
  }
  message.append(frame);
  zmq_msg_close(&frame);
}

}  // namespace

int64_t database_unavailable_ms(const server_health& health, int64_t now_ms) {
  const int64_t since = health.unavailable_since_ms;
  return health.database_unavailable_ms + (since != 0 && now_ms > since ? now_ms - since : 0);
}

provider_result server_health_row(const server_health& health, const health_clock& clock,
                                  int64_t unavailable_before_ms) {
  const int64_t unavailable_ms = database_unavailable_ms(health, clock.now_ms);
  std::ostringstream out;
  out << "version=" << VORN_VERSION << "\n"
      << "uptime_s=" << (clock.now_ms - clock.started_ms) / 1000 << "\n"
      << "results_stored=" << health.results_stored << "\n"
      << "duplicates_dropped=" << health.duplicates_dropped << "\n"
      << "pub_ack_answered=" << health.pub_ack_answered << "\n"
      << "pub_ack_dropped=" << health.pub_ack_dropped << "\n"
      << "pub_ack_refused=" << health.pub_ack_refused << "\n"
      << "database_retries=" << health.database_retries << "\n"
      << "database_unavailable_s=" << unavailable_ms / 1000 << "\n"
      << "writer_queue=" << health.writer_queue << "\n"
      << "peers=" << health.peers << "\n";
  std::string trouble;
  if (health.unavailable_since_ms != 0) {
    trouble = "the database is unavailable, for " +
              std::to_string((clock.now_ms - health.unavailable_since_ms) / 1000) + " s now\n";
  } else if (unavailable_ms > unavailable_before_ms) {
    trouble = "the database was unavailable for " +
              std::to_string((unavailable_ms - unavailable_before_ms) / 1000) +
              " s since the last health row\n";
  }
  return health_result("vorn-serverd", out.str(), trouble, trouble.empty() ? 0 : 1);
}

server_health_reporter::server_health_reporter(const daemon_config& config)
    : config_(config),
      period_ms_(config.heartbeat_period > 0
                     ? int64_t{vorn::czmq::timeout_ms(config.heartbeat_period)}
                     : 0) {}

void server_health_reporter::fill(received_message& message) {
  const health_clock clock = health_clock_now();
  const server_health& health = server_health_counters();
  const provider_result row = server_health_row(health, clock, unavailable_reported_ms_);
  unavailable_reported_ms_ = database_unavailable_ms(health, clock.now_ms);
  next_ms_ = clock.now_ms + period_ms_;
  message.clear();
  append_frame(message, accumulate_topic(config_));
  append_frame(message,
               std::string_view(reinterpret_cast<const char*>(&row.header), kResultHeaderSize));
  append_frame(message, row.stdout_data);
  append_frame(message, row.stderr_data);
  append_frame(message, row.nodes_csv);
  message.parse_result();
}
