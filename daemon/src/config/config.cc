#include "daemon/src/config/config.h"

#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <limits>
#include <optional>

#include "daemon/src/config/provider_options.h"
#include "daemon/src/config/timeout_scale.h"
#include "util/log.h"
#include "util/str.h"
#include "util/xml.h"

const std::map<std::string, ::timeout_scale> timeout_scale_names = {
    {"constant", ::timeout_scale::constant},
    {"linear", ::timeout_scale::linear},
    {"squared", ::timeout_scale::squared},
    {"logarithmic", ::timeout_scale::logarithmic},
};

const std::map<std::string, database_backend_kind> database_backend_names = {
    {"sqlite3", database_backend_kind::sqlite3},
    {"postgresql", database_backend_kind::postgresql},
};

std::string default_database_file() {
  return vorn::str::wordexp(std::string(kDatabaseDirectory) + kDatabaseVersion + kDatabaseFileName);
}

std::string with_partition(const char* word, const daemon_config& config) {
  std::string text = word;
  if (!config.network_partition.empty()) {
    text += " " + config.network_partition;
  }
  return text;
}

std::optional<int64_t> parse_duration(const std::string& text) {
  std::string value = vorn::str::strip(text);
  if (value.empty()) {
    return 0;
  }
  int64_t unit = 1;
  switch (value.back()) {
    case 'd':
      unit = 86400;
      break;
    case 'h':
      unit = 3600;
      break;
    case 'm':
      unit = 60;
      break;
    case 's':
      break;
    default:
      unit = 0;
  }
  if (unit != 0) {
    value.pop_back();
  } else {
    unit = 1;
  }
  if (value.empty() || value.find_first_not_of("0123456789") != std::string::npos ||
      value.size() > 12) {
    return std::nullopt;
  }
  // At most 12 digits: no overflow, even in days.
  return std::stoll(value) * unit;
}

