// Retention benchmark: how fast vorn-serverd stores results from 4 senders
// x 1 KiB while its retention deletes EXPIRED (default 1,000,000) rows of two
// days ago, against the same stream into the same store without retention,
// in the same run; in SQLite and in a private PostgreSQL server (the tests'
// own, tests/support/postgres.h).
//
//   retention [-n EXPIRED] [-s SENDERS] [-o OUTPUT_BYTES] [-b PATH_TO_VORN_SERVERD]
//
// With retention on, the senders stream in rounds (each ends with a PUB_ACK,
// answered once every result before it is committed) until the expired rows
// are gone or for 15 s; without it, the same number of results. The rate is results over
// the time from the first sent to the last acknowledged.

#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <memory>
#include <mutex>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "bench/support.h"
#include "daemon/src/config/config.h"
#include "daemon/src/database/schema.h"
#include "daemon/src/provider/sender.h"
#include "tests/support/postgres.h"

namespace {

using vorn::bench::Clock;
using vorn::bench::seconds_since;

constexpr long kRound = 20000;  // results over all senders between acknowledgements
// The stream with retention ends when the expired rows are gone or after
// this long, whichever is first: its rows fill the disk at up to 100 MB/s.
constexpr double kLongestStreamS = 15;

struct Store {
  const char* name;
  std::string config;                                // the server's keys for it
  std::function<long long(const std::string&)> sql;  // the first value of a query
};

struct Stream {
  long results = 0;
  double seconds = 0;
  double rate() const { return seconds > 0 ? results / seconds : 0; }
};

// Each sender completes the handshake, then sends its share of each round
// and waits for its acknowledgement, until `rounds` are done or, when 0,
// until `more()` says no more between rounds.
Stream stream(int port, int senders, size_t output_bytes, long rounds,
              const std::function<bool()>& more) {
  daemon_config config;
  const std::string endpoint = "tcp://127.0.0.1:" + std::to_string(port);
  std::vector<vorn::czmq::Socket> publishers;
  for (int s = 0; s < senders; ++s) {
    publishers.push_back(connect_result_publisher(endpoint));
    if (!publishers.back() ||
        !request_pub_ack(publishers.back().get(), config, "127.0.0.1", 60000)) {
      std::fprintf(stderr, "sender %d: no acknowledgement from %s\n", s, endpoint.c_str());
      std::exit(1);
    }
  }
  std::vector<provider_result> results;
  for (int s = 0; s < senders; ++s) {
    results.push_back(vorn::bench::make_result(s, output_bytes));
  }
  const long share = kRound / senders;
  Stream done;
  // Results of every stream are new ones, not ones sent again.
  static long sent = 0;
  Clock::time_point start = Clock::now();
  for (long round = 0; round == 0 || (rounds > 0 ? round < rounds : more()); ++round) {
    std::vector<std::thread> threads;
    for (int s = 0; s < senders; ++s) {
      threads.emplace_back([&, s] {
        provider_result& r = results[s];
        for (long i = 0; i < share; ++i) {
          r.header.timestamp.tv_sec = sent + i;  // each result a run of its own
          r.stdout_data[0] = static_cast<char>(i);
          send_result(r, config, publishers[s].get());
        }
        if (!request_pub_ack(publishers[s].get(), config, "127.0.0.1", 120000)) {
          std::fprintf(stderr, "sender %d: no acknowledgement\n", s);
          std::exit(1);
        }
      });
    }
    for (auto& t : threads) {
      t.join();
    }
    sent += share;
    done.results += share * senders;
  }
  done.seconds = seconds_since(start);
  return done;
}

struct Measured {
  Stream with;
  Stream without;
  long long expired = 0;
  long long deleted = 0;  // while the stream with retention ran
  long long lost = 0;
};

// A server on `store` with `extra` keys while `run(port)` runs.
void with_server(const std::string& serverd, const Store& store, const std::string& dir,
                 const std::string& extra, const std::function<void(int)>& run) {
  int port = vorn::bench::free_port();
  std::string config = dir + "/vornd.xml";
  vorn::bench::write_server_config(config, port, dir, dir + "/vorn.db", store.config + extra);
  pid_t server = vorn::bench::spawn({serverd, "-c", config}, dir + "/server.log");
  run(port);
  vorn::bench::stop(server);
  std::string log = vorn::bench::read_file(dir + "/server.log");
  for (size_t at = log.find("Could not delete"); at != std::string::npos;
       at = log.find("Could not delete", at + 1)) {
    std::fprintf(stderr, "%s\n", log.substr(at, log.find('\n', at) - at).c_str());
  }
}

// Polls `done` once a second on a thread of its own until destroyed, so
// that checking how far deletion got (a psql process for PostgreSQL, tens of
// milliseconds here) never holds the senders up between rounds. It runs
// beside both streams, so each pays for it alike.
class Watch {
 public:
  explicit Watch(std::function<bool()> done)
      : thread_([this, done = std::move(done)] {
          std::unique_lock<std::mutex> lock(mutex_);
          while (!stop_) {
            lock.unlock();
            bool now_done = done();
            lock.lock();
            done_ = done_ || now_done;
            wake_.wait_for(lock, std::chrono::seconds(1), [this] { return stop_; });
          }
        }) {}
  Watch(const Watch&) = delete;
  Watch& operator=(const Watch&) = delete;
  ~Watch() {
    {
      std::lock_guard<std::mutex> lock(mutex_);
      stop_ = true;
    }
    wake_.notify_all();
    thread_.join();
  }
  bool done() {
    std::lock_guard<std::mutex> lock(mutex_);
    return done_;
  }

