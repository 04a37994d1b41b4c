#include "daemon/src/cli/http.h"

#include <pthread.h>
#include <signal.h>

#include <atomic>
#include <cstdio>
#include <ctime>
#include <thread>

#include <httplib.h>

#include "daemon/src/cli/connection_guard.h"
#include "daemon/src/cli/format.h"
#include "daemon/src/cli/metrics.h"
#include "daemon/src/cli/page.h"
#include "daemon/src/cli/query.h"

namespace vorn::cli {

namespace {

constexpr int64_t kDefaultHistoryLimit = 100;
constexpr const char* kJsonLines = "application/x-ndjson; charset=utf-8";

int64_t now() {
  return static_cast<int64_t>(std::time(nullptr));
}

std::optional<std::string> parameter(const httplib::Request& request, const char* name) {
  if (!request.has_param(name)) {
    return std::nullopt;
  }
  return request.get_param_value(name);
}

std::optional<int64_t> whole_number(const std::string& text) {
  if (text.empty() || text.size() > 18 ||
      text.find_first_not_of("0123456789") != std::string::npos) {
    return std::nullopt;
  }
  return std::stoll(text);
}

// JSON lines are the largest answers (megabytes for a large cluster, every
// ten seconds for each open page), and their type is not among those the
// library compresses by itself; so they are compressed here, with its gzip.
void set_json_lines(const httplib::Request& request, httplib::Response& response,
                    const std::string& body) {
  response.set_header("Vary", "Accept-Encoding");
  if (request.get_header_value("Accept-Encoding").find("gzip") != std::string::npos) {
    std::string compressed;
    httplib::detail::gzip_compressor gzip;
    bool done = gzip.compress(body.data(), body.size(), true, [&](const char* data, size_t size) {
      compressed.append(data, size);
      return true;
    });
    if (done) {
      response.set_header("Content-Encoding", "gzip");
      response.set_content(compressed, kJsonLines);
      return;
    }
  }
  response.set_content(body, kJsonLines);
}

void fail(httplib::Response& response, int status, const std::string& message) {
  response.status = status;
  response.set_content(message + "\n", "text/plain; charset=utf-8");
}

// Runs `answer` with a store of the pool; a database that cannot be read is
// a 500 with the reason, which Prometheus shows as a failed scrape.
template <typename Answer>
void with_store(StorePool* pool, httplib::Response& response, Answer answer) {
  try {
    StorePool::Lease store = pool->take();
    answer(store);
  } catch (const StoreError& e) {
    fail(response, 500, e.what());
  }
}

void route(httplib::Server* server, StorePool* pool, const ServeOptions& options) {
  // The library compresses for any client that asks, and its brotli runs at
  // the slowest quality: seconds for the megabytes of a large cluster's
  // answer. gzip costs a few per cent of that; brotli is never offered.
  server->set_pre_routing_handler([](const httplib::Request& request, httplib::Response& response) {
    // The request is the library's own object, handed to handlers as const.
    auto& headers = const_cast<httplib::Headers&>(request.headers);
    auto accepted = headers.equal_range("Accept-Encoding");
    bool brotli = false;
    bool gzip = false;
    for (auto it = accepted.first; it != accepted.second; ++it) {
      brotli = brotli || it->second.find("br") != std::string::npos;
      gzip = gzip || it->second.find("gzip") != std::string::npos;
    }
    if (brotli) {
      headers.erase(accepted.first, accepted.second);
      if (gzip) {
        headers.emplace("Accept-Encoding", "gzip");
      }
    }
    // Every answer is made afresh, so a byte range of one is no use against
    // the next; and the library answers each range of a request with a copy
    // of the body: a thousand ranges in 3 KB made 800 MB of one /metrics.
    // Ranges are ignored and the whole answer sent, as HTTP allows, rather
    // than refused: a client that asked for one still gets what it wants.
    headers.erase("Range");
    const_cast<httplib::Ranges&>(request.ranges).clear();
    // No route takes a body, and the library would read a chunked one of any
    // length into memory before routing. Refused unread; the connection then
    // ends with the answer (connection_guard.h).
    if (has_body(request)) {
      fail(response, 413, "no request here takes a body");
      return httplib::Server::HandlerResponse::Handled;
    }
    return httplib::Server::HandlerResponse::Unhandled;
  });
  server->set_post_routing_handler([](const httplib::Request&, httplib::Response& response) {
    response.set_header("Accept-Ranges", "none");
    response.set_header("Cache-Control", "no-store");
    response.set_header("X-Content-Type-Options", "nosniff");
  });

  std::string page = status_page(options.stale_after);
  server->Get("/", [page](const httplib::Request&, httplib::Response& response) {
    // The page may load nothing from elsewhere, and nothing may frame it.
    response.set_header("Content-Security-Policy",
                        "default-src 'none'; script-src 'unsafe-inline'; "
                        "style-src 'unsafe-inline'; connect-src 'self'; frame-ancestors 'none'");
    response.set_content(page, "text/html; charset=utf-8");
  });

  server->Get("/metrics", [pool](const httplib::Request&, httplib::Response& response) {
    with_store(pool, response, [&](StorePool::Lease& store) {
      int64_t total = store->results_total();
      std::vector<Summary> latest = store->latest(Filter{}, false);
      response.set_content(exposition(latest, total, store->health(false)), kMetricsContentType);
    });
  });

  server->Get("/api/latest", [pool](const httplib::Request& request, httplib::Response& response) {
    Filter filter{parameter(request, "provider"), parameter(request, "host")};
    with_store(pool, response, [&](StorePool::Lease& store) {
      int64_t t = now();
      std::string body;
      for (const Summary& row : store->latest(filter)) {
        body += json_line(summary_json(row, t));
      }
      set_json_lines(request, response, body);
    });
  });

  server->Get("/api/health", [pool](const httplib::Request& request, httplib::Response& response) {
    with_store(pool, response, [&](StorePool::Lease& store) {
      std::vector<Health> health = store->health(true);
      int64_t t = now();
      std::string body;
      for (const Health& h : health) {
        body += json_line(health_json(h, t));
      }
      set_json_lines(request, response, body);
    });
  });

  server->Get("/api/history", [pool](const httplib::Request& request, httplib::Response& response) {
    std::optional<std::string> provider = parameter(request, "provider");
    if (!provider) {
      fail(response, 400, "history needs ?provider=");
      return;
    }
    int64_t t = now();
    std::optional<int64_t> since;
    if (auto text = parameter(request, "since"); text && !text->empty()) {
      if (!(since = parse_since(*text, t))) {
        fail(response, 400, "since: not a time: " + *text);
        return;
      }
    }
    int64_t limit = kDefaultHistoryLimit;
    if (auto text = parameter(request, "limit")) {
      auto number = whole_number(*text);
      if (!number) {
        fail(response, 400, "limit: not a whole number: " + *text);
        return;
      }
      limit = *number == 0 ? -1 : *number;
    }
    std::optional<std::string> host = parameter(request, "host");
    if (host && host->empty()) {
      host.reset();
    }
    with_store(pool, response, [&](StorePool::Lease& store) {
      std::string body;
      for (const Summary& row : store->history(*provider, host, since, limit)) {
        body += json_line(summary_json(row, t));
      }
      set_json_lines(request, response, body);
    });
  });

  server->Get("/api/result", [pool](const httplib::Request& request, httplib::Response& response) {
    std::optional<int64_t> rowid;
    if (auto text = parameter(request, "rowid")) {
      rowid = whole_number(*text);
    }
    if (!rowid) {
      fail(response, 400, "result needs ?rowid= and a whole number");
      return;
    }
    with_store(pool, response, [&](StorePool::Lease& store) {
      std::optional<Result> result = store->result(*rowid);
      if (!result) {
        fail(response, 404, "no result with rowid " + std::to_string(*rowid));
        return;
      }
      response.set_content(json_line(result_json(*result)), "application/json");
    });
  });
}

std::string url_host(const std::string& host) {
  return host.find(':') != std::string::npos ? "[" + host + "]" : host;
}

}  // namespace

bool parse_listen(const std::string& text, ServeOptions* options) {
  size_t colon = text.rfind(':');
  if (colon == std::string::npos) {
    return false;
  }
  std::string host = text.substr(0, colon);
  if (host.size() >= 2 && host.front() == '[' && host.back() == ']') {
    host = host.substr(1, host.size() - 2);
  }
  auto port = whole_number(text.substr(colon + 1));
  if (!port || *port > 65535) {
    return false;
  }
  options->host = host.empty() ? "127.0.0.1" : host;
  options->port = static_cast<int>(*port);
  return true;
}

int serve(const ServeOptions& options) {
  StorePool pool(options.database);
  try {
    // A database that cannot be read is reported now, not at the first request.
    pool.take();
  } catch (const StoreError& e) {
    std::fprintf(stderr, "vorn: %s\n", e.what());
    return 1;
  }

  // Signals are taken by a thread of their own, which every other thread
  // leaves them to; stopping the server from a handler would not be safe.
  sigset_t stop_signals;
  sigemptyset(&stop_signals);
  sigaddset(&stop_signals, SIGINT);
  sigaddset(&stop_signals, SIGTERM);
  pthread_sigmask(SIG_BLOCK, &stop_signals, nullptr);

  GuardedServer server;
  route(&server, &pool, options);

  int port = options.port;
  bool bound = port == 0 ? (port = server.bind_to_any_port(options.host)) > 0
                         : server.bind_to_port(options.host, port);
  if (!bound) {
    std::fprintf(stderr, "vorn: cannot listen on %s:%d (address in use or not this machine's)\n",
                 url_host(options.host).c_str(), options.port);
    return 1;
  }
  std::printf("vorn serve: status page at http://%s:%d/ (database %s)\n",
              url_host(options.host).c_str(), port, describe(options.database).c_str());
  std::fflush(stdout);

  // Whoever comes first, a signal or the server ending for another reason,
  // settles it; the other then only has the stopper to end.
  std::atomic<bool> settled{false};
  std::thread stopper([&] {
    int signal_number = 0;
    sigwait(&stop_signals, &signal_number);
    if (!settled.exchange(true)) {
      server.stop();
    }
  });
  bool listened = server.listen_after_bind();
  if (!settled.exchange(true)) {
    pthread_kill(stopper.native_handle(), SIGTERM);
  }
  stopper.join();
  if (!listened) {
    std::fprintf(stderr, "vorn: the HTTP server stopped unexpectedly\n");
    return 1;
  }
  return 0;
}

}  // namespace vorn::cli
