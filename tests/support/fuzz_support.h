#pragma once
// Helpers shared by the fuzz targets (the *_fuzz.cc files beside the code they
// exercise). Each target defines LLVMFuzzerTestOneInput; it is linked either
// with libFuzzer (cmake -DVORN_FUZZ=ON, clang) or with fuzz_replay.cc, which
// feeds it the committed corpus as an ordinary test.
//
// Thread safety: none needed; libFuzzer and the replay call a target from one
// thread, one input at a time.

#include <cstddef>
#include <cstdint>
#include <string>

namespace vorn::fuzz {

// Silences the daemon's log records, which would otherwise print on every
// input: thousands of lines a second. VORN_FUZZ_LOG=1 in the environment keeps
// them, for reading what a crashing input did.
void quiet_logs();

// A failed property of the code under test: printed, then abort(), which
// libFuzzer and the replay both report as a crash of this input.
void check(bool ok, const char* what);

// The path of a file named `name` in a directory of this process's own under
// $TMPDIR (or /tmp). The directory and the files named through here are
// removed when the process exits normally.
std::string scratch_file(const char* name);

// Replaces the file's content by the input (mode 0600); aborts when that is
// impossible, since no input could be tested then.
void write_file(const std::string& path, const uint8_t* data, size_t size);

}  // namespace vorn::fuzz
