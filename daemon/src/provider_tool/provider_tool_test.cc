// Black-box tests of the vorn-provider tool.

#include <gtest/gtest.h>

#include "tests/support/test_support.h"

namespace {

using namespace vorn::test;

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
    int status = p.wait_exit(milliseconds(30000));
    return {status, p.out(), p.err()};
  }

  // A provider or daemon configuration file: `body` in a configuration element.
  std::string xml_file(const std::string& name, const std::string& body) {
    std::string path = dir_ / name;
    write_file(path, "<configuration>" + body + "</configuration>");
    return path;
  }

  TempDir dir_;
};

TEST_F(ProviderToolTest, CheckPrintsEveryElementAndFailsOnAnyRejection) {
  // A uniform cluster may ask for one architecture (this machine's).
  std::string every =
      xml_file("every.xml",
               "<command>uptime</command><period>30.9</period><priority>5</priority>"
               "<loadavg>0.5</loadavg><max_nodes>4</max_nodes><min_nodes>2</min_nodes>"
               "<adhoc_cluster_invite_time>7</adhoc_cluster_invite_time><version>3</version>"
               "<encoding>base64</encoding><architecture cluster=\"uniform\">X86_64</architecture>"
               "<role>head</role><role>login</role><timeout scale=\"squared\">30</timeout>"
               "<nodelist method=\"round_robin\" number=\"all\"/>");
  Outcome ok = tool({"check", every});
  EXPECT_EQ(ok.status, 0) << ok.err;
  EXPECT_EQ(ok.out, every +
                        "\n  name:         every\n"
                        "  command:      uptime\n"
                        "  period:       30 s\n"
                        "  loadavg:      0.5\n"
                        "  timeout:      30 s, squared (a run without a node file gets 60 s)\n"
                        "  nodes:        2 to 4, invitations open 7 s\n"
                        "  architecture: x86_64, cluster uniform\n"
                        "  encoding:     base64\n"
                        "  nodelist:     ROUND_ROBIN, 0\n"
                        "  roles:        head login\n"
                        "  priority:     5\n"
                        "  version:      3\n"
                        "  disabled:     no\n");

  std::string bad = xml_file("bad.xml", "<min_nodes>4</min_nodes><max_nodes>2</max_nodes>");
  std::string elsewhere = xml_file("elsewhere.xml", "<architecture>p9ux</architecture>");
  Outcome mixed = tool({"check", every, bad, elsewhere});
  EXPECT_EQ(mixed.status, 1);
  EXPECT_EQ(mixed.out, ok.out);
  EXPECT_NE(mixed.err.find("Error reading provider configuration '" + bad + "'"),
            std::string::npos);
  EXPECT_NE(
      mixed.err.find(elsewhere + ": accepted, but this machine's architecture may not run it"),
      std::string::npos);
}

TEST_F(ProviderToolTest, RunOncePerOptionSetAndShowTheOutput) {
  std::string cfg =
      xml_file("vornd.xml", "<enable_discovery>false</enable_discovery><provider_output_dir>" +
                                (dir_ / "out") +
                                "</provider_output_dir><provider><PROBE><optionset id=\"a\">"
                                "<x>1</x></optionset><optionset id=\"b\"><x>2</x></optionset>"
                                "<c>3</c></PROBE></provider>");
  std::string upper = xml_file(
      "PROBE.xml", "<command>sh -c 'echo $VORN_PROVIDER_PROBE_X$VORN_PROVIDER_PROBE_C'</command>");
  Outcome both = tool({"run", upper, "-c", cfg});
  ASSERT_EQ(both.status, 0) << both.err;
  for (std::string part : {"OptionID: a\nversion: 1\nstdout (3 bytes): \n13\n",
                           "OptionID: b\nversion: 1\nstdout (3 bytes): \n23\n", "out/PROBE."}) {
    EXPECT_NE(both.out.find(part), std::string::npos) << part << "\n" << both.out;
  }

  Outcome one = tool({"run", "-c", cfg, "-s", "b", upper, "-o", dir_ / "elsewhere"});
  ASSERT_EQ(one.status, 0) << one.err;
  EXPECT_EQ(one.out.find("OptionID: a"), std::string::npos);
  EXPECT_NE(one.out.find(dir_ / "elsewhere/PROBE."), std::string::npos);

  Outcome missing = tool({"run", upper, "-c", cfg, "-s", "zzz"});
  EXPECT_EQ(missing.status, 1);
  EXPECT_NE(missing.err.find("Provider 'PROBE' has no option set 'zzz'"), std::string::npos);

  // The lookup uses the name as it stands: a lower-case file finds no sets.
  std::string lower = xml_file("probe.xml", "<command>printf plain; exit 2</command>");
  Outcome none = tool({"run", lower, "-c", cfg});
  ASSERT_EQ(none.status, 0) << none.err;
  // The API field as a number, not its raw byte.
  EXPECT_NE(none.out.find("Exit status: 2\nEncoding: 0\nAPI: 1\nOptionID: None\n"),
            std::string::npos)
      << none.out;

  // `show` prints an output file as `run` did, and refuses a cut one.
  std::string output_file = none.out.substr(0, none.out.find('\n'));
  Outcome shown = tool({"show", output_file});
  EXPECT_EQ(shown.status, 0);
  EXPECT_EQ(shown.out, none.out.substr(output_file.size() + 1));
  std::string bytes = read_file(output_file);
  write_file(dir_ / "cut", bytes.substr(0, bytes.size() - 1));
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
