#include "daemon/src/provider/provider.h"

#include <dirent.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cmath>
#include <cstdlib>
#include <optional>

#include "daemon/src/config/timeout_scale.h"
#include "daemon/src/provider/nodes.h"
#include "util/host.h"
#include "util/log.h"
#include "util/node.h"
#include "util/xml.h"

const std::map<std::string, provider_encoding> provider_encoding_names = {
    {"none", provider_encoding::none},
    {"base64", provider_encoding::base64},
    {"raw", provider_encoding::raw},
};

const std::map<std::string, provider_architecture> provider_architecture_names = {
    {"x86_64", provider_architecture::x86_64},  {"X86_64", provider_architecture::x86_64},
    {"basex64", provider_architecture::x86_64}, {"p9ux", provider_architecture::p9ux},
    {"P9UX", provider_architecture::p9ux},      {"qor", provider_architecture::p9ux},
    {"QOR", provider_architecture::p9ux},       {"any", provider_architecture::any},
    {"ANY", provider_architecture::any},
};

const std::map<std::string, cluster_kind> cluster_kind_names = {
    {"uniform", cluster_kind::uniform},
    {"UNIFORM", cluster_kind::uniform},
    {"any", cluster_kind::any},
    {"ANY", cluster_kind::any},
};

const std::map<std::string, nodelist_method> nodelist_method_names = {
    {"none", nodelist_method::none},
    {"rotate_right", nodelist_method::rotate_right},
    {"rotate_left", nodelist_method::rotate_left},
    {"round_robin", nodelist_method::round_robin},
    {"random", nodelist_method::random},
};

namespace {

// The label of an enumeration value, from a table indexed by the value.
template <typename Enum, size_t N>
const char* label(const char* const (&labels)[N], Enum value) {
  auto index = static_cast<size_t>(value);
  return index < N ? labels[index] : "?";
}

}  // namespace

const char* nodelist_method_label(nodelist_method method) {
  static const char* const labels[] = {"NONE", "ROTATE_RIGHT", "ROTATE_LEFT", "ROUND_ROBIN",
                                       "RANDOM"};
  return label(labels, method);
}

const char* provider_architecture_label(provider_architecture architecture) {
  static const char* const labels[] = {"?", "x86_64", "p9ux", "any"};
  return label(labels, architecture);
}

const char* provider_encoding_label(provider_encoding encoding) {
  static const char* const labels[] = {"none", "base64", "raw"};
  return label(labels, encoding);
}

