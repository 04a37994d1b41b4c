#pragma once
// The daemons' own rows: every heartbeat_period each vorn-noded stores a
// result of provider "vorn-noded" about itself, and vorn-serverd one of
// "vorn-serverd", their standard output "key=value" lines (README, "Health
// rows"). They are ordinary results to every listing; this is what `vorn`
// makes of them beyond that.
//
// When a health row is stale: the database holds no period for it, so each
// host's rows show theirs. A row is stale when it is older than three times
// the host's interval: the longer of the two intervals between its three
// newest health rows (the longer, so that a restart between two rows does not
// pass for a short period; the one, of only two). A host with fewer than two
// health rows among the last kHealthScanRows results stored (a new one, one
// silent for long, one whose rows are hours apart in a large cluster) takes
// the median interval of the other hosts of its provider, or, without any,
// the default heartbeat period.
//
// Thread safety: functions of their arguments only.

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace vorn::cli {

inline constexpr const char* kNodeHealthProvider = "vorn-noded";
inline constexpr const char* kServerHealthProvider = "vorn-serverd";

// A health row is stale after this many of its host's intervals.
inline constexpr int64_t kHealthIntervalsToStale = 3;
// The daemons' default heartbeat_period, seconds, for hosts whose interval
// nothing tells.
inline constexpr int64_t kDefaultHeartbeatPeriod = 3600;
// How far back the intervals are looked for: a bound on the rows read, about
// a tenth of a second of reading in a database of ten million results.
inline constexpr int64_t kHealthScanRows = 1000000;

bool is_health_provider(const std::string& provider);

// Calls field(key, value) for each "key=value" line of a health row's
// output, in order, with views into it; a line without "=" or with an empty
// key is left out, and a CR before the line break dropped. A key may come
// more than once: its first line is the one that counts. Nothing is
// allocated, so that thousands of rows cost little.
template <typename Field>
void for_each_health_field(std::string_view output, Field field) {
  while (!output.empty()) {
    size_t end = output.find('\n');
    std::string_view line = output.substr(0, end);
    output.remove_prefix(end == std::string_view::npos ? output.size() : end + 1);
    if (!line.empty() && line.back() == '\r') {
      line.remove_suffix(1);
    }
    size_t equals = line.find('=');
    if (equals != std::string_view::npos && equals > 0) {
      field(line.substr(0, equals), line.substr(equals + 1));
    }
  }
}

// A value as a finite number ("5", "0.25", "-1", "1e3"); nothing for any
// other text ("3.1.2", "tcp://...", "", "nan", " 5").
std::optional<double> health_number(std::string_view value);

// The longer of the positive intervals between the three newest timestamps
// of a host's health rows (`newest_first`, at most the first three read);
// nothing without one.
std::optional<int64_t> health_interval(const std::vector<int64_t>& newest_first);

// Seconds after which a host's newest health row is stale: three of its own
// interval, or else three of `typical` (its peers'), or else of the default
// heartbeat period.
int64_t health_stale_after(std::optional<int64_t> interval, std::optional<int64_t> typical);

// The median of `intervals` (the lower middle one of an even count); nothing
// for none.
std::optional<int64_t> median(std::vector<int64_t> intervals);

}  // namespace vorn::cli
