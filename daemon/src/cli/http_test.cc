// `vorn serve` against clients that mean it harm: the real program on a real
// database of a large cluster, and raw sockets on 127.0.0.1.

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <unistd.h>

#include <gtest/gtest.h>
#include <httplib.h>

#include <chrono>
#include <condition_variable>
#include <deque>
#include <memory>
#include <mutex>
#include <regex>
#include <thread>

#include "daemon/src/database/database.h"
#include "tests/support/daemons.h"
#include "tests/support/results.h"
#include "tests/support/test_support.h"
#include "util/fs.h"

namespace {

using std::chrono::milliseconds;
using std::chrono::seconds;
using Clock = std::chrono::steady_clock;
using namespace vorn::test;

const std::string kVorn = VORN_PATH;
constexpr int kHosts = 3000;

// Sends `request` and reads the answer until the server closes, or until it
// has sent more than `most` bytes.
std::string exchange(int port, const std::string& request, size_t most) {
  vorn::fs::Fd fd(tcp_connect("127.0.0.1", port));
  if (fd.get() < 0 || !vorn::fs::write_all(fd.get(), request.data(), request.size())) {
    return "";
  }
  std::string answer;
  char buffer[65536];
  ssize_t got;
  while (answer.size() <= most && (got = ::recv(fd.get(), buffer, sizeof buffer, 0)) > 0) {
    answer.append(buffer, static_cast<size_t>(got));
  }
  return answer;
}

class HttpTest : public testing::Test {
 protected:
  // A result for each of thousands of hosts (an exposition of 1 MB), and
  // `vorn serve` on a port of the kernel's choice, which its first line names.
  void SetUp() override {
    daemon_config config;
    config.database_file = dir_ / "vorn.db";
    auto store = open_database(&config);
    ASSERT_TRUE(store);
    for (int i = 0; i < kHosts; ++i) {
      provider_result r = sample_result("filesystem_usage", "ok\n");
      vorn::str::copy(r.header.hostname, "compute-node-" + std::to_string(i) + ".cluster.example");
      vorn::str::copy(r.header.option_id, "None");
      ASSERT_EQ(store->write(r), write_status::written);
    }
    ASSERT_EQ(store->flush(), commit_result::committed);
    server_ = std::make_unique<Process>(
        std::vector<std::string>{kVorn, "serve", "--db", config.database_file, "--listen",
                                 "127.0.0.1:0"},
        dir_.path());
    port_ = served_port(*server_);
    ASSERT_NE(port_, 0) << server_->err();
  }

  void TearDown() override {
    EXPECT_EQ(server_->terminate(milliseconds(20000)), 0) << server_->err();
  }

  httplib::Result get_metrics() {
    httplib::Client client("127.0.0.1", port_);
    client.set_read_timeout(10, 0);
    return client.Get("/metrics");
  }

  TempDir dir_;
  std::unique_ptr<Process> server_;
  int port_ = 0;
};

// Small requests that asked the library for large answers.
TEST_F(HttpTest, SmallRequestsGetNoMoreThanOneAnswer) {
  auto metrics = get_metrics();
  ASSERT_TRUE(metrics);
  ASSERT_EQ(metrics->status, 200);
  size_t whole = metrics->body.size();
  ASSERT_GT(whole, 500'000u);
  std::string thousand_ranges = "bytes=0-";
  for (int i = 1; i < 1000; ++i) {
    thousand_ranges += ",0-";
  }
  long peak_before = peak_memory_kib(server_->pid());
  EXPECT_GT(peak_before, 0);
  struct Row {
    const char* comment;
    std::string headers;
    std::string status;
    size_t body;
  } rows[] = {
      {"a thousand ranges: the whole answer once", "Range: " + thousand_ranges + "\r\n", "200",
       whole},
      {"one range: the whole answer too", "Range: bytes=0-99\r\n", "200", whole},
      {"a body, which no route takes, is refused before it is read",
       "Content-Length: 100000000\r\n", "413", std::string::npos},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.comment);
    std::string answer = exchange(
        port_, "GET /metrics HTTP/1.1\r\nHost: x\r\nConnection: close\r\n" + row.headers + "\r\n",
        2 * whole);
    EXPECT_EQ(answer.substr(0, 13), "HTTP/1.1 " + row.status + " ");
    size_t end_of_headers = answer.find("\r\n\r\n");
    ASSERT_NE(end_of_headers, std::string::npos) << answer.substr(0, 200);
    if (row.body != std::string::npos) {
      EXPECT_EQ(answer.size() - end_of_headers - 4, row.body);
    }
  }
  // The library built every range's copy in memory: 800 MB.
  long grown = peak_memory_kib(server_->pid()) - peak_before;
  EXPECT_LT(grown, 100'000) << "kB more at the peak";
  RecordProperty("peak_grown_kb", static_cast<int>(grown));
  RecordProperty("exposition_bytes", static_cast<int>(whole));
}

// Idle connections and clients that trickle their request leave room for a
// scrape, answered as fast as the exposition is made.
TEST_F(HttpTest, SlowAndIdleClientsDoNotStarveOthers) {
  rlimit files{};
  ASSERT_EQ(getrlimit(RLIMIT_NOFILE, &files), 0);
  files.rlim_cur = files.rlim_max;
  ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &files), 0);
  ASSERT_GE(files.rlim_cur, 600u);

