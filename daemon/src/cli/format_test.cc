// Tests of the texts vorn prints and reads: ages, times, escapes.

#include "daemon/src/cli/format.h"

#include <gtest/gtest.h>

#include "daemon/src/cli/metrics.h"

namespace {

using vorn::cli::Summary;

TEST(Format, Ages) {
  struct Row {
    int64_t seconds;
    const char* want;
  } rows[] = {
      {-5, "0s"},  // a node's clock ahead of the server's
      {42, "42s"}, {59, "59s"}, {60, "1m"}, {3599, "59m"}, {7200, "2h"}, {86400 * 3 + 5, "3d"},
  };
  for (const Row& row : rows) {
    EXPECT_EQ(vorn::cli::format_age(row.seconds), row.want) << row.seconds;
  }
}

TEST(Format, LengthsAndPointsOfTime) {
  const int64_t now = 2000000000;
  struct Row {
    std::string text;
    std::optional<int64_t> since;  // what parse_since makes of it
  } rows[] = {
      {"90", now - 90},
      {"10m", now - 600},
      {"1h30m", now - 5400},
      {"2w", now - 14 * 86400},
      {"@1700000000", 1700000000},
      {"1h30", std::nullopt},  // thirty what?
      {"10x", std::nullopt},
      {"", std::nullopt},
      {"99999999999999999999s", std::nullopt},
      {"2026-13-01", std::nullopt},
      {"2026-11-20 trailing", std::nullopt},
  };
  for (const Row& row : rows) {
    EXPECT_EQ(vorn::cli::parse_since(row.text, now), row.since) << row.text;
  }
  // Dates are local: the midnight that mktime makes of them.
  std::tm midnight{};
  midnight.tm_year = 2026 - 1900;
  midnight.tm_mon = 10;
  midnight.tm_mday = 20;
  midnight.tm_isdst = -1;
  int64_t t = std::mktime(&midnight);
  EXPECT_EQ(vorn::cli::parse_since("2026-11-20", now), t);
  EXPECT_EQ(vorn::cli::parse_since("2026-11-20T08:30", now), t + 8 * 3600 + 1800);
}

TEST(Format, BytesFromTheWire) {
  struct Row {
    const char* comment;
    std::string in;
    std::string utf8;   // valid_utf8
    std::string label;  // escape_label_value
  } rows[] = {
      {"plain", "node1", "node1", "node1"},
      {"the format's three escapes", "a\"b\\c\nd", "a\"b\\c\nd", "a\\\"b\\\\c\\nd"},
      {"a stray byte", "x\xffy", "x\xEF\xBF\xBDy", "x\xEF\xBF\xBDy"},
      {"a cut sequence", "\xC3", "\xEF\xBF\xBD", "\xEF\xBF\xBD"},
      {"an overlong slash", "\xC0\xAF", "\xEF\xBF\xBD\xEF\xBF\xBD", "\xEF\xBF\xBD\xEF\xBF\xBD"},
      {"a surrogate", "\xED\xA0\x80", "\xEF\xBF\xBD\xEF\xBF\xBD\xEF\xBF\xBD",
       "\xEF\xBF\xBD\xEF\xBF\xBD\xEF\xBF\xBD"},
      {"four bytes", "\xF0\x9F\x98\x80", "\xF0\x9F\x98\x80", "\xF0\x9F\x98\x80"},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.comment);
    EXPECT_EQ(vorn::cli::valid_utf8(row.in), row.utf8);
    EXPECT_EQ(vorn::cli::escape_label_value(row.in), row.label);
  }
}

TEST(Format, Listings) {
  Summary ok{7, "disk", "node1", "None", 0, 1000, 0.25, "fine\tand\\well"};
  Summary bad{12, "load\n", "node2", "None", 3, 880, 75, "\x1b[2Jgone away now"};
  // Killed at its time-out: exit status 0, and failing all the same.
  Summary hung{13, "hang", "node3", "None", 0, 940, 60, "", true};
  EXPECT_EQ(vorn::cli::tsv_line(ok, 1042),
            "7\tdisk\tnode1\tNone\t0\t42s\t0.25s\tfine\\tand\\\\well\n");
  EXPECT_EQ(vorn::cli::tsv_line(hung, 1000), "13\thang\tnode3\tNone\t0 T\t1m\t1m00s\t\n");
  EXPECT_EQ(vorn::cli::json_line(vorn::cli::summary_json(bad, 1000)),
            "{\"age_seconds\":120,\"duration_seconds\":75.0,\"exit_status\":3,\"host\":\"node2\","
            "\"option_set\":\"None\",\"provider\":\"load\\n\",\"rowid\":12,"
            "\"stdout_first_line\":\"\\u001b[2Jgone away now\",\"timed_out\":false,"
            "\"timestamp\":880}\n");
  EXPECT_EQ(vorn::cli::summary_json(hung, 1000).at("timed_out"), true);
  // Failing rows marked, control characters shown instead of obeyed, the
  // output cut to the terminal's width.
  EXPECT_EQ(vorn::cli::table({ok, bad, hung}, 1000, {70, false}),
            "  ROWID  PROVIDER  HOST   OPTIONS  EXIT  AGE  DURATION  OUTPUT\n"
            "      7  disk      node1  None        0  0s   0.25s     fine\\tand\\well\n"
            "!    12  load\\x0A  node2  None        3  2m   1m15s     \\x1B[2Jgone a\xE2\x80\xA6\n"
            "!    13  hang      node3  None      0 T  1m   1m00s\n");
}

}  // namespace
