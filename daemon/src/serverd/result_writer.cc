#include "daemon/src/serverd/result_writer.h"

#include <pthread.h>

#include <algorithm>
#include <chrono>
#include <limits>

#include "daemon/src/serverd/health.h"
#include "util/czmq.h"
#include "util/log.h"
#include "util/str.h"

namespace {

constexpr const char* kLogSource = "daemon/src/serverd";
constexpr int64_t kNoDeadline = std::numeric_limits<int64_t>::max();
// How often a stopping server looks for the second stop signal.
constexpr int kInterruptCheckMs = 50;

}  // namespace

result_writer::result_writer(database* store, const daemon_config& config)
    : store_(store),
      config_(config),
      slots_(kSlots),
      refused_(kSlots, false),
      identify_ahead_(store != nullptr && store->exactly_once()),
      identities_(identify_ahead_ ? kSlots : 0),
      thread_([this] { run(); }) {}

result_writer::~result_writer() {
  finish(kNoDeadline);
}

void result_writer::finish(int64_t deadline_ms) {
  {
    std::unique_lock<std::mutex> lock(mutex_);
    if (!stopping_) {
      stopping_ = true;
      deadline_ms_ = deadline_ms;
      if (store_ != nullptr && deadline_ms != kNoDeadline) {
        store_->give_up_waiting_at(deadline_ms);
      }
    }
    work_.notify_one();
    while (!finished_) {
      done_.wait_for(lock, std::chrono::milliseconds(kInterruptCheckMs));
      if (zsys_interrupted && !finished_ && deadline_ms_ > zclock_mono()) {
        // A second stop signal: what the database takes now is stored, the
        // rest stays with its senders.
        deadline_ms_ = zclock_mono();
        if (store_ != nullptr) {
          store_->give_up_waiting_at(deadline_ms_);
        }
        work_.notify_one();
      }
    }
  }
  if (thread_.joinable()) {
    thread_.join();
  }
}

received_message* result_writer::free_slot_locked() {
  bool room = head_ - released_ < kSlots && (queued_bytes_ < kMaxQueuedBytes || head_ == released_);
  return room ? &slots_[head_ % kSlots] : nullptr;
}

received_message* result_writer::free_slot() {
  std::lock_guard<std::mutex> lock(mutex_);
  return free_slot_locked();
}

received_message* result_writer::push() {
  if (identify_ahead_) {
    // The slot is the receiving thread's until it is queued: the hash is
    // made here, beside the writing thread's inserts rather than before them.
    identities_[queued_ % kSlots] = identify(slots_[queued_ % kSlots].result());
  }
  std::lock_guard<std::mutex> lock(mutex_);
  queued_bytes_ += slots_[head_ % kSlots].total_size();
  ++head_;
  ++queued_;
  server_health_counters().writer_queue.store(head_ - released_, std::memory_order_relaxed);
  if (writer_waiting_) {
    work_.notify_one();
  }
  return free_slot_locked();
}

void result_writer::request_commit(uint64_t sequence) {
  std::lock_guard<std::mutex> lock(mutex_);
  if (sequence > commit_requested_) {
    commit_requested_ = sequence;
    if (writer_waiting_) {
      work_.notify_one();
    }
  }
}

bool result_writer::write_batch(std::unique_lock<std::mutex>& lock, uint64_t end) {
  uint64_t begin = written_;
  lock.unlock();
  size_t bytes = 0;
  uint64_t stored = 0;
  uint64_t duplicates = 0;
  std::string error;
  uint64_t i = begin;
  for (; i < end; ++i) {
    size_t slot = i % kSlots;
    received_message& message = slots_[slot];
    if (refused_[slot]) {
      bytes += message.total_size();
      continue;
    }
    result_view result = message.result();
    if (store_ == nullptr) {
      dump_result(result, config_);
      ++stored;
    } else {
      write_status status = store_->write(result, identify_ahead_ ? &identities_[slot] : nullptr);
      if (status == write_status::retry) {
        error = store_->last_error();
        break;
      }
      // A result stored before (sent again after a restart of the server)
      // is done like any other: its sender's request is answered.
      stored += status == write_status::written;
      duplicates += status == write_status::duplicate;
      if (status == write_status::refused) {
        // Logged once: a rewind skips it.
        refused_[slot] = true;
        VORN_LOG(1) << "Error writing to database. Data lost! (data provider '"
                    << vorn::str::printable(result.header.name) << "' from "
                    << vorn::str::printable(result.header.hostname) << ")";
      }
    }
    bytes += message.total_size();
  }
  lock.lock();
  if (i < end) {
    trouble(lock, error);
    return false;
  }
  if (written_ == released_ && begin < end) {
    first_uncommitted_ms_ = zclock_mono();
  }
  written_ = end;
  uncommitted_bytes_ += bytes;
  uncommitted_stored_ += stored;
  uncommitted_duplicates_ += duplicates;
  if (store_ == nullptr) {
    // A text dump is as durable as it gets once written.
    commit(lock);
  }
  return true;
}

