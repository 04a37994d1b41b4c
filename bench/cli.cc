// Reader benchmark: how fast `vorn latest` and the /metrics page of
// `vorn serve` answer on a large database, with and without the server's
// summary table.
//
//   cli [-d DIR] [-H HOSTS] [-P PROVIDERS] [-R RUNS] [-n TIMES] [-g]
//
// It makes HOSTS x PROVIDERS x RUNS results (default 1,000 x 20 x 500, ten
// million, about 1.5 GB) in a database that the real vorn-serverd created,
// run after run as nodes would deliver them, with outputs of 20 to 60 bytes
// and one result in fifty failing. The real programs are timed, TIMES times
// each (default 5), and the medians are compared with the goals. With -d the
// database is kept in DIR and reused by the next run with the same sizes.
//
// Then the same for PostgreSQL (when built with the tests' private server):
// `vorn latest` on 1,000,000 results of 10,000 keys (1,000 hosts x 10
// providers x 100 runs), and on 10,000,000 (1,000 runs) unless -g says only
// the first.

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <sqlite3.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <functional>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include <httplib.h>

#include "daemon/src/database/schema.h"

#ifdef VORN_BENCH_POSTGRESQL
#include "daemon/src/database/pq.h"

#include <stdexcept>

#include "tests/support/postgres.h"
#endif

namespace {

using Clock = std::chrono::steady_clock;

const std::string kVorn = VORN_PATH;
const std::string kServerd = VORN_SERVERD_PATH;

double ms_since(Clock::time_point start) {
  return std::chrono::duration<double, std::milli>(Clock::now() - start).count();
}

double median(std::vector<double> values) {
  std::sort(values.begin(), values.end());
  return values.empty() ? 0 : values[values.size() / 2];
}

struct Sizes {
  int hosts = 1000;
  int providers = 20;
  int runs = 500;
  long long results() const { return 1LL * hosts * providers * runs; }
};

struct CloseDb {
  void operator()(sqlite3* db) const { sqlite3_close_v2(db); }
};
using Db = std::unique_ptr<sqlite3, CloseDb>;
struct Finalize {
  void operator()(sqlite3_stmt* s) const { sqlite3_finalize(s); }
};
using Stmt = std::unique_ptr<sqlite3_stmt, Finalize>;

Db open_db(const std::string& path) {
  sqlite3* raw = nullptr;
  if (sqlite3_open_v2(path.c_str(), &raw, SQLITE_OPEN_READWRITE, nullptr) != SQLITE_OK) {
    std::fprintf(stderr, "cannot open %s: %s\n", path.c_str(), sqlite3_errmsg(raw));
    std::exit(1);
  }
  sqlite3_busy_timeout(raw, 60000);
  return Db(raw);
}

void exec(sqlite3* db, const std::string& sql) {
  char* error = nullptr;
  if (sqlite3_exec(db, sql.c_str(), nullptr, nullptr, &error) != SQLITE_OK) {
    std::fprintf(stderr, "%s: %s\n", sql.c_str(), error != nullptr ? error : "?");
    std::exit(1);
  }
}

long long single_number(sqlite3* db, const std::string& sql) {
  sqlite3_stmt* raw = nullptr;
  sqlite3_prepare_v2(db, sql.c_str(), -1, &raw, nullptr);
  Stmt s(raw);
  return s && sqlite3_step(s.get()) == SQLITE_ROW ? sqlite3_column_int64(s.get(), 0) : -1;
}

int free_port() {
  int fd = socket(AF_INET, SOCK_STREAM, 0);
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  socklen_t length = sizeof address;
  bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof address);
  getsockname(fd, reinterpret_cast<sockaddr*>(&address), &length);
  close(fd);
  return ntohs(address.sin_port);
}

// Starts `argv` with standard output into `out_fd` (or /dev/null) and
// standard error to /dev/null.
pid_t spawn(const std::vector<std::string>& argv, int out_fd = -1) {
  std::vector<char*> args;
  for (const std::string& a : argv) {
    args.push_back(const_cast<char*>(a.c_str()));
  }
  args.push_back(nullptr);
  pid_t pid = fork();
  if (pid == 0) {
    int null = open("/dev/null", O_RDWR);
    dup2(out_fd >= 0 ? out_fd : null, STDOUT_FILENO);
    dup2(null, STDERR_FILENO);
    execv(args[0], args.data());
    _exit(127);
  }
  return pid;
}

