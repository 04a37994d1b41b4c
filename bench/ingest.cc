// Ingest benchmark: how fast the real vorn-serverd stores results sent by
// several senders over loopback, against what receiving alone and a bulk
// insert of the same rows achieve on this machine in the same run. The
// machine is shared, so the ratios are the figures to compare across runs.
//
//   ingest [-q] [-p] [-r RUNS] [-s SENDERS] [-o OUTPUT_BYTES] [-b PATH_TO_VORN_SERVERD]
//
// The main row (4 senders, 1 KiB unless -s and -o say otherwise) is measured
// RUNS times (default 5), each time also with CURVE (a key per sender), for
// the cost of authentication and encryption, and with the server's store with
// and without exactly-once, for the cost of recognising results sent again;
// -q measures only that row.
//
// Then vorn-serverd storing into a private PostgreSQL server (when built
// with the tests' helper for it): 4 senders x 1 KiB from 1,000 hosts, so that
// nearly every row of a commit is the newest of its key, against
// PostgreSQL's own binary COPY of the rows it stored, in one statement, and
// against SQLite in the same run; and two servers (different hosts, 4
// senders each, half the results each) into one database against one. -p
// measures only that.
//
// vorn-serverd has no switch for exactly-once: for that comparison this
// program runs the same accumulate server and store itself, in a process of
// its own ("ingest --serve exactly-once|at-least-once -c CONFIG"), once each
// way.

#include <fcntl.h>
#include <sys/time.h>
#include <unistd.h>

#include <sqlite3.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "bench/support.h"
#include "daemon/src/config/config.h"
#include "daemon/src/database/database.h"
#include "daemon/src/provider/result.h"
#include "daemon/src/provider/sender.h"
#include "daemon/src/serverd/accumulate_server.h"
#include "daemon/src/serverd/daemon_options.h"
#include "daemon/src/serverd/pub_ack_answerer.h"
#include "daemon/src/serverd/receiver.h"
#include "util/log.h"

#ifdef VORN_BENCH_POSTGRESQL
#include "daemon/src/database/pq.h"

#include "tests/support/postgres.h"
#endif

namespace {

using vorn::bench::Clock;
using vorn::bench::seconds_since;

double wall_clock() {
  timeval now;
  gettimeofday(&now, nullptr);
  return static_cast<double>(now.tv_sec) + static_cast<double>(now.tv_usec) / 1e6;
}

double median(std::vector<double> values) {
  std::sort(values.begin(), values.end());
  return values.empty() ? 0 : values[values.size() / 2];
}

// One row of the table: how many senders send how much.
struct Load {
  int senders;
  size_t output_bytes;    // standard output of each result
  long total;             // results, over all senders
  double paced_rate = 0;  // results/s over all senders; 0: as fast as they can
  int hosts = 0;          // distinct host names cycled through; 0: one per sender
  int first_host = 0;     // the number of the first of them
};

// Each sender completes the handshake, then sends its share. A result's
// duration field carries the time it was sent, for the latency probe.
// With `curve` enabled they are CURVE clients of the server's key, each
// with a key of its own.
void run_senders(const Load& load, const std::string& endpoint, const vorn::bench::CurveKeys* curve,
                 Clock::time_point* start_sending) {
  daemon_config config;
  std::vector<vorn::czmq::Socket> publishers;
  for (int s = 0; s < load.senders; ++s) {
    vorn::curve::settings settings;
    if (curve != nullptr && !curve->node_settings(s, &settings)) {
      std::exit(1);
    }
    publishers.push_back(connect_result_publisher(endpoint, settings));
    if (!publishers.back() ||
        !request_pub_ack(publishers.back().get(), config, "127.0.0.1", 20000, settings)) {
      std::fprintf(stderr, "sender %d: no acknowledgement from %s\n", s, endpoint.c_str());
      std::exit(1);
    }
  }
  *start_sending = Clock::now();
  const long per_sender = load.total / load.senders;
  std::vector<std::thread> threads;
  for (int s = 0; s < load.senders; ++s) {
    threads.emplace_back([&, s] {
      provider_result r = vorn::bench::make_result(s, load.output_bytes);
      const double interval = load.paced_rate > 0 ? load.senders / load.paced_rate : 0;
      const Clock::time_point begin = Clock::now();
      for (long i = 0; i < per_sender; ++i) {
        if (interval > 0) {
          std::this_thread::sleep_until(begin + std::chrono::duration<double>(i * interval));
        }
        if (!r.stdout_data.empty()) {
          r.stdout_data[0] = static_cast<char>(i);
        }
        r.header.timestamp.tv_sec = i;
        if (load.hosts > 0) {
          // As from a whole cluster: nearly every row of a commit is the
          // newest of its provider and host.
          std::snprintf(r.header.hostname, sizeof r.header.hostname, "node%ld",
                        load.first_host + (i * load.senders + s) % load.hosts);
        }
        r.header.duration = wall_clock();
        send_result(r, config, publishers[s].get());
      }
    });
  }
  for (auto& t : threads) {
    t.join();
  }
}

// A reader connection of its own, as any user of the database has.
class Reader {
 public:
  explicit Reader(const std::string& path) {
    sqlite3_open_v2(path.c_str(), &db_, SQLITE_OPEN_READONLY, nullptr);
    sqlite3_busy_timeout(db_, 5000);
  }
  Reader(const Reader&) = delete;
  Reader& operator=(const Reader&) = delete;
  ~Reader() { sqlite3_close(db_); }

