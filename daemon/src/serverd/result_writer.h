#pragma once
// The accumulate server's store thread. The receiving thread fills slots of a
// bounded ring with received messages and queues them; this thread writes
// them, in the order queued, to the database (or as text dumps when there is
// none), and commits them in groups: when the stream pauses for kPauseMs,
// kMaxBatchMs after the first uncommitted row at the latest, when half the
// ring waits for its commit, and at once when asked to. Receiving and
// storing thus overlap, and no output is copied between its frame and its
// row.
//
// A slot is given back only once its row is committed. When the database
// fails in a way that may pass (busy, disk full, I/O error), the rows since
// the last commit stay in their slots and are written again with back-off
// (kFirstRetryMs, doubling up to kMaxRetryMs), logged once when the trouble
// starts and once when it ends. Meanwhile the ring fills and receiving
// stops. Only a row that the database refuses for good is reported lost.
//
// A result the store holds already (write_status::duplicate: a node sent
// again what was committed but not acknowledged before a restart) is done
// like a committed one, and counted.
//
// Every queued result gets the next sequence number, from 1. committed()
// is the number up to which every result is committed, found stored
// already, or reported lost:
// the receiving thread answers an acknowledgement request once committed()
// reaches the last number queued before the request. When the database file
// was removed or replaced, the rows of the commit that found it are written
// again into the new file and file_replacements() counts it: the receiving
// thread then answers none of the requests waiting, as what their senders
// sent earlier went into the lost file.
//
// The writer keeps the server's health counters (health.h) of its side:
// results stored and found stored already (at their commit), database
// retries and spells of unavailability, and the results queued.
//
// When kSlots messages or kMaxQueuedBytes are waiting, there is no free
// slot: the receiving thread stops reading and ZeroMQ's own queues, then the
// senders, wait. Memory stays bounded however fast the senders are.
//
// Thread safety: free_slot, push, request_commit, finish and the destructor
// are for the receiving thread alone; committed for any.

#include <atomic>
#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "daemon/src/config/config.h"
#include "daemon/src/database/database.h"
#include "daemon/src/serverd/receiver.h"
#include "util/log.h"

class result_writer {
 public:
  static constexpr size_t kSlots = 1024;
  static constexpr size_t kMaxQueuedBytes = size_t{16} << 20;
  static constexpr int kPauseMs = 2;
  static constexpr int64_t kMaxBatchMs = 100;
  static constexpr int64_t kFirstRetryMs = 100;
  static constexpr int64_t kMaxRetryMs = 5000;
  static constexpr int64_t kReportMs = 10000;

  // `store` may be null: results then go to text dumps.
  result_writer(database* store, const daemon_config& config);
  result_writer(const result_writer&) = delete;
  result_writer& operator=(const result_writer&) = delete;
  // Writes and commits what is queued, then ends the thread; a database in
  // trouble is retried until `deadline_ms` (zclock_mono) at most, or until
  // CZMQ's interrupt flag (a second stop signal) is set.
  void finish(int64_t deadline_ms);
  // finish() without a deadline, unless it ran.
  ~result_writer();

  // The slot to receive the next message into, or null while the queue is
  // full.
  received_message* free_slot();
  // Queues the slot that free_slot() (or the last push) gave, holding a
  // parsed result, and returns the next free slot, or null.
  received_message* push();
  // The sequence number of the last result queued; 0 before the first.
  uint64_t last_queued() const { return queued_; }

  // Asks for a commit as soon as every result up to `sequence` is written.
  void request_commit(uint64_t sequence);
  uint64_t committed() const { return committed_.load(std::memory_order_acquire); }
  // How often the database file was found removed or replaced. A caller that
  // reads committed() first and this after sees every replacement that came
  // before that commit.
  uint64_t file_replacements() const { return file_replacements_.load(std::memory_order_acquire); }

 private:
  void run();
  // Writes slots [written_, end) with the lock released; false when the
  // database is in trouble.
  bool write_batch(std::unique_lock<std::mutex>& lock, uint64_t end);
  // Commits the rows written and gives their slots back.
  void commit(std::unique_lock<std::mutex>& lock);
  // Rewinds to the last commit and schedules the next attempt.
  void trouble(std::unique_lock<std::mutex>& lock, const std::string& error);
  // Waits (with the lock) until the next attempt is due; false when the
  // stop deadline passed first.
  bool wait_for_retry(std::unique_lock<std::mutex>& lock);
  bool should_commit(int64_t now) const;
  received_message* free_slot_locked();
  // Logs the results found stored already, as one notice per kReportMs.
  void report_duplicates(uint64_t committed);

  database* const store_;
  const daemon_config& config_;
  std::vector<received_message> slots_;
  std::vector<bool> refused_;  // per slot: refused for good, skipped by a rewind
  // Per slot, with a store that recognises results: the result's identity,
  // made by the receiving thread when it queues the slot.
  const bool identify_ahead_;
  std::vector<result_identity> identities_;
  uint64_t queued_ = 0;  // receiving thread only

  std::mutex mutex_;
  std::condition_variable work_;
  std::condition_variable done_;
  uint64_t head_ = 0;      // slots queued, ever
  uint64_t released_ = 0;  // slots committed and given back, ever
  size_t queued_bytes_ = 0;
  bool writer_waiting_ = false;
  uint64_t commit_requested_ = 0;
  bool stopping_ = false;
  int64_t deadline_ms_ = 0;  // with stopping_: when to give up retrying
  bool finished_ = false;

  // The writing thread's own record of what awaits its commit.
  uint64_t written_ = 0;  // slots written into the open transaction, ever
  size_t uncommitted_bytes_ = 0;
  uint64_t uncommitted_stored_ = 0;      // rows written since the last commit
  uint64_t uncommitted_duplicates_ = 0;  // results found stored already, since then
  uint64_t unreported_duplicates_ = 0;
  vorn::log::RateLimit duplicate_reports_{kReportMs};
  int64_t first_uncommitted_ms_ = 0;
  bool in_trouble_ = false;
  int64_t trouble_since_ms_ = 0;
  int64_t retry_delay_ms_ = 0;
  int64_t retry_at_ms_ = 0;
  std::atomic<uint64_t> committed_{0};
  std::atomic<uint64_t> file_replacements_{0};

  std::thread thread_;
};
