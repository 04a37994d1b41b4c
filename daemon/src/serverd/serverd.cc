#include "daemon/src/serverd/serverd.h"

#include <syslog.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <memory>

#include "daemon/src/adhoc_cluster/beacon.h"
#include "daemon/src/config/config.h"
#include "daemon/src/curve/curve.h"
#include "daemon/src/database/database.h"
#include "daemon/src/serverd/accumulate_server.h"
#include "daemon/src/serverd/daemon_options.h"
#include "daemon/src/startup/startup.h"
#include "util/fs.h"
#include "util/log.h"
#include "util/str.h"

namespace {

constexpr const char* kLogSource = "daemon/src/serverd";

std::atomic<bool>* stop_flag = nullptr;
volatile sig_atomic_t stop_signals = 0;

// The first SIGINT or SIGTERM lets the accumulate server store what is
// already on its way; a second one stops it at once through CZMQ's flag.
void on_stop_signal(int) {
  if (stop_signals++ == 0) {
    stop_flag->store(false);
  } else {
    zsys_interrupted = 1;
  }
}

void install_stop_handler(daemon_options& options) {
  // CZMQ would otherwise install its own handler when its first socket is made.
  zsys_handler_set(nullptr);
  stop_flag = &options.running;
  struct sigaction action {};
  action.sa_handler = on_stop_signal;
  // One handler at a time, so that two signals in quick succession count twice.
  sigemptyset(&action.sa_mask);
  sigaddset(&action.sa_mask, SIGINT);
  sigaddset(&action.sa_mask, SIGTERM);
  sigaction(SIGINT, &action, nullptr);
  sigaction(SIGTERM, &action, nullptr);
}

// The handler points into the entry routine's frame; it must not outlive it.
class StopHandler {
 public:
  explicit StopHandler(daemon_options& options) { install_stop_handler(options); }
  StopHandler(const StopHandler&) = delete;
  StopHandler& operator=(const StopHandler&) = delete;
  ~StopHandler() {
    std::signal(SIGINT, SIG_DFL);
    std::signal(SIGTERM, SIG_DFL);
    stop_flag = nullptr;
  }
};

}  // namespace

int serverd_main(int argc, char** argv) {
  daemon_config config;
  daemon_options options;

  StopHandler stop_handler(options);

  int status = configure_daemon(argc, argv, "vorn-serverd", options, config);
  if (status >= 0) {
    return status;
  }

  // A CURVE key that cannot be used is an error, never a fall-back to
  // plaintext.
  vorn::curve::settings curve;
  std::string curve_error;
  if (!vorn::curve::server_settings(config, &curve, &curve_error)) {
    VORN_LOG(3) << curve_error;
    return 1;
  }

  if (!vorn::fs::make_path(config.accumulate_output_dir)) {
    VORN_LOG(3) << "Could not create accumulate output directory '" << config.accumulate_output_dir
                << "', aborting";
    return 1;
  }

  std::string database_directory = vorn::str::dirname(config.database_file);
  if (config.database_backend == database_backend_kind::sqlite3 &&
      !vorn::fs::make_path(database_directory)) {
    VORN_LOG(3) << "Could not create database output directory '" << database_directory
                << "', aborting";
    return 1;
  }

  std::unique_ptr<database> store = open_database(&config);
  if (!store) {
    return 1;
  }

  if (options.daemon_mode) {
    // The database must not cross fork(): its locks and its checkpoint
    // thread stay behind. It was opened to fail in the foreground; the
    // detached child opens its own.
    store.reset();
    if (!detach()) {
      return 1;
    }
    store = open_database(&config);
    if (!store) {
      return 1;
    }
  }

  if (!config.enable_discovery) {
    VORN_LOG(5) << "Dynamic service discovery is disabled.";
  } else {
    // A server without a beacon still serves; nodes then need accumulate_host.
    start_discovery_beacon(options, config);
  }

  if (!write_pid_file(options) && !options.pid_file.empty()) {
    return 1;
  }

  bool served = run_accumulate_server(options, config, store.get(), curve);

  closelog();
  store.reset();
  options.beacon_pipe.reset();
  options.beacon.reset();
  // The options and the configuration go with this frame. A server that
  // could not start (its port taken, say) is a failure, not an orderly stop.
  return served ? 0 : 1;
}
