#include "util/str.h"

#include <gtest/gtest.h>

#include <cstdlib>

namespace {

using vorn::str::dirname;
using vorn::str::replace;
using vorn::str::strip;

TEST(StrTest, Strip) {
  struct Row {
    const char* in;
    const char* chars;
    const char* want;
  } rows[] = {
      {"  a b \t\n", "", "a b"},  // default set: surrounding white space only
      {"\r\f\va\v", "", "a"},     // every kind of white space
      {"   ", "", ""},            // nothing but white space
      {"", "", ""},               // empty input
      {"xxaxx", "x", "a"},        // explicit set replaces the default
      {" a ", "x", " a "},        // explicit set keeps blanks
  };
  for (const Row& r : rows) {
    EXPECT_EQ(strip(r.in, r.chars), r.want) << "input '" << r.in << "'";
  }
}

TEST(StrTest, Dirname) {
  struct Row {
    const char* in;
    const char* want;
  } rows[] = {
      {"/var/run/vorn.pid", "/var/run"},  // ordinary path
      {"vorn.pid", "."},                  // bare file name
      {"/vorn.pid", "/"},                 // file in the root
      {"a/b/", "a"},                      // trailing slash
      {"a//b", "a"},                      // doubled slash
      {"/", "/"},                         // root itself
      {"", "."},                          // empty path
  };
  for (const Row& r : rows) {
    EXPECT_EQ(dirname(r.in), r.want) << "input '" << r.in << "'";
  }
}

TEST(StrTest, Replace) {
  struct Row {
    const char* in;
    const char* from;
    const char* to;
    const char* want;
  } rows[] = {
      {"probe %P%/x", "%P%", "/opt/aux", "probe /opt/aux/x"},  // one occurrence
      {"%P% %P%", "%P%", "a", "a a"},                          // every occurrence
      {"no placeholder", "%P%", "a", "no placeholder"},        // none
      {"aaa", "a", "aa", "aaaaaa"},                            // replacement is not rescanned
      {"abc", "", "x", "abc"},                                 // empty pattern
  };
  for (const Row& r : rows) {
    EXPECT_EQ(replace(r.in, r.from, r.to), r.want) << "input '" << r.in << "'";
  }
}

TEST(StrTest, Wordexp) {
  setenv("VORN_TEST_DIR", "/data/vorn", 1);
  const std::string home = std::getenv("HOME");
  struct Row {
    std::string in;
    std::string want;
  } rows[] = {
      {"~/out", home + "/out"},                // home directory
      {"$VORN_TEST_DIR/db", "/data/vorn/db"},  // variable
      {"${VORN_TEST_DIR}x", "/data/vornx"},    // braced variable
      {"/plain/path", "/plain/path"},          // nothing to expand
      {"$(touch /tmp/x)", "$(touch /tmp/x)"},  // commands are never run
      {"a;b", "a;b"},                          // shell operators: unchanged
      {"\"unbalanced", "\"unbalanced"},        // syntax error: unchanged
      {"", ""},                                // empty
  };
  for (const Row& r : rows) {
    EXPECT_EQ(vorn::str::wordexp(r.in), r.want) << "input '" << r.in << "'";
  }
}

}  // namespace