  // The last rowid committed; rows are only ever appended, so this is the
  // number of rows, without counting them.
  long last_rowid() {
    long last = 0;
    each_row("SELECT coalesce(max(rowid), 0) FROM vorn_1",
             [&](sqlite3_stmt* s) { last = sqlite3_column_int64(s, 0); });
    return last;
  }

  // Seconds from sending to visibility of every row after `*after`.
  void collect_latencies(long* after, std::vector<double>* latencies) {
    double now = wall_clock();
    std::string sql = "SELECT rowid, Duration FROM vorn_1 WHERE rowid > " + std::to_string(*after);
    each_row(sql.c_str(), [&](sqlite3_stmt* s) {
      *after = sqlite3_column_int64(s, 0);
      latencies->push_back(now - sqlite3_column_double(s, 1));
    });
  }

 private:
  template <typename F>
  void each_row(const char* sql, F&& f) {
    sqlite3_stmt* statement = nullptr;
    if (sqlite3_prepare_v2(db_, sql, -1, &statement, nullptr) == SQLITE_OK) {
      while (sqlite3_step(statement) == SQLITE_ROW) {
        f(statement);
      }
    }
    sqlite3_finalize(statement);
  }

  sqlite3* db_ = nullptr;
};

struct ServerRun {
  double stored_per_s = 0;
  long lost = 0;
  long peak_rss_kib = 0;
  double cpu_s = 0;               // the server's, from start to stop
  std::vector<double> latencies;  // seconds, when probed
  double rows_per_commit = 0;     // PostgreSQL's, on average
};

// The server started by `server` and "-c CONFIG", storing into a fresh
// database. The clock runs from the first result sent until the last row is
// visible to another connection.
ServerRun measure_server(const std::vector<std::string>& server, const Load& load,
                         const std::string& dir, bool probe_latency,
                         const vorn::bench::CurveKeys* curve = nullptr) {
  int port = vorn::bench::free_port();
  std::string config_path = dir + "/vornd.xml";
  std::string db = dir + "/vorn.db";
  for (const char* suffix : {"", "-wal", "-shm"}) {
    unlink((db + suffix).c_str());
  }
  vorn::bench::write_server_config(config_path, port, dir, db,
                                   curve != nullptr ? curve->server_config() : "");
  std::vector<std::string> command = server;
  command.insert(command.end(), {"-c", config_path});
  pid_t server_pid = vorn::bench::spawn(command, "");
  ServerRun run;
  Clock::time_point start;
  std::atomic<bool> sent{false};
  std::thread senders([&] {
    run_senders(load, "tcp://127.0.0.1:" + std::to_string(port), curve, &start);
    sent = true;
  });
  // The database exists once the server has answered the handshakes.
  while (!sent && access(db.c_str(), F_OK) != 0) {
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
  }
  Reader reader(db);
  long last = 0;
  long seen = 0;
  Clock::time_point progress = Clock::now();
  double elapsed = 0;
  // Until every row is visible, or nothing moves for 5 s after sending ends.
  while (last < load.total && (!sent || seconds_since(progress) < 5)) {
    std::this_thread::sleep_for(std::chrono::milliseconds(probe_latency ? 1 : 2));
    if (probe_latency) {
      reader.collect_latencies(&seen, &run.latencies);
    }
    long now_last = probe_latency ? seen : reader.last_rowid();
    if (now_last != last) {
      last = now_last;
      progress = Clock::now();
      elapsed = seconds_since(start);
    }
  }
  senders.join();
  run.peak_rss_kib = vorn::bench::proc_status_kib(server_pid, "VmHWM");
  run.cpu_s = static_cast<double>(vorn::bench::cpu_ticks(server_pid)) /
              static_cast<double>(::sysconf(_SC_CLK_TCK));
  vorn::bench::stop(server_pid);
  run.lost = load.total - Reader(db).last_rowid();
  run.stored_per_s = last / elapsed;
  return run;
}

// The same messages received and parsed by a SUB socket of our own, stored nowhere.
double measure_receive_only(const Load& load) {
  daemon_config config;
  vorn::czmq::Socket subscriber(zsock_new(ZMQ_SUB));
  int port = zsock_bind(subscriber.get(), "tcp://127.0.0.1:*");
  zsock_set_subscribe(subscriber.get(), accumulate_topic(config).c_str());
  zsock_set_rcvtimeo(subscriber.get(), 50);
  long received = 0;
  Clock::time_point start;
  std::atomic<bool> handshakes_done{false};
  std::thread senders([&] {
    run_senders(load, "tcp://127.0.0.1:" + std::to_string(port), nullptr, &start);
    handshakes_done = true;
  });
  received_message message;
  result_receiver receiver;
  pub_ack_answerer answerer;
  while (received < load.total) {
    message_kind got = receiver.receive(subscriber.get(), message);
    if (got == message_kind::result) {
      ++received;
    } else if (got == message_kind::pub_ack) {
      answerer.answer(receiver.request());
      receiver.mark_answered(receiver.request().key);
    } else if (handshakes_done && !(zsock_events(subscriber.get()) & ZMQ_POLLIN)) {
      break;
    }
  }
  double elapsed = seconds_since(start);
  senders.join();
  return received / elapsed;
}

// The same rows inserted in one transaction through one prepared statement.
double measure_bulk_insert(const Load& load, const std::string& dir) {
  std::string path = dir + "/bulk.db";
  for (const char* suffix : {"", "-wal", "-shm"}) {
    unlink((path + suffix).c_str());
  }
  sqlite3* db = nullptr;
  sqlite3_open(path.c_str(), &db);
  sqlite3_exec(db,
               "PRAGMA page_size=16384; PRAGMA journal_mode=WAL; PRAGMA synchronous=NORMAL; "
               "CREATE TABLE vorn_1 (rowid "
               "INTEGER PRIMARY KEY, row_timestamp INTEGER DEFAULT (strftime('%s', 'now')), "
               "Provider TEXT, Hostname TEXT, num_nodes INTEGER, node_names TEXT, Exit_status "
               "INTEGER, Timestamp INTEGER, Duration REAL, Encoding INTEGER, Stdout_size "
               "INTEGER, STDOUT BLOB, Stderr_size INTEGER, STDERR BLOB, OptionID TEXT, version "
               "INTEGER)",
               nullptr, nullptr, nullptr);
  sqlite3_stmt* insert = nullptr;
  sqlite3_prepare_v2(db,
                     "INSERT INTO vorn_1 (Provider, Hostname, num_nodes, node_names, "
                     "Exit_status, Timestamp, Duration, Encoding, Stdout_size, STDOUT, "
                     "Stderr_size, STDERR, OptionID, version) values (?,?,?,?,?,?,?,?,?,?,?,?,?,?)",
                     -1, &insert, nullptr);
  provider_result r = vorn::bench::make_result(0, load.output_bytes);
  const int out_size = static_cast<int>(r.stdout_data.size());
  auto start = Clock::now();
  sqlite3_exec(db, "BEGIN", nullptr, nullptr, nullptr);
  for (long i = 0; i < load.total; ++i) {
    sqlite3_bind_text(insert, 1, r.header.name, -1, SQLITE_STATIC);
    sqlite3_bind_text(insert, 2, r.header.hostname, -1, SQLITE_STATIC);
    sqlite3_bind_int(insert, 3, r.header.num_nodes);
    sqlite3_bind_text(insert, 4, r.nodes_csv.c_str(), -1, SQLITE_STATIC);
    sqlite3_bind_int(insert, 5, r.header.exit_status);
    sqlite3_bind_int(insert, 6, static_cast<int>(i));
    sqlite3_bind_double(insert, 7, r.header.duration);
    sqlite3_bind_int(insert, 8, r.header.encoding);
    sqlite3_bind_int64(insert, 9, out_size);
    sqlite3_bind_blob(insert, 10, r.stdout_data.data(), out_size, SQLITE_STATIC);
    sqlite3_bind_int64(insert, 11, 100);
    sqlite3_bind_blob(insert, 12, r.stderr_data.data(), 100, SQLITE_STATIC);
    sqlite3_bind_text(insert, 13, r.header.option_id, -1, SQLITE_STATIC);
    sqlite3_bind_int(insert, 14, r.header.version);
    sqlite3_step(insert);
    sqlite3_reset(insert);
  }
  sqlite3_exec(db, "COMMIT", nullptr, nullptr, nullptr);
  double elapsed = seconds_since(start);
  sqlite3_finalize(insert);
  sqlite3_close(db);
  return load.total / elapsed;
}

// The disk's own limit: the same number of bytes written in order, with one
// fsync at the end. MB/s.
double measure_sequential_write(double bytes, const std::string& dir) {
  std::string path = dir + "/plain";
  int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
  std::vector<char> chunk(1 << 20, 'x');
  auto start = Clock::now();
  for (double left = bytes; left > 0; left -= chunk.size()) {
    if (write(fd, chunk.data(), chunk.size()) < 0) {
      break;
    }
  }
  fsync(fd);
  double elapsed = seconds_since(start);
  close(fd);
  unlink(path.c_str());
  return bytes / 1e6 / elapsed;
}

struct Row {
  Load load;
  std::vector<ServerRun> runs;
  std::vector<double> received;
  std::vector<double> bulk;
  double disk_mb_per_s = 0;
};

void measure_row(const std::string& serverd, const std::string& dir, Row& row) {
  ServerRun run = measure_server({serverd}, row.load, dir, false);
  row.runs.push_back(run);
  row.received.push_back(measure_receive_only(row.load));
  row.bulk.push_back(measure_bulk_insert(row.load, dir));
  if (row.load.output_bytes >= 65536 && row.disk_mb_per_s == 0) {
    row.disk_mb_per_s =
        measure_sequential_write(static_cast<double>(row.load.total) * row.load.output_bytes, dir);
  }
}

std::string size_text(size_t bytes) {
  return bytes >= 1024 ? std::to_string(bytes / 1024) + " KiB" : std::to_string(bytes) + " B";
}

// Medians over the row's runs.
void print_row(const Row& row) {
  std::vector<double> stored;
  std::vector<double> rss;
  long lost = 0;
  for (const ServerRun& r : row.runs) {
    stored.push_back(r.stored_per_s);
    rss.push_back(static_cast<double>(r.peak_rss_kib));
    lost += r.lost;
  }
  double s = median(stored);
  double received = median(row.received);
  double bulk = median(row.bulk);
  std::printf("%7d %7s %9.0f %9.0f %9.0f %8.2f %8.2f %7.0f", row.load.senders,
              size_text(row.load.output_bytes).c_str(), s, received, bulk, s / received, s / bulk,
              median(rss) / 1024);
  if (row.disk_mb_per_s > 0) {
    std::printf(" %6.0f %6.0f", s * static_cast<double>(row.load.output_bytes) / 1e6,
                row.disk_mb_per_s);
  } else {
    std::printf(" %6s %6s", "", "");
  }
  std::printf(" %5ld\n", lost);
}

void print_header() {
  std::printf("%7s %7s %9s %9s %9s %8s %8s %7s %6s %6s %5s\n", "senders", "output", "stored/s",
              "recv/s", "bulk/s", "st/recv", "st/bulk", "RSS MiB", "MB/s", "disk", "lost");
}

void print_values(const char* what, const std::vector<double>& values) {
  std::printf("  %-22s", what);
  for (double v : values) {
    std::printf(" %9.0f", v);
  }
  std::printf("   median %.0f\n", median(values));
}

#ifdef VORN_BENCH_POSTGRESQL
pq_result pg_run(PGconn* connection, const std::string& sql, ExecStatusType want) {
  pq_result result(PQexec(connection, sql.c_str()));
  if (PQresultStatus(result.get()) != want) {
    std::fprintf(stderr, "%s: %s\n", sql.c_str(), PQerrorMessage(connection));
    std::exit(1);
  }
  return result;
}

long pg_number(PGconn* connection, const std::string& sql) {
  // The tables appear once a server has connected.
  pq_result result(PQexec(connection, sql.c_str()));
  return PQresultStatus(result.get()) == PGRES_TUPLES_OK ? std::atol(PQgetvalue(result.get(), 0, 0))
                                                         : 0;
}

// vorn-serverd processes, one per load, storing into the database `url`.
// The clock runs from the first result sent until every row is committed.
ServerRun measure_postgresql_servers(const std::string& serverd, const std::vector<Load>& loads,
                                     const std::string& dir, const std::string& url) {
  std::vector<pid_t> pids;
  std::vector<int> ports;
  for (size_t i = 0; i < loads.size(); ++i) {
    ports.push_back(vorn::bench::free_port());
    std::string config_path = dir + "/vornd-pg" + std::to_string(i) + ".xml";
    vorn::bench::write_server_config(
        config_path, ports.back(), dir + "/pg" + std::to_string(i), dir + "/unused.db",
        "<database_backend>postgresql</database_backend><database_url>" + url + "</database_url>");
    pids.push_back(vorn::bench::spawn({serverd, "-c", config_path}, ""));
  }
  long total = 0;
  for (const Load& load : loads) {
    total += load.total;
  }
  std::vector<Clock::time_point> starts(loads.size());
  std::atomic<int> sending{static_cast<int>(loads.size())};
  std::vector<std::thread> senders;
  for (size_t i = 0; i < loads.size(); ++i) {
    senders.emplace_back([&, i] {
      run_senders(loads[i], "tcp://127.0.0.1:" + std::to_string(ports[i]), nullptr, &starts[i]);
      --sending;
    });
  }
  pq_connection reader(PQconnectdb(url.c_str()));
  long last = 0;
  Clock::time_point progress = Clock::now();
  double elapsed = 0;
  // Rowids are taken before their commits, so the newest may be visible
  // before all are: the rows are counted once it says all are there. Until
  // every row is there, or nothing moves for 5 s after sending ends.
  while (last < total && (sending > 0 || seconds_since(progress) < 5)) {
    std::this_thread::sleep_for(std::chrono::milliseconds(2));
    long now_last = pg_number(reader.get(), "SELECT coalesce(max(rowid), 0) FROM vorn_1");
    if (now_last >= total) {
      now_last = pg_number(reader.get(), "SELECT count(*) FROM vorn_1");
    }
    if (now_last != last) {
      last = now_last;
      progress = Clock::now();
      elapsed = seconds_since(*std::min_element(starts.begin(), starts.end()));
    }
  }
  for (std::thread& t : senders) {
    t.join();
  }
  ServerRun run;
  for (pid_t pid : pids) {
    run.cpu_s += static_cast<double>(vorn::bench::cpu_ticks(pid)) /
                 static_cast<double>(::sysconf(_SC_CLK_TCK));
    vorn::bench::stop(pid);
  }
  run.lost = total - pg_number(reader.get(), "SELECT count(*) FROM vorn_1");
  // A commit's rows share their inserting transaction.
  run.rows_per_commit =
      static_cast<double>(total - run.lost) /
      static_cast<double>(
          std::max(1L, pg_number(reader.get(), "SELECT count(DISTINCT xmin::text) FROM vorn_1")));
  run.stored_per_s = static_cast<double>(last) / elapsed;
  return run;
}

// Rows per second of PostgreSQL's own binary COPY of the rows of vorn_1, in
// one statement, into an empty table of the same columns and indexes.
double measure_postgresql_copy(const std::string& url) {
  pq_connection connection(PQconnectdb(url.c_str()));
  const std::string columns =
      "Provider, Hostname, num_nodes, node_names, Exit_status, Timestamp, Duration, Encoding, "
      "Stdout_size, STDOUT, Stderr_size, STDERR, OptionID, version";
  pg_run(connection.get(), "COPY (SELECT " + columns + " FROM vorn_1) TO STDOUT (FORMAT binary)",
         PGRES_COPY_OUT);
  std::string data;
  char* chunk = nullptr;
  for (int n; (n = PQgetCopyData(connection.get(), &chunk, 0)) > 0; PQfreemem(chunk)) {
    data.append(chunk, static_cast<size_t>(n));
  }
  pq_result(PQgetResult(connection.get()));
  long rows = pg_number(connection.get(), "SELECT count(*) FROM vorn_1");
  pg_run(connection.get(), "CREATE TABLE copied (LIKE vorn_1 INCLUDING ALL)", PGRES_COMMAND_OK);
  auto start = Clock::now();
  pg_run(connection.get(), "COPY copied (" + columns + ") FROM STDIN (FORMAT binary)",
         PGRES_COPY_IN);
  PQputCopyData(connection.get(), data.data(), static_cast<int>(data.size()));
  PQputCopyEnd(connection.get(), nullptr);
  pq_result done(PQgetResult(connection.get()));
  if (PQresultStatus(done.get()) != PGRES_COMMAND_OK) {
    std::fprintf(stderr, "copy: %s\n", PQerrorMessage(connection.get()));
    std::exit(1);
  }
  return static_cast<double>(rows) / seconds_since(start);
}

// Returns the number of rows lost.
long measure_postgresql(const std::string& serverd, const std::string& dir, int runs) {
  std::string why = vorn::test::PrivatePostgres::unavailable_reason();
  if (!why.empty()) {
    std::printf("\nPostgreSQL skipped: %s\n", why.c_str());
    return 0;
  }
  std::unique_ptr<vorn::test::PrivatePostgres> postgres;
  try {
    postgres = std::make_unique<vorn::test::PrivatePostgres>();
  } catch (const std::exception& e) {
    std::printf("\nPostgreSQL skipped: %s\n", e.what());
    return 0;
  }
  const Load one{4, 1024, 200000, 0, 1000, 0};
  const Load half{4, 1024, 100000, 0, 1000, 0};
  Load other = half;
  other.first_host = 1000;
  std::vector<double> commit_rows;
  std::vector<double> pg, copy, sqlite_rates, pair, pg_ratio, sqlite_ratio, pair_ratio;
  long lost = 0;
  for (int i = 0; i < runs; ++i) {
    std::string url = postgres->url(postgres->create_database());
    ServerRun run = measure_postgresql_servers(serverd, {one}, dir, url);
    copy.push_back(measure_postgresql_copy(url));
    pg.push_back(run.stored_per_s);
    commit_rows.push_back(run.rows_per_commit);
    ServerRun two = measure_postgresql_servers(serverd, {half, other}, dir,
                                               postgres->url(postgres->create_database()));
    pair.push_back(two.stored_per_s);
    ServerRun on_sqlite = measure_server({serverd}, one, dir, false);
    sqlite_rates.push_back(on_sqlite.stored_per_s);
    pg_ratio.push_back(run.stored_per_s / copy.back() * 100);
    pair_ratio.push_back(two.stored_per_s / run.stored_per_s * 100);
    sqlite_ratio.push_back(on_sqlite.stored_per_s / copy.back() * 100);
    lost += run.lost + two.lost + on_sqlite.lost;
  }
  std::printf(
      "\nvorn-serverd into PostgreSQL (private server, fsync off), 4 senders x 1 KiB from 1,000 "
      "hosts, %d runs:\n",
      runs);
  print_values("PostgreSQL stored/s", pg);
  print_values("rows per commit", commit_rows);
  print_values("its own COPY/s", copy);
  print_values("stored/COPY, percent", pg_ratio);
  print_values("SQLite stored/s", sqlite_rates);
  print_values("SQLite/COPY, percent", sqlite_ratio);
  print_values("two servers, sum/s", pair);
  print_values("two/one, percent", pair_ratio);
  std::printf("  goal 0.5 of COPY: %s\n", median(pg_ratio) >= 50 ? "met" : "not met");
  return lost;
}
#endif

// This program's own file, to start it again as a server.
std::string own_path() {
  char path[4096];
  ssize_t size = ::readlink("/proc/self/exe", path, sizeof path - 1);
  return size > 0 ? std::string(path, static_cast<size_t>(size)) : "";
}

// The accumulate server and store of vorn-serverd, in this process, with or
// without exactly-once; it stops at SIGTERM as vorn-serverd stops at a second.
int serve(const std::string& mode, const char* config_path) {
  vorn::log::LOG_LEVEL = 4;
  daemon_config config;
  if (read_config(config, config_path) != 0) {
    return 1;
  }
  sqlite store(config, mode == "exactly-once");
  if (!store.usable()) {
    return 1;
  }
  daemon_options options;
  return run_accumulate_server(options, config, &store) ? 0 : 1;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc == 5 && std::string(argv[1]) == "--serve" && std::string(argv[3]) == "-c") {
    return serve(argv[2], argv[4]);
  }
  std::string serverd = VORN_SERVERD_PATH;
  int main_runs = 5;
  bool quick = false;
  bool only_postgresql = false;
  // The benchmark's own receiver must not pay for a log line per message.
  vorn::log::LOG_LEVEL = 5;
  int opt;
  Row main_row{Load{4, 1024, 200000}, {}, {}, {}};
  while ((opt = getopt(argc, argv, "qpr:s:o:b:k:h")) != -1) {
    switch (opt) {
      case 'p':
        only_postgresql = true;
        break;
      case 'q':
        quick = true;
        break;
      case 'r':
        main_runs = std::max(1, std::atoi(optarg));
        break;
      case 's':
        main_row.load.senders = std::max(1, std::atoi(optarg));
        break;
      case 'o':
        main_row.load.output_bytes = static_cast<size_t>(std::max(0, std::atoi(optarg)));
        break;
      case 'b':
        serverd = optarg;
        break;
      case 'k':
        main_row.load.hosts = std::max(0, std::atoi(optarg));
        break;
      default:
        return vorn::bench::usage(
            argv[0],
            "[-q] [-p] [-r runs] [-s senders] [-o output bytes] [-k hosts] [-b vorn-serverd]", opt);
    }
  }
  char dir_template[] = "/tmp/vorn-bench.XXXXXX";
  if (mkdtemp(dir_template) == nullptr) {
    std::perror("mkdtemp");
    return 1;
  }
  const std::string dir = dir_template;
  std::setvbuf(stdout, nullptr, _IOLBF, 0);
  if (only_postgresql) {
#ifdef VORN_BENCH_POSTGRESQL
    long lost = measure_postgresql(serverd, dir, main_runs);
    std::printf("lost: %ld\n", lost);
#else
    long lost = 0;
    std::printf("PostgreSQL skipped: built without the tests' private PostgreSQL server\n");
#endif
    int ignored = std::system(("rm -rf '" + dir + "'").c_str());
    (void)ignored;
    return lost == 0 ? 0 : 1;
  }

