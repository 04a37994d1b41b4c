// The node's CURVE keys as its users see them: the real vorn-noded and
// vorn-send with generated keys and configurations, against a stand-in for
// the result server that also plays the forger.

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <algorithm>
#include <cstring>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "daemon/src/curve/curve.h"
#include "daemon/src/provider/run.h"
#include "tests/support/daemons.h"
#include "tests/support/results.h"
#include "tests/support/test_support.h"
#include "util/czmq.h"

namespace {

using vorn::curve::certificate;
using namespace vorn::test;

const std::string kNoded = VORN_NODED_PATH;
const std::string kSend = VORN_SEND_PATH;
const std::string kServerd = VORN_SERVERD_PATH;

// Sets up the REQ socket that answers a node's PUB_ACK request.
using Echo = std::function<void(zsock_t* req)>;

// A stand-in for the result server on 127.0.0.1: a SUB socket, a CURVE
// server with `key` unless it is null. It answers every PUB_ACK request it
// hears from a fresh REQ socket that an Echo sets up.
class StandIn {
 public:
  StandIn(int port, const certificate* key) {
    vorn::czmq::init();
    sub_.reset(zsock_new(ZMQ_SUB));
    zsock_set_subscribe(sub_.get(), "");
    if (key != nullptr) {
      vorn::curve::make_server(sub_.get(), *key);
    }
    static int monitors = 0;
    std::string endpoint = "inproc://stand-in-monitor-" + std::to_string(++monitors);
    zmq_socket_monitor(zsock_resolve(sub_.get()), endpoint.c_str(), ZMQ_EVENT_ACCEPTED);
    monitor_.reset(zsock_new(ZMQ_PAIR));
    zsock_connect(monitor_.get(), "%s", endpoint.c_str());
    // The port may still be held for a moment by a stand-in closed just now.
    bound_ = wait_until([&] { return zsock_bind(sub_.get(), "tcp://127.0.0.1:%d", port) == port; },
                        milliseconds(5000));
  }

  bool bound() const { return bound_; }
  int results() const { return results_; }
  int requests() const { return requests_; }
  int connections() const { return connections_; }

  // Reads and answers until `done` holds; false when time ran out first.
  bool serve(const Echo& echo, const std::function<bool()>& done, milliseconds timeout) {
    const int64_t deadline = zclock_mono() + timeout.count();
    std::vector<std::pair<int64_t, vorn::czmq::Socket>> answering;
    while (!done()) {
      if (zclock_mono() >= deadline) {
        return false;
      }
      zmq_pollitem_t items[] = {{zsock_resolve(sub_.get()), 0, ZMQ_POLLIN, 0},
                                {zsock_resolve(monitor_.get()), 0, ZMQ_POLLIN, 0}};
      zmq_poll(items, 2, 100);
      if (items[1].revents & ZMQ_POLLIN) {
        vorn::czmq::Message event(zmsg_recv(monitor_.get()));
        ++connections_;
      }
      if (items[0].revents & ZMQ_POLLIN) {
        vorn::czmq::Message message(zmsg_recv(sub_.get()));
        if (auto req = answer(message.get(), echo)) {
          answering.emplace_back(zclock_mono(), std::move(req));
        }
      }
      // An answer that has not gone within a second never will.
      answering.erase(std::remove_if(answering.begin(), answering.end(),
                                     [](const auto& a) { return zclock_mono() - a.first > 1000; }),
                      answering.end());
    }
    return true;
  }

 private:
  vorn::czmq::Socket answer(zmsg_t* message, const Echo& echo) {
    if (message == nullptr) {
      return nullptr;
    }
    std::vector<std::string> frames;
    for (zframe_t* f = zmsg_first(message); f != nullptr; f = zmsg_next(message)) {
      frames.emplace_back(reinterpret_cast<const char*>(zframe_data(f)), zframe_size(f));
    }
    if (frames.size() == 5) {
      ++results_;
    }
    if (frames.size() != 4 || frames[1] != "PUB_ACK" || frames[3].size() != sizeof(int32_t)) {
      return nullptr;
    }
    ++requests_;
    int32_t number;
    std::memcpy(&number, frames[3].data(), sizeof number);
    vorn::czmq::Socket req(zsock_new(ZMQ_REQ));
    echo(req.get());
    zsock_set_linger(req.get(), 0);
    zsock_connect(req.get(), "%s", frames[2].c_str());
    zstr_send(req.get(), std::to_string(number).c_str());
    return req;
  }

  vorn::czmq::Socket sub_;
  vorn::czmq::Socket monitor_;
  bool bound_ = false;
  int results_ = 0;
  int requests_ = 0;
  int connections_ = 0;
};

class NodeCurveTest : public testing::Test {
 protected:
  NodeCurveTest() : port_(free_tcp_port()) {
    ::mkdir((dir_ / "keys").c_str(), 0700);
    node_key_ = new_key("node");
    server_key_ = new_key("server");
  }

