#include "util/node.h"

#include <gtest/gtest.h>

#include <sstream>

namespace {

std::vector<std::string> names(const vorn::node::Nodelist& list) {
  std::vector<std::string> out;
  for (const auto& node : list.nodes()) {
    out.push_back(node.name);
  }
  return out;
}

TEST(NodelistTest, Parse) {
  struct Row {
    const char* text;
    std::vector<std::string> want;
  } rows[] = {
      {"alpha\nbeta\ngamma\n", {"alpha", "beta", "gamma"}},  // file order kept
      {"# header\n\n  \nalpha # trailing\n", {"alpha"}},     // comments and blank lines
      {"alpha\nalpha", {"alpha", "alpha"}},                  // duplicates are two entries
      {"  alpha compute  head\n", {"alpha"}},                // roles after the name
      {"n1 wizard\n", {"n1"}},                               // unknown role keeps the node
      {"", {}},                                              // empty file
      {"#only\n", {}},                                       // only a comment
  };
  for (const Row& r : rows) {
    vorn::node::Nodelist list;
    std::istringstream in(r.text);
    EXPECT_TRUE(list.parse(in));
    EXPECT_EQ(names(list), r.want) << "text '" << r.text << "'";
  }
}

TEST(NodelistTest, RolesAreNumbered) {
  vorn::node::Nodelist list;
  std::istringstream in("alpha monitor compute bogus\n");
  ASSERT_TRUE(list.parse(in));
  ASSERT_EQ(list.size(), 1u);
  EXPECT_EQ(list.nodes()[0].roles, (std::set<int>{0, 8}));
  EXPECT_EQ(vorn::node::role_str_map.size(), 9u);
  for (const auto& [name, number] : vorn::node::role_str_map) {
    EXPECT_EQ(vorn::node::role_name(number), name);
  }
  EXPECT_EQ(vorn::node::role_name(9), "");
}

}  // namespace
