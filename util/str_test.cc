#include "util/str.h"

#include <gtest/gtest.h>

#include <cstdlib>

namespace {

using namespace vorn::str;

TEST(StrTest, Table) {
  setenv("VORN_TEST_DIR", "/data/vorn", 1);
  const std::string home = std::getenv("HOME");
  struct Row {
    std::string got;
    std::string want;
  } rows[] = {
      {strip("  a b \t\n"), "a b"},                     // surrounding white space only
      {strip("\r\f\va\v"), "a"},                        // every kind of white space
      {strip("   "), ""},                               // nothing but white space
      {strip("xxaxx", "x"), "a"},                       // an explicit set replaces the default
      {strip(" a ", "x"), " a "},                       // an explicit set keeps blanks
      {dirname("/var/run/vorn.pid"), "/var/run"},       // ordinary path
      {dirname("vorn.pid"), "."},                       // bare file name
      {dirname("/vorn.pid"), "/"},                      // file in the root
      {dirname("a/b/"), "a"},                           // trailing slash
      {dirname("a//b"), "a"},                           // doubled slash
      {dirname("/"), "/"},                              // root itself
      {dirname(""), "."},                               // empty path
      {replace("%P% x %P%", "%P%", "/a"), "/a x /a"},   // every occurrence
      {replace("aaa", "a", "aa"), "aaaaaa"},            // replaced text is not rescanned
      {replace("abc", "", "x"), "abc"},                 // empty pattern
      {wordexp("~/out"), home + "/out"},                // home directory
      {wordexp("$VORN_TEST_DIR/db"), "/data/vorn/db"},  // variable
      {wordexp("${VORN_TEST_DIR}x"), "/data/vornx"},    // braced variable
      {wordexp("$(touch /tmp/x)"), "$(touch /tmp/x)"},  // commands are never run
      {wordexp("a;b"), "a;b"},                          // shell operators: unchanged
      {wordexp("\"unbalanced"), "\"unbalanced"},        // syntax error: unchanged
      {wordexp("$(())"), "$(())"},                      // arithmetic: unchanged (crashed glibc)
      {wordexp("${VORN_UNSET:?}"), "${VORN_UNSET:?}"},  // operators: unchanged (crashed glibc)
      {wordexp(""), ""},                                // empty
      {printable("node7"), "node7"},                    // ordinary text unchanged
      {printable("a\nb\rc"), "a\\x0ab\\x0dc"},           // no new line can be forged
      {printable(std::string("\0\x1b[2J\x7f", 6)), "\\x00\\x1b[2J\\x7f"},  // NUL, escapes, DEL
      {printable("C:\\x0a"), "C:\\\\x0a"},                // a backslash cannot fake an escape
      {printable("kn\xc3\xb6" "del"), "kn\xc3\xb6" "del"},      // UTF-8 stays
  };
  for (size_t i = 0; i < std::size(rows); ++i) {
    EXPECT_EQ(rows[i].got, rows[i].want) << "row " << i;
  }
}

}  // namespace
