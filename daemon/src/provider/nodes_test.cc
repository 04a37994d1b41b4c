#include "daemon/src/provider/nodes.h"

#include <gtest/gtest.h>

#include <cstdio>

#include "daemon/src/provider/provider.h"
#include "tests/support/test_support.h"

namespace {

TEST(NodeFileTest, NodeRequirements) {
  vorn::test::TempDir dir;
  const std::string unreadable = "Unable to read node file for data provider 'p'\n";
  struct Row {
    uint16_t min_nodes;
    std::string nodefile;  // the file's text; "" for no file, "-" for a missing one
    bool want;
    std::string log;
  } rows[] = {
      {1, "", true, ""},  // single-node providers need no file
      {2, "", false, "No nodelist provided for a data provider that requires a cluster: 'p'\n"},
      {2, "a\n# b\n\n", false,  // comments and blank lines are no nodes
       "Minimum number of nodes required to run data provider 'p' not met.\n"},
      {2, "a\nb compute\nd\n", true, ""},
      {2, "a\nb\nc\nd\ne\n", true,  // too many nodes still run
       "Node file contains more nodes than required by the data provider: 'p'\n"},
      {2, "# nobody\n\n", false, unreadable},
      {2, "-", false, unreadable},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.nodefile);
    provider p;
    p.name = "p";
    p.min_nodes = row.min_nodes;
    p.max_nodes = 4;
    if (!row.nodefile.empty()) {
      p.nodefile = dir / "nodes";
      std::remove(p.nodefile.c_str());
      if (row.nodefile != "-") {
        vorn::test::write_file(p.nodefile, row.nodefile);
      }
    }
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
    EXPECT_EQ(testing::internal::GetCapturedStderr().empty(), row.want != 9) << row.text;
  }
}

}  // namespace