  certificate new_key(const std::string& name) {
    std::string error;
    certificate key;
    EXPECT_TRUE(vorn::curve::write_new_certificate(dir_ / "keys", name, "*", &error)) << error;
    EXPECT_TRUE(
        vorn::curve::load_certificate(dir_ / ("keys/" + name + ".cert_secret"), true, &key, &error))
        << error;
    return key;
  }

  // The node's configuration; `keys` are its CURVE keys (none: plaintext).
  std::string config(const std::string& keys) {
    std::string path = dir_ / "vornd.xml";
    write_file(path, config_xml("<accumulate_host>127.0.0.1</accumulate_host><accumulate_port>" +
                                std::to_string(port_) + "</accumulate_port>" +
                                vorn::test::node_keys(dir_.path(), out()) + keys));
    return path;
  }

  std::string node_keys() const {
    return "<curve_certificate>" + node_key_.path + "</curve_certificate>" +
           "<curve_server_certificate>" + (dir_ / "keys/server.cert") +
           "</curve_server_certificate>";
  }

  // One result waiting in the output directory.
  void backlog() {
    ::mkdir(out().c_str(), 0755);
    ASSERT_EQ(write_output_file(sample_result("waiting", "1"), out()), 1);
  }

  std::unique_ptr<Process> start_node(const std::string& cfg) {
    return start_daemon(kNoded, cfg, dir_.path());
  }

  std::string out() const { return out_; }

  TempDir dir_;
  std::string out_ = dir_ / "out";
  int port_;
  certificate node_key_;
  certificate server_key_;
};

Echo plain_echo() {
  return [](zsock_t*) {};
}
Echo curve_echo(const certificate& own, const certificate& node) {
  return [own, node](zsock_t* req) {
    vorn::curve::make_client(zsock_resolve(req), own, node.public_key);
  };
}

// A node deletes its results only on the echo of a process holding the
// server's key; in plaintext anyone's echo does it.
TEST_F(NodeCurveTest, OnlyTheServersKeyMayAnswerANode) {
  certificate stranger = new_key("stranger");
  struct Row {
    const char* what;
    bool curve;
    Echo echo;
    bool deleted;
  } rows[] = {
      // Why plaintext is for trusted networks only.
      {"plaintext node, anyone's echo", false, plain_echo(), true},
      {"CURVE node, echo without CURVE", true, plain_echo(), false},
      {"CURVE node, echo with another key", true, curve_echo(stranger, node_key_), false},
      {"CURVE node, echo with the server's key", true, curve_echo(server_key_, node_key_), true},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.what);
    port_ = free_tcp_port();
    out_ = dir_ / ("out-" + std::to_string(&row - rows));
    backlog();
    StandIn server(port_, row.curve ? &server_key_ : nullptr);
    ASSERT_TRUE(server.bound());
    auto node = start_node(config(row.curve ? node_keys() : ""));
    if (row.deleted) {
      EXPECT_TRUE(server.serve(
          row.echo, [&] { return output_files(out()) == 0; }, milliseconds(30000)))
          << node->err();
      EXPECT_EQ(server.results(), 1);
    } else {
      // Each request answered; after several the file is still there.
      EXPECT_TRUE(server.serve(
          row.echo, [&] { return server.requests() >= 4; }, milliseconds(30000)))
          << node->err();
      EXPECT_EQ(output_files(out()), 1) << node->err();
      EXPECT_EQ(server.results(), 0);
    }
    EXPECT_EQ(node->terminate(milliseconds(20000)), 0) << node->err();
  }
}

// A server with another key than the node's configuration names: the
// handshake fails, nothing goes out, and the node says so once, however often
// it tries, and once when the right server is back.
TEST_F(NodeCurveTest, ServerWithAnotherKeyGetsNothingAndIsLoggedOnce) {
  certificate impostor = new_key("impostor");
  backlog();
  auto node = start_node(config(node_keys()));
  {
    StandIn server(port_, &impostor);
    ASSERT_TRUE(server.bound());
    EXPECT_TRUE(server.serve(
        plain_echo(), [&] { return server.connections() >= 4; }, milliseconds(30000)))
        << node->err();
    EXPECT_EQ(server.requests() + server.results(), 0);
  }
  const std::string failed = "The handshake with the accumulate server at tcp://127.0.0.1:";
  EXPECT_EQ(occurrences(node->err(), failed), 1) << node->err();
  EXPECT_EQ(occurrences(node->err(), "does not answer"), 0) << node->err();
  EXPECT_EQ(output_files(out()), 1);

  StandIn server(port_, &server_key_);
  ASSERT_TRUE(server.bound());
  EXPECT_TRUE(server.serve(
      curve_echo(server_key_, node_key_), [&] { return output_files(out()) == 0; },
      milliseconds(30000)))
      << node->err();
  EXPECT_EQ(server.results(), 1);
  EXPECT_EQ(node->terminate(milliseconds(20000)), 0) << node->err();
  EXPECT_EQ(occurrences(node->err(), failed), 2) << node->err();
  EXPECT_EQ(occurrences(node->err(), "succeeds again"), 1) << node->err();
}

