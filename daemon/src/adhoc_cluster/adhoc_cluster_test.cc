// Invitations, RSVPs and dissolves on 127.0.0.1, without any broadcast.

#include <gtest/gtest.h>

#include <sys/utsname.h>

#include <cstdio>
#include <cstdlib>

#include "daemon/src/adhoc_cluster/adhoc_cluster.h"
#include "daemon/src/adhoc_cluster/invitations.h"
#include "daemon/src/provider/sleep_mode.h"
#include "tests/support/test_support.h"
#include "util/czmq.h"

namespace {

TEST(BeaconTextTest, Invitation) {
  daemon_config config;
  provider p;
  p.adhoc_cluster_invite_time = 10;
  p.timeout = 100;
  p.timeout_scale = timeout_scale::linear;
  p.max_nodes = 3;
  p.loadavg = 2.9;
  EXPECT_EQ(adhoc_invitation(p, config, "x86_64", 49152),
            "ADHOC vorn3 arch=x86_64 load=2 port=49152 time=310");
  config.network_partition = "";
  EXPECT_EQ(adhoc_invitation(p, config, "any", 5), "ADHOC arch=any load=2 port=5 time=310");
}

TEST(EvaluateInvitationTest, Rules) {
  struct utsname machine;
  ASSERT_EQ(uname(&machine), 0);
  double load[3];
  ASSERT_EQ(getloadavg(load, 3), 3);
  const std::string low = " load=" + std::to_string(static_cast<int>(load[0]) + 2);
  const std::string no_time = "Insufficient time remaining. Declining invite.\n";
  struct Row {
    std::string text;
    int remaining;
    int want_port;  // 0 for both when declined
    int want_lifetime;
    std::string log;
    bool sleeping = false;
  } rows[] = {
      {"ADHOC vorn3 arch=any" + low + " port=4000 time=20", 20, 4000, 20, ""},
      {"ADHOC arch=" + std::string(machine.machine) + low + " port=1 time=3", 5, 1, 3, ""},
      {"ADHOC arch=any" + low + " port=4 time=21", 20, 0, 0, no_time},  // one second too long
      {"ADHOC arch=any" + low + " port=1 time=99999999999999", 20, 0, 0, no_time},
      {"ADHOC vorn3 arch=sparc" + low + " port=1 time=1", 5, 0, 0,
       "Not a match to the requested architecture, sparc. Declining invite.\n"},
      {"ADHOC vorn3 arch=any load=5 port=4000", 20, 0, 0,  // a field missing
       "Unable to parse adhoc cluster invitation.\n"},
      {"ADHOC arch=any load=0 port=1 time=1", 5, load[0] > 0 ? 0 : 1, load[0] > 0 ? 0 : 1,
       load[0] > 0 ? "Load average is too high. Declining invite.\n" : ""},
      {"ADHOC arch=any" + low + " port=1 time=1", 5, 0, 0, "In sleep mode.  Declining invite.\n",
       true},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.text);
    int port = 0;
    int lifetime = 0;
    sleep_mode = row.sleeping;
    testing::internal::CaptureStderr();
    EXPECT_EQ(evaluate_invitation(row.text, row.remaining, port, lifetime), row.want_port != 0);
    EXPECT_EQ(testing::internal::GetCapturedStderr(), row.log);
    EXPECT_EQ(port, row.want_port);
    EXPECT_EQ(lifetime, row.want_lifetime);
  }
  sleep_mode = false;
}

// Members' pull sockets of the test's own on 127.0.0.1.
TEST(DissolveTest, EveryMemberIsToldAndBadEndpointsAreSkipped) {
  vorn::czmq::Socket a(zsock_new(ZMQ_PULL));
  vorn::czmq::Socket b(zsock_new(ZMQ_PULL));
  adhoc_member_list members = {
      {"127.0.0.1", std::to_string(zsock_bind(a.get(), "tcp://127.0.0.1:*"))},
      {"127.0.0.1", "notaport"},
      {"127.0.0.1", std::to_string(zsock_bind(b.get(), "tcp://127.0.0.1:*"))}};
  testing::internal::CaptureStderr();
  dissolve_adhoc_cluster(members);
  EXPECT_EQ(testing::internal::GetCapturedStderr(),
            "Unable to send adhoc cluster dissolve message to tcp://127.0.0.1:notaport\n");
  for (zsock_t* pull : {a.get(), b.get()}) {
    zsock_set_rcvtimeo(pull, 5000);
    vorn::czmq::String message(zstr_recv(pull));
    EXPECT_STREQ(message.get(), "ADHOC DISSOLVE");
  }
}

TEST(NodeFileTest, InitiatorFirstThenMembersInOrder) {
  adhoc_member_list members = {{"beta", "1"}, {"alpha", "2"}};
  std::string path;
  ASSERT_TRUE(write_adhoc_nodefile(members, path));
  EXPECT_EQ(path.rfind("/tmp/nodefile.", 0), 0u);
  vorn::czmq::String self(zsys_hostname());
  EXPECT_EQ(vorn::test::read_file(path), std::string(self.get()) + "\nbeta\nalpha\n");
  std::remove(path.c_str());
}

}  // namespace
