#pragma once
// One run of one provider on this node, and its output file.
//
// The command line gets, in this order: "VORN_TIMEOUT=<seconds> ", the option
// set's environment assignments, "VORN_DP_NODEFILE=<file> " for a multi-node
// provider, then the command with every %PROVIDER_AUXILIARY_PATH% replaced.
// The run's time-out is the provider's, scaled for the nodes of the run and
// never below 60 seconds.
//
// An output file holds the result in its wire layout: the 456-byte header,
// standard output, standard error and the node list, one after the other.
//
// Thread safety: runs are sequential on the caller's thread.

#include <string>

#include "daemon/src/config/config.h"
#include "daemon/src/provider/provider.h"
#include "daemon/src/provider/result.h"

// The shell command line of a run with the given time-out.
std::string provider_command_line(const provider& record, const daemon_config& config,
                                  const std::string& environment, int64_t timeout);

// The option sets a provider runs with: its entry in the configuration, or
// one set "None" with no assignments.
option_set_map provider_option_sets(const provider& record, const daemon_config& config);

// Runs the provider once and fills `result` (its option_id is left as it is).
// Returns 1 when the command ran, 0 when it could not (logged). Every run
// that was not cut short by the daemon's stop counts in node_health: runs,
// failures (a non-zero exit status, or killed) and timeouts.
int run_provider(provider& record, const daemon_config& config, provider_result& result,
                 const std::string& environment);

// Writes the result into a new file "<directory>/<name>.XXXXXX" (made with
// mode 0600, under an exclusive lock while written), creating the directory
// when needed. Returns 1 and sets `path` on success, 0 on failure: the reason
// in `error`, or logged when `error` is null.
int write_output_file(const provider_result& result, const std::string& directory,
                      std::string* path = nullptr, std::string* error = nullptr);

// Stores a result as every result of this node is stored: an output file in
// provider_output_dir, which the publisher delivers. A result that cannot be
// written is lost: counted in node_health::lost, and logged as a warning once
// per reason until a file is written again, so that a full disk says so
// without filling the log. True when written. Any thread may call it.
bool store_result(const provider_result& result, const daemon_config& config);

// Reads an output file back. False, with the reason in `error`, when the file
// cannot be read or is shorter than its header says.
bool read_output_file(const std::string& path, provider_result& result, std::string* error);

// Fills the result's host name from gethostname (logged on failure).
void fill_hostname(provider_result& result);
