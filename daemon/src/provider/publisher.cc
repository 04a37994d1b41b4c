#include "daemon/src/provider/publisher.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cctype>
#include <cerrno>
#include <condition_variable>
#include <cstdlib>
#include <cstring>
#include <deque>
#include <exception>
#include <iterator>
#include <mutex>
#include <set>
#include <string>
#include <thread>
#include <unordered_set>
#include <vector>

#include "daemon/src/adhoc_cluster/beacon.h"
#include "daemon/src/provider/health.h"
#include "daemon/src/provider/result.h"
#include "daemon/src/provider/run.h"
#include "daemon/src/provider/sender.h"
#include "daemon/src/provider/stop.h"
#include "util/czmq.h"
#include "util/host.h"
#include "util/log.h"

namespace {

constexpr const char* kLogSource = "daemon/src/provider";

// A batch: at most this many files, bytes (of messages) or milliseconds of
// sending, closed by one "PUB_ACK" request.
constexpr size_t kBatchFiles = 1000;
constexpr size_t kBatchBytes = size_t{1} << 20;
constexpr int64_t kBatchMs = 1000;
// Batches in flight ahead of the server's answers; each adds kBatchBytes to
// the window's bound in bytes.
constexpr size_t kWindowBatches = 4;
// Lets the benchmark compare with lock-step delivery (1); not for users.
constexpr const char* kWindowVariable = "VORN_BENCH_PUBLISHER_WINDOW";
constexpr size_t kMaxWindowBatches = 16;
// An answer is due within kAnswerTimeoutMs of the last progress, plus the
// time the bytes in flight take at kMinBytesPerSecond (a 256 kbit/s link).
constexpr int64_t kAnswerTimeoutMs = 10000;
constexpr int64_t kMinBytesPerSecond = 32 * 1024;
constexpr int kRequestIntervalMs = 500;
constexpr int64_t kStopGraceMs = 5000;
constexpr int kScanIntervalMs = 1000;
// Confirmed files whose deletion may lag behind delivery: names only, as
// many as a listing of a large backlog holds (no new batch starts beyond
// it). The directory is listed again once they are gone, looked at this
// often meanwhile.
constexpr size_t kMaxPendingDeletions = 100000;
constexpr int kDeletionPollMs = 100;
// The send queue holds a full window and the requests repeated while it
// drains, so sending never waits for room; should it, this long at most.
constexpr int kQueuedRequests = 1000;
constexpr int kSendTimeoutMs = 1000;
// A refused or broken connection is made anew after this pause.
constexpr int kRetryAfterCloseMs = 1000;
// A file shorter than its header may still be in the hands of its writer
// (between mkstemp and its lock); only an older one is rejected.
constexpr time_t kWriterGraceSeconds = 2;
constexpr const char* kRejectedDirectory = "rejected";

// A lasting condition, logged once when it starts (or changes) and once when
// it clears, however often it is seen in between.
class Condition {
 public:
  // True when the condition starts or changes: the caller logs it then.
  bool raise(const std::string& what) {
    if (what == current_) {
      return false;
    }
    current_ = what;
    return true;
  }
  bool raised() const { return !current_.empty(); }
  // True when a condition was in force: the caller logs that it cleared.
  bool clear() {
    bool was_raised = !current_.empty();
    current_.clear();
    return was_raised;
  }

