// Black-box tests of the vorn-serverd binary: each test writes a configuration
// into a fresh directory, starts the real program and watches its output.

#include <fcntl.h>
#include <sched.h>
#include <signal.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <cerrno>
#include <chrono>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <thread>

#include "daemon/src/provider/sender.h"
#include "tests/support/daemons.h"
#include "tests/support/results.h"
#include "tests/support/test_support.h"
#include "util/fs.h"
#include "util/str.h"

namespace {

using namespace vorn::test;

const std::string kServerd = VORN_SERVERD_PATH;

class ServerdTest : public testing::Test {
 protected:
  // A configuration that keeps every file of the server inside the test's directory.
  // Keys in `overrides` come first and so win over the defaults that follow.
  std::string write_config(const std::string& overrides = "", const std::string& name = "vornd") {
    std::string path = dir_ / (name + ".xml");
    write_file(path, config_xml(overrides + server_keys(port_, dir_.path(), db_path())));
    return path;
  }

  std::string db_path() const { return dir_ / "db/vorn.db"; }

  vorn::czmq::Socket connect_sender() const { return acked_publisher(port_, sender_config_); }

  std::unique_ptr<Process> start(std::vector<std::string> args) {
    args.insert(args.begin(), kServerd);
    return std::make_unique<Process>(args, dir_.path());
  }

  // A server in debug mode that has said it receives.
  std::unique_ptr<Process> start_ready(const std::string& overrides = "") {
    auto server = start({"-d", "-c", write_config(overrides)});
    EXPECT_TRUE(server->wait_for_err(kServerReady)) << server->err();
    return server;
  }

  TempDir dir_;
  int port_ = free_tcp_port();
  daemon_config sender_config_;
};

std::string expected_usage(const std::string& program, const std::string& config) {
  return "Usage: " + program + " [-c file] [-h] [-l] [-n]\n  -c file\n     Configuration file " +
         "[default = " + config + "]\n  -d\n     Enable debug mode\n  -h\n     Print this help " +
         "message and exit\n  -n\n     Turn on daemon mode and run in background\n  -P file\n" +
         "     PID file\n";
}

TEST_F(ServerdTest, UsageText) {
  const std::string install_default = vorn::str::dirname(kServerd) + "/../../etc/vornd.xml";
  char cwd[4096];
  ASSERT_NE(getcwd(cwd, sizeof cwd), nullptr);
  struct Row {
    const char* comment;
    std::vector<std::string> args;
    std::string shown_default;
  } rows[] = {
      {"plain -h shows the installation's file", {"-h"}, install_default},
      {"-c before -h changes the default",
       {"-c", "other.xml", "-h"},
       std::string(cwd) + "/other.xml"},
      {"-c after -h is never read", {"-h", "-c", "other.xml"}, install_default},
      {"an unknown option does not stop parsing", {"-x", "-h"}, install_default},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.comment);
    auto p = start(row.args);
    EXPECT_EQ(p->wait_exit(), 1);
    EXPECT_EQ(p->out(), expected_usage(kServerd, row.shown_default));
  }
}

TEST_F(ServerdTest, StartsWritesPidFileAndStopsOnSignal) {
  for (int sig : {SIGTERM, SIGINT}) {
    SCOPED_TRACE(strsignal(sig));
    std::string pid_file = dir_ / ("run/new/" + std::to_string(sig) + ".pid");
    auto p = start({"-d", "-c", write_config(), "-P", pid_file});
    ASSERT_TRUE(p->wait_for_err(kServerReady));
    EXPECT_EQ(read_file(pid_file), std::to_string(p->pid()) + "\n");
    struct stat st;
    ASSERT_EQ(stat(pid_file.c_str(), &st), 0);
    EXPECT_EQ(st.st_mode & 0777, 0644u);
    EXPECT_EQ(stat((dir_ / "acc").c_str(), &st), 0) << "accumulate directory made";
    EXPECT_NE(p->err().find("Dynamic service discovery is disabled."), std::string::npos);
    p->send_signal(sig);
    EXPECT_EQ(p->wait_exit(), 0);
  }
}

