#include "daemon/src/cli/query.h"

#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <map>
#include <tuple>
#include <utility>

#include "daemon/src/cli/health.h"
#include "daemon/src/database/schema.h"
#include "daemon/src/provider/result.h"

namespace vorn::cli {

namespace {

// A reader waits this long for the moments the log is reset or recovered; a
// server that is merely writing never makes it wait.
constexpr int kBusyTimeoutMs = 10000;

// The columns of a Summary, in the order read_summary takes them; ?9 says
// whether to read the start of the output, whose first 1024 bytes hold the
// first line (a longer one is cut). The end of standard error tells a run
// killed at its time-out (daemon/src/provider/result.h); only that much of it
// is read.
constexpr const char* kSummaryColumns =
    "r.rowid, coalesce(r.Provider, ''), coalesce(r.Hostname, ''), coalesce(r.OptionID, ''), "
    "coalesce(r.Exit_status, 0), coalesce(r.Timestamp, 0), coalesce(r.Duration, 0), "
    "CASE WHEN ?9 THEN substr(r.STDOUT, 1, 1024) END, "
    "substr(CAST(r.STDERR AS BLOB), -64)";
static_assert(kTimeOutLineMax == 64, "the tail read above holds the whole line");

// A prepared statement of one query, finalized when it goes.
class Statement {
 public:
  Statement(sqlite3* db, const std::string& sql, const std::string& path) : db_(db), path_(path) {
    sqlite3_stmt* raw = nullptr;
    int rc = sqlite3_prepare_v2(db, sql.c_str(), -1, &raw, nullptr);
    statement_.reset(raw);
    if (rc != SQLITE_OK) {
      fail();
    }
  }
  Statement(const Statement&) = delete;
  Statement& operator=(const Statement&) = delete;

  void bind(int position, const std::optional<std::string>& text) {
    check(text ? sqlite3_bind_text(get(), position, text->data(), static_cast<int>(text->size()),
                                   SQLITE_TRANSIENT)
               : sqlite3_bind_null(get(), position));
  }
  void bind(int position, std::optional<int64_t> number) {
    check(number ? sqlite3_bind_int64(get(), position, *number)
                 : sqlite3_bind_null(get(), position));
  }

  // True while there is a row to read.
  bool step() {
    int rc = sqlite3_step(get());
    if (rc == SQLITE_ROW) {
      return true;
    }
    if (rc != SQLITE_DONE) {
      fail();
    }
    return false;
  }

  int64_t integer(int column) const { return sqlite3_column_int64(get(), column); }
  double real(int column) const { return sqlite3_column_double(get(), column); }
  // Text or blob, byte for byte.
  std::string bytes(int column) const {
    const void* data = sqlite3_column_blob(get(), column);
    int size = sqlite3_column_bytes(get(), column);
    return data == nullptr ? std::string() : std::string(static_cast<const char*>(data), size);
  }

 private:
  struct Finalize {
    void operator()(sqlite3_stmt* statement) const { sqlite3_finalize(statement); }
  };
  sqlite3_stmt* get() const { return statement_.get(); }
  void check(int rc) {
    if (rc != SQLITE_OK) {
      fail();
    }
  }
  [[noreturn]] void fail() const {
    int code = sqlite3_extended_errcode(db_);
    if ((code & 0xff) == SQLITE_NOTADB) {
      throw StoreError(path_ + " is not a vorn database (not an SQLite file)");
    }
    // A reader of a database in WAL mode needs its shared-memory file; while
    // the server runs it is there, once it has stopped the reader must make
    // it, beside the database.
    if ((code & 0xff) == SQLITE_READONLY || (code & 0xff) == SQLITE_CANTOPEN) {
      throw StoreError("cannot read " + path_ + ": SQLite must create " + path_ +
                       "-shm, which this user may not; run vorn as the server's user, or while "
                       "the server runs");
    }
    throw StoreError("cannot read " + path_ + ": " + sqlite3_errmsg(db_));
  }

