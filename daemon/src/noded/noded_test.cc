// The node daemon as its users see it: the real vorn-noded and vorn-serverd
// with generated configurations, results read back from the real database.

#include <signal.h>
#include <sys/stat.h>
#include <sys/time.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

#include "daemon/src/provider/run.h"
#include "daemon/src/provider/run_record.h"
#include "tests/support/daemons.h"
#include "tests/support/netns.h"
#include "tests/support/results.h"
#include "tests/support/test_support.h"
#include "util/proc.h"

namespace {

using namespace vorn::test;

const std::string kNoded = VORN_NODED_PATH;
const std::string kServerd = VORN_SERVERD_PATH;

class NodeTest : public testing::Test {
 protected:
  NodeTest() : port_(std::to_string(free_tcp_port())) {}

  // One configuration for server and node: a local server, load limits that
  // a busy test machine passes, one-second passes.
  std::string config(const std::string& extra = "", const std::string& port = "") {
    std::string path = dir_ / "vornd.xml";
    write_file(
        path,
        config_xml(
            server_keys(std::stoi(port.empty() ? port_ : port), dir_.path(), db()) +
            node_keys(dir_.path(), out()) +
            "<provider_period>1</provider_period><provider_loadavg>100000</provider_loadavg>" +
            extra));
    return path;
  }

  void provider(const std::string& name, const std::string& body) {
    ::mkdir((dir_ / "providers").c_str(), 0755);
    write_file(dir_ / ("providers/" + name + ".xml"),
               "<configuration><loadavg>100000</loadavg>" + body + "</configuration>");
  }

  std::unique_ptr<Process> start(const std::string& program, const std::string& cfg) {
    return start_daemon(program, cfg, dir_.path());
  }

  long rows(const std::string& where = "1") { return count_rows(db(), where); }

  std::string out() const { return dir_ / "out"; }
  std::string db() const { return dir_ / "vorn.db"; }

