#include "daemon/src/serverd/result_writer.h"

#include <pthread.h>

#include <chrono>

#include "util/czmq.h"
#include "util/log.h"
#include "util/str.h"

namespace {

constexpr const char* kLogSource = "daemon/src/serverd";

}  // namespace

result_writer::result_writer(database* store, const daemon_config& config)
    : store_(store), config_(config), slots_(kSlots), thread_([this] { run(); }) {}

result_writer::~result_writer() {
  {
    std::lock_guard<std::mutex> lock(mutex_);
    stopping_ = true;
  }
  work_.notify_one();
  thread_.join();
}

received_message* result_writer::free_slot_locked() {
  bool room = head_ - tail_ < kSlots && (queued_bytes_ < kMaxQueuedBytes || head_ == tail_);
  return room ? &slots_[head_ % kSlots] : nullptr;
}

received_message* result_writer::free_slot() {
  std::lock_guard<std::mutex> lock(mutex_);
  return free_slot_locked();
}

received_message* result_writer::push() {
  std::lock_guard<std::mutex> lock(mutex_);
  queued_bytes_ += slots_[head_ % kSlots].total_size();
  ++head_;
  ++queued_;
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

void result_writer::write_batch(std::unique_lock<std::mutex>& lock, uint64_t end) {
  uint64_t begin = tail_;
  lock.unlock();
  size_t bytes = 0;
  for (uint64_t i = begin; i < end; ++i) {
    received_message& message = slots_[i % kSlots];
    result_view result = message.result();
    if (store_ == nullptr) {
      dump_result(result, config_);
    } else if (!store_->write(result)) {
      VORN_LOG(1) << "Error writing to database. Data lost! (data provider '"
                  << vorn::str::printable(result.header.name) << "' from "
                  << vorn::str::printable(result.header.hostname) << ")";
    }
    bytes += message.total_size();
    // A large output's buffer goes now, not when its slot comes round again.
    message.clear();
  }
  lock.lock();
  tail_ = end;
  queued_bytes_ -= bytes;
  written_ += end - begin;
  if (store_ == nullptr) {
    // A text dump is as durable as it gets once written.
    committed_.store(written_, std::memory_order_release);
  } else if (!uncommitted_) {
    uncommitted_ = true;
    first_uncommitted_ms_ = zclock_mono();
  }
}

bool result_writer::commit(std::unique_lock<std::mutex>& lock) {
  lock.unlock();
  commit_result result = store_->flush();
  lock.lock();
  switch (result) {
    case commit_result::postponed:
      postponed_ = true;
      postponed_ms_ = zclock_mono();
      return false;
    case commit_result::lost:
      VORN_LOG(1) << "Error writing to database. Data lost!";
      break;
    case commit_result::committed:
      break;
  }
  uncommitted_ = false;
  postponed_ = false;
  committed_.store(written_, std::memory_order_release);
  return true;
}

void result_writer::run() {
  // Named for top -H and perf.
  pthread_setname_np(pthread_self(), "vorn-writer");
  std::unique_lock<std::mutex> lock(mutex_);
  for (;;) {
    if (head_ != tail_) {
      write_batch(lock, head_);
    }
    bool empty = head_ == tail_;
    if (!uncommitted_) {
      if (empty && stopping_) {
        return;
      }
      if (empty) {
        writer_waiting_ = true;
        work_.wait(lock, [this] { return head_ != tail_ || stopping_; });
        writer_waiting_ = false;
      }
      continue;
    }
    int64_t now = zclock_mono();
    if (postponed_) {
      // Each attempt waits out the busy time-out; a stop does not wait for
      // a lock that another process holds, the store tries once more as it
      // closes.
      if (empty && stopping_) {
        return;
      }
      if (now - postponed_ms_ >= kMaxBatchMs) {
        commit(lock);
      } else if (empty) {
        writer_waiting_ = true;
        work_.wait_for(lock, std::chrono::milliseconds(kMaxBatchMs - (now - postponed_ms_)),
                       [this] { return head_ != tail_ || stopping_; });
        writer_waiting_ = false;
      }
      continue;
    }
    bool requested = commit_requested_ > committed() && written_ >= commit_requested_;
    if (requested || now - first_uncommitted_ms_ >= kMaxBatchMs || (empty && stopping_)) {
      commit(lock);
      continue;
    }
    if (empty) {
      // A pause in the stream ends the group.
      writer_waiting_ = true;
      bool more = work_.wait_for(lock, std::chrono::milliseconds(kPauseMs), [this] {
        return head_ != tail_ || stopping_ || commit_requested_ > committed();
      });
      writer_waiting_ = false;
      if (!more) {
        commit(lock);
      }
    }
  }
}