namespace {

constexpr const char* kLogSource = "daemon/src/provider";
constexpr const char* kFirstOne = "'. Using the first one.";

template <typename Enum>
std::optional<Enum> lookup(const std::map<std::string, Enum>& names, const std::string& text) {
  auto it = names.find(text);
  if (it == names.end()) {
    return std::nullopt;
  }
  return it->second;
}

// Owner and mode checks: an unsafe file could make the daemon run anything.
bool file_is_safe(const char* path) {
  struct stat st;
  if (::stat(path, &st) != 0) {
    return false;
  }
  if (st.st_uid != ::getuid() && st.st_uid != 0) {
    VORN_LOG(3) << "xml file is not owned by current user or root: '" << path << "'";
    return false;
  }
  if ((st.st_mode & (S_IWGRP | S_IWOTH)) != 0) {
    VORN_LOG(3) << "xml file is writable by other users: '" << path << "'";
    return false;
  }
  return true;
}

void read_architecture(const vorn::xml::ConfigurationReader& keys, provider& p) {
  const xmlNode* node =
      keys.find("architecture", "Multiple architecture elements found in '", kFirstOne);
  if (node == nullptr) {
    return;
  }
  if (auto arch = lookup(provider_architecture_names, vorn::xml::text(node))) {
    p.architecture = *arch;
  } else {
    VORN_LOG(4) << "Unknown architecture element in '" << keys.path()
                << "'. Using the default instead (Will run on all architectures)";
  }
  std::string cluster;
  if (vorn::xml::attribute(node, "cluster", &cluster)) {
    if (auto kind = lookup(cluster_kind_names, cluster)) {
      p.cluster = *kind;
    } else {
      VORN_LOG(4) << "Unknown cluster attribute in '" << keys.path()
                  << "'. Using the default instead (will use a cluster of nodes with any "
                     "architecture";
    }
  }
}

void read_roles(const vorn::xml::ConfigurationReader& keys, provider& p) {
  for (const xmlNode* node : keys.all("role")) {
    std::string text = vorn::xml::text(node);
    auto it = vorn::node::role_str_map.find(text);
    if (it == vorn::node::role_str_map.end()) {
      VORN_LOG(1) << "Ignoring invalid role *" << text << "* specified in provider " << p.name;
      continue;
    }
    p.roles.insert(it->second);
  }
  if (p.roles.empty()) {
    for (int role = 0; role <= 8; ++role) {
      p.roles.insert(role);
    }
  }
}

void read_nodelist(const vorn::xml::ConfigurationReader& keys, provider& p) {
  const xmlNode* node = keys.find("nodelist", "Multiple nodelist tags in '");
  if (node == nullptr) {
    return;
  }
  for (const xmlAttr* attr = node->properties; attr != nullptr; attr = attr->next) {
    std::string value = vorn::xml::text(reinterpret_cast<const xmlNode*>(attr));
    if (xmlStrcmp(attr->name, reinterpret_cast<const xmlChar*>("method")) == 0) {
      if (auto method = lookup(nodelist_method_names, value)) {
        p.nodelist_method = *method;
      } else {
        VORN_LOG(4) << "Invalid value for method attribute in '" << keys.path()
                    << "'. Valid values are: none, rotate_right, rotate_left, round_robin, random";
      }
    } else if (xmlStrcmp(attr->name, reinterpret_cast<const xmlChar*>("number")) == 0) {
      p.nodelist_number = nodelist_permutation_count(value, p.nodelist_number, keys.path());
    }
  }
}

void read_elements(const vorn::xml::ConfigurationReader& keys, const daemon_config& settings,
                   provider& p) {
  using vorn::xml::to_integer;
  read_architecture(keys, p);
  if (auto v = keys.text("command", "Multiple command elements in '")) {
    p.command = v->substr(0, kProviderCommandMax);
  }
  // Any disable element disables, whatever it says.
  if (keys.find("disable", "Multiple disable elements in '") != nullptr) {
    p.disabled = true;
  }
  if (const xmlNode* node =
          keys.find("encoding", "Multiple encoding elements found in '", kFirstOne)) {
    if (auto encoding = lookup(provider_encoding_names, vorn::xml::text(node))) {
      p.encoding = *encoding;
    } else {
      VORN_LOG(4) << "Unknown encoding element in '" << keys.path()
                  << "'. Using the default instead.";
    }
  }
  p.loadavg =
      keys.number("loadavg", "Multiple loadavg elements in '").value_or(settings.provider_loadavg);
  if (auto v = keys.number("period", "Multiple period elements in '")) {
    p.period = to_integer<int32_t>(*v);
  }
  if (auto v = keys.number("priority", "Multiple priority elements in '")) {
    p.priority = to_integer<int16_t>(*v);
  }
  if (auto v = keys.number("max_nodes", "Multiple max node elements in '")) {
    p.max_nodes = to_integer<uint16_t>(*v);
  }
  if (auto v = keys.number("min_nodes", "Multiple min node elements in '")) {
    p.min_nodes = to_integer<uint16_t>(*v);
  }
  if (auto v = keys.number("adhoc_cluster_invite_time",
                           "Multiple adhoc cluster invite time elements in '")) {
    p.adhoc_cluster_invite_time = to_integer<int16_t>(*v);
  }
  if (auto v = keys.number("version", "Multiple version elements in '")) {
    p.version = to_integer<int16_t>(*v);
  }
  read_roles(keys, p);
  if (const xmlNode* node = keys.find("timeout", "Multipe timeout value elements in '")) {
    p.timeout = to_integer<int64_t>(vorn::xml::number(vorn::xml::text(node)));
    read_timeout_scale(node, "Timeout scaling option '",
                       "' did not match known options, using default scaling value",
                       p.timeout_scale);
  } else {
    p.timeout = settings.timeout;
    p.timeout_scale = settings.timeout_scale;
  }
  read_nodelist(keys, p);
}

// False when the node counts make no cluster possible (logged).
bool cluster_is_possible(provider& p) {
  if (p.max_nodes < p.min_nodes) {
    VORN_LOG(3) << "Can not create cluster with a minimum of " << p.min_nodes << " and maximum of "
                << p.max_nodes << " nodes";
    return false;
  }
  if (p.min_nodes >= 2 && p.cluster == cluster_kind::any &&
      p.architecture != provider_architecture::any) {
    p.architecture = provider_architecture::any;
    VORN_LOG(3) << "Can not set a specific target architecture for a cluster provider when there "
                   "are no specific architecture requirements on the cluster nodes";
    return false;
  }
  return true;
}

int reject(const char* path) {
  int error = errno;
  if (error != 0) {
    VORN_LOG(3) << "Error reading provider configuration '" << path << "' "
                << vorn::log::sys_error(error);
    return error;
  }
  VORN_LOG(3) << "Error reading provider configuration '" << path << "'";
  return 1;
}

struct FreeDirEntries {
  int count;
  void operator()(dirent** entries) const {
    for (int i = 0; i < count; ++i) {
      std::free(entries[i]);
    }
    std::free(entries);
  }
};

int is_definition_file(const dirent* entry) {
  std::string name = entry->d_name;
  return name.size() > 4 && name.compare(name.size() - 4, 4, ".xml") == 0;
}

}  // namespace

