// The accumulate server run in-process, where the test holds its running flag.

#include "daemon/src/serverd/accumulate_server.h"

#include <gtest/gtest.h>

#include <future>
#include <thread>

#include "daemon/src/provider/sender.h"
#include "tests/support/results.h"
#include "tests/support/test_support.h"

namespace {

using vorn::test::sample_result;

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
  vorn::str::copy(config.accumulate_port, std::to_string(vorn::test::free_tcp_port()));
  vorn::str::copy(config.accumulate_output_dir, dir);
  return config;
}

vorn::czmq::Socket acknowledged_publisher(const daemon_config& config) {
  auto publisher =
      connect_result_publisher(std::string("tcp://127.0.0.1:") + config.accumulate_port);
  EXPECT_TRUE(publisher);
  EXPECT_TRUE(request_pub_ack(publisher.get(), config, "127.0.0.1", 10000));
  return publisher;
}

TEST(AccumulateServerTest, WithoutDatabaseResultsAreDumpedAsText) {
  vorn::test::TempDir dir;
  daemon_config config = test_config(dir.path());
  InProcessServer server(config, nullptr);
  EXPECT_EQ(server.endpoint(), std::string("tcp://0.0.0.0:") + config.accumulate_port);
  auto publisher = acknowledged_publisher(config);
  for (int i = 0; i < 3; ++i) {
    ASSERT_EQ(
        send_result(sample_result("dumped", "run " + std::to_string(i)), config, publisher.get()),
        1);
  }
  ASSERT_TRUE(vorn::test::wait_until(
      [&] { return vorn::test::read_file(dir / "dumped").find("run 2") != std::string::npos; },
      vorn::test::milliseconds(10000)));
  EXPECT_TRUE(server.stop());
  std::string text = vorn::test::read_file(dir / "dumped");
  EXPECT_NE(text.find("stdout (5 bytes): \nrun 0\n"), std::string::npos);
  EXPECT_NE(text.find("stdout (5 bytes): \nrun 1\n"), std::string::npos);
}

TEST(AccumulateServerTest, PartitionsMatchByTopicPrefix) {
  vorn::test::TempDir dir;
  struct Row {
    const char* comment;
    std::string server_partition;
    std::string sender_partition;
    bool delivered;
  } rows[] = {
      {"same partition", "blue", "blue", true},
      {"a partition that begins with the server's", "blue", "blueberry", true},
      {"another partition", "blue", "red", false},
      {"a server without partition hears all", "", "red", true},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.comment);
    daemon_config config = test_config(dir.path());
    config.network_partition = row.server_partition;
    InProcessServer server(config, nullptr);
    server.endpoint();
    // The handshake goes on the server's own topic; results on the sender's.
    auto publisher = acknowledged_publisher(config);
    daemon_config sender = config;
    sender.network_partition = row.sender_partition;
    std::string name = "p-" + row.sender_partition + "-" + row.server_partition;
    ASSERT_EQ(send_result(sample_result(name, "x"), sender, publisher.get()), 1);
    ASSERT_EQ(send_result(sample_result("marker" + name, "x"), config, publisher.get()), 1);
    ASSERT_TRUE(vorn::test::wait_until(
        [&] { return !vorn::test::read_file(dir / ("marker" + name)).empty(); },
        vorn::test::milliseconds(10000)));
    EXPECT_EQ(!vorn::test::read_file(dir / name).empty(), row.delivered);
  }
}

TEST(AccumulateServerTest, ResolveHostAddress) {
  EXPECT_EQ(resolve_host_address("localhost").rfind("127.", 0), 0u);
  EXPECT_EQ(resolve_host_address("127.0.0.9"), "127.0.0.9");
}

}  // namespace
