#pragma once
// The Prometheus text exposition (format 0.0.4) of the latest results.
//
// Per provider, host and option set (labels provider, host, option_set):
// vorn_result_exit_status, vorn_result_timestamp_seconds (end of the run) and
// vorn_result_duration_seconds, gauges of the latest result; and the counter
// vorn_results_total, the results stored so far (Store::results_total).
//
// Per host (label host), from the numbers of its newest health row
// (health.h): vorn_node_* from "vorn-noded" rows and vorn_server_* from
// "vorn-serverd" rows, gauges and counters (the daemons' counters restart
// from 0 with them, which Prometheus takes for a reset). A key the table in
// metrics.cc does not name, a value that is not a number and a server's
// peers=-1 (unknown) make no sample; a row without any makes none at all.
//
// Label values are made valid UTF-8 (U+FFFD for other bytes) and escaped as
// the format requires: backslash, double quote and newline as \\, \" and \n.
//
// Thread safety: functions of their arguments only.

#include <cstdint>
#include <string>
#include <vector>

#include "daemon/src/cli/query.h"

namespace vorn::cli {

// The MIME type of the exposition.
inline constexpr const char* kMetricsContentType = "text/plain; version=0.0.4; charset=utf-8";

std::string exposition(const std::vector<Summary>& latest, int64_t results_total,
                       const std::vector<Health>& health = {});

std::string escape_label_value(const std::string& value);

}  // namespace vorn::cli
