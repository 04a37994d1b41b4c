// Fuzz target: read_output_file on arbitrary bytes as a provider output file,
// as the node's publisher reads every file of its queue directory and
// `vorn-provider show` prints one.
//
// Input: the file's content, written before each call to a file in the
// process's scratch directory. Seeds in output_file_fuzz_corpus/: results
// as a run writes them (outputs and nodes; all empty), a file with bytes
// beyond what its header says, one shorter than its header says, one shorter
// than the header itself, and headers whose sizes would overflow a sum.
//
// Checked besides the sanitizers: a file that is read holds the 456-byte
// header and the three parts with exactly the sizes it gives, byte for byte
// as they lie in the file, and its text form can be made; a file that is
// refused comes with a reason.

#include <cstdint>
#include <string>
#include <string_view>

#include "daemon/src/provider/result.h"
#include "daemon/src/provider/run.h"
#include "tests/support/fuzz_support.h"

namespace {
using vorn::fuzz::check;
}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  vorn::fuzz::quiet_logs();
  static const std::string path = vorn::fuzz::scratch_file("fuzz.AbC123");
  vorn::fuzz::write_file(path, data, size);

  provider_result result;
  std::string error;
  if (!read_output_file(path, result, &error)) {
    check(!error.empty(), "a refused file comes with a reason");
    return 0;
  }
  const result_header& h = result.header;
  check(size >= kResultHeaderSize, "an accepted file holds a header");
  std::string_view rest(reinterpret_cast<const char*>(data) + kResultHeaderSize,
                        size - kResultHeaderSize);
  check(h.stdout_size == result.stdout_data.size() && h.stderr_size == result.stderr_data.size() &&
            h.nodes_size == result.nodes_csv.size(),
        "the parts have the header's sizes");
  check(h.stdout_size <= rest.size() && result.stdout_data == rest.substr(0, h.stdout_size),
        "stdout follows the header");
  rest.remove_prefix(h.stdout_size);
  check(h.stderr_size <= rest.size() && result.stderr_data == rest.substr(0, h.stderr_size),
        "stderr follows stdout");
  rest.remove_prefix(h.stderr_size);
  check(h.nodes_size <= rest.size() && result.nodes_csv == rest.substr(0, h.nodes_size),
        "the nodes follow stderr");
  check(!result_text(result).empty(), "an accepted result has a text form");
  return 0;
}
