#include "daemon/src/serverd/accumulate_server.h"

#include <sys/socket.h>

#include <atomic>
#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <deque>
#include <memory>
#include <optional>
#include <string>
#include <unordered_set>
#include <utility>
#include <vector>

#include "daemon/src/provider/result.h"
#include "daemon/src/serverd/health.h"
#include "daemon/src/serverd/health_row.h"
#include "daemon/src/serverd/pub_ack_answerer.h"
#include "daemon/src/serverd/receiver.h"
#include "daemon/src/serverd/result_writer.h"
#include "util/czmq.h"
#include "util/host.h"
#include "util/log.h"
#include "util/str.h"

namespace {

constexpr const char* kLogSource = "daemon/src/serverd";
constexpr int kPollMs = 100;
// How long a stopping server keeps trying a database in trouble, at least.
constexpr int64_t kLastAttemptMs = 1000;

// Connections that may wait for the subscriber to accept them.
constexpr int kConnectBacklog = 4096;

// Messages ZeroMQ keeps for each sender while the writer's queue is full.
constexpr int kReceiveQueue = 100;

// Binds the subscriber where the run mode says; "" on failure (logged).
std::string bind_subscriber(zsock_t* socket, const daemon_config& config) {
  std::string endpoint;
  if (config.run_mode == 0) {
    std::string address = config.accumulate_listen_address;
    // An IPv6 address needs the socket's IPv6 option and, before the port,
    // its brackets.
    if (address.find(':') != std::string::npos) {
      zsock_set_ipv6(socket, 1);
      if (address.front() != '[') {
        address = "[" + address + "]";
      }
    }
    endpoint = "tcp://" + address + ":" + std::to_string(std::atol(config.accumulate_port));
  } else {
    char* host = zsys_hostname();
    std::string address = vorn::host::resolve_host_address(host != nullptr ? host : "");
    zstr_free(&host);
    if (address.empty()) {
      return "";
    }
    endpoint = "tcp://" + address + ":*";
  }
  if (zsock_bind(socket, "%s", endpoint.c_str()) < 0) {
    VORN_LOG(3) << "Error binding socket to " << vorn::str::printable(endpoint) << " (" << errno
                << "): " << zmq_strerror(errno);
    return "";
  }
  return vorn::czmq::last_endpoint(socket);
}

// Acknowledgement requests waiting for the commit of what came before them.
class waiting_requests {
 public:
  // Beyond this, new requests are dropped (their senders repeat them).
  static constexpr size_t kMaxWaiting = 1024;

  // Queues the request unless it is already waiting (its sender repeats it
  // until answered); false when the list is full.
  bool add(const pub_ack_request& request, uint64_t sequence) {
    for (const auto& waiting : waiting_) {
      if (waiting.first.key == request.key) {
        return true;
      }
    }
    if (waiting_.size() >= kMaxWaiting) {
      return false;
    }
    waiting_.emplace_back(request, sequence);
    return true;
  }

  // Hands every request whose results are committed to the answerer, in
  // order, while it takes them; the others wait, or are dropped when the
  // answerer is saturated (their senders repeat them). Returns how many
  // were dropped.
  size_t answer_committed(pub_ack_answerer& answerer, uint64_t committed) {
    size_t dropped = 0;
    while (!waiting_.empty() && waiting_.front().second <= committed) {
      if (!answerer.answer(waiting_.front().first)) {
        ++dropped;
      }
      waiting_.pop_front();
    }
    return dropped;
  }

  // Empties the list and returns the keys of the requests it held.
  std::vector<uint64_t> take_keys() {
    std::vector<uint64_t> keys;
    for (const auto& waiting : waiting_) {
      keys.push_back(waiting.first.key);
    }
    waiting_.clear();
    return keys;
  }

  bool empty() const { return waiting_.empty(); }

 private:
  std::deque<std::pair<pub_ack_request, uint64_t>> waiting_;
};

// What the result socket's monitor tells: the senders connected (accepted
// minus disconnected connections, for the health rows), and with CURVE the
// handshakes it failed before any key was looked at (a peer without CURVE,
// or with another server key); the ZAP handler logs the refusals it decides
// itself. A socket has one monitor at most, so one watches both.
class socket_events {
 public:
  socket_events(zsock_t* socket, bool curve) : curve_(curve) {
    const std::string endpoint = "inproc://vorn-result-events-" + std::to_string(++instances_);
    int events = ZMQ_EVENT_ACCEPTED | ZMQ_EVENT_DISCONNECTED;
    if (curve) {
      events |= ZMQ_EVENT_HANDSHAKE_FAILED_NO_DETAIL | ZMQ_EVENT_HANDSHAKE_FAILED_PROTOCOL;
    }
    if (zmq_socket_monitor(zsock_resolve(socket), endpoint.c_str(), events) != 0) {
      VORN_LOG(4) << "Cannot watch the connections of the result socket "
                  << vorn::log::sys_error(zmq_errno());
      return;
    }
    monitor_.reset(zsock_new(ZMQ_PAIR));
    if (monitor_ && zsock_connect(monitor_.get(), "%s", endpoint.c_str()) != 0) {
      monitor_.reset();
    }
    if (monitor_) {
      server_health_counters().peers = 0;
    }
  }

