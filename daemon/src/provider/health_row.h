#pragma once
// Health rows: every heartbeat_period seconds each daemon stores a result
// about itself, so that the database tells which daemons live and how they
// fare, with no other channel to watch. Standard output holds "key=value"
// lines in a fixed order (readers parse them); the exit status is 1 when the
// daemon is in trouble, and standard error then says why in one line.
//
// vorn-noded's row, of provider "vorn-noded", goes through the node's output
// directory like every result, so the publisher delivers it; it is written
// in sleep mode too, which holds the providers, not the daemon. The node is
// in trouble when files wait and the server has confirmed none for more than
// kNoProgressTroubleS.
//
// Thread safety: the row builders read the process-wide counters, which any
// thread may update meanwhile.

#include <cstdint>
#include <string>

#include "daemon/src/config/config.h"
#include "daemon/src/provider/health.h"
#include "daemon/src/provider/result.h"

constexpr int64_t kNoProgressTroubleS = 600;

// When a row is made, in the clocks its numbers are computed from.
struct health_clock {
  int64_t started_ms = 0;  // zclock_mono when the process started
  int64_t now_ms = 0;      // zclock_mono now
  int64_t now_unix = 0;    // seconds since the epoch now
};

health_clock health_clock_now();

// A result of provider `name` with this host's name, the time of now, an
// empty option set, and the given outputs and exit status.
provider_result health_result(const char* name, const std::string& stdout_text,
                              const std::string& stderr_text, int32_t exit_status);

provider_result node_health_row(const node_health& health, const health_clock& clock);

// Stores a row at once, then every heartbeat_period seconds until the stop
// is requested (stop.h); returns at once when heartbeat_period is 0 or less.
void report_node_health(const daemon_config& config);