 private:
  std::string current_;
};

struct connection {
  std::string server;  // tcp://<address>:<port>
  vorn::czmq::Socket publisher;
  // Hears of the publisher's connection closing, refused or broken, or of
  // its handshake, so the loop does not wait for answers that cannot come.
  vorn::czmq::Socket monitor;
};

constexpr int kMonitoredEvents =
    ZMQ_EVENT_CLOSED | ZMQ_EVENT_DISCONNECTED | ZMQ_EVENT_HANDSHAKE_SUCCEEDED |
    ZMQ_EVENT_HANDSHAKE_FAILED_NO_DETAIL | ZMQ_EVENT_HANDSHAKE_FAILED_PROTOCOL |
    ZMQ_EVENT_HANDSHAKE_FAILED_AUTH;

struct link_event {
  uint16_t id = 0;
  uint32_t value = 0;  // errno, protocol error or ZAP status, by event
};

// The next event the monitor holds; false when there is none.
bool next_link_event(const connection& c, link_event& event) {
  if ((zsock_events(c.monitor.get()) & ZMQ_POLLIN) == 0) {
    return false;
  }
  vorn::czmq::Message message(zmsg_recv(c.monitor.get()));
  zframe_t* frame = message ? zmsg_first(message.get()) : nullptr;
  if (frame == nullptr || zframe_size(frame) < sizeof event.id + sizeof event.value) {
    event = {};
    return message != nullptr;
  }
  std::memcpy(&event.id, zframe_data(frame), sizeof event.id);
  std::memcpy(&event.value, zframe_data(frame) + sizeof event.id, sizeof event.value);
  return true;
}

// Why a handshake failed, in the user's words.
std::string handshake_failure(const link_event& event) {
  switch (event.id) {
    case ZMQ_EVENT_HANDSHAKE_FAILED_AUTH:
      return "the server refused this node's key (status " + std::to_string(event.value) + ")";
    case ZMQ_EVENT_HANDSHAKE_FAILED_PROTOCOL:
      if (event.value == ZMQ_PROTOCOL_ERROR_ZMTP_MECHANISM_MISMATCH) {
        return "the server uses another security mechanism (CURVE on one side only)";
      }
      if (event.value == ZMQ_PROTOCOL_ERROR_ZMTP_CRYPTOGRAPHIC) {
        return "the keys do not match";
      }
      return "protocol error " + std::to_string(event.value);
    default:
      return "the server closed the connection during the handshake";
  }
}

// "<name>.XXXXXX", as mkstemp makes output files.
bool is_output_file_name(const char* name) {
  size_t length = std::strlen(name);
  if (length < 8 || name[0] == '.' || name[length - 7] != '.') {
    return false;
  }
  return std::all_of(name + length - 6, name + length,
                     [](char c) { return std::isalnum(static_cast<unsigned char>(c)) != 0; });
}

// What a listing of the output directory found, skipped files included.
struct listing {
  size_t files = 0;
  time_t oldest = 0;  // modification time of the oldest file; 0 when none
};

// Appends the output files of `directory` that are not in `skip` to
// `files`, oldest first; false when the directory cannot be read.
bool scan_output_files(const std::string& directory, const std::unordered_set<std::string>& skip,
                       std::deque<std::string>& files, listing& seen) {
  DIR* dir = ::opendir(directory.c_str());
  if (dir == nullptr) {
    return false;
  }
  struct entry {
    timespec mtime;
    std::string path;
  };
  std::vector<entry> found;
  while (dirent* d = ::readdir(dir)) {
    if (!is_output_file_name(d->d_name)) {
      continue;
    }
    // Relative to the directory: no walk of the whole path for each file.
    struct stat st;
    if (::fstatat(::dirfd(dir), d->d_name, &st, AT_SYMLINK_NOFOLLOW) == 0 && S_ISREG(st.st_mode)) {
      found.push_back({st.st_mtim, directory + "/" + d->d_name});
    }
  }
  ::closedir(dir);
  std::sort(found.begin(), found.end(), [](const entry& a, const entry& b) {
    if (a.mtime.tv_sec != b.mtime.tv_sec) {
      return a.mtime.tv_sec < b.mtime.tv_sec;
    }
    if (a.mtime.tv_nsec != b.mtime.tv_nsec) {
      return a.mtime.tv_nsec < b.mtime.tv_nsec;
    }
    return a.path < b.path;
  });
  seen.files = found.size();
  seen.oldest = found.empty() ? 0 : found.front().mtime.tv_sec;
  for (entry& e : found) {
    if (skip.count(e.path) == 0) {
      files.push_back(std::move(e.path));
    }
  }
  return true;
}

// The accumulate port as a number; 0 when the text is not a port.
int port_number(const std::string& text) {
  if (text.empty() || text.size() > 5 ||
      text.find_first_not_of("0123456789") != std::string::npos) {
    return 0;
  }
  int port = std::stoi(text);
  return port <= 65535 ? port : 0;
}

// "DISCOVERY[ <partition>] port=<N>" for this node's partition exactly; the
// port, or 0 for any other payload.
int discovery_port(const std::string& payload, const daemon_config& config) {
  const std::string prefix = with_partition("DISCOVERY", config) + " port=";
  if (payload.compare(0, prefix.size(), prefix) != 0) {
    return 0;
  }
  return port_number(payload.substr(prefix.size()));
}

void delete_output_file(const std::string& path) {
  if (::unlink(path.c_str()) != 0 && errno != ENOENT) {
    VORN_LOG(3) << "Cannot delete delivered output file '" << path << "' "
                << vorn::log::sys_error(errno);
  }
}

// Deletes confirmed output files on threads of their own, so that delivery
// need not wait for it. Deleting a file costs about as much as reading and
// sending it, and on a file system mounted with "discard" each deletion of a
// file whose blocks reached the disk waits for the device: several at once
// overlap those waits, and a backlog reaches the server before its files
// are all gone. Until they are, the directory is not listed again (they
// would be sent again).
class file_deleter {
 public:
  static constexpr size_t kThreads = 4;
  static constexpr size_t kChunk = 64;
  static constexpr int kNice = 10;

