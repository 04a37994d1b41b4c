#include "daemon/src/cli/metrics.h"

#include <charconv>
#include <cmath>
#include <system_error>

#include "daemon/src/cli/format.h"

namespace vorn::cli {

namespace {

// The shortest text that reads back as the same double; the format's own
// words for the values that are not numbers.
std::string number(double value) {
  if (std::isnan(value)) {
    return "NaN";
  }
  if (std::isinf(value)) {
    return value > 0 ? "+Inf" : "-Inf";
  }
  char text[32];
  auto [end, error] = std::to_chars(text, text + sizeof text, value);
  return error == std::errc() ? std::string(text, end) : "NaN";
}

}  // namespace

std::string escape_label_value(const std::string& value) {
  std::string valid = valid_utf8(value);
  std::string out;
  out.reserve(valid.size());
  for (char c : valid) {
    switch (c) {
      case '\\':
        out += "\\\\";
        break;
      case '"':
        out += "\\\"";
        break;
      case '\n':
        out += "\\n";
        break;
      default:
        out += c;
    }
  }
  return out;
}

std::string exposition(const std::vector<Summary>& latest, int64_t results_total) {
  // The labels of each key are escaped once and shared by its four series.
  std::vector<std::string> labels;
  labels.reserve(latest.size());
  for (const Summary& row : latest) {
    labels.push_back("{provider=\"" + escape_label_value(row.provider) + "\",host=\"" +
                     escape_label_value(row.host) + "\",option_set=\"" +
                     escape_label_value(row.option_set) + "\"} ");
  }
  std::string out;
  out.reserve(latest.size() * 4 * 96 + 1024);
  auto family = [&](const char* name, const char* help, auto value) {
    out += std::string("# HELP ") + name + " " + help + "\n# TYPE " + name + " gauge\n";
    for (size_t i = 0; i < latest.size(); ++i) {
      out += name;
      out += labels[i];
      out += value(latest[i]);
      out += '\n';
    }
  };
  family("vorn_result_exit_status",
         "Exit status of the latest result of each provider, host and option set.",
         [](const Summary& row) { return std::to_string(row.exit_status); });
  family("vorn_result_timed_out",
         "1 when the latest result was killed at its time-out (its exit status then says "
         "nothing), else 0.",
         [](const Summary& row) { return std::string(row.timed_out ? "1" : "0"); });
  family("vorn_result_timestamp_seconds", "End of the run of the latest result, in Unix seconds.",
         [](const Summary& row) { return std::to_string(row.timestamp); });
  family("vorn_result_duration_seconds", "Run time of the latest result.",
         [](const Summary& row) { return number(row.duration); });
  out +=
      "# HELP vorn_results_total Results the server has stored.\n"
      "# TYPE vorn_results_total counter\n"
      "vorn_results_total " +
      std::to_string(results_total) + "\n";
  return out;
}

}  // namespace vorn::cli
