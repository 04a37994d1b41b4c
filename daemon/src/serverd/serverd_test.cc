// Black-box tests of the vorn-serverd binary: each test writes a configuration
// into a fresh directory, starts the real program and watches its output.

#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <fstream>

#include "tests/support/test_support.h"
#include "util/fs.h"
#include "util/str.h"

namespace {

using vorn::test::Process;
using vorn::test::TempDir;

const std::string kServerd = VORN_SERVERD_PATH;
const std::string kReady = "Server running";

class ServerdTest : public testing::Test {
 protected:
  // A configuration that keeps every file of the server inside the test's directory.
  std::string write_config(const std::string& extra_keys = "") {
    std::string path = dir_ / "vornd.xml";
    vorn::test::write_file(
        path, vorn::test::config_xml("<accumulate_output_dir>" + (dir_ / "acc") +
                                     "</accumulate_output_dir>\n<database_file>" +
                                     (dir_ / "db/vorn.db") + "</database_file>\n" + extra_keys));
    return path;
  }

  std::unique_ptr<Process> start(std::vector<std::string> args) {
    args.insert(args.begin(), kServerd);
    return std::make_unique<Process>(args, dir_.path());
  }

  TempDir dir_;
};

std::string expected_usage(const std::string& program, const std::string& config) {
  return "Usage: " + program +
         " [-c file] [-h] [-l] [-n]\n"
         "  -c file\n"
         "     Configuration file [default = " +
         config +
         "]\n"
         "  -d\n     Enable debug mode\n"
         "  -h\n     Print this help message and exit\n"
         "  -n\n     Turn on daemon mode and run in background\n"
         "  -P file\n"
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
    ASSERT_TRUE(p->wait_for_err(kReady));
    EXPECT_EQ(vorn::test::read_file(pid_file), std::to_string(p->pid()) + "\n");
    struct stat st;
    ASSERT_EQ(stat(pid_file.c_str(), &st), 0);
    EXPECT_EQ(st.st_mode & 0777, 0644u);
    EXPECT_EQ(stat((dir_ / "acc").c_str(), &st), 0) << "accumulate directory made";
    EXPECT_NE(p->err().find("Dynamic service discovery is disabled."), std::string::npos);
    p->send_signal(sig);
    EXPECT_EQ(p->wait_exit(), 0);
  }
}

TEST_F(ServerdTest, WithoutPidFileItWarnsAndRuns) {
  for (std::vector<std::string> pid_args :
       {std::vector<std::string>{}, std::vector<std::string>{"-P", ""}}) {
    std::vector<std::string> args = {"-d", "-c", write_config()};
    args.insert(args.end(), pid_args.begin(), pid_args.end());
    auto p = start(args);
    ASSERT_TRUE(p->wait_for_err(kReady));
    EXPECT_NE(p->err().find("PID file not set"), std::string::npos);
    p->send_signal(SIGTERM);
    EXPECT_EQ(p->wait_exit(), 0);
  }
}

TEST_F(ServerdTest, NormalModeLogsOnlyToSyslog) {
  auto p = start({"-c", write_config("<enable_adhoc_clusters>yes</enable_adhoc_clusters>"), "-P",
                  dir_ / "pid"});
  ASSERT_TRUE(vorn::test::wait_until([&] { return !vorn::test::read_file(dir_ / "pid").empty(); },
                                     vorn::test::milliseconds(10000)));
  p->send_signal(SIGTERM);
  EXPECT_EQ(p->wait_exit(), 0);
  EXPECT_EQ(p->err(), "");
  EXPECT_EQ(p->out(), "");
}

TEST_F(ServerdTest, DebugModeShowsConfigurationWarnings) {
  auto p = start({"-d", "-c",
                  write_config("<enable_adhoc_clusters>yes</enable_adhoc_clusters>"
                               "<timeout scale=\"cubic\">30</timeout>")});
  ASSERT_TRUE(p->wait_for_err(kReady));
  EXPECT_NE(p->err().find("Unrecognized value for enable_adhoc_clusters: 'yes'.  Using default."),
            std::string::npos);
  EXPECT_NE(p->err().find("timeout scaling option 'cubic' did not match known options."),
            std::string::npos);
  p->send_signal(SIGINT);
  EXPECT_EQ(p->wait_exit(), 0);
}

