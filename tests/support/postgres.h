#pragma once
// A PostgreSQL server of the test's own: a cluster made with initdb in a
// temporary directory and run with pg_ctl, listening only on a Unix socket in
// that directory, so it never meets the machine's own service or another
// test's. It runs as the unprivileged "postgres" user when the test runs as
// root (the server refuses root), as the test's user otherwise.
//
// Starting one costs about two seconds: a test binary shares one between its
// tests and gives each test a database of its own (create_database).

#include <string>

#include "tests/support/test_support.h"

namespace vorn::test {

class PrivatePostgres {
 public:
  // Empty when a private server can be started here; otherwise why not, for
  // GTEST_SKIP.
  static std::string unavailable_reason();

  // Makes the cluster and starts the server; throws std::runtime_error with
  // the server's log when it cannot.
  PrivatePostgres();
  PrivatePostgres(const PrivatePostgres&) = delete;
  PrivatePostgres& operator=(const PrivatePostgres&) = delete;
  // Stops the server immediately and removes everything.
  ~PrivatePostgres();

  // A libpq connection string for `database`, as user "postgres".
  std::string url(const std::string& database) const;
  // The same as a postgresql:// URI.
  std::string uri(const std::string& database) const;

  // A fresh empty database with a name of its own.
  std::string create_database();

  // Runs `sql` with psql in `database` and returns its rows, unaligned and
  // tuples only ("a|b" per line); throws when psql fails.
  std::string query(const std::string& database, const std::string& sql) const;

  // Stops the server (fast shutdown) or starts it again, waiting until done.
  void stop();
  void start();

  const std::string& log_path() const { return log_; }
  std::string log() const;

 private:
  // Runs a PostgreSQL program as the server's user; its exit status.
  int run(const std::string& command_line) const;

  TempDir dir_;
  std::string data_;
  std::string log_;
  int port_ = 0;
  int databases_ = 0;
  bool running_ = false;
};

}  // namespace vorn::test
