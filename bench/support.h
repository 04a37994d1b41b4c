#pragma once
// What the benchmarks share: a scratch directory, the real daemons started
// with a configuration of their own on loopback, and what the kernel and the
// database tell about them afterwards.
//
// Everything here is for one thread of the benchmark (the caller's); no
// ZeroMQ context is touched, so a benchmark may still fork after using it.

#include <arpa/inet.h>
#include <netinet/in.h>
#include <signal.h>
#include <sqlite3.h>
#include <stdlib.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <iterator>
#include <memory>
#include <random>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "daemon/src/curve/curve.h"
#include "daemon/src/provider/result.h"
#include "util/str.h"

namespace vorn::bench {

using Clock = std::chrono::steady_clock;

// The usage line after getopt returned `opt`: asked for with -h, on standard
// output with status 0; after an option getopt refused, on standard error
// with status 2.
inline int usage(const char* program, const char* options, int opt) {
  std::FILE* to = opt == 'h' ? stdout : stderr;
  std::fprintf(to, "usage: %s %s\n", program, options);
  return opt == 'h' ? 0 : 2;
}

inline double seconds_since(Clock::time_point start) {
  return std::chrono::duration<double>(Clock::now() - start).count();
}

// A port the kernel picks on 127.0.0.1, free at the moment of asking.
inline int free_port() {
  int fd = ::socket(AF_INET, SOCK_STREAM, 0);
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  socklen_t size = sizeof address;
  ::bind(fd, reinterpret_cast<sockaddr*>(&address), size);
  ::getsockname(fd, reinterpret_cast<sockaddr*>(&address), &size);
  ::close(fd);
  return ntohs(address.sin_port);
}

// A fresh directory under /tmp, removed with everything in it at the end.
class TempDir {
 public:
  TempDir() {
    char name[] = "/tmp/vorn-bench.XXXXXX";
    if (::mkdtemp(name) != nullptr) {
      path_ = name;
    }
  }
  TempDir(const TempDir&) = delete;
  TempDir& operator=(const TempDir&) = delete;
  ~TempDir() {
    if (!path_.empty()) {
      int ignored = std::system(("rm -rf '" + path_ + "'").c_str());
      (void)ignored;
    }
  }

  const std::string& path() const { return path_; }
  bool ok() const { return !path_.empty(); }

 private:
  std::string path_;
};

// A server configuration that keeps every file of the server in `dir`, with
// discovery off; `extra` holds further keys.
inline void write_server_config(const std::string& path, int port, const std::string& dir,
                                const std::string& db, const std::string& extra = "") {
  // No health rows: the benchmarks count the rows they sent.
  std::ofstream(path) << "<configuration><enable_discovery>false</enable_discovery>"
                      << "<heartbeat_period>0</heartbeat_period>"
                      << "<accumulate_port>" << port << "</accumulate_port>"
                      << "<accumulate_output_dir>" << dir << "/acc</accumulate_output_dir>"
                      << "<database_file>" << db << "</database_file>" << extra
                      << "</configuration>\n";
}

// CURVE keys for a benchmark in `dir`: the server's pair in dir/server, and
// `nodes` pairs in dir/clients (the server's curve_clients_dir, which skips
// the secret files), each with hostname "*" so that any host name passes.
struct CurveKeys {
  std::string dir;
  int nodes = 0;

