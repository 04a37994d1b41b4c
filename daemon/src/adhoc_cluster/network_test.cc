// Discovery and ad hoc clusters between real hosts: network namespaces of the
// test's own, joined by a bridge, so no broadcast leaves them.

#include <gtest/gtest.h>

#include <algorithm>
#include <memory>
#include <sstream>

#include "tests/support/netns.h"
#include "tests/support/test_support.h"

namespace {

using vorn::test::milliseconds;
using vorn::test::Process;
using vorn::test::TempDir;
using vorn::test::TestNetwork;

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

  // A node configuration of these keys (no discovery beacon of its own).
  std::string config(const std::string& name, const std::string& keys = "") {
    std::string path = dir_ / (name + ".xml");
    vorn::test::write_file(path, "<configuration><enable_discovery>false</enable_discovery>" +
                                     keys + "</configuration>");
    return path;
  }

  // A provider that invites whatever the load of the test machine.
  std::string cluster_provider(int min_nodes, int max_nodes, int invite_time) {
    std::string path =
        dir_ / ("p" + std::to_string(min_nodes) + std::to_string(max_nodes) + ".xml");
    vorn::test::write_file(
        path, "<configuration><command>true</command><loadavg>100000</loadavg><min_nodes>" +
                  std::to_string(min_nodes) + "</min_nodes><max_nodes>" +
                  std::to_string(max_nodes) + "</max_nodes><adhoc_cluster_invite_time>" +
                  std::to_string(invite_time) + "</adhoc_cluster_invite_time></configuration>");
    return path;
  }

  std::unique_ptr<Process> on(const TestNetwork& net, int host, std::vector<std::string> argv) {
    return std::make_unique<Process>(net.on_host(host, argv), dir_.path());
  }

  TempDir dir_;
};

TEST_F(NetworkTest, DiscoveryPayloadAsAnotherHostReceivesIt) {
  struct Row {
    std::string partition_element;
    std::string partition;
  } rows[] = {{"<network_partition>blue</network_partition>", "blue "},
              {"<network_partition></network_partition>", ""}};
  for (const Row& row : rows) {
    SCOPED_TRACE(row.partition_element);
    TestNetwork net(2);
    ASSERT_TRUE(net.ok());
    int port = vorn::test::free_tcp_port();
    std::string cfg = dir_ / "server.xml";
    vorn::test::write_file(cfg, "<configuration><accumulate_port>" + std::to_string(port) +
                                    "</accumulate_port><accumulate_output_dir>" + (dir_ / "acc") +
                                    "</accumulate_output_dir><database_file>" + (dir_ / "vorn.db") +
                                    "</database_file>" + row.partition_element +
                                    "</configuration>");
    auto server = on(net, 0, {kServerd, "-d", "-c", cfg});
    auto listener = on(net, 1, {kNode, "beacon-listen", "9077", "10"});
    EXPECT_EQ(listener->wait_exit(), 0);
    std::string payload = "DISCOVERY " + row.partition + "port=" + std::to_string(port);
    EXPECT_EQ(listener->out(),
              net.address(0) + " " + std::to_string(payload.size()) + " " + payload + "\n");
    EXPECT_NE(server->err().find("Dynamic service discovery beacon started and broadcasting to '" +
                                 row.partition.substr(0, 4) + "'"),
              std::string::npos);
    server->send_signal(SIGTERM);
    EXPECT_EQ(server->wait_exit(), 0);
  }
}

TEST_F(NetworkTest, ClusterOfThreeIsFormedWrittenAndDissolved) {
  TestNetwork net(3);
  ASSERT_TRUE(net.ok());
  std::string cfg = config("node");
  auto member1 = on(net, 1, {kNode, "listen", cfg, "120"});
  auto member2 = on(net, 2, {kNode, "listen", cfg, "120"});
  auto initiator = on(net, 0, {kNode, "form", cfg, cluster_provider(3, 3, 10)});
  ASSERT_EQ(initiator->wait_exit(milliseconds(20000)), 0);
  std::istringstream lines(initiator->out());
  std::string header;
  std::getline(lines, header);
  EXPECT_EQ(header.rfind("NODEFILE /tmp/nodefile.", 0), 0u) << initiator->out();
  std::vector<std::string> nodes;
  for (std::string line; std::getline(lines, line);) {
    nodes.push_back(line);
  }
  ASSERT_EQ(nodes.size(), 3u) << initiator->out();
  EXPECT_EQ(nodes[0], "node1") << "the initiator comes first";
  std::sort(nodes.begin() + 1, nodes.end());
  EXPECT_EQ(nodes[1], "node2");
  EXPECT_EQ(nodes[2], "node3");
  for (auto* member : {member1.get(), member2.get()}) {
    EXPECT_TRUE(member->wait_for_err("Left the adhoc cluster of " + net.address(0)));
    EXPECT_EQ(member->err().find("expired"), std::string::npos);
  }
}

