// Exactly once from a sender's queue to a row, seen from outside: the real
// vorn-serverd (and vorn-noded) killed with SIGKILL and started again on the
// same SQLite file.

#include <signal.h>
#include <sys/stat.h>

#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

#include "daemon/src/provider/run.h"
#include "daemon/src/provider/sender.h"
#include "tests/support/daemons.h"
#include "tests/support/results.h"
#include "tests/support/test_support.h"

namespace {

using namespace vorn::test;

const std::string kServerd = VORN_SERVERD_PATH;
const std::string kNoded = VORN_NODED_PATH;

class ExactlyOnceTest : public testing::Test {
 protected:
  // One configuration for the server and a node delivering to it.
  std::string config() {
    std::string path = dir_ / "vornd.xml";
    write_file(path,
               config_xml(server_keys(port_, dir_.path(), db()) + node_keys(dir_.path(), out())));
    return path;
  }

  std::unique_ptr<Process> start(const std::string& program) {
    return start_daemon(program, config(), dir_.path());
  }

  vorn::czmq::Socket connect_sender() const { return acked_publisher(port_, sender_config_); }

  long rows() const { return count_rows(db()); }

  std::string db() const { return dir_ / "vorn.db"; }
  std::string out() const { return dir_ / "out"; }

  TempDir dir_;
  int port_ = free_tcp_port();
  daemon_config sender_config_;
};

// What a sender had committed but not acknowledged when the server was
// killed, sent again to the restarted server: stored once, and the request
// after it answered. A result differing only in one output byte is another.
TEST_F(ExactlyOnceTest, ResultsSentAgainAfterAKillAreStoredOnceAndAnswered) {
  provider_result first = sample_result("first", "output");
  provider_result other_byte = first;
  other_byte.stdout_data[0] = 'O';
  provider_result last = sample_result("last", "x");
  auto server = start(kServerd);
  ASSERT_TRUE(server->wait_for_err(kServerReady));
  {
    auto publisher = connect_sender();
    for (const provider_result* r : {&first, &other_byte}) {
      ASSERT_EQ(send_result(*r, sender_config_, publisher.get()), 1);
    }
    ASSERT_TRUE(wait_until([&] { return rows() == 2; }, milliseconds(10000)));
    server->send_signal(SIGKILL);
    ASSERT_EQ(server->wait_exit(), 128 + SIGKILL);
  }
  server = start(kServerd);
  ASSERT_TRUE(server->wait_for_err(kServerReady));
  auto publisher = connect_sender();
  // The last new row comes before the repeats: a repeat must not make
  // itself the newest row of its key either.
  for (const provider_result* r : {&last, &first, &other_byte, &first}) {
    ASSERT_EQ(send_result(*r, sender_config_, publisher.get()), 1);
  }
  EXPECT_TRUE(request_pub_ack(publisher.get(), sender_config_, "127.0.0.1", 10000))
      << "the repeats were not answered\n"
      << server->err();
  EXPECT_EQ(server->terminate(), 0);
  EXPECT_EQ(query(db(), "SELECT Provider, CAST(STDOUT AS TEXT) FROM vorn_1 ORDER BY rowid"),
            (std::vector<std::vector<std::string>>{
                {"first", "output"}, {"first", "Output"}, {"last", "x"}}));
  EXPECT_EQ(query(db(), "SELECT Provider, last_rowid FROM vorn_latest ORDER BY Provider"),
            (std::vector<std::vector<std::string>>{{"first", "2"}, {"last", "3"}}));
  EXPECT_NE(server->err().find("received again were stored already"), std::string::npos)
      << server->err();
}

// A node with a backlog of output files, its server killed twice while it
// delivers them, batches in flight, and started again each time: every
// result is stored exactly once, and the node's queue is empty.
TEST_F(ExactlyOnceTest, BacklogDeliveredThroughKillsIsStoredExactlyOnce) {
  constexpr int kFiles = 20000;
  ASSERT_EQ(::mkdir(out().c_str(), 0755), 0);
  for (int i = 0; i < kFiles; ++i) {
    ASSERT_EQ(write_output_file(sample_result("backlog", std::to_string(i)), out()), 1);
  }
  auto server = start(kServerd);
  ASSERT_TRUE(server->wait_for_err(kServerReady));
  auto node = start(kNoded);
  for (long kill_after : {kFiles / 5, kFiles / 2}) {
    ASSERT_TRUE(wait_until([&] { return rows() >= kill_after; }, milliseconds(60000)))
        << node->err();
    server->send_signal(SIGKILL);
    ASSERT_EQ(server->wait_exit(), 128 + SIGKILL);
    ASSERT_LT(rows(), kFiles) << "the backlog was delivered before the kill";
    if (kill_after == kFiles / 5) {
      // Unanswered, the node gives the connection up and sends again what
      // was not confirmed: the repeats the server must store once.
      ASSERT_TRUE(node->wait_for_err("sending again from the oldest file")) << node->err();
    }
    server = start(kServerd);
  }
  ASSERT_TRUE(wait_until([&] { return output_files(out()) == 0; }, milliseconds(90000)))
      << output_files(out()) << " files left\n"
      << node->err();
  EXPECT_EQ(rows(), kFiles);
  EXPECT_EQ(query(db(), "SELECT count(DISTINCT CAST(STDOUT AS TEXT)) FROM vorn_1")[0][0],
            std::to_string(kFiles));
  EXPECT_EQ(node->terminate(), 0);
}

}  // namespace
