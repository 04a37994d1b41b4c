// popen3 with real shell commands and short time-outs.

#include "daemon/src/provider/popen3.h"

#include <signal.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <filesystem>
#include <memory>
#include <sstream>

#include "daemon/src/provider/result.h"
#include "tests/support/test_support.h"

namespace {

struct Ran {
  int rc;
  popen3_job job;
  std::string log;
  double seconds;
};

Ran run(const std::string& command, int64_t timeout, int64_t max_output_size = int64_t{16} << 20) {
  Ran out;
  out.job.command = command;
  out.job.timeout = timeout;
  out.job.max_output_size = max_output_size;
  auto start = std::chrono::steady_clock::now();
  testing::internal::CaptureStderr();
  out.rc = popen3(out.job);
  out.log = testing::internal::GetCapturedStderr();
  out.seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
  return out;
}

struct Stat {
  int pid;
  char state;
  int parent;
  int process_group;
  std::string command_line;  // arguments joined by blanks
};

std::vector<Stat> processes() {
  std::vector<Stat> table;
  for (const auto& entry : std::filesystem::directory_iterator("/proc")) {
    std::string name = entry.path().filename();
    if (name.find_first_not_of("0123456789") != std::string::npos) {
      continue;
    }
    std::string stat = vorn::test::read_file(entry.path() / "stat");
    size_t close = stat.rfind(')');
    if (close == std::string::npos) {
      continue;
    }
    Stat s{std::stoi(name), 0, 0, 0, vorn::test::read_file(entry.path() / "cmdline")};
    std::replace(s.command_line.begin(), s.command_line.end(), '\0', ' ');
    std::istringstream(stat.substr(close + 2)) >> s.state >> s.parent >> s.process_group;
    table.push_back(s);
  }
  return table;
}

// No live process of the command's group is left (zombies that nobody reaps
// in a container do not count).
bool group_gone(pid_t group) {
  for (const Stat& s : processes()) {
    if (s.process_group == group && s.state != 'Z') {
      return false;
    }
  }
  return true;
}

bool running(const std::string& command_line) {
  for (const Stat& s : processes()) {
    if (s.command_line.find(command_line) != std::string::npos && s.state != 'Z') {
      return true;
    }
  }
  return false;
}

int zombie_children() {
  int n = 0;
  for (const Stat& s : processes()) {
    n += s.parent == getpid() && s.state == 'Z';
  }
  return n;
}

TEST(Popen3Test, CapturesOutputAndExitStatus) {
  struct Row {
    const char* command;
    int exit_status;
    std::string out;
    std::string err;
  } rows[] = {
      {"true", 0, "", ""},                                           // nothing at all
      {"echo out; echo err >&2; exit 3", 3, "out\n", "err\n"},       // both streams, status
      {"printf 'a\\000b\\377'", 0, std::string("a\0b\xff", 4), ""},  // binary bytes
      {"cat", 0, "", ""},                                            // stdin is /dev/null
      {"kill -TERM $$", 0, "", ""},                                  // a signal reports 0
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.command);
    Ran r = run(row.command, 30);
    EXPECT_EQ(r.rc, 0);
    EXPECT_EQ(r.job.exit_status, row.exit_status);
    EXPECT_EQ(r.job.stdout_data, row.out);
    EXPECT_EQ(r.job.stderr_data, row.err);
    EXPECT_FALSE(r.job.timed_out);
    EXPECT_GT(r.job.pid, 0);
    EXPECT_EQ(r.log, "");
  }
}

TEST(Popen3Test, LargeOutputOnBothStreamsAtOnce) {
  Ran r =
      run("head -c 3000000 /dev/zero | tr '\\0' o & head -c 2000000 /dev/zero | tr '\\0' e >&2; "
          "wait",
          60);
  EXPECT_EQ(r.rc, 0);
  EXPECT_EQ(r.job.stdout_data, std::string(3000000, 'o'));
  EXPECT_EQ(r.job.stderr_data, std::string(2000000, 'e'));
}

TEST(Popen3Test, TimeOutKillsTheWholeGroup) {
  struct Row {
    const char* comment;
    const char* command;
    double min_seconds;
    double max_seconds;
    int64_t timeout = 1;
  } rows[] = {
      {"a command that sleeps", "echo started; sleep 30", 1, 3},
      {"children in the background", "sleep 30 & sleep 30 & wait", 1, 3},
      {"the command ends but leaves a child holding the pipes", "(sleep 30 &); echo done", 1, 3},
      {"a command that closes its output and runs on", "exec >/dev/null 2>&-; sleep 30", 1, 3},
      {"both pipes closed at once: the time-out still ends it", "exec >/dev/null 2>&1; sleep 12", 2,
       4, 2},
      {"a command that ignores SIGTERM gets SIGKILL after 3 s", "trap '' TERM; sleep 30", 4.5, 7},
      {"error output without a final newline: the note starts a line",
       "printf partial >&2; sleep 30", 1, 3},
      {"a time-out of 0 ends in the kill sequence too", "sleep 30", 0, 3, 0},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.comment);
    Ran r = run(row.command, row.timeout);
    EXPECT_EQ(r.rc, 0);
    EXPECT_TRUE(r.job.timed_out);
    EXPECT_EQ(r.log, std::string("The following command has timed out and will be killed: ") +
                         row.command + "\n");
    EXPECT_GE(r.job.duration, row.timeout);
    EXPECT_LE(r.job.duration, row.timeout + 1);
    EXPECT_GE(r.seconds, row.min_seconds);
    EXPECT_LE(r.seconds, row.max_seconds);
    ASSERT_GT(r.job.pid, 0);
    EXPECT_TRUE(vorn::test::wait_until([&] { return group_gone(r.job.pid); },
                                       vorn::test::milliseconds(2000)));
    // Killed by a signal, the run still exits with 0: only the last line of
    // its error output tells.
    EXPECT_EQ(r.job.exit_status, 0);
    const std::string note =
        "vorn: killed after the time-out of " + std::to_string(row.timeout) + " s\n";
    ASSERT_GE(r.job.stderr_data.size(), note.size());
    EXPECT_EQ(r.job.stderr_data.substr(r.job.stderr_data.size() - note.size()), note);
    EXPECT_TRUE(killed_at_time_out(r.job.stderr_data)) << r.job.stderr_data;
  }
}

