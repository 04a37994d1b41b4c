#include "daemon/src/database/retention.h"

#include <pthread.h>

#include <algorithm>
#include <chrono>
#include <ctime>
#include <limits>
#include <utility>

#include "daemon/src/database/schema.h"
#include "util/czmq.h"
#include "util/log.h"

namespace {

constexpr const char* kLogSource = "daemon/src/database";

class sqlite_store : public retention_store {
 public:
  explicit sqlite_store(storix1::Owned<storix1::Connection> connection)
      : connection_(std::move(connection)) {}

  int delete_batch(int64_t after, int64_t cutoff, int rows, retention_batch* out,
                   std::string* error) override {
    *out = retention_batch{};
    // IMMEDIATE: the write lock from the start, so that the batch never has
    // to give up half-way to another process's writer.
    if (int rc = connection_->issueCommand("BEGIN IMMEDIATE"); rc != 0) {
      *error = connection_->getLastErrorInfo();
      return rc;
    }
    int rc = run(after, cutoff, rows, out, error);
    if (rc == 0 && (rc = connection_->issueCommand("COMMIT")) != 0) {
      *error = connection_->getLastErrorInfo();
    }
    if (rc != 0) {
      if (connection_->inTransaction()) {
        connection_->issueCommand("ROLLBACK");
      }
    }
    return rc;
  }

 private:
  int run(int64_t after, int64_t cutoff, int rows, retention_batch* out, std::string* error) {
    int64_t limit = rows;
    int rc = with_writer(vorn::schema::kRetentionWindow, error, [&](storix1::DataWriter* w) {
      w->bindParam(0, storix1::kInt64, 8, &after);
      w->bindParam(1, storix1::kInt64, 8, &limit);
      return w->readData([&](const storix1::DataRow& row) {
        out->window = true;
        out->window_end = row.integer(0);
        out->window_end_expired = row.integer(1) < cutoff;
      });
    });
    if (rc != 0 || !out->window) {
      return rc;
    }
    for (const char* sql : {vorn::schema::kForgetExpiredLatest, vorn::schema::kDeleteExpired}) {
      rc = with_writer(sql, error, [&](storix1::DataWriter* w) {
        w->bindParam(0, storix1::kInt64, 8, &after);
        w->bindParam(1, storix1::kInt64, 8, &out->window_end);
        w->bindParam(2, storix1::kInt64, 8, &cutoff);
        return w->writeData();
      });
      if (rc != 0) {
        return rc;
      }
    }
    out->deleted = connection_->changes();
    return 0;
  }

  // Runs `use` on the prepared statement `sql`; its error text on failure.
  template <typename Use>
  int with_writer(const char* sql, std::string* error, Use use) {
    storix1::DataWriter* raw = nullptr;
    if (int rc = connection_->getDataWriter(sql, &raw); rc != 0) {
      *error = connection_->getLastErrorInfo();
      return rc;
    }
    storix1::Owned<storix1::DataWriter> writer(raw);
    int rc = use(writer.get());
    if (rc != 0) {
      *error = writer->getLastErrorInfo();
    }
    return rc;
  }
  storix1::Owned<storix1::Connection> connection_;
};

}  // namespace

bool write_turns::take() {
  std::unique_lock<std::mutex> lock(mutex_);
  uint64_t ticket = issued_++;
  next_.wait(lock, [&] { return serving_ == ticket || closed_; });
  return !closed_;
}

void write_turns::give_back() {
  {
    std::lock_guard<std::mutex> lock(mutex_);
    ++serving_;
  }
  next_.notify_all();
}

void write_turns::close() {
  {
    std::lock_guard<std::mutex> lock(mutex_);
    closed_ = true;
  }
  next_.notify_all();
}

std::unique_ptr<retention_store> sqlite_retention(storix1::Owned<storix1::Connection> connection) {
  return std::make_unique<sqlite_store>(std::move(connection));
}

int64_t pass_interval_ms(int64_t retention_seconds) {
  return std::clamp<int64_t>(retention_seconds * 100, 1000, 60000);
}

retention_sweeper::retention_sweeper(int64_t retention_seconds,
                                     std::unique_ptr<retention_store> store, bool take_turns)
    : retention_seconds_(retention_seconds),
      store_(std::move(store)),
      turns_(take_turns ? std::make_unique<write_turns>() : nullptr),
      thread_([this] { run(); }) {}

retention_sweeper::~retention_sweeper() {
  {
    std::lock_guard<std::mutex> lock(mutex_);
    stopping_ = true;
  }
  wake_.notify_one();
  if (turns_) {
    turns_->close();
  }
  thread_.join();
}

void retention_sweeper::run() {
  pthread_setname_np(pthread_self(), "vorn-retention");
  const auto interval = std::chrono::milliseconds(pass_interval_ms(retention_seconds_));
  while (sweep()) {
    std::unique_lock<std::mutex> lock(mutex_);
    if (wake_.wait_for(lock, interval, [this] { return stopping_; })) {
      return;
    }
  }
}

int64_t retention_sweeper::now_ms() {
  return std::chrono::duration_cast<std::chrono::milliseconds>(
             std::chrono::steady_clock::now().time_since_epoch())
      .count();
}

bool retention_sweeper::sweep() {
  const int64_t cutoff = static_cast<int64_t>(std::time(nullptr)) - retention_seconds_;
  int64_t after = std::numeric_limits<int64_t>::min();
  for (;;) {
    {
      std::lock_guard<std::mutex> lock(mutex_);
      if (stopping_) {
        return false;
      }
    }
    if (turns_ && !turns_->take()) {
      return false;
    }
    retention_batch batch;
    std::string error;
    const auto started = std::chrono::steady_clock::now();
    int rc = store_->delete_batch(after, cutoff, kBatchRows, &batch, &error);
    const auto took = std::chrono::steady_clock::now() - started;
    if (turns_) {
      turns_->give_back();
    }
    if (rc != 0) {
      // Tried again with the next pass; expired rows only wait longer.
      static vorn::log::RateLimit warnings(600000);
      uint64_t suppressed = 0;
      if (warnings.allow(zclock_mono(), &suppressed)) {
        VORN_LOG(4) << "Could not delete expired results: " << error;
      }
      return true;
    }
    if (!batch.window || !batch.window_end_expired) {
      return true;
    }
    after = batch.window_end;
    if (batch.deleted > 0) {
      std::unique_lock<std::mutex> lock(mutex_);
      const bool busy = now_ms() - last_commit_ms_.load(std::memory_order_relaxed) < kBusyMs;
      const auto rest = took * (busy ? kBusyRestFactor : kIdleRestFactor);
      if (wake_.wait_for(lock, rest, [this] { return stopping_; })) {
        return false;
      }
    }
  }
}