  // The main row is measured main_runs times.
  main_row.load.total = main_row.load.output_bytes >= 65536 ? 4000 : 200000;
  main_row.load.total -= main_row.load.total % main_row.load.senders;
  std::vector<Row> table;
  if (!quick) {
    for (size_t bytes : {size_t{100}, size_t{1024}, size_t{65536}}) {
      for (int senders : {1, 2, 4, 8}) {
        long total = bytes >= 65536 ? 4000 : 200000;
        table.push_back(Row{Load{senders, bytes, total}, {}, {}, {}});
      }
    }
  }
  std::printf(
      "Results stored by vorn-serverd (stdout as given, stderr 100 B, 3 nodes), against\n"
      "receiving alone and a one-transaction bulk insert of the same rows; medians.\n");
  print_header();
  for (Row& row : table) {
    if (row.load.senders == main_row.load.senders &&
        row.load.output_bytes == main_row.load.output_bytes) {
      continue;
    }
    measure_row(serverd, dir, row);
    print_row(row);
  }
  // The main row once more with CURVE after each plaintext run, so that
  // both see the same machine. Each sender has a key of its own; the
  // process's ZAP handler lets only the server answer their handshakes.
  vorn::bench::CurveKeys keys;
  vorn::curve::settings any_sender;
  if (!vorn::bench::make_curve_keys(dir + "/keys", main_row.load.senders, &keys) ||
      !keys.node_settings(0, &any_sender)) {
    return 1;
  }
  vorn::curve::zap_handler zap(only_the_server(any_sender), "the benchmark's reply sockets");
  if (!zap.ok()) {
    return 1;
  }
  std::vector<ServerRun> curve_runs;
  std::vector<ServerRun> once_runs;
  std::vector<ServerRun> plain_runs;
  const std::string self = own_path();
  for (int i = 0; i < main_runs; ++i) {
    measure_row(serverd, dir, main_row);
    curve_runs.push_back(measure_server({serverd}, main_row.load, dir, false, &keys));
    // Both ways one after the other, which first alternating, so that both
    // see the same machine.
    for (bool exactly_once : {i % 2 == 0, i % 2 != 0}) {
      ServerRun run =
          measure_server({self, "--serve", exactly_once ? "exactly-once" : "at-least-once"},
                         main_row.load, dir, false);
      (exactly_once ? once_runs : plain_runs).push_back(run);
    }
  }
  print_row(main_row);