  explicit file_deleter(size_t max_pending) : max_pending_(max_pending) {
    for (size_t i = 0; i < kThreads; ++i) {
      threads_.emplace_back([this] { run(); });
    }
  }
  file_deleter(const file_deleter&) = delete;
  file_deleter& operator=(const file_deleter&) = delete;
  // Goes on deleting for kStopGraceMs at most; files left are confirmed
  // ones, sent again after the next start (the server stores them once).
  ~file_deleter() {
    {
      std::lock_guard<std::mutex> lock(mutex_);
      stop_at_ms_ = zclock_mono() + kStopGraceMs;
    }
    changed_.notify_all();
    for (std::thread& thread : threads_) {
      thread.join();
    }
    if (!pending_.empty()) {
      VORN_LOG(4) << pending_.size()
                  << " delivered output file(s) not deleted before the stop will be sent again";
    }
  }

  // Hands `paths` over.
  void remove(std::vector<std::string>&& paths) {
    std::lock_guard<std::mutex> lock(mutex_);
    pending_.insert(pending_.end(), std::make_move_iterator(paths.begin()),
                    std::make_move_iterator(paths.end()));
    changed_.notify_all();
  }

  // True when max_pending files wait: hand no more over for now.
  bool full() {
    std::lock_guard<std::mutex> lock(mutex_);
    return pending_.size() >= max_pending_;
  }

  // True when every file handed over is deleted.
  bool idle() {
    std::lock_guard<std::mutex> lock(mutex_);
    return pending_.empty() && busy_ == 0;
  }

 private:
  void run() {
    // Housekeeping: reading and sending (and a server on this node) come
    // first. Linux gives each thread a nice value of its own.
    ::setpriority(PRIO_PROCESS, static_cast<id_t>(::gettid()), kNice);
    std::unique_lock<std::mutex> lock(mutex_);
    for (;;) {
      changed_.wait(lock, [this] { return stop_at_ms_ >= 0 || !pending_.empty(); });
      if (pending_.empty() || (stop_at_ms_ >= 0 && zclock_mono() >= stop_at_ms_)) {
        return;
      }
      size_t take = std::min(kChunk, pending_.size());
      std::vector<std::string> paths(std::make_move_iterator(pending_.end() - take),
                                     std::make_move_iterator(pending_.end()));
      pending_.resize(pending_.size() - take);
      ++busy_;
      changed_.notify_all();
      lock.unlock();
      for (const std::string& path : paths) {
        delete_output_file(path);
      }
      lock.lock();
      --busy_;
      changed_.notify_all();
    }
  }

  const size_t max_pending_;
  std::mutex mutex_;
  std::condition_variable changed_;
  std::vector<std::string> pending_;
  size_t busy_ = 0;          // threads deleting a chunk
  int64_t stop_at_ms_ = -1;  // once stopping: when to leave the rest
  std::vector<std::thread> threads_;
};

// The number of batches in flight: kWindowBatches, unless the benchmark's
// variable asks for another.
size_t window_batches() {
  const char* text = std::getenv(kWindowVariable);
  if (text == nullptr) {
    return kWindowBatches;
  }
  char* end = nullptr;
  long batches = std::strtol(text, &end, 10);
  if (*text == '\0' || *end != '\0' || batches < 1 ||
      batches > static_cast<long>(kMaxWindowBatches)) {
    VORN_LOG(4) << kWindowVariable << " '" << text << "' is not a number of batches from 1 to "
                << kMaxWindowBatches << "; using " << kWindowBatches;
    return kWindowBatches;
  }
  return static_cast<size_t>(batches);
}

// The size of a result's message, topic included.
size_t message_bytes(const provider_result& result, const std::string& topic) {
  return topic.size() + kResultHeaderSize + result.stdout_data.size() + result.stderr_data.size() +
         result.nodes_csv.size();
}

// Output files sent together, confirmed by the answer to one request.
struct batch {
  int32_t number = 0;  // of its "PUB_ACK" request
  std::vector<std::string> files;
  size_t bytes = 0;
  int64_t sent_ms = 0;  // when its first file went
  bool confirmed = false;
};

// What a connection has in flight: the batches from the oldest unconfirmed
// on (a newer one may be confirmed first).
struct window {
  std::deque<batch> batches;
  size_t files = 0;  // of the unconfirmed batches
  size_t bytes = 0;
  std::unordered_set<std::string> paths;
  // The last answer that confirmed a batch, or the connection's start.
  int64_t progress_ms = 0;
  // When a newer batch was confirmed while the oldest still waits; -1 if not.
  int64_t overtaken_ms = -1;
  int64_t request_ms = 0;  // the last request sent, to close a batch or again

