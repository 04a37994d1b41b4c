// Reading the server's SQLite file, read-only, beside a server that keeps
// writing to it.
//
// The server's database is in WAL mode, where readers and the writer do not
// block each other; the few moments a reader must wait (a log being reset, a
// connection recovering it) are covered by a busy time-out, so a read never
// fails with "database is locked".

#include <grp.h>
#include <pwd.h>
#include <sqlite3.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <vector>

#include "daemon/src/cli/connection.h"
#include "daemon/src/database/schema.h"
#include "util/str.h"

namespace vorn::cli {

namespace {

// A reader waits this long for the moments the log is reset or recovered; a
// server that is merely writing never makes it wait.
constexpr int kBusyTimeoutMs = 10000;

// "Permission denied" alone leaves the user guessing whom to ask: the
// server's database usually belongs to its own account, readable by a group.
std::string cannot_open(const std::string& path, int error) {
  std::string message = "cannot open database " + path + ": " + std::strerror(error);
  struct stat st;
  if (error != EACCES ||
      (::stat(path.c_str(), &st) != 0 && ::stat(vorn::str::dirname(path).c_str(), &st) != 0)) {
    return message;
  }
  std::vector<char> buffer(16384);
  struct passwd user;
  struct passwd* found_user = nullptr;
  struct group group;
  struct group* found_group = nullptr;
  ::getpwuid_r(st.st_uid, &user, buffer.data(), buffer.size() / 2, &found_user);
  ::getgrgid_r(st.st_gid, &group, buffer.data() + buffer.size() / 2, buffer.size() / 2,
               &found_group);
  return message + " (it belongs to user " +
         (found_user != nullptr ? found_user->pw_name : std::to_string(st.st_uid)) + ", group " +
         (found_group != nullptr ? found_group->gr_name : std::to_string(st.st_gid)) + ")";
}

[[noreturn]] void fail(sqlite3* db, const std::string& path) {
  int code = sqlite3_extended_errcode(db);
  if ((code & 0xff) == SQLITE_NOTADB) {
    throw StoreError(path + " is not a vorn database (not an SQLite file)");
  }
  // A reader of a database in WAL mode needs its shared-memory file; while
  // the server runs it is there, once it has stopped the reader must make
  // it, beside the database.
  if ((code & 0xff) == SQLITE_READONLY || (code & 0xff) == SQLITE_CANTOPEN) {
    throw StoreError("cannot read " + path + ": SQLite must create " + path +
                     "-shm, which this user may not; run vorn as the server's user, or while "
                     "the server runs");
  }
  throw StoreError("cannot read " + path + ": " + sqlite3_errmsg(db));
}

// A prepared statement and its rows, finalized when it goes.
class SqliteRows : public Rows {
 public:
  SqliteRows(sqlite3* db, const std::string& sql, const Parameters& parameters,
             const std::string& path)
      : db_(db), path_(path) {
    sqlite3_stmt* raw = nullptr;
    int rc = sqlite3_prepare_v2(db, sql.c_str(), -1, &raw, nullptr);
    statement_.reset(raw);
    if (rc != SQLITE_OK) {
      fail(db_, path_);
    }
    for (const auto& [position, value] : parameters) {
      if (value.type == Parameter::Type::text) {
        rc = value.text ? sqlite3_bind_text(raw, position, value.text->data(),
                                            static_cast<int>(value.text->size()), SQLITE_TRANSIENT)
                        : sqlite3_bind_null(raw, position);
      } else {
        rc = value.integer ? sqlite3_bind_int64(raw, position, *value.integer)
                           : sqlite3_bind_null(raw, position);
      }
      if (rc != SQLITE_OK) {
        fail(db_, path_);
      }
    }
  }

  bool next() override {
    int rc = sqlite3_step(statement_.get());
    if (rc == SQLITE_ROW) {
      return true;
    }
    if (rc != SQLITE_DONE) {
      fail(db_, path_);
    }
    return false;
  }

  int64_t integer(int column) const override {
    return sqlite3_column_int64(statement_.get(), column);
  }
  double real(int column) const override { return sqlite3_column_double(statement_.get(), column); }
  std::string bytes(int column) const override {
    const void* data = sqlite3_column_blob(statement_.get(), column);
    int size = sqlite3_column_bytes(statement_.get(), column);
    return data == nullptr ? std::string() : std::string(static_cast<const char*>(data), size);
  }

 private:
  struct Finalize {
    void operator()(sqlite3_stmt* statement) const { sqlite3_finalize(statement); }
  };

  sqlite3* db_;
  const std::string& path_;
  std::unique_ptr<sqlite3_stmt, Finalize> statement_;
};

class SqliteConnection : public Connection {
 public:
  explicit SqliteConnection(const std::string& path) : path_(path) {
    // SQLite would report a missing file, or a directory, as "unable to open
    // database file"; the user deserves to know which.
    struct stat st;
    if (::stat(path.c_str(), &st) != 0) {
      throw StoreError(cannot_open(path, errno));
    }
    if (S_ISDIR(st.st_mode)) {
      throw StoreError("cannot open database " + path + ": it is a directory");
    }
    if (::access(path.c_str(), R_OK) != 0) {
      throw StoreError(cannot_open(path, errno));
    }
    sqlite3* raw = nullptr;
    int rc = sqlite3_open_v2(path.c_str(), &raw, SQLITE_OPEN_READONLY, nullptr);
    db_.reset(raw);
    if (rc != SQLITE_OK) {
      throw StoreError("cannot open database " + path + ": " +
                       (raw != nullptr ? sqlite3_errmsg(raw) : sqlite3_errstr(rc)));
    }
    sqlite3_extended_result_codes(db_.get(), 1);
    sqlite3_busy_timeout(db_.get(), kBusyTimeoutMs);
  }

  std::unique_ptr<Rows> query(const std::string& sql, const Parameters& parameters) override {
    return std::make_unique<SqliteRows>(db_.get(), sql, parameters, path_);
  }

  bool has_table(const std::string& name) override {
    return query("SELECT 1 FROM sqlite_master WHERE type = 'table' AND name = ?1",
                 {{1, text_value(name)}})
        ->next();
  }

  void begin_snapshot() override { query("BEGIN", {})->next(); }
  void end_snapshot() noexcept override {
    sqlite3_exec(db_.get(), "COMMIT", nullptr, nullptr, nullptr);
  }

  // An older server's rows may hold text, whose substr counts characters.
  std::string first_bytes(const std::string& column, int count) const override {
    return "substr(CAST(" + column + " AS BLOB), 1, " + std::to_string(count) + ")";
  }
  std::string last_bytes(const std::string& column, int count) const override {
    return "substr(CAST(" + column + " AS BLOB), -" + std::to_string(count) + ")";
  }
  std::string latest_rows() const override { return vorn::schema::kLatestRowsSqlite; }

 private:
  struct Close {
    void operator()(sqlite3* db) const { sqlite3_close_v2(db); }
  };

  std::string path_;
  std::unique_ptr<sqlite3, Close> db_;
};

}  // namespace

std::unique_ptr<Connection> open_sqlite(const std::string& path) {
  return std::make_unique<SqliteConnection>(path);
}

}  // namespace vorn::cli