TEST_F(ServerdTest, StartupFailures) {
  std::string blocker = dir_ / "plain-file";
  write_file(blocker, "x");
  write_file(dir_ / "broken.xml", "<configuration>");
  vorn::czmq::Socket squatter(zsock_new(ZMQ_PULL));
  int taken_port = zsock_bind(squatter.get(), "tcp://127.0.0.1:*");
  struct Row {
    const char* comment;
    std::vector<std::string> args;
    int want_status;
    std::string want_err;
  } rows[] = {
      {"missing configuration file: ENOENT",
       {"-c", dir_ / "none.xml"},
       2,
       "Error reading config file '" + (dir_ / "none.xml") + "' (2): No such file or directory"},
      {"unparsable configuration file",
       {"-c", dir_ / "broken.xml"},
       255,
       "Error reading config file '" + (dir_ / "broken.xml") + "'"},
      {"PID file below a plain file",
       {"-c", write_config(), "-P", blocker + "/x.pid"},
       1,
       "Could not open PID file '" + blocker + "/x.pid'"},
      {"accumulate directory below a plain file",
       {"-c",
        write_config("<accumulate_output_dir>" + blocker + "/a</accumulate_output_dir>", "a")},
       1,
       "Could not create accumulate output directory '" + blocker + "/a', aborting"},
      {"database directory below a plain file",
       {"-c", write_config("<database_file>" + blocker + "/d/v.db</database_file>", "d")},
       1,
       "Could not create database output directory '" + blocker + "/d', aborting"},
      {"a listen address not of this machine",
       {"-c",
        write_config("<accumulate_listen_address>192.0.2.1</accumulate_listen_address>", "l")},
       1,
       "Error binding socket to tcp://192.0.2.1:" + std::to_string(port_) +
           " (99): Cannot assign requested address"},
      {"port in use",
       {"-c",
        write_config("<accumulate_port>" + std::to_string(taken_port) + "</accumulate_port>", "p")},
       1,
       "Error binding socket to tcp://*:" + std::to_string(taken_port) +
           " (98): Address already in use"},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.comment);
    std::vector<std::string> args = row.args;
    args.insert(args.begin(), "-d");
    auto p = start(args);
    EXPECT_EQ(p->wait_exit(), row.want_status);
    EXPECT_NE(p->err().find(row.want_err), std::string::npos);
  }
}

TEST_F(ServerdTest, DaemonModeWritesTheDetachedChildsPid) {
  std::string pid_file = dir_ / "vorn.pid";
  auto p = start({"-n", "-c", write_config(), "-P", pid_file});
  EXPECT_EQ(p->wait_exit(), 0) << "the starting process returns at once";
  ASSERT_TRUE(wait_until([&] { return !read_file(pid_file).empty(); }, milliseconds(10000)));
  pid_t child = std::stoi(read_file(pid_file));
  EXPECT_NE(child, p->pid());
  EXPECT_TRUE(process_alive(child));
  kill(child, SIGTERM);
  EXPECT_TRUE(wait_until([&] { return !process_alive(child); }, milliseconds(10000)));
}

