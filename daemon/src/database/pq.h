#pragma once
// libpq for the server's PostgreSQL store and for `vorn` reading one: owners
// of its handles, each closing or freeing its handle when it goes, and its
// messages made fit for a log line or a terminal. Plain functions, safe from
// any thread.

#include <libpq-fe.h>

#include <memory>
#include <string>

struct pq_connection_closer {
  void operator()(PGconn* connection) const { PQfinish(connection); }
};
using pq_connection = std::unique_ptr<PGconn, pq_connection_closer>;

struct pq_result_clearer {
  void operator()(PGresult* result) const { PQclear(result); }
};
using pq_result = std::unique_ptr<PGresult, pq_result_clearer>;

// libpq's message (which runs over lines and ends in a newline) as one line.
std::string pq_one_line(const char* message);

// Why libpq cannot parse `url` as a connection string or URI, on one line
// and with any password in it blanked out; empty when it can.
std::string pq_url_error(const std::string& url);
