// Fuzz target: read_node_file on arbitrary bytes as a node file, and
// check_node_requirements of a cluster provider that is given that file, as
// a multi-node run reads it.
//
// Input: the file's content, written before each call to a file in the
// process's scratch directory. Seeds in nodes_fuzz_corpus/: nodes with
// roles and comments, unknown roles, blank and comment-only lines (no node),
// carriage returns and tabs, a name with commas, no final line feed.
//
// Checked besides the sanitizers: a file that is read names at least one
// node; the count is the number of names in the list text (names hold no
// blank, so ", " separates them exactly); the requirement check agrees with
// the count.

#include <climits>
#include <cstdint>
#include <string>

#include "daemon/src/provider/nodes.h"
#include "daemon/src/provider/provider.h"
#include "tests/support/fuzz_support.h"

namespace {

using vorn::fuzz::check;

size_t count_names(const std::string& text) {
  size_t names = 1;
  for (size_t at = text.find(", "); at != std::string::npos; at = text.find(", ", at + 2)) {
    ++names;
  }
  return names;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  vorn::fuzz::quiet_logs();
  static const std::string path = vorn::fuzz::scratch_file("nodes");
  vorn::fuzz::write_file(path, data, size);

  uint16_t count = 0;
  std::string nodes_text;
  const bool read = read_node_file(path, count, nodes_text);
  if (read) {
    check(count >= 1 && !nodes_text.empty(), "a node file names a node");
    check(count == UINT16_MAX || count_names(nodes_text) == count, "the count is the names'");
  }

  provider cluster;
  cluster.name = "fuzz";
  cluster.min_nodes = 2;
  cluster.max_nodes = 3;
  cluster.nodefile = path;
  check(check_node_requirements(cluster) == (read && count >= 2), "enough nodes are enough");
  return 0;
}
