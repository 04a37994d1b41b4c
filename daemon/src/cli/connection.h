#pragma once
// The databases `vorn` reads, an SQLite file or a PostgreSQL database, behind
// one small interface, so that each query of query.cc is written once for
// both.
//
// Statements use numbered parameters (?1, ?2, ...) whose values come by
// position, each with its type (text or a 64-bit integer), so that
// PostgreSQL never has to guess one. The little SQL that must differ between
// the two (the bytes of a column that may hold text) comes from the
// connection.
//
// Every failure is a StoreError whose text is one line for the user; a
// PostgreSQL password never appears in one.
//
// Thread safety: a Connection and its Rows belong to one thread at a time.

#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>
#include <utility>

namespace vorn::cli {

class StoreError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

// Where the results are.
struct Database {
  enum class Kind { sqlite, postgresql };
  Kind kind = Kind::sqlite;
  std::string location;  // a file's path, or a libpq connection string or URI
};

// The text of --db: a postgresql:// or postgres:// URI names a PostgreSQL
// database, anything else a file.
Database database_named(const std::string& text);

// How messages name `database`: the file's path, or the connection's
// parameters without the password.
std::string describe(const Database& database);

// One parameter's value, NULL when empty.
struct Parameter {
  enum class Type { text, integer };
  Type type = Type::text;
  std::optional<std::string> text;
  std::optional<int64_t> integer;
};

inline Parameter text_value(std::optional<std::string> value) {
  return {Parameter::Type::text, std::move(value), std::nullopt};
}
inline Parameter integer_value(std::optional<int64_t> value) {
  return {Parameter::Type::integer, std::nullopt, value};
}

// By position: 1 for ?1.
using Parameters = std::map<int, Parameter>;

// The rows of one statement, read forward. A NULL reads as 0 or "".
class Rows {
 public:
  virtual ~Rows() = default;
  // True while there is a row to read.
  virtual bool next() = 0;
  virtual int64_t integer(int column) const = 0;
  virtual double real(int column) const = 0;
  // Text or binary, byte for byte.
  virtual std::string bytes(int column) const = 0;
};

class Connection {
 public:
  virtual ~Connection() = default;

  // The rows of `sql`; a statement that fails is a StoreError.
  virtual std::unique_ptr<Rows> query(const std::string& sql, const Parameters& parameters) = 0;
  virtual bool has_table(const std::string& name) = 0;

  // The statements between these see one committed state of the database.
  virtual void begin_snapshot() = 0;
  virtual void end_snapshot() noexcept = 0;

  // An expression for the first, or the last, `count` bytes of `column`.
  virtual std::string first_bytes(const std::string& column, int count) const = 0;
  virtual std::string last_bytes(const std::string& column, int count) const = 0;
  // A FROM clause, after a latest-ids head: the rows (as r) that `ids` names.
  virtual std::string latest_rows() const = 0;
};

// Opens `database` for reading; throws StoreError when it cannot.
std::unique_ptr<Connection> connect(const Database& database);

std::unique_ptr<Connection> open_sqlite(const std::string& path);
std::unique_ptr<Connection> open_postgresql(const std::string& url);

// A snapshot that ends however the reading does.
class Snapshot {
 public:
  explicit Snapshot(Connection* connection) : connection_(connection) {
    connection_->begin_snapshot();
  }
  Snapshot(const Snapshot&) = delete;
  Snapshot& operator=(const Snapshot&) = delete;
  ~Snapshot() { connection_->end_snapshot(); }

 private:
  Connection* connection_;
};

}  // namespace vorn::cli