  std::vector<double> stored;
  std::vector<double> ratio;
  for (size_t i = 0; i < main_row.runs.size(); ++i) {
    stored.push_back(main_row.runs[i].stored_per_s);
    ratio.push_back(main_row.runs[i].stored_per_s / main_row.bulk[i] * 100);
  }
  std::printf("\n%d senders x %s, %d runs:\n", main_row.load.senders,
              size_text(main_row.load.output_bytes).c_str(), main_runs);
  print_values("stored/s", stored);
  print_values("bulk insert/s", main_row.bulk);
  print_values("stored/bulk, percent", ratio);
  double s = median(stored);
  double r = median(ratio) / 100;
  if (main_row.load.senders == 4 && main_row.load.output_bytes == 1024) {
    std::printf("  goal 100000/s and 0.5 of bulk: %s and %s\n", s >= 100000 ? "met" : "not met",
                r >= 0.5 ? "met" : "not met");
  }

  std::vector<double> curve_stored;
  std::vector<double> curve_ratio;
  std::vector<double> plain_cpu_ns;
  std::vector<double> curve_cpu_ns;
  const double results = static_cast<double>(main_row.load.total);
  for (size_t i = 0; i < curve_runs.size(); ++i) {
    curve_stored.push_back(curve_runs[i].stored_per_s);
    curve_ratio.push_back(curve_runs[i].stored_per_s / main_row.runs[i].stored_per_s * 100);
    plain_cpu_ns.push_back(main_row.runs[i].cpu_s / results * 1e9);
    curve_cpu_ns.push_back(curve_runs[i].cpu_s / results * 1e9);
  }
  std::printf("\nThe same with CURVE (each run right after a plaintext one):\n");
  print_values("CURVE stored/s", curve_stored);
  print_values("CURVE/plain, percent", curve_ratio);
  print_values("server CPU/result, ns", plain_cpu_ns);
  print_values("  the same, CURVE", curve_cpu_ns);
  const double curve_r = median(curve_ratio) / 100;
  std::printf("  goal 0.7 of plaintext: %s\n", curve_r >= 0.7 ? "met" : "not met");

