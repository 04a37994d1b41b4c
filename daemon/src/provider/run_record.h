#pragma once
// The runs in progress, kept on disk so that a node daemon started after a
// crash (kill -9, an abort) ends what its predecessor left running.
//
// The daemon's own child, the shell of a run, dies with the thread that
// started it (popen3 asks the kernel for that), but what the shell started
// does not: it is re-parented to init and would run on without a time-out,
// next to a second copy started by the new daemon.
//
// Every process of a run carries VORN_RUN_ID=<random token> in its
// environment (inherited by whatever the command starts). The record file
// lists "<process group> <token>" per run in progress, rewritten atomically
// when a run starts and ends, and removed when none is left. At start the
// daemon ends a recorded group only when one of its processes still carries
// the recorded token: process ids are reused, tokens are not, so nothing
// unrelated that happens to have the same group id is touched.
//
// Thread safety: started and ended may be called from any thread.

#include <sys/types.h>

#include <string>

namespace vorn::runs {

// The environment variable that marks a run's processes.
constexpr const char* kRunIdVariable = "VORN_RUN_ID";

// The record file of the daemon whose output files go to `output_dir`.
std::string record_path(const std::string& output_dir);

// Records the runs from now on in `path`; until it is called nothing is
// recorded (vorn-provider run does not record).
void record_in(const std::string& path);

// A fresh token for a run's VORN_RUN_ID.
std::string new_run_id();

void started(pid_t group, const std::string& run_id);
void ended(pid_t group);

// Ends (SIGTERM, SIGKILL 3 s later) the groups recorded in `path` that still
// carry their token, logs each at notice priority, and removes the file.
// Returns the number of groups ended.
int end_leftover_runs(const std::string& path);

}  // namespace vorn::runs
