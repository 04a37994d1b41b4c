// vorn: reads the results the server stored. `vorn -h` lists the commands.
//
// Exit statuses: 0 done, 1 a database (or configuration) that cannot be read
// or a result that is not there, 2 a command line that is not understood.

#include <sys/ioctl.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <iostream>
#include <memory>
#include <optional>
#include <string>

#include <CLI/CLI.hpp>

#include "daemon/src/cli/format.h"
#include "daemon/src/cli/health.h"
#include "daemon/src/cli/http.h"
#include "daemon/src/cli/query.h"
#include "daemon/src/config/config.h"
#include "daemon/src/curve/curve.h"
#include "daemon/src/startup/startup.h"
#include "util/fs.h"
#include "util/log.h"

namespace {

using vorn::cli::Filter;
using vorn::cli::Store;
using vorn::cli::StoreError;
using vorn::cli::Summary;

// What the command line asked for.
struct Request {
  std::string config_file;
  std::string database;
  std::optional<std::string> provider;
  std::optional<std::string> host;
  bool json = false;
  std::string older_than = "10m";
  std::string since;
  int64_t limit = 100;
  int64_t rowid = 0;
  bool stderr_stream = false;
  std::string listen = "127.0.0.1:9178";
  std::string stale_after = "10m";
};

vorn::cli::Database database_of(const Request& request) {
  if (!request.database.empty()) {
    return vorn::cli::database_named(request.database);
  }
  const std::string& file =
      request.config_file.empty() ? installation().config_file : request.config_file;
  daemon_config config;
  int error = read_config(config, file.c_str());
  if (error > 0) {
    throw StoreError("cannot read configuration file " + file + ": " + std::strerror(error));
  }
  if (error != 0) {
    throw StoreError("cannot read configuration file " + file + ": not an XML file");
  }
  if (config.database_backend == database_backend_kind::postgresql) {
    if (config.database_url.empty()) {
      throw StoreError("configuration file " + file +
                       " names the postgresql backend without a database_url");
    }
    return {vorn::cli::Database::Kind::postgresql, config.database_url};
  }
  return {vorn::cli::Database::Kind::sqlite, config.database_file};
}

void write(const std::string& text) {
  std::fwrite(text.data(), 1, text.size(), stdout);
}

// The listing for where standard output goes: a table for a terminal,
// tab-separated lines for anything else, or JSON lines when asked.
void print(const std::vector<Summary>& rows, bool json, int64_t now) {
  if (json) {
    for (const Summary& row : rows) {
      write(vorn::cli::json_line(vorn::cli::summary_json(row, now)));
    }
    return;
  }
  if (!::isatty(STDOUT_FILENO)) {
    for (const Summary& row : rows) {
      write(vorn::cli::tsv_line(row, now));
    }
    return;
  }
  vorn::cli::TableStyle style;
  winsize size{};
  if (::ioctl(STDOUT_FILENO, TIOCGWINSZ, &size) == 0) {
    style.width = size.ws_col;
  }
  const char* term = std::getenv("TERM");
  style.colour =
      std::getenv("NO_COLOR") == nullptr && (term == nullptr || std::strcmp(term, "dumb") != 0);
  write(vorn::cli::table(rows, now, style));
}

int show(Store& store, const Request& request) {
  std::optional<vorn::cli::Result> result = store.result(request.rowid);
  if (!result) {
    std::fprintf(stderr, "vorn: no result with rowid %lld\n",
                 static_cast<long long>(request.rowid));
    return 1;
  }
  write(request.stderr_stream ? result->stderr_data : result->stdout_data);
  return 0;
}

// A validator for texts that `parse` must accept.
template <typename Parse>
CLI::Validator accepted(const std::string& what, Parse parse) {
  return CLI::Validator(
      [what, parse](std::string& text) { return parse(text) ? std::string() : "not " + what; }, "",
      "");
}

}  // namespace

struct CertRequest {
  std::string name;
  std::string dir = ".";
  bool any_host = false;
  std::string file;
};

int cert_new(const CertRequest& request) {
  std::string error;
  const std::string hostname = request.any_host ? vorn::curve::kAnyHost : request.name;
  if (!vorn::curve::write_new_certificate(request.dir, request.name, hostname, &error)) {
    std::fprintf(stderr, "vorn: %s\n", error.c_str());
    return 1;
  }
  const std::string stem = request.dir + "/" + request.name;
  std::printf("%s%s (public)\n%s%s (secret, mode 0600)\n", stem.c_str(), vorn::curve::kPublicSuffix,
              stem.c_str(), vorn::curve::kSecretSuffix);
  return 0;
}

