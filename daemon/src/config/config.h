#pragma once
// The daemon's configuration record and its reader.
//
// Every field has a compiled-in default (a default-constructed daemon_config
// holds them); read_config overrides what the XML file names. A malformed value
// is logged as a warning and the default kept; only a file that cannot be read
// or parsed is an error.
//
// Thread safety: the record is filled once on the main thread before any other
// thread starts and is read-only afterwards, so readers take no lock.

#include <cstdint>
#include <map>
#include <optional>
#include <string>

enum class timeout_scale : uint32_t { constant = 0, linear = 1, squared = 2, logarithmic = 3 };

enum class database_backend_kind : int32_t { none = 0, sqlite3 = 1, postgresql = 2 };

// Texts accepted in configuration and provider files for the enumerations.
extern const std::map<std::string, ::timeout_scale> timeout_scale_names;
extern const std::map<std::string, database_backend_kind> database_backend_names;

// Option-set name -> environment assignments put in front of a provider's
// command ("VORN_PROVIDER_<KEY>_<OPTION>=\"value\" " per option).
using option_set_map = std::map<std::string, std::string>;
// Upper-cased provider key -> that provider's option sets.
using provider_option_map = std::map<std::string, option_set_map>;

// Default database path before shell-style expansion.
constexpr const char* kDatabaseDirectory = "$HOME/.vorn/";
constexpr const char* kDatabaseVersion = "3.1.2";
constexpr const char* kDatabaseFileName = "/vorn.db";

std::string default_database_file();

struct daemon_config {
  char provider_output_dir[4096] = "/var/tmp/vorn";
  char provider_config_dir[4096] = "";  // install root + "/provider/etc", set at start-up
  int32_t provider_period = 60;
  double provider_loadavg = 1.0;
  bool enable_discovery = true;
  int32_t broadcast_port = 9077;
  char accumulate_host[1026] = "";
  char accumulate_port[33] = "1974";
  char accumulate_output_dir[4096] = "/var/cache/vorn";
  // The address the result socket binds, "*" for all interfaces.
  std::string accumulate_listen_address = "*";
  // CURVE keys (expanded paths); all empty: plaintext. The program's own
  // secret certificate, the directory of the certificates allowed to send
  // (server), the server's public certificate (node).
  std::string curve_certificate;
  std::string curve_clients_dir;
  std::string curve_server_certificate;
  // No key sets it; 0 is the production daemon. Non-zero binds the accumulate
  // server to the node's own address on an ephemeral port and opens the
  // database through database_vfs without recovery; 1 also skips the provider
  // file ownership checks.
  int32_t run_mode = 0;
  bool enable_adhoc_clusters = true;
  std::string network_interface;
  std::string network_partition = "vorn3";
  database_backend_kind database_backend = database_backend_kind::sqlite3;
  std::string database_file = default_database_file();
  // With the postgresql backend: a libpq connection string or URI. Checked
  // when the store opens; passwords come from ~/.pgpass or PGPASSWORD.
  std::string database_url;
  std::string database_vfs = "unix-dotfile";
  int32_t database_busy_timeout_ms = 60000;
  // Rows older than this many seconds (by row_timestamp) are deleted; 0
  // keeps every row.
  int64_t retention_seconds = 0;
  char provider_auxiliary_path[4096] = "";  // install root + "/provider/share", set at start-up
  int32_t heartbeat_period = 3600;
  int64_t timeout = 60;
  ::timeout_scale timeout_scale = ::timeout_scale::constant;
  // Largest frame of a result message the server accepts, in bytes; a
  // sender of a larger one is disconnected by ZeroMQ before the frame takes
  // memory. It bounds frames, not whole messages.
  int64_t max_message_size = int64_t{64} << 20;
  // Seconds a stopping server keeps storing what still arrives.
  int32_t drain_timeout = 5;
  // Bytes of each output stream a provider run keeps; the rest is discarded.
  int64_t max_output_size = int64_t{16} << 20;
  provider_option_map option_sets;
};

// `word`, followed by a blank and the network partition when there is one:
// the topic of results, and the prefix of beacons and invitations.
std::string with_partition(const char* word, const daemon_config& config);

// Seconds of a duration such as "30d", "12h", "90m", "45s" or "600" (a bare
// number is seconds); empty and "0" are 0. None for anything else.
std::optional<int64_t> parse_duration(const std::string& text);

// Reads the XML file at `path` into `config`. Returns 0 on success, otherwise
// the errno of the failure, or -1 when the failure left errno at 0.
int read_config(daemon_config& config, const char* path);
