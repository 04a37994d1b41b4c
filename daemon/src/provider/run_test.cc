// Provider runs with real commands, and output files read back byte for byte.

#include "daemon/src/provider/run.h"

#include <sys/stat.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <cstring>

#include "tests/support/test_support.h"
#include "util/str.h"

namespace {

using vorn::test::TempDir;

provider make_provider(const std::string& name, const std::string& command) {
  provider p;
  set_provider_defaults(p, "/etc/" + name + ".xml");
  p.command = command;
  return p;
}

TEST(RunProviderTest, CommandLine) {
  daemon_config config;
  vorn::str::copy(config.provider_auxiliary_path, "/opt/aux");
  provider two = make_provider("pair", "probe %PROVIDER_AUXILIARY_PATH%/x");
  two.min_nodes = 2;
  two.max_nodes = 2;
  two.nodefile = "/tmp/nodefile.abc";
  provider single = make_provider("one", "a %PROVIDER_AUXILIARY_PATH% b %PROVIDER_AUXILIARY_PATH%");
  provider plain = make_provider("plain", "uptime");
  struct Row {
    const provider& p;
    std::string environment;
    int64_t timeout;
    std::string want;
  } rows[] = {
      {two, "A=1 ", 100,
       "VORN_TIMEOUT=100 A=1 VORN_DP_NODEFILE=/tmp/nodefile.abc probe /opt/aux/x"},
      {single, "", 60, "VORN_TIMEOUT=60 a /opt/aux b /opt/aux"},
      {plain, "VORN_PROVIDER_PLAIN_X=\"1\" ", 60,
       "VORN_TIMEOUT=60 VORN_PROVIDER_PLAIN_X=\"1\" uptime"},
  };
  for (const Row& row : rows) {
    EXPECT_EQ(provider_command_line(row.p, config, row.environment, row.timeout), row.want);
  }
}

TEST(RunProviderTest, FillsTheResult) {
  // The assignments are words in front of the command, so they reach the
  // environment of the command, not the expansion of its own words.
  provider p = make_provider(
      "probe", "sh -c 'echo \"$VORN_TIMEOUT $VORN_PROVIDER_PROBE_X\"; echo e >&2; exit 4'");
  p.version = 9;
  p.encoding = provider_encoding::raw;
  daemon_config config;
  provider_result result;
  vorn::str::copy(result.header.option_id, "fast");
  timeval before;
  gettimeofday(&before, nullptr);
  ASSERT_EQ(run_provider(p, config, result, "VORN_PROVIDER_PROBE_X=\"v w\" "), 1);
  EXPECT_EQ(result.stdout_data, "60 v w\n");
  EXPECT_EQ(result.stderr_data, "e\n");
  const result_header& h = result.header;
  EXPECT_EQ(h.api, 1);
  EXPECT_EQ(h.exit_status, 4);
  EXPECT_STREQ(h.name, "probe");
  EXPECT_EQ(h.encoding, 2);
  EXPECT_EQ(h.version, 9);
  EXPECT_STREQ(h.option_id, "fast") << "the option set is the caller's";
  EXPECT_EQ(h.stdout_size, 7u);
  EXPECT_EQ(h.stderr_size, 2u);
  EXPECT_EQ(h.num_nodes, 0);
  EXPECT_EQ(h.nodes_size, 0u);
  char host[256] = {};
  gethostname(host, sizeof host - 1);
  EXPECT_STREQ(h.hostname, host);
  EXPECT_GE(h.timestamp.tv_sec, before.tv_sec);
  EXPECT_EQ(p.last_run.tv_sec, h.timestamp.tv_sec);
}

TEST(RunProviderTest, ClusterRunGetsItsNodeFileAndScaledTimeOut) {
  TempDir dir;
  vorn::test::write_file(dir / "nodes", "alpha\nbeta\ngamma\n");
  provider p = make_provider("cluster", "sh -c 'echo $VORN_TIMEOUT; cat \"$VORN_DP_NODEFILE\"'");
  p.min_nodes = 2;
  p.max_nodes = 3;
  p.timeout = 30;
  p.timeout_scale = timeout_scale::linear;
  p.nodefile = dir / "nodes";
  daemon_config config;
  provider_result result;
  ASSERT_EQ(run_provider(p, config, result, ""), 1);
  EXPECT_EQ(result.stdout_data, "90\nalpha\nbeta\ngamma\n");
  EXPECT_EQ(result.header.num_nodes, 3);
  EXPECT_EQ(result.nodes_csv, "alpha, beta, gamma");
  EXPECT_EQ(result.header.nodes_size, result.nodes_csv.size());
}

TEST(OutputFileTest, LayoutAtTheHeaderOffsets) {
  TempDir dir;
  provider p = make_provider(std::string(70, 'n'), "printf 'o\\000ut'; printf err >&2");
  daemon_config config;
  provider_result result;
  ASSERT_EQ(run_provider(p, config, result, ""), 1);
  result.nodes_csv = "a, b";
  result.header.nodes_size = 4;
  std::string path;
  ASSERT_EQ(write_output_file(result, dir / "out/new", &path), 1);
  EXPECT_EQ(path.rfind(dir / "out/new/" + std::string(63, 'n') + ".", 0), 0u) << path;
  struct stat st;
  ASSERT_EQ(stat(path.c_str(), &st), 0);
  EXPECT_EQ(st.st_mode & 0777, 0600u);

  std::string bytes = vorn::test::read_file(path);
  ASSERT_EQ(bytes.size(), 456u + 4 + 3 + 4);
  auto field = [&](size_t offset, size_t size) { return bytes.substr(offset, size); };
  uint64_t stdout_size;
  std::memcpy(&stdout_size, bytes.data() + 376, 8);
  uint64_t stderr_size;
  std::memcpy(&stderr_size, bytes.data() + 384, 8);
  uint64_t nodes_size;
  std::memcpy(&nodes_size, bytes.data() + 360, 8);
  EXPECT_EQ(bytes[0], 1);                                // api
  EXPECT_EQ(field(8, 64), std::string(63, 'n') + '\0');  // name, cut to 63
  EXPECT_EQ(std::string(bytes.data() + 104), result.header.hostname);
  EXPECT_EQ(stdout_size, 4u);
  EXPECT_EQ(stderr_size, 3u);
  EXPECT_EQ(nodes_size, 4u);
  EXPECT_EQ(field(456, 4), std::string("o\0ut", 4));
  EXPECT_EQ(field(460, 3), "err");
  EXPECT_EQ(field(463, 4), "a, b");

  provider_result back;
  std::string error;
  ASSERT_TRUE(read_output_file(path, back, &error)) << error;
  EXPECT_EQ(std::memcmp(&back.header, &result.header, 456), 0);
  EXPECT_EQ(back.stdout_data, result.stdout_data);
  EXPECT_EQ(back.stderr_data, "err");
  EXPECT_EQ(back.nodes_csv, "a, b");
}

}  // namespace
