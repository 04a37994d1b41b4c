#include "daemon/src/cli/query.h"

#include <algorithm>
#include <limits>
#include <map>
#include <tuple>
#include <utility>

#include "daemon/src/cli/health.h"
#include "daemon/src/database/schema.h"
#include "daemon/src/provider/result.h"

namespace vorn::cli {

namespace {

// The columns of a Summary, in the order read_summary takes them; ?9 says
// whether to read the start of the output, whose first 1024 bytes hold the
// first line (a longer one is cut). The end of standard error tells a run
// killed at its time-out (daemon/src/provider/result.h); only that much of it
// is read.
std::string summary_columns(const Connection& connection) {
  static_assert(kTimeOutLineMax == 64, "the tail read below holds the whole line");
  return "r.rowid, coalesce(r.Provider, ''), coalesce(r.Hostname, ''), coalesce(r.OptionID, ''), "
         "coalesce(r.Exit_status, 0), coalesce(r.Timestamp, 0), coalesce(r.Duration, 0), "
         "CASE WHEN ?9 = 1 THEN " +
         connection.first_bytes("r.STDOUT", 1024) + " END, " +
         connection.last_bytes("r.STDERR", 64);
}

Summary read_summary(const Rows& s) {
  Summary row;
  row.rowid = s.integer(0);
  row.provider = s.bytes(1);
  row.host = s.bytes(2);
  row.option_set = s.bytes(3);
  row.exit_status = s.integer(4);
  row.timestamp = s.integer(5);
  row.duration = s.real(6);
  row.stdout_first_line = first_line(s.bytes(7));
  row.timed_out = killed_at_time_out(s.bytes(8));
  return row;
}

}  // namespace

std::string first_line(const std::string& output) {
  std::string line = output.substr(0, output.find('\n'));
  if (!line.empty() && line.back() == '\r') {
    line.pop_back();
  }
  return line;
}

Store::Store(const Database& database) : connection_(connect(database)) {
  if (!connection_->has_table("vorn_1")) {
    throw StoreError(describe(database) + " is not a vorn database (it has no table vorn_1)");
  }
}

// The head of a query whose `ids` are the rowids of the latest rows; read in
// the snapshot of the query, so that the two agree.
std::string Store::latest_ids() {
  if (!connection_->has_table("vorn_latest")) {
    return vorn::schema::kLatestIdsByScan;
  }
  return connection_->has_table("vorn_latest_marks") ? vorn::schema::kLatestIdsWithMarks
                                                     : vorn::schema::kLatestIds;
}

std::vector<Summary> Store::latest(const Filter& filter, bool with_output) {
  Snapshot snapshot(connection_.get());
  std::string sql = latest_ids() + "SELECT " + summary_columns(*connection_) + " FROM " +
                    connection_->latest_rows();
  auto s = connection_->query(sql, {{1, text_value(filter.provider)},
                                    {2, text_value(filter.host)},
                                    {9, integer_value(with_output ? 1 : 0)}});
  std::vector<Summary> rows;
  while (s->next()) {
    rows.push_back(read_summary(*s));
  }
  std::sort(rows.begin(), rows.end(), [](const Summary& a, const Summary& b) {
    return std::tie(a.provider, a.host, a.option_set) < std::tie(b.provider, b.host, b.option_set);
  });
  return rows;
}

std::vector<Health> Store::health(bool judge_staleness) {
  Snapshot snapshot(connection_.get());

  // A health row's output is a few hundred bytes; a longer one is cut, not
  // read whole, and what is cut off is not a key of it.
  std::string sql = latest_ids() + "SELECT " + summary_columns(*connection_) + ", " +
                    connection_->first_bytes("r.STDOUT", 4096) + ", " +
                    connection_->first_bytes("r.STDERR", 1024) + " FROM " +
                    connection_->latest_rows();
  std::vector<Health> rows;
  for (const char* provider : {kNodeHealthProvider, kServerHealthProvider}) {
    auto s = connection_->query(
        sql, {{1, text_value(provider)}, {2, text_value(std::nullopt)}, {9, integer_value(0)}});
    std::vector<Health> found;
    while (s->next()) {
      Health health;
      health.row = read_summary(*s);
      health.output = s->bytes(9);
      health.row.stdout_first_line = first_line(health.output);
      health.reason = first_line(s->bytes(10));
      found.push_back(std::move(health));
    }
    std::sort(found.begin(), found.end(), [](const Health& a, const Health& b) {
      return std::tie(a.row.host, a.row.rowid) < std::tie(b.row.host, b.row.rowid);
    });
    for (Health& health : found) {
      // A host's option sets come in the order they were stored; the last is
      // its newest.
      if (!rows.empty() && rows.back().row.provider == health.row.provider &&
          rows.back().row.host == health.row.host) {
        rows.back() = std::move(health);
      } else {
        rows.push_back(std::move(health));
      }
    }
  }
  if (!judge_staleness) {
    return rows;
  }

  // The health rows' timestamps, newest stored first, until every host has
  // shown two intervals or the bound is reached. A host whose newest row lies
  // beyond the bound has none to show, and is not waited for.
  const int64_t bound = results_total() - kHealthScanRows;
  std::map<std::pair<std::string, std::string>, size_t> index;
  size_t settled = 0;
  for (size_t i = 0; i < rows.size(); ++i) {
    index[{rows[i].row.provider, rows[i].row.host}] = i;
    settled += rows[i].row.rowid <= bound ? 1 : 0;
  }
  std::vector<std::vector<int64_t>> times(rows.size());
  auto scan = connection_->query(
      "SELECT rowid, Provider, coalesce(Hostname, ''), coalesce(Timestamp, 0) "
      "FROM vorn_1 WHERE rowid > ?1 AND Provider IN (?2, ?3) ORDER BY rowid DESC",
      {{1, integer_value(bound)},
       {2, text_value(kNodeHealthProvider)},
       {3, text_value(kServerHealthProvider)}});
  while (settled < rows.size() && scan->next()) {
    auto found = index.find({scan->bytes(1), scan->bytes(2)});
    if (found == index.end()) {
      continue;
    }
    std::vector<int64_t>& seen = times[found->second];
    if (seen.size() < 3 && scan->integer(0) <= rows[found->second].row.rowid) {
      seen.push_back(scan->integer(3));
      settled += seen.size() == 3 ? 1 : 0;
    }
  }
  std::map<std::string, std::vector<int64_t>> by_provider;
  for (size_t i = 0; i < rows.size(); ++i) {
    rows[i].interval = health_interval(times[i]);
    if (rows[i].interval) {
      by_provider[rows[i].row.provider].push_back(*rows[i].interval);
    }
  }
  std::map<std::string, std::optional<int64_t>> typical;
  for (const auto& [provider, intervals] : by_provider) {
    typical[provider] = median(intervals);
  }
  for (Health& health : rows) {
    health.stale_after = health_stale_after(health.interval, typical[health.row.provider]);
  }
  return rows;
}

std::vector<Summary> Store::history(const std::string& provider,
                                    const std::optional<std::string>& host,
                                    std::optional<int64_t> since, int64_t limit) {
  // Walks the table backwards from the newest row and stops at the limit:
  // cheap for a provider that runs often, a full scan for a rare one.
  std::string sql = "SELECT " + summary_columns(*connection_) +
                    " FROM vorn_1 r WHERE coalesce(r.Provider, '') = ?1"
                    " AND (?2 IS NULL OR coalesce(r.Hostname, '') = ?2)"
                    " AND (?3 IS NULL OR r.Timestamp >= ?3)"
                    " ORDER BY r.rowid DESC LIMIT ?4";
  auto s = connection_->query(
      sql, {{1, text_value(provider)},
            {2, text_value(host)},
            {3, integer_value(since)},
            {4, integer_value(limit < 0 ? std::numeric_limits<int64_t>::max() : limit)},
            {9, integer_value(1)}});
  std::vector<Summary> rows;
  while (s->next()) {
    rows.push_back(read_summary(*s));
  }
  return rows;
}

std::optional<Result> Store::result(int64_t rowid) {
  std::string sql = "SELECT " + summary_columns(*connection_) +
                    ", r.STDOUT, r.STDERR, coalesce(r.node_names, ''), coalesce(r.num_nodes, 0), "
                    "coalesce(r.version, 0), coalesce(r.row_timestamp, 0) "
                    "FROM vorn_1 r WHERE r.rowid = ?1";
  auto s = connection_->query(sql, {{1, integer_value(rowid)}, {9, integer_value(0)}});
  if (!s->next()) {
    return std::nullopt;
  }
  Result row;
  static_cast<Summary&>(row) = read_summary(*s);
  row.stdout_data = s->bytes(9);
  row.stdout_first_line = first_line(row.stdout_data);
  row.stderr_data = s->bytes(10);
  row.node_names = s->bytes(11);
  row.num_nodes = s->integer(12);
  row.version = s->integer(13);
  row.stored_at = s->integer(14);
  return row;
}

int64_t Store::results_total() {
  auto s = connection_->query("SELECT coalesce(max(rowid), 0) FROM vorn_1", {});
  return s->next() ? s->integer(0) : 0;
}

std::vector<Summary> stale(const std::vector<Summary>& latest, int64_t now, int64_t older_than,
                           const StaleLimits& own) {
  std::map<std::pair<std::string, std::string>, const Summary*> newest;
  for (const Summary& row : latest) {
    const Summary*& pair = newest[{row.provider, row.host}];
    if (pair == nullptr ||
        std::tie(row.timestamp, row.rowid) > std::tie(pair->timestamp, pair->rowid)) {
      pair = &row;
    }
  }
  std::vector<Summary> silent;
  for (const auto& entry : newest) {
    auto limit = own.find(entry.first);
    if (now - entry.second->timestamp > (limit != own.end() ? limit->second : older_than)) {
      silent.push_back(*entry.second);
    }
  }
  return silent;
}

StaleLimits stale_limits(const std::vector<Health>& health) {
  StaleLimits limits;
  for (const Health& h : health) {
    limits[{h.row.provider, h.row.host}] = h.stale_after;
  }
  return limits;
}

std::vector<Summary> failing(const std::vector<Summary>& latest) {
  std::vector<Summary> rows;
  std::copy_if(latest.begin(), latest.end(), std::back_inserter(rows),
               [](const Summary& row) { return is_failing(row); });
  return rows;
}

StorePool::Lease StorePool::take() {
  {
    std::lock_guard<std::mutex> lock(mutex_);
    if (!idle_.empty()) {
      std::unique_ptr<Store> store = std::move(idle_.back());
      idle_.pop_back();
      return Lease(this, std::move(store));
    }
  }
  return Lease(this, std::make_unique<Store>(database_));
}

void StorePool::give_back(std::unique_ptr<Store> store) {
  if (store) {
    std::lock_guard<std::mutex> lock(mutex_);
    idle_.push_back(std::move(store));
  }
}

}  // namespace vorn::cli