struct DestroyConfig {
  void operator()(zconfig_t* config) const { zconfig_destroy(&config); }
};

int cert_show(const CertRequest& request) {
  vorn::curve::certificate cert;
  std::string error;
  if (!vorn::curve::load_certificate(request.file, false, &cert, &error)) {
    std::fprintf(stderr, "vorn: %s\n", error.c_str());
    return 1;
  }
  std::printf("public-key: %s\n", cert.public_key.c_str());
  std::unique_ptr<zconfig_t, DestroyConfig> root(zconfig_load(request.file.c_str()));
  zconfig_t* metadata = root ? zconfig_locate(root.get(), "/metadata") : nullptr;
  for (zconfig_t* item = metadata ? zconfig_child(metadata) : nullptr; item;
       item = zconfig_next(item)) {
    const char* value = zconfig_value(item);
    std::printf("%s: %s\n", zconfig_name(item), value ? value : "");
  }
  std::printf("secret-key: %s\n", cert.secret_key.empty() ? "absent (a public certificate)"
                                                          : "present (keep this file private)");
  return 0;
}

int main(int argc, char** argv) {
  if (!vorn::fs::open_standard_descriptors()) {
    return 1;
  }
  // The configuration reader's own messages would say again, in other
  // words, what the one line below says.
  vorn::log::LOG_LEVEL = 0;
  const int64_t now = static_cast<int64_t>(std::time(nullptr));
  auto duration = accepted("a length of time such as 90s, 10m, 2h or 1d",
                           [](const std::string& t) { return vorn::cli::parse_duration(t); });
  auto since = accepted("a time such as 1h, 2026-11-20 or 2026-11-20T08:30",
                        [now](const std::string& t) { return vorn::cli::parse_since(t, now); });
  auto address = accepted("HOST:PORT", [](const std::string& t) {
    vorn::cli::ServeOptions options;
    return vorn::cli::parse_listen(t, &options);
  });

  Request request;
  CLI::App app{"Reads the results that vorn-serverd stored.", "vorn"};
  app.require_subcommand(1);
  // Options of the program may stand after the command's name too.
  app.fallthrough();
  auto* config_option =
      app.add_option("-c,--config", request.config_file,
                     "daemon configuration file whose database (database_backend, database_file, "
                     "database_url) is read [default: " +
                         installation().config_file + "]");
  auto* db_option =
      app.add_option("--db", request.database,
                     "database to read: an SQLite file, or a PostgreSQL URI (postgresql://...)");
  config_option->excludes(db_option);

  auto add_filters = [&request](CLI::App* command) {
    command->add_option("-p,--provider", request.provider, "only this provider");
    command->add_option("-H,--host", request.host, "only this host");
    command->add_flag("--json", request.json, "one JSON object per line");
  };
  CLI::App* latest = app.add_subcommand(
      "latest",
      "latest result of every provider, host and option set (a table on a terminal, "
      "tab-separated lines otherwise)");
  add_filters(latest);
  CLI::App* failing = app.add_subcommand("failing", "latest results whose exit status is not 0");
  add_filters(failing);
  CLI::App* stale =
      app.add_subcommand("stale",
                         "provider and host pairs whose latest result is older than --older-than; "
                         "`vorn stale -p vorn-noded` lists the nodes that went silent");
  add_filters(stale);
  auto* older_than =
      stale
          ->add_option("--older-than", request.older_than,
                       "age, such as 90s, 10m, 2h or 1d; given, it holds for the health rows too")
          ->check(duration)
          ->capture_default_str();

  CLI::App* history = app.add_subcommand("history", "results of a provider, newest first");
  history->add_option("-p,--provider", request.provider, "the provider")->required();
  history->add_option("-H,--host", request.host, "only this host");
  history
      ->add_option("--since", request.since,
                   "runs that ended since: 1h, 2026-11-20, 2026-11-20T08:30 or @UNIXTIME")
      ->check(since);
  history->add_option("--limit", request.limit, "at most this many; 0 for all")
      ->check(CLI::NonNegativeNumber)
      ->capture_default_str();
  history->add_flag("--json", request.json, "one JSON object per line");

  CLI::App* show_command =
      app.add_subcommand("show", "the standard output of one result, byte for byte");
  show_command->add_option("ROWID", request.rowid, "the result's rowid")->required();
  show_command->add_flag("--stderr", request.stderr_stream, "standard error instead");

  CLI::App* serve =
      app.add_subcommand("serve",
                         "HTTP server: the status page at /, /metrics for Prometheus, /api/latest, "
                         "/api/history, /api/result, /api/health");
  serve->add_option("--listen", request.listen, "address; port 0 lets the system choose")
      ->check(address)
      ->capture_default_str();
  serve
      ->add_option("--stale-after", request.stale_after,
                   "age at which the page shows a result as stale")
      ->check(duration)
      ->capture_default_str();

  CertRequest cert_request;
  CLI::App* cert = app.add_subcommand("cert", "CURVE certificates of the server and the nodes");
  cert->require_subcommand(1);
  CLI::App* cert_new_command = cert->add_subcommand(
      "new", "writes NAME.cert (public) and NAME.cert_secret (mode 0600) for host NAME");
  cert_new_command->add_option("NAME", cert_request.name, "host name, also the file name")
      ->required();
  cert_new_command->add_option("-d,--dir", cert_request.dir, "directory")->capture_default_str();
  cert_new_command->add_flag("--any-host", cert_request.any_host,
                             "hostname \"*\": may send results of any host (a relay, vorn-send)");
  CLI::App* cert_show_command =
      cert->add_subcommand("show", "prints a certificate's public key and metadata");
  cert_show_command->add_option("FILE", cert_request.file, "certificate file")->required();

  for (CLI::App* command : app.get_subcommands({})) {
    if (command == cert) {
      continue;
    }
    command->footer(
        "Every command also takes -c FILE (the daemon configuration) or --db FILE|URI.");
  }
  stale->footer(
      "Health rows (providers vorn-noded and vorn-serverd, one per heartbeat_period) have no\n"
      "period in the database: unless --older-than is given, a host's health row is stale when\n"
      "it is older than three times its interval, the longer of the two between its three\n"
      "newest health rows (the one, of two). A host with fewer than two health rows among the\n"
      "last 1,000,000 results takes the median interval of the other hosts of its provider,\n"
      "and without any the default period, 1h: stale after 3h.\n\n"
      "Every command also takes -c FILE (the daemon configuration) or --db FILE|URI.");

  try {
    app.parse(argc, argv);
  } catch (const CLI::CallForHelp&) {
    std::cout << app.help();
    return 0;
  } catch (const CLI::ParseError& e) {
    std::cerr << "vorn: " << e.what() << "\n\n" << app.help();
    return 2;
  }

  if (cert_new_command->parsed()) {
    return cert_new(cert_request);
  }
  if (cert_show_command->parsed()) {
    return cert_show(cert_request);
  }
  try {
    vorn::cli::Database database = database_of(request);
    if (serve->parsed()) {
      vorn::cli::ServeOptions options;
      options.database = database;
      vorn::cli::parse_listen(request.listen, &options);
      options.stale_after = *vorn::cli::parse_duration(request.stale_after);
      return vorn::cli::serve(options);
    }
    Store store(database);
    if (show_command->parsed()) {
      return show(store, request);
    }
    if (history->parsed()) {
      std::optional<int64_t> from;
      if (!request.since.empty()) {
        from = vorn::cli::parse_since(request.since, now);
      }
      int64_t limit = request.limit == 0 ? -1 : request.limit;
      print(store.history(*request.provider, request.host, from, limit), request.json, now);
      return 0;
    }
    std::vector<Summary> rows = store.latest(Filter{request.provider, request.host});
    if (failing->parsed()) {
      rows = vorn::cli::failing(rows);
    } else if (stale->parsed()) {
      vorn::cli::StaleLimits own;
      bool any_health = std::any_of(rows.begin(), rows.end(), [](const Summary& row) {
        return vorn::cli::is_health_provider(row.provider);
      });
      if (older_than->count() == 0 && any_health) {
        own = vorn::cli::stale_limits(store.health(true));
      }
      rows = vorn::cli::stale(rows, now, *vorn::cli::parse_duration(request.older_than), own);
    }
    print(rows, request.json, now);
    return 0;
  } catch (const StoreError& e) {
    std::fprintf(stderr, "vorn: %s\n", e.what());
    return 1;
  }
}
