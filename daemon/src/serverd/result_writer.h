#pragma once
// The accumulate server's store thread. The receiving thread fills slots of a
// bounded ring with received messages and queues them; this thread writes
// them, in the order queued, to the database (or as text dumps when there is
// none), and commits them in groups: when the stream pauses for kPauseMs,
// kMaxBatchMs after the first uncommitted row at the latest, and at once when
// asked to. Receiving and storing thus overlap, and no output is copied
// between its frame and its row.
//
// Every queued result gets the next sequence number, from 1. committed()
// is the number up to which every result is committed or reported lost:
// the receiving thread answers an acknowledgement request once committed()
// reaches the last number queued before the request.
//
// When kSlots messages or kMaxQueuedBytes are waiting, there is no free
// slot: the receiving thread stops reading and ZeroMQ's own queues, then the
// senders, wait. Memory stays bounded however fast the senders are.
//
// Thread safety: free_slot, push, request_commit and the destructor are for
// the receiving thread alone; committed for any.

#include <atomic>
#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <mutex>
#include <thread>
#include <vector>

#include "daemon/src/config/config.h"
#include "daemon/src/database/database.h"
#include "daemon/src/serverd/receiver.h"

class result_writer {
 public:
  static constexpr size_t kSlots = 1024;
  static constexpr size_t kMaxQueuedBytes = size_t{16} << 20;
  static constexpr int kPauseMs = 2;
  static constexpr int64_t kMaxBatchMs = 100;

  // `store` may be null: results then go to text dumps.
  result_writer(database* store, const daemon_config& config);
  result_writer(const result_writer&) = delete;
  result_writer& operator=(const result_writer&) = delete;
  // Writes and commits what is queued, then ends the thread.
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

 private:
  void run();
  // Writes slots [tail_, end) with the lock released.
  void write_batch(std::unique_lock<std::mutex>& lock, uint64_t end);
  // Commits the rows written; false when the database postponed it.
  bool commit(std::unique_lock<std::mutex>& lock);
  received_message* free_slot_locked();

  database* const store_;
  const daemon_config& config_;
  std::vector<received_message> slots_;
  uint64_t queued_ = 0;  // receiving thread only

  std::mutex mutex_;
  std::condition_variable work_;
  uint64_t head_ = 0;  // slots queued, ever
  uint64_t tail_ = 0;  // slots written, ever
  size_t queued_bytes_ = 0;
  bool writer_waiting_ = false;
  uint64_t commit_requested_ = 0;
  bool stopping_ = false;

  // The writing thread's own record of what awaits its commit.
  uint64_t written_ = 0;
  bool uncommitted_ = false;
  int64_t first_uncommitted_ms_ = 0;
  bool postponed_ = false;
  int64_t postponed_ms_ = 0;
  std::atomic<uint64_t> committed_{0};

  std::thread thread_;
};
