// Fuzz target: read_config on arbitrary bytes as the configuration file.
//
// Input: the file's content, written to a file in the process's scratch
// directory before each call. read_config itself creates nothing (the
// daemons make their directories later, at start-up), but its path keys go
// through wordexp(3), and "${NAME=value}" there assigns NAME in the process's
// environment; the environment is put back after each input so that one input
// cannot change how the next one is read. Seeds in config_fuzz_corpus/: the
// shipped etc/vornd.xml, every key with a value it refuses, duplicates and
// provider option sets, paths with variables and shell syntax, a file that
// is not XML.
//
// Checked besides the sanitizers: the result is 0, an error number or -1;
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

// The environment as the process started, and a quick test of whether an
// input changed it.
class Environment {
 public:
  Environment() {
    for (char** entry = environ; entry != nullptr && *entry != nullptr; ++entry) {
      saved_.emplace_back(*entry);
    }
    restore();
  }
  Environment(const Environment&) = delete;
  Environment& operator=(const Environment&) = delete;

  void restore_if_changed() {
    if (current() != entries_) {
      restore();
    }
  }

 private:
  // The entry pointers change with every setenv, so comparing them is enough.
  static std::vector<char*> current() {
    std::vector<char*> out;
    for (char** entry = environ; entry != nullptr && *entry != nullptr; ++entry) {
      out.push_back(*entry);
    }
    return out;
  }

  void restore() {
    ::clearenv();
    for (std::string& entry : saved_) {
      ::putenv(entry.data());  // the strings live as long as the process
    }
    entries_ = current();
  }

  std::vector<std::string> saved_;
  std::vector<char*> entries_;
};

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
  static Environment environment;
  vorn::fuzz::write_file(path, data, size);

  daemon_config config;
  const int rc = read_config(config, path.c_str());
  environment.restore_if_changed();

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