TEST_F(ServerdTest, SecondSignalStopsAtOnce) {
  // An empty -P means no PID file, not one in the current directory.
  auto server = start({"-d", "-c", write_config(), "-P", ""});
  ASSERT_TRUE(server->wait_for_err(kServerReady));
  auto publisher = connect_sender();
  // A steady trickle keeps a draining server busy for as long as it lasts.
  std::atomic<bool> sending{true};
  std::thread trickle([&] {
    while (sending) {
      send_result(sample_result("trickle", "x"), sender_config_, publisher.get());
      std::this_thread::sleep_for(milliseconds(10));
    }
  });
  ASSERT_TRUE(wait_until([&] { return count_rows(db_path()) > 0; }, milliseconds(10000)));
  server->send_signal(SIGTERM);
  // Logged at the first signal, not only when a second one cuts the drain.
  bool announced = server->wait_for_err("Received SIGINT / SIGTERM. Cleaning up and stopping...");
  bool drained = server->wait_for_err("Draining queue of accumulated data providers");
  int early_exit = server->wait_exit(milliseconds(300));
  server->send_signal(SIGINT);
  int status = server->wait_exit();
  sending = false;
  trickle.join();
  // Nobody will read what is still queued for the stopped server.
  zsock_set_linger(publisher.get(), 0);
  EXPECT_TRUE(announced);
  EXPECT_TRUE(drained);
  EXPECT_EQ(early_exit, -1) << "a draining server waits for a quiet socket";
  EXPECT_EQ(status, 0);
  EXPECT_NE(server->err().find("Received a second SIGINT / SIGTERM. Stopping at once"),
            std::string::npos);
}

TEST_F(ServerdTest, BadMessagesNeitherStopTheServerNorCostGoodResults) {
  auto server = start_ready();
  auto publisher = connect_sender();
  std::string topic = accumulate_topic(sender_config_);
  provider_result good = sample_result("good", std::string("\0bin\0", 5));
  std::string header(reinterpret_cast<const char*>(&good.header), kResultHeaderSize);
  const std::vector<std::vector<std::string>> junk = {
      {topic},
      {topic, "a", "b"},
      {topic, "", "", "", ""},
      {topic, header.substr(0, 100), "\0bin\0", "", ""},
      {topic, header, "", "", ""},
      {topic, std::string(4 << 20, '\xff'), "", "", "", "", "", ""},
      {topic, "PUB_ACK", "tcp://127.0.0.1:1", "abc"},
      {topic, "PUB_ACK", "@tcp://127.0.0.1:*", "abcd"},
      {topic, "PUB_ACK", "not an endpoint", "abcd"},
      {"ACCUMULATE other", header, "x", "", ""},
  };
  int good_sent = 0;
  for (const auto& frames : junk) {
    zmsg_t* message = zmsg_new();
    for (const std::string& f : frames) {
      zmsg_addmem(message, f.data(), f.size());
    }
    ASSERT_EQ(zmsg_send(&message, publisher.get()), 0);
    good.header.timestamp.tv_usec = good_sent;  // a run of its own: stored, not a repeat
    ASSERT_EQ(send_result(good, sender_config_, publisher.get()), 1);
    ++good_sent;
  }
  ASSERT_TRUE(wait_until([&] { return count_rows(db_path()) == good_sent; }, milliseconds(20000)));
  EXPECT_TRUE(process_alive(server->pid()));
  EXPECT_EQ(server->terminate(), 0);
  auto rows = query(db_path(), "SELECT DISTINCT STDOUT FROM vorn_1");
  ASSERT_EQ(rows.size(), 1u);
  EXPECT_EQ(rows[0][0], std::string("\0bin\0", 5));
}

