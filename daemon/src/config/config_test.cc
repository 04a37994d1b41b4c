#include "daemon/src/config/config.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <cstdlib>
#include <functional>

#include "tests/support/test_support.h"

namespace {

using vorn::test::TempDir;

// Reads `xml` as a configuration file; returns the status and the log text.
struct ReadResult {
  int status;
  std::string log;
};

ReadResult read_xml(const std::string& xml, daemon_config& config, const TempDir& dir) {
  std::string path = dir / "vornd.xml";
  vorn::test::write_file(path, xml);
  testing::internal::CaptureStderr();
  int status = read_config(config, path.c_str());
  return {status, testing::internal::GetCapturedStderr()};
}

std::string in_configuration(const std::string& body) {
  return "<?xml version=\"1.0\"?><configuration>" + body + "</configuration>";
}

TEST(ReadConfigTest, EmptyFileKeepsEveryDefault) {
  TempDir dir;
  daemon_config config;
  ReadResult r = read_xml(in_configuration(""), config, dir);
  ASSERT_EQ(r.status, 0);
  EXPECT_EQ(r.log, "");
  EXPECT_STREQ(config.provider_output_dir, "/var/tmp/vorn");
  EXPECT_EQ(config.provider_period, 60);
  EXPECT_EQ(config.provider_loadavg, 1.0);
  EXPECT_TRUE(config.enable_discovery);
  EXPECT_EQ(config.broadcast_port, 9077);
  EXPECT_STREQ(config.accumulate_host, "");
  EXPECT_STREQ(config.accumulate_port, "1974");
  EXPECT_STREQ(config.accumulate_output_dir, "/var/cache/vorn");
  EXPECT_EQ(config.run_mode, 0);
  EXPECT_TRUE(config.enable_adhoc_clusters);
  EXPECT_EQ(config.network_interface, "");
  EXPECT_EQ(config.network_partition, "vorn3");
  EXPECT_EQ(config.database_backend, database_backend_kind::sqlite3);
  EXPECT_EQ(config.database_file, std::string(std::getenv("HOME")) + "/.vorn/3.1.2/vorn.db");
  EXPECT_EQ(config.database_vfs, "unix-dotfile");
  EXPECT_EQ(config.database_busy_timeout_ms, 60000);
  EXPECT_EQ(config.heartbeat_period, 3600);
  EXPECT_EQ(config.timeout, 60);
  EXPECT_EQ(config.timeout_scale, timeout_scale::constant);
  EXPECT_TRUE(config.option_sets.empty());
}

TEST(ReadConfigTest, Values) {
  const std::string home = std::getenv("HOME");
  struct Row {
    const char* comment;
    std::string body;
    std::function<void(const daemon_config&)> check;
    std::string warning;  // expected log text; empty means silent
  } rows[] = {
      {"every key", R"(
         <accumulate_host>head1</accumulate_host>
         <accumulate_output_dir>/srv/acc</accumulate_output_dir>
         <accumulate_port>2001</accumulate_port>
         <broadcast_port>9999</broadcast_port>
         <database_backend>sqlite3</database_backend>
         <database_file>/srv/db/v.db</database_file>
         <enable_adhoc_clusters>false</enable_adhoc_clusters>
         <enable_discovery>false</enable_discovery>
         <heartbeat_period>10</heartbeat_period>
         <network_interface>eth1</network_interface>
         <network_partition>blue</network_partition>
         <provider_auxiliary_path>/srv/aux</provider_auxiliary_path>
         <provider_config_dir>/srv/etc</provider_config_dir>
         <provider_loadavg>2.5</provider_loadavg>
         <provider_output_dir>/srv/out</provider_output_dir>
         <provider_period>30</provider_period>
         <timeout scale="squared">90</timeout>)",
       [](const daemon_config& c) {
         EXPECT_STREQ(c.accumulate_host, "head1");
         EXPECT_STREQ(c.accumulate_output_dir, "/srv/acc");
         EXPECT_STREQ(c.accumulate_port, "2001");
         EXPECT_EQ(c.broadcast_port, 9999);
         EXPECT_EQ(c.database_file, "/srv/db/v.db");
         EXPECT_FALSE(c.enable_adhoc_clusters);
         EXPECT_FALSE(c.enable_discovery);
         EXPECT_EQ(c.heartbeat_period, 10);
         EXPECT_EQ(c.network_interface, "eth1");
         EXPECT_EQ(c.network_partition, "blue");
         EXPECT_STREQ(c.provider_auxiliary_path, "/srv/aux");
         EXPECT_STREQ(c.provider_config_dir, "/srv/etc");
         EXPECT_EQ(c.provider_loadavg, 2.5);
         EXPECT_STREQ(c.provider_output_dir, "/srv/out");
         EXPECT_EQ(c.provider_period, 30);
         EXPECT_EQ(c.timeout, 90);
         EXPECT_EQ(c.timeout_scale, timeout_scale::squared);
       },
       ""},
      {"booleans are case-sensitive", "<enable_discovery>TRUE</enable_discovery>",
       [](const daemon_config& c) { EXPECT_TRUE(c.enable_discovery); },
       "Unrecognized value for enable_discovery: 'TRUE'.  Using default.\n"},
      {"any other boolean text", "<enable_adhoc_clusters>no</enable_adhoc_clusters>",
       [](const daemon_config& c) { EXPECT_TRUE(c.enable_adhoc_clusters); },
       "Unrecognized value for enable_adhoc_clusters: 'no'.  Using default.\n"},
      {"unknown scale keeps constant", "<timeout scale=\"cubic\">30</timeout>",
       [](const daemon_config& c) {
         EXPECT_EQ(c.timeout, 30);
         EXPECT_EQ(c.timeout_scale, timeout_scale::constant);
       },
       "timeout scaling option 'cubic' did not match known options. Using default scaling "
       "value.\n"},
      {"unknown backend", "<database_backend>mysql</database_backend>",
       [](const daemon_config& c) {
         EXPECT_EQ(c.database_backend, database_backend_kind::sqlite3);
       },
       "Unknown database_backend element in '@'. Using the default instead.\n"},
      {"empty host counts as present",
       "<accumulate_host></accumulate_host><accumulate_host>h</accumulate_host>",
       [](const daemon_config& c) { EXPECT_STREQ(c.accumulate_host, ""); },
       "Multiple accumulate_host elements in '@'. Using first one.\n"},
      {"port text is cut to 32 characters",
       "<accumulate_port>1234567890123456789012345678901234567890</accumulate_port>",
       [](const daemon_config& c) {
         EXPECT_STREQ(c.accumulate_port, "12345678901234567890123456789012");
       },
       ""},
      {"directories are expanded", "<provider_output_dir>~/out</provider_output_dir>",
       [&](const daemon_config& c) { EXPECT_EQ(c.provider_output_dir, home + "/out"); }, ""},
      {"non-numeric number", "<broadcast_port>many</broadcast_port>",
       [](const daemon_config& c) { EXPECT_EQ(c.broadcast_port, 0); }, ""},
      {"periods wrap through 64 bits", "<provider_period>4294967356</provider_period>",
       [](const daemon_config& c) { EXPECT_EQ(c.provider_period, 60); }, ""},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.comment);
    TempDir dir;
    daemon_config config;
    ReadResult r = read_xml(in_configuration(row.body), config, dir);
    ASSERT_EQ(r.status, 0);
    row.check(config);
    std::string want = row.warning;
    if (size_t at = want.find('@'); at != std::string::npos) {
      want.replace(at, 1, dir / "vornd.xml");
    }
    EXPECT_EQ(r.log, want);
  }
}

