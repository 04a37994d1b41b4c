// Retention in PostgreSQL: batches of the sweeper (retention.h) on a
// connection of their own.
//
// Batched deletes rather than a table partitioned by day: vorn_1 keeps the
// layout it has in SQLite, rowid alone its primary key (a partitioned table
// would need row_timestamp in every unique key), so tables made by earlier
// servers and the administrators' own queries stay as they are; a retention
// of 12 hours or 90 minutes is honoured to the pass, not to the day; and a
// batch holds its locks for milliseconds, where attaching and dropping
// partitions takes locks on the whole table that every writer would queue
// behind. The cost is autovacuum's work on the deleted rows, whose space new
// rows then reuse, so the table stops growing at about the retention's worth.

#include <cstdlib>
#include <string>
#include <utility>

#include "daemon/src/database/postgresql.h"
#include "daemon/src/database/retention.h"
#include "daemon/src/database/schema.h"

namespace {

class postgresql_store : public retention_store {
 public:
  postgresql_store(std::string url, int64_t retention_seconds)
      : url_(std::move(url)), retention_(std::to_string(retention_seconds)) {}

  // The sweeper's cutoff comes from this host's clock; row_timestamp from the
  // database's, which may differ. The batch takes its cutoff from the latter.
  int delete_batch(int64_t after, int64_t /*cutoff*/, int rows, retention_batch* out,
                   std::string* error) override {
    *out = retention_batch{};
    if (!connect(error)) {
      return 1;
    }
    int rc = run(after, rows, out, error);
    if (rc != 0) {
      if (PQstatus(connection_.get()) != CONNECTION_OK) {
        connection_.reset();  // a new one next time, to a server back or failed over
      } else if (PQtransactionStatus(connection_.get()) != PQTRANS_IDLE) {
        pq_result(PQexec(connection_.get(), "ROLLBACK"));
      }
    }
    return rc;
  }

 private:
  bool connect(std::string* error) {
    if (connection_) {
      return true;
    }
    // As the writer's connection: what the url says wins over these.
    const char* keywords[] = {"connect_timeout",
                              "fallback_application_name",
                              "keepalives_idle",
                              "keepalives_interval",
                              "keepalives_count",
                              "dbname",
                              nullptr};
    const char* values[] = {"10", "vorn-serverd retention", "30", "10", "3", url_.c_str(), nullptr};
    pq_connection connection(PQconnectdbParams(keywords, values, 1));
    if (!connection || PQstatus(connection.get()) != CONNECTION_OK) {
      *error = "cannot connect to PostgreSQL: " +
               (connection ? pq_one_line(PQerrorMessage(connection.get())) : "out of memory");
      return false;
    }
    connection_ = std::move(connection);
    return true;
  }

  // Runs `sql` with `params`; its result, or null with *error set.
  pq_result exec(const std::string& sql, std::initializer_list<std::string> params,
                 std::string* error) {
    std::vector<const char*> values;
    for (const std::string& p : params) {
      values.push_back(p.c_str());
    }
    pq_result result(PQexecParams(connection_.get(), sql.c_str(), static_cast<int>(values.size()),
                                  nullptr, values.data(), nullptr, nullptr, 0));
    ExecStatusType status = result ? PQresultStatus(result.get()) : PGRES_FATAL_ERROR;
    if (status != PGRES_COMMAND_OK && status != PGRES_TUPLES_OK) {
      *error = pq_one_line(result ? PQresultErrorMessage(result.get())
                                  : PQerrorMessage(connection_.get()));
      return nullptr;
    }
    return result;
  }

  int run(int64_t after, int rows, retention_batch* out, std::string* error) {
    using vorn::schema::postgresql;
    pq_result turn;
    if (!exec("BEGIN", {}, error) ||
        !(turn = exec(postgresql(vorn::schema::kRetentionTurnPostgresql), {retention_}, error))) {
      return 1;
    }
    // Another server is deleting: this pass is left to it.
    if (std::string(PQgetvalue(turn.get(), 0, 0)) != "t") {
      return exec("ROLLBACK", {}, error) ? 0 : 1;
    }
    std::string cutoff = PQgetvalue(turn.get(), 0, 1);
    std::string from = std::to_string(after);
    pq_result window =
        exec(postgresql(vorn::schema::kRetentionWindow), {from, std::to_string(rows)}, error);
    if (!window) {
      return 1;
    }
    if (PQntuples(window.get()) == 1) {
      out->window = true;
      out->window_end = std::strtoll(PQgetvalue(window.get(), 0, 0), nullptr, 10);
      out->window_end_expired = std::strtoll(PQgetvalue(window.get(), 0, 1), nullptr, 10) <
                                std::strtoll(cutoff.c_str(), nullptr, 10);
      pq_result deleted = exec(postgresql(vorn::schema::kDeleteExpiredPostgresql),
                               {from, std::to_string(out->window_end), cutoff}, error);
      if (!deleted) {
        return 1;
      }
      out->deleted = std::strtoll(PQgetvalue(deleted.get(), 0, 0), nullptr, 10);
    }
    return exec("COMMIT", {}, error) ? 0 : 1;
  }

  const std::string url_;
  const std::string retention_;
  pq_connection connection_;
};

}  // namespace

std::unique_ptr<retention_store> postgresql_retention(const std::string& url,
                                                      int64_t retention_seconds) {
  return std::make_unique<postgresql_store>(url, retention_seconds);
}
