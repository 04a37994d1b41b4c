// Health rows as their readers see them: the real vorn-noded and vorn-serverd
// store rows of providers "vorn-noded" and "vorn-serverd", read back from the
// real database and through `vorn latest`.

#include <signal.h>
#include <stdio.h>
#include <sys/stat.h>
#include <unistd.h>

#include <czmq.h>
#include <gtest/gtest.h>

#include <memory>
#include <regex>
#include <string>
#include <utility>
#include <vector>

#include "daemon/src/provider/health_row.h"
#include "daemon/src/serverd/health_row.h"
#include "tests/support/daemons.h"
#include "tests/support/results.h"
#include "tests/support/test_support.h"
#include "util/czmq.h"

namespace {

using namespace vorn::test;
using Rows = std::vector<std::vector<std::string>>;  // Hostname, exit status, stdout, stderr

// The agreed layout: these keys in this order, integers but for two.
std::regex layout(const std::vector<std::string>& keys) {
  std::string pattern;
  for (const std::string& key : keys) {
    pattern += key + "=" +
               (key == "version"  ? std::regex_replace(VORN_VERSION, std::regex("\\."), "\\.")
                : key == "server" ? std::string("[^\n]*")
                                  : std::string("-?[0-9]+")) +
               "\n";
  }
  return std::regex(pattern);
}
const std::regex kNodeLayout =
    layout({"version", "uptime_s", "files_waiting", "oldest_waiting_s", "runs", "failures",
            "timeouts", "lost", "rejected", "server", "sleep_mode", "last_progress_s"});
const std::regex kServerLayout =
    layout({"version", "uptime_s", "results_stored", "duplicates_dropped", "pub_ack_answered",
            "pub_ack_dropped", "pub_ack_refused", "database_retries", "database_unavailable_s",
            "writer_queue", "peers"});

long long value(const std::vector<std::string>& row, const std::string& key) {
  const std::string text = "\n" + row[2];
  const size_t at = text.find("\n" + key + "=");
  return at == std::string::npos ? -999 : std::stoll(text.substr(at + key.size() + 2));
}

std::string this_host() {
  char host[256] = {};
  ::gethostname(host, sizeof host - 1);
  return host;
}

class HealthTest : public testing::Test {
 protected:
  // A configuration in a fresh directory, on a fresh port.
  std::string config(const std::string& heartbeat_period) {
    dir_ = std::make_unique<TempDir>();
    port_ = std::to_string(free_tcp_port());
    ::mkdir((*dir_ / "providers").c_str(), 0755);
    write_file(*dir_ / "vornd.xml",
               config_xml(server_keys(std::stoi(port_), dir_->path(), db()) +
                          node_keys(dir_->path(), out()) +
                          "<provider_period>1</provider_period><provider_loadavg>100000"
                          "</provider_loadavg><heartbeat_period>" +
                          heartbeat_period + "</heartbeat_period>"));
    return *dir_ / "vornd.xml";
  }

  void provider(const std::string& name, const std::string& command) {
    write_file(*dir_ / ("providers/" + name + ".xml"),
               "<configuration><loadavg>100000</loadavg><period>1</period><command>" + command +
                   "</command></configuration>");
  }

  std::unique_ptr<Process> start(const std::string& program) {
    return start_daemon(program, *dir_ / "vornd.xml", dir_->path());
  }

  Rows rows(const std::string& provider, const std::string& where = "1") {
    return query(db(),
                 "SELECT Hostname, Exit_status, CAST(STDOUT AS TEXT), CAST(STDERR AS "
                 "TEXT) FROM vorn_1 WHERE Provider='" +
                     provider + "' AND " + where + " ORDER BY Timestamp, rowid");
  }

  std::string out() const { return *dir_ / "out"; }
  std::string db() const { return *dir_ / "vorn.db"; }

