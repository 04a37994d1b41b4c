// Installs this build tree with `cmake --install` into a fresh prefix, as a
// user would, and runs the installed server from there.

#include <glob.h>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <cstdio>

#include "tests/support/daemons.h"
#include "tests/support/results.h"
#include "tests/support/test_support.h"

namespace {

using namespace vorn::test;

const std::string kBuildDir = VORN_BUILD_DIR;

bool exists(const std::string& path) {
  struct stat st;
  return ::stat(path.c_str(), &st) == 0;
}

// The line of a unit file that starts with `key=`, without the key.
std::string unit_value(const std::string& unit, const std::string& key) {
  std::string text = read_file(unit);
  size_t at = text.find("\n" + key + "=");
  if (at == std::string::npos) {
    return "";
  }
  at += key.size() + 2;
  return text.substr(at, text.find('\n', at) - at);
}

TEST(Install, InstalledTreeRunsAndStoresAResult) {
  TempDir dir;
  const std::string prefix = dir / "prefix";
  // The install rewrites the build tree's manifest; a user's own install must keep its record.
  const std::string manifest = kBuildDir + "/install_manifest.txt";
  const bool had_manifest = exists(manifest);
  const std::string saved_manifest = read_file(manifest);
  Process install({VORN_CMAKE_COMMAND, "--install", kBuildDir, "--prefix", prefix}, dir.path());
  int install_status = install.wait_exit(std::chrono::seconds(120));
  const std::string installed = read_file(manifest);
  if (had_manifest) {
    write_file(manifest, saved_manifest);
  } else {
    std::remove(manifest.c_str());
  }
  ASSERT_EQ(install_status, 0);

  const std::string serverd = prefix + "/bin/x86_64/vorn-serverd";
  EXPECT_EQ(::access(serverd.c_str(), X_OK), 0);
  EXPECT_TRUE(exists(prefix + "/etc/vornd.xml"));
  EXPECT_TRUE(exists(prefix + "/provider/share/README"));
  glob_t providers;
  ASSERT_EQ(::glob((prefix + "/provider/etc/*.xml").c_str(), 0, nullptr, &providers), 0);
  EXPECT_GE(providers.gl_pathc, 1u);
  for (size_t i = 0; i < providers.gl_pathc; ++i) {
    struct stat st;
    ASSERT_EQ(::stat(providers.gl_pathv[i], &st), 0);
    EXPECT_EQ(st.st_mode & (S_IWGRP | S_IWOTH), 0u) << providers.gl_pathv[i];
  }
  globfree(&providers);

  for (const std::string daemon : {"vorn-serverd", "vorn-noded"}) {
    SCOPED_TRACE(daemon);
    const std::string unit = prefix + "/lib/systemd/system/" + daemon + ".service";
    const std::string exec_start = unit_value(unit, "ExecStart");
    const std::string want =
        "\"" + prefix + "/bin/x86_64/" + daemon + "\" -c \"" + prefix + "/etc/vornd.xml\" ";
    EXPECT_EQ(exec_start.substr(0, want.size()), want) << read_file(unit);
    EXPECT_EQ(unit_value(unit, "Type"), "simple");
    EXPECT_NE(installed.find(unit), std::string::npos) << "recorded in the install manifest";
  }
  // Only the server's unit: its program is certain to be installed.
  if (::access("/usr/bin/systemd-analyze", X_OK) == 0) {
    Process verify(
        {"/usr/bin/systemd-analyze", "verify", prefix + "/lib/systemd/system/vorn-serverd.service"},
        dir.path());
    EXPECT_EQ(verify.wait_exit(std::chrono::seconds(60)), 0);
  }

  const int port = free_tcp_port();
  const std::string config = dir / "vornd.xml";
  const std::string db = dir / "db/vorn.db";
  write_file(config, config_xml(server_keys(port, dir.path(), db)));
  Process server({serverd, "-d", "-c", config}, dir.path());
  ASSERT_TRUE(server.wait_for_err(kServerReady));
  const std::string output = dir / "result.txt";
  write_file(output, "from the installed tree\n");
  Process sender({VORN_SEND_PATH, "-c", config, "-e", "tcp://127.0.0.1:" + std::to_string(port),
                  "installed", output},
                 dir.path());
  EXPECT_EQ(sender.wait_exit(), 0);
  ASSERT_TRUE(wait_until([&] { return count_rows(db) == 1; }, milliseconds(10000)));
  auto rows = query(db, "SELECT Provider, CAST(STDOUT AS TEXT) FROM vorn_1");
  EXPECT_EQ(rows[0], (std::vector<std::string>{"installed", "from the installed tree\n"}));
  EXPECT_EQ(server.terminate(), 0);
}

}  // namespace
