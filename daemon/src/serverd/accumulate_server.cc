#include "daemon/src/serverd/accumulate_server.h"

#include <sys/socket.h>

#include <cerrno>
#include <cstdint>
#include <cstdlib>

#include "daemon/src/provider/result.h"
#include "daemon/src/serverd/receiver.h"
#include "util/czmq.h"
#include "util/host.h"
#include "util/log.h"

namespace {

constexpr const char* kLogSource = "daemon/src/serverd";
constexpr int kPollMs = 100;
constexpr int kCommitPauseMs = 2;
constexpr int64_t kMaxBatchMs = 100;

// Binds the subscriber where the run mode says; "" on failure (logged).
std::string bind_subscriber(zsock_t* socket, const daemon_config& config) {
  int rc;
  if (config.run_mode == 0) {
    rc =
        zsock_bind(socket, "tcp://%s:%d", "*", static_cast<int>(std::atol(config.accumulate_port)));
  } else {
    char* host = zsys_hostname();
    std::string address = vorn::host::resolve_host_address(host != nullptr ? host : "");
    zstr_free(&host);
    if (address.empty()) {
      return "";
    }
    rc = zsock_bind(socket, "tcp://%s:*", address.c_str());
  }
  if (rc < 0) {
    VORN_LOG(3) << "Error binding socket (" << errno << "): " << zmq_strerror(errno);
    return "";
  }
  return vorn::czmq::last_endpoint(socket);
}

void reset(provider_result& record) {
  record.header = result_header{};
  // clear() keeps the buffers, so a steady stream does not reallocate.
  record.stdout_data.clear();
  record.stderr_data.clear();
  record.nodes_csv.clear();
}

// Rows written since the last commit.
struct pending_rows {
  bool any = false;
  bool postponed = false;  // the last commit found the database locked
  int64_t since = 0;       // when the first of them came, or the commit was postponed
};

// True when every row written so far is committed. Postponed rows stay
// pending, to be tried again.
bool commit(database& store, pending_rows& pending) {
  switch (store.flush()) {
    case commit_result::committed:
      pending = pending_rows{};
      return true;
    case commit_result::postponed:
      // Not at every pause in the stream: each attempt waits for the lock.
      pending.postponed = true;
      pending.since = zclock_mono();
      return false;
    case commit_result::lost:
      VORN_LOG(1) << "Error writing to database. Data lost!";
      pending = pending_rows{};
      return false;
  }
  return false;
}

}  // namespace

bool run_accumulate_server(daemon_options& options, const daemon_config& config, database* store) {
  vorn::czmq::Socket subscriber(zsock_new(ZMQ_SUB));
  std::string endpoint = subscriber ? bind_subscriber(subscriber.get(), config) : "";
  options.endpoint.set_value(endpoint);
  if (endpoint.empty()) {
    return false;
  }
  const std::string topic = accumulate_topic(config);
  zsock_set_subscribe(subscriber.get(), topic.c_str());
  vorn::czmq::Poller poller(zpoller_new(subscriber.get(), nullptr));
  if (!poller) {
    VORN_LOG(3) << "Error creating poller (" << errno << "): " << zmq_strerror(errno);
    return false;
  }
  VORN_LOG(5) << "Accumulate server started and subscribing to '" << topic << "'";

  // Without a database, results go to text files.
  database* db = config.database_backend == database_backend_kind::none ? nullptr : store;
  provider_result record;
  result_receiver receiver;
  pending_rows pending;
  for (;;) {
    reset(record);
    // With rows waiting for their commit, a short pause in the stream is
    // enough to commit them; a steady stream commits every kMaxBatchMs.
    if (pending.any && zclock_mono() - pending.since >= kMaxBatchMs) {
      commit(*db, pending);
    }
    int wait_ms = pending.any && !pending.postponed ? kCommitPauseMs : kPollMs;
    if (zpoller_wait(poller.get(), wait_ms) == nullptr) {
      if (zpoller_expired(poller.get())) {
        // A stop does not wait for a lock that another process holds; the
        // store tries once more as it closes.
        if (pending.any && (options.running || !pending.postponed)) {
          commit(*db, pending);
        } else if (!options.running) {
          return true;
        }
        continue;
      }
      // The poller also reports termination when any signal interrupts the
      // wait; only CZMQ's interrupt flag (or a closed context) means stop.
      if (zsys_interrupted || zmq_errno() == ETERM) {
        VORN_LOG(5) << "Received SIGINT / SIGTERM. Cleaning up and stopping...";
        return true;
      }
      continue;
    }
    if (!options.running) {
      VORN_LOG(6) << "Draining queue of accumulated data providers";
    }
    switch (receiver.receive(subscriber.get(), record)) {
      case message_kind::none:
        if (zsys_interrupted) {
          VORN_LOG(5) << "Received SIGINT / SIGTERM. Cleaning up and stopping...";
          return true;
        }
        continue;
      case message_kind::pub_ack:
        // The answer tells the sender that what it sent before the request
        // is stored; while the commit waits, its repeated request will be
        // answered once the commit succeeds.
        if (db == nullptr || commit(*db, pending)) {
          receiver.answer_pub_ack();
        }
        continue;
      case message_kind::result:
        break;
    }
    if (db == nullptr) {
      dump_result(record, config);
      continue;
    }
    if (!db->write(record)) {
      VORN_LOG(1) << "Error writing to database. Data lost!";
    }
    if (!pending.any) {
      pending.any = true;
      pending.since = zclock_mono();
    }
  }
}
