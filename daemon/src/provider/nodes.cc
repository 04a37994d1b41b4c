#include "daemon/src/provider/nodes.h"

#include <cerrno>
#include <climits>
#include <cstdlib>
#include <limits>
#include <sstream>

#include "daemon/src/provider/provider.h"
#include "util/fs.h"
#include "util/log.h"
#include "util/node.h"

namespace {
constexpr const char* kLogSource = "daemon/src/provider";
}  // namespace

bool read_node_file(const std::string& path, uint16_t& count, std::string& nodes_text) {
  std::string text;
  if (!vorn::fs::read_file(path, &text)) {
    return false;
  }
  std::istringstream in(text);
  vorn::node::Nodelist nodes;
  nodes.parse(in);
  if (nodes.empty()) {
    return false;
  }
  count = static_cast<uint16_t>(std::min<size_t>(nodes.size(), UINT16_MAX));
  nodes_text.clear();
  for (const vorn::node::Node& node : nodes.nodes()) {
    if (!nodes_text.empty()) {
      nodes_text += ", ";
    }
    nodes_text += node.name;
  }
  return true;
}

bool check_node_requirements(const provider& record) {
  if (record.min_nodes == 1) {
    return true;
  }
  if (record.nodefile.empty()) {
    VORN_LOG(3) << "No nodelist provided for a data provider that requires a cluster: '"
                << record.name << "'";
    return false;
  }
  uint16_t count = 0;
  std::string nodes_text;
  if (!read_node_file(record.nodefile, count, nodes_text)) {
    VORN_LOG(3) << "Unable to read node file for data provider '" << record.name << "'";
    return false;
  }
  if (count < record.min_nodes) {
    VORN_LOG(3) << "Minimum number of nodes required to run data provider '" << record.name
                << "' not met.";
    return false;
  }
  if (count > record.max_nodes) {
    VORN_LOG(4) << "Node file contains more nodes than required by the data provider: '"
                << record.name << "'";
  }
  return true;
}

int32_t nodelist_permutation_count(const std::string& text, int32_t current,
                                   const std::string& path) {
  errno = 0;
  char* end = nullptr;
  long value = std::strtol(text.c_str(), &end, 10);
  bool converted = end != text.c_str() && errno != ERANGE &&
                   value >= std::numeric_limits<int32_t>::min() &&
                   value <= std::numeric_limits<int32_t>::max();
  if (converted && value >= 0) {
    return static_cast<int32_t>(value);
  }
  if (!converted && (text == "all" || text == "ALL")) {
    return 0;
  }
  VORN_LOG(4) << "Invalid value specified for number of nodelist permutations"
              << " in " << path << ". Valid values are positive integers,"
              << " they keyword 'all', or the number 0 to represent all";
  return current;
}
