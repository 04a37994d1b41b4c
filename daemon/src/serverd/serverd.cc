#include "daemon/src/serverd/serverd.h"

#include <syslog.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstring>

#include "daemon/src/config/config.h"
#include "daemon/src/serverd/daemon_options.h"
#include "daemon/src/serverd/startup.h"
#include "util/fs.h"
#include "util/log.h"
#include "util/str.h"

namespace {

constexpr const char* kLogSource = "daemon/src/serverd";
constexpr size_t kMaxDirectory = 4096;

// Serves until SIGINT or SIGTERM arrives.
void serve(const daemon_options&, const daemon_config&) {
  sigset_t stop_signals;
  sigemptyset(&stop_signals);
  sigaddset(&stop_signals, SIGINT);
  sigaddset(&stop_signals, SIGTERM);
  pthread_sigmask(SIG_BLOCK, &stop_signals, nullptr);
  VORN_LOG(5) << "Server running; waiting for SIGINT or SIGTERM";
  int signal_number = 0;
  sigwait(&stop_signals, &signal_number);
  VORN_LOG(5) << "Received SIGINT / SIGTERM. Cleaning up and stopping...";
}

void open_syslog(bool debug_mode) {
  vorn::log::LOG_OUTPUT = 1;
  vorn::log::LOG_SCOPE_LEVEL = 0;
  if (debug_mode) {
    setlogmask(LOG_UPTO(LOG_DEBUG));
    openlog("vorn-serverd", LOG_PID | LOG_NDELAY | LOG_PERROR, LOG_DAEMON);
  } else {
    setlogmask(LOG_UPTO(LOG_WARNING));
    openlog("vorn-serverd", LOG_PID | LOG_NDELAY, LOG_DAEMON);
  }
}

}  // namespace

int serverd_main(int argc, char** argv) {
  daemon_config config;
  daemon_options options;

  const install_paths& paths = installation();
  options.config_file = paths.config_file;

  if (!parse_command_line(argc, argv, options)) {
    return 1;
  }

  if (paths.provider_config_dir.size() >= kMaxDirectory ||
      paths.provider_auxiliary_dir.size() >= kMaxDirectory) {
    std::puts(
        "The binary is located in a directory that is too deep for this tool to function "
        "properly");
    return 1;
  }
  vorn::str::copy(config.provider_config_dir, paths.provider_config_dir);
  vorn::str::copy(config.provider_auxiliary_path, paths.provider_auxiliary_dir);

  open_syslog(options.debug_mode);

  int status = read_config(config, options.config_file.c_str());
  if (status != 0) {
    return status;
  }

  if (!vorn::fs::make_path(config.accumulate_output_dir)) {
    VORN_LOG(3) << "Could not create accumulate output directory '" << config.accumulate_output_dir
                << "', aborting";
    return 1;
  }

  if (options.daemon_mode && ::daemon(0, 0) != 0) {
    int error = errno;
    std::printf("Error starting daemon (%d): %s\n", error, std::strerror(error));
    return 1;
  }

  if (!config.enable_discovery) {
    VORN_LOG(5) << "Dynamic service discovery is disabled.";
  }

  if (!write_pid_file(options, config) && !options.pid_file.empty()) {
    return 1;
  }

  serve(options, config);

  closelog();
  return 0;
}
