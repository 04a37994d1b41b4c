#pragma once
// How results are shown: an aligned table for a terminal, tab-separated lines
// for a pipe, one JSON object per line for programs; and the texts of times
// the command line takes ("10m", "2026-11-20").
//
// The three listings carry the same columns: rowid, provider, host, option
// set, exit status, age, duration and the first line of standard output.
// Stored texts are bytes from the wire: a table shows control characters
// escaped (an escape sequence in an output must not drive the terminal), a
// tab-separated line escapes backslash, tab, CR and newline as \\, \t, \r and
// \n, and JSON replaces bytes that are not UTF-8 with U+FFFD.
//
// Thread safety: functions of their arguments only.

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

#include "daemon/src/cli/query.h"

namespace vorn::cli {

// "42s", "3m", "2h", "5d": whole units, rounded down; negative ages are "0s".
std::string format_age(int64_t seconds);

// "0.25s", "12s", "3m20s".
std::string format_duration(double seconds);

// `text` with every byte sequence that is not UTF-8 replaced by U+FFFD.
std::string valid_utf8(const std::string& text);

nlohmann::json summary_json(const Summary& row, int64_t now);
nlohmann::json result_json(const Result& row);
// A host's newest health row: who, when, its interval (null when not seen)
// and the age at which it is stale, its key=value lines as texts ("fields")
// and the first line of its standard error ("reason").
nlohmann::json health_json(const Health& health, int64_t now);

// One line (newline included) of compact JSON.
std::string json_line(const nlohmann::json& value);

std::string tsv_line(const Summary& row, int64_t now);

struct TableStyle {
  int width = 0;        // terminal columns; 0 when unknown (nothing is cut)
  bool colour = false;  // ANSI colours for failing rows
};

// Header and rows aligned in columns; failing rows start with "!".
std::string table(const std::vector<Summary>& rows, int64_t now, const TableStyle& style);

// A length of time: a whole number with an optional unit s, m, h, d or w,
// several of them in a row ("1h30m"). Seconds; nothing for anything else.
std::optional<int64_t> parse_duration(const std::string& text);

// A point in time for --since: a duration back from `now` ("1h"), a local date
// ("2026-11-20", its midnight), a local date and time ("2026-11-20T08:30" or
// "2026-11-20 08:30:15"), or "@" and Unix seconds. Unix seconds; nothing for
// anything else.
std::optional<int64_t> parse_since(const std::string& text, int64_t now);

}  // namespace vorn::cli
