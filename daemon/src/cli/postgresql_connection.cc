// Reading results from PostgreSQL through libpq.
//
// Results come in binary, so that outputs (bytea) arrive byte for byte with
// no decoding and numbers exactly as stored. Parameters go with their types.

#include <libpq-fe.h>

#include <cstring>
#include <vector>

#include "daemon/src/cli/connection.h"
#include "daemon/src/database/pq.h"
#include "daemon/src/database/schema.h"

namespace vorn::cli {

namespace {

// Type identifiers of PostgreSQL's built-in types (its catalog pg_type).
constexpr Oid kInt8Oid = 20;
constexpr Oid kInt2Oid = 21;
constexpr Oid kInt4Oid = 23;
constexpr Oid kTextOid = 25;
constexpr Oid kFloat4Oid = 700;
constexpr Oid kFloat8Oid = 701;

// A host that does not answer would otherwise keep the user waiting for the
// system's TCP time-out; a database URL may set its own.
constexpr const char* kConnectTimeoutSeconds = "10";

std::string big_endian(int64_t value) {
  std::string bytes(8, '\0');
  auto bits = static_cast<uint64_t>(value);
  for (int i = 7; i >= 0; --i) {
    bytes[static_cast<size_t>(i)] = static_cast<char>(bits & 0xff);
    bits >>= 8;
  }
  return bytes;
}

uint64_t from_big_endian(const char* data, int size) {
  uint64_t bits = 0;
  for (int i = 0; i < size; ++i) {
    bits = bits << 8 | static_cast<unsigned char>(data[i]);
  }
  return bits;
}

class PostgresqlRows : public Rows {
 public:
  PostgresqlRows(pq_result result, const std::string& name)
      : result_(std::move(result)), rows_(PQntuples(result_.get())), name_(name) {}

  bool next() override { return ++row_ < rows_; }

  int64_t integer(int column) const override {
    if (PQgetisnull(result_.get(), row_, column)) {
      return 0;
    }
    Oid type = PQftype(result_.get(), column);
    if (type != kInt8Oid && type != kInt4Oid && type != kInt2Oid) {
      wrong_type(column, "an integer");
    }
    int size = PQgetlength(result_.get(), row_, column);
    uint64_t bits = from_big_endian(PQgetvalue(result_.get(), row_, column), size);
    // Shorter integers carry their sign in their own top bit.
    if (size < 8 && (bits >> (8 * size - 1)) != 0) {
      bits |= ~uint64_t{0} << (8 * size);
    }
    return static_cast<int64_t>(bits);
  }

  double real(int column) const override {
    if (PQgetisnull(result_.get(), row_, column)) {
      return 0;
    }
    Oid type = PQftype(result_.get(), column);
    const char* data = PQgetvalue(result_.get(), row_, column);
    if (type == kFloat8Oid) {
      uint64_t bits = from_big_endian(data, 8);
      double value;
      std::memcpy(&value, &bits, sizeof value);
      return value;
    }
    if (type == kFloat4Oid) {
      auto bits = static_cast<uint32_t>(from_big_endian(data, 4));
      float value;
      std::memcpy(&value, &bits, sizeof value);
      return value;
    }
    return static_cast<double>(integer(column));
  }

  std::string bytes(int column) const override {
    return std::string(PQgetvalue(result_.get(), row_, column),
                       static_cast<size_t>(PQgetlength(result_.get(), row_, column)));
  }

 private:
  // A table made by hand, with other types than the server's.
  [[noreturn]] void wrong_type(int column, const char* wanted) const {
    throw StoreError("cannot read " + name_ + ": " + PQfname(result_.get(), column) + " is not " +
                     wanted + " (vorn_1 has other columns than vorn-serverd makes)");
  }

  pq_result result_;
  int row_ = -1;
  int rows_;
  const std::string& name_;
};

bool succeeded(const PGresult* result) {
  ExecStatusType status = result != nullptr ? PQresultStatus(result) : PGRES_FATAL_ERROR;
  return status == PGRES_TUPLES_OK || status == PGRES_COMMAND_OK;
}

class PostgresqlConnection : public Connection {
 public:
  explicit PostgresqlConnection(const std::string& url)
      : name_(describe({Database::Kind::postgresql, url})) {
    // A URL libpq cannot parse is told as such, not as a failed connection.
    if (std::string why = pq_url_error(url); !why.empty()) {
      throw StoreError("cannot use the PostgreSQL database URL: " + why);
    }

    // The URL's own settings override the ones before it.
    const char* const keys[] = {"connect_timeout", "fallback_application_name", "dbname", nullptr};
    const char* const values[] = {kConnectTimeoutSeconds, "vorn", url.c_str(), nullptr};
    connection_.reset(PQconnectdbParams(keys, values, 1));
    if (connection_ == nullptr) {
      throw StoreError("cannot connect to " + name_ + ": out of memory");
    }
    check_connected();
  }

