#pragma once
// The process table as /proc shows it.
//
// Processes come and go while it is read: an entry that vanishes between the
// directory listing and the read of its files is skipped, never an error.
// Nothing here throws but std::bad_alloc.

#include <sys/types.h>

#include <string>
#include <vector>

namespace vorn::proc {

// The fields of /proc/<pid>/stat that the runner needs.
struct Stat {
  pid_t pid = 0;
  char state = '?';  // 'Z' for a zombie
  pid_t parent = 0;
  pid_t group = 0;
  unsigned long long start_time = 0;  // clock ticks after boot
};

// False when the process is gone or its entry cannot be parsed.
bool read_stat(pid_t pid, Stat* out);

// Every process that could be read.
std::vector<Stat> list_processes();

// The process's initial environment, "NAME=value" strings separated by NUL
// bytes; empty when it is gone or not ours to read.
std::string environment(pid_t pid);

// The command line with its arguments joined by blanks; empty when gone.
std::string command_line(pid_t pid);

}  // namespace vorn::proc
