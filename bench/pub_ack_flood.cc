// PUB_ACK flood benchmark: what a million distinct acknowledgement requests,
// each naming an endpoint on 127.0.0.1 where nothing listens, cost the real
// vorn-serverd in memory, while another sender goes on as a node does:
// results in batches, each closed by a "PUB_ACK" checkpoint.
//
//   pub_ack_flood [-n REQUESTS] [-e ENDPOINTS] [-b vorn-serverd]
//
// Requests carry distinct numbers and cycle through ENDPOINTS distinct ports
// (default 10,000) below the ephemeral range that nothing listened on when
// the benchmark started, so every (endpoint, number) pair is new to the
// server. The flood goes as fast as the server takes it: its publisher
// waits instead of dropping once 10,000 requests are queued.

#include <unistd.h>
#include <zmq.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <set>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "bench/support.h"
#include "daemon/src/provider/result.h"
#include "daemon/src/provider/sender.h"
#include "util/czmq.h"

namespace {

using vorn::bench::Clock;
using vorn::bench::seconds_since;

// The good sender: a batch of results paced over kBatchMs, then a checkpoint
// asked every kRequestMs, given up after kCheckpointGiveUpMs as the node
// daemon gives up (it then sends the batch again).
constexpr int kBatch = 500;
constexpr int kBatchMs = 500;
constexpr int kRequestMs = 500;
constexpr int kCheckpointGiveUpMs = 10000;
constexpr size_t kResultBytes = 1024;
constexpr int kFloodQueue = 10000;

// TCP ports that something listens on now, on any address.
std::set<int> listening_ports() {
  std::set<int> ports;
  for (const char* table : {"/proc/net/tcp", "/proc/net/tcp6"}) {
    std::ifstream in(table);
    std::string line;
    std::getline(in, line);  // the column names
    while (std::getline(in, line)) {
      std::istringstream fields(line);
      std::string slot, local, remote, state;
      fields >> slot >> local >> remote >> state;
      size_t colon = local.rfind(':');
      if (state == "0A" && colon != std::string::npos) {
        ports.insert(std::stoi(local.substr(colon + 1), nullptr, 16));
      }
    }
  }
  return ports;
}

// `count` ports from 10000 on, below the ephemeral range that other
// programs' sockets are given, where nothing listens.
std::vector<int> dead_ports(int count) {
  std::set<int> taken = listening_ports();
  std::vector<int> ports;
  for (int port = 10000; static_cast<int>(ports.size()) < count && port < 32768; ++port) {
    if (taken.count(port) == 0) {
      ports.push_back(port);
    }
  }
  return ports;
}

// Asks "PUB_ACK" on `publisher` every kRequestMs until answered; the seconds
// it took, or a negative number when it gave up.
double checkpoint(zsock_t* publisher, zsock_t* reply, const std::string& endpoint, int32_t number,
                  const daemon_config& config) {
  Clock::time_point start = Clock::now();
  int64_t next = 0;
  while (seconds_since(start) * 1000 < kCheckpointGiveUpMs) {
    auto now = static_cast<int64_t>(seconds_since(start) * 1000);
    if (now >= next) {
      send_pub_ack_request(publisher, config, endpoint, number);
      next = now + kRequestMs;
    }
    zmq_pollitem_t item = {zsock_resolve(reply), 0, ZMQ_POLLIN, 0};
    if (zmq_poll(&item, 1, static_cast<long>(next - now)) > 0) {
      vorn::czmq::Message answer(zmsg_recv(reply));
      zstr_send(reply, "");
      if (answer && is_pub_ack_answer(answer.get(), number)) {
        return seconds_since(start);
      }
    }
  }
  return -1;
}

struct GoodSender {
  long sent = 0;
  std::vector<double> during;  // checkpoint times while the flood lasted
  int given_up = 0;
  double after = -1;  // the checkpoint after the flood
};

// Runs on a thread of its own with its own sockets until `flood_over`.
void send_good_results(const std::string& server, const std::atomic<bool>& flood_over,
                       GoodSender* out) {
  daemon_config config;
  vorn::czmq::Socket publisher = connect_result_publisher(server);
  vorn::czmq::Socket reply(zsock_new(ZMQ_REP));
  if (!publisher || !reply || zsock_bind(reply.get(), "tcp://127.0.0.1:*") < 0 ||
      !request_pub_ack(publisher.get(), config, "127.0.0.1", 20000)) {
    std::fprintf(stderr, "the good sender was not answered before the flood\n");
    std::exit(1);
  }
  const std::string endpoint = vorn::czmq::last_endpoint(reply.get());
  provider_result r = vorn::bench::make_result(1, kResultBytes);
  vorn::str::copy(r.header.name, "good");
  int32_t number = 1;
  bool last = false;
  while (!last) {
    last = flood_over.load();
    Clock::time_point batch = Clock::now();
    for (int i = 0; i < kBatch; ++i) {
      std::this_thread::sleep_until(batch +
                                    std::chrono::microseconds(1000 * kBatchMs / kBatch * i));
      r.header.timestamp.tv_sec = out->sent++;
      send_result(r, config, publisher.get());
    }
    double took = checkpoint(publisher.get(), reply.get(), endpoint, number++, config);
    if (last) {
      out->after = took;
    } else if (took < 0) {
      ++out->given_up;
    } else {
      out->during.push_back(took);
    }
  }
  zsock_set_linger(publisher.get(), 5000);
}

double mib(long kib) {
  return static_cast<double>(kib) / 1024;
}

}  // namespace

