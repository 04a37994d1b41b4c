// Node daemon benchmark: scheduler and runner overhead against a plain loop
// of the same commands, idle CPU, and delivery of a backlog of output files
// to a local server. Each figure is a ratio against a limit measured in the
// same run, or a rate printed with its goal; the machine is shared and noisy.
//
// Environment: VORN_BENCH_IDLE_SECONDS (default 60), VORN_BENCH_BACKLOG
// (default 100000). The backlog is delivered twice: as the node does it, and
// in lock-step for comparison, by starting vorn-noded with
// VORN_BENCH_PUBLISHER_WINDOW=1 (one batch in flight). That variable is a
// switch for this benchmark only, not a setting of the daemon.
//
// Arguments name the measurements to make (scheduler, backlog, idle); none:
// every one, in turn.

#include <dirent.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "bench/support.h"
#include "daemon/src/provider/result.h"
#include "daemon/src/provider/run.h"
#include "util/str.h"

namespace {

using clock_type = vorn::bench::Clock;
using vorn::bench::count_rows;
using vorn::bench::free_port;
using vorn::bench::seconds_since;
using vorn::bench::spawn;
using vorn::bench::stop;

const std::string kNoded = VORN_NODED_PATH;
const std::string kServerd = VORN_SERVERD_PATH;

int env_int(const char* name, int fallback) {
  const char* value = std::getenv(name);
  return value != nullptr ? std::atoi(value) : fallback;
}

// A fresh directory with a configuration for a local server and node.
struct Setup {
  std::string dir;
  std::string config;
  std::string out;
  std::string db;

  Setup(const std::string& name, const std::string& extra) {
    char tmpl[] = "/tmp/vorn-bench.XXXXXX";
    dir = ::mkdtemp(tmpl);
    ::mkdir((dir + "/providers").c_str(), 0755);
    out = dir + "/out";
    db = dir + "/vorn.db";
    config = dir + "/" + name + ".xml";
    std::ofstream(config) << "<configuration><enable_discovery>false</enable_discovery>"
                          << "<enable_adhoc_clusters>false</enable_adhoc_clusters>"
                          << "<accumulate_host>127.0.0.1</accumulate_host><accumulate_port>"
                          << free_port() << "</accumulate_port><provider_config_dir>" << dir
                          << "/providers</provider_config_dir><provider_output_dir>" << out
                          << "</provider_output_dir><database_file>" << db
                          << "</database_file><accumulate_output_dir>" << dir
                          << "/acc</accumulate_output_dir><provider_loadavg>100000"
                          << "</provider_loadavg>" << extra << "</configuration>";
  }
  ~Setup() {
    std::error_code ignored;  // a benchmark's leftovers are not worth failing for
    std::filesystem::remove_all(dir, ignored);
  }

