// Provider definition files: real files with the modes the tests set. How
// every element is read is checked through `vorn-provider check`.

#include "daemon/src/provider/provider.h"

#include <sys/stat.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <functional>

#include "tests/support/test_support.h"
#include "util/str.h"

namespace {

using namespace vorn::test;

struct Parsed {
  int status;
  provider record;
  std::string log;  // with the file's path as '@'
};

Parsed parse(const std::string& path, const daemon_config& settings = daemon_config()) {
  Parsed out;
  set_provider_defaults(out.record, path);
  testing::internal::CaptureStderr();
  out.status = parse_provider_config_xml(out.record, path.c_str(), settings);
  out.log = testing::internal::GetCapturedStderr();
  for (size_t at; (at = out.log.find(path)) != std::string::npos;) {
    out.log.replace(at, path.size(), "@");
  }
  return out;
}

std::string write_provider(const TempDir& dir, const std::string& name, const std::string& body,
                           int mode = 0644) {
  std::string path = dir / name;
  write_file(path, "<?xml version=\"1.0\"?><configuration>" + body + "</configuration>", mode);
  return path;
}

#define FIELD(f) [](const provider& p) { return text(p.f); }

TEST(ProviderFileTest, DefaultsWarningsAndRejections) {
  daemon_config settings;
  settings.provider_loadavg = 2.5;
  settings.timeout = 90;
  settings.timeout_scale = timeout_scale::linear;
  const std::string rejected = "Error reading provider configuration '@'\n";
  struct Row {
    std::string body;
    std::function<std::string(const provider&)> field;
    std::string want;
    std::string log = "";  // '@' stands for the file's path
    int status = 0;
    int mode = 0644;  // 0: no file at all
  } rows[] = {
      {"", FIELD(loadavg), "2.5"},      // the daemon's limit where the file is silent,
      {"", FIELD(timeout), "90"},       // its time-out
      {"", FIELD(timeout_scale), "1"},  // and its scale
      {"<disable>false</disable>", FIELD(disabled), "true"},  // any disable element disables
      {"<command>" + std::string(300, 'c') + "</command>", FIELD(command), std::string(256, 'c')},
      {"<role>wizard</role>", FIELD(roles.size()), "9",  // only unknown roles give all nine
       "Ignoring invalid role *wizard* specified in provider probe\n"},
      {"<timeout scale=\"cubic\">30</timeout>", FIELD(timeout_scale), "0",
       "Timeout scaling option 'cubic' did not match known options, using default scaling "
       "value\n"},
      {"<architecture>sparc</architecture>", FIELD(architecture), "3",
       "Unknown architecture element in '@'. Using the default instead (Will run on all "
       "architectures)\n"},
      {"<command>a</command><command>b</command>", FIELD(command), "a",
       "Multiple command elements in '@'. Using first one.\n"},
      {"<nodelist method=\"shuffle\"/>", FIELD(nodelist_method), "0",
       "Invalid value for method attribute in '@'. Valid values are: none, rotate_right, "
       "rotate_left, round_robin, random\n"},
      {"<nodelist number=\"-2\"/>", FIELD(nodelist_number), "1",
       "Invalid value specified for number of nodelist permutations in @. Valid values are "
       "positive integers, they keyword 'all', or the number 0 to represent all\n"},
      // Rejected files.
      {"<min_nodes>4</min_nodes><max_nodes>2</max_nodes>", nullptr, "",
       "Can not create cluster with a minimum of 4 and maximum of 2 nodes\n" + rejected, 1},
      {"<architecture cluster=\"any\">x86_64</architecture><min_nodes>2</min_nodes>"
       "<max_nodes>3</max_nodes>",
       nullptr, "",
       "Can not set a specific target architecture for a cluster provider when there are no "
       "specific architecture requirements on the cluster nodes\n" +
           rejected,
       1},
      {"", nullptr, "", "xml file is writable by other users: '@'\n" + rejected, 1, 0664},
      {"<unclosed>", nullptr, "", "xml parse error: '@'\n" + rejected, 1},
      {"", nullptr, "", "Error reading provider configuration '@' (2): No such file or directory\n",
       2, 0},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.body + " " + row.log);
    TempDir dir;
    std::string path =
        row.mode == 0 ? dir / "probe.xml" : write_provider(dir, "probe.xml", row.body, row.mode);
    Parsed got = parse(path, settings);
    EXPECT_EQ(got.status, row.status);
    EXPECT_EQ(got.log, row.log);
    if (row.field) {
      EXPECT_EQ(row.field(got.record), row.want);
    }
  }
}

