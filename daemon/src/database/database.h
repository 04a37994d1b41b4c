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
// Exactly once: a store keeps the identity of every result it stores
// (result_identity.h) in the same transaction as its row, and write() answers
// write_status::duplicate, writing nothing, for a result whose identity it
// holds: one committed before (a node sends again what the server did not
// acknowledge before it was killed), or one written earlier in the open
// transaction. Identities are kept for at least kRememberSeconds after their
// row was stored, so a result sent again within that time is stored once,
// whatever happened to the server in between; a lost database file loses
// them with its rows. The sqlite store keeps them beside vorn_1 in tables
// of their own, grouped by minute of end time, and forgets an hour of end
// time once nothing was stored into it for kRememberSeconds, a slice at the
// start of each transaction, so that forgetting never holds up a commit for
// long (sqlite_identities.h).
//
// Rows are written into an open transaction and committed together when the
// caller flushes: one commit for hundreds of rows. Its writer
// (daemon/src/serverd/result_writer.h) flushes when the stream pauses, at the
// latest 100 ms after the first row of the transaction, and before a PUB_ACK
// is answered. Table vorn_latest (schema.h) is brought up to date in the
// transaction of a commit once every kSummaryMs, and when the store closes,
// so readers find each key's newest row without a scan.
//
// A failure that may pass (SQLITE_BUSY after the busy time-out, a full disk,
// an I/O error) rolls the open transaction back and is reported as
// write_status::retry or commit_result::retry: every row since the last
// commit must be written again, later. A row that the database refuses for
// good (a constraint, a row too big) is write_status::refused and does not
// disturb the others.
//
// Copying the write-ahead log back into the database file (a checkpoint, with
// its fsyncs) happens on a thread of the store's own with its own connection,
// so the receiving thread never waits for it.
//
// With `retention` set, rows older than that are deleted by another thread
// of the store's own with its own connection, a short transaction of a few
// hundred rows at a time (retention.h). The writer and that thread take
// turns at transactions: the writer waits at most for one batch (a few
// milliseconds) before a transaction, and never inside one, so a commit is
// never held up by a delete. SQLite reuses the
// pages freed for new rows, so the file stops growing once the oldest rows
// go as fast as new ones come.
//
// Each commit ends by checking that the path still names the file the store
// opened: rows committed into a file that was removed or replaced meanwhile
// cannot be found by anyone. Then the store logs an alert, opens a fresh file
// at the path (as at start-up) and reports commit_result::file_replaced, so
// that its writer writes again every row since its last commit. While no file
// can be opened there, writes and commits report retry.
//
// Thread safety: the object is owned by the entry routine; write and flush
// are called from one thread at a time; give_up_waiting_at from any. Never
// carry an open store across fork().

#include <sys/types.h>

#include <atomic>
#include <cstdint>
#include <memory>
#include <string>
#include <unordered_map>

#include "daemon/src/config/config.h"
#include "daemon/src/database/result_identity.h"
#include "daemon/src/database/storix1.h"
#include "daemon/src/provider/result.h"

enum class write_status {
  written,    // in the open transaction
  duplicate,  // stored already (committed, or in the open transaction): nothing written
  refused,    // never to be written: the reason is last_error()
  retry,      // not now; the open transaction was rolled back (last_error())
};

enum class commit_result {
  committed,  // every row written so far is durable
  retry,      // not now; the open transaction was rolled back (last_error())
  lost,       // the file cannot hold them any more: rolled back (logged)
  // Committed into a file no longer at the path (logged): the store now
  // writes into a fresh one, and every row since the last commit must be
  // written again.
  file_replaced,
};

class database {
 public:
  database() = default;
  database(const database&) = delete;
  database& operator=(const database&) = delete;
  virtual ~database() = default;

  // Writes one result into the open transaction. The outputs are bound
  // where they lie, not copied.
  write_status write(const result_view& record) { return write(record, nullptr); }
  // The same with the record's identity (identify(record)) when the caller
  // has it already, so that hashing can be done on another thread; null for
  // the store to compute it when it needs it.
  virtual write_status write(const result_view& record, const result_identity* identity) = 0;

  // Whether write() recognises results it holds, and so needs identities.
  virtual bool exactly_once() const { return false; }

  // Commits every result written so far.
  virtual commit_result flush() { return commit_result::committed; }

  // Of the results write() took as written, how many the last committing
  // flush found stored already (by another server, meanwhile) and left out.
  virtual uint64_t found_stored_at_commit() const { return 0; }

