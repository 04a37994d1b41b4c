// The receiving end of the transport between real ZeroMQ sockets on
// 127.0.0.1, and the memory of answered acknowledgement requests.

#include "daemon/src/serverd/receiver.h"
#include "daemon/src/serverd/pub_ack_answerer.h"

#include <sys/stat.h>

#include <gtest/gtest.h>

#include <vector>

#include "tests/support/results.h"
#include "tests/support/test_support.h"
#include "util/czmq.h"

namespace {

TEST(AnsweredRequestsTest, KeysAreForgottenAfterTenMinutesAndBeyondTheLimit) {
  const int64_t start = 5000;
  const int64_t later = start + answered_requests::kKeepMs;
  auto key = [](int i) { return static_cast<uint64_t>(i); };
  answered_requests answered;
  answered.add(key(-1), start);
  EXPECT_TRUE(answered.contains(key(-1), later - 1));
  EXPECT_FALSE(answered.contains(key(-1), later));
  for (int i = 0; i < 1000000; ++i) {
    answered.add(key(i), later);
  }
  EXPECT_EQ(answered.size(), answered_requests::kMaxKeys);
  EXPECT_FALSE(answered.contains(key(899999), later)) << "the oldest go first";
  EXPECT_TRUE(answered.contains(key(900000), later));
}

// A PUSH socket stands in for a sender's publisher: the receiver does not
// look at the socket type, and PUSH delivers without a handshake.
TEST(ReceiverTest, PubAckIsAnsweredOncePerEndpointAndNumber) {
  vorn::czmq::Socket pull(zsock_new(ZMQ_PULL));
  ASSERT_GE(zsock_bind(pull.get(), "tcp://127.0.0.1:*"), 0);
  vorn::czmq::Socket push(zsock_new(ZMQ_PUSH));
  ASSERT_EQ(zsock_connect(push.get(), "%s", vorn::czmq::last_endpoint(pull.get()).c_str()), 0);
  vorn::czmq::Socket reply(zsock_new(ZMQ_REP));
  ASSERT_GE(zsock_bind(reply.get(), "tcp://127.0.0.1:*"), 0);
  zsock_set_rcvtimeo(reply.get(), 10000);
  const std::string endpoint = vorn::czmq::last_endpoint(reply.get());
  result_receiver receiver;
  pub_ack_answerer answerer;
  auto receive = [&](const std::vector<std::string>& frames) {
    zmsg_t* message = zmsg_new();
    zmsg_addstr(message, "ACCUMULATE");
    for (const std::string& f : frames) {
      zmsg_addmem(message, f.data(), f.size());
    }
    EXPECT_EQ(zmsg_send(&message, push.get()), 0);
    received_message ignored;
    return receiver.receive(pull.get(), ignored);
  };
  auto number = [](int32_t n) { return std::string(reinterpret_cast<const char*>(&n), 4); };
  // Left unanswered, as while the commit waits, a request counts when repeated.
  EXPECT_EQ(receive({"PUB_ACK", endpoint, number(1234)}), message_kind::pub_ack);
  EXPECT_EQ(receiver.request().number, 1234);
  struct Row {
    const char* comment;
    std::vector<std::string> frames;
    const char* answer;  // nullptr: no request to answer
  } rows[] = {
      {"repeated", {"PUB_ACK", endpoint, number(1234)}, "1234"},
      {"answered already", {"PUB_ACK", endpoint, number(1234)}, nullptr},
      {"a new number", {"PUB_ACK", endpoint, number(-5)}, "-5"},
      {"a 3-byte number is an empty number", {"PUB_ACK", endpoint, "abc"}, "0"},
      {"another tag", {"PUB_ACK?", endpoint, number(7)}, nullptr},
      {"not a TCP endpoint", {"PUB_ACK", "ipc:///tmp/vorn-ack", number(7)}, nullptr},
      {"a host name is never looked up", {"PUB_ACK", "tcp://localhost:1", number(7)}, nullptr},
      {"another address than the requester's",
       {"PUB_ACK", "tcp://127.0.0.2" + endpoint.substr(endpoint.rfind(':')), number(8)},
       nullptr},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.comment);
    ASSERT_EQ(receive(row.frames), row.answer ? message_kind::pub_ack : message_kind::ignored);
    if (row.answer != nullptr) {
      ASSERT_TRUE(answerer.answer(receiver.request()));
      receiver.mark_answered(receiver.request().key);
      vorn::czmq::String answer(zstr_recv(reply.get()));
      ASSERT_TRUE(answer);
      EXPECT_STREQ(answer.get(), row.answer);
      zstr_send(reply.get(), "");
    }
  }
}

