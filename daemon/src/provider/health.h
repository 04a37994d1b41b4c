#pragma once
// What vorn-noded knows about itself, for its health rows: counters since the
// daemon started and the state of its delivery. The scheduler, the runner and
// the publisher update them as things happen; the health reporter reads them
// every heartbeat_period and stores them as a result of provider
// "vorn-noded", through the same output directory as every other result.
//
// Thread safety: every field is atomic (the server name has its mutex), so
// any thread may update or read them at any time. There is one record per
// process: node_health_counters().

#include <atomic>
#include <cstdint>
#include <mutex>
#include <string>

struct node_health {
  std::atomic<uint64_t> runs{0};      // provider runs finished
  std::atomic<uint64_t> failures{0};  // of them: non-zero exit status or killed
  std::atomic<uint64_t> timeouts{0};  // of them: killed at their time-out
  std::atomic<uint64_t> lost{0};      // results that could not be written
  std::atomic<uint64_t> rejected{0};  // output files moved to rejected/

  // The delivery queue as the publisher last saw it: files in the output
  // directory, and the modification time (Unix seconds) of the oldest, 0 when
  // there is none.
  std::atomic<uint64_t> files_waiting{0};
  std::atomic<int64_t> oldest_waiting_unix{0};
  // zclock_mono when the publisher last saw the server confirm files (or
  // started); with files waiting, a long silence means delivery is stuck.
  std::atomic<int64_t> last_progress_ms{0};
  std::atomic<bool> sleeping{false};

  void set_server(const std::string& endpoint) {
    std::lock_guard<std::mutex> lock(server_mutex_);
    server_ = endpoint;
  }
  std::string server() const {
    std::lock_guard<std::mutex> lock(server_mutex_);
    return server_;
  }

 private:
  mutable std::mutex server_mutex_;
  std::string server_;  // the accumulate server in use, "" while none
};

inline node_health& node_health_counters() {
  static node_health counters;
  return counters;
}
