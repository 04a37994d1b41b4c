#pragma once
// The result store in a PostgreSQL server (database_backend "postgresql"),
// for sites whose several collecting servers write into one database.
//
// Tables (schema.h): vorn_1 and vorn_latest as in SQLite, and
// vorn_result_ids for exactly-once. They are created when missing, under an
// advisory lock, so that servers starting together do not race; a vorn_1
// found with other columns is not written into.
//
// Writing: write() only checks a row and appends it to a buffer in COPY's
// binary layout (outputs byte for byte, base64 decoded as in SQLite). flush()
// copies the rows' identities into vorn_result_ids and the rows into vorn_1
// with two binary COPYs in one transaction, sent as one query string: one
// round trip per group commit rather than one per row. vorn_latest is brought
// up to the rows about once a second, as in SQLite; since with several
// servers rowids are taken before their transactions commit, each server's
// rows not yet in vorn_latest are noted by a mark of its own, set in the
// transaction of its rows, that readers go by (schema.h).
//
// Exactly once across servers: an identity is a row of vorn_result_ids
// under a unique key, in the transaction of its result's row. A result sent
// again through another server is thus stored once even while the first
// server's transaction is still open: the second COPY waits for it and fails
// (unique_violation) once it commits. The store then looks up which of its
// results are stored already, leaves them out (found_stored_at_commit) and
// commits the rest; duplicates are rare (a restart, a fail-over), so the
// common commit pays for no lookup. Identities go in in key order so that two
// servers adding the same ones wait for each other rather than deadlock.
// They are forgotten by hour of end time, as in SQLite: vorn_result_id_hours
// says when each hour was last stored into, and an hour nothing was stored
// into for kRememberSeconds (and a minute) is deleted, a batch with a commit
// at most once every kForgetEveryMs, found by the primary key.
//
// Failures: no connection, a server shutting down or starting up, a
// read-only server (a standby after fail-over), a full disk, a deadlock or
// any error that names no row drop the connection and report retry; the
// writer writes the rows again later over a new connection. Only a value
// PostgreSQL refuses (text that is not UTF-8, a constraint an administrator
// added) loses its row: write() refuses what it can see, and a commit that
// meets a refusal stores its rows one by one, logging each lost one.
//
// Retention: with `retention` set, a retention_sweeper deletes expired rows
// on a connection of its own (postgresql_retention.cc), started once the
// tables exist.
//
// Thread safety: one thread at a time, as the database interface says.

#include <libpq-fe.h>

#include <array>
#include <atomic>
#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <string_view>
#include <unordered_set>
#include <vector>

#include "daemon/src/config/config.h"
#include "daemon/src/database/database.h"
#include "daemon/src/database/pq.h"

class retention_sweeper;

class postgresql : public database {
 public:
  static constexpr int64_t kForgetEveryMs = 1000;
  static constexpr int64_t kFoldEveryMs = 1000;
  static constexpr int64_t kNoteHourEveryMs = 60 * 1000;
  // Identities forgotten at once: at least this many, and twice as many as
  // were stored since the last time, so forgetting keeps up.
  static constexpr int64_t kForgetAtLeast = 1024;

  // Does not connect yet. Without `exactly_once` (for measuring what it
  // costs, never in a server) every result is stored, known or not.
  explicit postgresql(const daemon_config& config, bool exactly_once = true);
  // Commits what was written.
  ~postgresql() override;

  using database::write;
  write_status write(const result_view& record, const result_identity* identity) override;
  bool exactly_once() const override { return exactly_once_; }
  commit_result flush() override;
  std::string last_error() const override { return last_error_; }
  uint64_t found_stored_at_commit() const override { return found_stored_; }
  void give_up_waiting_at(int64_t mono_ms) override {
    give_up_at_.store(mono_ms, std::memory_order_relaxed);
  }

  // Connects and creates the tables unless connected; false with
  // last_error() when it cannot.
  bool connect();
  // After a failed connect(): the server answered and refused in a way that
  // waiting will not mend (a password, a database or role that does not
  // exist, a vorn_1 of another layout).
  bool refused_for_good() const { return refused_for_good_; }

