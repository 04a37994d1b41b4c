// The result header as it comes off the wire.

#include "daemon/src/provider/result.h"

#include <gtest/gtest.h>

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

}  // namespace
