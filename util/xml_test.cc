#include "util/xml.h"

#include <gtest/gtest.h>

#include <cmath>

namespace {

using vorn::xml::to_integer;

TEST(XmlTest, ToIntegerIsDefinedForEveryDouble) {
  EXPECT_EQ(to_integer<int32_t>(vorn::xml::number("12.9")), 12);    // truncation
  EXPECT_EQ(to_integer<int32_t>(vorn::xml::number(" -7.5 ")), -7);  // toward zero
  EXPECT_EQ(to_integer<int32_t>(vorn::xml::number("abc")), 0);      // NaN
  EXPECT_EQ(to_integer<int32_t>(1e12), INT32_MAX);                  // saturates high
  EXPECT_EQ(to_integer<int64_t>(-1e30), INT64_MIN);                 // saturates low
  EXPECT_EQ(to_integer<uint16_t>(-3.0), 0);                         // unsigned floor
  EXPECT_EQ(to_integer<int16_t>(INFINITY), INT16_MAX);              // infinity
  // 64-bit first, then the low 32 bits, as wide configuration numbers are stored.
  EXPECT_EQ(vorn::xml::to_integer_via_64<int32_t>(4294967297.0), 1);
}

}  // namespace
