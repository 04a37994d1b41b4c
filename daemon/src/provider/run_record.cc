#include "daemon/src/provider/run_record.h"

#include <fcntl.h>
#include <signal.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdio>
#include <map>
#include <mutex>
#include <random>
#include <sstream>
#include <thread>
#include <vector>

#include "util/fs.h"
#include "util/log.h"
#include "util/proc.h"

namespace vorn::runs {

namespace {

constexpr const char* kLogSource = "daemon/src/provider";
constexpr auto kTermGrace = std::chrono::seconds(3);
constexpr auto kKillGrace = std::chrono::seconds(2);

std::mutex record_mutex;
std::string record_file;                   // empty: not recording
std::map<pid_t, std::string> in_progress;  // group -> run id
// The record's trouble (a full or read-only directory) lasts: it is logged
// when it starts and when it ends, not at every run.
bool record_failing = false;

void record_trouble(const char* what, int error) {
  if (!record_failing) {
    VORN_LOG(3) << "Cannot " << what << " the record of runs '" << record_file << "' "
                << vorn::log::sys_error(error)
                << "; runs left by a killed daemon may not be ended at its restart";
    record_failing = true;
  }
}

void record_works() {
  if (record_failing) {
    VORN_LOG(4) << "The record of runs '" << record_file << "' is written again";
    record_failing = false;
  }
}

// Replaces the file with the runs in progress, or removes it when there are
// none. Under record_mutex.
void write_record() {
  if (record_file.empty()) {
    return;
  }
  if (in_progress.empty()) {
    if (::unlink(record_file.c_str()) != 0 && errno != ENOENT) {
      record_trouble("remove", errno);
    } else {
      record_works();
    }
    return;
  }
  std::string text;
  for (const auto& [group, run_id] : in_progress) {
    text += std::to_string(group) + " " + run_id + "\n";
  }
  // A reader sees the old list or the new one, never half of one.
  const std::string temporary = record_file + ".tmp";
  vorn::fs::Fd fd(::open(temporary.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600));
  if (fd.get() < 0 || !vorn::fs::write_all(fd.get(), text.data(), text.size()) ||
      ::rename(temporary.c_str(), record_file.c_str()) != 0) {
    record_trouble("write", errno);
  } else {
    record_works();
  }
}

// The live (not zombie) processes of `group`.
std::vector<pid_t> members(pid_t group) {
  std::vector<pid_t> found;
  for (const vorn::proc::Stat& stat : vorn::proc::list_processes()) {
    if (stat.group == group && stat.state != 'Z') {
      found.push_back(stat.pid);
    }
  }
  return found;
}

bool carries(pid_t pid, const std::string& run_id) {
  const std::string entry = std::string(kRunIdVariable) + "=" + run_id;
  std::string environment = vorn::proc::environment(pid);
  for (size_t start = 0; start < environment.size();) {
    size_t end = environment.find('\0', start);
    if (end == std::string::npos) {
      end = environment.size();
    }
    if (environment.compare(start, end - start, entry) == 0) {
      return true;
    }
    start = end + 1;
  }
  return false;
}

bool wait_gone(pid_t group, std::chrono::steady_clock::duration grace) {
  const auto deadline = std::chrono::steady_clock::now() + grace;
  while (!members(group).empty()) {
    if (std::chrono::steady_clock::now() > deadline) {
      return false;
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
  }
  return true;
}

// Ends one recorded group if it is still the run's; true when it was.
bool end_group(pid_t group, const std::string& run_id) {
  if (group <= 1 || group == ::getpgrp() || group == ::getpid()) {
    return false;
  }
  std::vector<pid_t> found = members(group);
  bool ours = false;
  std::string commands;
  for (pid_t pid : found) {
    ours = ours || carries(pid, run_id);
    commands += (commands.empty() ? "" : "; ") + vorn::proc::command_line(pid);
  }
  if (!ours) {
    return false;
  }
  VORN_LOG(5) << "Ending process group " << group
              << " left running by an earlier instance of this daemon: " << commands;
  ::kill(-group, SIGTERM);
  if (!wait_gone(group, kTermGrace)) {
    ::kill(-group, SIGKILL);
    if (!wait_gone(group, kKillGrace)) {
      VORN_LOG(3) << "Process group " << group << " is still running after SIGKILL";
    }
  }
  return true;
}

}  // namespace

std::string record_path(const std::string& output_dir) {
  // A dot file: the publisher sends only "<name>.XXXXXX" files.
  return output_dir + "/.vorn-runs";
}

void record_in(const std::string& path) {
  std::lock_guard<std::mutex> lock(record_mutex);
  record_file = path;
  write_record();
}

std::string new_run_id() {
  std::random_device random;
  char text[17];
  std::snprintf(text, sizeof text, "%08x%08x", random(), random());
  return text;
}

void started(pid_t group, const std::string& run_id) {
  std::lock_guard<std::mutex> lock(record_mutex);
  in_progress[group] = run_id;
  write_record();
}

void ended(pid_t group) {
  std::lock_guard<std::mutex> lock(record_mutex);
  in_progress.erase(group);
  write_record();
}

int end_leftover_runs(const std::string& path) {
  std::string text;
  if (!vorn::fs::read_file(path, &text)) {
    if (errno != ENOENT) {
      VORN_LOG(3) << "Cannot read the record of runs '" << path << "' "
                  << vorn::log::sys_error(errno);
    }
    return 0;
  }
  int ended_groups = 0;
  std::istringstream lines(text);
  long group = 0;
  std::string run_id;
  while (lines >> group >> run_id) {
    ended_groups += end_group(static_cast<pid_t>(group), run_id) ? 1 : 0;
  }
  if (::unlink(path.c_str()) != 0 && errno != ENOENT) {
    VORN_LOG(3) << "Cannot remove the record of runs '" << path << "' "
                << vorn::log::sys_error(errno);
  }
  return ended_groups;
}

}  // namespace vorn::runs