  // The server's configuration keys for them.
  std::string server_config() const {
    return "<curve_certificate>" + dir + "/server/server.cert_secret</curve_certificate>" +
           "<curve_clients_dir>" + dir + "/clients</curve_clients_dir>";
  }
  // Node `i`'s settings, as vorn::curve::node_settings would make them.
  bool node_settings(int i, vorn::curve::settings* out) const {
    std::string error;
    out->enabled = true;
    bool ok = vorn::curve::load_certificate(
                  dir + "/clients/node" + std::to_string(i) + vorn::curve::kSecretSuffix, true,
                  &out->own, &error) &&
              vorn::curve::load_certificate(dir + "/server/server" + vorn::curve::kPublicSuffix,
                                            false, &out->server, &error);
    if (!ok) {
      std::fprintf(stderr, "%s\n", error.c_str());
    }
    return ok;
  }
};

inline bool make_curve_keys(const std::string& dir, int nodes, CurveKeys* keys) {
  std::string error;
  keys->dir = dir;
  keys->nodes = nodes;
  bool ok = ::mkdir(dir.c_str(), 0700) == 0 && ::mkdir((dir + "/server").c_str(), 0700) == 0 &&
            ::mkdir((dir + "/clients").c_str(), 0700) == 0 &&
            vorn::curve::write_new_certificate(dir + "/server", "server", "server", &error);
  for (int i = 0; ok && i < nodes; ++i) {
    ok = vorn::curve::write_new_certificate(dir + "/clients", "node" + std::to_string(i),
                                            vorn::curve::kAnyHost, &error);
  }
  if (!ok) {
    std::fprintf(stderr, "cannot make CURVE keys in %s: %s\n", dir.c_str(),
                 error.empty() ? std::strerror(errno) : error.c_str());
  }
  return ok;
}

// Starts a program; its standard error goes to `log` unless that is empty.
// `before_exec` runs in the child (e.g. to change a limit). The program gets
// SIGTERM when the calling thread ends, so that a benchmark that is killed
// leaves no daemon behind: call it from the thread that outlives the program.
template <typename F>
pid_t spawn(const std::vector<std::string>& argv, const std::string& log, F&& before_exec) {
  pid_t pid = ::fork();
  if (pid == 0) {
    ::prctl(PR_SET_PDEATHSIG, SIGTERM);
    // A program whose log cannot be written is not worth measuring.
    if (!log.empty() && (std::freopen(log.c_str(), "w", stderr) == nullptr ||
                         std::freopen("/dev/null", "w", stdout) == nullptr)) {
      ::_exit(127);
    }
    before_exec();
    std::vector<char*> args;
    for (const std::string& a : argv) {
      args.push_back(const_cast<char*>(a.c_str()));
    }
    args.push_back(nullptr);
    ::execv(args[0], args.data());
    ::_exit(127);
  }
  return pid;
}

inline pid_t spawn(const std::vector<std::string>& argv, const std::string& log) {
  return spawn(argv, log, [] {});
}

// SIGTERM, and the exit status as waitpid gives it.
inline int stop(pid_t pid) {
  ::kill(pid, SIGTERM);
  int status = 0;
  ::waitpid(pid, &status, 0);
  return status;
}

// The whole text of a file; "" when it cannot be read.
inline std::string read_file(const std::string& path) {
  std::ifstream in(path);
  return std::string((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
}

// Waits until the file holds `text` (a daemon's log line, say); false after
// `timeout_s` seconds or when the process `pid` has ended.
inline bool wait_for_text(const std::string& path, const std::string& text, pid_t pid,
                          double timeout_s) {
  Clock::time_point start = Clock::now();
  while (seconds_since(start) < timeout_s) {
    if (read_file(path).find(text) != std::string::npos) {
      return true;
    }
    if (::waitpid(pid, nullptr, WNOHANG) != 0) {
      return false;
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  }
  return false;
}

// How often `text` occurs in `log`.
inline long occurrences(const std::string& log, const std::string& text) {
  long n = 0;
  for (size_t at = log.find(text); at != std::string::npos; at = log.find(text, at + 1)) {
    ++n;
  }
  return n;
}

// The sum of the counts in a server log's "Too many PUB_ACK requests at
// once: N dropped" lines. The warning is rate-limited and the count of its
// last interval may never be logged, so this is a lower bound.
inline long logged_pub_ack_drops(const std::string& log) {
  const std::string marker = "Too many PUB_ACK requests at once: ";
  long total = 0;
  for (size_t at = log.find(marker); at != std::string::npos; at = log.find(marker, at + 1)) {
    total += std::atol(log.c_str() + at + marker.size());
  }
  return total;
}

// A field of /proc/<pid>/status in KiB: "VmRSS" (now) or "VmHWM" (the peak
// since the program was executed; rusage would count the forked copy of the
// benchmark too). 0 when unknown.
inline long proc_status_kib(pid_t pid, const std::string& field) {
  std::ifstream status("/proc/" + std::to_string(pid) + "/status");
  std::string line;
  const std::string prefix = field + ":";
  while (std::getline(status, line)) {
    if (line.compare(0, prefix.size(), prefix) == 0) {
      return std::atol(line.c_str() + prefix.size());
    }
  }
  return 0;
}

// User and system CPU time from a stat file of /proc (a process's, or a
// thread's under /proc/PID/task), in clock ticks.
inline long long stat_cpu_ticks(const std::string& stat_path) {
  std::string text = read_file(stat_path);
  size_t paren = text.rfind(')');
  if (paren == std::string::npos) {
    return 0;
  }
  std::istringstream fields(text.substr(paren + 2));
  std::string field;
  long long ticks = 0;
  for (int i = 3; i <= 15 && fields >> field; ++i) {
    if (i == 14 || i == 15) {
      ticks += std::stoll(field);
    }
  }
  return ticks;
}

// User and system CPU time of a process, in clock ticks.
inline long long cpu_ticks(pid_t pid) {
  return stat_cpu_ticks("/proc/" + std::to_string(pid) + "/stat");
}

struct CloseDatabase {
  void operator()(sqlite3* db) const { sqlite3_close(db); }
};
struct FinalizeStatement {
  void operator()(sqlite3_stmt* statement) const { sqlite3_finalize(statement); }
};

// The first column of the first row of `sql`, read through a connection of
// its own as any user of the database would; 0 when it cannot be read.
inline long long count_rows(const std::string& db, const char* sql) {
  sqlite3* opened = nullptr;
  int rc = sqlite3_open_v2(db.c_str(), &opened, SQLITE_OPEN_READONLY, nullptr);
  std::unique_ptr<sqlite3, CloseDatabase> handle(opened);
  if (rc != SQLITE_OK) {
    return 0;
  }
  sqlite3_busy_timeout(handle.get(), 1000);
  sqlite3_stmt* prepared = nullptr;
  rc = sqlite3_prepare_v2(handle.get(), sql, -1, &prepared, nullptr);
  std::unique_ptr<sqlite3_stmt, FinalizeStatement> statement(prepared);
  if (rc != SQLITE_OK || sqlite3_step(statement.get()) != SQLITE_ROW) {
    return 0;
  }
  return sqlite3_column_int64(statement.get(), 0);
}

// A result of provider "bench<sender>" from host "node<sender>": standard
// output of the given size in mixed bytes, 100 bytes of standard error and
// three nodes.
inline provider_result make_result(int sender, size_t output_bytes) {
  std::mt19937 random(static_cast<unsigned>(sender));
  provider_result r;
  r.header.api = 1;
  vorn::str::copy(r.header.name, "bench" + std::to_string(sender));
  vorn::str::copy(r.header.hostname, "node" + std::to_string(sender));
  vorn::str::copy(r.header.option_id, "default");
  r.header.duration = 1.0;
  r.header.version = 1;
  r.stdout_data.resize(output_bytes);
  for (char& c : r.stdout_data) {
    c = static_cast<char>(random());
  }
  r.stderr_data.assign(100, 'e');
  r.nodes_csv = "node1, node2, node3";
  r.header.stdout_size = r.stdout_data.size();
  r.header.stderr_size = r.stderr_data.size();
  r.header.nodes_size = r.nodes_csv.size();
  r.header.num_nodes = 3;
  return r;
}

// The value at fraction `p` (0 to 1) of values sorted ascending.
inline double percentile(const std::vector<double>& sorted, double p) {
  if (sorted.empty()) {
    return 0;
  }
  return sorted[static_cast<size_t>(p * static_cast<double>(sorted.size() - 1))];
}

}  // namespace vorn::bench
