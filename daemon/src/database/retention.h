#pragma once
// Retention: rows of vorn_1 older than the configured `retention` are
// deleted by a thread of the store's own, with its own connection, a small
// batch per transaction, so that the thread that receives and commits
// results is never the one that deletes (schema.h has the statements and
// why the newest row always stays).
//
// The sweeper is the same for every store; a store gives it a
// retention_store that runs one batch on the sweeper's connection. A pass
// starts at the oldest row and walks windows of kBatchRows rows in rowid
// order while the last row of each window has expired; passes repeat every
// pass_interval_ms(retention).
//
// SQLite has one writer at a time, and its busy handler sleeps in steps of
// up to 20 ms: a store whose writer and sweeper share one file pass a
// write_turns between them instead, so that each waits at most one
// transaction of the other, first come first served, and neither can starve
// the other. PostgreSQL locks rows, not the database, and needs none: a
// writer waits for a batch only where both touch one vorn_latest entry.

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <thread>

#include "daemon/src/database/storix1.h"

// First come, first served between a store's writer and its sweeper.
class write_turns {
 public:
  // Waits for the turn; false (without it) once closed.
  bool take();
  void give_back();
  // Lets every waiter go without its turn: the turns are not used again.
  void close();

 private:
  std::mutex mutex_;
  std::condition_variable next_;
  uint64_t issued_ = 0;
  uint64_t serving_ = 0;
  bool closed_ = false;
};

struct retention_batch {
  bool window = false;     // some row follows the window's start
  int64_t window_end = 0;  // rowid of the window's last row
  bool window_end_expired = false;
  int64_t deleted = 0;
};

class retention_store {
 public:
  retention_store() = default;
  retention_store(const retention_store&) = delete;
  retention_store& operator=(const retention_store&) = delete;
  virtual ~retention_store() = default;
  // In one transaction: the window of `rows` rows after rowid `after`
  // (kRetentionWindow), then kForgetExpiredLatest and kDeleteExpired with
  // `cutoff`. Returns 0, or the store's error code with *error set and the
  // transaction rolled back.
  virtual int delete_batch(int64_t after, int64_t cutoff, int rows, retention_batch* out,
                           std::string* error) = 0;
};

// One batch on an SQLite connection of its own.
std::unique_ptr<retention_store> sqlite_retention(storix1::Owned<storix1::Connection> connection);

// One batch on a PostgreSQL connection of its own to `url`
// (postgresql_retention.cc), one server at a time of those that share the
// database, the cutoff by the database's clock.
std::unique_ptr<retention_store> postgresql_retention(const std::string& url,
                                                      int64_t retention_seconds);

// Milliseconds between passes: a tenth of the retention, within 1 s and 60 s.
int64_t pass_interval_ms(int64_t retention_seconds);

class retention_sweeper {
 public:
  // Rows per transaction: about 5 ms of deleting 1 KiB rows here (10 ms
  // when every one is the last of its key), so a writer that waits for a
  // batch waits that long at most.
  static constexpr int kBatchRows = 500;
  // After a batch that deleted rows the sweeper rests this many times as
  // long as the batch took while results are being stored (a commit within
  // the last kBusyMs), so that ingest keeps nine tenths of its rate however
  // many rows have expired; a store that stores nothing gets its expired
  // rows deleted at half of its time. Resting nine times as long left SQLite
  // ingest at 0.85 to 0.90 of its rate here; nineteen still deletes 500 rows
  // a tenth of a second when a batch takes 5 ms, more than 10,000 nodes
  // send (README, Retention).
  static constexpr int kBusyRestFactor = 19;
  static constexpr int kIdleRestFactor = 1;
  static constexpr int64_t kBusyMs = 1000;

  // With `take_turns`, every batch waits for its turn on writer_turns().
  retention_sweeper(int64_t retention_seconds, std::unique_ptr<retention_store> store,
                    bool take_turns);
  retention_sweeper(const retention_sweeper&) = delete;
  retention_sweeper& operator=(const retention_sweeper&) = delete;
  // Stops after the batch under way. The writer must not hold a turn from
  // writer_turns() any more: they go with the sweeper.
  ~retention_sweeper();

  // Called by the store after each commit, from its writer's thread.
  void note_commit() { last_commit_ms_.store(now_ms(), std::memory_order_relaxed); }

  // The turns the writer takes around each of its transactions; null
  // without take_turns.
  write_turns* writer_turns() { return turns_.get(); }

 private:
  static int64_t now_ms();
  void run();
  // One pass over the expired rows; false once stopping.
  bool sweep();

  const int64_t retention_seconds_;
  std::unique_ptr<retention_store> store_;
  std::unique_ptr<write_turns> turns_;
  std::mutex mutex_;
  std::condition_variable wake_;
  bool stopping_ = false;
  std::atomic<int64_t> last_commit_ms_{0};
  std::thread thread_;
};
