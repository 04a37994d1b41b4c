#include "daemon/src/cli/metrics.h"

#include <charconv>
#include <cmath>
#include <cstring>
#include <iterator>
#include <limits>
#include <optional>
#include <string_view>
#include <system_error>

#include "daemon/src/cli/format.h"
#include "daemon/src/cli/health.h"

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

// A number of the health rows and the series it makes.
struct HealthSeries {
  const char* provider;
  const char* key;
  const char* name;
  const char* type;
  const char* help;
};

constexpr HealthSeries kHealthSeries[] = {
    {kNodeHealthProvider, "uptime_s", "vorn_node_uptime_seconds", "gauge",
     "Seconds since vorn-noded started, from its newest health row."},
    {kNodeHealthProvider, "files_waiting", "vorn_node_queue_files", "gauge",
     "Result files waiting in the node's output directory for the server to confirm them."},
    {kNodeHealthProvider, "oldest_waiting_s", "vorn_node_oldest_file_age_seconds", "gauge",
     "Age of the oldest waiting result file, 0 when none waits."},
    {kNodeHealthProvider, "runs", "vorn_node_runs_total", "counter",
     "Provider runs finished since vorn-noded started."},
    {kNodeHealthProvider, "failures", "vorn_node_failures_total", "counter",
     "Provider runs that failed (non-zero exit status or killed) since vorn-noded started."},
    {kNodeHealthProvider, "timeouts", "vorn_node_timeouts_total", "counter",
     "Provider runs killed at their time-out since vorn-noded started."},
    {kNodeHealthProvider, "lost", "vorn_node_lost_results_total", "counter",
     "Results that could not be written since vorn-noded started."},
    {kNodeHealthProvider, "rejected", "vorn_node_rejected_files_total", "counter",
     "Result files moved to rejected/ since vorn-noded started."},
    {kNodeHealthProvider, "sleep_mode", "vorn_node_sleep_mode", "gauge",
     "1 while the node is in sleep mode, else 0."},
    {kNodeHealthProvider, "last_progress_s", "vorn_node_last_progress_age_seconds", "gauge",
     "Seconds since the server last confirmed files of the node (or since it started)."},
    {kServerHealthProvider, "uptime_s", "vorn_server_uptime_seconds", "gauge",
     "Seconds since vorn-serverd started, from its newest health row."},
    {kServerHealthProvider, "results_stored", "vorn_server_results_stored_total", "counter",
     "Results committed since vorn-serverd started."},
    {kServerHealthProvider, "duplicates_dropped", "vorn_server_duplicates_dropped_total", "counter",
     "Results already stored and not stored again, since vorn-serverd started."},
    {kServerHealthProvider, "pub_ack_answered", "vorn_server_pub_ack_answered_total", "counter",
     "PUB_ACK requests answered since vorn-serverd started."},
    {kServerHealthProvider, "pub_ack_dropped", "vorn_server_pub_ack_dropped_total", "counter",
     "PUB_ACK requests never answered (too many waiting, or the file lost) since vorn-serverd "
     "started."},
    {kServerHealthProvider, "pub_ack_refused", "vorn_server_pub_ack_refused_total", "counter",
     "PUB_ACK requests from senders that may not store results, since vorn-serverd started."},
    {kServerHealthProvider, "database_retries", "vorn_server_database_retries_total", "counter",
     "Writes or commits tried again since vorn-serverd started."},
    {kServerHealthProvider, "database_unavailable_s",
     "vorn_server_database_unavailable_seconds_total", "counter",
     "Seconds the database was unavailable since vorn-serverd started, a spell still going on "
     "included."},
    {kServerHealthProvider, "writer_queue", "vorn_server_writer_queue", "gauge",
     "Results received and not yet committed."},
    {kServerHealthProvider, "peers", "vorn_server_peers", "gauge",
     "Senders connected to the server."},
};

constexpr size_t kHealthSeriesCount = std::size(kHealthSeries);
static_assert(kHealthSeriesCount <= 32, "a row's keys seen fit in a mask");

// The series of the health rows, family by family. Each row's output is read
// once, into a slot per series (NaN: no sample).
void health_families(const std::vector<Health>& health, std::string* out) {
  const double none = std::numeric_limits<double>::quiet_NaN();
  std::vector<double> values(health.size() * kHealthSeriesCount, none);
  std::vector<std::string> labels(health.size());
  size_t bytes = 0;
  for (size_t i = 0; i < health.size(); ++i) {
    labels[i] = "{host=\"" + escape_label_value(health[i].row.host) + "\"} ";
    double* slots = &values[i * kHealthSeriesCount];
    uint32_t seen = 0;
    for_each_health_field(health[i].output, [&](std::string_view key, std::string_view value) {
      for (size_t s = 0; s < kHealthSeriesCount; ++s) {
        const HealthSeries& series = kHealthSeries[s];
        if ((seen & (1u << s)) == 0 && key == series.key &&
            health[i].row.provider == series.provider) {
          seen |= 1u << s;
          slots[s] = health_number(value).value_or(none);
        }
      }
    });
    for (size_t s = 0; s < kHealthSeriesCount; ++s) {
      // A server that does not know its peers says -1.
      if (std::string_view(kHealthSeries[s].key) == "peers" && slots[s] < 0) {
        slots[s] = none;
      }
      bytes +=
          std::isnan(slots[s]) ? 0 : std::strlen(kHealthSeries[s].name) + labels[i].size() + 24;
    }
  }
  out->reserve(out->size() + bytes + kHealthSeriesCount * 256);
  for (size_t s = 0; s < kHealthSeriesCount; ++s) {
    const HealthSeries& series = kHealthSeries[s];
    bool started = false;
    for (size_t i = 0; i < health.size(); ++i) {
      double value = values[i * kHealthSeriesCount + s];
      if (std::isnan(value)) {
        continue;
      }
      if (!started) {
        *out += std::string("# HELP ") + series.name + " " + series.help + "\n# TYPE " +
                series.name + " " + series.type + "\n";
        started = true;
      }
      *out += series.name;
      *out += labels[i];
      *out += number(value);
      *out += '\n';
    }
  }
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

std::string exposition(const std::vector<Summary>& latest, int64_t results_total,
                       const std::vector<Health>& health) {
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
  health_families(health, &out);
  return out;
}

}  // namespace vorn::cli