 private:
  std::mutex mutex_;
  std::condition_variable wake_;
  bool stop_ = false;
  bool done_ = false;
  std::thread thread_;  // last, so that it starts once the rest is set
};

Measured measure(const std::string& serverd, const Store& store, const std::string& dir,
                 long long expired, int senders, size_t output_bytes) {
  Measured m;
  m.expired = expired;
  // The expired rows are the first ones, and a pass deletes in rowid order:
  // when the last of them is gone, all are.
  const std::string last_expired =
      "SELECT count(*) FROM vorn_1 WHERE rowid = " + std::to_string(expired);
  const auto all_deleted = [&] { return store.sql(last_expired) == 0; };
  const long long before = store.sql("SELECT count(*) FROM vorn_1");
  with_server(serverd, store, dir, "<retention>1d</retention>", [&](int port) {
    Watch watch(all_deleted);
    Clock::time_point start = Clock::now();
    m.with = stream(port, senders, output_bytes, 0,
                    [&] { return seconds_since(start) < kLongestStreamS && !watch.done(); });
  });
  m.deleted =
      expired - store.sql("SELECT count(*) FROM vorn_1 WHERE rowid <= " + std::to_string(expired));
  with_server(serverd, store, dir, "", [&](int port) {
    Watch watch(all_deleted);
    m.without = stream(port, senders, output_bytes, m.with.results / kRound, nullptr);
  });
  m.lost = before - m.deleted + m.with.results + m.without.results -
           store.sql("SELECT count(*) FROM vorn_1");
  return m;
}

void print(const Store& store, const Measured& m) {
  double ratio = m.without.rate() > 0 ? m.with.rate() / m.without.rate() : 0;
  std::printf("%-10s %10.0f %10.0f %6.2f %9lld %9lld %6.1f %10.0f %5lld  %s\n", store.name,
              m.with.rate(), m.without.rate(), ratio, m.expired, m.deleted, m.with.seconds,
              m.deleted / m.with.seconds, m.lost, ratio >= 0.9 ? "met" : "not met");
}

// Rows of two days ago, 1 KiB each, under 1,000 keys, one per number n of
// `numbers`: the first rowids of a fresh store; then one of now, as the
// newest row is never deleted.
std::string expired_rows(const std::string& now, const std::string& blob,
                         const std::string& numbers) {
  const std::string insert =
      "INSERT INTO vorn_1 (row_timestamp, Provider, Hostname, num_nodes, node_names, "
      "Exit_status, Timestamp, Duration, Encoding, Stdout_size, STDOUT, Stderr_size, STDERR, "
      "OptionID, version) SELECT ";
  return insert + now + " - 172800, 'old' || (n % 50), 'node' || (n % 20), 1, 'n1', 0, n, " +
         "0.25, 0, 1024, " + blob + ", 0, NULL, 'default', 1 FROM " + numbers + "; " + insert +
         now + ", 'recent', 'node0', 1, 'n1', 0, 0, 0.25, 0, 1024, " + blob +
         ", 0, NULL, 'default', 1";
}

}  // namespace