// vorn-send's results, the first read back from SQLite; then the database
// file removed under the running server (as an administrator's rm would, log
// and index too): every result answered afterwards must be found in a
// database at the path, and the removal is alerted.
TEST_F(ServerdTest, ADatabaseFileRemovedWhileRunningIsOpenedAnew) {
  std::string config = write_config();
  auto server = start({"-d", "-c", config});
  ASSERT_TRUE(server->wait_for_err(kServerReady));
  std::string output_file = dir_ / "out.txt";
  const std::string output("load 0.42\n\0binary", 18);
  write_file(output_file, output);
  std::string said;
  auto send = [&](const std::string& name) {
    Process sender({VORN_SEND_PATH, "-c", config, "-t", "2", name, output_file}, dir_.path());
    bool answered = sender.wait_exit() == 0;
    said = sender.out();
    return answered;
  };
  ASSERT_TRUE(send("before"));
  // Answered means stored, byte for byte.
  EXPECT_NE(said.find("Sent result of 'before' (18 bytes of output) to tcp://127.0.0.1:" +
                      std::to_string(port_)),
            std::string::npos)
      << said;
  EXPECT_EQ(query(db_path(), "SELECT STDOUT, Stdout_size FROM vorn_1"),
            (std::vector<std::vector<std::string>>{{output, "18"}}));
  for (const char* suffix : {"", "-wal", "-shm"}) {
    std::filesystem::remove(db_path() + suffix);
  }
  std::vector<std::string> answered;
  for (int i = 0; i < 5; ++i) {
    std::string name = "after" + std::to_string(i);
    if (send(name)) {
      answered.push_back(name);
    }
  }
  EXPECT_GE(answered.size(), 4u) << "results sent after the new file is open are answered";
  for (const std::string& name : answered) {
    EXPECT_EQ(count_rows(db_path(), "Provider = '" + name + "'"), 1) << name << " was answered";
  }
  EXPECT_NE(server->err().find("The database file '" + db_path() +
                               "' was removed while the server ran; opening it anew"),
            std::string::npos)
      << server->err();
  EXPECT_EQ(server->terminate(), 0);
}

// A result committed before the removal, its request arriving after it was
// found: the request must not be answered (the result went with the file);
// the sender's next one, for a result sent since, is.
TEST_F(ServerdTest, ARequestForAResultInTheRemovedFileIsNotAnswered) {
  auto server = start_ready();
  auto early = connect_sender();
  auto other = connect_sender();
  ASSERT_EQ(send_result(sample_result("lost", "x"), sender_config_, early.get()), 1);
  ASSERT_TRUE(wait_until([&] { return count_rows(db_path()) == 1; }, milliseconds(10000)));
  for (const char* suffix : {"", "-wal", "-shm"}) {
    std::filesystem::remove(db_path() + suffix);
  }
  // Another sender's result makes the server commit, find the removal, and
  // store that result again in the new file.
  ASSERT_EQ(send_result(sample_result("other", "x"), sender_config_, other.get()), 1);
  ASSERT_TRUE(wait_until([&] { return count_rows(db_path()) == 1; }, milliseconds(10000)));
  EXPECT_TRUE(server->wait_for_err("was removed while the server ran"));
  bool answered = request_pub_ack(early.get(), sender_config_, "127.0.0.1", 1000);
  if (answered) {
    EXPECT_EQ(count_rows(db_path(), "Provider = 'lost'"), 1)
        << "answered for a result that cannot be found";
  }
  ASSERT_EQ(send_result(sample_result("resent", "x"), sender_config_, early.get()), 1);
  EXPECT_TRUE(request_pub_ack(early.get(), sender_config_, "127.0.0.1", 10000));
  EXPECT_EQ(count_rows(db_path(), "Provider = 'resent'"), 1);
  EXPECT_EQ(server->terminate(), 0);
}

// The answer to a PUB_ACK means that everything the sender sent before the
// request is committed, so another connection sees it all; a SIGTERM lets
// the server store what is still on its way. Each sender's results are
// stored in the order sent.
TEST_F(ServerdTest, PubAckFollowsTheCommitAndSigtermDrains) {
  auto server = start({"-c", write_config()});
  vorn::czmq::Socket publishers[] = {connect_sender(), connect_sender()};
  const char* names[] = {"first", "second"};
  constexpr int kBeforeAck = 5000;
  constexpr int kResults = 12500;
  provider_result r = sample_result("", std::string(1024, 'o'));
  for (int i = 0; i < kResults; ++i) {
    if (i == kBeforeAck) {
      ASSERT_TRUE(request_pub_ack(publishers[0].get(), sender_config_, "127.0.0.1", 60000));
      EXPECT_EQ(count_rows(db_path(), "Provider = 'first'"), kBeforeAck);
    }
    r.header.timestamp.tv_sec = i;
    for (int s = 0; s < 2; ++s) {
      vorn::str::copy(r.header.name, names[s]);
      ASSERT_EQ(send_result(r, sender_config_, publishers[s].get()), 1);
    }
  }
  // Most results are still queued between the sockets when the signal comes.
  server->send_signal(SIGTERM);
  long stored_at_signal = count_rows(db_path());
  EXPECT_EQ(server->wait_exit(milliseconds(60000)), 0);
  EXPECT_EQ(count_rows(db_path()), 2 * kResults)
      << stored_at_signal << " were stored at the signal";
  auto out_of_order =
      query(db_path(),
            "SELECT count(*) FROM (SELECT Timestamp - lag(Timestamp, 1, -1) OVER (PARTITION BY "
            "Provider ORDER BY rowid) AS step FROM vorn_1) WHERE step != 1");
  EXPECT_EQ(out_of_order[0][0], "0");
}