TEST_F(NetworkTest, ClusterTooSmallIsDissolvedAtOnce) {
  TestNetwork net(2);
  ASSERT_TRUE(net.ok());
  std::string cfg = config("node");
  auto member = on(net, 1, {kNode, "listen", cfg, "120"});
  auto initiator = on(net, 0, {kNode, "form", cfg, cluster_provider(3, 3, 2)});
  EXPECT_EQ(initiator->wait_exit(milliseconds(20000)), 1);
  EXPECT_NE(initiator->err().find("Needed at least 3 nodes for the adhoc cluster, but only got 2"),
            std::string::npos);
  EXPECT_TRUE(member->wait_for_err("Left the adhoc cluster of " + net.address(0)));
}

TEST_F(NetworkTest, MemberIsReleasedWhenTheLifetimeEndsWithoutDissolve) {
  TestNetwork net(2);
  ASSERT_TRUE(net.ok());
  // An invitation whose initiator never answers, with a two-second lifetime.
  auto inviter =
      on(net, 0, {kNode, "invite", "9077", "ADHOC vorn3 arch=any load=100000 port=4000 time=2"});
  auto member = on(net, 1, {kNode, "listen", config("node"), "30"});
  EXPECT_TRUE(member->wait_for_err("Adhoc cluster expired without receiving dissolve message",
                                   milliseconds(15000)));
}

TEST_F(NetworkTest, InvitationsThatAreNotForThisNode) {
  struct Row {
    const char* comment;
    std::string invitation;
    std::string member_log;
  } rows[] = {
      {"another partition is filtered by the beacon",
       "ADHOC red arch=any load=100000 port=4000 time=2",
       "Timed out waiting for adhoc cluster broadcast"},
      {"an invitation without all four fields", "ADHOC vorn3 arch=any port=4000 time=2",
       "Unable to parse adhoc cluster invitation."},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.comment);
    TestNetwork net(2);
    ASSERT_TRUE(net.ok());
    auto inviter = on(net, 0, {kNode, "invite", "9077", row.invitation});
    ASSERT_TRUE(vorn::test::wait_until([&] { return inviter->out() == "inviting\n"; },
                                       milliseconds(10000)));
    auto member = on(net, 1, {kNode, "listen", config("node"), "3"});
    EXPECT_EQ(member->wait_exit(milliseconds(15000)), 0);
    EXPECT_NE(member->err().find(row.member_log), std::string::npos) << member->err();
    EXPECT_EQ(member->err().find("expired"), std::string::npos);
  }
}

TEST_F(NetworkTest, MalformedAndLateRepliesAreNotCounted) {
  for (const char* kind : {"two", "four", "wrong", "late"}) {
    SCOPED_TRACE(kind);
    TestNetwork net(2);
    ASSERT_TRUE(net.ok());
    std::string cfg = config("node");
    auto responder = on(net, 1, {kNode, "respond", cfg, kind});
    auto initiator = on(net, 0, {kNode, "form", cfg, cluster_provider(2, 2, 2)});
    EXPECT_EQ(initiator->wait_exit(milliseconds(20000)), 1);
    EXPECT_NE(
        initiator->err().find("Needed at least 2 nodes for the adhoc cluster, but only got 1"),
        std::string::npos);
    bool malformed = std::string(kind) != "late";
    EXPECT_EQ(initiator->err().find("Unrecognized RSVP format") != std::string::npos, malformed)
        << initiator->err();
  }
}

TEST_F(NetworkTest, MissingInterfaceNameMeansNoBroadcast) {
  TestNetwork net(1);
  ASSERT_TRUE(net.ok());
  auto member =
      on(net, 0,
         {kNode, "listen", config("node", "<network_interface>nosuch0</network_interface>"), "3"});
  EXPECT_EQ(member->wait_exit(), 1);
  EXPECT_NE(member->err().find("UDP broadcast is not supported."), std::string::npos);
}

TEST_F(NetworkTest, NamedInterfaceIsUsed) {
  TestNetwork net(3);
  ASSERT_TRUE(net.ok());
  std::string cfg =
      config("node", "<network_interface>" + net.interface_name(1) + "</network_interface>");
  // Each host names its own interface; the host names differ per namespace,
  // so each node uses a configuration of its own.
  std::string cfg0 =
      config("node0", "<network_interface>" + net.interface_name(0) + "</network_interface>");
  auto member = on(net, 1, {kNode, "listen", cfg, "120"});
  auto initiator = on(net, 0, {kNode, "form", cfg0, cluster_provider(2, 2, 10)});
  EXPECT_EQ(initiator->wait_exit(milliseconds(20000)), 0) << initiator->err();
  EXPECT_TRUE(member->wait_for_err("Left the adhoc cluster of " + net.address(0)));
}

}  // namespace
