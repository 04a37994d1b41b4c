#pragma once
// The result store: one row of table vorn_1 per received result.
//
// open_database opens the configured SQLite file (in WAL mode with
// synchronous=NORMAL: a committed row survives a crash of the process). A file
// that cannot be used is moved aside to "<file>.<YYYYMMDD>.bad" and a fresh one
// is started in its place.
//
// Rows written in quick succession share a transaction, which costs one
// commit instead of hundreds; flush commits it. The accumulate server flushes
// whenever its queue runs dry, so a row is committed at the latest when the
// results queued behind it have been written, and at most kMaxBatch rows wait.
//
// Copying the write-ahead log back into the database file (a checkpoint, with
// its fsyncs) happens on a thread of the store's own with its own connection,
// so the receiving thread never waits for it.
//
// Thread safety: the object is owned by the entry routine; write and flush
// are called from the accumulate server's thread only. Never carry an open
// store across fork().

#include <memory>

#include "daemon/src/config/config.h"
#include "daemon/src/database/storix1.h"
#include "daemon/src/provider/result.h"

class database {
 public:
  database() = default;
  database(const database&) = delete;
  database& operator=(const database&) = delete;
  virtual ~database() = default;

  // Stores one result; false on any failure (already logged).
  virtual bool write(const provider_result& record) = 0;

  // Makes every result written so far durable; false when some were lost
  // (logged).
  virtual bool flush() { return true; }
};

class wal_checkpointer;

class sqlite : public database {
 public:
  static constexpr int kMaxBatch = 1000;

  explicit sqlite(const daemon_config& config);
  ~sqlite() override;
  bool write(const provider_result& record) override;
  bool flush() override;
  bool usable() const { return connection_ != nullptr; }

 private:
  storix1::Owned<storix1::Connection> connection_;
  std::unique_ptr<wal_checkpointer> checkpointer_;
  int uncommitted_ = 0;  // rows in the open transaction
  bool in_transaction_ = false;
};

// None when the backend is not sqlite3 or the file cannot be used even after
// moving it aside.
std::unique_ptr<database> open_database(const daemon_config* config);