// A row the database refuses (here a trigger makes the table read-only under
// the server) is reported once, and receiving goes on.
TEST_F(ServerdTest, RefusedRowsAreReportedOnceAndReceivingGoesOn) {
  auto server = start_ready();
  auto publisher = connect_sender();
  auto send = [&](const char* name) {
    ASSERT_EQ(send_result(sample_result(name, "x"), sender_config_, publisher.get()), 1);
  };
  send("before");
  ASSERT_TRUE(wait_until([&] { return count_rows(db_path()) == 1; }, milliseconds(10000)));
  ASSERT_TRUE(execute(db_path(),
                      "CREATE TRIGGER read_only BEFORE INSERT ON vorn_1 "
                      "BEGIN SELECT RAISE(ABORT, 'table is read-only'); END"));
  constexpr int kRefused = 3;
  for (int i = 0; i < kRefused; ++i) {
    send("refused");
  }
  auto count = [&](const std::string& text) { return occurrences(server->err(), text); };
  const std::string refusal = "Database insertion error: table is read-only";
  ASSERT_TRUE(wait_until([&] { return count(refusal) >= kRefused; }, milliseconds(10000)));
  ASSERT_TRUE(execute(db_path(), "DROP TRIGGER read_only"));
  send("after");
  ASSERT_TRUE(wait_until([&] { return count_rows(db_path()) == 2; }, milliseconds(10000)));
  EXPECT_EQ(server->terminate(), 0);
  EXPECT_EQ(count(refusal), kRefused) << server->err();
  EXPECT_EQ(count("Error writing to database. Data lost!"), kRefused);
  auto rows = query(db_path(), "SELECT Provider FROM vorn_1 ORDER BY rowid");
  EXPECT_EQ(rows, (std::vector<std::vector<std::string>>{{"before"}, {"after"}}));
}

// What a hostile or broken sender can send: a flood of requests naming an
// endpoint that never answers, a message above max_message_size, and names
// with control characters. None of it stops the server or costs the results
// another sender sends meanwhile.
TEST_F(ServerdTest, HostileSendersNeitherCrashNorCostGoodResults) {
  auto server = start_ready("<max_message_size>1048576</max_message_size>");
  auto hostile = connect_sender();
  auto good = connect_sender();
  const std::string dead_endpoint = "tcp://127.0.0.1:" + std::to_string(free_tcp_port());
  constexpr int kRequests = 1500;
  constexpr int kGood = 300;
  int good_sent = 0;
  for (int i = 0; i < kRequests; ++i) {
    ASSERT_TRUE(send_pub_ack_request(hostile.get(), sender_config_, dead_endpoint, i));
    if (i % (kRequests / kGood) == 0) {
      ASSERT_EQ(send_result(sample_result("good", "x"), sender_config_, good.get()), 1);
      ++good_sent;
    }
  }
  ASSERT_EQ(send_result(sample_result("evil\nforged line", "x"), sender_config_, good.get()), 1);
  ++good_sent;
  ASSERT_EQ(
      send_result(sample_result("huge", std::string(2 << 20, 'h')), sender_config_, hostile.get()),
      1);
  ASSERT_TRUE(wait_until([&] { return count_rows(db_path()) == good_sent; }, milliseconds(20000)))
      << count_rows(db_path()) << " of " << good_sent;
  // The flood is still being refused: the good sender is answered regardless.
  EXPECT_TRUE(request_pub_ack(good.get(), sender_config_, "127.0.0.1", 20000));
  EXPECT_EQ(server->terminate(), 0);
  zsock_set_linger(hostile.get(), 0);
  const std::string err = server->err();
  EXPECT_NE(err.find("Too many PUB_ACK requests at once"), std::string::npos);
  EXPECT_NE(err.find("Received data provider 'evil\\x0aforged line'"), std::string::npos);
  EXPECT_EQ(err.find("\nforged line"), std::string::npos) << "a log line was forged";
  EXPECT_EQ(count_rows(db_path(), "Provider = 'huge'"), 0);
}

