#include "util/node.h"

#include <sstream>

#include "util/log.h"

namespace vorn::node {

namespace {
constexpr const char* kLogSource = "util/node";
constexpr const char* kRoleNames[] = {"compute",   "head",    "login",   "storage", "boot",
                                      "scheduler", "gateway", "service", "monitor"};
}  // namespace

const std::map<std::string, int> role_str_map = {
    {"compute", 0},   {"head", 1},    {"login", 2},   {"storage", 3}, {"boot", 4},
    {"scheduler", 5}, {"gateway", 6}, {"service", 7}, {"monitor", 8},
};

std::string role_name(int role) {
  if (role < 0 || role >= static_cast<int>(std::size(kRoleNames))) {
    return {};
  }
  return kRoleNames[role];
}

bool Nodelist::parse(std::istream& in) {
  std::string line;
  size_t line_number = 0;
  while (std::getline(in, line)) {
    ++line_number;
    line = line.substr(0, line.find('#'));
    std::istringstream words(line);
    Node node;
    if (!(words >> node.name)) {
      continue;
    }
    for (std::string role; words >> role;) {
      auto it = role_str_map.find(role);
      if (it == role_str_map.end()) {
        VORN_LOG(4) << "Unknown role '" << role << "' for node " << node.name << " on line "
                    << line_number << " of the node file";
        continue;
      }
      node.roles.insert(it->second);
    }
    nodes_.push_back(std::move(node));
  }
  return in.eof();
}

}  // namespace vorn::node