  std::unique_ptr<Rows> query(const std::string& sql, const Parameters& parameters) override {
    if (!in_snapshot_ && PQstatus(connection_.get()) == CONNECTION_BAD) {
      PQreset(connection_.get());
      check_connected();
    }
    const int count = parameters.empty() ? 0 : parameters.rbegin()->first;
    std::vector<Oid> types(static_cast<size_t>(count), kTextOid);
    std::vector<std::string> storage(static_cast<size_t>(count));
    std::vector<const char*> values(static_cast<size_t>(count), nullptr);
    std::vector<int> lengths(static_cast<size_t>(count), 0);
    std::vector<int> formats(static_cast<size_t>(count), 1);
    for (const auto& [position, value] : parameters) {
      auto i = static_cast<size_t>(position - 1);
      if (value.type == Parameter::Type::integer) {
        types[i] = kInt8Oid;
        if (value.integer) {
          storage[i] = big_endian(*value.integer);
        }
      } else if (value.text) {
        storage[i] = *value.text;
      }
      if (value.integer || value.text) {
        values[i] = storage[i].data();
        lengths[i] = static_cast<int>(storage[i].size());
      }
    }
    auto run = [&] {
      return pq_result(PQexecParams(connection_.get(), vorn::schema::postgresql(sql).c_str(), count,
                                    types.data(), values.data(), lengths.data(), formats.data(),
                                    1));
    };
    pq_result result = run();
    if (!succeeded(result.get()) && !in_snapshot_ &&
        PQstatus(connection_.get()) == CONNECTION_BAD) {
      // The server restarted since this connection's last statement; nothing
      // was read yet, so the statement runs again on a new one.
      PQreset(connection_.get());
      check_connected();
      result = run();
    }
    if (!succeeded(result.get())) {
      const char* primary =
          result ? PQresultErrorField(result.get(), PG_DIAG_MESSAGE_PRIMARY) : nullptr;
      throw StoreError(
          "cannot read " + name_ + ": " +
          pq_one_line(primary != nullptr ? primary : PQerrorMessage(connection_.get())));
    }
    return std::make_unique<PostgresqlRows>(std::move(result), name_);
  }

  bool has_table(const std::string& name) override {
    return query("SELECT 1 WHERE to_regclass(?1) IS NOT NULL", {{1, text_value(name)}})->next();
  }

  void begin_snapshot() override {
    query("BEGIN ISOLATION LEVEL REPEATABLE READ READ ONLY", {});
    in_snapshot_ = true;
  }
  void end_snapshot() noexcept override {
    in_snapshot_ = false;
    PQclear(PQexec(connection_.get(), "COMMIT"));
  }

  std::string first_bytes(const std::string& column, int count) const override {
    return "substr(" + column + ", 1, " + std::to_string(count) + ")";
  }
  std::string last_bytes(const std::string& column, int count) const override {
    return "substr(" + column + ", greatest(length(" + column + ") - " + std::to_string(count - 1) +
           ", 1))";
  }
  std::string latest_rows() const override { return vorn::schema::kLatestRowsPostgresql; }

 private:
  void check_connected() {
    if (PQstatus(connection_.get()) != CONNECTION_OK) {
      throw StoreError("cannot connect to " + name_ + ": " +
                       pq_one_line(PQerrorMessage(connection_.get())));
    }
    // Texts are read as stored, whatever client encoding the environment
    // asks for.
    const char* encoding = PQparameterStatus(connection_.get(), "server_encoding");
    if (encoding != nullptr) {
      PQsetClientEncoding(connection_.get(), encoding);
    }
    // Planned before it runs, the latest-of-each-key rule counts on a third
    // of vorn_1 after the summary rather than the few rows there are, and on
    // a large table that estimate has PostgreSQL compile the query for a
    // third of a second before it runs in a few milliseconds.
    pq_result(PQexec(connection_.get(), "SET jit = off"));
  }

  std::string name_;
  pq_connection connection_;
  bool in_snapshot_ = false;
};

}  // namespace

std::unique_ptr<Connection> open_postgresql(const std::string& url) {
  return std::make_unique<PostgresqlConnection>(url);
}

std::string describe(const Database& database) {
  if (database.kind == Database::Kind::sqlite) {
    return database.location;
  }
  std::string text = "PostgreSQL";
  PQconninfoOption* options = PQconninfoParse(database.location.c_str(), nullptr);
  if (options == nullptr) {
    return text;
  }
  // What says which database it is, never what lets one in.
  for (const char* keyword : {"dbname", "host", "hostaddr", "port", "user", "service"}) {
    for (PQconninfoOption* option = options; option->keyword != nullptr; ++option) {
      if (option->val != nullptr && std::strcmp(option->keyword, keyword) == 0) {
        text += std::string(" ") + keyword + "=" + option->val;
      }
    }
  }
  PQconninfoFree(options);
  return text;
}

}  // namespace vorn::cli
