#include "daemon/src/database/storix1.h"

#include <time.h>

#include <cstdint>
#include <cstdio>
#include <cstring>
#include <string>

namespace storix1 {

void Handle::release() {
  delete this;
}

int newConnection(const char* path, int flags, Connection** connection) {
  return newConnection(path, flags, nullptr, connection);
}

int newConnection(const char* path, int flags, const char* vfs, Connection** connection) {
  // SQLite's memory statistics take a global lock on every allocation; the
  // store does not read them. Only possible before SQLite is first used.
  static const int configured = [] {
    sqlite3_config(SQLITE_CONFIG_MEMSTATUS, 0);
    // Pages come from one pool instead of a malloc and free each.
    return sqlite3_config(SQLITE_CONFIG_PAGECACHE, nullptr, 16384 + 512, 4096);
  }();
  (void)configured;
  *connection = nullptr;
  if (flags != 0) {
    return SQLITE_MISUSE;
  }
  sqlite3* db = nullptr;
  // Each connection belongs to one thread at a time, so SQLite's own
  // per-call locking is pure cost.
  int rc = sqlite3_open_v2(path, &db,
                           SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE | SQLITE_OPEN_NOMUTEX, vfs);
  if (rc != SQLITE_OK) {
    sqlite3_close_v2(db);
    return rc;
  }
  sqlite3_extended_result_codes(db, 1);
  // Preparing a statement allocates many small objects; a larger lookaside
  // pool serves them without the general allocator.
  sqlite3_db_config(db, SQLITE_DBCONFIG_LOOKASIDE, nullptr, 1200, 1000);
  *connection = new Connection(db);
  return 0;
}

namespace {

int64_t monotonic_ms() {
  timespec now;
  clock_gettime(CLOCK_MONOTONIC, &now);
  return int64_t{now.tv_sec} * 1000 + now.tv_nsec / 1000000;
}

}  // namespace

int Connection::on_busy(void* wait, int attempt) {
  constexpr int64_t kStepMs = 20;
  auto* busy = static_cast<BusyWait*>(wait);
  int64_t now = monotonic_ms();
  if (attempt == 0) {
    busy->started_ms = now;
  }
  int64_t until = busy->started_ms + busy->timeout_ms;
  if (busy->give_up_at != nullptr) {
    int64_t limit = busy->give_up_at->load(std::memory_order_relaxed);
    if (limit != 0 && limit < until) {
      until = limit;
    }
  }
  if (now >= until) {
    return 0;
  }
  // Short steps, so that a deadline moved meanwhile is seen soon.
  int64_t step = until - now < kStepMs ? until - now : kStepMs;
  sqlite3_sleep(static_cast<int>(step));
  return 1;
}

int Connection::setBusyTimeout(int milliseconds, const std::atomic<int64_t>* give_up_at) {
  busy_.timeout_ms = milliseconds > 0 ? milliseconds : 0;
  busy_.give_up_at = give_up_at;
  int rc = sqlite3_busy_handler(db_.get(), &Connection::on_busy, &busy_);
  if (rc != SQLITE_OK) {
    setLastError(sqlite3_errmsg(db_.get()));
  }
  return rc;
}

int Connection::issueCommand(const char* sql) {
  char* message = nullptr;
  int rc = sqlite3_exec(db_.get(), sql, nullptr, nullptr, &message);
  if (rc != SQLITE_OK) {
    setLastError(message != nullptr ? message : sqlite3_errmsg(db_.get()));
  }
  sqlite3_free(message);
  return rc;
}

int Connection::getDataWriter(const char* sql, DataWriter** writer) {
  *writer = nullptr;
  // The writer released last is the one most often asked for again.
  for (size_t i = idle_writers_.size(); i-- > 0;) {
    if (std::strcmp(sqlite3_sql(idle_writers_[i]->statement_.get()), sql) == 0) {
      *writer = idle_writers_[i].release();
      idle_writers_.erase(idle_writers_.begin() + static_cast<ptrdiff_t>(i));
      return 0;
    }
  }
  sqlite3_stmt* statement = nullptr;
  int rc = sqlite3_prepare_v2(db_.get(), sql, -1, &statement, nullptr);
  if (rc != SQLITE_OK) {
    setLastError(sqlite3_errmsg(db_.get()));
    sqlite3_finalize(statement);
    return rc;
  }
  *writer = new DataWriter(statement, this);
  return 0;
}

void Connection::take_back(DataWriter* writer) {
  std::unique_ptr<DataWriter, Destroy> owned(writer);
  if (idle_writers_.size() < kMaxIdleWriters) {
    idle_writers_.push_back(std::move(owned));
  }
}

void DataWriter::release() {
  // The bound values may die with the caller's frame: no pointer to them may
  // stay in a statement that is kept.
  sqlite3_reset(statement_.get());
  sqlite3_clear_bindings(statement_.get());
  connection_->take_back(this);
}

// Parameters are named "$0", "$1", ... in the order in which they stand, so
// "$i" is at position i + 1; looking each name up would cost every row a
// search of the statement's parameter list.
int parameter_position(sqlite3_stmt* statement, int index) {
  return index >= 0 && index < sqlite3_bind_parameter_count(statement) ? index + 1 : 0;
}

int DataWriter::bindParam(int index, ColumnType type, size_t size, const void* value) {
  sqlite3_stmt* s = statement_.get();
  int position = parameter_position(s, index);
  if (position == 0) {
    setLastError("no parameter $" + std::to_string(index));
    return SQLITE_RANGE;
  }
  int rc = SQLITE_MISUSE;
  switch (type) {
    case kInt32:
      if (size == sizeof(int32_t)) {
        rc = sqlite3_bind_int(s, position, *static_cast<const int32_t*>(value));
      }
      break;
    case kInt64:
      if (size == sizeof(int64_t)) {
        rc = sqlite3_bind_int64(s, position, *static_cast<const int64_t*>(value));
      }
      break;
    case kText:
      if (size == sizeof(const char*)) {
        rc = sqlite3_bind_text(s, position, *static_cast<const char* const*>(value), -1,
                               SQLITE_STATIC);
      }
      break;
    case kReal:
      if (size == sizeof(double)) {
        rc = sqlite3_bind_double(s, position, *static_cast<const double*>(value));
      }
      break;
    case kBlob:
      // An empty output is an empty blob, not NULL.
      rc = size == 0 ? sqlite3_bind_zeroblob(s, position, 0)
                     : sqlite3_bind_blob64(s, position, value, size, SQLITE_STATIC);
      break;
  }
  if (rc != SQLITE_OK) {
    setLastError(rc == SQLITE_MISUSE ? "bad parameter type or size for $" + std::to_string(index)
                                     : sqlite3_errmsg(sqlite3_db_handle(s)));
  }
  return rc;
}

int DataWriter::writeData() {
  sqlite3_stmt* s = statement_.get();
  int rc = sqlite3_step(s);
  if (rc == SQLITE_DONE || rc == SQLITE_ROW) {
    sqlite3_reset(s);
    return 0;
  }
  setLastError(sqlite3_errmsg(sqlite3_db_handle(s)));
  sqlite3_reset(s);
  return rc;
}

int DataWriter::readData(const std::function<void(const DataRow& row)>& row) {
  sqlite3_stmt* s = statement_.get();
  int rc;
  while ((rc = sqlite3_step(s)) == SQLITE_ROW) {
    row(DataRow(s));
  }
  if (rc == SQLITE_DONE) {
    sqlite3_reset(s);
    return 0;
  }
  setLastError(sqlite3_errmsg(sqlite3_db_handle(s)));
  sqlite3_reset(s);
  return rc;
}

}  // namespace storix1
