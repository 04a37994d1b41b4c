#include "tests/support/postgres.h"

#include <pwd.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <memory>
#include <sstream>
#include <stdexcept>

namespace vorn::test {
namespace {

const char* const kBin = "/usr/lib/postgresql/15/bin";

bool as_root() {
  return ::geteuid() == 0;
}

// Hands `path` to the server's user when the test runs as root.
void give_to_server_user(const std::string& path) {
  if (!as_root()) {
    return;
  }
  const passwd* user = ::getpwnam("postgres");
  if (user == nullptr || ::chown(path.c_str(), user->pw_uid, user->pw_gid) != 0) {
    throw std::runtime_error("cannot hand " + path + " to user postgres");
  }
}

// Quotes for /bin/sh.
std::string quoted(const std::string& text) {
  std::string out = "'";
  for (char c : text) {
    out += c == '\'' ? std::string("'\\''") : std::string(1, c);
  }
  return out + "'";
}

}  // namespace

std::string PrivatePostgres::unavailable_reason() {
  if (::access((std::string(kBin) + "/pg_ctl").c_str(), X_OK) != 0) {
    return std::string("PostgreSQL's server programs are not in ") + kBin +
           " (Debian's postgresql package)";
  }
  if (as_root() && ::getpwnam("postgres") == nullptr) {
    return "no user postgres to run PostgreSQL as";
  }
  return {};
}

PrivatePostgres::PrivatePostgres() : data_(dir_ / "data"), log_(dir_ / "server.log") {
  // The server's user must reach its directory, its socket and its log.
  ::chmod(dir_.path().c_str(), 0755);
  give_to_server_user(dir_.path());
  port_ = free_tcp_port();
  if (run(std::string(kBin) + "/initdb -D " + quoted(data_) +
          " --auth=trust --no-sync --encoding=UTF8 --locale=C.UTF-8 >" +
          quoted(dir_ / "initdb.log") + " 2>&1") != 0) {
    throw std::runtime_error("initdb failed:\n" + read_file(dir_ / "initdb.log"));
  }
  start();
}

PrivatePostgres::~PrivatePostgres() {
  if (running_) {
    run(std::string(kBin) + "/pg_ctl -D " + quoted(data_) +
        " -m immediate -w stop >/dev/null 2>&1");
  }
}

int PrivatePostgres::run(const std::string& command_line) const {
  std::string command =
      as_root() ? "runuser -u postgres -- sh -c " + quoted(command_line) : command_line;
  int status = std::system(command.c_str());
  return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

void PrivatePostgres::start() {
  // Only the socket in our own directory: nothing listens on the network.
  std::string options = "-p " + std::to_string(port_) + " -k " + dir_.path() +
                        " -c listen_addresses='' -c fsync=off -c max_connections=50";
  if (run(std::string(kBin) + "/pg_ctl -D " + quoted(data_) + " -l " + quoted(log_) + " -o " +
          quoted(options) + " -w -t 60 start >/dev/null 2>&1") != 0) {
    throw std::runtime_error("pg_ctl start failed:\n" + log());
  }
  running_ = true;
}

void PrivatePostgres::stop() {
  if (run(std::string(kBin) + "/pg_ctl -D " + quoted(data_) +
          " -m fast -w -t 60 stop >/dev/null 2>&1") != 0) {
    throw std::runtime_error("pg_ctl stop failed:\n" + log());
  }
  running_ = false;
}

std::string PrivatePostgres::log() const {
  return read_file(log_);
}

std::string PrivatePostgres::url(const std::string& database) const {
  return "host=" + dir_.path() + " port=" + std::to_string(port_) + " dbname=" + database +
         " user=postgres";
}

std::string PrivatePostgres::uri(const std::string& database) const {
  std::string host;
  for (char c : dir_.path()) {
    host += c == '/' ? std::string("%2F") : std::string(1, c);
  }
  return "postgresql://postgres@" + host + ":" + std::to_string(port_) + "/" + database;
}

std::string PrivatePostgres::create_database() {
  std::string name = "vorn_test_" + std::to_string(++databases_);
  query("postgres", "CREATE DATABASE " + name);
  return name;
}

std::string PrivatePostgres::query(const std::string& database, const std::string& sql) const {
  std::string out_path = dir_ / "query.out";
  std::string command = std::string(kBin) + "/psql -X -q -At -v ON_ERROR_STOP=1 " +
                        quoted(url(database)) + " -c " + quoted(sql) + " >" + quoted(out_path) +
                        " 2>&1";
  // psql runs as the test's user: trust authentication lets it in as postgres.
  int status = std::system(command.c_str());
  std::string out = read_file(out_path);
  if (!WIFEXITED(status) || WEXITSTATUS(status) != 0) {
    throw std::runtime_error("psql failed on " + sql + ":\n" + out);
  }
  if (!out.empty() && out.back() == '\n') {
    out.pop_back();
  }
  return out;
}

}  // namespace vorn::test