  void provider(const std::string& name, const std::string& body) const {
    std::string path = dir + "/providers/" + name + ".xml";
    std::ofstream(path) << "<configuration><loadavg>100000</loadavg>" << body << "</configuration>";
    ::chmod(path.c_str(), 0644);
  }
};

std::vector<std::string> output_files(const std::string& directory) {
  std::vector<std::string> files;
  if (DIR* dir = ::opendir(directory.c_str())) {
    while (dirent* entry = ::readdir(dir)) {
      if (entry->d_type == DT_REG) {
        files.push_back(directory + "/" + entry->d_name);
      }
    }
    ::closedir(dir);
  }
  return files;
}

// Runs per second of the scheduler within one pass of 100 providers running
// `true`, from the end times in their results, against a plain loop of
// fork, exec of /bin/sh -c true and wait.
void scheduler_overhead() {
  const int kProviders = 100;
  // No health row among the results timed.
  Setup s("scheduler",
          "<provider_period>1</provider_period><heartbeat_period>0</heartbeat_period>");
  for (int i = 0; i < kProviders; ++i) {
    char name[16];
    std::snprintf(name, sizeof name, "p%03d", i);
    s.provider(name, "<command>true</command><period>1</period>");
  }
  pid_t node = spawn({kNoded, "-c", s.config}, s.dir + "/noded.log");
  auto start = clock_type::now();
  while (output_files(s.out).size() < 3 * kProviders && seconds_since(start) < 60) {
    std::this_thread::sleep_for(std::chrono::milliseconds(200));
  }
  stop(node);
  std::vector<double> ends;
  for (const std::string& path : output_files(s.out)) {
    provider_result r;
    std::string error;
    if (read_output_file(path, r, &error)) {
      ends.push_back(r.header.timestamp.tv_sec + r.header.timestamp.tv_usec / 1e6);
    }
  }
  std::sort(ends.begin(), ends.end());
  // The second pass: runs kProviders .. 2 kProviders - 1.
  double scheduler_rate = 0;
  if (ends.size() >= 2 * kProviders) {
    scheduler_rate = (kProviders - 1) / (ends[2 * kProviders - 1] - ends[kProviders]);
  }

  auto loop_start = clock_type::now();
  for (int i = 0; i < kProviders; ++i) {
    pid_t pid = ::fork();
    if (pid == 0) {
      ::execl("/bin/sh", "/bin/sh", "-c", "true", static_cast<char*>(nullptr));
      ::_exit(127);
    }
    ::waitpid(pid, nullptr, 0);
  }
  double loop_rate = kProviders / seconds_since(loop_start);
  std::printf(
      "| scheduler, 100 providers `true` | %.0f runs/s | plain sh -c loop %.0f runs/s | "
      "ratio %.2f (goal >= 0.8) |\n",
      scheduler_rate, loop_rate, scheduler_rate / loop_rate);
}

// CPU time of vorn-noded with nothing due, its publisher connected, and a
// health row every 10 s: six times what a cluster is advised to use. At one
// a second the row's file and its delivery cost about 0.1 % by themselves.
void idle_cpu() {
  const int seconds = env_int("VORN_BENCH_IDLE_SECONDS", 60);
  Setup s("idle", "<provider_period>3600</provider_period><heartbeat_period>10</heartbeat_period>");
  s.provider("rare", "<command>true</command><period>3600</period>");
  pid_t server = spawn({kServerd, "-c", s.config}, s.dir + "/serverd.log");
  pid_t node = spawn({kNoded, "-c", s.config}, s.dir + "/noded.log");
  auto cpu_ticks = [&] { return vorn::bench::cpu_ticks(node); };
  std::this_thread::sleep_for(std::chrono::seconds(3));  // past the first run
  long long before = cpu_ticks();
  std::this_thread::sleep_for(std::chrono::seconds(seconds));
  long long used = cpu_ticks() - before;
  stop(node);
  stop(server);
  double percent = 100.0 * used / ::sysconf(_SC_CLK_TCK) / seconds;
  std::printf("| idle vorn-noded over %d s | %.3f %% of a core | | goal < 0.1 %% |\n", seconds,
              percent);
}

struct backlog_figures {
  double rate = 0;          // files/s, from the start of the node to the last row
  double emptied_rate = 0;  // files/s, from the start to the last file deleted
  long long rows = 0;
  long long lost = 0;
  size_t left = 0;
};

// A backlog of 1 KiB results delivered to a local server, with the node's
// publisher window at `window` batches ("" for its default).
backlog_figures deliver_backlog(int files, const std::string& window) {
  // No health row among the results counted.
  Setup s("backlog",
          "<provider_period>3600</provider_period><heartbeat_period>0</heartbeat_period>");
  ::mkdir(s.out.c_str(), 0755);
  provider_result r;
  r.header.api = 1;
  vorn::str::copy(r.header.name, "backlog");
  vorn::str::copy(r.header.hostname, "benchnode");
  for (int i = 0; i < files; ++i) {
    r.stdout_data = std::to_string(i) + std::string(1024, 'x');
    r.header.stdout_size = r.stdout_data.size();
    write_output_file(r, s.out);
  }
  // On disk before the node starts, as a backlog that built up over time
  // is: deleting a file whose blocks are still unwritten costs less.
  ::sync();
  pid_t server = spawn({kServerd, "-c", s.config}, s.dir + "/serverd.log");
  auto start = clock_type::now();
  pid_t node = spawn({kNoded, "-c", s.config}, s.dir + "/noded.log", [&] {
    if (!window.empty()) {
      ::setenv("VORN_BENCH_PUBLISHER_WINDOW", window.c_str(), 1);
    }
  });
  backlog_figures f;
  while (seconds_since(start) < 600) {
    // Rows are only added, numbered from 1: the last number counts them
    // without the scan of the table that count(*) makes, which would take
    // the CPU the node and the server need.
    f.rows = count_rows(s.db, "SELECT coalesce(max(rowid), 0) FROM vorn_1");
    if (f.rows >= files) {
      break;
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
  }
  double elapsed = seconds_since(start);
  while (!output_files(s.out).empty() && seconds_since(start) < 620) {
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
  }
  f.emptied_rate = files / seconds_since(start);
  stop(node);
  stop(server);
  f.rows = count_rows(s.db, "SELECT count(*) FROM vorn_1");
  f.rate = std::min<long long>(f.rows, files) / elapsed;
  f.lost =
      files -
      count_rows(s.db, "SELECT count(DISTINCT substr(CAST(STDOUT AS TEXT), 1, 12)) FROM vorn_1");
  f.left = output_files(s.out).size();
  return f;
}

// The backlog delivered as the node does it, then in lock-step (one batch
// in flight, the node waiting for each answer before it sends on).
void backlog_delivery() {
  const int files = env_int("VORN_BENCH_BACKLOG", 100000);
  backlog_figures pipelined = deliver_backlog(files, "");
  backlog_figures lock_step = deliver_backlog(files, "1");
  std::printf(
      "| backlog of %d files to a local server | %.0f files/s | lock-step %.0f files/s | "
      "ratio %.2f (goal >= 1.5), goal >= 25000 files/s |\n",
      files, pipelined.rate, lock_step.rate, pipelined.rate / lock_step.rate);
  std::printf("| backlog: output directory emptied | %.0f files/s | lock-step %.0f files/s | |\n",
              pipelined.emptied_rate, lock_step.emptied_rate);
  std::printf(
      "| backlog rows stored, lost, left on disk | %lld, %lld, %zu | lock-step %lld, %lld, %zu | "
      "goal %d, 0, 0 |\n",
      pipelined.rows, pipelined.lost, pipelined.left, lock_step.rows, lock_step.lost,
      lock_step.left, files);
}

}  // namespace

int main(int argc, char** argv) {
  const std::vector<std::pair<std::string, void (*)()>> measurements = {
      {"scheduler", scheduler_overhead}, {"backlog", backlog_delivery}, {"idle", idle_cpu}};
  std::vector<void (*)()> chosen;
  for (int i = 1; i < argc; ++i) {
    auto found = std::find_if(measurements.begin(), measurements.end(),
                              [&](const auto& m) { return m.first == argv[i]; });
    if (found == measurements.end()) {
      bool help = std::string(argv[i]) == "-h";
      std::fprintf(help ? stdout : stderr,
                   "usage: %s [scheduler] [backlog] [idle] (none: every measurement, in turn)\n",
                   argv[0]);
      return help ? 0 : 2;
    }
    chosen.push_back(found->second);
  }
  if (chosen.empty()) {
    for (const auto& m : measurements) {
      chosen.push_back(m.second);
    }
  }
  std::printf("\n| node daemon | measured | limit in the same run | goal |\n|---|---|---|---|\n");
  std::fflush(stdout);
  for (auto measure : chosen) {
    measure();
    std::fflush(stdout);
  }
  return 0;
}