TEST(ReadConfigTest, EveryDuplicateIsReportedAndFirstWins) {
  struct Row {
    const char* key;
    const char* first;
    const char* message;
  } rows[] = {
      {"accumulate_host", "a", "Multiple accumulate_host elements in '"},
      {"accumulate_output_dir", "/a", "Multiple accumulate_output_dir elements in '"},
      {"accumulate_port", "1", "Multiple accumulate_port elements in '"},
      {"broadcast_port", "1", "Multiple broadcast_port elements in '"},
      {"database_backend", "sqlite3", "Multiple database_backend elements in '"},
      {"database_file", "/a", "Multiple database_file elements in '"},
      {"enable_adhoc_clusters", "false", "Multiple enable_adhoc_clusters elements in '"},
      {"enable_discovery", "false", "Multiple enable_discovery elements in '"},
      {"heartbeat_period", "1", "Multiple heartbeat period elements in '"},
      {"network_interface", "a", "Multiple network_interface elements in '"},
      {"network_partition", "a", "Multiple network_partition elements in '"},
      {"provider_auxiliary_path", "/a", "Multiple provider_auxiliary_path elements in '"},
      {"provider_config_dir", "/a", "Multiple provider_config_dir elements in '"},
      {"provider_loadavg", "1", "Multiple loadavg elements in '"},
      {"provider_output_dir", "/a", "Multiple provider_output_dir elements in '"},
      {"provider_period", "1", "Multiple period elements in '"},
      {"timeout", "1", "Multipe timeout value elements in '"},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.key);
    TempDir dir;
    std::string key = row.key;
    daemon_config twice;
    ReadResult r = read_xml(in_configuration("<" + key + ">" + row.first + "</" + key + "><" + key +
                                             ">2</" + key + ">"),
                            twice, dir);
    ASSERT_EQ(r.status, 0);
    EXPECT_EQ(r.log, std::string(row.message) + (dir / "vornd.xml") + "'. Using first one.\n");
  }
}

TEST(ReadConfigTest, TwoConfigurationElementsFirstMatchWins) {
  TempDir dir;
  daemon_config config;
  ReadResult r = read_xml(
      "<root><configuration><network_partition>one</network_partition></configuration>"
      "<deeper><configuration><network_partition>two</network_partition>"
      "<provider_period>7</provider_period></configuration></deeper></root>",
      config, dir);
  ASSERT_EQ(r.status, 0);
  EXPECT_EQ(config.network_partition, "one");
  EXPECT_EQ(config.provider_period, 7);  // the second element is searched too
  EXPECT_NE(r.log.find("Multiple network_partition elements in '"), std::string::npos);
}

TEST(ReadConfigTest, UnreadableFiles) {
  TempDir dir;
  struct Row {
    const char* comment;
    std::string path;
    std::string content;  // written unless empty
    int want_status;
    std::string want_log;
  } rows[] = {
      {"missing file", dir / "none.xml", "", ENOENT,
       "Error reading config file '" + (dir / "none.xml") + "' (2): No such file or directory\n"},
      {"not XML", dir / "bad.xml", "<configuration><unclosed>", -1,
       "Error reading config file '" + (dir / "bad.xml") + "'\n"},
      {"empty file", dir / "empty.xml", " ", -1,
       "Error reading config file '" + (dir / "empty.xml") + "'\n"},
      {"a directory", dir.path(), "", EISDIR,
       "Error reading config file '" + dir.path() + "' (21): Is a directory\n"},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.comment);
    if (!row.content.empty()) {
      vorn::test::write_file(row.path, row.content);
    }
    daemon_config config;
    testing::internal::CaptureStderr();
    int status = read_config(config, row.path.c_str());
    std::string log = testing::internal::GetCapturedStderr();
    EXPECT_EQ(status, row.want_status);
    EXPECT_EQ(log, row.want_log);
  }
}

}  // namespace
