#pragma once
// vorn-serverd's health rows (see provider/health_row.h for what a health
// row is): every heartbeat_period seconds, and once at start, a result of
// provider "vorn-serverd" with this host's name, stored straight into the
// server's own store. The server is in trouble when its database was
// unavailable at any time since its last row.
//
// Thread safety: the reporter belongs to the receiving thread; the counters
// it reads may change meanwhile.

#include <cstdint>

#include "daemon/src/config/config.h"
#include "daemon/src/provider/health_row.h"
#include "daemon/src/serverd/health.h"
#include "daemon/src/serverd/receiver.h"

// Milliseconds the database has been unavailable in all, a spell still going
// on included.
int64_t database_unavailable_ms(const server_health& health, int64_t now_ms);

// `unavailable_before_ms`: database_unavailable_ms when the last row was made.
provider_result server_health_row(const server_health& health, const health_clock& clock,
                                  int64_t unavailable_before_ms);

class server_health_reporter {
 public:
  explicit server_health_reporter(const daemon_config& config);

  // Whether a row is due at `now_ms` (zclock_mono); the first one is due at
  // once. Never with heartbeat_period 0 or less.
  bool due(int64_t now_ms) const { return period_ms_ > 0 && now_ms >= next_ms_; }

  // Fills `message` with the row, as the message that would bring it, so
  // that the writer stores it like a received result; the next row is due
  // heartbeat_period seconds later.
  void fill(received_message& message);

 private:
  const daemon_config& config_;
  int64_t period_ms_;
  int64_t next_ms_ = 0;
  int64_t unavailable_reported_ms_ = 0;
};