namespace {

constexpr const char* kLogSource = "daemon/src/config";

// Only the exact texts "true" and "false" are understood.
void read_boolean(const vorn::xml::ConfigurationReader& keys, const char* key,
                  const char* several_message, bool& field) {
  std::optional<std::string> value = keys.text(key, several_message);
  if (!value) {
    return;
  }
  if (*value == "true") {
    field = true;
  } else if (*value == "false") {
    field = false;
  } else {
    VORN_LOG(4) << "Unrecognized value for " << key << ": '" << *value << "'.  Using default.";
  }
}

// Digits only, with blanks around them allowed, in [low, high]. A sign, a
// fraction, an exponent or trailing text is refused rather than read as far as
// it goes: "19x41" must not become port 19.
std::optional<int64_t> whole_number(const std::string& text, int64_t low, int64_t high) {
  std::string digits = vorn::str::strip(text);
  if (digits.empty()) {
    return std::nullopt;
  }
  int64_t value = 0;
  for (char c : digits) {
    if (c < '0' || c > '9') {
      return std::nullopt;
    }
    if (value > (std::numeric_limits<int64_t>::max() - (c - '0')) / 10) {
      return std::nullopt;
    }
    value = value * 10 + (c - '0');
  }
  if (value < low || value > high) {
    return std::nullopt;
  }
  return value;
}

template <typename T>
void read_whole_number(const vorn::xml::ConfigurationReader& keys, const char* key,
                       const char* several_message, int64_t low, T& field) {
  std::optional<std::string> value = keys.text(key, several_message);
  if (!value) {
    return;
  }
  constexpr int64_t high = std::numeric_limits<T>::max();
  if (std::optional<int64_t> number = whole_number(*value, low, high)) {
    field = static_cast<T>(*number);
    return;
  }
  VORN_LOG(4) << "Unrecognized value for " << key << ": '" << *value
              << "' (not a whole number from " << low << " to " << high << ").  Using default.";
}

// Retention: a duration, as parse_duration reads it.
void read_retention(const vorn::xml::ConfigurationReader& keys, int64_t* seconds) {
  std::optional<std::string> value = keys.text("retention", "Multiple retention elements in '");
  if (!value) {
    return;
  }
  if (std::optional<int64_t> parsed = parse_duration(*value)) {
    *seconds = *parsed;
    return;
  }
  VORN_LOG(4) << "Unrecognized value for retention: '" << *value
              << "' (a duration such as 30d, 12h, 90m or 45s).  Using default.";
}

void read_port(const vorn::xml::ConfigurationReader& keys, const char* key,
               const char* several_message, int64_t* port) {
  std::optional<std::string> value = keys.text(key, several_message);
  if (!value) {
    return;
  }
  if (std::optional<int64_t> number = whole_number(*value, 1, 65535)) {
    *port = *number;
    return;
  }
  VORN_LOG(4) << "Unrecognized value for " << key << ": '" << *value
              << "' (not a port number from 1 to 65535).  Using default.";
}

// A directory or file path, expanded. Text the expansion refuses (command
// substitution, any "$" form but "$NAME" and "${NAME}", "|", ";", unbalanced
// quotes and the like) was meant for a shell, and is kept away from every
// later use of it.
std::optional<std::string> read_path(const vorn::xml::ConfigurationReader& keys, const char* key,
                                     const char* several_message) {
  std::optional<std::string> value = keys.text(key, several_message);
  if (!value) {
    return std::nullopt;
  }
  std::optional<std::string> expanded = vorn::str::try_wordexp(*value);
  if (!expanded || expanded->find("$(") != std::string::npos ||
      expanded->find('`') != std::string::npos) {
    VORN_LOG(4) << "Unrecognized value for " << key << ": '" << *value
                << "' (command substitution and shell syntax are not allowed in paths).  Using "
                   "default.";
    return std::nullopt;
  }
  return expanded;
}

void read_keys(const vorn::xml::ConfigurationReader& keys, daemon_config& config) {
  using vorn::str::copy;
  using vorn::xml::to_integer;

  if (auto v = keys.text("accumulate_host", "Multiple accumulate_host elements in '")) {
    copy(config.accumulate_host, *v);
  }
  if (auto v = keys.text("accumulate_listen_address",
                         "Multiple accumulate_listen_address elements in '")) {
    config.accumulate_listen_address = v->empty() ? "*" : *v;
  }
  if (auto v = read_path(keys, "accumulate_output_dir",
                         "Multiple accumulate_output_dir elements in '")) {
    copy(config.accumulate_output_dir, *v);
  }
  int64_t port = -1;
  read_port(keys, "accumulate_port", "Multiple accumulate_port elements in '", &port);
  if (port > 0) {
    copy(config.accumulate_port, std::to_string(port));
  }
  port = -1;
  read_port(keys, "broadcast_port", "Multiple broadcast_port elements in '", &port);
  if (port > 0) {
    config.broadcast_port = static_cast<int32_t>(port);
  }
  if (auto v = read_path(keys, "curve_certificate", "Multiple curve_certificate elements in '")) {
    config.curve_certificate = *v;
  }
  if (auto v = read_path(keys, "curve_clients_dir", "Multiple curve_clients_dir elements in '")) {
    config.curve_clients_dir = *v;
  }
  if (auto v = read_path(keys, "curve_server_certificate",
                         "Multiple curve_server_certificate elements in '")) {
    config.curve_server_certificate = *v;
  }
  if (auto v = keys.text("database_backend", "Multiple database_backend elements in '")) {
    auto it = database_backend_names.find(*v);
    if (it == database_backend_names.end()) {
      VORN_LOG(4) << "Unknown database_backend element in '" << keys.path()
                  << "'. Using the default instead.";
    } else {
      config.database_backend = it->second;
    }
  }
  if (auto v = read_path(keys, "database_file", "Multiple database_file elements in '")) {
    config.database_file = *v;
  }
  // Not expanded: a connection string may hold '$' or '~' of its own.
  if (auto v = keys.text("database_url", "Multiple database_url elements in '")) {
    config.database_url = *v;
  }
  read_boolean(keys, "enable_adhoc_clusters", "Multiple enable_adhoc_clusters elements in '",
               config.enable_adhoc_clusters);
  read_boolean(keys, "enable_discovery", "Multiple enable_discovery elements in '",
               config.enable_discovery);
  read_whole_number(keys, "drain_timeout", "Multiple drain_timeout elements in '", 0,
                    config.drain_timeout);
  read_whole_number(keys, "heartbeat_period", "Multiple heartbeat period elements in '", 0,
                    config.heartbeat_period);
  read_whole_number(keys, "max_message_size", "Multiple max_message_size elements in '", 1,
                    config.max_message_size);
  read_whole_number(keys, "max_output_size", "Multiple max_output_size elements in '", 1,
                    config.max_output_size);
  read_retention(keys, &config.retention_seconds);
  if (auto v = keys.text("network_interface", "Multiple network_interface elements in '")) {
    config.network_interface = *v;
  }
  if (auto v = keys.text("network_partition", "Multiple network_partition elements in '")) {
    config.network_partition = *v;
  }
  if (auto v = read_path(keys, "provider_auxiliary_path",
                         "Multiple provider_auxiliary_path elements in '")) {
    copy(config.provider_auxiliary_path, *v);
  }
  if (auto v =
          read_path(keys, "provider_config_dir", "Multiple provider_config_dir elements in '")) {
    copy(config.provider_config_dir, *v);
  }
  if (auto v = keys.number("provider_loadavg", "Multiple loadavg elements in '")) {
    config.provider_loadavg = *v;
  }
  if (auto v =
          read_path(keys, "provider_output_dir", "Multiple provider_output_dir elements in '")) {
    copy(config.provider_output_dir, *v);
  }
  read_whole_number(keys, "provider_period", "Multiple period elements in '", 0,
                    config.provider_period);
  if (const xmlNode* timeout = keys.find("timeout", "Multipe timeout value elements in '")) {
    config.timeout = to_integer<int64_t>(vorn::xml::number(vorn::xml::text(timeout)));
    read_timeout_scale(timeout, "timeout scaling option '",
                       "' did not match known options. Using default scaling value.",
                       config.timeout_scale);
  }
}

}  // namespace