  // The socket to poll; null when there is none.
  void* socket() const { return monitor_ ? zsock_resolve(monitor_.get()) : nullptr; }

  // Reads the events that wait; logs refused handshakes as one warning per 10 s.
  void read() {
    for (;;) {
      vorn::czmq::Message event(zmsg_recv_nowait(monitor_.get()));
      if (!event) {
        break;
      }
      zframe_t* head = zmsg_first(event.get());
      if (head == nullptr || zframe_size(head) < 6) {
        continue;
      }
      uint16_t kind = 0;
      std::memcpy(&kind, zframe_data(head), sizeof kind);
      if (kind == ZMQ_EVENT_ACCEPTED) {
        ++peers_;
      } else if (kind == ZMQ_EVENT_DISCONNECTED) {
        --peers_;
      } else {
        std::memcpy(&last_error_, zframe_data(head) + 2, sizeof last_error_);
        ++unreported_;
      }
    }
    server_health_counters().peers = peers_;
    uint64_t suppressed = 0;
    if (curve_ && unreported_ > 0 && warnings_.allow(zclock_mono(), &suppressed)) {
      VORN_LOG(4) << "Refused " << unreported_
                  << " peer(s) on the result socket in the handshake since the last report: not "
                     "a CURVE client of this server (ZeroMQ protocol error 0x"
                  << std::hex << last_error_ << std::dec << ")";
      unreported_ = 0;
    }
  }

 private:
  static inline std::atomic<int> instances_{0};
  const bool curve_;
  vorn::czmq::Socket monitor_;
  int64_t peers_ = 0;
  uint64_t unreported_ = 0;
  uint32_t last_error_ = 0;
  vorn::log::RateLimit warnings_{10000};
};

void warn_dropped(vorn::log::RateLimit& limit, size_t dropped) {
  uint64_t suppressed = 0;
  if (limit.allow(zclock_mono(), &suppressed)) {
    VORN_LOG(4) << "Too many PUB_ACK requests at once: " << dropped + suppressed
                << " dropped; their senders will ask again";
  }
}

}  // namespace