  bool unconfirmed() const { return !batches.empty(); }

  // Since when the next answer is awaited; only while batches wait.
  int64_t waiting_since() const { return std::max(progress_ms, batches.front().sent_ms); }

  // The time by which the next answer is due; only while batches wait.
  int64_t due_ms() const {
    int64_t due = waiting_since() + kAnswerTimeoutMs +
                  static_cast<int64_t>(bytes) * 1000 / kMinBytesPerSecond;
    // The server answers in the order it commits: an older request still
    // unanswered long after a newer one was lost on the way, or is refused
    // (its results may lie in a database file that is gone).
    if (overtaken_ms >= 0) {
      due = std::min(due, overtaken_ms + kAnswerTimeoutMs);
    }
    return due;
  }
};

class publisher_loop {
 public:
  publisher_loop(const daemon_config& config, const vorn::curve::settings& curve)
      : config_(config),
        curve_(curve),
        directory_(config.provider_output_dir),
        topic_(accumulate_topic(config)),
        window_batches_(window_batches()),
        deleter_(kMaxPendingDeletions) {}

  void run() {
    node_health_counters().last_progress_ms = zclock_mono();
    // Before a server answers, perhaps for long.
    count_waiting_files();
    while (!vorn::stop::stop_requested()) {
      connection c;
      if (!connect(c)) {
        node_health_counters().set_server("");
        count_waiting_files();
        continue;
      }
      node_health_counters().set_server(c.server);
      if (!handshake(c)) {
        report_silence(c);
        count_waiting_files();
        continue;
      }
      if (announced_ != c.server) {
        VORN_LOG(5) << "Delivering results to the accumulate server at " << c.server;
        announced_ = c.server;
      }
      silence_.clear();
      queue_.clear();  // start again from the oldest file
      deliver(c);
    }
  }

 private:
  // Sends batches, up to the window ahead of the server's answers, until the
  // connection fails or the stop is requested.
  void deliver(connection& c) {
    window w;
    w.progress_ms = zclock_mono();
    zsock_set_sndtimeo(c.publisher.get(), kSendTimeoutMs);
    int64_t next_scan_ms = 0;
    for (;;) {
      if (vorn::stop::stop_requested()) {
        finish(c, w);
        return;
      }
      take_answers(w);
      if (connection_lost(c)) {
        // What was sent on the closed connection may be lost: no answer can
        // vouch for it.
        break_off(c, w, "the connection closed");
        vorn::stop::wait_for_stop(kRetryAfterCloseMs);
        return;
      }
      int64_t now = zclock_mono();
      if (w.unconfirmed() && now >= w.due_ms()) {
        break_off(c, w, "no answer for " + std::to_string((now - w.waiting_since()) / 1000) + " s");
        return;
      }
      if (has_room(w)) {
        if (queue_.empty() && now >= next_scan_ms) {
          if (!deleter_.idle()) {
            // Confirmed files still on disk would be sent again.
            next_scan_ms = now + kDeletionPollMs;
          } else {
            list_output_files(w);
            if (queue_.empty()) {
              next_scan_ms = now + kScanIntervalMs;
            }
          }
        }
        if (!queue_.empty()) {
          if (!send_batch(c, w)) {
            break_off(c, w, "sending failed");
            return;
          }
          continue;
        }
      }
      int64_t until = repeat_request(c, w, now);
      if (has_room(w) && queue_.empty()) {
        until = std::min(until, next_scan_ms);
      }
      if (deleter_.full()) {
        until = std::min(until, now + kDeletionPollMs);
      }
      wait_for_news(c, until, true);
    }
  }

  // Room for another batch: in the window, and among the deletions waiting
  // (each batch in flight may add its files).
  bool has_room(const window& w) {
    return w.batches.size() < window_batches_ && w.bytes < window_batches_ * kBatchBytes &&
           !deleter_.full();
  }

