// The result header as it comes off the wire.

#include "daemon/src/provider/result.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <cstring>

#include "tests/support/results.h"

namespace {

TEST(ResultHeaderTest, ForeignTextFieldsAreCutInsideTheirField) {
  provider_result r = vorn::test::sample_result("x", "o");
  std::memset(r.header.name, 'n', sizeof r.header.name);
  std::memset(r.header.hostname, 'h', sizeof r.header.hostname);
  std::memset(r.header.option_id, 'i', sizeof r.header.option_id);
  const std::string bytes(reinterpret_cast<const char*>(&r.header), kResultHeaderSize);
  result_header got;
  EXPECT_FALSE(parse_result_header(bytes.substr(0, kResultHeaderSize - 1), got));
  ASSERT_TRUE(parse_result_header(bytes, got));
  EXPECT_EQ(std::string(got.name), std::string(63, 'n'));
  EXPECT_EQ(std::string(got.hostname), std::string(255, 'h'));
  EXPECT_EQ(std::string(got.option_id), std::string(59, 'i'));
}

// Only a line of its own at the very end of standard error marks a run killed
// at its time-out.
TEST(ResultTimeOutTest, OnlyTheFinalLineCounts) {
  const std::string line = time_out_line(60);
  EXPECT_EQ(line, "vorn: killed after the time-out of 60 s\n");
  EXPECT_LE(time_out_line(INT64_MAX).size(), kTimeOutLineMax);
  struct Row {
    const char* comment;
    std::string stderr_data;
    bool timed_out;
  } rows[] = {
      {"the line alone", line, true},
      {"after output and a cut line",
       "oops\nvorn: standard error cut at 10 bytes, 5 bytes discarded\n" + line, true},
      {"quoted in the middle", "a\n" + line + "b\n", false},
      {"without its newline", line.substr(0, line.size() - 1), false},
      {"the end of a longer line", "x" + line, false},
      {"no number", "vorn: killed after the time-out of  s\n", false},
      {"nothing", "", false},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.comment);
    EXPECT_EQ(killed_at_time_out(row.stderr_data), row.timed_out);
  }
}

// People reading a result learn it at the exit status; the server's dump keeps
// its fields as they were.
TEST(ResultTimeOutTest, TextForPeopleSaysSoAtTheExitStatus) {
  provider_result r = vorn::test::sample_result("x", "o");
  r.header.exit_status = 0;
  r.stderr_data = time_out_line(5);
  r.header.stderr_size = r.stderr_data.size();
  EXPECT_NE(result_text(r, api_text::number).find("Exit status: 0 (killed after the time-out)\n"),
            std::string::npos);
  EXPECT_NE(result_text(r).find("Exit status: 0\n"), std::string::npos);
}

}  // namespace