  TempDir dir_;
  std::string port_;
};

TEST_F(NodeTest, EveryRunReachesTheDatabaseWithItsOptionSet) {
  // Options are found by the provider's name exactly as it stands.
  std::string cfg = config(
      "<provider><PROBE><optionset id=\"a\"><level>1</level></optionset>"
      "<optionset id=\"b\"><level>2</level></optionset></PROBE></provider>");
  provider("PROBE", "<command>printenv VORN_PROVIDER_PROBE_LEVEL</command><period>1</period>");
  provider("failing", "<command>echo bad &gt;&amp;2; exit 3</command><period>1</period>");
  provider("once", "<command>echo once</command><period>0</period>");
  auto server = start(kServerd, cfg);
  auto node = start(kNoded, cfg);
  char host[256] = {};
  ::gethostname(host, sizeof host - 1);
  ASSERT_TRUE(wait_until(
      [&] {
        return rows("Provider='PROBE' AND OptionID='a' AND CAST(STDOUT AS TEXT)='1\n'") >= 2 &&
               rows("Provider='PROBE' AND OptionID='b' AND CAST(STDOUT AS TEXT)='2\n'") >= 2 &&
               rows(
                   "Provider='failing' AND Exit_status=3 AND OptionID='None' AND "
                   "CAST(STDERR AS TEXT)='bad\n'") >= 2;
      },
      milliseconds(30000)))
      << node->err() << server->err();
  EXPECT_EQ(rows("Provider='once'"), 1);
  EXPECT_EQ(rows("Hostname<>'" + std::string(host) + "'"), 0);
  EXPECT_EQ(node->terminate(), 0) << node->err();
}

// An output directory that refuses files (here read-only, in a mount
// namespace of the node's own): each run's result is lost, which is said
// once, naming the provider, and once more with the count when files can be
// written again.
TEST_F(NodeTest, ResultsLostToAnUnwritableDirectoryAreSaidOnce) {
  if (std::system("unshare -m true >/dev/null 2>&1") != 0) {
    GTEST_SKIP() << "unshare -m is refused here (it needs root)";
  }
  ::mkdir(out().c_str(), 0755);
  // Each run leaves a line outside the output directory, to count runs by.
  const std::string runs = dir_ / "runs";
  provider("probe",
           "<command>echo hi; echo run &gt;&gt; '" + runs + "'</command><period>1</period>");
  const std::string cfg = config();
  // The node's own view of the directory, which the test makes read-only
  // once the node runs (it refuses to start without a writable one).
  const std::string own_mount =
      "mount --bind '" + out() + "' '" + out() + "' && exec '" + kNoded + "' -d -c '" + cfg + "'";
  Process node({"unshare", "-m", "--propagation", "private", "sh", "-c", own_mount}, dir_.path());
  auto runs_seen = [&] { return occurrences(read_file(runs), "run\n"); };
  auto remount = [&](const char* mode) {
    return std::system(("nsenter -t " + std::to_string(node.pid()) + " -m mount -o remount," +
                        mode + ",bind '" + out() + "'")
                           .c_str());
  };
  ASSERT_TRUE(wait_until([&] { return runs_seen() >= 1; }, milliseconds(20000))) << node.err();
  ASSERT_EQ(remount("ro"), 0);
  const std::string lost = "The result of data provider 'probe' is lost: its output file";
  ASSERT_TRUE(node.wait_for_err(lost, milliseconds(20000))) << node.err();
  // Three runs more lost, then the directory takes files again.
  const int lost_at = runs_seen();
  ASSERT_TRUE(wait_until([&] { return runs_seen() >= lost_at + 3; }, milliseconds(20000)));
  ASSERT_EQ(remount("rw"), 0);
  const std::string again = "Output files are written to '" + out() + "' again; ";
  ASSERT_TRUE(node.wait_for_err(again, milliseconds(20000))) << node.err();
  EXPECT_EQ(occurrences(node.err(), lost), 1) << node.err();
  EXPECT_NE(node.err().find("Read-only file system"), std::string::npos) << node.err();
  // The record of runs in progress, in the same directory, says so once too.
  EXPECT_EQ(occurrences(node.err(), "the record of runs"), 1) << node.err();
  EXPECT_EQ(node.terminate(), 0) << node.err();
}

// The value of `key` in a health row's "key=value" lines; "" when absent.
std::string health_value(const std::string& row, const std::string& key) {
  size_t at = ("\n" + row).find("\n" + key + "=");
  if (at == std::string::npos) {
    return "";
  }
  at += key.size() + 1;
  return row.substr(at, row.find('\n', at) - at);
}

// The node's health rows tell how its delivery fares: while the server is
// away, the backlog waiting and the server it tries; once delivered, nothing
// waiting, recent progress, and the truncated file set aside, not stored.
// The log says the server's absence and return once each.
TEST_F(NodeTest, HealthRowsTellHowDeliveryFares) {
  std::string cfg = config("<heartbeat_period>1</heartbeat_period>");
  ::mkdir(out().c_str(), 0755);
  const int kFiles = 300;
  for (int i = 0; i < kFiles; ++i) {
    ASSERT_EQ(write_output_file(sample_result("queued", std::to_string(i)), out()), 1);
  }
  provider_result big = sample_result("short", std::string(100, 'x'));
  const std::string truncated = out() + "/short.ABCDEF";
  write_file(truncated, std::string(reinterpret_cast<const char*>(&big.header), kResultHeaderSize));
  timeval old[2] = {{1000000000, 0}, {1000000000, 0}};
  ::utimes(truncated.c_str(), old);
  auto node = start(kNoded, cfg);
  const std::string silent = "does not answer; results wait on disk until it does";
  ASSERT_TRUE(node->wait_for_err(silent)) << node->err();
  // Rows written meanwhile wait with the backlog, while the refused
  // connection is tried again every second.
  ASSERT_TRUE(wait_until([&] { return output_files(out()) >= kFiles + 4; }, milliseconds(20000)));
  EXPECT_EQ(occurrences(node->err(), "Delivering results"), 0) << node->err();
  const std::string server_started = std::to_string(::time(nullptr));
  auto server = start(kServerd, cfg);
  auto health = [&](const std::string& where) {
    std::vector<std::string> texts;
    for (const auto& row : query(db(),
                                 "SELECT CAST(STDOUT AS TEXT) FROM vorn_1 WHERE "
                                 "Provider='vorn-noded' AND " +
                                     where + " ORDER BY rowid")) {
      texts.push_back(row[0]);
    }
    return texts;
  };
  auto delivered = [&](const std::string& row) {
    const std::string waiting = health_value(row, "files_waiting");
    return health_value(row, "rejected") == "1" && (waiting == "0" || waiting == "1");
  };
  ASSERT_TRUE(wait_until(
      [&] {
        auto texts = health("1");
        return rows("Provider='queued'") == kFiles && !texts.empty() && delivered(texts.back());
      },
      milliseconds(30000)))
      << node->err();
  const std::string server_endpoint = "tcp://127.0.0.1:" + port_;
  // Rows written while the server was away (the first may come before the
  // publisher has looked).
  auto away = health("Timestamp < " + server_started);
  ASSERT_GE(away.size(), 2u);
  for (size_t i = 1; i < away.size(); ++i) {
    EXPECT_GE(std::stoi(health_value(away[i], "files_waiting")), kFiles) << away[i];
    EXPECT_EQ(health_value(away[i], "server"), server_endpoint) << away[i];
  }
  auto last = health("1").back();
  EXPECT_EQ(health_value(last, "server"), server_endpoint) << last;
  EXPECT_LE(std::stoi(health_value(last, "last_progress_s")), 5) << last;
  EXPECT_EQ(rows("Provider='short'"), 0);
  EXPECT_EQ(::access((out() + "/rejected/short.ABCDEF").c_str(), F_OK), 0) << "set aside";
  EXPECT_EQ(node->terminate(), 0) << node->err();
  // The server's absence is said once however often it was tried, and its return once.
  EXPECT_EQ(occurrences(node->err(), silent), 1) << node->err();
  EXPECT_EQ(occurrences(node->err(), "Delivering results to the accumulate server at"), 1)
      << node->err();
}

// A limit below any load skips the provider at every pass; the warning comes
// once, naming the limit and the load, while other providers run on.
TEST_F(NodeTest, LoadSkipIsLoggedOncePerProvider) {
  std::string cfg = config("", "1");
  provider("tick", "<command>true</command><period>1</period>");
  write_file(dir_ / "providers/busy.xml",
             "<configuration><command>true</command><period>1</period>"
             "<loadavg>-1</loadavg></configuration>");
  auto node = start(kNoded, cfg);
  // Each pass runs tick once: three files are three passes.
  ASSERT_TRUE(wait_until([&] { return output_files(out()) >= 3; }, milliseconds(20000)))
      << node->err();
  EXPECT_EQ(node->terminate(), 0);
  const std::string line = "Skipping provider because the system load exceeds -1: busy (load ";
  std::string err = node->err();
  ASSERT_NE(err.find(line), std::string::npos) << err;
  EXPECT_EQ(err.find(line), err.rfind(line)) << err;
  EXPECT_EQ(err.find("exceeds 100000"), std::string::npos) << err;
}

// The stop does not wait for a command that would run for a long time, nor
// lets it or what it started live on; its cut-short run is no result.
TEST_F(NodeTest, StopKillsTheRunInProgress) {
  std::string cfg = config("", "1");
  std::string pid_file = dir_ / "child.pid";
  provider("endless", "<command>sleep 1000 &amp; echo $! &gt; " + pid_file +
                          "; wait</command><timeout>600</timeout>");
  auto node = start(kNoded, cfg);
  ASSERT_TRUE(wait_until([&] { return !read_file(pid_file).empty(); }, milliseconds(15000)));
  pid_t child = std::stoi(read_file(pid_file));
  node->send_signal(SIGTERM);
  EXPECT_TRUE(node->wait_for_err("Received SIGINT / SIGTERM. Cleaning up and stopping..."))
      << node->err();
  EXPECT_EQ(node->wait_exit(milliseconds(20000)), 0) << node->err();
  EXPECT_TRUE(wait_until([&] { return !process_alive(child); }, milliseconds(5000)));
  EXPECT_EQ(output_files(out()), 0);
}

// The live processes whose command line is exactly `command_line`, or with
// `shell` the shells whose command line holds it.
std::vector<pid_t> processes_running(const std::string& command_line, bool shell = false) {
  std::vector<pid_t> found;
  for (const vorn::proc::Stat& stat : vorn::proc::list_processes()) {
    std::string line = vorn::proc::command_line(stat.pid);
    bool match =
        shell ? line.rfind("/bin/sh -c ", 0) == 0 && line.find(command_line) != std::string::npos
              : line == command_line;
    if (stat.state != 'Z' && match) {
      found.push_back(stat.pid);
    }
  }
  return found;
}

// A node killed with SIGKILL leaves its run behind (the shell's child is not
// its child); the next node on the same output directory ends it before it
// starts its own, so exactly one copy runs.
TEST_F(NodeTest, KilledNodeLeavesNoSecondCopyOfItsRun) {
  std::string cfg = config("", "1");
  // Unique to this test; "; true" keeps the shell from replacing itself with
  // sleep, so sleep is the shell's child, as a provider's programs are.
  const std::string sleeper = "sleep 3000." + std::to_string(::getpid());
  struct Cleanup {
    std::string command_line;
    ~Cleanup() {
      for (pid_t pid : processes_running(command_line)) {
        ::kill(pid, SIGKILL);
      }
    }
  } cleanup{sleeper};
  provider("sleeper", "<command>" + sleeper + "; true</command><timeout>600</timeout>");
  auto node = start(kNoded, cfg);
  ASSERT_TRUE(
      wait_until([&] { return processes_running(sleeper).size() == 1; }, milliseconds(15000)))
      << node->err();
  pid_t first = processes_running(sleeper)[0];
  node->send_signal(SIGKILL);
  node->wait_exit();
  // The run's shell dies with the node; its child lives on until the restart.
  EXPECT_TRUE(
      wait_until([&] { return processes_running(sleeper, true).empty(); }, milliseconds(5000)));

  auto restarted = start(kNoded, cfg);
  auto one_new_copy = [&] {
    std::vector<pid_t> copies = processes_running(sleeper);
    return copies.size() == 1 && copies[0] != first;
  };
  ASSERT_TRUE(wait_until(one_new_copy, milliseconds(15000))) << restarted->err();
  EXPECT_FALSE(wait_until([&] { return !one_new_copy(); }, milliseconds(1000))) << restarted->err();
  EXPECT_TRUE(restarted->wait_for_err("left running by an earlier instance of this daemon: "))
      << restarted->err();
  EXPECT_EQ(restarted->terminate(milliseconds(20000)), 0) << restarted->err();
  EXPECT_TRUE(wait_until([&] { return processes_running(sleeper).empty(); }, milliseconds(5000)));
  EXPECT_NE(::access(vorn::runs::record_path(out()).c_str(), F_OK), 0) << "no run in progress";
}

// One server and three nodes on a network of their own, each node with its
// own host name: the nodes find the server by its beacon, and the first
// node's two-node provider gathers one of the others.
TEST(NodeNetworkTest, NodesFindTheServerAndFormClusters) {
  std::string why;
  if (!TestNetwork::available(&why)) {
    GTEST_SKIP() << why;
  }
  TestNetwork net(4);
  ASSERT_TRUE(net.ok());
  TempDir dir;
  std::string db = dir / "vorn.db";
  std::string port = std::to_string(free_tcp_port());
  auto write_config = [&](int host, const std::string& keys) {
    std::string path = dir / ("host" + std::to_string(host) + ".xml");
    write_file(path, "<configuration><network_interface>" + net.interface_name(host) +
                         "</network_interface><accumulate_port>" + port + "</accumulate_port>" +
                         keys + "</configuration>");
    return path;
  };
  std::string server_cfg =
      write_config(0, "<database_file>" + db + "</database_file><accumulate_output_dir>" +
                          (dir / "acc") + "</accumulate_output_dir>");
  Process server(net.on_host(0, {kServerd, "-d", "-c", server_cfg}), dir.path());
  std::vector<std::unique_ptr<Process>> nodes;
  for (int host = 1; host <= 3; ++host) {
    // Members must be free for longer than a cluster lives (its time-out,
    // never below 60 s), so only the first node runs often.
    std::string period = host == 1 ? "2" : "100";
    std::string providers = dir / ("providers" + std::to_string(host));
    ::mkdir(providers.c_str(), 0755);
    write_file(providers + "/single.xml",
               "<configuration><command>hostname</command><loadavg>100000</loadavg>"
               "<period>" +
                   period + "</period></configuration>");
    if (host == 1) {
      write_file(providers + "/pair.xml",
                 "<configuration><command>cat $VORN_DP_NODEFILE</command><loadavg>100000</loadavg>"
                 "<min_nodes>2</min_nodes><max_nodes>2</max_nodes><period>2</period>"
                 "<adhoc_cluster_invite_time>4</adhoc_cluster_invite_time></configuration>");
    }
    std::string cfg = write_config(
        host, "<enable_discovery>false</enable_discovery><provider_config_dir>" + providers +
                  "</provider_config_dir><provider_output_dir>" + dir.path() + "/out" +
                  std::to_string(host) + "</provider_output_dir><provider_period>" + period + "</" +
                  "provider_period><provider_loadavg>100000</provider_loadavg>");
    nodes.push_back(
        std::make_unique<Process>(net.on_host(host, {kNoded, "-d", "-c", cfg}), dir.path()));
  }
  auto count = [&](const std::string& where) { return count_rows(db, where); };
  EXPECT_TRUE(wait_until(
      [&] {
        return count("Provider='single' AND Hostname='node2' AND CAST(STDOUT AS TEXT)='node2\n'") >
                   0 &&
               count("Provider='single' AND Hostname='node3'") > 0 &&
               count("Provider='single' AND Hostname='node4'") > 0 &&
               count(
                   "Provider='pair' AND Hostname='node2' AND num_nodes=2 AND "
                   "(node_names='node2, node3' OR node_names='node2, node4')") > 0;
      },
      milliseconds(60000)))
      << nodes[0]->err() << server.err();
  for (auto& node : nodes) {
    EXPECT_EQ(node->terminate(milliseconds(20000)), 0) << node->err();
  }
  EXPECT_EQ(server.terminate(), 0);
}

// The line the node logs when it gives a connection up with files in flight.
const std::string kStartsAgain = "sending again from the oldest file";

// A node behind a 2 Mbit/s link with a backlog that takes the link about 50 s:
// answers come late, as the bytes ahead of each request take their time,
// but they come. The backlog drains at the link's speed without the node
// ever giving up and starting again, so nothing is stored twice.
TEST(NodeNetworkTest, SlowLinkDrainsBacklogWithoutStartingAgain) {
  std::string why;
  if (!TestNetwork::available(&why)) {
    GTEST_SKIP() << why;
  }
  if (std::system("tc -V >/dev/null 2>&1") != 0) {
    GTEST_SKIP() << "the slow link needs tc (iproute2)";
  }
  TempDir dir;
  std::vector<std::string> namespaces;
  {
    TestNetwork net(2);
    ASSERT_TRUE(net.ok());
    namespaces = net.namespaces();
    const int kServer = 0;
    const int kNode = 1;
    ASSERT_TRUE(net.run_command(kNode, "tc qdisc add dev " + net.interface_name(kNode) +
                                           " root tbf rate 2mbit burst 32kbit latency 400ms"));
    const std::string db = dir / "vorn.db";
    const std::string out = dir / "out";
    const std::string port = std::to_string(free_tcp_port());
    ::mkdir(out.c_str(), 0755);
    ::mkdir((dir / "providers").c_str(), 0755);
    const int kFiles = 3000;
    for (int i = 0; i < kFiles; ++i) {
      // 4 KiB with the header.
      std::string output = std::to_string(i);
      output.resize(4096 - kResultHeaderSize, 's');
      ASSERT_EQ(write_output_file(sample_result("slow", output), out), 1);
    }
    const std::string cfg = dir / "vornd.xml";
    write_file(
        cfg,
        config_xml("<accumulate_host>" + net.address(kServer) +
                   "</accumulate_host><accumulate_port>" + port +
                   "</accumulate_port><enable_adhoc_clusters>false</enable_adhoc_clusters>" +
                   "<provider_config_dir>" + (dir / "providers") +
                   "</provider_config_dir><provider_output_dir>" + out +
                   "</provider_output_dir><provider_period>3600</provider_period><database_file>" +
                   db + "</database_file><accumulate_output_dir>" + (dir / "acc") +
                   "</accumulate_output_dir>"));
    Process server(net.on_host(kServer, {kServerd, "-d", "-c", cfg}), dir.path());
    ASSERT_TRUE(server.wait_for_err("Accumulate server started")) << server.err();
    Process node(net.on_host(kNode, {kNoded, "-d", "-c", cfg}), dir.path());
    auto stored = [&] { return count_rows(db, "Provider='slow'"); };
    // At 2 Mbit/s the 12 MB take about 50 s; a node that starts again
    // never gets there in this time.
    EXPECT_TRUE(wait_until([&] { return output_files(out) == 0 && stored() >= kFiles; },
                           milliseconds(120000)))
        << stored() << " rows, " << output_files(out) << " files left\n"
        << node.err();
    EXPECT_EQ(stored(), kFiles);
    EXPECT_EQ(occurrences(node.err(), kStartsAgain), 0) << node.err();
    EXPECT_EQ(occurrences(node.err(), "does not answer"), 0) << node.err();
    EXPECT_EQ(node.terminate(), 0) << node.err();
    EXPECT_EQ(server.terminate(), 0) << server.err();
  }
  for (const std::string& name : namespaces) {
    EXPECT_NE(::access(("/run/netns/" + name).c_str(), F_OK), 0) << name << " left behind";
  }
}

}  // namespace