  // After the stop: no new batch; the answers to those in flight are
  // awaited for kStopGraceMs at most.
  void finish(connection& c, window& w) {
    const int64_t deadline = zclock_mono() + kStopGraceMs;
    for (;;) {
      take_answers(w);
      int64_t now = zclock_mono();
      if (!w.unconfirmed() || now >= std::min(deadline, w.due_ms()) || connection_lost(c)) {
        return;
      }
      int64_t until = std::min({repeat_request(c, w, now), deadline, w.due_ms()});
      // The stop descriptor stays readable: it would end every wait at once.
      wait_for_news(c, until, false);
    }
  }

  // Waits until `until` (zclock_mono) for an answer, news of the connection
  // or, with `watch_stop`, the stop request.
  void wait_for_news(const connection& c, int64_t until, bool watch_stop) {
    zmq_pollitem_t items[] = {{zsock_resolve(ack_.reply.get()), 0, ZMQ_POLLIN, 0},
                              {zsock_resolve(c.monitor.get()), 0, ZMQ_POLLIN, 0},
                              {nullptr, vorn::stop::stop_fd(), ZMQ_POLLIN, 0}};
    int64_t left = std::max<int64_t>(until - zclock_mono(), 0);
    zmq_poll(items, watch_stop ? 3 : 2, static_cast<long>(left));
  }

  // Reads the answers waiting on the reply socket and deletes the files of
  // each batch they confirm.
  void take_answers(window& w) {
    while ((zsock_events(ack_.reply.get()) & ZMQ_POLLIN) != 0) {
      vorn::czmq::Message answer(zmsg_recv(ack_.reply.get()));
      if (!answer) {
        break;
      }
      for (batch& b : w.batches) {
        if (!b.confirmed && is_pub_ack_answer(answer.get(), b.number)) {
          confirm(w, b);
          break;
        }
      }
    }
    bool popped = false;
    while (!w.batches.empty() && w.batches.front().confirmed) {
      w.batches.pop_front();
      popped = true;
    }
    bool overtaken =
        std::any_of(w.batches.begin(), w.batches.end(), [](const batch& b) { return b.confirmed; });
    if (!overtaken || popped) {
      w.overtaken_ms = -1;
    }
    if (overtaken && w.overtaken_ms < 0) {
      w.overtaken_ms = zclock_mono();
    }
  }

  void confirm(window& w, batch& b) {
    for (const std::string& path : b.files) {
      w.paths.erase(path);
    }
    w.files -= b.files.size();
    w.bytes -= b.bytes;
    if (window_batches_ == 1) {
      // Lock-step, as delivery was before the window (for the benchmark):
      // reading, the server's storing and deleting one after the other.
      for (const std::string& path : b.files) {
        delete_output_file(path);
      }
    } else {
      deleter_.remove(std::move(b.files));
    }
    b.files.clear();
    b.bytes = 0;
    b.confirmed = true;
    w.progress_ms = zclock_mono();
    node_health_counters().last_progress_ms = w.progress_ms;
  }

  // Asks again for the oldest batch's answer when nothing has come for a
  // while (the server may have dropped the request, or given up reaching
  // this node with the answer). Returns when to ask next.
  int64_t repeat_request(connection& c, window& w, int64_t now) {
    if (!w.unconfirmed()) {
      return now + kScanIntervalMs;
    }
    int64_t next = std::max(w.progress_ms, w.request_ms) + kRequestIntervalMs;
    if (now < next) {
      return next;
    }
    // A full queue just means a later request.
    zsock_set_sndtimeo(c.publisher.get(), 0);
    send_pub_ack_request(ack_, c.publisher.get(), config_, w.batches.front().number);
    zsock_set_sndtimeo(c.publisher.get(), kSendTimeoutMs);
    w.request_ms = now;
    return now + kRequestIntervalMs;
  }

  // Gives the connection up: the next one sends again from the oldest file
  // still on disk, the unconfirmed ones included.
  void break_off(const connection& c, const window& w, const std::string& reason) {
    report_silence(c);
    if (w.files > 0 && !vorn::stop::stop_requested()) {
      VORN_LOG(4) << "Delivery to the accumulate server at " << c.server << " broke off (" << reason
                  << ") with " << w.files
                  << " output file(s) sent but not confirmed; sending again from the oldest file";
    }
  }

  // Keeps the counters of waiting files true while no server takes them.
  void count_waiting_files() {
    std::deque<std::string> names;
    listing seen;
    if (scan_output_files(directory_, {}, names, seen)) {
      node_health_counters().files_waiting = seen.files;
      node_health_counters().oldest_waiting_unix = seen.oldest;
    }
  }

