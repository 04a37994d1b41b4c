#pragma once
// The result store: one row of table vorn_1 per received result.
//
// open_database opens the configured SQLite file (in WAL mode with
// synchronous=NORMAL: a committed row survives a crash of the process). A file
// that SQLite finds is not a database or is corrupt, or a directory in its
// place, is moved aside to "<file>.<YYYYMMDD>.bad" (".bad.1", ".bad.2", ...
// when that exists) and a fresh one is started in its place. Any other
// failure leaves the file alone and yields no store.
//
// Rows written in quick succession share a transaction, which costs one
// commit instead of hundreds. The store commits by itself every kMaxBatch
// (1000) rows; its writer (daemon/src/serverd/result_writer.h) calls flush
// when the stream pauses, at the latest 100 ms after the first row of the
// transaction, and before a PUB_ACK is answered. A commit that another
// process's lock postpones leaves the rows in the open transaction for the
// next attempt.
//
// Copying the write-ahead log back into the database file (a checkpoint, with
// its fsyncs) happens on a thread of the store's own with its own connection,
// so the receiving thread never waits for it.
//
// Thread safety: the object is owned by the entry routine; write and flush
// are called from one thread at a time. Never carry an open store across
// fork().

#include <memory>

#include "daemon/src/config/config.h"
#include "daemon/src/database/storix1.h"
#include "daemon/src/provider/result.h"

enum class commit_result {
  committed,  // every row written so far is durable
  postponed,  // the database is busy; the rows wait in the open transaction
  lost,       // the transaction was rolled back (logged)
};

class database {
 public:
  database() = default;
  database(const database&) = delete;
  database& operator=(const database&) = delete;
  virtual ~database() = default;

  // Stores one result; false on any failure (already logged). The outputs
  // are bound where they lie, not copied.
  virtual bool write(const result_view& record) = 0;

  // Commits every result written so far.
  virtual commit_result flush() { return commit_result::committed; }
};

class wal_checkpointer;

class sqlite : public database {
 public:
  static constexpr int kMaxBatch = 1000;

  explicit sqlite(const daemon_config& config);
  ~sqlite() override;
  bool write(const result_view& record) override;
  commit_result flush() override;
  bool usable() const { return connection_ != nullptr; }
  // The SQLite code that made the store unusable; 0 when none is known.
  int open_error() const { return open_error_; }

 private:
  storix1::Owned<storix1::Connection> connection_;
  std::unique_ptr<wal_checkpointer> checkpointer_;
  int uncommitted_ = 0;  // rows in the open transaction
  int open_error_ = 0;
  bool in_transaction_ = false;
};

// None when the backend is not sqlite3 or the file cannot be used even after
// moving it aside.
std::unique_ptr<database> open_database(const daemon_config* config);
