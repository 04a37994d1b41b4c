// Ingest benchmark: how fast the real vorn-serverd stores results sent by
// several senders over loopback, against what receiving alone and a bulk
// insert of the same rows achieve on this machine.
//
//   ingest [-s SENDERS] [-n RESULTS_PER_SENDER] [-b PATH_TO_VORN_SERVERD]

#include <arpa/inet.h>
#include <netinet/in.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <sqlite3.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "daemon/src/provider/result.h"
#include "daemon/src/provider/sender.h"
#include "daemon/src/serverd/receiver.h"
#include "util/log.h"
#include "util/str.h"

namespace {

using Clock = std::chrono::steady_clock;

double seconds_since(Clock::time_point start) {
  return std::chrono::duration<double>(Clock::now() - start).count();
}

struct Options {
  int senders = 4;
  int per_sender = 50000;
  std::string serverd = VORN_SERVERD_PATH;
};

provider_result make_result(int sender, std::mt19937& random) {
  provider_result r;
  r.header.api = 1;
  vorn::str::copy(r.header.name, "bench" + std::to_string(sender));
  vorn::str::copy(r.header.hostname, "node" + std::to_string(sender));
  vorn::str::copy(r.header.option_id, "default");
  r.header.duration = 1.0;
  r.header.version = 1;
  r.stdout_data.resize(1024);
  for (char& c : r.stdout_data) {
    c = static_cast<char>(random());
  }
  r.stderr_data.assign(100, 'e');
  r.nodes_csv = "node1, node2, node3";
  r.header.stdout_size = r.stdout_data.size();
  r.header.stderr_size = r.stderr_data.size();
  r.header.nodes_size = r.nodes_csv.size();
  r.header.num_nodes = 3;
  return r;
}

// Each sender completes the handshake, then sends its results as fast as it can.
void run_senders(const Options& options, const std::string& endpoint, const daemon_config& config,
                 Clock::time_point* start_sending) {
  std::vector<vorn::czmq::Socket> publishers;
  for (int s = 0; s < options.senders; ++s) {
    publishers.push_back(connect_result_publisher(endpoint));
    if (!publishers.back() ||
        !request_pub_ack(publishers.back().get(), config, "127.0.0.1", 20000)) {
      std::fprintf(stderr, "sender %d: no acknowledgement from %s\n", s, endpoint.c_str());
      std::exit(1);
    }
  }
  *start_sending = Clock::now();
  std::vector<std::thread> threads;
  for (int s = 0; s < options.senders; ++s) {
    threads.emplace_back([&, s] {
      std::mt19937 random(static_cast<unsigned>(s));
      provider_result r = make_result(s, random);
      for (int i = 0; i < options.per_sender; ++i) {
        r.stdout_data[0] = static_cast<char>(i);
        r.header.timestamp.tv_sec = i;
        send_result(r, config, publishers[s].get());
      }
    });
  }
  for (auto& t : threads) {
    t.join();
  }
}

long count_rows(const std::string& path) {
  sqlite3* db = nullptr;
  long rows = -1;
  if (sqlite3_open(path.c_str(), &db) == SQLITE_OK) {
    sqlite3_stmt* statement = nullptr;
    if (sqlite3_prepare_v2(db, "SELECT count(*) FROM vorn_1", -1, &statement, nullptr) ==
            SQLITE_OK &&
        sqlite3_step(statement) == SQLITE_ROW) {
      rows = sqlite3_column_int64(statement, 0);
    }
    sqlite3_finalize(statement);
  }
  sqlite3_close(db);
  return rows;
}

// A port the kernel picks on 127.0.0.1.
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

// The real server, storing into a fresh database; results per second stored.
double measure_server(const Options& options, const std::string& dir, long* lost) {
  int port = free_port();
  std::string config_path = dir + "/vornd.xml";
  std::string db = dir + "/vorn.db";
  FILE* f = std::fopen(config_path.c_str(), "w");
  std::fprintf(f,
               "<configuration><enable_discovery>false</enable_discovery>"
               "<accumulate_port>%d</accumulate_port>"
               "<accumulate_output_dir>%s/acc</accumulate_output_dir>"
               "<database_file>%s</database_file></configuration>\n",
               port, dir.c_str(), db.c_str());
  std::fclose(f);
  pid_t server = fork();
  if (server == 0) {
    execl(options.serverd.c_str(), options.serverd.c_str(), "-c", config_path.c_str(),
          static_cast<char*>(nullptr));
    _exit(127);
  }
  daemon_config config;
  Clock::time_point start;
  run_senders(options, "tcp://127.0.0.1:" + std::to_string(port), config, &start);
  double sending = seconds_since(start);
  long stored_when_sent = count_rows(db);
  kill(server, SIGTERM);
  int status = 0;
  waitpid(server, &status, 0);
  // The server returns after 100 ms without a message.
  double elapsed = seconds_since(start) - 0.1;
  long rows = count_rows(db);
  std::printf("sending took %.2f s (%ld stored by then), storing %.2f s\n", sending,
              stored_when_sent, elapsed);
  *lost = static_cast<long>(options.senders) * options.per_sender - rows;
  return rows / elapsed;
}

// The same messages received and parsed by a SUB socket of our own, stored nowhere.
double measure_receive_only(const Options& options) {
  daemon_config config;
  vorn::czmq::Socket subscriber(zsock_new(ZMQ_SUB));
  int port = zsock_bind(subscriber.get(), "tcp://127.0.0.1:*");
  zsock_set_subscribe(subscriber.get(), accumulate_topic(config).c_str());
  zsock_set_rcvtimeo(subscriber.get(), 50);
  const long total = static_cast<long>(options.senders) * options.per_sender;
  long received = 0;
  Clock::time_point start;
  std::atomic<bool> handshakes_done{false};
  std::thread senders([&] {
    run_senders(options, "tcp://127.0.0.1:" + std::to_string(port), config, &start);
    handshakes_done = true;
  });
  received_message message;
  result_receiver receiver;
  while (received < total) {
    message_kind got = receiver.receive(subscriber.get(), message);
    if (got == message_kind::result) {
      ++received;
    } else if (got == message_kind::pub_ack) {
      receiver.answer(receiver.request());
    } else if (handshakes_done && !(zsock_events(subscriber.get()) & ZMQ_POLLIN)) {
      break;
    }
  }
  double elapsed = seconds_since(start);
  senders.join();
  return received / elapsed;
}

// The same rows inserted in one transaction through one prepared statement.
double measure_bulk_insert(const Options& options, const std::string& dir) {
  std::string path = dir + "/bulk.db";
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
  std::mt19937 random(1);
  provider_result r = make_result(0, random);
  const long total = static_cast<long>(options.senders) * options.per_sender;
  auto start = Clock::now();
  sqlite3_exec(db, "BEGIN", nullptr, nullptr, nullptr);
  for (long i = 0; i < total; ++i) {
    sqlite3_bind_text(insert, 1, r.header.name, -1, SQLITE_STATIC);
    sqlite3_bind_text(insert, 2, r.header.hostname, -1, SQLITE_STATIC);
    sqlite3_bind_int(insert, 3, r.header.num_nodes);
    sqlite3_bind_text(insert, 4, r.nodes_csv.c_str(), -1, SQLITE_STATIC);
    sqlite3_bind_int(insert, 5, r.header.exit_status);
    sqlite3_bind_int(insert, 6, static_cast<int>(i));
    sqlite3_bind_double(insert, 7, r.header.duration);
    sqlite3_bind_int(insert, 8, r.header.encoding);
    sqlite3_bind_int64(insert, 9, 1024);
    sqlite3_bind_blob(insert, 10, r.stdout_data.data(), 1024, SQLITE_STATIC);
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
  return total / elapsed;
}

}  // namespace

int main(int argc, char** argv) {
  Options options;
  // The benchmark's own receiver must not pay for a log line per message.
  vorn::log::LOG_LEVEL = 5;
  int opt;
  while ((opt = getopt(argc, argv, "s:n:b:")) != -1) {
    switch (opt) {
      case 's':
        options.senders = std::atoi(optarg);
        break;
      case 'n':
        options.per_sender = std::atoi(optarg);
        break;
      case 'b':
        options.serverd = optarg;
        break;
      default:
        std::fprintf(stderr, "usage: %s [-s senders] [-n results per sender] [-b vorn-serverd]\n",
                     argv[0]);
        return 2;
    }
  }
  char dir_template[] = "/tmp/vorn-bench.XXXXXX";
  if (mkdtemp(dir_template) == nullptr) {
    std::perror("mkdtemp");
    return 1;
  }
  const std::string dir = dir_template;
  const long total = static_cast<long>(options.senders) * options.per_sender;
  std::printf("%d senders x %d results (stdout 1 KiB, stderr 100 B, 3 nodes) = %ld\n",
              options.senders, options.per_sender, total);

  long lost = 0;
  double stored = measure_server(options, dir, &lost);
  double received = measure_receive_only(options);
  double bulk = measure_bulk_insert(options, dir);

  std::printf("stored by vorn-serverd:     %9.0f results/s\n", stored);
  std::printf("receive only (no storage):  %9.0f results/s\n", received);
  std::printf("bulk insert, one transaction: %7.0f rows/s\n", bulk);
  std::printf("stored / receive only:      %9.2f\n", stored / received);
  std::printf("stored / bulk insert:       %9.2f\n", stored / bulk);
  std::printf("lost:                       %9ld\n", lost);

  std::string cleanup = "rm -rf '" + dir + "'";
  int ignored = std::system(cleanup.c_str());
  (void)ignored;
  return lost == 0 ? 0 : 1;
}
