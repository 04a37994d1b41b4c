#pragma once
// `vorn serve`: a read-only HTTP server over the server's database.
//
//   GET /             the status page (page.h)
//   GET /metrics      the Prometheus exposition of the latest results (metrics.h)
//   GET /api/latest   latest results, one JSON object per line, as `vorn latest --json`;
//                     ?provider= and ?host= restrict them
//   GET /api/history  ?provider= (required), &host=, &since=, &limit=: as `vorn history --json`
//   GET /api/result   ?rowid=: one result with both outputs, as one JSON object
//   GET /api/health   the newest health row of each provider and host, one JSON object per
//                     line (format.h, health_json), with the age at which it is stale
//
// Each connection has a thread of its own, with limits on how many and for
// how long (connection_guard.h); each request a read-only connection of the
// database (StorePool). Nothing is cached, so every answer reflects the rows
// committed when it was asked. Byte ranges are ignored: every answer is whole.
//
// Thread safety: serve() runs on the main thread and blocks SIGINT and SIGTERM
// in the process before any thread starts; one of them stops it.

#include <cstdint>
#include <string>

#include "daemon/src/cli/connection.h"

namespace vorn::cli {

struct ServeOptions {
  Database database;
  std::string host = "127.0.0.1";
  int port = 9178;  // 0: the kernel picks one
  // Results older than this show as stale on the page, seconds.
  int64_t stale_after = 600;
};

// Opens the database, listens, prints the page's address on standard output
// and answers until SIGINT or SIGTERM. The exit status: 0 after a signal, 1
// when the database cannot be read or the address cannot be bound (with one
// line on standard error).
int serve(const ServeOptions& options);

// "HOST:PORT" ("[::1]:PORT" for IPv6, ":PORT" for 127.0.0.1) into `options`;
// false when it is not that.
bool parse_listen(const std::string& text, ServeOptions* options);

}  // namespace vorn::cli