int wait_exit(pid_t pid) {
  int status = 0;
  waitpid(pid, &status, 0);
  return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

// The table exactly as the server makes it: the real server is started once
// on the file, and stopped once the table is there.
void create_with_server(const std::string& dir, const std::string& db_path) {
  std::string config = dir + "/vornd.xml";
  FILE* f = std::fopen(config.c_str(), "w");
  std::fprintf(f,
               "<configuration><enable_discovery>false</enable_discovery>"
               "<enable_adhoc_clusters>false</enable_adhoc_clusters>"
               "<accumulate_port>%d</accumulate_port>"
               "<accumulate_output_dir>%s/accumulate</accumulate_output_dir>"
               "<database_file>%s</database_file></configuration>\n",
               free_port(), dir.c_str(), db_path.c_str());
  std::fclose(f);
  pid_t server = spawn({kServerd, "-c", config});
  auto deadline = Clock::now() + std::chrono::seconds(30);
  for (;;) {
    struct stat st;
    if (stat(db_path.c_str(), &st) == 0) {
      sqlite3* raw = nullptr;
      sqlite3_open_v2(db_path.c_str(), &raw, SQLITE_OPEN_READONLY, nullptr);
      Db db(raw);
      if (single_number(db.get(), "SELECT count(*) FROM sqlite_master WHERE name = 'vorn_1'") ==
          1) {
        break;
      }
    }
    if (Clock::now() > deadline) {
      std::fprintf(stderr, "vorn-serverd made no table in 30 s\n");
      std::exit(1);
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
  }
  kill(server, SIGTERM);
  wait_exit(server);
}

// Run after run, every host's providers in turn: each key's newest result is
// among the last HOSTS x PROVIDERS rows, as with providers that keep running.
void fill(const std::string& db_path, const Sizes& sizes, time_t now) {
  Db db = open_db(db_path);
  exec(db.get(), "PRAGMA synchronous=OFF");
  sqlite3_stmt* raw = nullptr;
  sqlite3_prepare_v2(db.get(),
                     "INSERT INTO vorn_1 (Provider, Hostname, num_nodes, node_names, Exit_status, "
                     "Timestamp, Duration, Encoding, Stdout_size, STDOUT, Stderr_size, STDERR, "
                     "OptionID, version) VALUES (?1, ?2, 0, '', ?3, ?4, ?5, 0, ?6, ?7, 0, "
                     "zeroblob(0), 'None', 1)",
                     -1, &raw, nullptr);
  Stmt insert(raw);
  std::vector<std::string> hosts;
  std::vector<std::string> providers;
  for (int h = 0; h < sizes.hosts; ++h) {
    hosts.push_back("node" + std::to_string(h + 1));
  }
  for (int p = 0; p < sizes.providers; ++p) {
    providers.push_back("provider" + std::to_string(p + 1));
  }
  unsigned seed = 12345;
  auto next = [&seed] { return seed = seed * 1103515245u + 12345u; };
  const std::string padding = "................................";
  long long done = 0;
  auto start = Clock::now();
  exec(db.get(), "BEGIN");
  for (int run = 0; run < sizes.runs; ++run) {
    time_t when = now - static_cast<time_t>(sizes.runs - 1 - run) * 60;
    for (const std::string& host : hosts) {
      for (const std::string& provider : providers) {
        unsigned r = next();
        char out[96];
        int n = std::snprintf(out, sizeof out, "load %u.%02u procs %u %.*s\n", r % 8, r / 8 % 100,
                              r / 800 % 1000, static_cast<int>(r / 7 % 33), padding.c_str());
        sqlite3_bind_text(raw, 1, provider.c_str(), -1, SQLITE_STATIC);
        sqlite3_bind_text(raw, 2, host.c_str(), -1, SQLITE_STATIC);
        sqlite3_bind_int(raw, 3, r % 50 == 0 ? 1 : 0);
        sqlite3_bind_int64(raw, 4, when - static_cast<time_t>(r % 30));
        sqlite3_bind_double(raw, 5, (r % 1000) / 250.0);
        sqlite3_bind_int(raw, 6, n);
        sqlite3_bind_blob(raw, 7, out, n, SQLITE_TRANSIENT);
        if (sqlite3_step(raw) != SQLITE_DONE) {
          std::fprintf(stderr, "insert: %s\n", sqlite3_errmsg(db.get()));
          std::exit(1);
        }
        sqlite3_reset(raw);
        if (++done % 250000 == 0) {
          exec(db.get(), "COMMIT; BEGIN");
          std::fprintf(stderr, "\r  %lld of %lld results", done, sizes.results());
        }
      }
    }
  }
  exec(db.get(), "COMMIT");
  exec(db.get(), "PRAGMA wal_checkpoint(TRUNCATE)");
  std::fprintf(stderr, "\r  %lld results in %.0f s\n", done, ms_since(start) / 1000);
}

// Milliseconds `vorn ARGS` takes, standard output to /dev/null.
double time_vorn(const std::vector<std::string>& args) {
  std::vector<std::string> argv{kVorn};
  argv.insert(argv.end(), args.begin(), args.end());
  auto start = Clock::now();
  int status = wait_exit(spawn(argv));
  double ms = ms_since(start);
  if (status != 0) {
    std::fprintf(stderr, "vorn exited with %d\n", status);
    std::exit(1);
  }
  return ms;
}

std::vector<double> repeat(int times, const std::function<double()>& measure) {
  std::vector<double> all;
  for (int i = 0; i < times; ++i) {
    all.push_back(measure());
  }
  return all;
}

std::string spread(const std::vector<double>& all) {
  auto [low, high] = std::minmax_element(all.begin(), all.end());
  char text[96];
  std::snprintf(text, sizeof text, "%.0f ms (%.0f - %.0f)", median(all), *low, *high);
  return text;
}

// `vorn serve` on a port the kernel picks; its first line names the address.
struct Server {
  pid_t pid = -1;
  int port = 0;
  explicit Server(const std::string& db_path) {
    int fds[2];
    if (pipe(fds) != 0) {
      std::exit(1);
    }
    pid = spawn({kVorn, "serve", "--db", db_path, "--listen", "127.0.0.1:0"}, fds[1]);
    close(fds[1]);
    std::string line;
    char c;
    while (read(fds[0], &c, 1) == 1 && c != '\n') {
      line += c;
    }
    close(fds[0]);
    size_t colon = line.find("127.0.0.1:");
    if (colon == std::string::npos) {
      std::fprintf(stderr, "vorn serve said: %s\n", line.c_str());
      std::exit(1);
    }
    port = std::atoi(line.c_str() + colon + 10);
  }
  Server(const Server&) = delete;
  Server& operator=(const Server&) = delete;
  ~Server() {
    kill(pid, SIGTERM);
    wait_exit(pid);
  }
};

double time_get(int port, const std::string& path, const char* encoding, size_t* bytes) {
  httplib::Client client("127.0.0.1", port);
  client.set_read_timeout(120, 0);
  client.set_decompress(false);
  httplib::Headers headers;
  if (encoding != nullptr) {
    headers.emplace("Accept-Encoding", encoding);
  }
  auto start = Clock::now();
  auto response = client.Get(path.c_str(), headers);
  double ms = ms_since(start);
  if (!response || response->status != 200) {
    std::fprintf(stderr, "GET %s failed\n", path.c_str());
    std::exit(1);
  }
  *bytes = response->body.size();
  return ms;
}

void verdict(const char* what, double ms, double goal) {
  std::printf("%-58s %8.0f ms   goal < %.0f ms: %s\n", what, ms, goal,
              ms < goal ? "met" : "NOT MET");
}

#ifdef VORN_BENCH_POSTGRESQL
void pg_exec(PGconn* connection, const std::string& sql) {
  ExecStatusType status = PQresultStatus(pq_result(PQexec(connection, sql.c_str())).get());
  if (status != PGRES_COMMAND_OK && status != PGRES_TUPLES_OK) {
    std::fprintf(stderr, "%s: %s\n", sql.c_str(), PQerrorMessage(connection));
    std::exit(1);
  }
}

// Runs `first_run` to `end_run` (exclusive) of HOSTS x PROVIDERS results, as
// fill() makes them for SQLite, generated by the server itself; then
// vorn_latest is brought up to them as a server's commits would have.
void pg_fill(PGconn* connection, const Sizes& sizes, long first_run, long end_run, time_t now) {
  const long keys = 1L * sizes.hosts * sizes.providers;
  for (long run = first_run; run < end_run; run += 50) {
    long until = std::min(end_run, run + 50);
    pg_exec(connection,
            "INSERT INTO vorn_1 (Provider, Hostname, num_nodes, node_names, Exit_status, "
            "Timestamp, Duration, Encoding, Stdout_size, STDOUT, Stderr_size, STDERR, OptionID, "
            "version) SELECT 'provider' || (i % " +
                std::to_string(sizes.providers) + " + 1), 'node' || (i / " +
                std::to_string(sizes.providers) + " % " + std::to_string(sizes.hosts) +
                " + 1), 0, '', (i % 50 = 0)::int, " + std::to_string(now) + " - (" +
                std::to_string(sizes.runs - 1) + " - i / " + std::to_string(keys) +
                ") * 60 - i % 30, (i % 1000) / 250.0, 0, length(o), o, 0, ''::bytea, 'None', 1 "
                "FROM generate_series(" +
                std::to_string(run * keys) + ", " + std::to_string(until * keys - 1) +
                ") i, LATERAL (SELECT convert_to('load ' || i % 8 || '.' || i % 97 || ' procs ' "
                "|| i % 1000 || ' ' || repeat('.', (i % 33)::int) || chr(10), 'UTF8') AS o) x");
    std::fprintf(stderr, "\r  %ld of %ld runs", until, end_run);
  }
  pg_exec(connection, vorn::schema::kCatchUp);
  pg_exec(connection, "VACUUM ANALYZE vorn_1");
  pg_exec(connection, "VACUUM ANALYZE vorn_latest");
  std::fprintf(stderr, "\n");
}

// `vorn latest` on PostgreSQL, on 1,000,000 results and then on 10,000,000.
void bench_postgresql(int times, bool only_first) {
  std::string why = vorn::test::PrivatePostgres::unavailable_reason();
  if (!why.empty()) {
    std::printf("\nPostgreSQL skipped: %s\n", why.c_str());
    return;
  }
  try {
    vorn::test::PrivatePostgres postgres;
    std::string name = postgres.create_database();
    pq_connection connection(PQconnectdb(postgres.url(name).c_str()));
    if (PQstatus(connection.get()) != CONNECTION_OK) {
      std::printf("\nPostgreSQL skipped: %s\n", PQerrorMessage(connection.get()));
      return;
    }
    pg_exec(connection.get(), vorn::schema::kCreateResultsPostgresql);
    pg_exec(connection.get(), vorn::schema::kCreateLatestPostgresql);
    const std::vector<std::string> db_arg{"--db", postgres.uri(name)};
    Sizes sizes{1000, 10, 100};
    long done_runs = 0;
    std::printf("\nvorn latest on PostgreSQL (%d hosts x %d providers = %d keys), medians of %d\n",
                sizes.hosts, sizes.providers, sizes.hosts * sizes.providers, times);
    time_t now = std::time(nullptr);
    for (int runs : {100, 1000}) {
      if (only_first && runs > 100) {
        break;
      }
      sizes.runs = runs;
      std::fprintf(stderr, "Filling PostgreSQL with %lld results\n", sizes.results());
      pg_fill(connection.get(), sizes, done_runs, runs, now);
      done_runs = runs;
      auto timed = [&](std::vector<std::string> args) {
        args.insert(args.end(), db_arg.begin(), db_arg.end());
        return repeat(times, [&] { return time_vorn(args); });
      };
      std::vector<double> latest = timed({"latest"});
      std::vector<double> json = timed({"latest", "--json"});
      std::vector<double> failing = timed({"failing"});
      std::string what = "vorn latest, " + std::to_string(sizes.results()) + " results";
      std::printf("%-58s %s\n",
                  ("  vorn latest --json, " + std::to_string(sizes.results()) + " results").c_str(),
                  spread(json).c_str());
      std::printf("%-58s %s\n",
                  ("  vorn failing, " + std::to_string(sizes.results()) + " results").c_str(),
                  spread(failing).c_str());
      verdict(what.c_str(), median(latest), 300);
      std::printf("  runs: %s\n", spread(latest).c_str());
    }
  } catch (const std::exception& e) {
    std::printf("\nPostgreSQL skipped: %s\n", e.what());
  }
}
#endif

}  // namespace

int main(int argc, char** argv) {
  Sizes sizes;
  std::string keep_dir;
  int times = 5;
  bool postgresql_only_first = false;
  int opt;
  while ((opt = getopt(argc, argv, "d:H:P:R:n:gh")) != -1) {
    switch (opt) {
      case 'g':
        postgresql_only_first = true;
        break;
      case 'd':
        keep_dir = optarg;
        break;
      case 'H':
        sizes.hosts = std::atoi(optarg);
        break;
      case 'P':
        sizes.providers = std::atoi(optarg);
        break;
      case 'R':
        sizes.runs = std::atoi(optarg);
        break;
      case 'n':
        times = std::max(1, std::atoi(optarg));
        break;
      default:
        std::fprintf(opt == 'h' ? stdout : stderr,
                     "usage: %s [-d DIR] [-H HOSTS] [-P PROVIDERS] [-R RUNS] [-n TIMES] [-g]\n",
                     argv[0]);
        return opt == 'h' ? 0 : 2;
    }
  }
  std::string dir = keep_dir;
  if (dir.empty()) {
    const char* tmp = std::getenv("TMPDIR");
    std::string pattern = std::string(tmp != nullptr && *tmp ? tmp : "/tmp") + "/vorn-bench.XXXXXX";
    if (mkdtemp(pattern.data()) == nullptr) {
      std::perror("mkdtemp");
      return 1;
    }
    dir = pattern;
  } else {
    mkdir(dir.c_str(), 0755);
  }
  std::string db_path = dir + "/vorn-" + std::to_string(sizes.hosts) + "x" +
                        std::to_string(sizes.providers) + "x" + std::to_string(sizes.runs) + ".db";

  std::printf("Readers on %lld results (%d hosts x %d providers x %d runs), medians of %d\n",
              sizes.results(), sizes.hosts, sizes.providers, sizes.runs, times);
  struct stat st;
  bool reuse = !keep_dir.empty() && stat(db_path.c_str(), &st) == 0;
  if (!reuse) {
    std::fprintf(stderr, "Making the database in %s\n", dir.c_str());
    unlink(db_path.c_str());
    create_with_server(dir, db_path);
    fill(db_path, sizes, std::time(nullptr));
  }
  // Ages are measured from now; a reused database is simply older.
  Db db = open_db(db_path);
  exec(db.get(), "DROP TABLE IF EXISTS vorn_latest");
  stat(db_path.c_str(), &st);
  std::printf("database: %.2f GB, %lld rows\n", st.st_size / 1e9,
              single_number(db.get(), "SELECT max(rowid) FROM vorn_1"));

  const std::vector<std::string> db_arg{"--db", db_path};
  auto with_db = [&](std::vector<std::string> args) {
    args.insert(args.end(), db_arg.begin(), db_arg.end());
    return args;
  };

  // An older server's file: no summary table, every row grouped.
  double scan = time_vorn(with_db({"latest"}));
  std::printf("%-58s %8.0f ms\n", "vorn latest without vorn_latest (one run)", scan);

  auto start = Clock::now();
  exec(db.get(), vorn::schema::kCreateLatestSqlite);
  exec(db.get(), vorn::schema::kCatchUp);
  std::printf("%-58s %8.0f ms\n", "vorn_latest made by its catch-up (one run)", ms_since(start));

  std::vector<double> latest = repeat(times, [&] { return time_vorn(with_db({"latest"})); });
  std::vector<double> json = repeat(times, [&] {
    return time_vorn(with_db({"latest", "--json"}));
  });
  std::vector<double> failing = repeat(times, [&] { return time_vorn(with_db({"failing"})); });
  std::vector<double> stale = repeat(times, [&] {
    return time_vorn(with_db({"stale", "--older-than", "10m"}));
  });
  std::vector<double> history = repeat(times, [&] {
    return time_vorn(with_db({"history", "-p", "provider7", "-H", "node500", "--limit", "10"}));
  });
  double history_since =
      time_vorn(with_db({"history", "-p", "provider7", "-H", "node500", "--since", "1h"}));
  std::printf("%-58s %s\n", "vorn latest --json", spread(json).c_str());
  std::printf("%-58s %s\n", "vorn failing", spread(failing).c_str());
  std::printf("%-58s %s\n", "vorn stale --older-than 10m", spread(stale).c_str());
  std::printf("%-58s %s\n", "vorn history -p P -H H --limit 10", spread(history).c_str());
  std::printf("%-58s %8.0f ms\n", "vorn history -p P -H H --since 1h (a full scan, one run)",
              history_since);

  std::vector<double> metrics;
  std::vector<double> metrics_gzip;
  std::vector<double> api_latest;
  size_t metrics_bytes = 0;
  size_t gzip_bytes = 0;
  size_t api_bytes = 0;
  {
    Server server(db_path);
    metrics =
        repeat(times, [&] { return time_get(server.port, "/metrics", nullptr, &metrics_bytes); });
    metrics_gzip =
        repeat(times, [&] { return time_get(server.port, "/metrics", "gzip", &gzip_bytes); });
    api_latest =
        repeat(times, [&] { return time_get(server.port, "/api/latest", "gzip", &api_bytes); });
  }
  std::printf("%-58s %s, %.1f MB\n", "GET /api/latest (gzip)", spread(api_latest).c_str(),
              api_bytes / 1e6);
  std::printf("%-58s %s, %.1f MB\n", "GET /metrics", spread(metrics).c_str(), metrics_bytes / 1e6);
  std::printf("%-58s %s, %.2f MB\n", "GET /metrics, gzip as Prometheus asks",
              spread(metrics_gzip).c_str(), gzip_bytes / 1e6);

  // Rows that the summary does not account for yet (an older server wrote
  // them after the table was made): one more run of every key.
  exec(db.get(), "BEGIN");
  exec(db.get(),
       "INSERT INTO vorn_1 (Provider, Hostname, num_nodes, node_names, Exit_status, Timestamp, "
       "Duration, Encoding, Stdout_size, STDOUT, Stderr_size, STDERR, OptionID, version) "
       "SELECT Provider, Hostname, num_nodes, node_names, Exit_status, Timestamp + 60, Duration, "
       "Encoding, Stdout_size, STDOUT, Stderr_size, STDERR, OptionID, version FROM vorn_1 "
       "WHERE rowid > (SELECT max(rowid) FROM vorn_1) - " +
           std::to_string(sizes.hosts * sizes.providers));
  exec(db.get(), "COMMIT");
  std::vector<double> tail = repeat(times, [&] { return time_vorn(with_db({"latest"})); });
  std::printf("%-58s %s\n", "vorn latest, one run of every key not yet in vorn_latest",
              spread(tail).c_str());
  exec(db.get(), "DELETE FROM vorn_1 WHERE rowid > (SELECT max(last_rowid) FROM vorn_latest)");

  std::printf("\n");
  verdict("vorn latest (stdout to /dev/null)", median(latest), 200);
  verdict("GET /metrics (gzip as Prometheus asks)", median(metrics_gzip), 300);
  std::printf("  vorn latest runs: %s; GET /metrics without gzip: %s\n", spread(latest).c_str(),
              spread(metrics).c_str());
  db.reset();
  if (keep_dir.empty()) {
    std::string command = "rm -rf '" + dir + "'";
    int ignored = std::system(command.c_str());
    (void)ignored;
  }
#ifdef VORN_BENCH_POSTGRESQL
  bench_postgresql(times, postgresql_only_first);
#else
  std::printf("\nPostgreSQL skipped: built without the tests' private PostgreSQL server\n");
#endif
  return 0;
}
