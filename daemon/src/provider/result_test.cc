// The result message between real ZeroMQ sockets on 127.0.0.1.

#include "daemon/src/provider/result.h"

#include <gtest/gtest.h>

#include <atomic>
#include <cstring>
#include <thread>

#include "daemon/src/provider/sender.h"
#include "tests/support/results.h"
#include "tests/support/test_support.h"

namespace {

using vorn::test::sample_result;

// A bound subscriber as the server has it, and a publisher that has completed
// the acknowledgement handshake with it.
class ResultTransportTest : public testing::Test {
 protected:
  void SetUp() override {
    subscriber_.reset(zsock_new(ZMQ_SUB));
    ASSERT_GE(zsock_bind(subscriber_.get(), "tcp://127.0.0.1:*"), 0);
    zsock_set_subscribe(subscriber_.get(), accumulate_topic(config_).c_str());
    zsock_set_rcvtimeo(subscriber_.get(), 2000);
    publisher_ = connect_result_publisher(vorn::czmq::last_endpoint(subscriber_.get()));
    ASSERT_TRUE(publisher_);
    ASSERT_TRUE(handshake(publisher_.get()));
  }

  // Serves receive_result while `publisher` asks for its acknowledgement.
  bool handshake(zsock_t* publisher) {
    std::atomic<bool> done{false};
    bool acknowledged = false;
    std::thread sender([&] {
      acknowledged = request_pub_ack(publisher, config_, "127.0.0.1", 5000);
      done = true;
    });
    zsock_set_rcvtimeo(subscriber_.get(), 50);
    while (!done) {
      provider_result ignored;
      receive_result(ignored, config_, subscriber_.get());
    }
    sender.join();
    drain();
    return acknowledged;
  }

  // Handles requests that repeated the handshake after it was answered.
  void drain() {
    zsock_set_rcvtimeo(subscriber_.get(), 200);
    provider_result ignored;
    while (zsock_events(subscriber_.get()) & ZMQ_POLLIN) {
      receive_result(ignored, config_, subscriber_.get());
    }
    zsock_set_rcvtimeo(subscriber_.get(), 2000);
  }

  void send_frames(const std::vector<std::string>& frames) {
    zmsg_t* message = zmsg_new();
    for (const std::string& f : frames) {
      zmsg_addmem(message, f.data(), f.size());
    }
    ASSERT_EQ(zmsg_send(&message, publisher_.get()), 0);
  }

  std::string header_bytes(const provider_result& r) {
    return std::string(reinterpret_cast<const char*>(&r.header), kResultHeaderSize);
  }

  daemon_config config_;
  vorn::czmq::Socket subscriber_;
  vorn::czmq::Socket publisher_;
};

TEST_F(ResultTransportTest, RoundTripKeepsEveryFieldAndByte) {
  struct Row {
    const char* comment;
    provider_result sent;
  } rows[] = {
      {"binary output with NUL bytes",
       sample_result("probe", vorn::test::all_bytes(), std::string("e\0r", 3), "a, b")},
      {"no output at all", sample_result("quiet", "", "", "")},
      {"output far beyond one read", sample_result("big", std::string(3 << 20, 'x'), "tail")},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.comment);
    ASSERT_EQ(send_result(row.sent, config_, publisher_.get()), 1);
    provider_result got;
    testing::internal::CaptureStderr();
    ASSERT_EQ(receive_result(got, config_, subscriber_.get()), 1);
    std::string log = testing::internal::GetCapturedStderr();
    EXPECT_EQ(header_bytes(got), header_bytes(row.sent));
    EXPECT_EQ(got.stdout_data, row.sent.stdout_data);
    EXPECT_EQ(got.stderr_data, row.sent.stderr_data);
    EXPECT_EQ(got.nodes_csv, row.sent.nodes_csv);
    size_t total = accumulate_topic(config_).size() + kResultHeaderSize +
                   row.sent.stdout_data.size() + row.sent.stderr_data.size() +
                   row.sent.nodes_csv.size();
    EXPECT_EQ(log, "Received data provider '" + std::string(row.sent.header.name) +
                       "' from node17 (" + std::to_string(total) + " bytes)\n");
  }
}

