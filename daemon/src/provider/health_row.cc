#include "daemon/src/provider/health_row.h"

#include <pthread.h>
#include <sys/time.h>

#include <czmq.h>

#include <algorithm>
#include <sstream>
#include <string>

#include "daemon/src/provider/run.h"
#include "daemon/src/provider/stop.h"
#include "util/czmq.h"
#include "util/str.h"

namespace {

// Taken when the program is loaded: uptime counts from there.
const int64_t process_started_ms = zclock_mono();

int64_t whole_seconds_between(int64_t from_ms, int64_t to_ms) {
  return std::max<int64_t>(0, (to_ms - from_ms) / 1000);
}

}  // namespace

health_clock health_clock_now() {
  timeval now{};
  ::gettimeofday(&now, nullptr);
  return {process_started_ms, zclock_mono(), now.tv_sec};
}

provider_result health_result(const char* name, const std::string& stdout_text,
                              const std::string& stderr_text, int32_t exit_status) {
  provider_result result;
  result_header& h = result.header;
  h.api = 1;
  h.exit_status = exit_status;
  vorn::str::copy(h.name, name);
  ::gettimeofday(&h.timestamp, nullptr);
  fill_hostname(result);
  result.stdout_data = stdout_text;
  result.stderr_data = stderr_text;
  h.stdout_size = result.stdout_data.size();
  h.stderr_size = result.stderr_data.size();
  return result;
}

provider_result node_health_row(const node_health& health, const health_clock& clock) {
  const uint64_t waiting = health.files_waiting;
  const int64_t oldest = health.oldest_waiting_unix;
  const int64_t oldest_age =
      waiting > 0 && oldest > 0 ? std::max<int64_t>(0, clock.now_unix - oldest) : 0;
  // Before the publisher has seen a confirmation, silence counts from the start.
  const int64_t progress_ms =
      health.last_progress_ms != 0 ? health.last_progress_ms.load() : clock.started_ms;
  const int64_t silence = whole_seconds_between(progress_ms, clock.now_ms);
  const std::string server = health.server();
  std::ostringstream out;
  out << "version=" << VORN_VERSION << "\n"
      << "uptime_s=" << whole_seconds_between(clock.started_ms, clock.now_ms) << "\n"
      << "files_waiting=" << waiting << "\n"
      << "oldest_waiting_s=" << oldest_age << "\n"
      << "runs=" << health.runs << "\n"
      << "failures=" << health.failures << "\n"
      << "timeouts=" << health.timeouts << "\n"
      << "lost=" << health.lost << "\n"
      << "rejected=" << health.rejected << "\n"
      << "server=" << server << "\n"
      << "sleep_mode=" << (health.sleeping ? 1 : 0) << "\n"
      << "last_progress_s=" << silence << "\n";
  std::string trouble;
  if (waiting > 0 && silence > kNoProgressTroubleS) {
    trouble =
        std::to_string(waiting) + " result file(s) wait for delivery and none was confirmed for " +
        std::to_string(silence) + " s; server: " + (server.empty() ? "none found" : server) + "\n";
  }
  return health_result("vorn-noded", out.str(), trouble, trouble.empty() ? 0 : 1);
}

void report_node_health(const daemon_config& config) {
  if (config.heartbeat_period <= 0) {
    return;
  }
  pthread_setname_np(pthread_self(), "vorn-health");
  const int period_ms = vorn::czmq::timeout_ms(config.heartbeat_period);
  do {
    store_result(node_health_row(node_health_counters(), health_clock_now()), config);
  } while (!vorn::stop::wait_for_stop(period_ms));
}
