#pragma once
// Results and database reads for tests of the transport and the store.

#include <sqlite3.h>

#include <atomic>
#include <string>
#include <vector>

#include "daemon/src/provider/result.h"
#include "util/str.h"

namespace vorn::test {

// Each sample is a run of its own, ending a microsecond after the one before
// (from .000042): the server stores a result it receives twice only once.
inline provider_result sample_result(const std::string& name, const std::string& out,
                                     const std::string& err = "", const std::string& nodes = "") {
  static std::atomic<long> runs{0};
  provider_result r;
  r.header.api = 1;
  r.header.exit_status = 3;
  vorn::str::copy(r.header.name, name);
  r.header.encoding = 0;
  r.header.timestamp.tv_sec = 1700000000;
  r.header.timestamp.tv_usec = 42 + runs++ % 999000;
  r.header.duration = 2.5;
  vorn::str::copy(r.header.hostname, "node17");
  r.header.nodes_size = nodes.size();
  r.header.num_nodes = nodes.empty() ? 0 : 2;
  r.header.stdout_size = out.size();
  r.header.stderr_size = err.size();
  vorn::str::copy(r.header.option_id, "default");
  r.header.version = 7;
  r.stdout_data = out;
  r.stderr_data = err;
  r.nodes_csv = nodes;
  return r;
}

// Every byte value, NUL included, twice.
inline std::string all_bytes() {
  std::string out;
  for (int round = 0; round < 2; ++round) {
    for (int c = 0; c < 256; ++c) {
      out += static_cast<char>(c);
    }
  }
  return out;
}

// Rows of a query as text (blobs byte for byte; NULL as "<null>").
inline std::vector<std::vector<std::string>> query(const std::string& db_path,
                                                   const std::string& sql) {
  std::vector<std::vector<std::string>> rows;
  sqlite3* db = nullptr;
  if (sqlite3_open_v2(db_path.c_str(), &db, SQLITE_OPEN_READONLY, nullptr) != SQLITE_OK) {
    sqlite3_close(db);
    return rows;
  }
  sqlite3_busy_timeout(db, 5000);
  sqlite3_stmt* statement = nullptr;
  if (sqlite3_prepare_v2(db, sql.c_str(), -1, &statement, nullptr) == SQLITE_OK) {
    while (sqlite3_step(statement) == SQLITE_ROW) {
      std::vector<std::string> row;
      for (int i = 0; i < sqlite3_column_count(statement); ++i) {
        if (sqlite3_column_type(statement, i) == SQLITE_NULL) {
          row.push_back("<null>");
          continue;
        }
        const void* data = sqlite3_column_blob(statement, i);
        int size = sqlite3_column_bytes(statement, i);
        row.emplace_back(static_cast<const char*>(data), static_cast<size_t>(size));
      }
      rows.push_back(row);
    }
  }
  sqlite3_finalize(statement);
  sqlite3_close(db);
  return rows;
}

// Runs statements that change the database (creating it if need be), as
// another process would; false on failure.
inline bool execute(const std::string& db_path, const std::string& sql) {
  sqlite3* db = nullptr;
  bool done = sqlite3_open_v2(db_path.c_str(), &db, SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE,
                              nullptr) == SQLITE_OK;
  sqlite3_busy_timeout(db, 10000);
  done = done && sqlite3_exec(db, sql.c_str(), nullptr, nullptr, nullptr) == SQLITE_OK;
  sqlite3_close(db);
  return done;
}

// Rows of vorn_1 that match `where`; -1 when the database cannot be read.
inline long count_rows(const std::string& db_path, const std::string& where = "1") {
  auto rows = query(db_path, "SELECT count(*) FROM vorn_1 WHERE " + where);
  return rows.empty() ? -1 : std::stol(rows[0][0]);
}

}  // namespace vorn::test