  // Lists the output directory into the queue, oldest first, leaving out
  // the files in flight.
  void list_output_files(const window& w) {
    listing seen;
    if (!scan_output_files(directory_, w.paths, queue_, seen)) {
      if (directory_problem_.raise("unreadable")) {
        VORN_LOG(3) << "Cannot read provider output directory '" << directory_ << "' "
                    << vorn::log::sys_error(errno);
      }
      return;
    }
    if (directory_problem_.clear()) {
      VORN_LOG(5) << "Provider output directory '" << directory_ << "' is readable again";
    }
    node_health_counters().files_waiting = seen.files;
    node_health_counters().oldest_waiting_unix = seen.oldest;
  }

  // Sends one batch from the queue and the request that closes it. False
  // when the publisher cannot send.
  bool send_batch(connection& c, window& w) {
    batch b;
    b.number = next_pub_ack_number(ack_);
    b.sent_ms = zclock_mono();
    while (!queue_.empty() && b.files.size() < kBatchFiles && b.bytes < kBatchBytes &&
           zclock_mono() - b.sent_ms < kBatchMs && !vorn::stop::stop_requested()) {
      std::string path = std::move(queue_.front());
      queue_.pop_front();
      provider_result result;
      if (!read_for_sending(path, result)) {
        continue;
      }
      size_t bytes = message_bytes(result, topic_);
      // A file already sent (counted) stays in flight even if this fails.
      if (send_result(result, config_, c.publisher.get()) != 1) {
        add_batch(w, std::move(b));
        return false;
      }
      b.bytes += bytes;
      w.paths.insert(path);
      b.files.push_back(std::move(path));
    }
    if (b.files.empty()) {
      return true;
    }
    // Should the queue refuse it, the request is repeated later.
    send_pub_ack_request(ack_, c.publisher.get(), config_, b.number);
    w.request_ms = zclock_mono();
    add_batch(w, std::move(b));
    return true;
  }

  void add_batch(window& w, batch&& b) {
    if (b.files.empty()) {
      return;
    }
    w.files += b.files.size();
    w.bytes += b.bytes;
    w.batches.push_back(std::move(b));
  }

  // Finds the server and makes a publisher and a reply socket for it. False
  // after waiting a moment when there is none (logged once).
  bool connect(connection& c) {
    std::string address;
    int port = 0;
    if (config_.accumulate_host[0] != '\0') {
      port = port_number(config_.accumulate_port);
      std::string error;
      address = port != 0 ? vorn::host::resolve_host_address(config_.accumulate_host, &error) : "";
      if (port == 0) {
        error = std::string("accumulate_port '") + config_.accumulate_port + "' is not a port";
      }
      if (address.empty()) {
        return connect_failed(std::string("Cannot reach accumulate server '") +
                              config_.accumulate_host + "': " + error);
      }
    } else if (!discover(address, port)) {
      return false;
    }
    c.server = "tcp://" + address + ":" + std::to_string(port);
    // The reply socket must be reachable from the server: the address on the
    // route towards it (loopback only for a server on this node).
    std::string local = vorn::host::local_address_towards(address, port);
    if (local.empty()) {
      return connect_failed("No route to the accumulate server at " + c.server);
    }
    c.publisher = new_result_publisher(curve_);
    if (!c.publisher || !open_pub_ack_client(ack_, local, curve_)) {
      return connect_failed("Cannot make the sockets to reach " + c.server + " " +
                            vorn::log::sys_error(errno));
    }
    void* pub = zsock_resolve(c.publisher.get());
    int on = 1;
    zmq_setsockopt(pub, ZMQ_XPUB_NODROP, &on, sizeof on);
    zsock_set_sndhwm(c.publisher.get(),
                     static_cast<int>(window_batches_ * (kBatchFiles + 1)) + kQueuedRequests);
    // A connection that broke loses what was under way; reconnecting behind
    // our back would let a later "PUB_ACK" answer vouch for the lost ones.
    // So a broken connection stays broken, and the missing answer makes a new one.
    zsock_set_reconnect_ivl(c.publisher.get(), -1);
    zsock_set_linger(c.publisher.get(), 0);
    static std::atomic<int> monitors{0};
    const std::string monitor_endpoint =
        "inproc://vorn-publisher-monitor-" + std::to_string(++monitors);
    c.monitor.reset(zsock_new(ZMQ_PAIR));
    if (!c.monitor || zmq_socket_monitor(pub, monitor_endpoint.c_str(), kMonitoredEvents) != 0 ||
        zsock_connect(c.monitor.get(), "%s", monitor_endpoint.c_str()) != 0) {
      return connect_failed("Cannot watch the connection to " + c.server + " " +
                            vorn::log::sys_error(errno));
    }
    if (zsock_connect(c.publisher.get(), "%s", c.server.c_str()) != 0) {
      return connect_failed("Cannot connect to the accumulate server at " + c.server + " " +
                            vorn::log::sys_error(errno));
    }
    // Cleared only once all of it worked: a name that resolves again says
    // nothing of a route, nor a route of the sockets.
    if (server_problem_.clear()) {
      VORN_LOG(5) << "The accumulate server at " << c.server << " is reachable again";
    }
    return true;
  }