  std::unique_ptr<TempDir> dir_;
  std::string port_;
};

// Both daemons' rows keep the agreed layout, name this host and say all is
// well; their counters move as results flow, and hand-made PUB_ACK requests
// that the server refuses or cannot answer are counted.
TEST_F(HealthTest, RowsOfBothDaemonsArriveAndTheirCountersMove) {
  config("1");
  provider("ok", "echo ok");
  provider("bad", "exit 3");
  auto server = start(VORN_SERVERD_PATH);
  auto node = start(VORN_NODED_PATH);
  vorn::czmq::Socket requests(zsock_new_pub((">tcp://127.0.0.1:" + port_).c_str()));
  const int32_t number = 7;
  const std::string endpoints[] = {
      "tcp://127.0.0.2:9",  // not the sender's own address: refused
      "tcp://127.0.0.1:" + std::to_string(free_tcp_port()),  // nobody there: dropped
  };
  ASSERT_TRUE(wait_until(
      [&] {
        for (const std::string& endpoint : endpoints) {
          zsock_send(requests.get(), "sssb", "ACCUMULATE vorn3", "PUB_ACK", endpoint.c_str(),
                     &number, sizeof number);
        }
        Rows n = rows("vorn-noded");
        Rows s = rows("vorn-serverd");
        return n.size() >= 3 && s.size() >= 3 && value(n.back(), "failures") >= 2 &&
               value(s.back(), "pub_ack_answered") > value(s.front(), "pub_ack_answered") &&
               value(s.back(), "pub_ack_refused") > 0 && value(s.back(), "pub_ack_dropped") > 0;
      },
      milliseconds(40000)))
      << node->err() << server->err();
  const std::pair<const char*, const std::regex*> daemons[] = {{"vorn-noded", &kNodeLayout},
                                                               {"vorn-serverd", &kServerLayout}};
  for (const auto& [daemon, layout] : daemons) {
    for (const auto& row : rows(daemon)) {
      EXPECT_TRUE(std::regex_match(row[2], *layout)) << row[2];
      EXPECT_EQ(row[0], this_host());
      EXPECT_EQ(row[1] + row[3], "0");  // exit status 0, no standard error
    }
  }
  const Rows n = rows("vorn-noded");
  EXPECT_GT(value(n.back(), "runs"), value(n.front(), "runs"));
  EXPECT_GT(value(n.back(), "uptime_s"), value(n.front(), "uptime_s"));
  // "bad" fails at every run, "ok" never.
  EXPECT_NEAR(value(n.back(), "failures") * 2, value(n.back(), "runs"), 2);
  EXPECT_EQ(value(n.back(), "timeouts") + value(n.back(), "lost"), 0);
  EXPECT_GE(value(rows("vorn-serverd").back(), "peers"), 1);  // the node, at least
  EXPECT_EQ(node->terminate(), 0) << node->err();
}

// A fresh node shows up at once, with no provider to run and the default
// period; heartbeat_period 0 turns the rows off.
TEST_F(HealthTest, AFreshNodeShowsUpInLatestUnlessTurnedOff) {
  const struct {
    const char* period;
    bool tick;     // a provider to tell the time by where no row comes
    size_t count;  // rows of each daemon
  } cases[] = {{"3600", false, 1}, {"0", true, 0}};
  for (const auto& c : cases) {
    SCOPED_TRACE(c.period);
    config(c.period);
    if (c.tick) {
      provider("tick", "true");
    }
    auto server = start(VORN_SERVERD_PATH);
    auto node = start(VORN_NODED_PATH);
    ASSERT_TRUE(wait_until(
        [&] {
          return c.tick ? rows("tick").size() >= 3
                        : !rows("vorn-noded").empty() && !rows("vorn-serverd").empty();
        },
        milliseconds(20000)))
        << node->err() << server->err();
    Process latest({VORN_PATH, "--db", db(), "latest"}, dir_->path());
    ASSERT_EQ(latest.wait_exit(), 0) << latest.err();
    for (const char* daemon : {"vorn-noded", "vorn-serverd"}) {
      EXPECT_EQ(occurrences(latest.out(), daemon), static_cast<int>(c.count));
      EXPECT_EQ(rows(daemon).size(), c.count);
    }
  }
}

// Sleep mode holds the providers, not the rows: they say so, and count no
// run until the node wakes; it sleeps again at the next signal, and stops
// asleep when told to.
TEST_F(HealthTest, ASleepingNodeStillReportsItsHealth) {
  config("1");
  provider("tick", "true");
  auto server = start(VORN_SERVERD_PATH);
  auto node = start(VORN_NODED_PATH);
  const std::string asleep = "CAST(STDOUT AS TEXT) LIKE '%sleep_mode=1%'";
  ASSERT_TRUE(wait_until([&] { return !rows("tick").empty(); }, milliseconds(20000)));
  node->send_signal(SIGUSR1);
  ASSERT_TRUE(
      wait_until([&] { return rows("vorn-noded", asleep).size() >= 4; }, milliseconds(20000)))
      << node->err();
  // A run under way when the signal came may end after the first such row.
  const Rows sleeping = rows("vorn-noded", asleep);
  EXPECT_EQ(value(sleeping[1], "runs"), value(sleeping.back(), "runs"));
  node->send_signal(SIGUSR2);
  EXPECT_TRUE(wait_until(
      [&] {
        Rows n = rows("vorn-noded");
        return value(n.back(), "sleep_mode") == 0 &&
               value(n.back(), "runs") > value(sleeping.back(), "runs");
      },
      milliseconds(20000)))
      << node->err();
  // Woken, it can sleep again, and a stop ends it asleep.
  node->send_signal(SIGUSR1);
  EXPECT_TRUE(wait_until([&] { return occurrences(node->err(), "Entering sleep mode") == 2; },
                         milliseconds(15000)))
      << node->err();
  EXPECT_EQ(node->terminate(), 0) << node->err();
}

// Results that cannot be written (a file stands where the output directory
// was) are counted, health rows among them: rows written afterwards count
// as many as the log says were lost.
TEST_F(HealthTest, LostResultsAreCounted) {
  config("1");
  provider("tick", "true");
  auto server = start(VORN_SERVERD_PATH);
  auto node = start(VORN_NODED_PATH);
  ASSERT_TRUE(wait_until([&] { return !rows("tick").empty(); }, milliseconds(20000)));
  ASSERT_EQ(::rename(out().c_str(), (out() + ".away").c_str()), 0);
  write_file(out(), "");
  ASSERT_TRUE(node->wait_for_err("is lost: its output file")) << node->err();
  ASSERT_EQ(::unlink(out().c_str()), 0);
  ASSERT_EQ(::rename((out() + ".away").c_str(), out().c_str()), 0);
  const std::string again = " result(s) were lost meanwhile";
  ASSERT_TRUE(node->wait_for_err(again)) << node->err();
  const std::string err = node->err();
  const size_t at = err.find(again);
  const std::string said = err.substr(err.rfind(' ', at - 1) + 1, at - err.rfind(' ', at - 1) - 1);
  const std::string counting = "CAST(STDOUT AS TEXT) NOT LIKE '%\nlost=0\n%'";
  ASSERT_TRUE(
      wait_until([&] { return !rows("vorn-noded", counting).empty(); }, milliseconds(20000)));
  for (const auto& row : rows("vorn-noded", counting)) {
    EXPECT_GE(value(row, "lost"), std::stoll(said)) << err;
  }
}

// When a row says its daemon is in trouble: exit status 1 and one line why,
// on either side of each limit.
TEST(HealthRowTest, TroubleIsTheExitStatusAndOneLineWhy) {
  const int64_t now = 10'000'000;  // ms
  const struct {
    uint64_t files_waiting;
    int64_t last_progress_ms;  // 0: nothing confirmed since the start, 700 s ago
    int exit_status;
  } node_cases[] = {{5, now - 601'000, 1}, {5, now - 600'999, 0}, {0, 1, 0}, {1, 0, 1}};
  for (const auto& c : node_cases) {
    node_health health;
    health.files_waiting = c.files_waiting;
    health.last_progress_ms = c.last_progress_ms;
    provider_result row = node_health_row(health, {now - 700'000, now, 1'700'000'000});
    EXPECT_EQ(row.header.exit_status, c.exit_status) << c.last_progress_ms;
    EXPECT_EQ(occurrences(row.stderr_data, "\n"), c.exit_status) << row.stderr_data;
  }
  const struct {
    int64_t unavailable_ms, unavailable_since_ms, at_last_row_ms;
    int exit_status;
  } server_cases[] = {{0, 0, 0, 0}, {0, now - 5000, 0, 1}, {4000, 0, 3000, 1}, {4000, 0, 4000, 0}};
  for (const auto& c : server_cases) {
    server_health health;
    health.database_unavailable_ms = c.unavailable_ms;
    health.unavailable_since_ms = c.unavailable_since_ms;
    provider_result row = server_health_row(health, {0, now, 0}, c.at_last_row_ms);
    EXPECT_EQ(row.header.exit_status, c.exit_status) << c.unavailable_ms;
    EXPECT_EQ(occurrences(row.stderr_data, "\n"), c.exit_status) << row.stderr_data;
  }
}

}  // namespace
