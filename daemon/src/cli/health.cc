#include "daemon/src/cli/health.h"

#include <algorithm>
#include <charconv>
#include <cmath>
#include <system_error>

namespace vorn::cli {

bool is_health_provider(const std::string& provider) {
  return provider == kNodeHealthProvider || provider == kServerHealthProvider;
}

std::optional<double> health_number(std::string_view value) {
  double number = 0;
  const char* end = value.data() + value.size();
  auto [stop, error] = std::from_chars(value.data(), end, number, std::chars_format::general);
  if (value.empty() || error != std::errc() || stop != end || !std::isfinite(number)) {
    return std::nullopt;
  }
  return number;
}

std::optional<int64_t> health_interval(const std::vector<int64_t>& newest_first) {
  std::optional<int64_t> longest;
  for (size_t i = 1; i < newest_first.size() && i < 3; ++i) {
    // A clock set back, or two rows in one second, says nothing of the period.
    int64_t interval = newest_first[i - 1] - newest_first[i];
    if (interval > 0 && (!longest || interval > *longest)) {
      longest = interval;
    }
  }
  return longest;
}

int64_t health_stale_after(std::optional<int64_t> interval, std::optional<int64_t> typical) {
  return kHealthIntervalsToStale * interval.value_or(typical.value_or(kDefaultHeartbeatPeriod));
}

std::optional<int64_t> median(std::vector<int64_t> intervals) {
  if (intervals.empty()) {
    return std::nullopt;
  }
  auto middle = intervals.begin() + static_cast<std::ptrdiff_t>((intervals.size() - 1) / 2);
  std::nth_element(intervals.begin(), middle, intervals.end());
  return *middle;
}

}  // namespace vorn::cli
