#pragma once
// Provider definitions: one XML file per data provider in the provider
// directory, parsed into a `provider` record.
//
// Every setting is an element below a configuration element and optional; a
// duplicate or an unknown value is a warning that keeps the default. A file
// is rejected when it cannot be read, is not safe (owned by someone other
// than this user or root, or writable by group or others), is not XML, or
// asks for an impossible cluster.
//
// Thread safety: parsing is for one thread at a time (start-up, or the
// scheduler's own thread); records are then used by that thread alone.

#include <sys/time.h>

#include <cstdint>
#include <map>
#include <memory>
#include <set>
#include <string>

#include "daemon/src/config/config.h"

enum class provider_encoding : int32_t { none = 0, base64 = 1, raw = 2 };
enum class provider_architecture : int32_t { x86_64 = 1, p9ux = 2, any = 3 };
enum class cluster_kind : int32_t { uniform = 1, any = 2 };
enum class nodelist_method : int32_t {
  none = 0,
  rotate_right = 1,
  rotate_left = 2,
  round_robin = 3,
  random = 4
};

// Texts accepted in provider files (case-sensitive, whole text).
extern const std::map<std::string, provider_encoding> provider_encoding_names;
extern const std::map<std::string, provider_architecture> provider_architecture_names;
extern const std::map<std::string, cluster_kind> cluster_kind_names;
extern const std::map<std::string, nodelist_method> nodelist_method_names;

// Names for printing: upper case for node-list methods, the first accepted
// text for the others.
const char* nodelist_method_label(nodelist_method method);
const char* provider_architecture_label(provider_architecture architecture);
const char* provider_encoding_label(provider_encoding encoding);

constexpr size_t kProviderPathMax = 4096;
constexpr size_t kProviderNameMax = 64;
constexpr size_t kProviderCommandMax = 256;

struct provider {
  std::string path;
  std::string name;
  std::string command;
  int16_t priority = -20;
  int32_t period = 60;
  double loadavg = 1.0;
  bool disabled = false;
  bool load_skip_logged = false;  // since the load last let it through
  timeval last_run{};
  timeval next_run{};
  std::unique_ptr<provider> next;
  uint16_t max_nodes = 1;
  uint16_t min_nodes = 1;
  int32_t adhoc_cluster_invite_time = 10;
  std::string nodefile;  // node file of the current cluster run; empty between runs
  provider_encoding encoding = provider_encoding::none;
  int64_t timeout = 60;
  provider_architecture architecture = provider_architecture::any;
  cluster_kind cluster = cluster_kind::any;
  ::timeout_scale timeout_scale = ::timeout_scale::constant;
  int32_t version = 1;
  ::nodelist_method nodelist_method = ::nodelist_method::none;
  int32_t nodelist_number = 1;
  std::set<int> roles;
};

// The providers of a directory in alphabetical order of their file names.
struct provider_list {
  provider_list() = default;
  provider_list(const provider_list&) = delete;
  provider_list& operator=(const provider_list&) = delete;
  ~provider_list();  // frees the chain without recursion

  std::unique_ptr<provider> head;
  provider* tail = nullptr;
};

// Defaults of a record for the file at `path` (its name is the file name
// without the last four characters, at most 64).
void set_provider_defaults(provider& record, const std::string& path);

// Sets only the path and the name derived from it.
void set_provider_path(provider& record, const std::string& path);

// Parses the file into a record holding the defaults. Returns 0 when the file
// is accepted, otherwise the system error number of the failure, or 1.
int parse_provider_config_xml(provider& record, const char* path, const daemon_config& settings);

// Scans settings.provider_config_dir for "*.xml" files into `list`. Returns 0,
// or -1 when the directory cannot be read. Rejected files are logged and left out.
int read_provider_config_dir(const daemon_config& settings, provider_list& list);

// Whether this machine may run the provider (any architecture always may).
bool architecture_matches(const provider& record);

// Parses one file into `record` and applies the architecture rule: 0 when it
// may run here, -1 when the file is rejected, -4 for another architecture.
int check_provider_file(const char* path, const daemon_config& settings, provider& record);

// The time-out of a run on `nodes` nodes, scaled as the provider says and
// raised to at least 60 seconds.
int64_t scale_timeout(int64_t timeout, int nodes, ::timeout_scale scale);
