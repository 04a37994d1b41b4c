// Handshake benchmark: every node of a large cluster asks the real
// vorn-serverd "PUB_ACK" at the same moment, as after a restart of the whole
// cluster, and then sends its results. Each simulated node is what a node
// daemon is to the server: a PUB socket connected to it and a reply socket
// of its own on 127.0.0.1, asking again every second until the server
// connects back with the request's number.
//
//   handshake [-n NODES] [-p PROCESSES] [-r RESULTS] [-g GOAL_S] [-l NOFILE] [-b vorn-serverd]
//             [-C] [-v]
//
// -C runs the same with CURVE: each node has a key pair of its own, listed
// in the server's client directory, its publisher is a CURVE client of the
// server's key and its reply socket a CURVE server with its own key that
// lets in only the server's (each node process has one ZAP handler for all
// its nodes), as a node daemon does. Run once without and once with -C, the
// server's peak RSS per node and CPU show what the encryption and the key
// checks cost.
//
// A process may hold 20,000 descriptors here and each node costs a few, so
// the nodes are spread over PROCESSES child processes (default 10 for 10,000
// nodes), each with a ZeroMQ context of its own. The server gets the
// benchmark's descriptor limit, raised to the hard limit; -l starts it with a
// lower soft limit instead, to see what a service started with fewer
// descriptors does. -v prints how many answers came in each second and
// which of the server's threads were busy.

#include <dirent.h>
#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>
#include <zmq.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "bench/support.h"
#include "daemon/src/provider/result.h"
#include "daemon/src/provider/sender.h"
#include "util/czmq.h"
#include "util/fs.h"