bool run_accumulate_server(daemon_options& options, const daemon_config& config, database* store,
                           const vorn::curve::settings& curve) {
  // With CURVE, the directory is looked at for every handshake (by the ZAP
  // handler) and every message (by the receiver).
  std::unique_ptr<vorn::curve::key_directory> keys;
  std::unique_ptr<vorn::curve::zap_handler> zap;
  if (curve.enabled) {
    keys = std::make_unique<vorn::curve::key_directory>(curve.clients_dir);
    zap = std::make_unique<vorn::curve::zap_handler>(vorn::curve::listed_with_hostname(*keys),
                                                     "the result socket");
    if (!zap->ok()) {
      options.endpoint.set_value("");
      return false;
    }
  }
  vorn::czmq::Socket subscriber(zsock_new(ZMQ_SUB));
  if (subscriber) {
    // What a flooding sender may have waiting in the server's memory, beyond
    // the writer's queue: kReceiveQueue messages per connected sender.
    zsock_set_rcvhwm(subscriber.get(), kReceiveQueue);
    // A larger message is refused by ZeroMQ (the sender is disconnected)
    // before it takes memory here.
    zsock_set_maxmsgsize(subscriber.get(), config.max_message_size);
    // Thousands of nodes connect at once after a restart of the cluster;
    // ZeroMQ's default queue of 100 pending connections makes the kernel
    // drop most of them, to be retried seconds later.
    zsock_set_backlog(subscriber.get(), kConnectBacklog);
    if (curve.enabled) {
      vorn::curve::make_server(subscriber.get(), curve.own);
    }
  }
  std::optional<socket_events> events;
  if (subscriber) {
    events.emplace(subscriber.get(), curve.enabled);
  }
  std::string endpoint = subscriber ? bind_subscriber(subscriber.get(), config) : "";
  options.endpoint.set_value(endpoint);
  if (endpoint.empty()) {
    return false;
  }
  const std::string topic = accumulate_topic(config);
  zsock_set_subscribe(subscriber.get(), topic.c_str());
  VORN_LOG(5) << "Accumulate server started and subscribing to '" << topic << "'";

  // Without a database, results go to text files.
  database* db = config.database_backend == database_backend_kind::none ? nullptr : store;
  result_writer writer(db, config);
  result_receiver receiver(
      keys ? key_policy([&keys](const std::string& public_key) { return keys->lookup(public_key); })
           : nullptr);
  waiting_requests waiting;
  pub_ack_answerer answerer(curve.enabled ? std::optional(curve.own) : std::nullopt);
  vorn::log::RateLimit drop_warnings(10000);
  server_health& health = server_health_counters();
  server_health_reporter health_rows(config);
  // When the first stop signal was seen; a drain lasts drain_timeout at most.
  int64_t stop_seen_ms = -1;
  void* socket = zsock_resolve(subscriber.get());
  received_message* slot = writer.free_slot();
  int64_t last_message_ms = zclock_mono();
  // Messages that wait are taken without a poll each: a poll is a system call.
  bool more_waiting = false;
  // When the database file is found removed or replaced, what a sender sent
  // before its next request may lie in the lost file, committed before the
  // removal or since. So the requests waiting then are never answered (a
  // repeat neither), nor the next request of each connection that had sent
  // results not followed by a request: their senders send it all again, into
  // the new file.
  uint64_t file_replacements = 0;
  std::unordered_set<int> unasked;      // connections with results since their last request
  std::unordered_set<int> unconfirmed;  // connections whose next request goes unanswered
  for (;;) {
    uint64_t committed = writer.committed();
    if (writer.file_replacements() != file_replacements) {
      file_replacements = writer.file_replacements();
      for (uint64_t key : waiting.take_keys()) {
        receiver.mark_answered(key);
        ++health.pub_ack_dropped;
      }
      unconfirmed.merge(unasked);
      unasked.clear();
    }
    if (size_t dropped = waiting.answer_committed(answerer, committed)) {
      health.pub_ack_dropped += dropped;
      warn_dropped(drop_warnings, dropped);
    }
    // A request counts as answered once its answer went out, not when it was
    // handed over: one given up on is answered when its sender repeats it.
    for (uint64_t key : answerer.take_delivered()) {
      receiver.mark_answered(key);
    }
    if (slot == nullptr) {
      slot = writer.free_slot();
    }
    // Stored as the next result received, so a full queue delays it too.
    if (slot != nullptr && options.running && health_rows.due(zclock_mono())) {
      health_rows.fill(*slot);
      slot = writer.push();
    }
    // Only CZMQ's interrupt flag (the second stop signal) stops at once.
    if (zsys_interrupted) {
      VORN_LOG(5) << "Received a second SIGINT / SIGTERM. Stopping at once";
      break;
    }
    if (!options.running) {
      // Senders that never pause must not keep a stopping server alive.
      int64_t now = zclock_mono();
      if (stop_seen_ms < 0) {
        VORN_LOG(5) << "Received SIGINT / SIGTERM. Cleaning up and stopping...";
        stop_seen_ms = now;
      } else if (now - stop_seen_ms >= int64_t{config.drain_timeout} * 1000) {
        VORN_LOG(5) << "Stopping after draining for " << config.drain_timeout
                    << " s; results still arriving stay with their senders";
        break;
      }
    }
    if (slot != nullptr && more_waiting) {
      message_kind kind = receiver.receive(subscriber.get(), *slot, false);
      if (kind == message_kind::nothing) {
        more_waiting = false;
        continue;
      }
      if (!options.running) {
        VORN_LOG(6) << "Draining queue of accumulated data providers";
      }
      if (kind == message_kind::result) {
        unasked.insert(slot->connection());
        slot = writer.push();
      } else if (kind == message_kind::pub_ack) {
        // The answer tells the sender that what it sent before the request
        // is stored: it waits for the commit of everything queued so far.
        // A request dropped here covers nothing: its sender repeats it.
        int connection = slot->connection();
        if (unconfirmed.erase(connection) > 0) {
          unasked.erase(connection);
          receiver.mark_answered(receiver.request().key);
          ++health.pub_ack_dropped;
        } else if (waiting.add(receiver.request(), writer.last_queued())) {
          unasked.erase(connection);
          writer.request_commit(writer.last_queued());
        } else {
          ++health.pub_ack_dropped;
          warn_dropped(drop_warnings, 1);
        }
      }
      continue;
    }
    // While the queue is full, or a request waits for its commit, the socket
    // is not the only thing to watch: look again soon.
    int wait_ms = slot == nullptr || !waiting.empty() ? result_writer::kPauseMs : kPollMs;
    zmq_pollitem_t items[] = {
        {socket, 0, static_cast<short>(slot != nullptr ? ZMQ_POLLIN : 0), 0},
        {events ? events->socket() : nullptr, 0, ZMQ_POLLIN, 0},
    };
    int ready = zmq_poll(items, items[1].socket != nullptr ? 2 : 1, wait_ms);
    if (ready < 0 && zmq_errno() == ETERM) {
      VORN_LOG(5) << "The ZeroMQ context is ending. Stopping at once";
      break;
    }
    if (items[1].revents & ZMQ_POLLIN) {
      events->read();
    }
    if (items[0].revents & ZMQ_POLLIN) {
      more_waiting = true;
      last_message_ms = zclock_mono();
    } else if (!options.running && slot != nullptr && zclock_mono() - last_message_ms >= kPollMs) {
      // A stopping server returns once its socket has been quiet for kPollMs;
      // the writer stores what is queued before it goes.
      break;
    }
  }
  // What was received is stored before the server goes; a database in
  // trouble gets until the drain's deadline, and one more attempt at least.
  int64_t now = zclock_mono();
  int64_t deadline = stop_seen_ms >= 0 ? stop_seen_ms + int64_t{config.drain_timeout} * 1000 : now;
  writer.finish(std::max(deadline, now + kLastAttemptMs));
  return true;
}
