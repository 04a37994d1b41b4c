#include "daemon/src/config/config.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <cstdlib>
#include <filesystem>
#include <functional>

#include "tests/support/test_support.h"

namespace {

using namespace vorn::test;

using Field = std::function<std::string(const daemon_config&)>;
#define FIELD(f) [](const daemon_config& c) { return text(c.f); }

// Reads `body` inside a configuration element into `config`; returns the log
// text with the file's path as '@'.
std::string read_xml(const std::string& body, daemon_config& config) {
  TempDir dir;
  std::string path = dir / "vornd.xml";
  write_file(path, "<?xml version=\"1.0\"?><configuration>" + body + "</configuration>");
  testing::internal::CaptureStderr();
  EXPECT_EQ(read_config(config, path.c_str()), 0);
  std::string log = testing::internal::GetCapturedStderr();
  for (size_t at; (at = log.find(path)) != std::string::npos;) {
    log.replace(at, path.size(), "@");
  }
  return log;
}

// Every key, given twice: the first element counts, and the second is
// reported with the key's own message.
TEST(ReadConfigTest, EveryKeyFirstElementWins) {
  const std::string home = std::getenv("HOME");
  struct Row {
    std::string key;  // with attributes, if any
    std::string value;
    Field field;
    std::string want = "";     // the field; empty: the value as written
    std::string message = "";  // empty: "Multiple <key> elements"
  } rows[] = {
      {"accumulate_host", "head1", FIELD(accumulate_host)},
      {"accumulate_listen_address", "10.0.0.1", FIELD(accumulate_listen_address)},
      {"accumulate_output_dir", "/srv/acc", FIELD(accumulate_output_dir)},
      {"accumulate_port", "2001", FIELD(accumulate_port)},
      {"broadcast_port", "9999", FIELD(broadcast_port)},
      {"curve_certificate", "~/k/s.cert_secret", FIELD(curve_certificate),
       home + "/k/s.cert_secret"},  // expanded
      {"curve_clients_dir", "/srv/keys", FIELD(curve_clients_dir)},
      {"curve_server_certificate", "/srv/s.cert", FIELD(curve_server_certificate)},
      {"database_backend", "sqlite3", FIELD(database_backend), "1"},
      {"database_backend", "postgresql", FIELD(database_backend), "2"},
      {"database_file", "/srv/db/v.db", FIELD(database_file)},
      {"database_url", "postgresql://vorn@db1/$x", FIELD(database_url)},  // not expanded
      {"enable_adhoc_clusters", "false", FIELD(enable_adhoc_clusters)},
      {"enable_discovery", "false", FIELD(enable_discovery)},
      {"drain_timeout", "0", FIELD(drain_timeout)},
      {"heartbeat_period", "10", FIELD(heartbeat_period), "", "Multiple heartbeat period elements"},
      {"max_message_size", "1", FIELD(max_message_size)},
      {"max_output_size", "9000000000", FIELD(max_output_size)},
      {"network_interface", "eth1", FIELD(network_interface)},
      {"network_partition", "blue", FIELD(network_partition)},
      {"provider_auxiliary_path", "/srv/aux", FIELD(provider_auxiliary_path)},
      {"provider_config_dir", "/srv/etc", FIELD(provider_config_dir)},
      {"provider_loadavg", "2.5", FIELD(provider_loadavg), "", "Multiple loadavg elements"},
      {"provider_output_dir", "~/out", FIELD(provider_output_dir), home + "/out"},  // expanded
      {"provider_period", "30", FIELD(provider_period), "", "Multiple period elements"},
      {"retention", "2d", FIELD(retention_seconds), "172800"},
      {"timeout scale=\"squared\"", "90", FIELD(timeout), "", "Multipe timeout value elements"},
      {"timeout scale=\"squared\"", "90", FIELD(timeout_scale), "2",
       "Multipe timeout value elements"},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.key);
    std::string name = row.key.substr(0, row.key.find(' '));
    daemon_config config;
    std::string log = read_xml(
        "<" + row.key + ">" + row.value + "</" + name + "><" + name + ">7</" + name + ">", config);
    EXPECT_EQ(row.field(config), row.want.empty() ? row.value : row.want);
    EXPECT_EQ(log, (row.message.empty() ? "Multiple " + name + " elements" : row.message) +
                       " in '@'. Using first one.\n");
  }
}