 private:
  // known: a result of the commit is stored already.
  enum class failure { none, may_pass, refused, known };
  struct staged_row {
    size_t begin = 0;  // its tuple in copy_
    size_t end = 0;
    std::string provider;
    std::string host;
    result_identity identity;
    bool stored_already = false;  // found at the commit
    bool lost = false;            // refused at the commit
  };
  struct identity_hash {
    size_t operator()(const std::array<unsigned char, result_identity::kHashSize>& h) const;
  };

  // Runs `sql`; false (last_error, failure_) when PostgreSQL did not take it.
  bool command(const char* sql, const char* what);
  // Checks `result`; false as command().
  bool check(pq_result result, const char* what, pq_result* out = nullptr);
  // Runs a COPY ... FROM STDIN (FORMAT binary) of the tuples in `pieces`.
  bool copy_in(const char* sql, const char* what, const std::vector<std::string_view>& pieces);
  // Sends the tuples in `pieces` to a COPY that asked for them, and ends it.
  bool send_copy(const char* what, const std::vector<std::string_view>& pieces);
  // COPY's binary tuples of the identities of `batch`, and its rows' tuples.
  std::string identity_tuples(const std::vector<size_t>& batch) const;
  std::vector<std::string_view> result_pieces(const std::vector<size_t>& batch) const;
  // Begins a transaction, copies the rows `batch` and their identities in
  // and commits: as begin(), store() and COMMIT, in one round trip and the
  // COPYs' own.
  bool store_and_commit(const std::vector<size_t>& batch);
  // Copies the rows `batch` (indexes into rows_) and their identities in,
  // in the open transaction.
  bool store(const std::vector<size_t>& batch);
  bool copy_identities(const std::vector<size_t>& batch, const char* sql);
  bool copy_results(const std::vector<size_t>& batch);
  // Begins a transaction that marks its rows pending unless the mark is
  // already (begin_sql() is its text).
  bool begin();
  std::string begin_sql() const;
  // Folds the rows of this server's pending mark, and of marks of servers
  // that are gone, into vorn_latest; drops the connection on a failure.
  bool fold_latest();
  // The statement, ending in "; ", that notes the hours of end time of the
  // rows `batch` in vorn_result_id_hours; those noted in the last
  // kNoteHourEveryMs are left out, and none may be.
  std::string note_hours_sql(const std::vector<size_t>& batch);
  // After a commit of rows: their mark is set, their hours noted.
  void transaction_committed();
  // fold_latest() when something is pending and the last was kFoldEveryMs
  // ago.
  void fold_when_due();
  // Marks the rows whose result is stored already, in a transaction of its
  // own.
  bool find_stored();
  bool forget_old_identities();
  std::vector<size_t> unstored_rows() const;
  // Stores the rows one by one after a refusal, each behind a savepoint.
  commit_result store_one_by_one();
  // After the commit: counts and lets go of the rows.
  commit_result committed();
  // Drops the connection and the rows after a failure that may pass.
  commit_result give_up_transaction();
  void clear_rows();

  const daemon_config& config_;
  const bool exactly_once_;
  pq_connection connection_;
  std::string copy_;  // the tuples of rows_ for vorn_1, without COPY's header and trailer
  std::vector<staged_row> rows_;
  std::unordered_set<std::array<unsigned char, result_identity::kHashSize>, identity_hash>
      identities_;  // of rows_
  std::string last_error_;
  failure failure_ = failure::none;
  std::string sqlstate_;  // of the last failure, when PostgreSQL named one
  bool refused_for_good_ = false;
  uint64_t found_stored_ = 0;
  std::string mark_;      // this server's row of vorn_latest_marks, while connected
  bool pending_ = false;  // the mark is set: committed rows wait for the next fold
  int64_t last_fold_ms_ = 0;
  std::map<int64_t, int64_t> hours_noted_;  // hour of end time -> when noted, as committed
  std::vector<int64_t> hours_noting_;       // in the open transaction
  std::atomic<int64_t> give_up_at_{0};
  int64_t last_forget_ms_ = 0;
  int64_t stored_since_forget_ = 0;
  std::unique_ptr<retention_sweeper> retention_;
};

// Checks that libpq can read `url` as a connection string or URI; if not,
// *error is one line saying why, without any password it holds.
bool valid_database_url(const std::string& url, std::string* error);

// The PostgreSQL store for the server: none when the url is not valid or the
// server refuses for good (logged). A server not reachable yet is waited for:
// the store is returned and connects when it can.
std::unique_ptr<database> open_postgresql(const daemon_config& config);