  // Reads what the monitor reported: true when the connection is gone
  // (closed, or its handshake failed). A failed handshake is logged once
  // until one succeeds, however often the node tries in between.
  bool connection_lost(const connection& c) {
    bool lost = false;
    link_event event;
    while (next_link_event(c, event)) {
      if (event.id == ZMQ_EVENT_HANDSHAKE_SUCCEEDED) {
        if (handshake_problem_.clear()) {
          VORN_LOG(5) << "The handshake with the accumulate server at " << c.server
                      << " succeeds again";
        }
        continue;
      }
      lost = true;
      if (event.id == ZMQ_EVENT_HANDSHAKE_FAILED_NO_DETAIL ||
          event.id == ZMQ_EVENT_HANDSHAKE_FAILED_PROTOCOL ||
          event.id == ZMQ_EVENT_HANDSHAKE_FAILED_AUTH) {
        report_handshake_failure(c, event);
      }
    }
    return lost;
  }

  void report_handshake_failure(const connection& c, const link_event& event) {
    if (!handshake_problem_.raise(c.server)) {
      return;
    }
    std::string hint = curve_.enabled ? "; is '" + curve_.server.path +
                                            "' this server's certificate, and does it list "
                                            "this node's key?"
                                      : "; does the server require CURVE keys?";
    VORN_LOG(3) << "The handshake with the accumulate server at " << c.server
                << " failed: " << handshake_failure(event) << hint
                << " Nothing is sent until it succeeds";
  }

  // Logs a failure to connect while it lasts, once; false after a pause.
  bool connect_failed(const std::string& message) {
    if (server_problem_.raise(message)) {
      VORN_LOG(3) << message << "; retrying";
    }
    vorn::stop::wait_for_stop(kAnswerTimeoutMs);
    return false;
  }

  // Listens for the server's discovery beacon for a while; false when none
  // was heard.
  bool discover(std::string& address, int& port) {
    std::string hostname;
    vorn::czmq::Actor beacon = new_beacon(config_, &hostname);
    if (!beacon) {
      vorn::stop::wait_for_stop(kAnswerTimeoutMs);
      return false;
    }
    zsock_send(beacon.get(), "sb", "SUBSCRIBE", "DISCOVERY", static_cast<size_t>(9));
    const int64_t deadline = zclock_mono() + kAnswerTimeoutMs;
    for (int64_t left = kAnswerTimeoutMs; left > 0; left = deadline - zclock_mono()) {
      zmq_pollitem_t items[] = {{zsock_resolve(beacon.get()), 0, ZMQ_POLLIN, 0},
                                {nullptr, vorn::stop::stop_fd(), ZMQ_POLLIN, 0}};
      if (zmq_poll(items, 2, left) <= 0 || vorn::stop::stop_requested()) {
        break;
      }
      char* sender = nullptr;
      char* payload = nullptr;
      zstr_recvx(beacon.get(), &sender, &payload, nullptr);
      vorn::czmq::String sender_owner(sender);
      vorn::czmq::String payload_owner(payload);
      int found = payload != nullptr ? discovery_port(payload, config_) : 0;
      if (found != 0 && sender != nullptr) {
        address = sender;
        port = found;
        return true;
      }
    }
    if (!vorn::stop::stop_requested() && server_problem_.raise("no beacon")) {
      VORN_LOG(4) << "No accumulate server of partition '" << config_.network_partition
                  << "' heard on UDP port " << config_.broadcast_port << "; still listening";
    }
    return false;
  }

  // Reads one output file; false when it is not to be sent now (gone, still
  // being written, or rejected).
  bool read_for_sending(const std::string& path, provider_result& result) {
    if (unmovable_.count(path) != 0) {
      return false;
    }
    std::string error;
    if (read_output_file(path, result, &error)) {
      return true;
    }
    struct stat st;
    if (::stat(path.c_str(), &st) != 0) {
      return false;  // taken away meanwhile
    }
    if (::time(nullptr) - st.st_mtime < kWriterGraceSeconds) {
      return false;  // perhaps not yet written; the next scan sees it again
    }
    reject(path, error);
    return false;
  }