  sqlite3* db_;
  const std::string& path_;
  std::unique_ptr<sqlite3_stmt, Finalize> statement_;
};

Summary read_summary(const Statement& s) {
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

// A read transaction that ends however the reading does, so that several
// statements see one state of the database.
class ReadTransaction {
 public:
  ReadTransaction(sqlite3* db, const std::string& path) : db_(db) {
    Statement begin(db, "BEGIN", path);
    begin.step();
  }
  ReadTransaction(const ReadTransaction&) = delete;
  ReadTransaction& operator=(const ReadTransaction&) = delete;
  ~ReadTransaction() { sqlite3_exec(db_, "COMMIT", nullptr, nullptr, nullptr); }

 private:
  sqlite3* db_;
};

}  // namespace

std::string first_line(const std::string& output) {
  std::string line = output.substr(0, output.find('\n'));
  if (!line.empty() && line.back() == '\r') {
    line.pop_back();
  }
  return line;
}

Store::Store(const std::string& path) : path_(path) {
  // SQLite would report a missing file, or a directory, as "unable to open
  // database file"; the user deserves to know which.
  struct stat st;
  if (::stat(path.c_str(), &st) != 0) {
    throw StoreError("cannot open database " + path + ": " + std::strerror(errno));
  }
  if (S_ISDIR(st.st_mode)) {
    throw StoreError("cannot open database " + path + ": it is a directory");
  }
  if (::access(path.c_str(), R_OK) != 0) {
    throw StoreError("cannot open database " + path + ": " + std::strerror(errno));
  }
  sqlite3* raw = nullptr;
  int rc = sqlite3_open_v2(path.c_str(), &raw, SQLITE_OPEN_READONLY, nullptr);
  db_.reset(raw);
  if (rc != SQLITE_OK) {
    throw StoreError("cannot open database " + path + ": " +
                     (raw != nullptr ? sqlite3_errmsg(raw) : sqlite3_errstr(rc)));
  }
  sqlite3_extended_result_codes(db_.get(), 1);
  sqlite3_busy_timeout(db_.get(), kBusyTimeoutMs);
  if (!has_table("vorn_1")) {
    throw StoreError(path + " is not a vorn database (it has no table vorn_1)");
  }
}

bool Store::has_table(const char* name) {
  Statement s(db_.get(), "SELECT 1 FROM sqlite_master WHERE type = 'table' AND name = ?1", path_);
  s.bind(1, std::optional<std::string>(name));
  return s.step();
}

std::vector<Summary> Store::latest(const Filter& filter, bool with_output) {
  // Whether the summary table exists and the query are read in one
  // transaction, so that they agree.
  ReadTransaction transaction(db_.get(), path_);

  std::string sql =
      has_table("vorn_latest") ? vorn::schema::kLatestIds : vorn::schema::kLatestIdsByScan;
  sql += "SELECT ";
  sql += kSummaryColumns;
  sql += " FROM ids JOIN vorn_1 r ON r.rowid = ids.id ORDER BY 2, 3, 4";
  Statement s(db_.get(), sql, path_);
  s.bind(1, filter.provider);
  s.bind(2, filter.host);
  s.bind(9, std::optional<int64_t>(with_output ? 1 : 0));
  std::vector<Summary> rows;
  while (s.step()) {
    rows.push_back(read_summary(s));
  }
  return rows;
}

std::vector<Health> Store::health(bool judge_staleness) {
  ReadTransaction transaction(db_.get(), path_);

  // A health row's output is a few hundred bytes; a longer one is cut, not
  // read whole, and what is cut off is not a key of it.
  std::string sql =
      has_table("vorn_latest") ? vorn::schema::kLatestIds : vorn::schema::kLatestIdsByScan;
  sql += "SELECT ";
  sql += kSummaryColumns;
  sql +=
      ", substr(r.STDOUT, 1, 4096), substr(CAST(r.STDERR AS BLOB), 1, 1024) "
      "FROM ids JOIN vorn_1 r ON r.rowid = ids.id ORDER BY 2, 3, 1";
  std::vector<Health> rows;
  for (const char* provider : {kNodeHealthProvider, kServerHealthProvider}) {
    Statement s(db_.get(), sql, path_);
    s.bind(1, std::optional<std::string>(provider));
    s.bind(2, std::optional<std::string>());
    s.bind(9, std::optional<int64_t>(0));
    while (s.step()) {
      Health health;
      health.row = read_summary(s);
      health.output = s.bytes(9);
      health.row.stdout_first_line = first_line(health.output);
      health.reason = first_line(s.bytes(10));
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
  Statement scan(db_.get(),
                 "SELECT rowid, Provider, coalesce(Hostname, ''), coalesce(Timestamp, 0) "
                 "FROM vorn_1 WHERE rowid > ?1 AND Provider IN (?2, ?3) ORDER BY rowid DESC",
                 path_);
  scan.bind(1, std::optional<int64_t>(bound));
  scan.bind(2, std::optional<std::string>(kNodeHealthProvider));
  scan.bind(3, std::optional<std::string>(kServerHealthProvider));
  while (settled < rows.size() && scan.step()) {
    auto found = index.find({scan.bytes(1), scan.bytes(2)});
    if (found == index.end()) {
      continue;
    }
    std::vector<int64_t>& seen = times[found->second];
    if (seen.size() < 3 && scan.integer(0) <= rows[found->second].row.rowid) {
      seen.push_back(scan.integer(3));
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
  std::string sql = std::string("SELECT ") + kSummaryColumns +
                    " FROM vorn_1 r WHERE coalesce(r.Provider, '') = ?1"
                    " AND (?2 IS NULL OR coalesce(r.Hostname, '') = ?2)"
                    " AND (?3 IS NULL OR r.Timestamp >= ?3)"
                    " ORDER BY r.rowid DESC LIMIT ?4";
  Statement s(db_.get(), sql, path_);
  s.bind(1, std::optional<std::string>(provider));
  s.bind(2, host);
  s.bind(3, since);
  s.bind(4, std::optional<int64_t>(limit < 0 ? -1 : limit));
  s.bind(9, std::optional<int64_t>(1));
  std::vector<Summary> rows;
  while (s.step()) {
    rows.push_back(read_summary(s));
  }
  return rows;
}

std::optional<Result> Store::result(int64_t rowid) {
  std::string sql = std::string("SELECT ") + kSummaryColumns +
                    ", r.STDOUT, r.STDERR, coalesce(r.node_names, ''), coalesce(r.num_nodes, 0), "
                    "coalesce(r.version, 0), coalesce(r.row_timestamp, 0) "
                    "FROM vorn_1 r WHERE r.rowid = ?1";
  Statement s(db_.get(), sql, path_);
  s.bind(1, std::optional<int64_t>(rowid));
  s.bind(9, std::optional<int64_t>(0));
  if (!s.step()) {
    return std::nullopt;
  }
  Result row;
  static_cast<Summary&>(row) = read_summary(s);
  row.stdout_data = s.bytes(9);
  row.stdout_first_line = first_line(row.stdout_data);
  row.stderr_data = s.bytes(10);
  row.node_names = s.bytes(11);
  row.num_nodes = s.integer(12);
  row.version = s.integer(13);
  row.stored_at = s.integer(14);
  return row;
}

int64_t Store::results_total() {
  Statement s(db_.get(), "SELECT coalesce(max(rowid), 0) FROM vorn_1", path_);
  return s.step() ? s.integer(0) : 0;
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
  return Lease(this, std::make_unique<Store>(path_));
}

void StorePool::give_back(std::unique_ptr<Store> store) {
  if (store) {
    std::lock_guard<std::mutex> lock(mutex_);
    idle_.push_back(std::move(store));
  }
}

}  // namespace vorn::cli
