// Black-box tests of who may reach vorn-serverd: the real program with a
// generated configuration, and senders built from raw ZeroMQ sockets on
// 127.0.0.1, so that each one can misbehave as a stranger would.

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "daemon/src/provider/result.h"
#include "tests/support/daemons.h"
#include "tests/support/results.h"
#include "tests/support/test_support.h"
#include "util/czmq.h"
#include "util/fs.h"

namespace {

using namespace vorn::test;

const std::string kServerd = VORN_SERVERD_PATH;
const std::string kTopic = "ACCUMULATE vorn3";

zmsg_t* message_of(const std::vector<std::string>& frames) {
  zmsg_t* message = zmsg_new();
  for (const std::string& f : frames) {
    zmsg_addmem(message, f.data(), f.size());
  }
  return message;
}

std::string result_frame(const std::string& provider, const std::string& hostname) {
  provider_result r = sample_result(provider, "x");
  vorn::str::copy(r.header.hostname, hostname);
  return std::string(reinterpret_cast<const char*>(&r.header), kResultHeaderSize);
}

struct DestroyCert {
  void operator()(zcert_t* cert) const { zcert_destroy(&cert); }
};
using Cert = std::unique_ptr<zcert_t, DestroyCert>;

// A new key pair; `hostname` is its certificate's hostname metadata (none
// when null).
Cert new_cert(const char* hostname) {
  Cert cert(zcert_new());
  if (hostname != nullptr) {
    zcert_set_meta(cert.get(), "hostname", "%s", hostname);
  }
  return cert;
}

// A sender as a node's publisher is on the wire, with a reply socket of its
// own for the server's answers to its "PUB_ACK" requests.
class raw_sender {
 public:
  // `source` is the local address the publisher connects from.
  raw_sender(int server_port, const std::string& source = "127.0.0.1")
      : publisher_(zsock_new(ZMQ_PUB)), reply_(zsock_new(ZMQ_REP)) {
    zsock_set_rcvtimeo(reply_.get(), 100);
    // Nothing it queued may hold up the test's end.
    zsock_set_linger(publisher_.get(), 0);
    // "source:0;destination" binds the connection's local end.
    connect_to_ = "tcp://" + source + ":0;127.0.0.1:" + std::to_string(server_port);
  }

