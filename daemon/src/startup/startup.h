#pragma once
// Start-up steps that both daemons and the tools share: where the
// installation lives, the command line "c:dhnP:", syslog, detaching, and the
// PID file.
//
// All of it runs on the main thread before any other thread exists: daemon()
// forks, and a fork takes only the calling thread along.

#include <string>

#include "daemon/src/config/config.h"

// Paths derived from the directory of the running executable. The root is that
// directory made absolute, followed by "/../.." exactly (not normalised).
struct install_paths {
  std::string root;
  std::string provider_config_dir;     // root + "/provider/etc"
  std::string config_file;             // root + "/etc/vornd.xml"
  std::string provider_auxiliary_dir;  // root + "/provider/share"
};

// Computed on the first call and kept for the life of the process.
const install_paths& installation();

// What the command line of a daemon sets.
struct command_line {
  std::string config_file = "/etc/vornd.xml";
  bool daemon_mode = false;
  bool debug_mode = false;
  std::string pid_file;  // absolute, or empty when none was named
};

// Reads the options "c:dhnP:" in order. Returns false when -h asked for the
// usage text, which has then been printed to standard output.
bool parse_command_line(int argc, char** argv, command_line& options);

void print_usage(const char* program, const command_line& options);

// The first steps of both daemons, in order: installation paths, command
// line, the installation depth check, syslog under `ident`, the
// configuration file. Returns -1 to carry on, otherwise the exit status (1
// for -h or too deep an installation, read_config's result for a
// configuration that cannot be read).
int configure_daemon(int argc, char** argv, const char* ident, command_line& options,
                     daemon_config& config);

// Sends the log to syslog under `ident` (facility daemon): warnings and worse
// normally; everything, copied to standard error, in debug mode.
void open_syslog(const char* ident, bool debug_mode);

// daemon(0, 0); on failure prints "Error starting daemon (<errno>): <text>" to
// standard output and returns false.
bool detach();

// Writes "<pid>\n" to the PID file with mode 0644, creating its directory. An
// unnamed PID file is logged as a warning and also returns false; the caller
// carries on in that case.
bool write_pid_file(const command_line& options);
