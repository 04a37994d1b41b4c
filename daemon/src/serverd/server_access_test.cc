// Black-box tests of who may reach vorn-serverd: the real program with a
// generated configuration, and senders built from raw ZeroMQ sockets on
// 127.0.0.1, so that each one can misbehave as a stranger would.

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include <gtest/gtest.h>

#include <cstring>
#include <fstream>
#include <string>
#include <vector>

#include "daemon/src/provider/result.h"
#include "tests/support/results.h"
#include "tests/support/test_support.h"
#include "util/czmq.h"
#include "util/fs.h"

namespace {

using vorn::test::milliseconds;
using vorn::test::Process;
using vorn::test::TempDir;

const std::string kServerd = VORN_SERVERD_PATH;
const std::string kReady = "Accumulate server started and subscribing to 'ACCUMULATE vorn3'";
const std::string kTopic = "ACCUMULATE vorn3";

zmsg_t* message_of(const std::vector<std::string>& frames) {
  zmsg_t* message = zmsg_new();
  for (const std::string& f : frames) {
    zmsg_addmem(message, f.data(), f.size());
  }
  return message;
}

// A sender as a node's publisher is on the wire, with a reply socket of its
// own for the server's answers to its "PUB_ACK" requests.
class raw_sender {
 public:
  // `source` is the local address the publisher connects from.
  raw_sender(int server_port, const std::string& source = "127.0.0.1")
      : publisher_(zsock_new(ZMQ_PUB)), reply_(zsock_new(ZMQ_REP)) {
    zsock_set_rcvtimeo(reply_.get(), 100);
    // "source:0;destination" binds the connection's local end.
    connect_to_ = "tcp://" + source + ":0;127.0.0.1:" + std::to_string(server_port);
  }

  zsock_t* publisher() { return publisher_.get(); }

  bool connect() { return zsock_connect(publisher_.get(), "%s", connect_to_.c_str()) == 0; }

  // Binds the reply socket on `host`; its endpoint, "" on failure.
  std::string bind_reply(const std::string& host) {
    if (zsock_bind(reply_.get(), "tcp://%s:*", host.c_str()) < 0) {
      return "";
    }
    return vorn::czmq::last_endpoint(reply_.get());
  }

  void send(const std::vector<std::string>& frames) {
    zmsg_t* message = message_of(frames);
    zmsg_send(&message, publisher_.get());
  }

  void request_ack(const std::string& reply_endpoint, int32_t number) {
    send({kTopic, "PUB_ACK", reply_endpoint,
          std::string(reinterpret_cast<const char*>(&number), sizeof number)});
  }

  // Repeats a request for `number` until an answer reaches the reply socket
  // or `timeout` passes; true when answered.
  bool acknowledged(const std::string& reply_endpoint, int32_t number, milliseconds timeout) {
    return vorn::test::wait_until(
        [&] {
          request_ack(reply_endpoint, number);
          vorn::czmq::String answer(zstr_recv(reply_.get()));
          if (!answer) {
            return false;
          }
          zstr_send(reply_.get(), "");
          return std::string(answer.get()) == std::to_string(number);
        },
        timeout);
  }

 private:
  vorn::czmq::Socket publisher_;
  vorn::czmq::Socket reply_;
  std::string connect_to_;
};

// Whether a TCP connection to host:port is accepted.
bool tcp_connects(const std::string& host, int port) {
  vorn::fs::Fd fd(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_port = htons(static_cast<uint16_t>(port));
  return fd.get() >= 0 && inet_pton(AF_INET, host.c_str(), &address.sin_addr) == 1 &&
         ::connect(fd.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0;
}

class ServerAccessTest : public testing::Test {
 protected:
  std::string write_config(const std::string& keys = "") {
    std::string path = dir_ / "vornd.xml";
    vorn::test::write_file(
        path, vorn::test::config_xml(keys + "<accumulate_port>" + std::to_string(port_) +
                                     "</accumulate_port>\n<accumulate_output_dir>" +
                                     (dir_ / "acc") + "</accumulate_output_dir>\n<database_file>" +
                                     db_path() + "</database_file>\n"));
    return path;
  }

  std::string db_path() const { return dir_ / "db/vorn.db"; }

  std::unique_ptr<Process> start(const std::string& keys = "") {
    auto server = std::make_unique<Process>(
        std::vector<std::string>{kServerd, "-d", "-c", write_config(keys)}, dir_.path());
    EXPECT_TRUE(server->wait_for_err(kReady)) << server->err();
    return server;
  }

  TempDir dir_;
  int port_ = vorn::test::free_tcp_port();
};

// The server connects back only to the address a request came from, so a
// request cannot aim it at anyone else.
TEST_F(ServerAccessTest, PubAckIsAnsweredOnlyAtTheRequestersAddress) {
  auto server = start();
  struct Row {
    const char* comment;
    const char* source;      // where the request comes from
    const char* reply_host;  // where it asks to be answered
    bool answered;
  } rows[] = {
      {"its own address", "127.0.0.1", "127.0.0.1", true},
      {"its own address, another than the server's", "127.0.0.2", "127.0.0.2", true},
      {"a third party's address", "127.0.0.1", "127.0.0.3", false},
      {"the server's own address, from elsewhere", "127.0.0.2", "127.0.0.1", false},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.comment);
    raw_sender sender(port_, row.source);
    ASSERT_TRUE(sender.connect());
    const std::string answer_at = sender.bind_reply(row.reply_host);
    ASSERT_FALSE(answer_at.empty());
    // An answer comes within milliseconds; a refused request is repeated
    // for a while all the same.
    EXPECT_EQ(sender.acknowledged(answer_at, 1, milliseconds(row.answered ? 10000 : 2000)),
              row.answered);
  }
  server->send_signal(SIGTERM);
  EXPECT_EQ(server->wait_exit(), 0);
  // One warning per 10 s: the first refusal is the one logged.
  EXPECT_NE(server->err().find("Ignoring PUB_ACK request for endpoint 'tcp://127.0.0.3:"),
            std::string::npos)
      << server->err();
}

// accumulate_listen_address limits where the result socket can be reached.
TEST_F(ServerAccessTest, ListenAddressLimitsWhereResultsArrive) {
  struct Row {
    const char* comment;
    const char* listen;  // accumulate_listen_address
    const char* connect_to;
    bool reachable;
  } rows[] = {
      {"every interface by default", nullptr, "127.0.0.2", true},
      {"the address named", "127.0.0.1", "127.0.0.1", true},
      {"no other", "127.0.0.1", "127.0.0.2", false},
      {"an interface name", "lo", "127.0.0.1", true},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.comment);
    auto server = start(row.listen ? std::string("<accumulate_listen_address>") + row.listen +
                                         "</accumulate_listen_address>"
                                   : "");
    EXPECT_EQ(tcp_connects(row.connect_to, port_), row.reachable);
    server->send_signal(SIGTERM);
    EXPECT_EQ(server->wait_exit(), 0);
  }
}

}  // namespace
