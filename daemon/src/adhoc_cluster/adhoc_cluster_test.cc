// Invitations, RSVPs and dissolves on 127.0.0.1, without any broadcast.

#include <gtest/gtest.h>

#include <sys/utsname.h>

#include <cmath>
#include <cstdlib>
#include <fstream>
#include <thread>

#include "daemon/src/adhoc_cluster/adhoc_cluster.h"
#include "daemon/src/adhoc_cluster/beacon.h"
#include "daemon/src/adhoc_cluster/invitations.h"
#include "daemon/src/provider/sleep_mode.h"
#include "tests/support/test_support.h"
#include "util/czmq.h"
#include "util/str.h"

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
  const std::string above = std::to_string(static_cast<int>(load[0]) + 2);
  const std::string here = machine.machine;
  struct Row {
    const char* comment;
    std::string text;
    int remaining;
    bool accepted;
    std::string log;
  } rows[] = {
      {"any architecture, low load, time enough",
       "ADHOC vorn3 arch=any load=" + above + " port=4000 time=20", 20, true, ""},
      {"this machine's architecture", "ADHOC arch=" + here + " load=" + above + " port=1 time=1", 5,
       true, ""},
      {"lifetime one second beyond the time left",
       "ADHOC vorn3 arch=any load=" + above + " port=4000 time=21", 20, false,
       "Insufficient time remaining. Declining invite.\n"},
      {"another architecture", "ADHOC vorn3 arch=sparc load=" + above + " port=1 time=1", 5, false,
       "Not a match to the requested architecture, sparc. Declining invite.\n"},
      {"a field missing", "ADHOC vorn3 arch=any load=5 port=4000", 20, false,
       "Unable to parse adhoc cluster invitation.\n"},
      {"not a number", "ADHOC vorn3 arch=any load=x port=4000 time=1", 20, false,
       "Unable to parse adhoc cluster invitation.\n"},
      {"a huge lifetime", "ADHOC arch=any load=" + above + " port=1 time=99999999999999", 20, false,
       "Insufficient time remaining. Declining invite.\n"},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.comment);
    int port = -1;
    int lifetime = -1;
    testing::internal::CaptureStderr();
    EXPECT_EQ(evaluate_invitation(row.text, row.remaining, port, lifetime), row.accepted);
    EXPECT_EQ(testing::internal::GetCapturedStderr(), row.log);
  }
  int port = 0;
  int lifetime = 0;
  ASSERT_TRUE(evaluate_invitation("ADHOC arch=any load=" + above + " port=4000 time=20", 20, port,
                                  lifetime));
  EXPECT_EQ(port, 4000);
  EXPECT_EQ(lifetime, 20);

  if (load[0] > 0) {
    testing::internal::CaptureStderr();
    EXPECT_FALSE(evaluate_invitation("ADHOC arch=any load=0 port=1 time=1", 5, port, lifetime));
    EXPECT_EQ(testing::internal::GetCapturedStderr(),
              "Load average is too high. Declining invite.\n");
  }

  sleep_mode = true;
  testing::internal::CaptureStderr();
  EXPECT_FALSE(
      evaluate_invitation("ADHOC arch=any load=" + above + " port=1 time=1", 5, port, lifetime));
  EXPECT_EQ(testing::internal::GetCapturedStderr(), "In sleep mode.  Declining invite.\n");
  sleep_mode = false;
}

// An initiator's pull socket of the test's own on 127.0.0.1.
struct Initiator {
  Initiator() : pull(zsock_new(ZMQ_PULL)), port(zsock_bind(pull.get(), "tcp://127.0.0.1:*")) {
    zsock_set_rcvtimeo(pull.get(), 5000);
  }
  vorn::czmq::Socket pull;
  int port;
};

TEST(DissolveTest, EveryMemberIsToldAndBadEndpointsAreSkipped) {
  Initiator a;
  Initiator b;
  adhoc_member_list members = {{"127.0.0.1", std::to_string(a.port)},
                               {"127.0.0.1", "notaport"},
                               {"127.0.0.1", std::to_string(b.port)}};
  testing::internal::CaptureStderr();
  dissolve_adhoc_cluster(members);
  EXPECT_EQ(testing::internal::GetCapturedStderr(),
            "Unable to send adhoc cluster dissolve message to tcp://127.0.0.1:notaport\n");
  for (Initiator* member : {&a, &b}) {
    vorn::czmq::String message(zstr_recv(member->pull.get()));
    ASSERT_TRUE(message);
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
