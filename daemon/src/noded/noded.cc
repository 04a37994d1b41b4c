#include "daemon/src/noded/noded.h"

#include <pthread.h>
#include <signal.h>
#include <syslog.h>

#include <cstdio>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <thread>

#include "daemon/src/config/config.h"
#include "daemon/src/curve/curve.h"
#include "daemon/src/provider/health.h"
#include "daemon/src/provider/health_row.h"
#include "daemon/src/provider/publisher.h"
#include "daemon/src/provider/run_record.h"
#include "daemon/src/provider/scheduler.h"
#include "daemon/src/provider/sender.h"
#include "daemon/src/provider/sleep_mode.h"
#include "daemon/src/provider/stop.h"
#include "daemon/src/startup/startup.h"
#include "util/czmq.h"
#include "util/fs.h"
#include "util/log.h"
#include "util/str.h"

namespace {

constexpr const char* kLogSource = "daemon/src/noded";

// The signals this daemon acts on. They are blocked in every thread and
// taken by one thread with sigwait, so none is handled inside a handler.
sigset_t handled_signals() {
  sigset_t set;
  sigemptyset(&set);
  sigaddset(&set, SIGINT);
  sigaddset(&set, SIGTERM);
  sigaddset(&set, SIGUSR1);
  sigaddset(&set, SIGUSR2);
  return set;
}

void set_sleep_mode(bool on) {
  {
    std::lock_guard<std::mutex> lock(sleep_mutex);
    sleep_mode = on;
    node_health_counters().sleeping = on;
  }
  sleep_cond.notify_all();
}

// Runs until the process ends: a signal thread never returns, as another
// stop signal may always come.
void handle_signals(sigset_t set) {
  for (;;) {
    int signal_number = 0;
    if (sigwait(&set, &signal_number) != 0) {
      continue;
    }
    switch (signal_number) {
      case SIGUSR1:
        VORN_LOG(5) << "Sleep mode requested: no provider runs until SIGUSR2";
        set_sleep_mode(true);
        break;
      case SIGUSR2:
        VORN_LOG(5) << "Sleep mode ended";
        set_sleep_mode(false);
        break;
      default:
        if (vorn::stop::stop_requested()) {
          VORN_LOG(5) << "Already stopping";
          break;
        }
        VORN_LOG(5) << "Received SIGINT / SIGTERM. Cleaning up and stopping...";
        vorn::stop::request_stop();
        // Wakes a scheduler that sleeps; it sees the stop and ends.
        { std::lock_guard<std::mutex> lock(sleep_mutex); }
        sleep_cond.notify_all();
        break;
    }
  }
}

}  // namespace

int noded_main(int argc, char** argv) {
  daemon_config config;
  command_line options;

  int status = configure_daemon(argc, argv, "vorn-noded", options, config);
  if (status >= 0) {
    return status;
  }
  // Keys that are configured but unusable stop the node: never plaintext
  // in their place.
  vorn::curve::settings curve;
  std::string curve_error;
  if (!vorn::curve::node_settings(config, &curve, &curve_error)) {
    VORN_LOG(3) << curve_error;
    return 1;
  }
  if (!vorn::fs::make_path(config.provider_output_dir)) {
    VORN_LOG(3) << "Could not create provider output directory '" << config.provider_output_dir
                << "', aborting";
    return 1;
  }
  if (options.daemon_mode && !detach()) {
    return 1;
  }

  // Before any thread exists, so that every thread inherits the mask, and
  // before CZMQ starts, so that it installs no handler of its own.
  sigset_t signals = handled_signals();
  pthread_sigmask(SIG_BLOCK, &signals, nullptr);
  zsys_handler_set(nullptr);
  vorn::czmq::init();
  vorn::stop::stop_fd();
  // One for the process and its whole life: every reply socket the
  // publisher makes lets in the server's key only.
  std::unique_ptr<vorn::curve::zap_handler> zap;
  if (curve.enabled) {
    zap =
        std::make_unique<vorn::curve::zap_handler>(only_the_server(curve), "PUB_ACK reply socket");
    if (!zap->ok()) {
      return 1;
    }
  }

  if (!write_pid_file(options) && !options.pid_file.empty()) {
    return 1;
  }
  // Before the first run, which would otherwise meet its own predecessor.
  const std::string run_record = vorn::runs::record_path(config.provider_output_dir);
  vorn::runs::end_leftover_runs(run_record);
  vorn::runs::record_in(run_record);
  std::thread(handle_signals, signals).detach();
  VORN_LOG(5) << "Node daemon started: providers from '" << config.provider_config_dir
              << "', results in '" << config.provider_output_dir << "'";
  bool publisher_failed = false;
  {
    result_publisher publisher(config, curve);
    // Beside the scheduler, which a long run or sleep mode holds up; both
    // end with the stop.
    std::thread health(report_node_health, std::cref(config));
    run_scheduler(config);
    health.join();
    publisher_failed = publisher.failed();
    // The publisher's destructor gives it up to 5 s to finish its checkpoint.
  }
  VORN_LOG(5) << "Node daemon stopped";
  closelog();
  return publisher_failed ? 1 : 0;
}