// Processes that leave the group, alone or with a parent of their own, are
// found through the subreaper and killed with the rest.
TEST(Popen3Test, NothingStartedSurvivesTheTimeOut) {
  const std::string tag = std::to_string(getpid());
  struct Row {
    const char* comment;
    std::string command;
    std::string survivor;
  } rows[] = {
      {"a session of its own, holding the pipes", "setsid sleep 200.1" + tag + " & echo started",
       "sleep 200.1" + tag},
      {"a double fork in a new session, with the pipes closed",
       "setsid sh -c 'sleep 200.3" + tag + " >/dev/null 2>&1 &'; sleep 30", "sleep 200.3" + tag},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.comment);
    Ran r = run(row.command, 1);
    EXPECT_TRUE(r.job.timed_out);
    EXPECT_LE(r.seconds, 3);
    EXPECT_FALSE(running(row.survivor));
    EXPECT_EQ(zombie_children(), 0);
  }
}

// A process a run leaves behind when it ends in time is not killed, but once
// it ends it is reaped, not kept as a zombie of the runner.
TEST(Popen3Test, OrphansOfARunAreReaped) {
  Ran first = run("(sleep 0.3 >/dev/null 2>&1 &); true", 30);
  EXPECT_FALSE(first.job.timed_out);
  ASSERT_TRUE(
      vorn::test::wait_until([] { return zombie_children() == 1; }, vorn::test::milliseconds(5000)))
      << "the orphan was re-parented to the runner";
  run("true", 30);
  EXPECT_EQ(zombie_children(), 0);
}

// Past the limit, output is read and thrown away; a line at the end of
// standard error says how much.
TEST(Popen3Test, OutputIsCappedPerStream) {
  const std::string note = "vorn: standard output cut at 1000000 bytes, ";
  struct Row {
    const char* command;
    int64_t timeout;
    size_t out_size;
    std::string err_prefix;  // followed by the count of bytes and " bytes discarded\n"
  } rows[] = {
      {"head -c 1000000 /dev/zero", 30, 1000000, ""},  // exactly the limit: nothing cut
      {"head -c 3000000 /dev/zero", 30, 1000000, note + "2000000"},  // standard output
      {"head -c 3000000 /dev/zero >&2", 30, 0,
       std::string(1000000, '\0') + "vorn: standard error cut at 1000000 bytes, 2000000"},
      // Without end: bounded until the time-out, whose line comes last.
      {"yes", 1, 1000000, note},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.command);
    Ran r = run(row.command, row.timeout, 1000000);
    EXPECT_EQ(r.job.timed_out, row.timeout == 1);
    EXPECT_EQ(r.job.stdout_data.size(), row.out_size);
    if (row.err_prefix.empty()) {
      EXPECT_EQ(r.job.stderr_data, "");
      continue;
    }
    EXPECT_EQ(r.job.stderr_data.substr(0, row.err_prefix.size()), row.err_prefix);
    std::string rest = r.job.stderr_data.substr(row.err_prefix.size());
    EXPECT_EQ(rest.substr(rest.find_first_not_of("0123456789")),
              row.timeout == 1 ? " bytes discarded\nvorn: killed after the time-out of 1 s\n"
                               : " bytes discarded\n")
        << rest;
  }
}

// The runner scans /proc around every run; processes that end while it reads
// their entries must cost nothing, not abort the daemon. Two shells start and
// reap short-lived processes, 16 at a time, as fast as they can.
TEST(Popen3Test, RunsWhileProcessesComeAndGoAroundIt) {
  vorn::test::TempDir dir;
  std::vector<std::unique_ptr<vorn::test::Process>> churn;
  for (int i = 0; i < 2; ++i) {
    churn.push_back(std::make_unique<vorn::test::Process>(
        std::vector<std::string>{"/bin/sh", "-c",
                                 "while :; do for i in $(seq 16); do /bin/true & done; wait; done"},
        dir.path()));
  }
  for (int i = 0; i < 200; ++i) {
    Ran r = run("echo " + std::to_string(i), 30);
    ASSERT_EQ(r.rc, 0) << "run " << i;
    ASSERT_EQ(r.job.stdout_data, std::to_string(i) + "\n") << "run " << i;
  }
}

TEST(Popen3Test, ClosedOutputIsWaitedForWithoutBusyWaiting) {
  // Standard error closes at once, standard output a second later: the loop
  // must sleep in poll meanwhile rather than spin on the closed pipe.
  std::clock_t cpu_before = std::clock();
  Ran r = run("exec 2>&-; sleep 1; echo late", 30);
  double cpu = static_cast<double>(std::clock() - cpu_before) / CLOCKS_PER_SEC;
  EXPECT_EQ(r.rc, 0);
  EXPECT_FALSE(r.job.timed_out);
  EXPECT_EQ(r.job.stdout_data, "late\n");
  EXPECT_LT(cpu, 0.5);
}

}  // namespace