  // With CURVE: the publisher a client of the server's key, the reply
  // socket a server with the sender's own key, as a node's are.
  raw_sender(int server_port, zcert_t* own, const char* server_public_key)
      : raw_sender(server_port) {
    zcert_apply(own, publisher_.get());
    zsock_set_curve_serverkey(publisher_.get(), server_public_key);
    zcert_apply(own, reply_.get());
    zsock_set_curve_server(reply_.get(), 1);
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
    return wait_until(
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
  return vorn::fs::Fd(tcp_connect(host, port)).get() >= 0;
}

class ServerAccessTest : public testing::Test {
 protected:
  std::string write_config(const std::string& keys = "") {
    std::string path = dir_ / "vornd.xml";
    write_file(path, config_xml(keys + server_keys(port_, dir_.path(), db_path())));
    return path;
  }

  std::string db_path() const { return dir_ / "db/vorn.db"; }

  std::unique_ptr<Process> start(const std::string& keys = "") {
    auto server = std::make_unique<Process>(
        std::vector<std::string>{kServerd, "-d", "-c", write_config(keys)}, dir_.path());
    EXPECT_TRUE(server->wait_for_err(kServerReady)) << server->err();
    return server;
  }

  // The server's key pair in dir_/keys, an empty directory of listed
  // senders beside it, and the configuration keys that name them.
  std::string curve_keys() {
    EXPECT_EQ(mkdir((dir_ / "keys").c_str(), 0700), 0);
    EXPECT_EQ(mkdir(clients_dir().c_str(), 0700), 0);
    EXPECT_EQ(zcert_save(server_cert_.get(), (dir_ / "keys/server.cert").c_str()), 0);
    return "<curve_certificate>" + (dir_ / "keys/server.cert_secret") +
           "</curve_certificate>\n<curve_clients_dir>" + clients_dir() + "</curve_clients_dir>\n";
  }
  std::string clients_dir() const { return dir_ / "keys/clients"; }
  void list(zcert_t* cert, const std::string& name) {
    EXPECT_EQ(zcert_save_public(cert, (clients_dir() + "/" + name + ".cert").c_str()), 0);
  }
  const char* server_key() { return zcert_public_txt(server_cert_.get()); }

  long rows_of(const std::string& provider) {
    return count_rows(db_path(), "Provider = '" + provider + "'");
  }

  TempDir dir_;
  int port_ = free_tcp_port();
  Cert server_cert_ = new_cert(nullptr);
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
  EXPECT_EQ(server->terminate(), 0);
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
    EXPECT_EQ(server->terminate(), 0);
  }
}

// With CURVE, only listed keys reach the server, each for its own host.
// Refused peers are refused in the handshake: nothing they send is read.
TEST_F(ServerAccessTest, ACurveServerHearsListedKeysEachForItsOwnHost) {
  const std::string keys = curve_keys();
  Cert node17 = new_cert("node17");
  Cert any_host = new_cert("*");
  Cert no_hostname = new_cert(nullptr);
  Cert stranger = new_cert("node17");
  Cert other_server = new_cert(nullptr);
  list(node17.get(), "node17");
  list(any_host.get(), "admin");
  list(no_hostname.get(), "nameless");
  struct Row {
    const char* comment;
    zcert_t* key;            // null: plaintext
    const char* server_key;  // null: the server's own
    const char* hostname;
    bool stored;  // and so acknowledged
    const char* logged;
  } rows[] = {
      {"a listed key for its own host", node17.get(), nullptr, "node17", true, nullptr},
      {"a listed key for another host", node17.get(), nullptr, "node18", false,
       "Not answering PUB_ACK from '127.0.0.1' with key '"},
      {"a key for any host", any_host.get(), nullptr, "node18", true, nullptr},
      {"a certificate without hostname", no_hostname.get(), nullptr, "node17", false,
       " not accepted)."},
      {"an unlisted key", stranger.get(), nullptr, "node17", false, " not accepted)."},
      {"a listed key, for another server", node17.get(), zcert_public_txt(other_server.get()),
       "node17", false, "not a CURVE client of this server"},
      {"plaintext", nullptr, nullptr, "node17", false, "not a CURVE client of this server"},
  };
  int n = 0;
  for (const Row& row : rows) {
    SCOPED_TRACE(row.comment);
    auto server = start(keys);
    const std::string provider = "row" + std::to_string(n++);
    auto sender = row.key != nullptr
                      ? std::make_unique<raw_sender>(port_, row.key,
                                                     row.server_key ? row.server_key : server_key())
                      : std::make_unique<raw_sender>(port_);
    ASSERT_TRUE(sender->connect());
    const std::string answer_at = sender->bind_reply("127.0.0.1");
    const bool heard = row.stored || (row.key == node17.get() && row.server_key == nullptr);
    EXPECT_EQ(sender->acknowledged(answer_at, 1, milliseconds(heard ? 10000 : 2000)), heard);
    sender->send({kTopic, result_frame(provider, row.hostname), "x", "", ""});
    if (heard) {
      // An answer means that what was sent before the request is committed;
      // a sender whose result was refused is not answered, so it keeps it.
      EXPECT_EQ(sender->acknowledged(answer_at, 2, milliseconds(row.stored ? 10000 : 2000)),
                row.stored);
    }
    if (row.logged != nullptr) {
      EXPECT_TRUE(server->wait_for_err(row.logged)) << server->err();
    }
    EXPECT_EQ(server->terminate(), 0);
    EXPECT_EQ(rows_of(provider), row.stored ? 1 : 0);
  }
}

// A certificate removed from the directory is refused within 2 s, also on
// the connection its sender has open; one added is heard within 2 s; neither
// needs a restart.
TEST_F(ServerAccessTest, KeysComeAndGoWithoutARestart) {
  auto server = start(curve_keys());
  Cert node17 = new_cert("node17");
  list(node17.get(), "node17");
  raw_sender sender(port_, node17.get(), server_key());
  ASSERT_TRUE(sender.connect());
  const std::string answer_at = sender.bind_reply("127.0.0.1");
  ASSERT_TRUE(sender.acknowledged(answer_at, 1, milliseconds(10000)));
  sender.send({kTopic, result_frame("before", "node17"), "x", "", ""});
  ASSERT_TRUE(sender.acknowledged(answer_at, 2, milliseconds(10000)));

  ASSERT_EQ(unlink((clients_dir() + "/node17.cert").c_str()), 0);
  EXPECT_TRUE(wait_until(
      [&] {
        sender.send({kTopic, result_frame("removing", "node17"), "x", "", ""});
        return server->err().find("the key is not listed") != std::string::npos;
      },
      milliseconds(2000)));
  for (int i = 0; i < 3; ++i) {
    sender.send({kTopic, result_frame("removed", "node17"), "x", "", ""});
  }

  // libzmq does not retry a connection refused in its handshake: a node
  // whose key was not listed yet connects anew.
  Cert node18 = new_cert("node18");
  list(node18.get(), "node18");
  EXPECT_TRUE(wait_until(
      [&] {
        raw_sender newcomer(port_, node18.get(), server_key());
        return newcomer.connect() &&
               newcomer.acknowledged(newcomer.bind_reply("127.0.0.1"), 1, milliseconds(300));
      },
      milliseconds(2000)));

  // A stopping server stores everything that reached it.
  EXPECT_EQ(server->terminate(), 0);
  EXPECT_EQ(rows_of("before"), 1);
  EXPECT_EQ(rows_of("removed"), 0);
}

// Writes one message of `frames` frames of `frame_size` bytes to the server
// as a plaintext ZeroMQ publisher would put it on the wire (ZMTP 3.0, NULL
// mechanism), without waiting for the server's side of the handshake.
// Returns when the server has read it all or closed the connection.
void send_plaintext_flood(int port, int frames, size_t frame_size) {
  vorn::fs::Fd fd(tcp_connect("127.0.0.1", port));
  ASSERT_GE(fd.get(), 0);
  std::string wire("\xff\0\0\0\0\0\0\0\x01\x7f\x03\x00NULL", 16);
  wire.resize(64, '\0');
  const std::string ready = std::string("\x05READY\x0bSocket-Type\0\0\0\x03PUB", 25);
  wire += std::string("\x04") + static_cast<char>(ready.size()) + ready;
  auto send_all = [&](const std::string& bytes) {
    for (size_t at = 0; at < bytes.size();) {
      ssize_t n = ::send(fd.get(), bytes.data() + at, bytes.size() - at, MSG_NOSIGNAL);
      if (n <= 0) {
        return false;
      }
      at += static_cast<size_t>(n);
    }
    return true;
  };
  const std::string body(frame_size, 'm');
  bool open = send_all(wire);
  for (int i = 0; i < frames && open; ++i) {
    // A long frame: flags (more, long), then the size in 8 bytes, big-endian.
    std::string head(1, static_cast<char>(i + 1 < frames ? 0x03 : 0x02));
    for (int shift = 56; shift >= 0; shift -= 8) {
      head += static_cast<char>((static_cast<uint64_t>(frame_size) >> shift) & 0xff);
    }
    open = send_all(head) && send_all(body);
  }
}

// ZeroMQ holds a message of many frames whole before the server can read it;
// with CURVE a plaintext peer is refused at its greeting and costs nothing.
TEST_F(ServerAccessTest, APlaintextFloodLeavesACurveServersMemoryAlone) {
  auto server = start(curve_keys());
  const long before = peak_memory_kib(server->pid());
  send_plaintext_flood(port_, 400, size_t{1} << 20);
  const long after = peak_memory_kib(server->pid());
  EXPECT_GT(before, 0);
  EXPECT_LT(after - before, 8 * 1024) << "peak KiB before " << before << ", after " << after;
  EXPECT_EQ(server->terminate(), 0);
}

// A CURVE key that cannot be used stops the server at start, with one line
// and exit status 1, rather than letting it run in plaintext.
TEST_F(ServerAccessTest, UnusableCurveKeysStopTheServerAtStart) {
  curve_keys();
  const std::string secret = dir_ / "keys/server.cert_secret";
  write_file(dir_ / "garbage.cert_secret", "not a certificate\n");
  ASSERT_EQ(mkdir((dir_ / "a-directory").c_str(), 0700), 0);
  auto keys = [&](const std::string& certificate, const std::string& clients) {
    return "<curve_certificate>" + certificate + "</curve_certificate><curve_clients_dir>" +
           clients + "</curve_clients_dir>";
  };
  struct Row {
    const char* comment;
    std::string keys;
    std::string line;  // the reason, as logged
  };
  std::vector<Row> rows = {
      {"a missing certificate", keys(dir_ / "none.cert_secret", clients_dir()),
       "Cannot use CURVE certificate '" + (dir_ / "none.cert_secret") + "'"},
      {"a directory for a certificate", keys(dir_ / "a-directory", clients_dir()),
       "Cannot use CURVE certificate '" + (dir_ / "a-directory") + "'"},
      {"a malformed certificate", keys(dir_ / "garbage.cert_secret", clients_dir()),
       "Cannot use CURVE certificate '" + (dir_ / "garbage.cert_secret") + "'"},
      {"a public certificate for the server's own", keys(dir_ / "keys/server.cert", clients_dir()),
       "Cannot use CURVE certificate '" + (dir_ / "keys/server.cert") + "'"},
      {"a missing clients directory", keys(secret, dir_ / "none"),
       "Cannot use CURVE clients directory '" + (dir_ / "none") + "'"},
      {"a certificate without clients directory",
       "<curve_certificate>" + secret + "</curve_certificate>", "CURVE needs both "},
  };
  if (geteuid() != 0) {
    const std::string unreadable = dir_ / "unreadable.cert_secret";
    ASSERT_EQ(zcert_save_secret(server_cert_.get(), unreadable.c_str()), 0);
    ASSERT_EQ(chmod(unreadable.c_str(), 0), 0);
    // Only a user other than root is kept out by the mode.
    rows.push_back({"an unreadable certificate", keys(unreadable, clients_dir()),
                    "Cannot use CURVE certificate '" + unreadable + "'"});
  }
  for (const Row& row : rows) {
    SCOPED_TRACE(row.comment);
    Process server({kServerd, "-d", "-c", write_config(row.keys)}, dir_.path());
    EXPECT_EQ(server.wait_exit(), 1);
    const std::string err = server.err();
    EXPECT_NE(err.find(row.line), std::string::npos) << err;
    EXPECT_EQ(err.find("CURVE"), err.rfind("CURVE")) << "one line: " << err;
    EXPECT_EQ(err.find(kServerReady), std::string::npos);
  }
}

}  // namespace