provider_list::~provider_list() {
  while (head) {
    head = std::move(head->next);
  }
}

void set_provider_defaults(provider& record, const std::string& path) {
  record = provider{};
  set_provider_path(record, path);
}

void set_provider_path(provider& record, const std::string& path) {
  record.path = path.substr(0, kProviderPathMax);
  std::string base = record.path.substr(record.path.rfind('/') + 1);
  // A name shorter than ".xml" keeps its whole text.
  record.name = base.size() >= 4 ? base.substr(0, std::min(base.size() - 4, kProviderNameMax))
                                 : base.substr(0, kProviderNameMax);
}

int parse_provider_config_xml(provider& record, const char* path, const daemon_config& settings) {
  // Reasons are reported with the error number of the call that failed, so
  // none may be left over from earlier work.
  errno = 0;
  if (::access(path, R_OK) != 0) {
    return reject(path);
  }
  if (settings.run_mode != 1 && !file_is_safe(path)) {
    return reject(path);
  }
  vorn::xml::Document doc = vorn::xml::parse_file(path);
  if (!doc) {
    VORN_LOG(3) << "xml parse error: '" << path << "'";
    return reject(path);
  }
  vorn::xml::XPathContext context = vorn::xml::new_context(doc.get());
  if (!context) {
    return reject(path);
  }
  errno = 0;
  set_provider_path(record, path);
  vorn::xml::ConfigurationReader keys(context.get(), record.path);
  read_elements(keys, settings, record);
  if (!cluster_is_possible(record)) {
    return reject(path);
  }
  return 0;
}

int read_provider_config_dir(const daemon_config& settings, provider_list& list) {
  dirent** raw = nullptr;
  int count = ::scandir(settings.provider_config_dir, &raw, is_definition_file, alphasort);
  if (count < 0) {
    VORN_LOG(3) << "Error reading provider configuration directory '"
                << settings.provider_config_dir << "' " << vorn::log::sys_error(errno);
    return -1;
  }
  std::unique_ptr<dirent*, FreeDirEntries> entries(raw, FreeDirEntries{count});
  for (int i = 0; i < count; ++i) {
    std::string path = std::string(settings.provider_config_dir) + "/" + raw[i]->d_name;
    path = path.substr(0, kProviderPathMax - 1);
    auto record = std::make_unique<provider>();
    set_provider_defaults(*record, path);
    if (parse_provider_config_xml(*record, path.c_str(), settings) != 0) {
      VORN_LOG(3) << "Error reading provider configuration file '" << path << "'";
      continue;
    }
    provider* added = record.get();
    if (list.tail == nullptr) {
      list.head = std::move(record);
    } else {
      list.tail->next = std::move(record);
    }
    list.tail = added;
  }
  return 0;
}

bool architecture_matches(const provider& record) {
  if (record.architecture == provider_architecture::any) {
    return true;
  }
  std::optional<std::string> machine = vorn::host::machine();
  if (!machine) {
    // Not knowing the machine is no reason to stop a provider.
    VORN_LOG(3) << "Unable to acquire machine data using uname.";
    return true;
  }
  const std::string& name = *machine;
  return (record.architecture == provider_architecture::x86_64 && name == "x86_64") ||
         (record.architecture == provider_architecture::p9ux && name == "p9ux");
}

int check_provider_file(const char* path, const daemon_config& settings, provider& record) {
  set_provider_defaults(record, path);
  if (parse_provider_config_xml(record, path, settings) != 0) {
    return -1;
  }
  return architecture_matches(record) ? 0 : -4;
}

int64_t scale_timeout(int64_t timeout, int nodes, ::timeout_scale scale) {
  int64_t scaled = timeout;
  switch (scale) {
    case ::timeout_scale::constant:
      break;
    case ::timeout_scale::linear:
      if (__builtin_mul_overflow(timeout, static_cast<int64_t>(nodes), &scaled)) {
        scaled = (timeout < 0) == (nodes < 0) ? INT64_MAX : INT64_MIN;
      }
      break;
    case ::timeout_scale::squared:
      scaled = vorn::xml::to_integer<int64_t>(static_cast<double>(timeout) * nodes * nodes);
      break;
    case ::timeout_scale::logarithmic:
      scaled = vorn::xml::to_integer<int64_t>(static_cast<double>(timeout) *
                                              std::log(nodes + 1.718281828459045));
      break;
  }
  return scaled < 60 ? 60 : scaled;
}