TEST_F(ResultTransportTest, UnterminatedTextFieldsAreCutInsideTheirField) {
  provider_result r = sample_result("x", "o");
  std::memset(r.header.name, 'n', sizeof r.header.name);
  std::memset(r.header.hostname, 'h', sizeof r.header.hostname);
  std::memset(r.header.option_id, 'i', sizeof r.header.option_id);
  ASSERT_EQ(send_result(r, config_, publisher_.get()), 1);
  provider_result got;
  ASSERT_EQ(receive_result(got, config_, subscriber_.get()), 1);
  EXPECT_EQ(std::string(got.header.name), std::string(63, 'n'));
  EXPECT_EQ(std::string(got.header.hostname), std::string(255, 'h'));
  EXPECT_EQ(std::string(got.header.option_id), std::string(59, 'i'));
}

// A reply socket of the test's own, so it sees every answer the server sends.
TEST_F(ResultTransportTest, PubAckIsAnsweredOncePerEndpointAndNumber) {
  vorn::czmq::Socket reply(zsock_new(ZMQ_REP));
  ASSERT_GE(zsock_bind(reply.get(), "tcp://127.0.0.1:*"), 0);
  zsock_set_rcvtimeo(reply.get(), 300);
  std::string endpoint = vorn::czmq::last_endpoint(reply.get());
  auto number = [](int32_t n) { return std::string(reinterpret_cast<const char*>(&n), 4); };
  struct Row {
    const char* comment;
    std::string number_frame;
    const char* want_answer;  // nullptr: no answer expected
  } rows[] = {
      {"first request", number(1234), "1234"},
      {"same endpoint and number again", number(1234), nullptr},
      {"a new number", number(-5), "-5"},
      {"a 3-byte number is an empty number", "abc", "0"},
      {"an empty number again", "abcdef", nullptr},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.comment);
    send_frames({accumulate_topic(config_), "PUB_ACK", endpoint, row.number_frame});
    provider_result got;
    EXPECT_EQ(receive_result(got, config_, subscriber_.get()), 0);
    char* answer = zstr_recv(reply.get());
    if (row.want_answer == nullptr) {
      EXPECT_EQ(answer, nullptr);
    } else {
      ASSERT_NE(answer, nullptr);
      EXPECT_STREQ(answer, row.want_answer);
      zstr_send(reply.get(), "");
    }
    zstr_free(&answer);
  }
  // Another tag in the second frame is no request at all.
  send_frames({accumulate_topic(config_), "PUB_ACK?", endpoint, number(99)});
  provider_result got;
  EXPECT_EQ(receive_result(got, config_, subscriber_.get()), 0);
  char* answer = zstr_recv(reply.get());
  EXPECT_EQ(answer, nullptr);
  zstr_free(&answer);
}

TEST(DumpResultTest, TextLayout) {
  vorn::test::TempDir dir;
  daemon_config config;
  vorn::str::copy(config.accumulate_output_dir, dir.path());
  provider_result r = sample_result("probe", std::string("a\0b", 3), "warn", "n1, n2");
  dump_result(r, config);
  dump_result(r, config);
  std::string one =
      "Name: probe\nHostname: node17\nDuration: 2.5\nTimestamp: 1700000000.000042\n"
      "Exit status: 3\nEncoding: 0\nAPI: \x01\nOptionID: default\nversion: 7\n"
      "stdout (3 bytes): \n" +
      std::string("a\0b", 3) +
      "\nstderr (4 bytes): \nwarn\n"
      "nodes (2 nodes, 6 bytes): n1, n2\n";
  EXPECT_EQ(vorn::test::read_file(dir / "probe"), one + one);
}

TEST(DumpResultTest, NamesCannotLeaveTheDirectory) {
  vorn::test::TempDir dir;
  daemon_config config;
  std::string inner = dir / "acc";
  ASSERT_EQ(mkdir(inner.c_str(), 0755), 0);
  vorn::str::copy(config.accumulate_output_dir, inner);
  for (const char* name : {"../escape", "..", ""}) {
    dump_result(sample_result(name, "x"), config);
  }
  EXPECT_NE(vorn::test::read_file(inner + "/.._escape"), "");
  EXPECT_NE(vorn::test::read_file(inner + "/_.."), "");
  EXPECT_NE(vorn::test::read_file(inner + "/_"), "");
  EXPECT_EQ(vorn::test::read_file(dir / "escape"), "");
}

}  // namespace
