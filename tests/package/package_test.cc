// The Debian packages of `make package` as an admin meets them: what they
// hold and what lintian says of them; then, as root on a machine without
// vorn, installed with dpkg, the installed programs run as their units say,
// and removed and purged without a trace.

#include <elf.h>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <gtest/gtest.h>
#include <httplib.h>

#include <cstring>
#include <map>
#include <set>
#include <sstream>

#include "tests/support/test_support.h"

namespace {

using std::chrono::milliseconds;
using vorn::test::Process;
using vorn::test::TempDir;

const std::string kVersion = VORN_VERSION;
const std::vector<std::string> kPackages = {"vorn-common", "vorn-node", "vorn-server"};
const std::vector<std::string> kUnits = {"vorn-noded", "vorn-serverd", "vorn-serve"};
// dpkg and lintian take their time on a busy machine.
const milliseconds kToolTime(300000);

struct Ran {
  int status;
  std::string out;
  std::string err;
};

Ran run(const std::vector<std::string>& argv, const std::string& log_dir) {
  Process process(argv, log_dir);
  const int status = process.wait_exit(kToolTime);
  return {status, process.out(), process.err()};
}

// The file `make package` names, e.g. build/vorn-node_3.1.2_amd64.deb.
std::string deb(const std::string& package) {
  return std::string(VORN_PACKAGE_DIR) + "/" + package + "_" + kVersion + "_" + VORN_DEB_ARCH +
         ".deb";
}

bool exists(const std::string& path) {
  struct stat st;
  return ::lstat(path.c_str(), &st) == 0;
}

// Non-directory entries of `dpkg-deb --contents`, as "path" or "path ->
// target"; entries writable by group or others go to `writable` as well.
std::set<std::string> entries(const std::string& listing, std::vector<std::string>& writable) {
  std::set<std::string> out;
  std::istringstream lines(listing);
  for (std::string line; std::getline(lines, line);) {
    std::istringstream fields(line);
    std::string mode, owner, size, date, time, rest;
    fields >> mode >> owner >> size >> date >> time;
    std::getline(fields >> std::ws, rest);
    if (mode[0] == 'd') {
      continue;
    }
    if (mode[0] != 'l' && (mode[5] == 'w' || mode[8] == 'w')) {
      writable.push_back(line);
    }
    out.insert(rest);
  }
  return out;
}

// True when the ELF file still has a symbol table, which stripping removes.
bool has_symbol_table(const std::string& path) {
  const std::string elf = vorn::test::read_file(path);
  Elf64_Ehdr header;
  if (elf.size() < sizeof header) {
    ADD_FAILURE() << path << " is too short for an ELF file";
    return true;
  }
  std::memcpy(&header, elf.data(), sizeof header);
  EXPECT_EQ(std::memcmp(header.e_ident, ELFMAG, SELFMAG), 0) << path;
  for (size_t i = 0; i < header.e_shnum; ++i) {
    Elf64_Shdr section;
    const size_t at = header.e_shoff + i * header.e_shentsize;
    if (at + sizeof section > elf.size()) {
      break;
    }
    std::memcpy(&section, elf.data() + at, sizeof section);
    if (section.sh_type == SHT_SYMTAB) {
      return true;
    }
  }
  return false;
}

TEST(Package, DebsHoldTheTreeTheirDependenciesAndPassLintian) {
  TempDir dir;
  const std::string bin = "./opt/vorn/bin/x86_64/";
  const auto doc = [](const std::string& package) {
    return std::set<std::string>{"./usr/share/doc/" + package + "/changelog.gz",
                                 "./usr/share/doc/" + package + "/copyright",
                                 "./usr/share/lintian/overrides/" + package};
  };
  const auto link = [&](const std::string& program) {
    return "./usr/bin/" + program + " -> /opt/vorn/bin/x86_64/" + program;
  };
  std::set<std::string> node = {"./lib/systemd/system/vorn-noded.service",
                                bin + "vorn-noded",
                                bin + "vorn-provider",
                                bin + "vorn-send",
                                "./opt/vorn/provider/share/README",
                                link("vorn-noded"),
                                link("vorn-provider"),
                                link("vorn-send")};
  std::string provider_conffiles;
  for (const std::string provider : {"demo_failing", "disk_root", "load_memory", "sysinfo"}) {
    node.insert("./opt/vorn/provider/etc/" + provider + ".xml");
    provider_conffiles += "/opt/vorn/provider/etc/" + provider + ".xml\n";
  }
  struct Expected {
    std::string package;
    std::set<std::string> files;
    std::string conffiles;  // the control member, "" for none
  };
  const std::vector<Expected> table = {
      // The configuration both others read, and nothing else.
      {"vorn-common", {"./opt/vorn/etc/vornd.xml"}, "/opt/vorn/etc/vornd.xml\n"},
      // Every node: the daemon, the tools a node uses, the example providers.
      {"vorn-node", node, provider_conffiles},
      // The collecting host: the server, the reader and the status page's unit.
      {"vorn-server",
       {"./lib/systemd/system/vorn-serverd.service", "./lib/systemd/system/vorn-serve.service",
        bin + "vorn-serverd", bin + "vorn", link("vorn-serverd"), link("vorn")},
       ""},
  };
  for (const Expected& want : table) {
    SCOPED_TRACE(want.package);
    const std::string file = deb(want.package);
    const Ran contents = run({"dpkg-deb", "--contents", file}, dir.path());
    ASSERT_EQ(contents.status, 0) << "run `make package` first: " << contents.err;
    std::vector<std::string> writable;
    std::set<std::string> files = want.files;
    files.merge(doc(want.package));
    EXPECT_EQ(entries(contents.out, writable), files);
    EXPECT_EQ(writable, std::vector<std::string>{});

    const Ran conffiles = run({"dpkg-deb", "--info", file, "conffiles"}, dir.path());
    EXPECT_EQ(conffiles.out, want.conffiles);
    const Ran fields = run({"dpkg-deb", "--field", file, "Version", "Depends"}, dir.path());
    EXPECT_NE(fields.out.find("Version: " + kVersion + "\n"), std::string::npos) << fields.out;
    if (want.package != "vorn-common") {
      // Computed from the programs: the libraries they link, never a
      // sanitizer's runtime (that would be the test build's programs).
      const std::string depends = fields.out.substr(fields.out.find("Depends:"));
      EXPECT_NE(depends.find("vorn-common (= " + kVersion + ")"), std::string::npos) << depends;
      EXPECT_NE(depends.find("libczmq4"), std::string::npos) << depends;
      EXPECT_EQ(depends.find("libasan"), std::string::npos) << depends;
      EXPECT_EQ(depends.find("libubsan"), std::string::npos) << depends;
    }

    const std::string tree = dir / want.package;
    ASSERT_EQ(run({"dpkg-deb", "--extract", file, tree}, dir.path()).status, 0);
    for (const std::string& entry : want.files) {
      if (entry.rfind(bin, 0) == 0) {
        EXPECT_FALSE(has_symbol_table(tree + "/" + entry)) << entry << " is not stripped";
      }
    }
  }

  // The packaged configuration points where the maintainer scripts make
  // directories, and keeps discovery off.
  const std::string config = vorn::test::read_file(dir / "vorn-common/opt/vorn/etc/vornd.xml");
  for (const std::string element :
       {"<enable_discovery>false</enable_discovery>", "<database_file>/var/lib/vorn/vorn.db<",
        "<accumulate_output_dir>/var/cache/vorn<", "<provider_output_dir>/var/spool/vorn<"}) {
    EXPECT_NE(config.find(element), std::string::npos) << element;
  }

  std::vector<std::string> lintian = {"lintian"};
  for (const std::string& package : kPackages) {
    lintian.push_back(deb(package));
  }
  const Ran verdict = run(lintian, dir.path());
  EXPECT_EQ(verdict.status, 0) << verdict.out << verdict.err;
  EXPECT_EQ(verdict.out.find("E: "), std::string::npos) << verdict.out;
}

// What dpkg says of a package: "ii " installed, "rc " configuration left,
// "" unknown.
std::string dpkg_status(const std::string& package, const std::string& log_dir) {
  return run({"dpkg-query", "--show", "--showformat=${db:Status-Abbrev}", package}, log_dir).out;
}

// Everything the packages and their scripts make beside the files dpkg
// lists: none of it may be there before the test, nor after a purge.
std::vector<std::string> footprint() {
  std::vector<std::string> paths = {
      "/opt/vorn",           "/var/lib/vorn",      "/var/cache/vorn",
      "/var/spool/vorn",     "/usr/bin/vorn",      "/usr/bin/vorn-serverd",
      "/usr/bin/vorn-noded", "/usr/bin/vorn-send", "/usr/bin/vorn-provider"};
  const std::string helper = "/var/lib/systemd/deb-systemd-helper-enabled/";
  for (const std::string& unit : kUnits) {
    const std::string file = unit + ".service";
    paths.push_back("/lib/systemd/system/" + file);
    paths.push_back("/etc/systemd/system/multi-user.target.wants/" + file);
    paths.push_back(helper + file + ".dsh-also");
    paths.push_back(helper + "multi-user.target.wants/" + file);
  }
  return paths;
}

// Purges whatever of the packages dpkg still knows, however the test ends.
class PurgeOnExit {
 public:
  explicit PurgeOnExit(const std::string& log_dir) : log_dir_(log_dir) {}
  PurgeOnExit(const PurgeOnExit&) = delete;
  PurgeOnExit& operator=(const PurgeOnExit&) = delete;
  ~PurgeOnExit() {
    std::vector<std::string> purge = {"dpkg", "--purge"};
    purge.insert(purge.end(), kPackages.rbegin(), kPackages.rend());
    run(purge, log_dir_);
  }

