#pragma once
// Owners of libpq's handles, for the server's PostgreSQL store and for
// `vorn` reading one: each closes or frees its handle when it goes.

#include <libpq-fe.h>

#include <memory>

struct pq_connection_closer {
  void operator()(PGconn* connection) const { PQfinish(connection); }
};
using pq_connection = std::unique_ptr<PGconn, pq_connection_closer>;

struct pq_result_clearer {
  void operator()(PGresult* result) const { PQclear(result); }
};
using pq_result = std::unique_ptr<PGresult, pq_result_clearer>;
