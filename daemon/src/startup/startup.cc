#include "daemon/src/startup/startup.h"

#include <fcntl.h>
#include <syslog.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <string>

#include "util/fs.h"
#include "util/log.h"
#include "util/str.h"

namespace {
constexpr const char* kLogSource = "daemon/src/startup";
}  // namespace

const install_paths& installation() {
  static const install_paths paths = [] {
    install_paths p;
    p.root = vorn::fs::abspath(vorn::str::dirname(vorn::fs::selfpath())) + "/../..";
    p.provider_config_dir = p.root + "/provider/etc";
    p.config_file = p.root + "/etc/vornd.xml";
    p.provider_auxiliary_dir = p.root + "/provider/share";
    return p;
  }();
  return paths;
}

void print_usage(const char* program, const command_line& options) {
  std::printf("Usage: %s [-c file] [-h] [-l] [-n]\n", program);
  std::puts("  -c file");
  std::printf("     Configuration file [default = %s]\n",
              vorn::fs::abspath(options.config_file).c_str());
  std::puts("  -d\n     Enable debug mode");
  std::puts("  -h\n     Print this help message and exit");
  std::puts("  -n\n     Turn on daemon mode and run in background");
  std::puts("  -P file");
  std::puts("     PID file");
}

bool parse_command_line(int argc, char** argv, command_line& options) {
  int opt;
  while ((opt = ::getopt(argc, argv, "c:dhnP:")) != -1) {
    switch (opt) {
      case 'c':
        options.config_file = optarg;
        break;
      case 'd':
        options.debug_mode = true;
        break;
      case 'h':
        print_usage(argv[0], options);
        return false;
      case 'n':
        options.daemon_mode = true;
        break;
      case 'P':
        // Made absolute now: daemon mode changes to "/" before the file is
        // written, and a relative name must still mean the caller's directory.
        options.pid_file = optarg[0] == '\0' ? "" : vorn::fs::abspath(optarg);
        break;
      default:
        // getopt has already reported the unknown option.
        break;
    }
  }
  return true;
}

int configure_daemon(int argc, char** argv, const char* ident, command_line& options,
                     daemon_config& config) {
  constexpr size_t kMaxDirectory = 4096;
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
  open_syslog(ident, options.debug_mode);
  int status = read_config(config, options.config_file.c_str());
  if (status == 0) {
    return -1;
  }
  // An exit status cannot be negative: -1 (no errno to tell) becomes 255.
  return status < 0 ? 255 : status;
}

void open_syslog(const char* ident, bool debug_mode) {
  vorn::log::LOG_SCOPE_LEVEL = 0;
  if (debug_mode) {
    vorn::log::use_syslog(ident, LOG_PID | LOG_NDELAY | LOG_PERROR, LOG_DAEMON,
                          LOG_UPTO(LOG_DEBUG));
  } else {
    vorn::log::use_syslog(ident, LOG_PID | LOG_NDELAY, LOG_DAEMON, LOG_UPTO(LOG_WARNING));
  }
}

bool detach() {
  if (::daemon(0, 0) != 0) {
    int error = errno;
    std::printf("Error starting daemon (%d): %s\n", error, std::strerror(error));
    return false;
  }
  return true;
}

bool write_pid_file(const command_line& options) {
  if (options.pid_file.empty()) {
    VORN_LOG(4) << "PID file not set";
    return false;
  }
  std::string directory = vorn::str::dirname(options.pid_file);
  if (!vorn::fs::make_path(directory)) {
    VORN_LOG(3) << "Could not create PID file output directory '" << directory << "'";
    return false;
  }
  vorn::fs::Fd fd(::open(options.pid_file.c_str(), O_RDWR | O_CREAT | O_TRUNC | O_CLOEXEC, 0644));
  if (fd.get() < 0) {
    VORN_LOG(3) << "Could not open PID file '" << options.pid_file << "'";
    return false;
  }
  std::string text = std::to_string(::getpid()) + "\n";
  bool written = vorn::fs::write_all(fd.get(), text.data(), text.size());
  if (!written) {
    VORN_LOG(3) << "Could not write PID file '" << options.pid_file << "'";
  }
  return written;
}