  std::deque<vorn::fs::Fd> idle;
  for (int i = 0; i < 500; ++i) {
    idle.emplace_back(tcp_connect("127.0.0.1", port_));
    ASSERT_GE(idle.back().get(), 0);
  }
  std::mutex mutex;
  std::condition_variable stop;
  bool stopping = false;
  std::vector<std::thread> slow;
  for (int i = 0; i < 4; ++i) {
    slow.emplace_back([&] {
      vorn::fs::Fd fd(tcp_connect("127.0.0.1", port_));
      std::string request = "GET /metrics HTTP/1.1\r\nHost: x\r\n\r\n";
      std::unique_lock<std::mutex> lock(mutex);
      for (char c : request) {
        if (::send(fd.get(), &c, 1, MSG_NOSIGNAL) != 1 ||
            stop.wait_for(lock, seconds(4), [&] { return stopping; })) {
          return;
        }
      }
    });
  }

  auto start = Clock::now();
  auto metrics = get_metrics();
  auto took = std::chrono::duration_cast<milliseconds>(Clock::now() - start);
  {
    std::lock_guard<std::mutex> lock(mutex);
    stopping = true;
  }
  stop.notify_all();
  for (std::thread& t : slow) {
    t.join();
  }
  ASSERT_TRUE(metrics) << httplib::to_string(metrics.error());
  EXPECT_EQ(metrics->status, 200);
  EXPECT_LT(took.count(), 2000) << "ms for GET /metrics";
  RecordProperty("metrics_ms", static_cast<int>(took.count()));
}

// A request that comes a byte a second, each byte within any time per read,
// is cut when the whole has taken longer than the limit (ten seconds).
TEST_F(HttpTest, TrickledRequestIsCutAtTheRequestLimit) {
  vorn::fs::Fd fd(tcp_connect("127.0.0.1", port_));
  ASSERT_GE(fd.get(), 0);
  std::string request = "GET /metrics HTTP/1.1\r\nHost: x\r\nUser-Agent: slow\r\n\r\n";
  auto start = Clock::now();
  bool closed = false;
  for (size_t i = 0; i < request.size() && !closed; ++i) {
    ::send(fd.get(), &request[i], 1, MSG_NOSIGNAL);
    // Waits out the second unless the server ends the connection (it may
    // answer 400 first).
    pollfd p{fd.get(), POLLIN, 0};
    char buffer[512];
    while (!closed && ::poll(&p, 1, 1000) > 0) {
      closed = ::recv(fd.get(), buffer, sizeof buffer, 0) <= 0;
    }
  }
  auto took = std::chrono::duration_cast<milliseconds>(Clock::now() - start);
  EXPECT_TRUE(closed) << "the whole request was sent, one byte a second";
  EXPECT_GE(took.count(), 9500) << "ms: cut before the limit";
  EXPECT_LT(took.count(), 30000) << "ms";
  RecordProperty("cut_after_ms", static_cast<int>(took.count()));
}

}  // namespace