 private:
  std::string log_dir_;
};

// The line of a unit file that starts with `key=`, without the key.
std::string unit_value(const std::string& unit, const std::string& key) {
  const std::string text = vorn::test::read_file(unit);
  size_t at = text.find("\n" + key + "=");
  if (at == std::string::npos) {
    return "";
  }
  at += key.size() + 2;
  return text.substr(at, text.find('\n', at) - at);
}

// The ExecStart line of an installed unit split into words as systemd does
// (blanks separate, double quotes group, a backslash escapes), with %t (the
// runtime directory) and %% expanded, and `replace` applied to the word after
// each option it names.
std::vector<std::string> unit_command(const std::string& unit, const std::string& runtime_dir,
                                      const std::map<std::string, std::string>& replace) {
  const std::string line = unit_value("/lib/systemd/system/" + unit + ".service", "ExecStart");
  std::vector<std::string> words;
  std::string word;
  bool quoted = false;
  bool started = false;
  for (size_t i = 0; i < line.size(); ++i) {
    const char c = line[i];
    if (c == '\\' && i + 1 < line.size()) {
      word += line[++i];
    } else if (c == '"') {
      quoted = !quoted;
    } else if (c == '%' && i + 1 < line.size()) {
      const char specifier = line[++i];
      word += specifier == 't' ? runtime_dir : std::string(1, specifier);
    } else if (c == ' ' && !quoted) {
      if (started) {
        words.push_back(word);
      }
      word.clear();
      started = false;
      continue;
    } else {
      word += c;
    }
    started = true;
  }
  if (started) {
    words.push_back(word);
  }
  for (size_t i = 0; i + 1 < words.size(); ++i) {
    auto found = replace.find(words[i]);
    if (found != replace.end()) {
      words[i + 1] = found->second;
    }
  }
  return words;
}

TEST(Package, InstalledProgramsRunAndPurgeLeavesNothing) {
  if (::geteuid() != 0) {
    GTEST_SKIP() << "dpkg --install needs root";
  }
  TempDir dir;
  for (const std::string& package : kPackages) {
    const std::string status = dpkg_status(package, dir.path());
    if (!status.empty()) {
      GTEST_SKIP() << package << " is on this machine already (dpkg status '" << status
                   << "'): the test leaves such a machine alone";
    }
  }
  for (const std::string& path : footprint()) {
    if (exists(path)) {
      GTEST_SKIP() << path << " exists: installing and purging the packages would change it";
    }
  }

  PurgeOnExit purge_on_exit(dir.path());
  std::vector<std::string> install = {"dpkg", "--install"};
  for (const std::string& package : kPackages) {
    install.push_back(deb(package));
  }
  const Ran installed = run(install, dir.path());
  ASSERT_EQ(installed.status, 0) << installed.out << installed.err;

  // Enabled for systemd's next start, whether or not it runs here.
  for (const std::string& unit : kUnits) {
    const std::string link = "/etc/systemd/system/multi-user.target.wants/" + unit + ".service";
    char target[256] = {};
    EXPECT_GT(::readlink(link.c_str(), target, sizeof target - 1), 0) << link;
    EXPECT_EQ(std::string(target), "/lib/systemd/system/" + unit + ".service");
  }
  // The directories of the packaged configuration, for root alone.
  const std::vector<std::pair<std::string, mode_t>> state = {
      {"/var/lib/vorn", 0750}, {"/var/cache/vorn", 0750}, {"/var/spool/vorn", 0700}};
  for (const auto& [path, mode] : state) {
    struct stat st;
    ASSERT_EQ(::stat(path.c_str(), &st), 0) << path;
    EXPECT_EQ(st.st_mode & 07777, mode) << path;
  }
  if (::access("/usr/bin/systemd-analyze", X_OK) == 0) {
    std::vector<std::string> verify = {"/usr/bin/systemd-analyze", "verify"};
    for (const std::string& unit : kUnits) {
      verify.push_back("/lib/systemd/system/" + unit + ".service");
    }
    const Ran verified = run(verify, dir.path());
    EXPECT_EQ(verified.status, 0) << verified.err;
  }

  // An admin's edit of the configuration survives the package's reinstall.
  const std::string config_path = "/opt/vorn/etc/vornd.xml";
  const std::string edit = "<!-- edited by the admin -->\n";
  vorn::test::write_file(config_path, vorn::test::read_file(config_path) + edit);
  const auto edited = [&] {
    const std::string text = vorn::test::read_file(config_path);
    return text.size() > edit.size() &&
           text.compare(text.size() - edit.size(), edit.size(), edit) == 0;
  };
  ASSERT_EQ(run({"dpkg", "--install", deb("vorn-common")}, dir.path()).status, 0);
  EXPECT_TRUE(edited());

  // The server as its unit starts it, with a configuration of the test's.
  const int port = vorn::test::free_tcp_port();
  const std::string config = dir / "vornd.xml";
  vorn::test::write_file(
      config, vorn::test::config_xml("<accumulate_port>" + std::to_string(port) +
                                     "</accumulate_port>\n<accumulate_listen_address>127.0.0.1"
                                     "</accumulate_listen_address>\n<accumulate_output_dir>" +
                                     (dir / "acc") + "</accumulate_output_dir>\n<database_file>" +
                                     (dir / "vorn.db") + "</database_file>\n"));
  const std::string runtime = dir / "run";
  ASSERT_EQ(::mkdir(runtime.c_str(), 0755), 0);
  const std::string runtime_directory =
      runtime + "/" + unit_value("/lib/systemd/system/vorn-serverd.service", "RuntimeDirectory");
  ASSERT_EQ(::mkdir(runtime_directory.c_str(), 0755), 0);
  const auto serverd = unit_command("vorn-serverd", runtime, {{"-c", config}});
  ASSERT_FALSE(serverd.empty());
  EXPECT_EQ(serverd[0], "/opt/vorn/bin/x86_64/vorn-serverd");
  Process server(serverd, dir.path());

  const std::string output = dir / "output.txt";
  vorn::test::write_file(output, "from the packaged sender\n");
  const Ran sent =
      run({"/usr/bin/vorn-send", "-c", config, "-t", "60", "packaged", output}, dir.path());
  EXPECT_EQ(sent.status, 0) << sent.err;
  std::string latest;
  EXPECT_TRUE(vorn::test::wait_until(
      [&] {
        latest = run({"/usr/bin/vorn", "latest", "-c", config}, dir.path()).out;
        return latest.find("\tpackaged\t") != std::string::npos;
      },
      milliseconds(30000)))
      << latest;
  EXPECT_NE(latest.find("from the packaged sender"), std::string::npos) << latest;

  // The status page as its unit starts it, on a port of the test's.
  const int http_port = vorn::test::free_tcp_port();
  const auto serve =
      unit_command("vorn-serve", runtime,
                   {{"-c", config}, {"--listen", "127.0.0.1:" + std::to_string(http_port)}});
  Process page(serve, dir.path());
  ASSERT_TRUE(vorn::test::wait_until(
      [&] { return page.out().find("status page at") != std::string::npos; }, milliseconds(30000)));
  httplib::Client client("127.0.0.1", http_port);
  const auto answer = client.Get("/api/latest");
  ASSERT_TRUE(answer);
  EXPECT_NE(answer->body.find("\"provider\":\"packaged\""), std::string::npos) << answer->body;
  page.send_signal(SIGTERM);
  EXPECT_EQ(page.wait_exit(), 0);
  server.send_signal(SIGTERM);
  EXPECT_EQ(server.wait_exit(), 0);

  // Removal: the programs go, data and configuration stay.
  const std::string data = "/var/lib/vorn/vorn.db";
  vorn::test::write_file(data, "results an admin keeps\n");
  std::vector<std::string> remove = {"dpkg", "--remove"};
  remove.insert(remove.end(), kPackages.rbegin(), kPackages.rend());
  const Ran removed = run(remove, dir.path());
  ASSERT_EQ(removed.status, 0) << removed.out << removed.err;
  for (const std::string path : {"/opt/vorn/bin", "/usr/bin/vorn", "/usr/bin/vorn-send",
                                 "/lib/systemd/system/vorn-serverd.service"}) {
    EXPECT_FALSE(exists(path)) << path;
  }
  EXPECT_EQ(vorn::test::read_file(data), "results an admin keeps\n");
  EXPECT_TRUE(edited());
  for (const std::string& package : kPackages) {
    EXPECT_EQ(dpkg_status(package, dir.path()), "rc ") << package;
  }

  // Purge: nothing of the packages is left, and dpkg forgets them.
  std::vector<std::string> purge = {"dpkg", "--purge"};
  purge.insert(purge.end(), kPackages.rbegin(), kPackages.rend());
  const Ran purged = run(purge, dir.path());
  ASSERT_EQ(purged.status, 0) << purged.out << purged.err;
  for (const std::string& path : footprint()) {
    EXPECT_FALSE(exists(path)) << path;
  }
  for (const std::string& package : kPackages) {
    const Ran status = run({"dpkg", "--status", package}, dir.path());
    EXPECT_NE(status.status, 0);
    EXPECT_NE(status.err.find("is not installed"), std::string::npos) << status.err;
  }
}

}  // namespace
