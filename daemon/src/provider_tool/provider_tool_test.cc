// Black-box tests of the vorn-provider tool.

#include <gtest/gtest.h>

#include "tests/support/test_support.h"

namespace {

using vorn::test::Process;
using vorn::test::TempDir;

class ProviderToolTest : public testing::Test {
 protected:
  struct Outcome {
    int status;
    std::string out;
    std::string err;
  };

  Outcome tool(std::vector<std::string> args) {
    args.insert(args.begin(), VORN_PROVIDER_PATH);
    Process p(args, dir_.path());
    int status = p.wait_exit(vorn::test::milliseconds(30000));
    return {status, p.out(), p.err()};
  }

  std::string provider_file(const std::string& name, const std::string& body) {
    std::string path = dir_ / name;
    vorn::test::write_file(path, "<configuration>" + body + "</configuration>");
    return path;
  }

  std::string config(const std::string& keys = "") {
    std::string path = dir_ / "vornd.xml";
    vorn::test::write_file(path, vorn::test::config_xml("<provider_output_dir>" + (dir_ / "out") +
                                                        "</provider_output_dir>" + keys));
    return path;
  }

  TempDir dir_;
};

TEST_F(ProviderToolTest, CheckPrintsAcceptedProvidersAndFailsOnAnyRejection) {
  std::string good = provider_file("uptime.xml",
                                   "<command>uptime</command><period>120</period>"
                                   "<timeout scale=\"linear\">30</timeout>");
  Outcome ok = tool({"check", good});
  EXPECT_EQ(ok.status, 0) << ok.err;
  for (const char* line :
       {"  name:         uptime", "  command:      uptime", "  period:       120 s",
        "  timeout:      30 s, linear", "  architecture: any, cluster any", "  disabled:     no"}) {
    EXPECT_NE(ok.out.find(line), std::string::npos) << line << "\n" << ok.out;
  }

  std::string bad = provider_file("bad.xml", "<min_nodes>4</min_nodes><max_nodes>2</max_nodes>");
  std::string elsewhere = provider_file("elsewhere.xml", "<architecture>p9ux</architecture>");
  vorn::test::write_file(dir_ / "empty.xml", "");
  Outcome mixed = tool({"check", good, bad, elsewhere, dir_ / "empty.xml"});
  EXPECT_EQ(mixed.status, 1);
  EXPECT_NE(mixed.out.find("  name:         uptime"), std::string::npos);
  EXPECT_NE(mixed.err.find("Can not create cluster with a minimum of 4 and maximum of 2 nodes"),
            std::string::npos);
  EXPECT_NE(mixed.err.find("this machine's architecture may not run it"), std::string::npos);
  EXPECT_NE(mixed.err.find("xml parse error: '" + (dir_ / "empty.xml") + "'"), std::string::npos);
}

TEST_F(ProviderToolTest, RunOncePerOptionSet) {
  std::string cfg = config(
      "<provider><PROBE><optionset id=\"a\"><x>1</x></optionset>"
      "<optionset id=\"b\"><x>2</x></optionset><c>3</c></PROBE></provider>");
  std::string upper = provider_file(
      "PROBE.xml", "<command>sh -c 'echo $VORN_PROVIDER_PROBE_X$VORN_PROVIDER_PROBE_C'</command>");
  Outcome both = tool({"run", upper, "-c", cfg});
  ASSERT_EQ(both.status, 0) << both.err;
  EXPECT_NE(both.out.find("OptionID: a\nversion: 1\nstdout (3 bytes): \n13\n"), std::string::npos)
      << both.out;
  EXPECT_NE(both.out.find("OptionID: b\nversion: 1\nstdout (3 bytes): \n23\n"), std::string::npos);
  EXPECT_NE(both.out.find(dir_ / "out/PROBE."), std::string::npos);

  Outcome one = tool({"run", "-c", cfg, "-s", "b", upper, "-o", dir_ / "elsewhere"});
  ASSERT_EQ(one.status, 0) << one.err;
  EXPECT_EQ(one.out.find("OptionID: a"), std::string::npos);
  EXPECT_NE(one.out.find(dir_ / "elsewhere/PROBE."), std::string::npos);

  Outcome missing = tool({"run", upper, "-c", cfg, "-s", "zzz"});
  EXPECT_EQ(missing.status, 1);
  EXPECT_NE(missing.err.find("Provider 'PROBE' has no option set 'zzz'"), std::string::npos);

  // The lookup uses the name as it stands: a lower-case file finds no sets.
  std::string lower = provider_file("probe.xml", "<command>echo plain</command>");
  Outcome none = tool({"run", lower, "-c", cfg});
  ASSERT_EQ(none.status, 0) << none.err;
  EXPECT_NE(none.out.find("OptionID: None\n"), std::string::npos);
}

TEST_F(ProviderToolTest, ShowReadsOutputFilesBack) {
  std::string cfg = config();
  std::string file = provider_file("hello.xml", "<command>printf hello; exit 2</command>");
  Outcome ran = tool({"run", file, "-c", cfg});
  ASSERT_EQ(ran.status, 0) << ran.err;
  std::string output_file = ran.out.substr(0, ran.out.find('\n'));
  Outcome shown = tool({"show", output_file});
  EXPECT_EQ(shown.status, 0);
  EXPECT_EQ(shown.out, ran.out.substr(output_file.size() + 1));
  EXPECT_NE(shown.out.find("Exit status: 2\n"), std::string::npos);

  std::string bytes = vorn::test::read_file(output_file);
  vorn::test::write_file(dir_ / "cut", bytes.substr(0, bytes.size() - 1));
  Outcome cut = tool({"show", dir_ / "cut"});
  EXPECT_EQ(cut.status, 1);
  EXPECT_NE(cut.err.find("is shorter than its header says"), std::string::npos);
}

TEST_F(ProviderToolTest, UsageErrors) {
  struct Row {
    std::vector<std::string> args;
    int status;
  } rows[] = {
      {{}, 2},                      // no subcommand
      {{"frobnicate"}, 2},          // unknown subcommand
      {{"run"}, 2},                 // run without a file
      {{"run", "a.xml", "-c"}, 2},  // option without its argument
      {{"check"}, 2},               // check without files
      {{"show"}, 2},                // show without files
      {{"-h"}, 0},                  // help
  };
  for (const Row& row : rows) {
    Outcome o = tool(row.args);
    EXPECT_EQ(o.status, row.status);
    EXPECT_NE((o.out + o.err).find("Usage:"), std::string::npos);
  }
}

}  // namespace