namespace {

using vorn::bench::Clock;
using vorn::bench::seconds_since;

constexpr int64_t kRepeatMs = 1000;
// Nodes still not answered after this many times the goal are given up.
constexpr double kGiveUpGoals = 3;
constexpr size_t kResultBytes = 100;

struct Options {
  int nodes = 10000;
  int processes = 0;  // 0: one per 1,000 nodes
  int results = 3;
  double goal_s = 60;
  long server_nofile = 0;  // 0: the hard limit
  std::string serverd = VORN_SERVERD_PATH;
  bool curve = false;
  bool histogram = false;
};

// What a node group reports of each of its nodes.
struct NodeReport {
  double answered_s;  // after the start; negative when never answered
  int32_t requests;   // "PUB_ACK" requests sent
  int32_t index;
};

int64_t now_ns() {
  return std::chrono::duration_cast<std::chrono::nanoseconds>(Clock::now().time_since_epoch())
      .count();
}

bool read_all(int fd, void* data, size_t size) {
  auto* p = static_cast<char*>(data);
  while (size > 0) {
    ssize_t n = ::read(fd, p, size);
    if (n < 0 && errno == EINTR) {
      continue;
    }
    if (n <= 0) {
      return false;
    }
    p += n;
    size -= static_cast<size_t>(n);
  }
  return true;
}

struct Node {
  vorn::czmq::Socket reply;
  vorn::czmq::Socket publisher;
  std::string endpoint;
  int32_t number = 0;
  int64_t next_request_ms = 0;
  NodeReport report{-1, 0, 0};
};

// One child process: `count` nodes from `first` on. It binds their reply
// sockets, says it is ready, and on the parent's word (the start time)
// connects them to the server and asks until each is answered or the time
// is up; then it reports and keeps its sockets until told to stop, so that
// no result still on its way is dropped. With `keys`, node i uses key pair i.
[[noreturn]] void run_node_group(int first, int count, int port, int results, double give_up_s,
                                 const vorn::bench::CurveKeys* keys, int control, int report) {
  // Gone with the benchmark, whatever ends it.
  ::prctl(PR_SET_PDEATHSIG, SIGKILL);
  if (::getppid() == 1) {
    ::_exit(1);
  }
  // Before CZMQ makes its context: two sockets per node and some spare, and
  // no signal handler of its own, so that SIGTERM ends the process.
  zsys_handler_set(nullptr);
  zsys_set_max_sockets(static_cast<size_t>(2 * count + 64));
  vorn::czmq::init();
  daemon_config config;
  std::vector<vorn::curve::settings> curve(static_cast<size_t>(count));
  std::unique_ptr<vorn::curve::zap_handler> zap;
  if (keys != nullptr) {
    for (int i = 0; i < count; ++i) {
      if (!keys->node_settings(first + i, &curve[static_cast<size_t>(i)])) {
        ::_exit(1);
      }
    }
    // The nodes of a process share the server's key, so one policy serves
    // them all.
    zap = std::make_unique<vorn::curve::zap_handler>(only_the_server(curve.front()),
                                                     "the nodes' reply sockets");
    if (!zap->ok()) {
      ::_exit(1);
    }
  }
  std::mt19937 random(static_cast<unsigned>(first) + 1);
  std::vector<Node> nodes(static_cast<size_t>(count));
  for (int i = 0; i < count; ++i) {
    Node& n = nodes[static_cast<size_t>(i)];
    n.report.index = first + i;
    n.number = static_cast<int32_t>(random());
    n.reply.reset(zsock_new(ZMQ_REP));
    // CURVE options take effect for connections made after they are set.
    if (n.reply && keys != nullptr) {
      vorn::curve::make_server(n.reply.get(), curve[static_cast<size_t>(i)].own);
    }
    // ZeroMQ's own wildcard lets the kernel pick the port; CZMQ's tries one
    // port after another from the same first one, which for thousands of
    // sockets means millions of failed binds.
    if (!n.reply || zmq_bind(zsock_resolve(n.reply.get()), "tcp://127.0.0.1:*") != 0) {
      std::fprintf(stderr, "node %d: cannot bind its reply socket: %s\n", first + i,
                   zmq_strerror(errno));
      ::_exit(1);
    }
    n.endpoint = vorn::czmq::last_endpoint(n.reply.get());
  }
  char ready = 'R';
  int64_t start_ns = 0;
  if (!vorn::fs::write_all(report, &ready, 1) || !read_all(control, &start_ns, sizeof start_ns)) {
    ::_exit(1);
  }
  const std::string server = "tcp://127.0.0.1:" + std::to_string(port);
  for (size_t i = 0; i < nodes.size(); ++i) {
    Node& n = nodes[i];
    n.publisher = connect_result_publisher(server, curve[i]);
    if (!n.publisher) {
      ::_exit(1);
    }
  }
  auto since_start_ms = [&] { return (now_ns() - start_ns) / 1000000; };
  int unanswered = count;
  std::vector<zmq_pollitem_t> items;
  std::vector<Node*> polled;
  while (unanswered > 0 && since_start_ms() < give_up_s * 1000) {
    int64_t now = since_start_ms();
    int64_t next = now + kRepeatMs;
    items.clear();
    polled.clear();
    for (Node& n : nodes) {
      if (n.report.answered_s >= 0) {
        continue;
      }
      if (n.next_request_ms <= now) {
        send_pub_ack_request(n.publisher.get(), config, n.endpoint, n.number);
        ++n.report.requests;
        n.next_request_ms = now + kRepeatMs;
      }
      next = std::min(next, n.next_request_ms);
      items.push_back({zsock_resolve(n.reply.get()), 0, ZMQ_POLLIN, 0});
      polled.push_back(&n);
    }
    if (zmq_poll(items.data(), static_cast<int>(items.size()), static_cast<long>(next - now)) <=
        0) {
      continue;
    }
    for (size_t i = 0; i < items.size(); ++i) {
      if (!(items[i].revents & ZMQ_POLLIN)) {
        continue;
      }
      Node& n = *polled[i];
      vorn::czmq::Message answer(zmsg_recv(n.reply.get()));
      // A REP socket must reply before it may receive again.
      zstr_send(n.reply.get(), "");
      if (!answer || !is_pub_ack_answer(answer.get(), n.number)) {
        continue;
      }
      n.report.answered_s = static_cast<double>(now_ns() - start_ns) / 1e9;
      --unanswered;
      provider_result r = vorn::bench::make_result(n.report.index, kResultBytes);
      for (int k = 0; k < results; ++k) {
        r.header.timestamp.tv_sec = k;
        send_result(r, config, n.publisher.get());
      }
    }
  }
  std::vector<NodeReport> reports;
  for (const Node& n : nodes) {
    reports.push_back(n.report);
  }
  char stop = 0;
  if (!vorn::fs::write_all(report, reports.data(), reports.size() * sizeof(NodeReport)) ||
      !read_all(control, &stop, 1)) {
    // The parent is gone: nothing to keep the results for.
  }
  for (Node& n : nodes) {
    zsock_set_linger(n.publisher.get(), 0);
  }
  nodes.clear();
  zap.reset();
  zsys_shutdown();
  ::_exit(0);
}

struct Group {
  pid_t pid = -1;
  vorn::fs::Fd control;  // the parent's writing end
  vorn::fs::Fd report;   // the parent's reading end
  int first = 0;
  int count = 0;
  bool reported = false;
};

struct CloseDirectory {
  void operator()(DIR* dir) const { ::closedir(dir); }
};

// Open descriptors of a process.
long open_descriptors(pid_t pid) {
  std::unique_ptr<DIR, CloseDirectory> dir(
      ::opendir(("/proc/" + std::to_string(pid) + "/fd").c_str()));
  if (!dir) {
    return 0;
  }
  long n = 0;
  while (const dirent* entry = ::readdir(dir.get())) {
    if (entry->d_name[0] != '.') {
      ++n;
    }
  }
  return n;
}

std::string descriptor_limit(pid_t pid) {
  std::string limits = vorn::bench::read_file("/proc/" + std::to_string(pid) + "/limits");
  size_t at = limits.find("Max open files");
  if (at == std::string::npos) {
    return "unknown";
  }
  std::string line = limits.substr(at, limits.find('\n', at) - at);
  long soft = 0;
  long hard = 0;
  if (std::sscanf(line.c_str(), "Max open files %ld %ld", &soft, &hard) != 2) {
    return "unknown";
  }
  return "soft " + std::to_string(soft) + ", hard " + std::to_string(hard);
}

// CPU of each thread of a process with more than `min_ticks`, as
// "name: seconds" (names repeat: each ZeroMQ context has its own I/O thread).
std::string busy_threads(pid_t pid, long long min_ticks) {
  const std::string tasks = "/proc/" + std::to_string(pid) + "/task";
  std::unique_ptr<DIR, CloseDirectory> dir(::opendir(tasks.c_str()));
  std::string text;
  while (dir) {
    const dirent* entry = ::readdir(dir.get());
    if (entry == nullptr) {
      break;
    }
    if (entry->d_name[0] == '.') {
      continue;
    }
    const long long ticks = vorn::bench::stat_cpu_ticks(tasks + "/" + entry->d_name + "/stat");
    if (ticks <= min_ticks) {
      continue;
    }
    std::string name = vorn::bench::read_file(tasks + "/" + entry->d_name + "/comm");
    name.erase(name.find_last_not_of('\n') + 1);
    char seconds[32];
    std::snprintf(seconds, sizeof seconds, "%.2f s",
                  static_cast<double>(ticks) / static_cast<double>(::sysconf(_SC_CLK_TCK)));
    text += (text.empty() ? "" : ", ") + name + " " + seconds;
  }
  return text;
}

}  // namespace

