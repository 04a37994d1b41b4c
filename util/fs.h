#pragma once
// Path helpers.
//
// selfpath and abspath only read process state; make_path creates directories
// through the shell and is meant for the main thread during start-up and for
// the provider runner's own thread.

#include <string>

namespace vorn::fs {

// Absolute path of the running executable, or "" when the system cannot tell.
std::string selfpath();

// The path made absolute against the current directory; no "." or ".."
// component is removed. An absolute path is returned unchanged.
std::string abspath(const std::string& path);

// Makes sure `path` exists as a writable directory. An existing path must be
// writable by this process (logged otherwise); a missing one is created with
// "mkdir -p" run by the shell, with the path unquoted: a path with blanks or
// shell syntax makes the shell see several words, so such paths are not
// supported.
bool make_path(const std::string& path);

}  // namespace vorn::fs
