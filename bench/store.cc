// Store benchmark: rows per second through the server's stores alone (no
// sockets), written in group commits as the server's writer does, into
// SQLite and into a private PostgreSQL server, against PostgreSQL's own
// binary COPY of the same rows in the same run. The machine is shared, so
// the ratios are the figures to compare across runs.
//
//   store [-n ROWS] [-o OUTPUT_BYTES] [-g ROWS_PER_COMMIT] [-r RUNS]
//
// Medians of RUNS (default 3) runs of ROWS (default 100,000) results of
// OUTPUT_BYTES (default 1,024), committed every ROWS_PER_COMMIT (default 512,
// half the server's ring). Built with the tests, whose private PostgreSQL
// server it uses.

#include <unistd.h>

#include <libpq-fe.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <string>
#include <vector>

#include "daemon/src/config/config.h"
#include "daemon/src/database/database.h"
#include "daemon/src/database/postgresql.h"
#include "daemon/src/database/result_identity.h"
#include "tests/support/postgres.h"
#include "util/log.h"
#include "util/str.h"

namespace {

using Clock = std::chrono::steady_clock;

double median(std::vector<double> values) {
  std::sort(values.begin(), values.end());
  return values[values.size() / 2];
}

std::vector<provider_result> make_results(int count, int output_bytes) {
  std::vector<provider_result> results(count);
  for (int i = 0; i < count; ++i) {
    provider_result& r = results[i];
    vorn::str::copy(r.header.name, "bench" + std::to_string(i % 20));
    vorn::str::copy(r.header.hostname, "node" + std::to_string(i % 1000));
    vorn::str::copy(r.header.option_id, "default");
    r.header.timestamp = {1700000000 + i / 1000, i % 1000};
    r.header.duration = 0.25;
    r.header.version = 1;
    r.stdout_data = std::string(output_bytes, static_cast<char>('a' + i % 26));
    r.header.stdout_size = r.stdout_data.size();
  }
  return results;
}

// Rows per second writing `results` into `store`, flushing every `group`.
double write_all(database& store, const std::vector<provider_result>& results,
                 const std::vector<result_identity>& identities, int group) {
  auto start = Clock::now();
  for (size_t i = 0; i < results.size(); ++i) {
    if (store.write(results[i], &identities[i]) != write_status::written) {
      std::fprintf(stderr, "write failed: %s\n", store.last_error().c_str());
      std::exit(1);
    }
    if ((i + 1) % group == 0 || i + 1 == results.size()) {
      if (store.flush() != commit_result::committed) {
        std::fprintf(stderr, "commit failed: %s\n", store.last_error().c_str());
        std::exit(1);
      }
    }
  }
  return results.size() / std::chrono::duration<double>(Clock::now() - start).count();
}

PGresult* exec(PGconn* connection, const std::string& sql, ExecStatusType want) {
  PGresult* result = PQexec(connection, sql.c_str());
  if (PQresultStatus(result) != want) {
    std::fprintf(stderr, "%s: %s\n", sql.c_str(), PQerrorMessage(connection));
    std::exit(1);
  }
  return result;
}

// Rows per second of PostgreSQL's own binary COPY of the rows of vorn_1
// into an empty table of the same columns: in one statement, or with
// `group` a statement and commit for every `group` rows.
double plain_copy(const std::string& url, int group) {
  pq_connection connection(PQconnectdb(url.c_str()));
  const std::string columns =
      "Provider, Hostname, num_nodes, node_names, Exit_status, Timestamp, Duration, Encoding, "
      "Stdout_size, STDOUT, Stderr_size, STDERR, OptionID, version";
  PQclear(exec(connection.get(),
               "COPY (SELECT " + columns + " FROM vorn_1) TO STDOUT (FORMAT binary)",
               PGRES_COPY_OUT));
  std::string data;
  char* chunk = nullptr;
  for (int n; (n = PQgetCopyData(connection.get(), &chunk, 0)) > 0; PQfreemem(chunk)) {
    data.append(chunk, n);
  }
  PQclear(PQgetResult(connection.get()));
  long rows = std::atol(PQgetvalue(
      pq_result(exec(connection.get(), "SELECT count(*) FROM vorn_1", PGRES_TUPLES_OK)).get(), 0,
      0));
  PQclear(exec(connection.get(),
               "DROP TABLE IF EXISTS copied; CREATE TABLE copied (LIKE vorn_1 INCLUDING ALL)",
               PGRES_COMMAND_OK));
  // The tuples, each after its 16-bit field count, between a 19-byte header
  // and a 2-byte trailer: cut into groups of `group` rows, each group its own
  // COPY and commit.
  std::vector<size_t> starts;
  for (size_t at = 19; at + 2 < data.size();) {
    starts.push_back(at);
    at += 2;
    for (int field = 0; field < 14; ++field) {
      uint32_t length = 0;
      for (int k = 0; k < 4; ++k) {
        length = (length << 8) | static_cast<unsigned char>(data[at + k]);
      }
      at += 4 + (length == 0xffffffffu ? 0 : length);
    }
  }
  starts.push_back(data.size() - 2);
  auto start = Clock::now();
  size_t step = group > 0 ? static_cast<size_t>(group) : starts.size();
  for (size_t first = 0; first + 1 < starts.size(); first += step) {
    size_t last = std::min(first + step, starts.size() - 1);
    PQclear(exec(connection.get(), "COPY copied (" + columns + ") FROM STDIN (FORMAT binary)",
                 PGRES_COPY_IN));
    PQputCopyData(connection.get(), data.data(), 19);
    PQputCopyData(connection.get(), data.data() + starts[first],
                  static_cast<int>(starts[last] - starts[first]));
    PQputCopyData(connection.get(), data.data() + data.size() - 2, 2);
    PQputCopyEnd(connection.get(), nullptr);
    pq_result done(PQgetResult(connection.get()));
    if (PQresultStatus(done.get()) != PGRES_COMMAND_OK) {
      std::fprintf(stderr, "copy: %s\n", PQerrorMessage(connection.get()));
      std::exit(1);
    }
  }
  return rows / std::chrono::duration<double>(Clock::now() - start).count();
}

}  // namespace