  void reject(const std::string& path, const std::string& reason) {
    std::string rejected = directory_ + "/" + kRejectedDirectory;
    ::mkdir(rejected.c_str(), 0700);
    std::string target = rejected + path.substr(path.rfind('/'));
    if (::rename(path.c_str(), target.c_str()) != 0) {
      int error = errno;
      // Not movable: left alone, and not read again in this run.
      if (unmovable_.insert(path).second) {
        VORN_LOG(3) << "Unreadable output file " << reason << " cannot be moved to '" << target
                    << "' " << vorn::log::sys_error(error);
      }
      return;
    }
    ++node_health_counters().rejected;
    VORN_LOG(4) << "Rejected output file " << reason << "; moved to '" << target << "'";
  }

  // Asks "PUB_ACK" every 500 ms until the server answers, before anything
  // is sent on a new connection; false after 10 s without an answer, or
  // when the stop leaves no more time.
  bool handshake(connection& c) {
    const int32_t number = next_pub_ack_number(ack_);
    int64_t deadline = zclock_mono() + kAnswerTimeoutMs;
    int64_t next_request = 0;
    bool stopping = false;
    for (;;) {
      int64_t now = zclock_mono();
      if (!stopping && vorn::stop::stop_requested()) {
        stopping = true;
        deadline = std::min(deadline, now + kStopGraceMs);
      }
      if (now >= deadline) {
        return false;
      }
      if (now >= next_request) {
        // A full queue just means a later request.
        zsock_set_sndtimeo(c.publisher.get(), 0);
        send_pub_ack_request(ack_, c.publisher.get(), config_, number);
        next_request = now + kRequestIntervalMs;
      }
      zmq_pollitem_t items[] = {{zsock_resolve(ack_.reply.get()), 0, ZMQ_POLLIN, 0},
                                {zsock_resolve(c.monitor.get()), 0, ZMQ_POLLIN, 0},
                                {nullptr, vorn::stop::stop_fd(), ZMQ_POLLIN, 0}};
      // Once stopping, the stop descriptor would wake every poll at once.
      int count = stopping ? 2 : 3;
      long wait = static_cast<long>(std::min(next_request, deadline) - now);
      if (zmq_poll(items, count, wait) <= 0) {
        continue;
      }
      if ((items[0].revents & ZMQ_POLLIN) && read_pub_ack_answer(ack_, number)) {
        return true;
      }
      if ((items[1].revents & ZMQ_POLLIN) && connection_lost(c)) {
        // What was sent on the closed connection may be lost: no answer
        // can vouch for it.
        vorn::stop::wait_for_stop(kRetryAfterCloseMs);
        return false;
      }
    }
  }

  void report_silence(const connection& c) {
    announced_.clear();
    // A failed handshake said why already.
    if (handshake_problem_.raised()) {
      return;
    }
    if (!vorn::stop::stop_requested() && silence_.raise(c.server)) {
      VORN_LOG(4) << "The accumulate server at " << c.server
                  << " does not answer; results wait on disk until it does";
    }
  }

  const daemon_config& config_;
  const vorn::curve::settings& curve_;
  const std::string directory_;
  const std::string topic_;
  const size_t window_batches_;
  // Its reply socket is made anew with each connection; its numbers go on.
  pub_ack_client ack_;
  file_deleter deleter_;
  std::deque<std::string> queue_;
  std::set<std::string> unmovable_;
  std::string announced_;  // the server that answered last
  Condition silence_;
  Condition handshake_problem_;
  Condition server_problem_;
  Condition directory_problem_;
};

}  // namespace

result_publisher::result_publisher(const daemon_config& config, const vorn::curve::settings& curve)
    : config_(config), curve_(curve), thread_([this] { run(); }) {}

result_publisher::~result_publisher() {
  // Normally requested already; when the scheduler fails with an exception,
  // this ends the publisher rather than waiting for it for ever.
  vorn::stop::request_stop();
  thread_.join();
}

void result_publisher::run() {
  // An exception escaping a thread would abort the daemon: stop it instead.
  try {
    publisher_loop loop(config_, curve_);
    loop.run();
  } catch (const std::exception& error) {
    VORN_LOG(3) << "The publisher failed: " << error.what() << "; stopping";
    failed_ = true;
    vorn::stop::request_stop();
  }
}
