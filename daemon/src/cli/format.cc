#include "daemon/src/cli/format.h"

#include <cmath>
#include <cstdio>
#include <ctime>

#include "daemon/src/cli/health.h"

namespace vorn::cli {

namespace {

constexpr const char* kReplacement = "\xEF\xBF\xBD";  // U+FFFD

// Length of the UTF-8 sequence at `i`, or 0 when it is not one (overlong
// forms, surrogates and code points past U+10FFFF included).
size_t utf8_length(const std::string& s, size_t i) {
  auto byte = [&](size_t k) { return static_cast<unsigned char>(s[k]); };
  unsigned char c = byte(i);
  if (c < 0x80) {
    return 1;
  }
  size_t n = 0;
  unsigned char low = 0x80;
  unsigned char high = 0xBF;  // range of the second byte
  if (c >= 0xC2 && c <= 0xDF) {
    n = 2;
  } else if (c >= 0xE0 && c <= 0xEF) {
    n = 3;
    low = c == 0xE0 ? 0xA0 : 0x80;
    high = c == 0xED ? 0x9F : 0xBF;
  } else if (c >= 0xF0 && c <= 0xF4) {
    n = 4;
    low = c == 0xF0 ? 0x90 : 0x80;
    high = c == 0xF4 ? 0x8F : 0xBF;
  } else {
    return 0;
  }
  if (i + n > s.size() || byte(i + 1) < low || byte(i + 1) > high) {
    return 0;
  }
  for (size_t k = 2; k < n; ++k) {
    if ((byte(i + k) & 0xC0) != 0x80) {
      return 0;
    }
  }
  return n;
}

// Valid UTF-8 with C0 and C1 control characters and DEL as \xNN (\t for a
// tab), fit to show on a terminal.
std::string printable(const std::string& text) {
  std::string valid = valid_utf8(text);
  std::string out;
  out.reserve(valid.size());
  for (size_t i = 0; i < valid.size(); ++i) {
    unsigned char c = static_cast<unsigned char>(valid[i]);
    unsigned code = c;
    if (c == 0xC2 && i + 1 < valid.size()) {
      code = static_cast<unsigned char>(valid[i + 1]);  // U+0080..U+00BF
    }
    bool c1 = c == 0xC2 && code < 0xA0;
    if (c < 0x20 || c == 0x7F || c1) {
      char escaped[8];
      if (c == '\t') {
        out += "\\t";
      } else {
        std::snprintf(escaped, sizeof escaped, "\\x%02X", code);
        out += escaped;
      }
      i += c1 ? 1 : 0;
      continue;
    }
    out += static_cast<char>(c);
  }
  return out;
}

// Characters (code points) of valid UTF-8.
size_t width_of(const std::string& text) {
  size_t n = 0;
  for (char c : text) {
    n += (static_cast<unsigned char>(c) & 0xC0) != 0x80 ? 1 : 0;
  }
  return n;
}

// The first `width` characters of valid UTF-8, "…" ending a cut text.
std::string cut(const std::string& text, size_t width) {
  if (width_of(text) <= width) {
    return text;
  }
  size_t kept = 0;
  size_t i = 0;
  for (; i < text.size(); ++i) {
    if ((static_cast<unsigned char>(text[i]) & 0xC0) != 0x80 && ++kept == width) {
      break;
    }
  }
  return width == 0 ? std::string() : text.substr(0, i) + "\xE2\x80\xA6";
}

std::string escape_tsv(const std::string& text) {
  std::string out;
  out.reserve(text.size());
  for (char c : text) {
    switch (c) {
      case '\\':
        out += "\\\\";
        break;
      case '\t':
        out += "\\t";
        break;
      case '\n':
        out += "\\n";
        break;
      case '\r':
        out += "\\r";
        break;
      default:
        out += c;
    }
  }
  return out;
}

bool parse_local_time(const std::string& text, const char* format, int64_t* seconds) {
  std::tm tm{};
  const char* end = ::strptime(text.c_str(), format, &tm);
  if (end == nullptr || *end != '\0') {
    return false;
  }
  tm.tm_isdst = -1;
  std::time_t t = std::mktime(&tm);
  if (t == static_cast<std::time_t>(-1)) {
    return false;
  }
  *seconds = t;
  return true;
}

}  // namespace

std::string format_age(int64_t seconds) {
  if (seconds < 60) {
    return std::to_string(seconds < 0 ? 0 : seconds) + "s";
  }
  if (seconds < 3600) {
    return std::to_string(seconds / 60) + "m";
  }
  if (seconds < 86400) {
    return std::to_string(seconds / 3600) + "h";
  }
  return std::to_string(seconds / 86400) + "d";
}

std::string format_duration(double seconds) {
  if (!std::isfinite(seconds) || seconds < 0) {
    return "-";
  }
  char text[48];
  if (seconds < 10) {
    std::snprintf(text, sizeof text, "%.2fs", seconds);
  } else if (seconds < 60) {
    std::snprintf(text, sizeof text, "%.0fs", std::floor(seconds));
  } else if (seconds < 3600) {
    auto s = static_cast<long long>(seconds);
    std::snprintf(text, sizeof text, "%lldm%02llds", s / 60, s % 60);
  } else if (seconds < 1e12) {
    auto s = static_cast<long long>(seconds);
    std::snprintf(text, sizeof text, "%lldh%02lldm", s / 3600, s % 3600 / 60);
  } else {
    return "-";
  }
  return text;
}

std::string valid_utf8(const std::string& text) {
  std::string out;
  out.reserve(text.size());
  for (size_t i = 0; i < text.size();) {
    size_t n = utf8_length(text, i);
    if (n == 0) {
      out += kReplacement;
      ++i;
    } else {
      out.append(text, i, n);
      i += n;
    }
  }
  return out;
}

namespace {

// The exit status, and " T" when the run was killed at its time-out (its
// status then says nothing).
std::string exit_text(const Summary& row) {
  return std::to_string(row.exit_status) + (row.timed_out ? " T" : "");
}

// The fields every JSON form of a result shares.
nlohmann::json identity_json(const Summary& row) {
  return {{"rowid", row.rowid},
          {"provider", row.provider},
          {"host", row.host},
          {"option_set", row.option_set},
          {"exit_status", row.exit_status},
          {"timed_out", row.timed_out},
          {"timestamp", row.timestamp},
          {"duration_seconds", row.duration}};
}

}  // namespace

nlohmann::json summary_json(const Summary& row, int64_t now) {
  nlohmann::json out = identity_json(row);
  out["age_seconds"] = now - row.timestamp;
  out["stdout_first_line"] = row.stdout_first_line;
  return out;
}

nlohmann::json result_json(const Result& row) {
  nlohmann::json out = identity_json(row);
  out["stdout"] = row.stdout_data;
  out["stderr"] = row.stderr_data;
  out["node_names"] = row.node_names;
  out["num_nodes"] = row.num_nodes;
  out["version"] = row.version;
  out["stored_at"] = row.stored_at;
  return out;
}

nlohmann::json health_json(const Health& health, int64_t now) {
  const Summary& row = health.row;
  nlohmann::json fields = nlohmann::json::object();
  for_each_health_field(health.output, [&fields](std::string_view key, std::string_view value) {
    std::string name(key);
    if (!fields.contains(name)) {
      fields[name] = std::string(value);
    }
  });
  return {
      {"rowid", row.rowid},
      {"provider", row.provider},
      {"host", row.host},
      {"exit_status", row.exit_status},
      {"timed_out", row.timed_out},
      {"age_seconds", now - row.timestamp},
      {"interval_seconds", health.interval ? nlohmann::json(*health.interval) : nlohmann::json()},
      {"stale_after_seconds", health.stale_after},
      {"fields", fields},
      {"reason", health.reason}};
}

std::string json_line(const nlohmann::json& value) {
  // Stored texts are bytes from the wire; a byte that is not UTF-8 must not
  // cost the whole line.
  return value.dump(-1, ' ', false, nlohmann::json::error_handler_t::replace) + "\n";
}

std::string tsv_line(const Summary& row, int64_t now) {
  return std::to_string(row.rowid) + "\t" + escape_tsv(row.provider) + "\t" + escape_tsv(row.host) +
         "\t" + escape_tsv(row.option_set) + "\t" + exit_text(row) + "\t" +
         format_age(now - row.timestamp) + "\t" + format_duration(row.duration) + "\t" +
         escape_tsv(row.stdout_first_line) + "\n";
}

std::string table(const std::vector<Summary>& rows, int64_t now, const TableStyle& style) {
  using Cells = std::vector<std::string>;
  std::vector<Cells> lines;
  lines.push_back({"ROWID", "PROVIDER", "HOST", "OPTIONS", "EXIT", "AGE", "DURATION", "OUTPUT"});
  for (const Summary& row : rows) {
    lines.push_back({std::to_string(row.rowid), printable(row.provider), printable(row.host),
                     printable(row.option_set), exit_text(row), format_age(now - row.timestamp),
                     format_duration(row.duration), printable(row.stdout_first_line)});
  }
  const size_t columns = lines[0].size();
  std::vector<size_t> widths(columns, 0);
  for (const Cells& cells : lines) {
    for (size_t c = 0; c < columns; ++c) {
      widths[c] = std::max(widths[c], width_of(cells[c]));
    }
  }
  // The output column takes what the others leave of the terminal's width,
  // never less than a few characters.
  size_t before_output = 2;  // the failure mark and its blank
  for (size_t c = 0; c + 1 < columns; ++c) {
    before_output += widths[c] + 2;
  }
  size_t output_width = std::string::npos;
  if (style.width > 0) {
    size_t width = static_cast<size_t>(style.width);
    output_width = width > before_output + 10 ? width - before_output : 10;
  }
  std::string out;
  for (size_t l = 0; l < lines.size(); ++l) {
    bool failed = l > 0 && is_failing(rows[l - 1]);
    std::string line = failed ? "! " : "  ";
    for (size_t c = 0; c + 1 < columns; ++c) {
      const std::string& cell = lines[l][c];
      // Numbers are aligned to the right.
      bool numeric = c == 0 || c == 4;
      std::string pad(widths[c] - width_of(cell), ' ');
      line += numeric ? pad + cell : cell + pad;
      line += "  ";
    }
    line += cut(lines[l][columns - 1], output_width);
    while (!line.empty() && line.back() == ' ') {
      line.pop_back();
    }
    out += failed && style.colour ? "\x1b[31m" + line + "\x1b[0m\n" : line + "\n";
  }
  return out;
}

std::optional<int64_t> parse_duration(const std::string& text) {
  constexpr int64_t kLongest = int64_t{100} * 366 * 86400;  // a century, no overflow below
  if (text.empty()) {
    return std::nullopt;
  }
  int64_t total = 0;
  size_t i = 0;
  while (i < text.size()) {
    if (text[i] < '0' || text[i] > '9') {
      return std::nullopt;
    }
    int64_t number = 0;
    for (; i < text.size() && text[i] >= '0' && text[i] <= '9'; ++i) {
      number = number * 10 + (text[i] - '0');
      if (number > kLongest) {
        return std::nullopt;
      }
    }
    int64_t unit = 1;
    if (i < text.size()) {
      switch (text[i++]) {
        case 's':
          unit = 1;
          break;
        case 'm':
          unit = 60;
          break;
        case 'h':
          unit = 3600;
          break;
        case 'd':
          unit = 86400;
          break;
        case 'w':
          unit = 7 * 86400;
          break;
        default:
          return std::nullopt;
      }
    } else if (total != 0) {
      return std::nullopt;  // "1h30": thirty what?
    }
    total += number * unit;
    if (total > kLongest) {
      return std::nullopt;
    }
  }
  return total;
}

std::optional<int64_t> parse_since(const std::string& text, int64_t now) {
  if (auto back = parse_duration(text)) {
    return now - *back;
  }
  if (text.size() > 1 && text[0] == '@') {
    std::string digits = text.substr(1);
    if (digits.size() <= 12 && digits.find_first_not_of("0123456789") == std::string::npos) {
      return std::stoll(digits);
    }
    return std::nullopt;
  }
  int64_t seconds = 0;
  for (const char* format :
       {"%Y-%m-%d", "%Y-%m-%dT%H:%M", "%Y-%m-%dT%H:%M:%S", "%Y-%m-%d %H:%M", "%Y-%m-%d %H:%M:%S"}) {
    if (parse_local_time(text, format, &seconds)) {
      return seconds;
    }
  }
  return std::nullopt;
}

}  // namespace vorn::cli
