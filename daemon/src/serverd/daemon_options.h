#pragma once
// The server's command-line and run record, owned by the entry routine for
// the whole life of the process.
//
// Only the main thread touches it, except `running`, which the stop-signal
// handler clears, and `endpoint`, whose future any thread may wait on.

#include <atomic>
#include <future>
#include <string>

#include "daemon/src/startup/startup.h"
#include "util/czmq.h"

// The command line (configuration file, -d, -n, -P) comes first.
struct daemon_options : command_line {
  // Discovery beacon, and a socket that may be kept beside it.
  vorn::czmq::Actor beacon;
  vorn::czmq::Socket beacon_pipe;

  // Accumulate server state. Cleared `running` makes the server store what is
  // still arriving and return once its socket is quiet.
  std::atomic<bool> running{true};
  // Fulfilled once by the accumulate server: its bound endpoint, or "" when it
  // could not start.
  std::promise<std::string> endpoint;
};
