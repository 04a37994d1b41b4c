#pragma once
// String helpers shared by every module of the daemon.
//
// All functions are pure except wordexp and try_wordexp, which read the
// environment; they may be called from any thread (those two only from one
// thread at a time, as the C library's wordexp is not reentrant).

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>

namespace vorn::str {

// Removes leading and trailing characters found in `chars`; an empty set means
// white space (blank, tab, line feed, carriage return, form feed, vertical tab).
std::string strip(std::string_view text, std::string_view chars = {});

// ASCII upper case; other bytes are left alone.
std::string upper(std::string_view text);

// Directory part of a path with POSIX dirname(3) semantics: "a/b" -> "a",
// "a" -> ".", "/a" -> "/", "a/b/" -> "a", "" -> ".".
std::string dirname(std::string_view path);

// Every occurrence of `from`, left to right and without rescanning replaced
// text, becomes `to`. An empty `from` leaves the text unchanged.
std::string replace(std::string_view text, std::string_view from, std::string_view to);

// Shell-style expansion as wordexp(3) does it ("~", "$VAR", "${VAR}", globs).
// Of the "$" forms only "$NAME" and "${NAME}" are expanded: text holding any
// other (command substitution, arithmetic, "${NAME:-word}" and the rest of
// that family, on some of which glibc's wordexp crashes) cannot be expanded,
// nor can text with unbalanced quotes, "|", ";" or other shell operators.
// try_wordexp gives no value for such text, wordexp returns it unchanged.
// Several resulting words are joined by one blank.
std::optional<std::string> try_wordexp(std::string_view text);
std::string wordexp(std::string_view text);

// Text from outside (the network, a file) made safe for one log line:
// control characters and the backslash become "\xNN" and "\\", so that no
// line can be forged or cut. Other bytes stay as they are.
std::string printable(std::string_view text);

// Copies `text` into the fixed buffer and always terminates it; at most
// size - 1 bytes are kept.
void copy(char* buffer, std::size_t size, std::string_view text);

template <std::size_t N>
void copy(char (&buffer)[N], std::string_view text) {
  copy(buffer, N, text);
}

}  // namespace vorn::str