int main(int argc, char** argv) {
  long requests = 1000000;
  int endpoints = 10000;
  std::string serverd = VORN_SERVERD_PATH;
  int opt;
  while ((opt = getopt(argc, argv, "n:e:b:h")) != -1) {
    switch (opt) {
      case 'n':
        requests = std::max(1L, std::atol(optarg));
        break;
      case 'e':
        endpoints = std::max(1, std::atoi(optarg));
        break;
      case 'b':
        serverd = optarg;
        break;
      default:
        return vorn::bench::usage(argv[0], "[-n requests] [-e endpoints] [-b vorn-serverd]", opt);
    }
  }
  std::setvbuf(stdout, nullptr, _IOLBF, 0);
  vorn::bench::TempDir dir;
  if (!dir.ok()) {
    std::perror("mkdtemp");
    return 1;
  }
  const std::vector<int> ports = dead_ports(endpoints);
  if (ports.empty()) {
    std::fprintf(stderr, "no port without a listener below 32768\n");
    return 1;
  }
  const int port = vorn::bench::free_port();
  const std::string config_path = dir.path() + "/vornd.xml";
  const std::string db = dir.path() + "/vorn.db";
  const std::string log = dir.path() + "/serverd.log";
  vorn::bench::write_server_config(config_path, port, dir.path(), db);
  // -d: warnings (the dropped requests) reach the log file.
  pid_t server = vorn::bench::spawn({serverd, "-d", "-c", config_path}, log);
  if (!vorn::bench::wait_for_text(log, "Accumulate server started", server, 30)) {
    std::fprintf(stderr, "the server did not start; its log:\n%s\n",
                 vorn::bench::read_file(log).c_str());
    vorn::bench::stop(server);
    return 1;
  }
  const std::string endpoint = "tcp://127.0.0.1:" + std::to_string(port);
  daemon_config config;

  // The flooding publisher waits rather than drops when the server lags.
  vorn::czmq::init();
  vorn::czmq::Socket hostile(zsock_new(ZMQ_PUB));
  zsock_set_sndhwm(hostile.get(), kFloodQueue);
  zsock_set_xpub_nodrop(hostile.get(), 1);
  if (zsock_connect(hostile.get(), "%s", endpoint.c_str()) != 0 ||
      !request_pub_ack(hostile.get(), config, "127.0.0.1", 20000)) {
    std::fprintf(stderr, "the flooding sender was not answered\n");
    vorn::bench::stop(server);
    return 1;
  }
  std::atomic<bool> flood_over{false};
  GoodSender good;
  std::thread good_thread(send_good_results, endpoint, std::cref(flood_over), &good);
  // The good sender's first results are on their way before the flood.
  std::this_thread::sleep_for(std::chrono::milliseconds(kBatchMs));
  const long rss_before = vorn::bench::proc_status_kib(server, "VmRSS");

  std::printf(
      "%ld PUB_ACK requests naming %zu ports on 127.0.0.1 where nothing listens, while a good\n"
      "sender sends %d results of %zu bytes per %d ms, each batch closed by a PUB_ACK checkpoint\n",
      requests, ports.size(), kBatch, kResultBytes, kBatchMs);
  const Clock::time_point start = Clock::now();
  for (long i = 0; i < requests; ++i) {
    const std::string dead =
        "tcp://127.0.0.1:" + std::to_string(ports[static_cast<size_t>(i) % ports.size()]);
    send_pub_ack_request(hostile.get(), config, dead, static_cast<int32_t>(i));
  }
  const double sent_s = seconds_since(start);
  // The server reads each sender's messages in order: once this is answered,
  // it has read the whole flood. Each attempt asks with a number of its own,
  // as a node's next checkpoint would.
  bool consumed = false;
  int attempts = 0;
  while (!consumed && seconds_since(start) < 120) {
    ++attempts;
    consumed = request_pub_ack(hostile.get(), config, "127.0.0.1", 5000);
  }
  const double consumed_s = seconds_since(start);
  flood_over = true;
  good_thread.join();

  // Settled: the server's CPU time stands still for a second (answers to
  // dead endpoints given up, sockets closed).
  long long ticks = vorn::bench::cpu_ticks(server);
  for (int i = 0; i < 60; ++i) {
    std::this_thread::sleep_for(std::chrono::seconds(1));
    long long now = vorn::bench::cpu_ticks(server);
    if (now - ticks <= 1) {
      break;
    }
    ticks = now;
  }
  const double settled_s = seconds_since(start);
  const long rss_after = vorn::bench::proc_status_kib(server, "VmRSS");
  const long rss_peak = vorn::bench::proc_status_kib(server, "VmHWM");
  zsock_set_linger(hostile.get(), 0);
  hostile.reset();

  // Every good result was covered by the answered checkpoint after the flood.
  const long long stored =
      vorn::bench::count_rows(db, "SELECT count(*) FROM vorn_1 WHERE Provider = 'good'");
  const int status = vorn::bench::stop(server);
  const std::string server_log = vorn::bench::read_file(log);

  std::sort(good.during.begin(), good.during.end());
  std::printf(
      "  flood sent in %.2f s (%.0f requests/s); read by the server after %.2f s%s (%d %s)\n",
      sent_s, static_cast<double>(requests) / sent_s, consumed_s,
      consumed ? "" : " (NOT read within 120 s)", attempts,
      attempts == 1 ? "handshake" : "handshakes of 5 s at most");
  std::printf(
      "  server VmRSS: before %.1f MiB, peak (VmHWM) %.1f MiB, after settling %.1f MiB "
      "(%.1f s after the flood began)\n",
      mib(rss_before), mib(rss_peak), mib(rss_after), settled_s);
  std::printf(
      "  good checkpoints during the flood: %zu answered (median %.2f s, slowest %.2f s), "
      "%d given up after %d s; after it: %s\n",
      good.during.size(), vorn::bench::percentile(good.during, 0.5),
      good.during.empty() ? 0 : good.during.back(), good.given_up, kCheckpointGiveUpMs / 1000,
      good.after >= 0 ? "answered" : "NOT answered");
  std::printf(
      "  requests the server dropped (its rate-limited log, at least): %ld; server exit status "
      "%d\n",
      vorn::bench::logged_pub_ack_drops(server_log), WIFEXITED(status) ? WEXITSTATUS(status) : -1);
  const long long lost = good.sent - stored;
  std::printf("  good results: sent %ld, stored %lld, lost %lld\n", good.sent, stored, lost);
  const bool met = lost == 0 && consumed && good.after >= 0;
  std::printf("  goal: every good result stored: %s\n", met ? "met" : "NOT met");
  return met ? 0 : 1;
}
