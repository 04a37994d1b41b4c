// Fuzz target: check_provider_file (and so parse_provider_config_xml) on
// arbitrary bytes as a provider file, as `vorn-provider check` and the node
// daemon read one.
//
// Input: the file's content, written before each call to "fuzz.xml" in the
// process's scratch directory (owned by the user running the target, mode
// 0600, so the ownership and mode checks pass and the parser is reached).
// Seeds in provider_fuzz_corpus/: the shipped sysinfo provider, a cluster
// provider with roles and a node-list method, every element with a value it
// refuses, duplicates and impossible node counts, a file that is not XML.
//
// Checked besides the sanitizers: the result is 0, -1 or -4; an accepted
// record keeps the limits the parser promises (command and name lengths, a
// possible node count, known roles and enumeration values, a non-negative
// permutation count), and its scaled time-out is never below 60 seconds.

#include <cstdint>
#include <string>

#include "daemon/src/config/config.h"
#include "daemon/src/provider/provider.h"
#include "daemon/src/provider/run.h"
#include "tests/support/fuzz_support.h"

namespace {

using vorn::fuzz::check;

template <typename Enum>
bool named(const std::map<std::string, Enum>& names, Enum value) {
  for (const auto& entry : names) {
    if (entry.second == value) {
      return true;
    }
  }
  return false;
}

void check_record(const provider& p, const daemon_config& settings) {
  check(p.name == "fuzz", "the name comes from the file name");
  check(p.command.size() <= kProviderCommandMax, "the command is cut at its limit");
  check(p.min_nodes <= p.max_nodes, "an accepted cluster is possible");
  check(!p.roles.empty(), "a provider concerns some roles");
  for (int role : p.roles) {
    check(role >= 0 && role <= 8, "roles are known");
  }
  check(named(provider_encoding_names, p.encoding), "the encoding is a known one");
  check(named(provider_architecture_names, p.architecture), "the architecture is a known one");
  check(named(cluster_kind_names, p.cluster), "the cluster kind is a known one");
  check(named(nodelist_method_names, p.nodelist_method), "the node-list method is a known one");
  check(named(timeout_scale_names, p.timeout_scale), "the time-out scale is a known one");
  check(p.nodelist_number >= 0, "the permutation count is not negative");
  for (int nodes : {0, 1, static_cast<int>(p.min_nodes), static_cast<int>(p.max_nodes)}) {
    check(scale_timeout(p.timeout, nodes, p.timeout_scale) >= 60, "a run gets 60 s at least");
  }
  const std::string line = provider_command_line(p, settings, "", 60);
  check(line.rfind("VORN_TIMEOUT=60 ", 0) == 0, "the command line starts with the time-out");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  vorn::fuzz::quiet_logs();
  static const std::string path = vorn::fuzz::scratch_file("fuzz.xml");
  static const daemon_config settings;
  vorn::fuzz::write_file(path, data, size);

  provider record;
  const int rc = check_provider_file(path.c_str(), settings, record);
  check(rc == 0 || rc == -1 || rc == -4, "check_provider_file returns 0, -1 or -4");
  if (rc != -1) {
    check_record(record, settings);
  }
  return 0;
}