  std::vector<double> once_stored;
  std::vector<double> plain_stored;
  std::vector<double> once_ratio;
  std::vector<double> once_rss;
  std::vector<double> plain_rss;
  std::vector<double> once_cpu_ns;
  std::vector<double> plain_cpu_ns_own;
  for (size_t i = 0; i < once_runs.size(); ++i) {
    once_stored.push_back(once_runs[i].stored_per_s);
    plain_stored.push_back(plain_runs[i].stored_per_s);
    once_ratio.push_back(once_runs[i].stored_per_s / plain_runs[i].stored_per_s * 100);
    once_rss.push_back(static_cast<double>(once_runs[i].peak_rss_kib) / 1024);
    plain_rss.push_back(static_cast<double>(plain_runs[i].peak_rss_kib) / 1024);
    once_cpu_ns.push_back(once_runs[i].cpu_s / results * 1e9);
    plain_cpu_ns_own.push_back(plain_runs[i].cpu_s / results * 1e9);
  }
  std::printf("\nExactly-once against the same server without it (both run by this program):\n");
  print_values("exactly-once stored/s", once_stored);
  print_values("without it, stored/s", plain_stored);
  print_values("once/without, percent", once_ratio);
  print_values("server CPU/result, ns", once_cpu_ns);
  print_values("  the same, without", plain_cpu_ns_own);
  print_values("peak RSS MiB", once_rss);
  print_values("  the same, without", plain_rss);
  const double once_r = median(once_ratio) / 100;
  const bool memory_kept = median(once_rss) <= median(plain_rss) + 1;
  std::printf("  goal 0.9 of the rate without it, and no more memory: %s and %s\n",
              once_r >= 0.9 ? "met" : "not met", memory_kept ? "met" : "not met");

