#pragma once
// Running one command line under /bin/sh with its output captured and a
// time-out enforced.
//
// The child leads a process group of its own, with standard input on
// /dev/null; when the time is up, or the daemon is asked to stop, the whole
// group gets SIGTERM, then SIGKILL three seconds later. A process that left
// the group (setsid, setpgid) is still found: the calling process becomes a
// child subreaper on the first run, so whatever the command orphans is
// re-parented to it, and every remaining descendant of the run gets SIGKILL
// once the group is dealt with. The time-out holds also for a command that
// closes its output and keeps running. Output is read as it comes, without
// busy waiting; past max_output_size per stream it is read and thrown away,
// so that the command never blocks on a full pipe and memory stays bounded.
//
// The shell gets SIGKILL when the thread that called popen3 ends (the call
// blocks it for the run, so a thread that calls popen3 lives long enough),
// and so when the daemon is killed. What the shell started does not inherit
// that; every process of a run carries VORN_RUN_ID in its environment
// instead, and its group is recorded (run_record.h) for a daemon started
// later to end.
//
// Orphans of runs that ended in time are left running and reaped, once they
// end, by a later run. Every child of the calling process that appears while
// a run is in progress counts as the run's, so a program that calls popen3
// must not start other processes of its own meanwhile (the daemons start no
// others).
//
// Thread safety: a call touches only its job and the shared list of orphans,
// which a lock guards; it blocks the calling thread for the run: at most the
// time-out plus about 16 seconds of the kill sequence.

#include <sys/types.h>

#include <cstdint>
#include <string>

struct popen3_job {
  std::string command;      // handed to /bin/sh -c unchanged
  std::string stderr_data;  // bytes as read, in arrival order
  std::string stdout_data;
  int64_t timeout = 0;  // seconds
  // Bytes kept of each stream. The rest is counted here, and a line saying so
  // ends stderr_data.
  int64_t max_output_size = int64_t{16} << 20;
  int64_t stdout_discarded = 0;
  int64_t stderr_discarded = 0;
  double duration = 0;  // whole seconds, measured with time()
  int32_t pid = -2;     // the final wait's result: child pid, 0 given up, -1 failed
  int32_t exit_status = -2;
  // The kill sequence was started. When the time-out did it, stderr_data ends
  // with time_out_line (result.h), after any line about cut output.
  bool timed_out = false;
  bool stopped = false;  // ... because the daemon is stopping
};

// Returns 0, or -1 when a system call failed while the child was watched or
// waited for (errno tells which). The job's results are filled either way.
int popen3(popen3_job& job);

// Ends child `pid` (and its process group): SIGTERM, SIGKILL once
// `term_grace` seconds have passed, and gives up after `give_up` seconds.
// Returns the last waitpid result: the pid when reaped, -1 on error, 0 when it
// gave up. `status` receives the wait status of a reaped child.
pid_t kill_child(pid_t pid, int* status, double term_grace, double give_up);
