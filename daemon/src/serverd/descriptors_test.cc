// vorn-serverd started with standard descriptors closed, on a database that
// already holds a row: the file the server opens must not take descriptor 0
// (which its database check counts as a failure) nor have log lines written
// into it.

#include <signal.h>

#include <gtest/gtest.h>

#include <filesystem>

#include "tests/support/results.h"
#include "tests/support/test_support.h"

namespace {

using vorn::test::Process;
using vorn::test::TempDir;

const std::string kReady = "Accumulate server started and subscribing to 'ACCUMULATE vorn3'";

// Names in the database's directory other than the database itself and
// SQLite's companions.
std::vector<std::string> strays(const std::string& directory) {
  std::vector<std::string> names;
  for (const auto& entry : std::filesystem::directory_iterator(directory)) {
    std::string name = entry.path().filename();
    if (name != "vorn.db" && name != "vorn.db-journal" && name != "vorn.db-wal" &&
        name != "vorn.db-shm") {
      names.push_back(name);
    }
  }
  return names;
}

TEST(DescriptorsTest, ClosedStandardDescriptorsLeaveTheDatabaseAlone) {
  TempDir dir;
  const std::string db = dir / "db/vorn.db";
  const std::string config = dir / "vornd.xml";
  vorn::test::write_file(
      config,
      vorn::test::config_xml("<accumulate_port>" + std::to_string(vorn::test::free_tcp_port()) +
                             "</accumulate_port><accumulate_output_dir>" + (dir / "acc") +
                             "</accumulate_output_dir><database_file>" + db + "</database_file>"));
  {
    Process server({VORN_SERVERD_PATH, "-d", "-c", config}, dir.path());
    ASSERT_TRUE(server.wait_for_err(kReady));
    vorn::test::write_file(dir / "row.txt", "one row");
    Process sender({VORN_SEND_PATH, "-c", config, "uptime", dir / "row.txt"}, dir.path());
    ASSERT_EQ(sender.wait_exit(), 0);
    ASSERT_TRUE(vorn::test::wait_until([&] { return vorn::test::count_rows(db) == 1; },
                                       vorn::test::milliseconds(10000)));
    server.send_signal(SIGTERM);
    ASSERT_EQ(server.wait_exit(), 0);
  }
  struct Row {
    const char* comment;
    std::vector<int> closed;
  } rows[] = {
      {"standard input closed, first start", {0}},
      {"standard input closed again: a backup made by the first would be lost now", {0}},
      {"standard input and output closed", {0, 1}},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.comment);
    Process server({VORN_SERVERD_PATH, "-d", "-c", config}, dir.path(), row.closed);
    ASSERT_TRUE(server.wait_for_err(kReady));
    server.send_signal(SIGTERM);
    EXPECT_EQ(server.wait_exit(), 0);
    EXPECT_EQ(vorn::test::count_rows(db), 1);
    EXPECT_EQ(vorn::test::query(db, "PRAGMA integrity_check"),
              (std::vector<std::vector<std::string>>{{"ok"}}));
    EXPECT_EQ(strays(dir / "db"), std::vector<std::string>{});
  }
}

}  // namespace
