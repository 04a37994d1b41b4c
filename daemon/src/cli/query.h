#pragma once
// Reading results back from the server's database, SQLite or PostgreSQL
// (connection.h): the latest result of each provider, host and option set, a
// provider's history, one stored result.
//
// A Store reads beside a server that keeps writing; each query that takes
// more than one statement reads them in one snapshot, so it sees one
// committed state.
//
// "Latest" is by rowid, the order in which the server stored the results.
// With the server's summary table vorn_latest (daemon/src/database/schema.h)
// it costs one lookup per key plus the rows stored after the newest one the
// table accounts for; a database without that table (an older server) is
// grouped in full: slower, the same answer.
//
// Keys are the texts as stored, NULL read as ''. Listings are ordered by the
// bytes of their texts, whatever the database's collation, so that both
// backends list alike.
//
// Every failure is a StoreError whose text is one line for the user.
//
// Thread safety: a Store belongs to one thread at a time; StorePool lends
// stores to threads that serve requests.

#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "daemon/src/cli/connection.h"

namespace vorn::cli {

// One stored result as listings show it.
struct Summary {
  int64_t rowid = 0;
  std::string provider;
  std::string host;
  std::string option_set;
  int64_t exit_status = 0;
  int64_t timestamp = 0;  // end of the run, Unix seconds
  double duration = 0;    // seconds
  std::string stdout_first_line;
  // Killed at its time-out: standard error ends with the runner's line saying
  // so (daemon/src/provider/result.h), whatever the exit status.
  bool timed_out = false;
};

// A non-zero exit status, or killed at the time-out.
inline bool is_failing(const Summary& row) {
  return row.exit_status != 0 || row.timed_out;
}

// One stored result in full.
struct Result : Summary {
  std::string stdout_data;
  std::string stderr_data;
  std::string node_names;
  int64_t num_nodes = 0;
  int64_t version = 0;
  int64_t stored_at = 0;  // when the server stored it, Unix seconds
};

// The newest health row (health.h) of a provider and host, over its option
// sets.
struct Health {
  Summary row;
  std::string output;  // standard output, its first 4 KiB
  std::string reason;  // the first line of standard error: why, when in trouble
  // What its rows showed of the period, when they were found (health.h).
  std::optional<int64_t> interval;
  int64_t stale_after = 0;  // seconds; 0 unless asked for
};

struct Filter {
  std::optional<std::string> provider;
  std::optional<std::string> host;
};

// The text of `output` up to its first line break (a trailing CR dropped).
std::string first_line(const std::string& output);

class Store {
 public:
  // Opens an existing database for reading; a missing file, a file that is
  // not SQLite, a PostgreSQL server that cannot be reached, or a database
  // without the result table are StoreErrors.
  explicit Store(const Database& database);
  Store(const Store&) = delete;
  Store& operator=(const Store&) = delete;

  // Latest result of every key that `filter` admits, ordered by provider,
  // host and option set. Without `with_output`, stdout_first_line stays
  // empty and no output is read.
  std::vector<Summary> latest(const Filter& filter, bool with_output = true);

  // Results of `provider` (and `host`), newest stored first, whose run ended
  // at or after `since`; at most `limit` of them, all for a negative limit.
  std::vector<Summary> history(const std::string& provider, const std::optional<std::string>& host,
                               std::optional<int64_t> since, int64_t limit);

  std::optional<Result> result(int64_t rowid);

  // The newest health row of every provider and host, ordered by provider
  // and host; with `judge_staleness`, each with its interval and the age at
  // which it is stale, from the health rows among the last kHealthScanRows
  // results (read newest first, until every host has shown its interval).
  std::vector<Health> health(bool judge_staleness);

  // How many results the server has stored: the largest rowid, which only
  // grows, as retention never deletes the newest row (schema.h). Counting
  // the rows would read the whole table, and miss the deleted ones.
  int64_t results_total();

 private:
  std::string latest_ids();

  std::unique_ptr<Connection> connection_;
};

// A limit of its own for some provider and host pairs, seconds.
using StaleLimits = std::map<std::pair<std::string, std::string>, int64_t>;

// The newest result of each provider and host pair among `latest` (over its
// option sets) that ended more than `older_than` seconds before `now`, or
// more than the pair's own limit when `own` has one.
std::vector<Summary> stale(const std::vector<Summary>& latest, int64_t now, int64_t older_than,
                           const StaleLimits& own = {});

// The limits of the health rows (Store::health with judge_staleness).
StaleLimits stale_limits(const std::vector<Health>& health);

// The results among `latest` that are failing (is_failing).
std::vector<Summary> failing(const std::vector<Summary>& latest);

// Stores for concurrent requests: each thread borrows one, and gives it back
// when the lease ends. Stores are opened on demand and kept for reuse.
//
// Thread safety: take() may be called from any thread.
class StorePool {
 public:
  explicit StorePool(Database database) : database_(std::move(database)) {}

  class Lease {
   public:
    Lease(StorePool* pool, std::unique_ptr<Store> store) : pool_(pool), store_(std::move(store)) {}
    Lease(const Lease&) = delete;
    Lease& operator=(const Lease&) = delete;
    ~Lease() { pool_->give_back(std::move(store_)); }
    Store* operator->() const { return store_.get(); }

   private:
    StorePool* pool_;
    std::unique_ptr<Store> store_;
  };

  // Throws StoreError when no store can be opened.
  Lease take();

 private:
  void give_back(std::unique_ptr<Store> store);

  Database database_;
  std::mutex mutex_;
  std::vector<std::unique_ptr<Store>> idle_;
};

}  // namespace vorn::cli