  // Why the last write or flush did not succeed.
  virtual std::string last_error() const { return {}; }

  // A wait for another process's lock ends by `mono_ms` (zclock_mono) at the
  // latest, whatever the busy time-out: a stopping server does not wait out
  // a minute.
  virtual void give_up_waiting_at(int64_t /*mono_ms*/) {}
};

class wal_checkpointer;
class sqlite_identities;
class retention_sweeper;

// Which file a path named when looked at; known false when it named none.
struct file_identity {
  bool known = false;
  dev_t device = 0;
  ino_t inode = 0;
};

class sqlite : public database {
 public:
  // vorn_latest is brought up to date with the commit that comes this long
  // after the last time, not with every one: with thousands of hosts, nearly
  // every row of a commit is the newest of its key.
  static constexpr int64_t kSummaryMs = 1000;
  // Longest wait of a retention batch for another process's lock.
  static constexpr int kRetentionBusyMs = 100;
  // Without `exactly_once` (for measuring what it costs, never in a server)
  // every result is written, known or not.
  explicit sqlite(const daemon_config& config, bool exactly_once = true);
  ~sqlite() override;
  using database::write;
  write_status write(const result_view& record, const result_identity* identity) override;
  bool exactly_once() const override { return exactly_once_; }
  commit_result flush() override;
  std::string last_error() const override { return last_error_; }
  void give_up_waiting_at(int64_t mono_ms) override;
  bool usable() const { return connection_ != nullptr; }
  // The SQLite code that made the store unusable; 0 when none is known.
  int open_error() const { return open_error_; }

 private:
  // Ends the open transaction after a failure that may pass.
  void roll_back(std::string error);
  // Brings vorn_latest up to every row written so far, in the open
  // transaction; false when it was rolled back.
  bool write_summary();
  // Begins a transaction, forgetting a slice of old identities in it;
  // false when the caller must try again (rolled back, last_error).
  bool begin();
  // Adds the identity in the open transaction: written, duplicate, or retry
  // (rolled back).
  write_status remember(const result_identity& identity);

  // Opens the file at the configured path, creating it and its tables.
  void open();
  // After a commit: true unless the path no longer names the opened file,
  // in which case that file is let go and a fresh one opened (logged).
  bool file_in_place();
  // Takes the turn for a transaction from the retention sweeper, if there
  // is one; gives it back once no transaction is open (turn_guard, at the
  // end of every write and flush).
  void take_turn();
  void give_back_turn();
  struct turn_guard {
    explicit turn_guard(sqlite* store) : store(store) {}
    turn_guard(const turn_guard&) = delete;
    turn_guard& operator=(const turn_guard&) = delete;
    ~turn_guard() { store->give_back_turn(); }
    sqlite* store;
  };
  void start_retention();
  void stop_retention();
  // Lets the file go, with the log and index of its own at the path.
  void abandon_file();
  // Opens the file at the path after abandon_file; false (last_error) when
  // it cannot be opened, to be tried again with the next write.
  bool reopen();

  const daemon_config& config_;
  storix1::Owned<storix1::Connection> connection_;
  std::unique_ptr<wal_checkpointer> checkpointer_;
  std::unique_ptr<retention_sweeper> retention_;
  bool holds_turn_ = false;
  // The opened file, its write-ahead log and its index, as they were found
  // at the path after opening.
  file_identity file_;
  file_identity wal_;
  file_identity shm_;
  int uncommitted_ = 0;  // rows in the open transaction
  int open_error_ = 0;
  bool in_transaction_ = false;
  std::string last_error_;
  bool transaction_lost_ = false;  // a refused row took the transaction with it
  std::string key_;
  // Newest rowid of each "provider\0host\0option set": of the open
  // transaction, and of committed rows not yet in vorn_latest.
  std::unordered_map<std::string, int64_t> latest_;
  std::unordered_map<std::string, int64_t> summary_pending_;
  int64_t last_summary_ms_ = 0;
  bool force_summary_ = false;
  std::atomic<int64_t> give_up_at_{0};

  const bool exactly_once_;
  // Null without exactly-once, or when the file cannot keep identities.
  std::unique_ptr<sqlite_identities> identities_;
  int64_t transaction_time_ = 0;  // Unix seconds, when the open transaction began
};

// None when the backend is not sqlite3 or the file cannot be used even after
// moving it aside.
std::unique_ptr<database> open_database(const daemon_config* config);