  // Arrival to commit, with the senders paced at half the stored rate so
  // that results do not queue on their way: the time from sending to the
  // row's visibility to another connection.
  const int senders = main_row.load.senders;
  Load paced{senders, main_row.load.output_bytes, static_cast<long>(s) / senders * senders, s / 2};
  ServerRun probe = measure_server({serverd}, paced, dir, true);
  std::sort(probe.latencies.begin(), probe.latencies.end());
  auto percentile = [&](double p) {
    return probe.latencies.empty()
               ? 0
               : probe.latencies[static_cast<size_t>(p * (probe.latencies.size() - 1))] * 1000;
  };
  std::printf(
      "\nArrival to commit at %.0f results/s (%d senders x %s, %zu rows): median %.1f ms,"
      " 99th percentile %.1f ms, peak RSS %ld MiB\n",
      s / 2, senders, size_text(paced.output_bytes).c_str(), probe.latencies.size(),
      percentile(0.5), percentile(0.99), probe.peak_rss_kib / 1024);

  long lost = probe.lost;
  for (const Row& row : table) {
    for (const ServerRun& run : row.runs) {
      lost += run.lost;
    }
  }
  for (const ServerRun& run : main_row.runs) {
    lost += run.lost;
  }
  for (const std::vector<ServerRun>* runs : {&curve_runs, &once_runs, &plain_runs}) {
    for (const ServerRun& run : *runs) {
      lost += run.lost;
    }
  }
#ifdef VORN_BENCH_POSTGRESQL
  lost += measure_postgresql(serverd, dir, std::min(main_runs, 3));
#else
  std::printf("\nPostgreSQL skipped: built without the tests' private PostgreSQL server\n");
#endif
  std::printf("lost: %ld\n", lost);

  std::string cleanup = "rm -rf '" + dir + "'";
  int ignored = std::system(cleanup.c_str());
  (void)ignored;
  return lost == 0 ? 0 : 1;
}
