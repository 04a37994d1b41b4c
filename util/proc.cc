#include "util/proc.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>

#include "util/fs.h"

namespace vorn::proc {

namespace {

std::string entry(pid_t pid, const char* name) {
  return "/proc/" + std::to_string(pid) + "/" + name;
}

// Numeric names of /proc; a name that does not parse is not a process.
pid_t pid_of(const char* name) {
  char* end = nullptr;
  long pid = std::strtol(name, &end, 10);
  return pid > 0 && *end == '\0' ? static_cast<pid_t>(pid) : 0;
}

}  // namespace

bool read_stat(pid_t pid, Stat* out) {
  std::string text;
  if (!vorn::fs::read_file(entry(pid, "stat"), &text)) {
    return false;
  }
  // The command name in parentheses may hold anything, ")" included; the
  // fields after it are: state, parent, group, session, tty, tpgid, flags,
  // minflt, cminflt, majflt, cmajflt, utime, stime, cutime, cstime,
  // priority, nice, threads, itrealvalue, starttime.
  size_t close = text.rfind(')');
  if (close == std::string::npos || close + 2 >= text.size()) {
    return false;
  }
  const char* next = text.c_str() + close + 2;
  Stat stat;
  stat.pid = pid;
  stat.state = *next++;
  char* end = nullptr;
  stat.parent = static_cast<pid_t>(std::strtol(next, &end, 10));
  stat.group = static_cast<pid_t>(std::strtol(end, &end, 10));
  for (int skip = 0; skip < 16 && end != nullptr && *end != '\0'; ++skip) {
    std::strtoll(end, &end, 10);
  }
  if (end == nullptr || *end == '\0') {
    return false;
  }
  stat.start_time = std::strtoull(end, &end, 10);
  *out = stat;
  return true;
}

std::vector<Stat> list_processes() {
  std::vector<Stat> table;
  vorn::fs::Dir dir(::opendir("/proc"));
  if (!dir) {
    return table;
  }
  while (const dirent* d = ::readdir(dir.get())) {
    Stat stat;
    pid_t pid = pid_of(d->d_name);
    if (pid != 0 && read_stat(pid, &stat)) {
      table.push_back(stat);
    }
  }
  return table;
}

std::string environment(pid_t pid) {
  std::string text;
  return vorn::fs::read_file(entry(pid, "environ"), &text) ? text : std::string();
}

std::string command_line(pid_t pid) {
  std::string text;
  if (!vorn::fs::read_file(entry(pid, "cmdline"), &text)) {
    return {};
  }
  while (!text.empty() && text.back() == '\0') {
    text.pop_back();
  }
  std::replace(text.begin(), text.end(), '\0', ' ');
  return text;
}

}  // namespace vorn::proc