void read_timeout_scale(const xmlNode* timeout, const char* unknown_prefix,
                        const char* unknown_suffix, ::timeout_scale& scale) {
  bool seen = false;
  for (const xmlAttr* attr = timeout->properties; attr != nullptr; attr = attr->next) {
    if (xmlStrcmp(attr->name, reinterpret_cast<const xmlChar*>("scale")) != 0) {
      continue;
    }
    if (seen) {
      VORN_LOG(4) << "Multiple scale attributes found for timeout configuration. Using the first "
                     "scale value.";
      return;
    }
    seen = true;
    std::string text = vorn::xml::text(reinterpret_cast<const xmlNode*>(attr));
    auto it = timeout_scale_names.find(text);
    if (it == timeout_scale_names.end()) {
      VORN_LOG(4) << unknown_prefix << text << unknown_suffix;
    } else {
      scale = it->second;
    }
  }
}

int read_config(daemon_config& config, const char* path) {
  vorn::xml::Document doc;
  vorn::xml::XPathContext context;
  errno = 0;
  if (::access(path, R_OK) == 0) {
    doc = vorn::xml::parse_file(vorn::str::wordexp(path));
    if (doc) {
      context = vorn::xml::new_context(doc.get());
    }
  }
  if (!context) {
    int error = errno;
    if (error != 0) {
      VORN_LOG(3) << "Error reading config file '" << path << "' " << vorn::log::sys_error(error);
      return error;
    }
    VORN_LOG(3) << "Error reading config file '" << path << "'";
    return -1;
  }

  vorn::xml::ConfigurationReader keys(context.get(), path);
  read_keys(keys, config);
  read_provider_options(config, context.get());
  return 0;
}