int main(int argc, char** argv) {
  Options o;
  int opt;
  while ((opt = getopt(argc, argv, "n:p:r:g:l:b:Cvh")) != -1) {
    switch (opt) {
      case 'n':
        o.nodes = std::max(1, std::atoi(optarg));
        break;
      case 'p':
        o.processes = std::max(1, std::atoi(optarg));
        break;
      case 'r':
        o.results = std::max(0, std::atoi(optarg));
        break;
      case 'g':
        o.goal_s = std::atof(optarg);
        break;
      case 'l':
        o.server_nofile = std::atol(optarg);
        break;
      case 'b':
        o.serverd = optarg;
        break;
      case 'C':
        o.curve = true;
        break;
      case 'v':
        o.histogram = true;
        break;
      default:
        return vorn::bench::usage(
            argv[0],
            "[-n nodes] [-p processes] [-r results per node] [-g goal seconds]\n"
            "          [-l server descriptor limit] [-b vorn-serverd] [-C: with CURVE] [-v]",
            opt);
    }
  }
  if (o.processes == 0) {
    o.processes = std::max(1, (o.nodes + 999) / 1000);
  }
  o.processes = std::min(o.processes, o.nodes);
  std::setvbuf(stdout, nullptr, _IOLBF, 0);

  // The nodes' processes and the server inherit this.
  rlimit files{};
  ::getrlimit(RLIMIT_NOFILE, &files);
  files.rlim_cur = files.rlim_max;
  ::setrlimit(RLIMIT_NOFILE, &files);

  vorn::bench::TempDir dir;
  if (!dir.ok()) {
    std::perror("mkdtemp");
    return 1;
  }
  const int port = vorn::bench::free_port();
  const std::string config = dir.path() + "/vornd.xml";
  const std::string db = dir.path() + "/vorn.db";
  const std::string log = dir.path() + "/serverd.log";
  vorn::bench::CurveKeys keys;
  double keys_s = 0;
  if (o.curve) {
    const Clock::time_point keys_start = Clock::now();
    if (!vorn::bench::make_curve_keys(dir.path() + "/keys", o.nodes, &keys)) {
      return 1;
    }
    keys_s = seconds_since(keys_start);
  }
  vorn::bench::write_server_config(config, port, dir.path(), db,
                                   o.curve ? keys.server_config() : "");
  const long server_nofile = o.server_nofile;
  // -d: warnings (the dropped requests) reach the log file.
  pid_t server = vorn::bench::spawn({o.serverd, "-d", "-c", config}, log, [server_nofile] {
    if (server_nofile > 0) {
      rlimit limit{};
      ::getrlimit(RLIMIT_NOFILE, &limit);
      limit.rlim_cur = static_cast<rlim_t>(server_nofile);
      ::setrlimit(RLIMIT_NOFILE, &limit);
    }
  });
  if (!vorn::bench::wait_for_text(log, "Accumulate server started", server, 30)) {
    std::fprintf(stderr, "the server did not start; its log:\n%s\n",
                 vorn::bench::read_file(log).c_str());
    vorn::bench::stop(server);
    return 1;
  }

  std::vector<Group> groups(static_cast<size_t>(o.processes));
  for (int g = 0; g < o.processes; ++g) {
    Group& group = groups[static_cast<size_t>(g)];
    group.first = o.nodes * g / o.processes;
    group.count = o.nodes * (g + 1) / o.processes - group.first;
    int control[2];
    int report[2];
    if (::pipe2(control, O_CLOEXEC) != 0 || ::pipe2(report, O_CLOEXEC) != 0) {
      std::perror("pipe");
      return 1;
    }
    pid_t pid = ::fork();
    if (pid == 0) {
      ::close(control[1]);
      ::close(report[0]);
      for (int earlier = 0; earlier < g; ++earlier) {
        groups[static_cast<size_t>(earlier)].control.reset();
        groups[static_cast<size_t>(earlier)].report.reset();
      }
      run_node_group(group.first, group.count, port, o.results, o.goal_s * kGiveUpGoals,
                     o.curve ? &keys : nullptr, control[0], report[1]);
    }
    ::close(control[0]);
    ::close(report[1]);
    group.pid = pid;
    group.control.reset(control[1]);
    group.report.reset(report[0]);
  }
  bool ready = true;
  for (Group& group : groups) {
    char c = 0;
    ready = read_all(group.report.get(), &c, 1) && c == 'R' && ready;
  }
  std::printf(
      "%d nodes handshaking at once with vorn-serverd, %s (%d processes; each node repeats\n"
      "PUB_ACK every %.0f s until answered, then sends %d results of %zu bytes)\n",
      o.nodes, o.curve ? "CURVE" : "plaintext", o.processes, kRepeatMs / 1000.0, o.results,
      kResultBytes);
  if (o.curve) {
    std::printf("  keys: %d node pairs and the server's made in %.1f s\n", o.nodes, keys_s);
  }
  std::printf("  server descriptors: %s\n", descriptor_limit(server).c_str());

  std::vector<NodeReport> reports;
  long peak_descriptors = open_descriptors(server);
  const long idle_rss = vorn::bench::proc_status_kib(server, "VmRSS");
  const long long cpu_before = vorn::bench::cpu_ticks(server);
  const Clock::time_point start = Clock::now();
  const int64_t start_ns =
      std::chrono::duration_cast<std::chrono::nanoseconds>(start.time_since_epoch()).count();
  for (Group& group : groups) {
    if (ready) {
      vorn::fs::write_all(group.control.get(), &start_ns, sizeof start_ns);
    }
  }
  // Each group reports once all its nodes are answered or given up.
  size_t waiting = ready ? groups.size() : 0;
  Clock::time_point last_sample = start;
  while (waiting > 0) {
    std::vector<pollfd> fds;
    for (const Group& group : groups) {
      if (!group.reported) {
        fds.push_back({group.report.get(), POLLIN, 0});
      }
    }
    ::poll(fds.data(), fds.size(), 200);
    if (seconds_since(last_sample) >= 1) {
      peak_descriptors = std::max(peak_descriptors, open_descriptors(server));
      last_sample = Clock::now();
    }
    for (const pollfd& p : fds) {
      if (!(p.revents & (POLLIN | POLLHUP))) {
        continue;
      }
      for (Group& group : groups) {
        if (group.report.get() != p.fd) {
          continue;
        }
        std::vector<NodeReport> part(static_cast<size_t>(group.count));
        if (read_all(p.fd, part.data(), part.size() * sizeof(NodeReport))) {
          reports.insert(reports.end(), part.begin(), part.end());
        }
        group.reported = true;
        --waiting;
      }
    }
  }
  const double handshakes_s = seconds_since(start);

  // Results go out right after each answer; wait until every row is there,
  // or nothing new comes for 5 s.
  const long long expected = static_cast<long long>(o.nodes) * o.results;
  long long stored = 0;
  Clock::time_point progress = Clock::now();
  while (stored < expected && seconds_since(progress) < 5) {
    long long now_stored = vorn::bench::count_rows(db, "SELECT count(*) FROM vorn_1");
    if (now_stored != stored) {
      stored = now_stored;
      progress = Clock::now();
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
  }
  const double rows_s = seconds_since(start);
  peak_descriptors = std::max(peak_descriptors, open_descriptors(server));
  const long peak_rss = vorn::bench::proc_status_kib(server, "VmHWM");
  const long long cpu = vorn::bench::cpu_ticks(server) - cpu_before;
  const std::string server_threads = busy_threads(server, ::sysconf(_SC_CLK_TCK) / 10);
  // The simulated nodes share the machine's cores with the server.
  long long nodes_cpu = 0;
  for (const Group& group : groups) {
    nodes_cpu += vorn::bench::cpu_ticks(group.pid);
  }

  for (Group& group : groups) {
    char stop = 'S';
    if (ready) {
      vorn::fs::write_all(group.control.get(), &stop, 1);
    }
    // A group that never started reads the end of the pipe instead.
    group.control.reset();
  }
  for (Group& group : groups) {
    ::waitpid(group.pid, nullptr, 0);
  }
  const int server_status = vorn::bench::stop(server);
  stored = vorn::bench::count_rows(db, "SELECT count(*) FROM vorn_1");
  const long long hosts =
      vorn::bench::count_rows(db, "SELECT count(DISTINCT Hostname) FROM vorn_1");

  std::vector<double> times;
  long requests = 0;
  for (const NodeReport& r : reports) {
    requests += r.requests;
    if (r.answered_s >= 0) {
      times.push_back(r.answered_s);
    }
  }
  std::sort(times.begin(), times.end());
  const double last = times.empty() ? 0 : times.back();
  const std::string server_log = vorn::bench::read_file(log);
  std::printf(
      "  answered: %zu of %d; last answer after %.2f s; per node median %.2f s, "
      "99th percentile %.2f s\n",
      times.size(), o.nodes, last, vorn::bench::percentile(times, 0.5),
      vorn::bench::percentile(times, 0.99));
  std::printf(
      "  requests sent: %ld (%.1f per node); dropped by the server (its rate-limited log, at "
      "least): %ld\n",
      requests, static_cast<double>(requests) / o.nodes,
      vorn::bench::logged_pub_ack_drops(server_log));
  std::printf("  rows: expected %lld, stored %lld (from %lld hosts), all visible after %.2f s\n",
              expected, stored, hosts, rows_s);
  std::printf(
      "  server: peak RSS (VmHWM) %.1f MiB (%.1f KiB per node; %.1f MiB before the start), CPU "
      "%.2f s over %.2f s, peak descriptors %ld, exit status %d\n",
      peak_rss / 1024.0, static_cast<double>(peak_rss) / o.nodes, idle_rss / 1024.0,
      static_cast<double>(cpu) / static_cast<double>(::sysconf(_SC_CLK_TCK)), handshakes_s,
      peak_descriptors, WIFEXITED(server_status) ? WEXITSTATUS(server_status) : -1);
  std::printf("  node processes: CPU %.2f s\n",
              static_cast<double>(nodes_cpu) / static_cast<double>(::sysconf(_SC_CLK_TCK)));
  if (o.histogram) {
    std::printf("  server threads over 0.1 s of CPU: %s\n", server_threads.c_str());
    // Answers in each second of the run: a connection that waited for the
    // server's accept queue shows as a late cluster.
    std::vector<int> per_second(static_cast<size_t>(last) + 1);
    for (double t : times) {
      ++per_second[static_cast<size_t>(t)];
    }
    // A process whose nodes all repeat in step gets one burst of answers a
    // second: its last answer shows it.
    std::vector<double> process_last(groups.size(), -1);
    for (const NodeReport& r : reports) {
      for (size_t g = 0; g < groups.size(); ++g) {
        if (r.index >= groups[g].first && r.index < groups[g].first + groups[g].count) {
          process_last[g] = std::max(process_last[g], r.answered_s);
        }
      }
    }
    std::printf("  last answer in each node process:");
    for (double t : process_last) {
      std::printf(" %.1f s", t);
    }
    std::printf("\n");
    std::printf("  answers per second of the run:");
    for (size_t i = 0; i < per_second.size(); ++i) {
      std::printf(" %zu:%d", i, per_second[i]);
    }
    std::printf("\n");
  }
  long socket_errors = vorn::bench::occurrences(server_log, "Unable to create pub-ack socket");
  if (socket_errors > 0) {
    std::printf("  server could not make answer sockets (%ld log lines)\n", socket_errors);
  }
  const bool met =
      static_cast<int>(times.size()) == o.nodes && last <= o.goal_s && stored == expected;
  std::printf("  goal: all %d answered within %.0f s and all %lld results stored: %s\n", o.nodes,
              o.goal_s, expected, met ? "met" : "NOT met");
  // The time depends on the machine; a node never answered or a result
  // lost does not.
  return static_cast<int>(times.size()) == o.nodes && stored == expected ? 0 : 1;
}