// Senders that never pause cannot keep a stopping server alive past
// drain_timeout; what it received is stored.
TEST_F(ServerdTest, DrainEndsAtItsDeadline) {
  auto server = start({"-c", write_config("<drain_timeout>1</drain_timeout>")});
  auto publisher = connect_sender();
  std::atomic<bool> sending{true};
  std::atomic<int> sent{0};
  std::thread stream([&] {
    while (sending) {
      send_result(sample_result("stream", "x"), sender_config_, publisher.get());
      ++sent;
      std::this_thread::sleep_for(milliseconds(5));
    }
  });
  ASSERT_TRUE(wait_until([&] { return count_rows(db_path()) > 0; }, milliseconds(10000)));
  server->send_signal(SIGTERM);
  int status = server->wait_exit(milliseconds(20000));
  sending = false;
  stream.join();
  zsock_set_linger(publisher.get(), 0);
  EXPECT_EQ(status, 0) << "still draining";
  long rows = count_rows(db_path());
  EXPECT_GT(rows, 0);
  EXPECT_LE(rows, sent.load());
  EXPECT_EQ(query(db_path(), "PRAGMA integrity_check")[0][0], "ok");
}

// Mounts a tmpfs of `size` on `dir` in a mount namespace of the calling
// process (and so of the processes it starts), unmounted when it goes.
class PrivateTmpfs {
 public:
  PrivateTmpfs(const std::string& dir, const char* size) : dir_(dir) {
    std::string options = std::string("size=") + size;
    mounted_ = ::unshare(CLONE_NEWNS) == 0 &&
               ::mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0 &&
               ::mount("vorn", dir.c_str(), "tmpfs", 0, options.c_str()) == 0;
  }
  PrivateTmpfs(const PrivateTmpfs&) = delete;
  PrivateTmpfs& operator=(const PrivateTmpfs&) = delete;
  ~PrivateTmpfs() {
    if (mounted_) {
      ::umount2(dir_.c_str(), MNT_DETACH);
    }
  }
  bool mounted() const { return mounted_; }

 private:
  std::string dir_;
  bool mounted_ = false;
};

