// Fuzz target: read_config on arbitrary bytes as the configuration file.
//
// Input: the file's content, written to a file in the process's scratch
// directory before each call. read_config itself creates nothing (the
// daemons make their directories later, at start-up); its path keys go
// through wordexp(3). Seeds in config_fuzz_corpus/: the shipped
// etc/vornd.xml, every key with a value it refuses, duplicates and provider
// option sets, paths with variables and shell syntax, "$" forms that crashed
// glibc's wordexp, a file that is not XML.
//
// Checked besides the sanitizers: the environment is left as it was (wordexp
// assigns variables on "${NAME:=word}"); the result is 0, an error number or -1;
// fixed-size text fields are terminated; ports, sizes and periods keep the
// ranges the reader promises; an option-set assignment never holds an odd
// number of double quotes, which would break the provider's command line.

#include <unistd.h>

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "daemon/src/config/config.h"
#include "tests/support/fuzz_support.h"

namespace {

using vorn::fuzz::check;

// The environment's entries; setenv and putenv change the array or an entry's
// pointer, so comparing the pointers tells whether an input changed it.
std::vector<const char*> environment() {
  std::vector<const char*> out;
  for (char** entry = environ; entry != nullptr && *entry != nullptr; ++entry) {
    out.push_back(*entry);
  }
  return out;
}

template <size_t N>
bool terminated(const char (&field)[N]) {
  return std::memchr(field, '\0', N) != nullptr;
}

bool is_port(const char* text) {
  char* end = nullptr;
  long port = std::strtol(text, &end, 10);
  return *text != '\0' && *end == '\0' && port >= 1 && port <= 65535;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  vorn::fuzz::quiet_logs();
  static const std::string path = vorn::fuzz::scratch_file("vornd.xml");
  vorn::fuzz::write_file(path, data, size);

  daemon_config config;
  const std::vector<const char*> before = environment();
  const int rc = read_config(config, path.c_str());
  check(environment() == before, "reading a configuration leaves the environment alone");

  check(rc >= -1, "read_config returns 0, an error number or -1");
  check(terminated(config.provider_output_dir) && terminated(config.provider_config_dir) &&
            terminated(config.accumulate_host) && terminated(config.accumulate_port) &&
            terminated(config.accumulate_output_dir) && terminated(config.provider_auxiliary_path),
        "text fields are terminated");
  check(is_port(config.accumulate_port), "accumulate_port is a port");
  check(config.broadcast_port >= 1 && config.broadcast_port <= 65535, "broadcast_port is a port");
  check(config.provider_period >= 0 && config.heartbeat_period >= 0 && config.drain_timeout >= 0,
        "periods are whole numbers");
  check(config.max_message_size >= 1 && config.max_output_size >= 1, "sizes are at least 1");
  for (const auto& provider : config.option_sets) {
    for (const auto& set : provider.second) {
      check(std::count(set.second.begin(), set.second.end(), '"') % 2 == 0,
            "option values stay inside their quotes");
    }
  }
  return 0;
}
