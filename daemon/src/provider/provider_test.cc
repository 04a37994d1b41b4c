// Provider definition files: real files with the modes the tests set.

#include "daemon/src/provider/provider.h"

#include <sys/stat.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <functional>

#include "tests/support/test_support.h"
#include "util/str.h"

namespace {

using vorn::test::TempDir;

struct Parsed {
  int status;
  provider record;
  std::string log;
};

Parsed parse(const std::string& path, const daemon_config& settings = daemon_config()) {
  Parsed out;
  set_provider_defaults(out.record, path);
  testing::internal::CaptureStderr();
  out.status = parse_provider_config_xml(out.record, path.c_str(), settings);
  out.log = testing::internal::GetCapturedStderr();
  return out;
}

std::string write_provider(const TempDir& dir, const std::string& name, const std::string& body,
                           int mode = 0644) {
  std::string path = dir / name;
  vorn::test::write_file(path, "<?xml version=\"1.0\"?><configuration>" + body + "</configuration>",
                         mode);
  return path;
}

TEST(ProviderFileTest, Elements) {
  daemon_config settings;
  settings.provider_loadavg = 2.5;
  settings.timeout = 90;
  settings.timeout_scale = timeout_scale::linear;
  const std::set<int> all_roles = {0, 1, 2, 3, 4, 5, 6, 7, 8};
  struct Row {
    const char* comment;
    std::string body;
    std::function<void(const provider&)> check;
    std::string log;  // expected log; '@' stands for the file's path
  } rows[] = {
      {"defaults come from the daemon where the file is silent", "",
       [&](const provider& p) {
         EXPECT_EQ(p.name, "probe");
         EXPECT_EQ(p.command, "");
         EXPECT_EQ(p.period, 60);
         EXPECT_EQ(p.priority, -20);
         EXPECT_EQ(p.loadavg, 2.5);
         EXPECT_EQ(p.timeout, 90);
         EXPECT_EQ(p.timeout_scale, timeout_scale::linear);
         EXPECT_EQ(p.roles, all_roles);
         EXPECT_FALSE(p.disabled);
         EXPECT_EQ(p.architecture, provider_architecture::any);
         EXPECT_EQ(p.nodelist_number, 1);
       },
       ""},
      {"every element",
       "<command>uptime</command><period>30.9</period><priority>5</priority>"
       "<loadavg>0.5</loadavg><max_nodes>4</max_nodes><min_nodes>2</min_nodes>"
       "<adhoc_cluster_invite_time>7</adhoc_cluster_invite_time><version>3</version>"
       "<encoding>base64</encoding><architecture cluster=\"uniform\">X86_64</architecture>"
       "<role>head</role><role>login</role><timeout scale=\"squared\">30</timeout>"
       "<nodelist method=\"round_robin\" number=\"all\"/>",
       [](const provider& p) {
         EXPECT_EQ(p.command, "uptime");
         EXPECT_EQ(p.period, 30);
         EXPECT_EQ(p.priority, 5);
         EXPECT_EQ(p.loadavg, 0.5);
         EXPECT_EQ(p.max_nodes, 4);
         EXPECT_EQ(p.min_nodes, 2);
         EXPECT_EQ(p.adhoc_cluster_invite_time, 7);
         EXPECT_EQ(p.version, 3);
         EXPECT_EQ(p.encoding, provider_encoding::base64);
         EXPECT_EQ(p.architecture, provider_architecture::x86_64);
         EXPECT_EQ(p.cluster, cluster_kind::uniform);
         EXPECT_EQ(p.roles, (std::set<int>{1, 2}));
         EXPECT_EQ(p.timeout, 30);
         EXPECT_EQ(p.timeout_scale, timeout_scale::squared);
         EXPECT_EQ(p.nodelist_method, nodelist_method::round_robin);
         EXPECT_EQ(p.nodelist_number, 0);
       },
       ""},
      {"any disable element disables", "<disable>false</disable>",
       [](const provider& p) { EXPECT_TRUE(p.disabled); }, ""},
      {"a command is cut to 256 characters", "<command>" + std::string(300, 'c') + "</command>",
       [](const provider& p) { EXPECT_EQ(p.command, std::string(256, 'c')); }, ""},
      {"only unknown roles give all nine", "<role>wizard</role>",
       [&](const provider& p) { EXPECT_EQ(p.roles, all_roles); },
       "Ignoring invalid role *wizard* specified in provider probe\n"},
      {"unknown scale keeps the constant scale", "<timeout scale=\"cubic\">30</timeout>",
       [](const provider& p) {
         EXPECT_EQ(p.timeout, 30);
         EXPECT_EQ(p.timeout_scale, timeout_scale::constant);
         EXPECT_EQ(scale_timeout(p.timeout, 1, p.timeout_scale), 60);
       },
       "Timeout scaling option 'cubic' did not match known options, using default scaling "
       "value\n"},
      {"unknown architecture", "<architecture>sparc</architecture>",
       [](const provider& p) { EXPECT_EQ(p.architecture, provider_architecture::any); },
       "Unknown architecture element in '@'. Using the default instead (Will run on all "
       "architectures)\n"},
      {"two commands: the first wins", "<command>a</command><command>b</command>",
       [](const provider& p) { EXPECT_EQ(p.command, "a"); },
       "Multiple command elements in '@'. Using first one.\n"},
      {"bad nodelist method and number", "<nodelist method=\"shuffle\" number=\"-2\"/>",
       [](const provider& p) {
         EXPECT_EQ(p.nodelist_method, nodelist_method::none);
         EXPECT_EQ(p.nodelist_number, 1);
       },
       "Invalid value for method attribute in '@'. Valid values are: none, rotate_right, "
       "rotate_left, round_robin, random\n"
       "Invalid value specified for number of nodelist permutations in @. Valid values are "
       "positive integers, they keyword 'all', or the number 0 to represent all\n"},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.comment);
    TempDir dir;
    std::string path = write_provider(dir, "probe.xml", row.body);
    Parsed got = parse(path, settings);
    EXPECT_EQ(got.status, 0) << got.log;
    row.check(got.record);
    std::string want = row.log;
    for (size_t at; (at = want.find('@')) != std::string::npos;) {
      want.replace(at, 1, path);
    }
    EXPECT_EQ(got.log, want);
  }
}