int main(int argc, char** argv) {
  std::string serverd = VORN_SERVERD_PATH;
  long long expired = 1000000;
  int senders = 4;
  size_t output_bytes = 1024;
  int opt;
  while ((opt = getopt(argc, argv, "n:s:o:b:h")) != -1) {
    switch (opt) {
      case 'n':
        expired = std::max(1LL, std::atoll(optarg));
        break;
      case 's':
        senders = std::max(1, std::atoi(optarg));
        break;
      case 'o':
        output_bytes = static_cast<size_t>(std::max(1, std::atoi(optarg)));
        break;
      case 'b':
        serverd = optarg;
        break;
      default:
        return vorn::bench::usage(argv[0],
                                  "[-n expired] [-s senders] [-o output bytes] [-b "
                                  "vorn-serverd]",
                                  opt);
    }
  }
  std::setvbuf(stdout, nullptr, _IOLBF, 0);
  vorn::bench::TempDir dir;
  if (!dir.ok()) {
    std::perror("mkdtemp");
    return 1;
  }
  std::printf(
      "Ingest (%d senders x %zu B) while retention deletes %lld rows of two days ago, against the "
      "same stream without retention;\nrows deleted per second over the stream.\n",
      senders, output_bytes, expired);
  std::printf("%-10s %10s %10s %6s %9s %9s %6s %10s %5s  %s\n", "store", "with/s", "without/s",
              "ratio", "expired", "deleted", "secs", "deleted/s", "lost", "goal 0.9");

  const std::string sqlite_file = dir.path() + "/vorn.db";
  Store sqlite{"SQLite", "", [&](const std::string& sql) {
                 return vorn::bench::count_rows(sqlite_file, sql.c_str());
               }};
  std::string create = std::string(vorn::schema::kCreateResultsSqlite) + "; " +
                       "WITH RECURSIVE i(n) AS (SELECT 1 UNION ALL SELECT n + 1 FROM i WHERE n < " +
                       std::to_string(expired) + ") " +
                       expired_rows("strftime('%s', 'now')", "randomblob(1024)", "i");
  std::string error = "cannot prepare " + sqlite_file;
  sqlite3* db = nullptr;
  char* message = nullptr;
  if (sqlite3_open(sqlite_file.c_str(), &db) != SQLITE_OK ||
      sqlite3_exec(db, ("PRAGMA journal_mode=WAL; " + create).c_str(), nullptr, nullptr,
                   &message) != SQLITE_OK) {
    std::fprintf(stderr, "%s: %s\n", error.c_str(), message != nullptr ? message : "");
    return 1;
  }
  sqlite3_free(message);
  sqlite3_close(db);
  print(sqlite, measure(serverd, sqlite, dir.path(), expired, senders, output_bytes));
  for (const char* suffix : {"", "-wal", "-shm"}) {
    ::unlink((sqlite_file + suffix).c_str());
  }

  if (std::string why = vorn::test::PrivatePostgres::unavailable_reason(); !why.empty()) {
    std::printf("%-10s skipped: %s\n", "PostgreSQL", why.c_str());
    return 0;
  }
  try {
    vorn::test::PrivatePostgres postgres;
    std::string database = postgres.create_database();
    Store pg{
        "PostgreSQL",
        "<database_backend>postgresql</database_backend><database_url>" + postgres.url(database) +
            "</database_url>",
        [&](const std::string& sql) { return std::atoll(postgres.query(database, sql).c_str()); }};
    postgres.query(database,
                   std::string(vorn::schema::kCreateResultsPostgresql) + "; " +
                       expired_rows("extract(epoch FROM now())::bigint",
                                    "convert_to(repeat('x', 1024), 'UTF8')",
                                    "generate_series(1, " + std::to_string(expired) + ") AS n"));
    postgres.query(database, "VACUUM ANALYZE vorn_1");
    print(pg, measure(serverd, pg, dir.path(), expired, senders, output_bytes));
  } catch (const std::exception& e) {
    std::printf("%-10s skipped: %s\n", "PostgreSQL", e.what());
  }
  return 0;
}