TEST(ProviderFileTest, OwnerMustBeThisUserOrRoot) {
  if (geteuid() != 0) {
    GTEST_SKIP() << "only root can give a file to another user";
  }
  TempDir dir;
  std::string path = write_provider(dir, "foreign.xml", "<command>true</command>");
  ASSERT_EQ(chown(path.c_str(), 4242, 4242), 0);
  Parsed got = parse(path);
  EXPECT_EQ(got.status, 1);
  EXPECT_NE(got.log.find("xml file is not owned by current user or root: '@'"), std::string::npos);
  daemon_config trusting;
  trusting.run_mode = 1;
  EXPECT_EQ(parse(path, trusting).status, 0);
}

TEST(ProviderFileTest, DirectoryScanOrderAndSelection) {
  TempDir dir;
  write_provider(dir, "b.xml", "<command>b</command>");
  write_provider(dir, "a.xml", "<command>a</command>");
  write_provider(dir, "c.XML", "<command>c</command>");
  write_provider(dir, ".xml", "<command>dot</command>");
  write_provider(dir, "bad.xml", "<min_nodes>3</min_nodes>");
  ASSERT_EQ(mkdir((dir / "x.xml").c_str(), 0755), 0);
  daemon_config settings;
  vorn::str::copy(settings.provider_config_dir, dir.path());
  provider_list list;
  testing::internal::CaptureStderr();
  ASSERT_EQ(read_provider_config_dir(settings, list), 0);
  std::string log = testing::internal::GetCapturedStderr();
  std::string names;
  for (const provider* p = list.head.get(); p != nullptr; p = p->next.get()) {
    names += p->name + " ";
  }
  EXPECT_EQ(names + list.tail->name, "a b b");  // the tail is the last one
  EXPECT_NE(log.find("Error reading provider configuration file '" + (dir / "bad.xml") + "'"),
            std::string::npos);
  EXPECT_NE(log.find("Error reading provider configuration '" + (dir / "x.xml") +
                     "' (21): Is a directory"),
            std::string::npos);

  vorn::str::copy(settings.provider_config_dir, dir / "missing");
  testing::internal::CaptureStderr();
  EXPECT_EQ(read_provider_config_dir(settings, list), -1);
  EXPECT_NE(testing::internal::GetCapturedStderr().find(
                "Error reading provider configuration directory '" + (dir / "missing") +
                "' (2): No such file or directory"),
            std::string::npos);
}

TEST(ScaleTimeoutTest, Table) {
  struct Row {
    int64_t timeout;
    int nodes;
    timeout_scale scale;
    int64_t want;
  } rows[] = {
      {100, 4, timeout_scale::squared, 1600},
      {100, 1, timeout_scale::logarithmic, 100},
      {100, 3, timeout_scale::logarithmic, 155},
      {100, 0, timeout_scale::logarithmic, 60},  // 54 is raised to the floor
      {10, 8, timeout_scale::linear, 80},
      {10, 1, timeout_scale::constant, 60},              // raised to the floor
      {INT64_MAX, 2, timeout_scale::linear, INT64_MAX},  // saturates
  };
  for (const Row& r : rows) {
    EXPECT_EQ(scale_timeout(r.timeout, r.nodes, r.scale), r.want)
        << r.timeout << " s on " << r.nodes << " nodes, scale " << static_cast<int>(r.scale);
  }
}

}  // namespace