TEST(ReceiverTest, OnlyNumericTcpEndpointsAreAnswered) {
  struct Row {
    std::string endpoint;
    bool valid;
  } rows[] = {
      {"tcp://127.0.0.1:5000", true},                           // IPv4
      {"tcp://[::1]:5000", true},                               // bracketed IPv6
      {"tcp://10.1.2.3:65535", true},                           // highest port
      {"tcp://somehost:5000", false},                           // a name would be looked up
      {"tcp://::1:5000", false},                                // IPv6 without brackets
      {"tcp://127.0.0.1:0", false},                             // no port 0
      {"tcp://127.0.0.1:65536", false},                         // port out of range
      {"tcp://127.0.0.1:*", false},                             // a wildcard is for binding
      {"tcp://127.0.0.1", false},                               // no port
      {"udp://127.0.0.1:5000", false},                          // another transport
      {"tcp://127.0.0.1:5000" + std::string(300, ' '), false},  // longer than 256 bytes
      {std::string("tcp://2.0.0.1\0:2", 16), false},            // connect would stop at the NUL
  };
  for (const Row& row : rows) {
    EXPECT_EQ(valid_reply_endpoint(row.endpoint), row.valid) << row.endpoint;
  }
}

TEST(ReceiverTest, OnlyTheRequestersOwnAddressIsAnswered) {
  struct Row {
    const char* endpoint;
    const char* peer;  // as ZeroMQ's "Peer-Address" gives it
    bool answered;
  } rows[] = {
      {"tcp://127.0.0.1:5000", "127.0.0.1", true},
      {"tcp://127.0.0.1:5000", "::ffff:127.0.0.1", true},  // IPv4 on a dual-stack socket
      {"tcp://[::ffff:127.0.0.1]:5000", "127.0.0.1", true},
      {"tcp://[::1]:5000", "::1", true},
      {"tcp://[0:0::1]:5000", "::1", true},            // another spelling
      {"tcp://[fe80::1]:5000", "fe80::1%eth0", true},  // the scope is not the address
      {"tcp://127.0.0.2:5000", "127.0.0.1", false},
      {"tcp://[::1]:5000", "127.0.0.1", false},
      {"tcp://127.0.0.1:5000", "", false},  // no address known: a message without a socket
      {"tcp://127.0.0.1:5000", "127.0.0.1.", false},
  };
  for (const Row& row : rows) {
    EXPECT_EQ(endpoint_is_peer(row.endpoint, row.peer), row.answered)
        << row.endpoint << " from " << row.peer;
  }
}

TEST(DumpResultTest, NamesCannotLeaveTheDirectory) {
  vorn::test::TempDir dir;
  daemon_config config;
  std::string inner = dir / "acc";
  ASSERT_EQ(mkdir(inner.c_str(), 0755), 0);
  vorn::str::copy(config.accumulate_output_dir, inner);
  for (const char* name : {"../escape", "..", ""}) {
    dump_result(vorn::test::sample_result(name, "x"), config);
  }
  EXPECT_NE(vorn::test::read_file(inner + "/.._escape"), "");
  EXPECT_NE(vorn::test::read_file(inner + "/_.."), "");
  EXPECT_NE(vorn::test::read_file(inner + "/_"), "");
  EXPECT_EQ(vorn::test::read_file(dir / "escape"), "");
}

}  // namespace