// A full disk: results wait in the server, unacknowledged, and are all
// stored once space is freed.
TEST_F(ServerdTest, ResultsWaitOutAFullDisk) {
  if (geteuid() != 0) {
    GTEST_SKIP() << "needs root, for a tmpfs in a mount namespace of its own";
  }
  const std::string db_dir = dir_ / "db";
  ASSERT_EQ(mkdir(db_dir.c_str(), 0755), 0);
  PrivateTmpfs tmpfs(db_dir, "4m");
  ASSERT_TRUE(tmpfs.mounted()) << std::strerror(errno);
  auto server = start_ready();
  auto publisher = connect_sender();
  {
    vorn::fs::Fd filler(::open((db_dir + "/filler").c_str(), O_WRONLY | O_CREAT, 0644));
    ASSERT_GE(filler.get(), 0);
    std::string block(1 << 16, 'f');
    while (::write(filler.get(), block.data(), block.size()) > 0) {
    }
  }
  constexpr int kResults = 40;
  for (int i = 0; i < kResults; ++i) {
    ASSERT_EQ(send_result(sample_result("waiting", std::string(1 << 16, 'w')), sender_config_,
                          publisher.get()),
              1);
  }
  ASSERT_TRUE(server->wait_for_err("Database unavailable", milliseconds(20000)));
  EXPECT_FALSE(request_pub_ack(publisher.get(), sender_config_, "127.0.0.1", 1500))
      << "answered before the commit";
  ASSERT_EQ(::unlink((db_dir + "/filler").c_str()), 0);
  EXPECT_TRUE(request_pub_ack(publisher.get(), sender_config_, "127.0.0.1", 30000));
  EXPECT_EQ(count_rows(db_path()), kResults);
  EXPECT_EQ(server->terminate(), 0);
  EXPECT_EQ(query(db_path(), "PRAGMA integrity_check")[0][0], "ok");
  EXPECT_NE(server->err().find("Database writable again"), std::string::npos);
  EXPECT_EQ(server->err().find("Data lost"), std::string::npos);
}

// Killed without warning under load, the server leaves a sound database that
// holds every result it acknowledged.
TEST_F(ServerdTest, KilledUnderLoadKeepsWhatItAcknowledged) {
  auto server = start({"-c", write_config()});
  auto publisher = connect_sender();
  provider_result r = sample_result("load", std::string(1024, 'l'));
  constexpr int kAcknowledged = 3000;
  // Each a run of its own: the server stores a repeat once.
  long runs = 0;
  for (int i = 0; i < kAcknowledged; ++i) {
    r.header.timestamp.tv_sec = ++runs;
    ASSERT_EQ(send_result(r, sender_config_, publisher.get()), 1);
  }
  ASSERT_TRUE(request_pub_ack(publisher.get(), sender_config_, "127.0.0.1", 60000));
  std::atomic<bool> sending{true};
  std::thread stream([&] {
    while (sending) {
      r.header.timestamp.tv_sec = ++runs;
      send_result(r, sender_config_, publisher.get());
    }
  });
  bool loaded =
      wait_until([&] { return count_rows(db_path()) > kAcknowledged + 2000; }, milliseconds(20000));
  server->send_signal(SIGKILL);
  EXPECT_EQ(server->wait_exit(), 128 + SIGKILL);
  sending = false;
  stream.join();
  zsock_set_linger(publisher.get(), 0);
  EXPECT_TRUE(loaded);
  EXPECT_EQ(query(db_path(), "PRAGMA integrity_check")[0][0], "ok");
  EXPECT_GE(count_rows(db_path()), kAcknowledged);
}

// Started with standard descriptors closed, the server must not open its
// database on descriptor 0 (which counts as a failure and would move a
// healthy file aside), however often it is started so.
TEST_F(ServerdTest, ClosedStandardDescriptorsLeaveTheDatabaseAlone) {
  ASSERT_EQ(mkdir((dir_ / "db").c_str(), 0755), 0);
  ASSERT_TRUE(execute(db_path(), "CREATE TABLE kept (x); INSERT INTO kept VALUES (1)"));
  struct Row {
    const char* comment;
    std::vector<int> closed;
  } rows[] = {
      {"standard input closed", {0}},
      {"again: a backup made by the first start would be overwritten now", {0}},
      {"standard input and output closed", {0, 1}},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.comment);
    Process server({kServerd, "-d", "-c", write_config()}, dir_.path(), row.closed);
    ASSERT_TRUE(server.wait_for_err(kServerReady));
    EXPECT_EQ(server.terminate(), 0);
    EXPECT_EQ(query(db_path(), "SELECT x FROM kept"),
              (std::vector<std::vector<std::string>>{{"1"}}));
    for (const auto& entry : std::filesystem::directory_iterator(dir_ / "db")) {
      EXPECT_EQ(entry.path().filename().string().find(".bad"), std::string::npos) << "moved aside";
    }
  }
}

}  // namespace
