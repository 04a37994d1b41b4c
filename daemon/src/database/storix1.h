#pragma once
// storix1: the thin database access layer the store is written against, over
// SQLite 3. Connections run commands and hand out prepared data writers whose
// numbered parameters ($0, $1, ...) are bound by typed pointers.
//
// Parameter $i must be the (i+1)-th parameter of its statement: number them
// in the order in which they stand.
//
// Every operation returns 0 on success and non-zero on failure; the text of
// the last failure is getLastErrorInfo(). Objects are given up with
// release(); the SQLite handles inside are owned and always freed.
//
// A released writer goes back to its connection, reset and with its bindings
// cleared, and the next getDataWriter for the same SQL text hands it out
// again: a statement run once per row is parsed once per connection, not once
// per row. Writers must therefore be released before their connection.
//
// Thread safety: a connection and its writers belong to one thread at a time.

#include <sqlite3.h>

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

namespace storix1 {

enum ColumnType : int {
  kInt32 = 1,  // value points to an int32_t, size 4
  kInt64 = 2,  // value points to an int64_t, size 8
  kText = 4,   // value points to a const char* (NUL-terminated), size 8
  kReal = 5,   // value points to a double, size 8
  kBlob = 6,   // value points to the first byte, size is the byte count
};

class Handle {
 public:
  Handle() = default;
  Handle(const Handle&) = delete;
  Handle& operator=(const Handle&) = delete;

  // Destroys this object.
  virtual void release();
  const char* getLastErrorInfo() const { return last_error_.c_str(); }

 protected:
  virtual ~Handle() = default;
  void setLastError(const std::string& text) { last_error_ = text; }

 private:
  std::string last_error_;
};

class Connection;

// One row of a query's result, readable during the call that hands it over.
class DataRow {
 public:
  explicit DataRow(sqlite3_stmt* statement) : statement_(statement) {}
  int64_t integer(int column) const { return sqlite3_column_int64(statement_, column); }
  std::string_view blob(int column) const {
    const void* data = sqlite3_column_blob(statement_, column);
    int size = sqlite3_column_bytes(statement_, column);
    return data != nullptr
               ? std::string_view(static_cast<const char*>(data), static_cast<size_t>(size))
               : std::string_view();
  }

 private:
  sqlite3_stmt* statement_;
};

class DataWriter : public Handle {
 public:
  int bindParam(int index, ColumnType type, size_t size, const void* value);
  // Runs the statement once with the bound values; they may be bound anew after.
  int writeData();
  // The same for a query: hands each row of its result to `row`.
  int readData(const std::function<void(const DataRow& row)>& row);
  // Returns the writer to its connection for reuse.
  void release() override;

 private:
  friend class Connection;
  struct Finalize {
    void operator()(sqlite3_stmt* statement) const { sqlite3_finalize(statement); }
  };
  DataWriter(sqlite3_stmt* statement, Connection* connection)
      : statement_(statement), connection_(connection) {}
  ~DataWriter() override = default;
  std::unique_ptr<sqlite3_stmt, Finalize> statement_;
  Connection* connection_;
};

class Connection : public Handle {
 public:
  // Writers kept for reuse; one per SQL text is what a steady writer needs.
  static constexpr size_t kMaxIdleWriters = 12;

  // Waits for another connection's lock for `milliseconds` at most, and
  // never past *give_up_at when that is set (CLOCK_MONOTONIC milliseconds,
  // as zclock_mono; 0 for no limit), which any thread may move.
  int setBusyTimeout(int milliseconds, const std::atomic<int64_t>* give_up_at = nullptr);
  int64_t lastInsertRowid() const { return sqlite3_last_insert_rowid(db_.get()); }
  // False also after an error that rolled the transaction back by itself.
  bool inTransaction() const { return sqlite3_get_autocommit(db_.get()) == 0; }
  // Rows inserted, changed or deleted by the last statement that did so.
  int64_t changes() const { return sqlite3_changes64(db_.get()); }
  // Runs one statement; rows it may yield are discarded.
  int issueCommand(const char* sql);
  int getDataWriter(const char* sql, DataWriter** writer);

 private:
  friend int newConnection(const char*, int, const char*, Connection**);
  friend class DataWriter;
  struct Close {
    void operator()(sqlite3* db) const { sqlite3_close_v2(db); }
  };
  struct Destroy {
    void operator()(DataWriter* writer) const { delete writer; }
  };
  explicit Connection(sqlite3* db) : db_(db) {}
  ~Connection() override = default;
  void take_back(DataWriter* writer);

  struct BusyWait {
    int timeout_ms = 0;
    const std::atomic<int64_t>* give_up_at = nullptr;
    int64_t started_ms = 0;
  };
  static int on_busy(void* wait, int attempt);

  std::unique_ptr<sqlite3, Close> db_;
  BusyWait busy_;
  // Declared after db_, so that the statements are finalized first.
  std::vector<std::unique_ptr<DataWriter, Destroy>> idle_writers_;
};

// Opens (creating if needed) the database at `path`; `flags` must be 0. The
// second form opens through the named SQLite VFS.
int newConnection(const char* path, int flags, Connection** connection);
int newConnection(const char* path, int flags, const char* vfs, Connection** connection);

// Owner that releases a Connection or DataWriter.
struct Release {
  void operator()(Handle* handle) const { handle->release(); }
};
template <typename T>
using Owned = std::unique_ptr<T, Release>;

}  // namespace storix1
