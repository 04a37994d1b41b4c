#pragma once
// Node files: the list of nodes a multi-node provider runs on.
//
// Syntax: one node per line; "#" starts a comment that runs to the end of the
// line; blank lines are skipped. The first word of a line is the node name,
// further words are role names of role_str_map. An unknown role is logged as a
// warning and the node is kept without it. Nodes keep file order, and a name
// listed twice is two entries.
//
// Thread safety: a Nodelist is a plain value; role_str_map is constant.

#include <istream>
#include <map>
#include <set>
#include <string>
#include <vector>

namespace vorn::node {

// Role names and their numbers 0 to 8.
extern const std::map<std::string, int> role_str_map;

// Name of role number `role`, or "" for a number outside 0 to 8.
std::string role_name(int role);

struct Node {
  std::string name;
  std::set<int> roles;
};

class Nodelist {
 public:
  // Appends the nodes read from `in`; returns false when the stream fails
  // before its end.
  bool parse(std::istream& in);

  const std::vector<Node>& nodes() const { return nodes_; }
  size_t size() const { return nodes_.size(); }
  bool empty() const { return nodes_.empty(); }

 private:
  std::vector<Node> nodes_;
};

}  // namespace vorn::node