TEST(ReadConfigTest, Values) {
  const std::string home = std::getenv("HOME");
  struct Row {
    std::string body;
    Field field;
    std::string want;
    std::string log = "";
  } rows[] = {
      // An empty file keeps the defaults; this one has $HOME expanded.
      {"", FIELD(database_file), home + "/.vorn/3.1.2/vorn.db"},
      // Booleans are case-sensitive.
      {"<enable_discovery>TRUE</enable_discovery>", FIELD(enable_discovery), "true",
       "Unrecognized value for enable_discovery: 'TRUE'.  Using default.\n"},
      // An unknown scale keeps the constant one.
      {"<timeout scale=\"cubic\">30</timeout>", FIELD(timeout_scale), "0",
       "timeout scaling option 'cubic' did not match known options. Using default scaling "
       "value.\n"},
      {"<database_backend>mysql</database_backend>", FIELD(database_backend), "1",
       "Unknown database_backend element in '@'. Using the default instead.\n"},
      // An empty element counts as present.
      {"<accumulate_host></accumulate_host><accumulate_host>h</accumulate_host>",
       FIELD(accumulate_host), "", "Multiple accumulate_host elements in '@'. Using first one.\n"},
      // Blanks around a number are layout.
      {"<accumulate_port>\n  2001\n</accumulate_port>", FIELD(accumulate_port), "2001"},
      // A second configuration element is searched too; the first match wins.
      {"<configuration><network_partition>one</network_partition></configuration>"
       "<deeper><configuration><network_partition>two</network_partition>"
       "<provider_period>7</provider_period></configuration></deeper>",
       [](const daemon_config& c) { return c.network_partition + " " + text(c.provider_period); },
       "one 7", "Multiple network_partition elements in '@'. Using first one.\n"},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.body);
    daemon_config config;
    EXPECT_EQ(read_xml(row.body, config), row.log);
    EXPECT_EQ(row.field(config), row.want);
  }
}

// A number that is not whole, decimal and in range is reported with its key
// and text, and the default is kept: nothing is read "as far as it goes".
TEST(ReadConfigTest, MalformedNumbersKeepTheDefault) {
  const std::string port = "' (not a port number from 1 to 65535).  Using default.\n";
  const std::string int32 = "' (not a whole number from 0 to 2147483647).  Using default.\n";
  const std::string int64 = " to 9223372036854775807).  Using default.\n";
  struct Row {
    std::string key;
    std::string value;
    Field field;
    std::string want;  // the default
    std::string log_tail;
  } rows[] = {
      {"accumulate_port", "19x41", FIELD(accumulate_port), "1974", port},      // not port 19
      {"accumulate_port", "abc", FIELD(accumulate_port), "1974", port},        // not a random port
      {"accumulate_port", "", FIELD(accumulate_port), "1974", port},           // empty
      {"accumulate_port", "70000", FIELD(accumulate_port), "1974", port},      // above the range
      {"accumulate_port", "0", FIELD(accumulate_port), "1974", port},          // below it
      {"accumulate_port", "-5", FIELD(accumulate_port), "1974", port},         // a sign
      {"broadcast_port", "9e3", FIELD(broadcast_port), "9077", port},          // an exponent
      {"broadcast_port", "80.5", FIELD(broadcast_port), "9077", port},         // a fraction
      {"provider_period", "4294967356", FIELD(provider_period), "60", int32},  // beyond 32 bits
      {"provider_period", "1 0", FIELD(provider_period), "60", int32},         // two numbers
      {"heartbeat_period", "-1", FIELD(heartbeat_period), "3600", int32},      // negative
      {"drain_timeout", "5s", FIELD(drain_timeout), "5", int32},               // a unit
      {"max_message_size", "0", FIELD(max_message_size), "67108864",
       "' (not a whole number from 1" + int64},  // nothing would pass
      {"max_message_size", "99999999999999999999", FIELD(max_message_size), "67108864",
       "' (not a whole number from 1" + int64},  // beyond 64 bits
      {"max_output_size", "16M", FIELD(max_output_size), "16777216",
       "' (not a whole number from 1" + int64},  // a unit
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.key + " " + row.value);
    daemon_config config;
    EXPECT_EQ(read_xml("<" + row.key + ">" + row.value + "</" + row.key + ">", config),
              "Unrecognized value for " + row.key + ": '" + row.value + row.log_tail);
    EXPECT_EQ(row.field(config), row.want);
  }
}

