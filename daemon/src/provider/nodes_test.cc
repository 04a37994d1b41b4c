#include "daemon/src/provider/nodes.h"

#include <gtest/gtest.h>

#include "daemon/src/provider/provider.h"
#include "tests/support/test_support.h"

namespace {

TEST(NodeFileTest, ReadNodeFile) {
  vorn::test::TempDir dir;
  vorn::test::write_file(dir / "three", "alpha\nbeta compute\n# gone\n\ngamma\n");
  vorn::test::write_file(dir / "empty", "# nobody\n\n");
  uint16_t count = 0;
  std::string text;
  ASSERT_TRUE(read_node_file(dir / "three", count, text));
  EXPECT_EQ(count, 3);
  EXPECT_EQ(text, "alpha, beta, gamma");
  EXPECT_FALSE(read_node_file(dir / "empty", count, text));
  EXPECT_FALSE(read_node_file(dir / "missing", count, text));
}

TEST(NodeFileTest, NodeRequirements) {
  vorn::test::TempDir dir;
  std::string nodes[6];
  for (int n = 1; n <= 5; ++n) {
    std::string body;
    for (int i = 0; i < n; ++i) {
      body += "node" + std::to_string(i) + "\n";
    }
    nodes[n] = dir / ("n" + std::to_string(n));
    vorn::test::write_file(nodes[n], body);
  }
  struct Row {
    const char* comment;
    uint16_t min_nodes;
    std::string nodefile;
    bool want;
    std::string log;
  } rows[] = {
      {"single-node providers need no file", 1, "", true, ""},
      {"a cluster provider without a file", 2, "", false,
       "No nodelist provided for a data provider that requires a cluster: 'p'\n"},
      {"too few nodes", 2, nodes[1], false,
       "Minimum number of nodes required to run data provider 'p' not met.\n"},
      {"enough nodes", 2, nodes[3], true, ""},
      {"too many nodes still run", 2, nodes[5], true,
       "Node file contains more nodes than required by the data provider: 'p'\n"},
      {"an unreadable file", 2, dir / "missing", false,
       "Unable to read node file for data provider 'p'\n"},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.comment);
    provider p;
    p.name = "p";
    p.min_nodes = row.min_nodes;
    p.max_nodes = 4;
    p.nodefile = row.nodefile;
    testing::internal::CaptureStderr();
    EXPECT_EQ(check_node_requirements(p), row.want);
    EXPECT_EQ(testing::internal::GetCapturedStderr(), row.log);
  }
}

TEST(NodeFileTest, PermutationCount) {
  struct Row {
    const char* text;
    int32_t want;  // with 9 as the current value
  } rows[] = {
      {"3", 3},            // a count
      {"0", 0},            // 0 means all
      {"all", 0},          // the keyword
      {"ALL", 0},          // in upper case
      {"All", 9},          // mixed case is not the keyword
      {"-2", 9},           // negative
      {" 7x", 7},          // blanks before, rubbish after
      {"99999999999", 9},  // beyond 32 bits
      {"", 9},             // nothing
  };
  for (const Row& row : rows) {
    testing::internal::CaptureStderr();
    EXPECT_EQ(nodelist_permutation_count(row.text, 9, "/p.xml"), row.want) << row.text;
    std::string log = testing::internal::GetCapturedStderr();
    EXPECT_EQ(log.empty(), row.want != 9) << row.text;
  }
}

}  // namespace
