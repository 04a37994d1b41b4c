#pragma once
// What vorn-serverd knows about itself, for its health rows: counters since
// the server started and the state of its writer. The receiving thread and the
// writer update them as things happen; every heartbeat_period the receiving
// thread stores them as a result of provider "vorn-serverd", straight into its
// own store.
//
// Thread safety: every field is atomic, so any thread may update or read them
// at any time. There is one record per process: server_health_counters().

#include <atomic>
#include <cstdint>

struct server_health {
  std::atomic<uint64_t> results_stored{0};      // rows committed
  std::atomic<uint64_t> duplicates_dropped{0};  // results already stored, not stored again
  std::atomic<uint64_t> pub_ack_answered{0};
  std::atomic<uint64_t> pub_ack_dropped{0};   // never answered: too many waiting, or file lost
  std::atomic<uint64_t> pub_ack_refused{0};   // from senders that may not store results
  std::atomic<uint64_t> database_retries{0};  // writes or commits to be tried again
  // Milliseconds the database has been unavailable, in spells that ended,
  // and zclock_mono when the current spell began (0 while available).
  std::atomic<int64_t> database_unavailable_ms{0};
  std::atomic<int64_t> unavailable_since_ms{0};
  std::atomic<uint64_t> writer_queue{0};  // results received, not yet committed
  std::atomic<int64_t> peers{-1};         // connected senders; -1 when unknown
};

inline server_health& server_health_counters() {
  static server_health counters;
  return counters;
}