TEST_F(ServerdTest, StartupFailures) {
  std::string config = write_config();
  std::string not_a_dir = dir_ / "plain-file";
  vorn::test::write_file(not_a_dir, "x");
  vorn::test::write_file(dir_ / "broken.xml", "<configuration>");
  struct Row {
    const char* comment;
    std::vector<std::string> args;
    int want_status;
    std::string want_err;
  } rows[] = {
      {"missing configuration file: ENOENT",
       {"-d", "-c", dir_ / "none.xml"},
       2,
       "Error reading config file '" + (dir_ / "none.xml") + "' (2): No such file or directory"},
      {"unparsable configuration file",
       {"-d", "-c", dir_ / "broken.xml"},
       255,
       "Error reading config file '" + (dir_ / "broken.xml") + "'"},
      {"PID file below a plain file",
       {"-d", "-c", config, "-P", not_a_dir + "/x.pid"},
       1,
       "Could not open PID file '" + not_a_dir + "/x.pid'"},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.comment);
    auto p = start(row.args);
    EXPECT_EQ(p->wait_exit(), row.want_status);
    EXPECT_NE(p->err().find(row.want_err), std::string::npos);
  }
}

TEST_F(ServerdTest, AccumulateDirectoryThatCannotBeMade) {
  std::string blocker = dir_ / "blocker";
  vorn::test::write_file(blocker, "x");
  std::string path = dir_ / "bad.xml";
  vorn::test::write_file(path, vorn::test::config_xml("<accumulate_output_dir>" + blocker +
                                                      "/acc</accumulate_output_dir>"));
  auto p = start({"-d", "-c", path});
  EXPECT_EQ(p->wait_exit(), 1);
  EXPECT_NE(
      p->err().find("Could not create accumulate output directory '" + blocker + "/acc', aborting"),
      std::string::npos);
}

TEST_F(ServerdTest, PidFileInReadOnlyDirectory) {
  if (geteuid() == 0) {
    GTEST_SKIP() << "root may write into read-only directories";
  }
  std::string ro = dir_ / "ro";
  ASSERT_EQ(mkdir(ro.c_str(), 0555), 0);
  auto p = start({"-d", "-c", write_config(), "-P", ro + "/vorn.pid"});
  EXPECT_EQ(p->wait_exit(), 1);
  EXPECT_NE(p->err().find("path exists but is not accessible for writing: " + ro),
            std::string::npos);
  EXPECT_NE(p->err().find("Could not create PID file output directory '" + ro + "'"),
            std::string::npos);
}

TEST_F(ServerdTest, DaemonModeWritesTheDetachedChildsPid) {
  std::string pid_file = dir_ / "vorn.pid";
  auto p = start({"-n", "-c", write_config(), "-P", pid_file});
  EXPECT_EQ(p->wait_exit(), 0) << "the starting process returns at once";
  ASSERT_TRUE(vorn::test::wait_until([&] { return !vorn::test::read_file(pid_file).empty(); },
                                     vorn::test::milliseconds(10000)));
  pid_t child = std::stoi(vorn::test::read_file(pid_file));
  EXPECT_NE(child, p->pid());
  EXPECT_TRUE(vorn::test::process_alive(child));
  kill(child, SIGTERM);
  EXPECT_TRUE(vorn::test::wait_until([&] { return !vorn::test::process_alive(child); },
                                     vorn::test::milliseconds(10000)));
}

TEST_F(ServerdTest, TooDeepInstallationStopsBeforeLogging) {
  // The program's directory is long enough that root + "/provider/etc" reaches
  // 4096 characters while the program path itself stays below PATH_MAX.
  std::string deep = dir_.path();
  while (deep.size() < 4078) {
    deep += "/" + std::string(std::min<size_t>(200, 4078 - deep.size() - 1), 'd');
  }
  ASSERT_TRUE(vorn::fs::make_path(deep));
  std::string copy = deep + "/vorn-serverd";
  {
    std::ifstream in(kServerd, std::ios::binary);
    std::ofstream out(copy, std::ios::binary);
    out << in.rdbuf();
  }
  ASSERT_EQ(chmod(copy.c_str(), 0755), 0);
  Process p({copy, "-d", "-c", write_config()}, dir_.path());
  EXPECT_EQ(p.wait_exit(), 1);
  EXPECT_EQ(p.out(),
            "The binary is located in a directory that is too deep for this tool to function "
            "properly\n");
  EXPECT_EQ(p.err(), "");
}

}  // namespace
