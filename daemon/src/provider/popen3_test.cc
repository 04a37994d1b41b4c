// popen3 with real shell commands and short time-outs.

#include "daemon/src/provider/popen3.h"

#include <signal.h>

#include <gtest/gtest.h>

#include <chrono>
#include <filesystem>
#include <fstream>
#include <sstream>

#include "tests/support/test_support.h"

namespace {

struct Ran {
  int rc;
  popen3_job job;
  std::string log;
  double seconds;
};

Ran run(const std::string& command, int64_t timeout) {
  Ran out;
  out.job.command = command;
  out.job.timeout = timeout;
  auto start = std::chrono::steady_clock::now();
  testing::internal::CaptureStderr();
  out.rc = popen3(out.job);
  out.log = testing::internal::GetCapturedStderr();
  out.seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
  return out;
}

// No live process of the command's group is left (zombies that nobody reaps
// in a container do not count).
bool group_gone(pid_t group) {
  for (const auto& entry : std::filesystem::directory_iterator("/proc")) {
    std::string name = entry.path().filename();
    if (name.find_first_not_of("0123456789") != std::string::npos) {
      continue;
    }
    std::ifstream in(entry.path() / "stat");
    std::string stat((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    size_t close = stat.rfind(')');
    if (close == std::string::npos) {
      continue;
    }
    std::istringstream fields(stat.substr(close + 2));
    char state;
    int parent;
    int process_group;
    fields >> state >> parent >> process_group;
    if (process_group == group && state != 'Z') {
      return false;
    }
  }
  return true;
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
  } rows[] = {
      {"a command that sleeps", "echo started; sleep 30", 1, 3},
      {"children in the background", "sleep 30 & sleep 30 & wait", 1, 3},
      {"the command ends but leaves a child holding the pipes", "(sleep 30 &); echo done", 1, 3},
      {"a command that closes its output and runs on", "exec >/dev/null 2>&-; sleep 30", 1, 3},
      {"a command that ignores SIGTERM gets SIGKILL after 3 s", "trap '' TERM; sleep 30", 4.5, 7},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.comment);
    Ran r = run(row.command, 1);
    EXPECT_EQ(r.rc, 0);
    EXPECT_TRUE(r.job.timed_out);
    EXPECT_EQ(r.log, std::string("The following command has timed out and will be killed: ") +
                         row.command + "\n");
    EXPECT_GE(r.job.duration, 1);
    EXPECT_LE(r.job.duration, 2);
    EXPECT_GE(r.seconds, row.min_seconds);
    EXPECT_LE(r.seconds, row.max_seconds);
    ASSERT_GT(r.job.pid, 0);
    EXPECT_TRUE(vorn::test::wait_until([&] { return group_gone(r.job.pid); },
                                       vorn::test::milliseconds(2000)));
    EXPECT_EQ(r.job.exit_status, 0);
  }
}

TEST(Popen3Test, ZeroTimeOutEndsInTheKillSequence) {
  Ran r = run("sleep 30", 0);
  EXPECT_TRUE(r.job.timed_out);
  EXPECT_LE(r.seconds, 3);
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
