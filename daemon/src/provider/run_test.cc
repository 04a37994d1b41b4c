// Provider runs with real commands, and output files read back byte for byte.

#include "daemon/src/provider/run.h"

#include <sys/stat.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include "tests/support/results.h"
#include "tests/support/test_support.h"
#include "util/str.h"

namespace {

using namespace vorn::test;

provider make_provider(const std::string& name, const std::string& command) {
  provider p;
  set_provider_defaults(p, "/etc/" + name + ".xml");
  p.command = command;
  return p;
}

TEST(RunProviderTest, CommandLine) {
  daemon_config config;
  vorn::str::copy(config.provider_auxiliary_path, "/opt/aux");
  provider p = make_provider("pair", "probe %PROVIDER_AUXILIARY_PATH%/x %PROVIDER_AUXILIARY_PATH%");
  p.min_nodes = 2;
  p.nodefile = "/tmp/nodefile.abc";
  EXPECT_EQ(provider_command_line(p, config, "A=1 ", 100),
            "VORN_TIMEOUT=100 A=1 VORN_DP_NODEFILE=/tmp/nodefile.abc probe /opt/aux/x /opt/aux");
  p.min_nodes = 1;  // a single-node provider gets no node file
  EXPECT_EQ(provider_command_line(p, config, "", 60), "VORN_TIMEOUT=60 probe /opt/aux/x /opt/aux");
}

// A cluster run, and its output file: header, outputs and node list in a row.
TEST(RunProviderTest, ClusterRunFillsTheResultAndItsOutputFile) {
  TempDir dir;
  write_file(dir / "nodes", "alpha\nbeta compute\n# gone\n\ngamma\n");
  // The assignments are words in front of the command, so they reach the
  // environment of the command, not the expansion of its own words.
  provider p = make_provider(std::string(70, 'n'),
                             "sh -c 'echo \"$VORN_TIMEOUT $VORN_PROVIDER_PROBE_X\"; "
                             "head -1 \"$VORN_DP_NODEFILE\"; printf \"e\\000\" >&2; exit 4'");
  p.min_nodes = 2;
  p.max_nodes = 3;
  p.timeout = 30;
  p.timeout_scale = timeout_scale::linear;
  p.nodefile = dir / "nodes";
  p.version = 9;
  p.encoding = provider_encoding::raw;
  daemon_config config;
  provider_result result;
  vorn::str::copy(result.header.option_id, "fast");
  timeval before;
  gettimeofday(&before, nullptr);
  ASSERT_EQ(run_provider(p, config, result, "VORN_PROVIDER_PROBE_X=\"v w\" "), 1);
  EXPECT_EQ(result.stdout_data, "90 v w\nalpha\n");  // 30 s times 3 nodes
  EXPECT_EQ(result.stderr_data, std::string("e\0", 2));
  EXPECT_EQ(result.nodes_csv, "alpha, beta, gamma");
  const result_header& h = result.header;
  EXPECT_EQ(h.api, 1);
  EXPECT_EQ(h.exit_status, 4);
  EXPECT_EQ(std::string(h.name), std::string(63, 'n'));
  EXPECT_EQ(h.encoding, 2);
  EXPECT_EQ(h.version, 9);
  EXPECT_STREQ(h.option_id, "fast") << "the option set is the caller's";
  EXPECT_EQ(h.stdout_size, 13u);
  EXPECT_EQ(h.stderr_size, 2u);
  EXPECT_EQ(h.num_nodes, 3);
  EXPECT_EQ(h.nodes_size, 18u);
  char host[256] = {};
  gethostname(host, sizeof host - 1);
  EXPECT_STREQ(h.hostname, host);
  EXPECT_GE(h.timestamp.tv_sec, before.tv_sec);
  EXPECT_EQ(p.last_run.tv_sec, h.timestamp.tv_sec);

  std::string path;
  ASSERT_EQ(write_output_file(result, dir / "out/new", &path), 1);
  EXPECT_EQ(path.rfind(dir / "out/new/" + std::string(63, 'n') + ".", 0), 0u) << path;
  struct stat st;
  ASSERT_EQ(stat(path.c_str(), &st), 0);
  EXPECT_EQ(st.st_mode & 0777, 0600u);
  EXPECT_EQ(read_file(path), std::string(reinterpret_cast<const char*>(&h), 456) +
                                 "90 v w\nalpha\n" + std::string("e\0", 2) + "alpha, beta, gamma");
}

// The node's max_output_size reaches the runner, and the cut is noted in the
// stored standard error.
TEST(RunProviderTest, OutputCapFromTheConfiguration) {
  daemon_config config;
  config.max_output_size = 1000000;
  provider p = make_provider("zeros", "head -c 3000000 /dev/zero");
  provider_result result;
  ASSERT_EQ(run_provider(p, config, result, ""), 1);
  EXPECT_EQ(result.stdout_data, std::string(1000000, '\0'));
  EXPECT_EQ(result.stderr_data,
            "vorn: standard output cut at 1000000 bytes, 2000000 bytes discarded\n");
  EXPECT_EQ(result.header.stdout_size, 1000000u);
  EXPECT_EQ(result.header.stderr_size, result.stderr_data.size());
}

// The output directory is made without a shell: blanks and shell syntax are
// parts of its name, never run.
TEST(RunProviderTest, OutputDirectoryNameIsTakenLiterally) {
  TempDir dir;
  const std::string directory = dir / "a b/x$(touch " + (dir / "PWNED") + ")/`id`;c";
  provider_result result = sample_result("probe", "out");
  std::string path;
  ASSERT_EQ(write_output_file(result, directory, &path), 1);
  EXPECT_EQ(path.rfind(directory + "/probe.", 0), 0u) << path;
  EXPECT_EQ(access((dir / "PWNED").c_str(), F_OK), -1);

  // A plain file where a level should be stops it, and is named.
  write_file(dir / "file", "x");
  testing::internal::CaptureStderr();
  EXPECT_EQ(write_output_file(result, dir / "file/sub"), 0);
  std::string log = testing::internal::GetCapturedStderr();
  EXPECT_NE(log.find("cannot create directory '" + (dir / "file") + "' (17): File exists"),
            std::string::npos)
      << log;
}

}  // namespace