int main(int argc, char** argv) {
  int rows = 100000;
  int output_bytes = 1024;
  int group = 512;
  int runs = 3;
  for (int opt; (opt = getopt(argc, argv, "n:o:g:r:")) != -1;) {
    int value = std::atoi(optarg);
    (opt == 'n' ? rows : opt == 'o' ? output_bytes : opt == 'g' ? group : runs) = value;
  }
  vorn::log::LOG_OUTPUT = 0;
  std::string why = vorn::test::PrivatePostgres::unavailable_reason();
  if (!why.empty()) {
    std::fprintf(stderr, "no private PostgreSQL server: %s\n", why.c_str());
    return 1;
  }
  vorn::test::PrivatePostgres postgres;
  vorn::test::TempDir dir;
  std::vector<provider_result> results = make_results(rows, output_bytes);
  std::vector<result_identity> identities;
  for (const provider_result& r : results) {
    identities.push_back(identify(r));
  }
  std::vector<double> sqlite_rates, postgresql_rates, at_least_once_rates, copy_rates,
      grouped_copy_rates;
  for (int run = 0; run < runs; ++run) {
    daemon_config config;
    config.database_file = dir / ("run" + std::to_string(run) + ".db");
    {
      sqlite store(config);
      sqlite_rates.push_back(write_all(store, results, identities, group));
    }
    for (bool exactly_once : {true, false}) {
      config.database_url = postgres.url(postgres.create_database());
      postgresql store(config, exactly_once);
      (exactly_once ? postgresql_rates : at_least_once_rates)
          .push_back(write_all(store, results, identities, group));
      if (exactly_once) {
        copy_rates.push_back(plain_copy(config.database_url, 0));
        grouped_copy_rates.push_back(plain_copy(config.database_url, group));
      }
    }
  }
  std::printf("%d results of %d bytes, a commit every %d, medians of %d runs (rows/s):\n", rows,
              output_bytes, group, runs);
  std::printf("  SQLite store                       %9.0f\n", median(sqlite_rates));
  std::printf("  PostgreSQL store, exactly once     %9.0f  (%.2f of COPY)\n",
              median(postgresql_rates), median(postgresql_rates) / median(copy_rates));
  std::printf("  PostgreSQL store, at least once    %9.0f  (%.2f of COPY)\n",
              median(at_least_once_rates), median(at_least_once_rates) / median(copy_rates));
  std::printf("  PostgreSQL's own COPY, one statement %7.0f\n", median(copy_rates));
  std::printf("  PostgreSQL's own COPY, a commit every %d %7.0f\n", group,
              median(grouped_copy_rates));
  return 0;
}
