// README.md read as a new user reads it: its commands run as they stand
// against `make run`'s demo, and its Prometheus files checked by promtool.

#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <optional>
#include <regex>

#include "tests/support/test_support.h"

namespace {

using std::chrono::milliseconds;
using namespace vorn::test;

const std::string kSourceDir = VORN_SOURCE_DIR;
const std::string kBuildDir = VORN_BUILD_DIR;

// The body of the README's fenced block whose first line starts with
// `first_line`, without its fences.
std::optional<std::string> readme_block(const std::string& first_line) {
  const std::string readme = read_file(kSourceDir + "/README.md");
  size_t at = 0;
  while ((at = readme.find("\n```", at)) != std::string::npos) {
    size_t body = readme.find('\n', at + 1);
    if (body == std::string::npos) {
      break;
    }
    ++body;
    size_t end = readme.find("\n```", body - 1);
    if (end == std::string::npos) {
      break;
    }
    if (readme.compare(body, first_line.size(), first_line) == 0) {
      return readme.substr(body, end + 1 - body);
    }
    at = end + 4;
  }
  return std::nullopt;
}

bool have(const std::string& program) {
  return std::system(("command -v " + program + " >/dev/null 2>&1").c_str()) == 0;
}

// `make run &`: the demo script on this build tree, stopped as Ctrl-C would
// stop it so that its daemons go with it, whatever the test's outcome.
class Demo {
 public:
  explicit Demo(const std::string& log_dir)
      : process_(
            {"bash", "-c", "cd '" + kSourceDir + "' && exec tools/demo.sh '" + kBuildDir + "'"},
            log_dir) {}
  Demo(const Demo&) = delete;
  Demo& operator=(const Demo&) = delete;
  ~Demo() {
    process_.send_signal(SIGTERM);
    process_.wait_exit(milliseconds(30000));
  }
  Process& process() { return process_; }

 private:
  Process process_;
};

TEST(Readme, SendingResultsCommandsWorkAgainstTheDemo) {
  auto block = readme_block("make run &");
  ASSERT_TRUE(block) << "no block starting with 'make run &' in README.md";
  // Every line but `make run &` itself, run from a directory whose build/
  // is this build tree, as the README's relative paths expect.
  std::string script = "set -euo pipefail\n";
  std::istringstream lines(*block);
  for (std::string line; std::getline(lines, line);) {
    if (line.rfind("make run", 0) != 0) {
      script += line + "\n";
    }
  }
  TempDir dir;
  ASSERT_EQ(::symlink(kBuildDir.c_str(), (dir / "build").c_str()), 0);
  write_file(dir / "commands.sh", script);

  Demo demo(dir.path());
  ASSERT_TRUE(wait_until(
      [&] {
        std::string out = demo.process().out();
        return out.find("Status page:") != std::string::npos ||
               out.find("vorn serve did not start") != std::string::npos;
      },
      milliseconds(60000)))
      << "the demo never said it was running";
  ASSERT_NE(demo.process().out().find("Status page: http://"), std::string::npos);

  Process commands({"bash", "-c", "cd '" + dir.path() + "' && exec bash commands.sh"}, dir.path());
  ASSERT_EQ(commands.wait_exit(milliseconds(60000)), 0) << script;
  const std::string out = commands.out();
  struct Row {
    const char* comment;
    const char* pattern;
  } rows[] = {
      {"vorn latest lists the piped result", "(^|\n)[0-9]+\tuptime\t"},
      {"and the one read from a file", "(^|\n)[0-9]+\tkernel\t"},
      {"sqlite3 shows the stored output", "\\|kernel\\|[^|]*\\|[^|]*\\|Linux version "},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.comment);
    EXPECT_TRUE(std::regex_search(out, std::regex(row.pattern))) << out;
  }
}

TEST(Readme, PrometheusFilesPassPromtool) {
  if (!have("promtool")) {
    GTEST_SKIP() << "promtool is not installed (Debian's package prometheus)";
  }
  auto config = readme_block("# prometheus.yml");
  auto rules = readme_block("# rules/vorn.yml");
  ASSERT_TRUE(config) << "no block starting with '# prometheus.yml' in README.md";
  ASSERT_TRUE(rules) << "no block starting with '# rules/vorn.yml' in README.md";
  TempDir dir;
  ASSERT_EQ(::mkdir((dir / "rules").c_str(), 0755), 0);
  write_file(dir / "prometheus.yml", *config);
  write_file(dir / "rules/vorn.yml", *rules);

  // check config also reads the rule files that rule_files names.
  Process check({"promtool", "check", "config", dir / "prometheus.yml"}, dir.path());
  ASSERT_EQ(check.wait_exit(milliseconds(60000)), 0) << check.out() << check.err();
  const std::string said = check.out() + check.err();
  EXPECT_NE(said.find("1 rule files found"), std::string::npos) << said;
  EXPECT_NE(said.find("4 rules found"), std::string::npos) << said;
}

}  // namespace