// Retention is a duration in days, hours, minutes or seconds; anything else
// keeps every row, with a warning.
TEST(ReadConfigTest, RetentionIsADuration) {
  const std::string refused = "' (a duration such as 30d, 12h, 90m or 45s).  Using default.\n";
  struct Row {
    std::string value;
    int64_t want;
    bool warned = false;
  } rows[] = {
      {"30d", 30 * 86400},
      {"12h", 12 * 3600},
      {"90m", 90 * 60},
      {"45s", 45},
      {"600", 600},
      {" 7d\n", 7 * 86400},  // blanks are layout
      {"", 0},
      {"0", 0},
      {"0d", 0},  // keep everything
      {"1.5d", 0, true},
      {"-1d", 0, true},
      {"30 d", 0, true},
      {"2w", 0, true},
      {"d", 0, true},
      {"1000000000000", 0, true},  // too long
  };
  for (const Row& row : rows) {
    SCOPED_TRACE("'" + row.value + "'");
    daemon_config config;
    EXPECT_EQ(read_xml("<retention>" + row.value + "</retention>", config),
              row.warned ? "Unrecognized value for retention: '" + row.value + refused : "");
    EXPECT_EQ(config.retention_seconds, row.want);
  }
}

// A path the expansion refuses is never made or used: the shell syntax in it
// was meant to be run.
TEST(ReadConfigTest, PathsWithShellSyntaxKeepTheDefault) {
  TempDir dir;
  const std::string refused =
      "' (command substitution and shell syntax are not allowed in paths).  Using default.\n";
  struct Row {
    std::string key;
    std::string value;
    Field field;
    std::string want;  // the default
  } rows[] = {
      {"accumulate_output_dir", dir / "x$(touch " + (dir / "PWNED") + ")",
       FIELD(accumulate_output_dir), "/var/cache/vorn"},  // command substitution
      {"provider_output_dir", dir / "x`touch " + (dir / "PWNED") + "`", FIELD(provider_output_dir),
       "/var/tmp/vorn"},  // backquotes
      {"provider_config_dir", dir / "a;touch " + (dir / "PWNED"), FIELD(provider_config_dir),
       ""},  // a shell operator
      {"provider_auxiliary_path", "/srv/'aux", FIELD(provider_auxiliary_path),
       ""},  // an unbalanced quote
      {"database_file", "'/srv/$(x)'", FIELD(database_file),
       default_database_file()},  // quoted, so expanded, but still holding "$("
      {"provider_config_dir", "$(())", FIELD(provider_config_dir),
       ""},  // empty arithmetic, on which glibc's wordexp crashed
      {"accumulate_output_dir", "${VORN_UNSET:?}", FIELD(accumulate_output_dir),
       "/var/cache/vorn"},  // a parameter operator, on which it crashed too
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.key);
    daemon_config config;
    EXPECT_EQ(read_xml("<" + row.key + ">" + row.value + "</" + row.key + ">", config),
              "Unrecognized value for " + row.key + ": '" + row.value + refused);
    EXPECT_EQ(row.field(config), row.want);
  }
  EXPECT_FALSE(std::filesystem::exists(dir / "PWNED"));
}

// A missing file and one that is not XML are refused as vorn-serverd's tests
// show; a directory passes the access check and fails in the parser.
TEST(ReadConfigTest, DirectoryGivesTheParsersErrorNumber) {
  TempDir dir;
  daemon_config config;
  testing::internal::CaptureStderr();
  EXPECT_EQ(read_config(config, dir.path().c_str()), EISDIR);
  EXPECT_EQ(testing::internal::GetCapturedStderr(),
            "Error reading config file '" + dir.path() + "' (21): Is a directory\n");
}

}  // namespace