void result_writer::commit(std::unique_lock<std::mutex>& lock) {
  uint64_t begin = released_;
  uint64_t end = written_;
  lock.unlock();
  // A commit that fails for good has said so itself, with the count lost.
  commit_result result = store_ != nullptr ? store_->flush() : commit_result::committed;
  std::string error;
  if (result == commit_result::retry) {
    error = store_->last_error();
  } else if (result == commit_result::file_replaced) {
    // The rows went into a file nobody can find: they are written again,
    // into the new one, and the requests waiting for them go unanswered.
    lock.lock();
    written_ = released_;
    uncommitted_bytes_ = 0;
    uncommitted_stored_ = 0;
    uncommitted_duplicates_ = 0;
    file_replacements_.fetch_add(1, std::memory_order_release);
    return;
  } else {
    for (uint64_t i = begin; i < end; ++i) {
      slots_[i % kSlots].clear();
      refused_[i % kSlots] = false;
    }
  }
  lock.lock();
  if (result == commit_result::retry) {
    trouble(lock, error);
    return;
  }
  server_health& health = server_health_counters();
  if (in_trouble_) {
    in_trouble_ = false;
    int64_t now = zclock_mono();
    health.database_unavailable_ms.fetch_add(now - trouble_since_ms_, std::memory_order_relaxed);
    health.unavailable_since_ms.store(0, std::memory_order_relaxed);
    VORN_LOG(5) << "Database writable again after " << (now - trouble_since_ms_ + 500) / 1000
                << " s; the results kept meanwhile are stored";
  }
  if (result == commit_result::committed) {
    uint64_t late =
        std::min(store_ != nullptr ? store_->found_stored_at_commit() : 0, uncommitted_stored_);
    uncommitted_stored_ -= late;
    uncommitted_duplicates_ += late;
    health.results_stored.fetch_add(uncommitted_stored_, std::memory_order_relaxed);
    health.duplicates_dropped.fetch_add(uncommitted_duplicates_, std::memory_order_relaxed);
    report_duplicates(uncommitted_duplicates_);
  }
  uncommitted_stored_ = 0;
  uncommitted_duplicates_ = 0;
  released_ = end;
  queued_bytes_ -= uncommitted_bytes_;
  uncommitted_bytes_ = 0;
  health.writer_queue.store(head_ - released_, std::memory_order_relaxed);
  committed_.store(end, std::memory_order_release);
}

void result_writer::report_duplicates(uint64_t committed) {
  unreported_duplicates_ += committed;
  uint64_t suppressed = 0;
  if (unreported_duplicates_ > 0 && duplicate_reports_.allow(zclock_mono(), &suppressed)) {
    VORN_LOG(5) << unreported_duplicates_
                << " result(s) received again were stored already and are not stored twice "
                   "(sent again by nodes that missed an answer)";
    unreported_duplicates_ = 0;
  }
}

void result_writer::trouble(std::unique_lock<std::mutex>&, const std::string& error) {
  int64_t now = zclock_mono();
  server_health& health = server_health_counters();
  health.database_retries.fetch_add(1, std::memory_order_relaxed);
  if (!in_trouble_) {
    in_trouble_ = true;
    trouble_since_ms_ = now;
    health.unavailable_since_ms.store(now, std::memory_order_relaxed);
    retry_delay_ms_ = kFirstRetryMs;
    VORN_LOG(3) << "Database unavailable (" << error << "): keeping " << head_ - released_
                << " received results and retrying; receiving pauses while the queue is full";
  } else {
    retry_delay_ms_ = std::min(retry_delay_ms_ * 2, kMaxRetryMs);
  }
  retry_at_ms_ = now + retry_delay_ms_;
  // The database rolled the transaction back: everything since the last
  // commit is written again.
  written_ = released_;
  uncommitted_bytes_ = 0;
  uncommitted_stored_ = 0;
  uncommitted_duplicates_ = 0;
}

bool result_writer::wait_for_retry(std::unique_lock<std::mutex>& lock) {
  for (;;) {
    int64_t now = zclock_mono();
    if (stopping_ && now >= deadline_ms_) {
      return false;
    }
    if (now >= retry_at_ms_) {
      return true;
    }
    int64_t until = stopping_ ? std::min(retry_at_ms_, deadline_ms_) : retry_at_ms_;
    work_.wait_for(lock, std::chrono::milliseconds(until - now));
  }
}

bool result_writer::should_commit(int64_t now) const {
  bool requested = commit_requested_ > committed() && written_ >= commit_requested_;
  // Slots come back only with their commit: the receiving thread must not
  // find the ring full of rows that merely wait for it.
  bool half_full = written_ - released_ >= kSlots / 2 || uncommitted_bytes_ >= kMaxQueuedBytes / 2;
  return requested || half_full || now - first_uncommitted_ms_ >= kMaxBatchMs;
}

void result_writer::run() {
  // Named for top -H and perf.
  pthread_setname_np(pthread_self(), "vorn-writer");
  std::unique_lock<std::mutex> lock(mutex_);
  for (;;) {
    if (in_trouble_ && !wait_for_retry(lock)) {
      VORN_LOG(1) << "Stopping with " << head_ - released_
                  << " received results not stored (database unavailable); their senders "
                     "were not acknowledged and keep them";
      break;
    }
    if (head_ != written_ && !write_batch(lock, head_)) {
      continue;
    }
    bool empty = head_ == written_;
    if (written_ == released_) {
      if (empty && stopping_) {
        break;
      }
      if (empty) {
        writer_waiting_ = true;
        work_.wait(lock, [this] { return head_ != written_ || stopping_; });
        writer_waiting_ = false;
      }
      continue;
    }
    if (should_commit(zclock_mono()) || (empty && stopping_)) {
      commit(lock);
      continue;
    }
    if (empty) {
      // A pause in the stream ends the group.
      writer_waiting_ = true;
      bool more = work_.wait_for(lock, std::chrono::milliseconds(kPauseMs), [this] {
        return head_ != written_ || stopping_ || commit_requested_ > committed();
      });
      writer_waiting_ = false;
      if (!more) {
        commit(lock);
      }
    }
  }
  finished_ = true;
  done_.notify_all();
}
