#pragma once
// Start-up steps of vorn-serverd that stand on their own: where the
// installation lives, the command line, and the PID file.
//
// All of it runs on the main thread before any other thread exists.

#include <string>

#include "daemon/src/config/config.h"
#include "daemon/src/serverd/daemon_options.h"

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

// Reads the options "c:dhnP:" in order. Returns false when -h asked for the
// usage text, which has then been printed to standard output.
bool parse_command_line(int argc, char** argv, daemon_options& options);

void print_usage(const char* program, const daemon_options& options);

// Writes "<pid>\n" to the PID file with mode 0644, creating its directory. An
// unnamed PID file is logged as a warning and also returns false; the caller
// carries on in that case.
bool write_pid_file(const daemon_options& options, const daemon_config& config);