TEST(ProviderFileTest, RejectedFiles) {
  TempDir dir;
  struct Row {
    const char* comment;
    std::string path;
    int want_status;
    std::vector<std::string> want_log;  // lines, '@' for the path
  } rows[] = {
      {"minimum above maximum",
       write_provider(dir, "a.xml", "<min_nodes>4</min_nodes><max_nodes>2</max_nodes>"),
       1,
       {"Can not create cluster with a minimum of 4 and maximum of 2 nodes",
        "Error reading provider configuration '@'"}},
      {"a cluster of any nodes cannot ask for one architecture",
       write_provider(dir, "b.xml",
                      "<architecture cluster=\"any\">x86_64</architecture>"
                      "<min_nodes>2</min_nodes><max_nodes>3</max_nodes>"),
       1,
       {"Can not set a specific target architecture for a cluster provider when there are no "
        "specific architecture requirements on the cluster nodes",
        "Error reading provider configuration '@'"}},
      {"group-writable",
       write_provider(dir, "c.xml", "", 0664),
       1,
       {"xml file is writable by other users: '@'", "Error reading provider configuration '@'"}},
      {"not XML",
       write_provider(dir, "d.xml", "<unclosed>"),
       1,
       {"xml parse error: '@'", "Error reading provider configuration '@'"}},
      {"missing",
       dir / "none.xml",
       2,
       {"Error reading provider configuration '@' (2): No such file or directory"}},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.comment);
    Parsed got = parse(row.path);
    EXPECT_EQ(got.status, row.want_status);
    std::string want;
    for (std::string line : row.want_log) {
      for (size_t at; (at = line.find('@')) != std::string::npos;) {
        line.replace(at, 1, row.path);
      }
      want += line + "\n";
    }
    EXPECT_EQ(got.log, want);
  }
  // The same cluster file is accepted once its nodes must be uniform.
  EXPECT_EQ(parse(write_provider(dir, "e.xml",
                                 "<architecture cluster=\"uniform\">x86_64</architecture>"
                                 "<min_nodes>2</min_nodes><max_nodes>3</max_nodes>"))
                .status,
            0);
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
  EXPECT_NE(got.log.find("xml file is not owned by current user or root: '" + path + "'"),
            std::string::npos);
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
  std::vector<std::string> names;
  for (const provider* p = list.head.get(); p != nullptr; p = p->next.get()) {
    names.push_back(p->name);
  }
  EXPECT_EQ(names, (std::vector<std::string>{"a", "b"}));
  EXPECT_EQ(list.tail->name, "b");
  EXPECT_NE(log.find("Error reading provider configuration file '" + (dir / "bad.xml") + "'"),
            std::string::npos);
  EXPECT_NE(log.find("Error reading provider configuration '" + (dir / "x.xml") +
                     "' (21): Is a directory"),
            std::string::npos);

  vorn::str::copy(settings.provider_config_dir, dir / "missing");
  provider_list none;
  testing::internal::CaptureStderr();
  EXPECT_EQ(read_provider_config_dir(settings, none), -1);
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
      {10, 5, timeout_scale::linear, 60},        // 50 is raised to the floor
      {10, 8, timeout_scale::linear, 80},
      {60, 3, timeout_scale::squared, 540},
      {10, 1, timeout_scale::constant, 60},
      {INT64_MAX, 2, timeout_scale::linear, INT64_MAX},  // saturates
  };
  for (const Row& r : rows) {
    EXPECT_EQ(scale_timeout(r.timeout, r.nodes, r.scale), r.want)
        << r.timeout << " s on " << r.nodes << " nodes, scale " << static_cast<int>(r.scale);
  }
}

}  // namespace
