// The accumulate server run in-process, where the test holds its running flag.

#include "daemon/src/serverd/accumulate_server.h"
#include "util/host.h"

#include <gtest/gtest.h>

#include <atomic>
#include <future>
#include <thread>

#include "daemon/src/database/database.h"
#include "daemon/src/provider/sender.h"
#include "tests/support/daemons.h"
#include "tests/support/results.h"
#include "tests/support/test_support.h"

namespace {

using namespace vorn::test;

class InProcessServer {
 public:
  InProcessServer(const daemon_config& config, database* store) {
    endpoint_ = options_.endpoint.get_future();
    thread_ = std::thread(
        [this, &config, store] { result_ = run_accumulate_server(options_, config, store); });
  }
  ~InProcessServer() { stop(); }

  std::string endpoint() { return endpoint_.get(); }

  // Clears the running flag and waits for the server to drain and return.
  bool stop() {
    options_.running = false;
    if (thread_.joinable()) {
      thread_.join();
    }
    return result_;
  }

 private:
  daemon_options options_;
  std::future<std::string> endpoint_;
  std::thread thread_;
  bool result_ = false;
};

daemon_config test_config(const std::string& dir) {
  daemon_config config;
  vorn::str::copy(config.accumulate_port, std::to_string(free_tcp_port()));
  vorn::str::copy(config.accumulate_output_dir, dir);
  config.heartbeat_period = 0;  // no health rows among the test's results
  return config;
}

vorn::czmq::Socket acknowledged_publisher(const daemon_config& config) {
  return acked_publisher(std::stoi(config.accumulate_port), config);
}

TEST(AccumulateServerTest, WithoutDatabaseResultsAreAppendedAsText) {
  TempDir dir;
  daemon_config config = test_config(dir.path());
  InProcessServer server(config, nullptr);
  EXPECT_EQ(server.endpoint(), std::string("tcp://0.0.0.0:") + config.accumulate_port);
  auto publisher = acknowledged_publisher(config);
  provider_result r = sample_result("probe", std::string("a\0b", 3), "warn", "n1, n2");
  testing::internal::CaptureStderr();
  ASSERT_EQ(send_result(r, config, publisher.get()), 1);
  ASSERT_EQ(send_result(r, config, publisher.get()), 1);
  char end_time[32];
  std::snprintf(end_time, sizeof end_time, "1700000000.%06ld",
                static_cast<long>(r.header.timestamp.tv_usec));
  const std::string one =
      "Name: probe\nHostname: node17\nDuration: 2.5\nTimestamp: " + std::string(end_time) +
      "\n"
      "Exit status: 3\nEncoding: 0\nAPI: \x01\nOptionID: default\nversion: 7\n"
      "stdout (3 bytes): \n" +
      std::string("a\0b", 3) +
      "\nstderr (4 bytes): \nwarn\n"
      "nodes (2 nodes, 6 bytes): n1, n2\n";
  EXPECT_TRUE(
      wait_until([&] { return read_file(dir / "probe") == one + one; }, milliseconds(10000)))
      << read_file(dir / "probe");
  EXPECT_TRUE(server.stop());
  size_t bytes = accumulate_topic(config).size() + kResultHeaderSize + 3 + 4 + 6;
  EXPECT_NE(
      testing::internal::GetCapturedStderr().find("Received data provider 'probe' from node17 (" +
                                                  std::to_string(bytes) + " bytes)\n"),
      std::string::npos);
}

// Another process holds the database's write lock: results wait in the
// server, so does the PUB_ACK, and once the lock goes every result is stored
// exactly once, none reported lost, the trouble logged once each way.
TEST(AccumulateServerTest, ResultsWaitOutALockedDatabase) {
  TempDir dir;
  daemon_config config = test_config(dir.path());
  config.database_file = dir.path() + "/vorn.db";
  config.database_busy_timeout_ms = 50;
  auto store = open_database(&config);
  ASSERT_TRUE(store);
  sqlite3* raw = nullptr;
  ASSERT_EQ(sqlite3_open(config.database_file.c_str(), &raw), SQLITE_OK);
  std::unique_ptr<sqlite3, int (*)(sqlite3*)> other(raw, sqlite3_close);
  ASSERT_EQ(sqlite3_exec(other.get(), "BEGIN IMMEDIATE", nullptr, nullptr, nullptr), SQLITE_OK);
  testing::internal::CaptureStderr();
  InProcessServer server(config, store.get());
  server.endpoint();
  // Nothing sent yet: the first request is answered at once.
  auto publisher = acknowledged_publisher(config);
  constexpr int kResults = 200;
  for (int i = 0; i < kResults; ++i) {
    ASSERT_EQ(send_result(sample_result("waiting", "x"), config, publisher.get()), 1);
  }
  EXPECT_FALSE(request_pub_ack(publisher.get(), config, "127.0.0.1", 1500))
      << "answered before the commit";
  ASSERT_EQ(sqlite3_exec(other.get(), "COMMIT", nullptr, nullptr, nullptr), SQLITE_OK);
  EXPECT_TRUE(request_pub_ack(publisher.get(), config, "127.0.0.1", 20000));
  EXPECT_EQ(count_rows(config.database_file), kResults);
  EXPECT_TRUE(server.stop());
  const std::string err = testing::internal::GetCapturedStderr();
  EXPECT_EQ(occurrences(err, "Database unavailable (insert: database is locked)"), 1) << err;
  EXPECT_EQ(occurrences(err, "Database writable again"), 1) << err;
  EXPECT_EQ(occurrences(err, "Data lost"), 0) << err;
}

TEST(AccumulateServerTest, ResolveHostAddress) {
  EXPECT_EQ(vorn::host::resolve_host_address("localhost").rfind("127.", 0), 0u);
  EXPECT_EQ(vorn::host::resolve_host_address("127.0.0.9"), "127.0.0.9");
}

}  // namespace