// The real server with CURVE: a listed node delivers its backlog and
// vorn-send its result; a node the server does not list gets nothing in,
// keeps its files and says why once.
TEST_F(NodeCurveTest, CurveServerStoresWhatListedSendersSend) {
  const int kFiles = 200;
  ::mkdir(out().c_str(), 0755);
  for (int i = 0; i < kFiles; ++i) {
    ASSERT_EQ(write_output_file(sample_result("backlog", std::to_string(i)), out()), 1);
  }
  ::mkdir((dir_ / "clients").c_str(), 0700);
  write_file(dir_ / "clients/node.cert", read_file(dir_ / "keys/node.cert"));
  const std::string db = dir_ / "vorn.db";
  const std::string server_cfg = dir_ / "server.xml";
  write_file(server_cfg,
             config_xml(server_keys(port_, dir_.path(), db) +
                        "<accumulate_listen_address>127.0.0.1</accumulate_listen_address>"
                        "<curve_certificate>" +
                        server_key_.path + "</curve_certificate><curve_clients_dir>" +
                        (dir_ / "clients") + "</curve_clients_dir>"));
  Process server({kServerd, "-d", "-c", server_cfg}, dir_.path());
  auto stored = [&](const std::string& provider) {
    return count_rows(db, "Provider='" + provider + "'");
  };

  auto node = start_node(config(node_keys()));
  EXPECT_TRUE(wait_until([&] { return stored("backlog") == kFiles && output_files(out()) == 0; },
                         milliseconds(60000)))
      << node->err() << server.err();
  Process send({kSend, "-c", config(node_keys()), "sent", "/dev/null"}, dir_.path());
  EXPECT_EQ(send.wait_exit(milliseconds(30000)), 0) << send.err() << server.err();
  EXPECT_EQ(stored("sent"), 1);
  EXPECT_EQ(node->terminate(milliseconds(20000)), 0) << node->err();

  // Another node with a key of its own that the server does not list.
  node_key_ = new_key("unlisted");
  out_ = dir_ / "out-unlisted";
  backlog();
  node = start_node(config(node_keys()));
  const std::string failed = "failed: the server refused this node's key";
  ASSERT_TRUE(node->wait_for_err(failed, milliseconds(30000))) << node->err();
  EXPECT_FALSE(node->wait_for_err("Delivering results", milliseconds(4000))) << node->err();
  EXPECT_EQ(node->terminate(milliseconds(20000)), 0) << node->err();
  EXPECT_EQ(occurrences(node->err(), failed), 1) << node->err();
  EXPECT_EQ(output_files(out()), 1);

  // A node without keys is no better off. Which side notices the mismatch
  // first varies, so only the hint is certain.
  node = start_node(config(""));
  EXPECT_TRUE(node->wait_for_err("does the server require CURVE keys?", milliseconds(30000)))
      << node->err();
  EXPECT_EQ(node->terminate(milliseconds(20000)), 0) << node->err();
  EXPECT_EQ(output_files(out()), 1);
  EXPECT_EQ(stored("waiting"), 0);
}

// A configured key that cannot be used stops either program at start with
// one line, never a fall-back to plaintext.
TEST_F(NodeCurveTest, UnusableKeysStopTheProgramsWithOneLine) {
  write_file(dir_ / "keys/garbage.cert", "not a certificate\n");
  ::mkdir((dir_ / "keys/directory.cert").c_str(), 0700);
  const std::string server_cert = dir_ / "keys/server.cert";
  auto keys = [](const std::string& own, const std::string& server) {
    return "<curve_certificate>" + own + "</curve_certificate><curve_server_certificate>" + server +
           "</curve_server_certificate>";
  };
  struct Row {
    const char* what;
    std::string keys;
    std::string named;  // what the line must name
  } rows[] = {
      {"own certificate missing", keys(dir_ / "keys/none.cert_secret", server_cert),
       dir_ / "keys/none.cert_secret"},
      // Root reads any file: a directory is what cannot be read here.
      {"own certificate unreadable", keys(dir_ / "keys/directory.cert", server_cert),
       dir_ / "keys/directory.cert"},
      {"own certificate malformed", keys(dir_ / "keys/garbage.cert", server_cert),
       dir_ / "keys/garbage.cert"},
      {"own certificate without its secret", keys(dir_ / "keys/node.cert", server_cert),
       dir_ / "keys/node.cert"},
      {"server certificate malformed", keys(node_key_.path, dir_ / "keys/garbage.cert"),
       dir_ / "keys/garbage.cert"},
      {"server certificate missing",
       "<curve_certificate>" + node_key_.path + "</curve_certificate>", "curve_server_certificate"},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.what);
    std::string cfg = config(row.keys);
    for (const std::vector<std::string>& argv :
         {std::vector<std::string>{kNoded, "-d", "-c", cfg},
          std::vector<std::string>{kSend, "-c", cfg, "probe", "/dev/null"}}) {
      Process program(argv, dir_.path());
      EXPECT_EQ(program.wait_exit(), 1) << argv[0];
      std::string err = program.err();
      EXPECT_EQ(occurrences(err, "\n"), 1) << argv[0] << ": " << err;
      EXPECT_NE(err.find(row.named), std::string::npos) << argv[0] << ": " << err;
    }
  }
}

}  // namespace
