// Discovery and ad hoc clusters between real hosts: network namespaces of the
// test's own, joined by a bridge, so no broadcast leaves them.

#include <gtest/gtest.h>

#include <memory>

#include "tests/support/netns.h"
#include "tests/support/test_support.h"

namespace {

using namespace vorn::test;

const std::string kNode = VORN_ADHOC_NODE_PATH;
const std::string kServerd = VORN_SERVERD_PATH;

class NetworkTest : public testing::Test {
 protected:
  void SetUp() override {
    std::string why;
    if (!TestNetwork::available(&why)) {
      GTEST_SKIP() << why;
    }
  }

  // A configuration of these keys (no discovery beacon unless asked for).
  std::string config(const std::string& name, const std::string& keys = "",
                     bool discovery = false) {
    std::string path = dir_ / (name + ".xml");
    write_file(path, "<configuration><enable_discovery>" +
                         std::string(discovery ? "true" : "false") + "</enable_discovery>" + keys +
                         "</configuration>");
    return path;
  }

  // A provider of `nodes` nodes that invites whatever the load of the test machine.
  std::string cluster_provider(int nodes, int invite_time) {
    std::string n = std::to_string(nodes);
    std::string path = dir_ / ("p" + n + ".xml");
    write_file(path,
               "<configuration><command>true</command><loadavg>100000</loadavg>"
               "<min_nodes>" +
                   n + "</min_nodes><max_nodes>" + n + "</max_nodes><adhoc_cluster_invite_time>" +
                   std::to_string(invite_time) + "</adhoc_cluster_invite_time></configuration>");
    return path;
  }

  std::unique_ptr<Process> on(const TestNetwork& net, int host, std::vector<std::string> argv) {
    return std::make_unique<Process>(net.on_host(host, argv), dir_.path());
  }

  TempDir dir_;
};

TEST_F(NetworkTest, DiscoveryPayloadAsAnotherHostReceivesIt) {
  TestNetwork net(2);
  ASSERT_TRUE(net.ok());
  std::string port = std::to_string(free_tcp_port());
  std::string cfg =
      config("server",
             "<accumulate_port>" + port + "</accumulate_port><accumulate_output_dir>" +
                 (dir_ / "acc") + "</accumulate_output_dir><database_file>" + (dir_ / "vorn.db") +
                 "</database_file><network_partition>blue</network_partition>",
             true);
  auto server = on(net, 0, {kServerd, "-d", "-c", cfg});
  auto listener = on(net, 1, {kNode, "beacon-listen", "9077", "10"});
  EXPECT_EQ(listener->wait_exit(), 0);
  std::string payload = "DISCOVERY blue port=" + port;
  EXPECT_EQ(listener->out(),
            net.address(0) + " " + std::to_string(payload.size()) + " " + payload + "\n");
  EXPECT_TRUE(
      server->wait_for_err("Dynamic service discovery beacon started and broadcasting to 'blue'"));
  EXPECT_EQ(server->terminate(), 0);
}

// Each node names its own interface (a configuration of its own).
TEST_F(NetworkTest, ClusterOfThreeIsFormedWrittenAndDissolved) {
  TestNetwork net(3);
  ASSERT_TRUE(net.ok());
  std::vector<std::string> cfg;
  for (int i = 0; i < 3; ++i) {
    cfg.push_back(config("node" + std::to_string(i),
                         "<network_interface>" + net.interface_name(i) + "</network_interface>"));
  }
  auto member1 = on(net, 1, {kNode, "listen", cfg[1], "120"});
  auto member2 = on(net, 2, {kNode, "listen", cfg[2], "120"});
  auto initiator = on(net, 0, {kNode, "form", cfg[0], cluster_provider(3, 10)});
  ASSERT_EQ(initiator->wait_exit(milliseconds(20000)), 0);
  std::string out = initiator->out();
  EXPECT_EQ(out.rfind("NODEFILE /tmp/nodefile.", 0), 0u) << out;
  std::string nodes = out.substr(out.find('\n') + 1);  // the initiator first
  EXPECT_TRUE(nodes == "node1\nnode2\nnode3\n" || nodes == "node1\nnode3\nnode2\n") << out;
  for (auto* member : {member1.get(), member2.get()}) {
    EXPECT_TRUE(member->wait_for_err("Left the adhoc cluster of " + net.address(0)));
    EXPECT_EQ(member->err().find("expired"), std::string::npos);
  }
}

// Malformed RSVPs and a valid one after the invitation's time do not count:
// the initiator and one listener are too few, and the listener is released.
TEST_F(NetworkTest, ClusterTooSmallCountsOnlyValidRepliesInTime) {
  TestNetwork net(6);
  ASSERT_TRUE(net.ok());
  std::string cfg = config("node");
  auto member = on(net, 1, {kNode, "listen", cfg, "120"});
  std::vector<std::unique_ptr<Process>> responders;
  for (const char* kind : {"two", "four", "wrong", "late"}) {
    responders.push_back(on(net, 2 + responders.size(), {kNode, "respond", cfg, kind}));
  }
  auto initiator = on(net, 0, {kNode, "form", cfg, cluster_provider(6, 2)});
  EXPECT_EQ(initiator->wait_exit(milliseconds(20000)), 1);
  std::string err = initiator->err();
  EXPECT_NE(err.find("Needed at least 6 nodes for the adhoc cluster, but only got 2"),
            std::string::npos);
  EXPECT_EQ(occurrences(err, "Unrecognized RSVP format"), 3) << err;
  EXPECT_TRUE(member->wait_for_err("Left the adhoc cluster of " + net.address(0)));
}

// A listener that ends in no cluster: its exit status after `seconds` and log.
TEST_F(NetworkTest, ListenersThatJoinNoCluster) {
  struct Row {
    std::string invitation;
    std::string keys;  // of the listener's configuration
    std::string seconds;
    int status;  // -1: still listening when its log has the line
    std::string log;
  } rows[] = {
      // An initiator that never answers: the member leaves when the lifetime ends.
      {"ADHOC vorn3 arch=any load=100000 port=4000 time=2", "", "30", -1,
       "Adhoc cluster expired without receiving dissolve message"},
      // Another partition is filtered by the beacon.
      {"ADHOC red arch=any load=100000 port=4000 time=2", "", "3", 0,
       "Timed out waiting for adhoc cluster broadcast"},
      {"ADHOC vorn3 arch=any load=100000 port=4000 time=2",
       "<network_interface>nosuch0</network_interface>", "3", 1, "UDP broadcast is not supported."},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.log);
    TestNetwork net(2);
    ASSERT_TRUE(net.ok());
    auto inviter = on(net, 0, {kNode, "invite", "9077", row.invitation});
    ASSERT_TRUE(wait_until([&] { return inviter->out() == "inviting\n"; }, milliseconds(10000)));
    auto member = on(net, 1, {kNode, "listen", config("node", row.keys), row.seconds});
    EXPECT_TRUE(member->wait_for_err(row.log, milliseconds(15000)));
    EXPECT_EQ(member->wait_exit(milliseconds(row.status < 0 ? 0 : 5000)), row.status);
  }
}

}  // namespace
