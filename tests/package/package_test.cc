// The Debian packages of `make package` as an admin meets them: what they
// hold and what lintian says of them; then, as root on a machine without
// vorn, installed with dpkg, the installed programs run as their units say,
// and removed and purged without a trace.

#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <gtest/gtest.h>

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

struct Ran {
  int status;
  std::string out;
  std::string err;
};

// dpkg and lintian take their time on a busy machine.
Ran run(const std::vector<std::string>& argv, const std::string& log_dir) {
  Process process(argv, log_dir);
  const int status = process.wait_exit(milliseconds(300000));
  return {status, process.out(), process.err()};
}

// The file `make package` names, e.g. build/vorn-node_3.1.2_amd64.deb.
std::string deb(const std::string& package) {
  return std::string(VORN_PACKAGE_DIR) + "/" + package + "_" + kVersion + "_" + VORN_DEB_ARCH +
         ".deb";
}

// `command` followed by every package (the one the others need last) or its file.
Ran for_all(std::vector<std::string> command, bool files, const std::string& log_dir) {
  for (auto package = kPackages.rbegin(); package != kPackages.rend(); ++package) {
    command.push_back(files ? deb(*package) : *package);
  }
  return run(command, log_dir);
}

bool exists(const std::string& path) {
  struct stat st;
  return ::lstat(path.c_str(), &st) == 0;
}

// Non-directory entries of `dpkg-deb --contents`: "./path" or "./path ->
// target", and " WRITABLE" after a file that group or others may write.
std::set<std::string> entries(const std::string& listing) {
  std::set<std::string> out;
  std::istringstream lines(listing);
  for (std::string line; std::getline(lines, line);) {
    std::istringstream fields(line);
    std::string mode, owner, size, date, time, entry;
    fields >> mode >> owner >> size >> date >> time;
    std::getline(fields >> std::ws, entry);
    if (mode[0] != 'd') {
      const bool writable = mode[0] == '-' && (mode[5] == 'w' || mode[8] == 'w');
      out.insert(entry + (writable ? " WRITABLE" : ""));
    }
  }
  return out;
}

TEST(Package, DebsHoldTheTreeTheirDependenciesAndPassLintian) {
  TempDir dir;
  const std::string bin = "./opt/vorn/bin/x86_64/";
  const auto link = [](const std::string& program) {
    return "./usr/bin/" + program + " -> /opt/vorn/bin/x86_64/" + program;
  };
  struct Expected {
    std::string package;
    std::set<std::string> files;  // besides the documentation
    std::string conffiles;
  };
  std::vector<Expected> table = {
      // The configuration that both others read, and nothing else.
      {"vorn-common", {"./opt/vorn/etc/vornd.xml"}, "/opt/vorn/etc/vornd.xml\n"},
      // Every node: the daemon, the tools a node uses, the example providers.
      {"vorn-node",
       {"./lib/systemd/system/vorn-noded.service", bin + "vorn-noded", bin + "vorn-provider",
        bin + "vorn-send", "./opt/vorn/provider/share/README", link("vorn-noded"),
        link("vorn-provider"), link("vorn-send")},
       ""},
      // The collecting host: the server, the reader and the status page's unit.
      {"vorn-server",
       {"./lib/systemd/system/vorn-serverd.service", "./lib/systemd/system/vorn-serve.service",
        bin + "vorn-serverd", bin + "vorn", link("vorn-serverd"), link("vorn")},
       ""},
  };
  for (const std::string provider : {"demo_failing", "disk_root", "load_memory", "sysinfo"}) {
    table[1].files.insert("./opt/vorn/provider/etc/" + provider + ".xml");
    table[1].conffiles += "/opt/vorn/provider/etc/" + provider + ".xml\n";
  }
  for (Expected& want : table) {
    SCOPED_TRACE(want.package);
    for (const std::string& doc : {"/usr/share/doc/" + want.package + "/changelog.gz",
                                   "/usr/share/doc/" + want.package + "/copyright",
                                   "/usr/share/lintian/overrides/" + want.package}) {
      want.files.insert("." + doc);
    }
    const std::string file = deb(want.package);
    const Ran contents = run({"dpkg-deb", "--contents", file}, dir.path());
    ASSERT_EQ(contents.status, 0) << "run `make package` first: " << contents.err;
    EXPECT_EQ(entries(contents.out), want.files);
    EXPECT_EQ(run({"dpkg-deb", "--info", file, "conffiles"}, dir.path()).out, want.conffiles);
    const std::string fields = run({"dpkg-deb", "--field", file}, dir.path()).out;
    EXPECT_NE(fields.find("\nVersion: " + kVersion + "\n"), std::string::npos) << fields;
    if (want.package != "vorn-common") {
      // Computed from the programs: the libraries they link, never a
      // sanitizer's runtime (that would be the test build's programs).
      EXPECT_NE(fields.find("Depends: vorn-common (= " + kVersion + "), "), std::string::npos);
      EXPECT_NE(fields.find("libczmq4"), std::string::npos) << fields;
      EXPECT_EQ(fields.find("libasan"), std::string::npos) << fields;
      EXPECT_EQ(fields.find("libubsan"), std::string::npos) << fields;
    }
  }

  // Its errors include unstripped programs; its notes (-I), programs built
  // without Debian's hardening flags. As root, lintian warns and goes on.
  const Ran lintian = for_all({"lintian", "-I"}, true, dir.path());
  EXPECT_EQ(lintian.status, 0) << lintian.out << lintian.err;
  EXPECT_EQ(lintian.out.find("E: "), std::string::npos) << lintian.out;
  EXPECT_EQ(lintian.out.find(": hardening-"), std::string::npos) << lintian.out;
}

// What dpkg says of a package: "ii " installed, "rc " configuration left,
// "" unknown.
std::string dpkg_status(const std::string& package, const std::string& log_dir) {
  return run({"dpkg-query", "--show", "--showformat=${db:Status-Abbrev}", package}, log_dir).out;
}

// Everything the packages and their scripts make beside dpkg's database:
// none of it may be there before the test, nor after a purge.
std::vector<std::string> footprint() {
  std::vector<std::string> paths = {"/opt/vorn", "/var/lib/vorn", "/var/cache/vorn",
                                    "/var/spool/vorn"};
  for (const std::string program :
       {"vorn", "vorn-serverd", "vorn-noded", "vorn-send", "vorn-provider"}) {
    paths.push_back("/usr/bin/" + program);
  }
  const std::string helper = "/var/lib/systemd/deb-systemd-helper-enabled/";
  for (const std::string& unit : kUnits) {
    paths.push_back("/lib/systemd/system/" + unit + ".service");
    paths.push_back("/etc/systemd/system/multi-user.target.wants/" + unit + ".service");
    paths.push_back(helper + unit + ".service.dsh-also");
    paths.push_back(helper + "multi-user.target.wants/" + unit + ".service");
  }
  return paths;
}

// Purges whatever of the packages dpkg still knows, however the test ends.
struct PurgeOnExit {
  std::string log_dir;
  ~PurgeOnExit() { for_all({"dpkg", "--purge"}, false, log_dir); }
};

// The ExecStart words of an installed unit as systemd passes them (our units
// quote paths, which hold no blanks), %t being `runtime_dir` and the
// configuration after -c being `config`.
std::vector<std::string> unit_command(const std::string& unit, const std::string& runtime_dir,
                                      const std::string& config) {
  const std::string text = vorn::test::read_file("/lib/systemd/system/" + unit + ".service");
  const size_t start = text.find("\nExecStart=") + 11;
  std::istringstream line(text.substr(start, text.find('\n', start) - start));
  std::vector<std::string> words;
  for (std::string word; line >> word;) {
    if (word.size() >= 2 && word.front() == '"' && word.back() == '"') {
      word = word.substr(1, word.size() - 2);
    }
    for (size_t at; (at = word.find("%t")) != std::string::npos;) {
      word.replace(at, 2, runtime_dir);
    }
    words.push_back(!words.empty() && words.back() == "-c" ? config : word);
  }
  return words;
}

TEST(Package, InstalledProgramsRunAndPurgeLeavesNothing) {
  if (::geteuid() != 0) {
    GTEST_SKIP() << "dpkg --install needs root";
  }
  TempDir dir;
  for (const std::string& package : kPackages) {
    if (const std::string status = dpkg_status(package, dir.path()); !status.empty()) {
      GTEST_SKIP() << package << " is known to dpkg ('" << status << "'): left alone";
    }
  }
  for (const std::string& path : footprint()) {
    if (exists(path)) {
      GTEST_SKIP() << path << " exists: installing and purging the packages would change it";
    }
  }

  PurgeOnExit purge_on_exit{dir.path()};
  const Ran installed = for_all({"dpkg", "--install"}, true, dir.path());
  ASSERT_EQ(installed.status, 0) << installed.out << installed.err;
  // Enabled for systemd's next start, whether or not it runs here.
  for (const std::string& unit : kUnits) {
    EXPECT_TRUE(exists("/etc/systemd/system/multi-user.target.wants/" + unit + ".service"));
  }
  // The directories of the packaged configuration, for root alone; the
  // configuration names them and keeps discovery off.
  for (const auto& [path, mode] : std::map<std::string, mode_t>{
           {"/var/lib/vorn", 0750}, {"/var/cache/vorn", 0750}, {"/var/spool/vorn", 0700}}) {
    struct stat st;
    ASSERT_EQ(::stat(path.c_str(), &st), 0) << path;
    EXPECT_EQ(st.st_mode & 07777, mode) << path;
  }
  const std::string config_path = "/opt/vorn/etc/vornd.xml";
  const std::string packaged = vorn::test::read_file(config_path);
  for (const std::string element :
       {"<enable_discovery>false</", "<database_file>/var/lib/vorn/vorn.db</",
        "<accumulate_output_dir>/var/cache/vorn</", "<provider_output_dir>/var/spool/vorn</"}) {
    EXPECT_NE(packaged.find(element), std::string::npos) << element;
  }

  // An admin's edit of the configuration survives the package's reinstall.
  const std::string edited = packaged + "<!-- edited by the admin -->\n";
  vorn::test::write_file(config_path, edited);
  ASSERT_EQ(run({"dpkg", "--install", deb("vorn-common")}, dir.path()).status, 0);
  EXPECT_TRUE(vorn::test::read_file(config_path) == edited);

  // The server as its unit starts it, but with a configuration of the test's.
  const int port = vorn::test::free_tcp_port();
  const std::string config = dir / "vornd.xml";
  vorn::test::write_file(
      config, vorn::test::config_xml("<accumulate_port>" + std::to_string(port) +
                                     "</accumulate_port>\n<accumulate_listen_address>127.0.0.1"
                                     "</accumulate_listen_address>\n<accumulate_output_dir>" +
                                     (dir / "acc") + "</accumulate_output_dir>\n<database_file>" +
                                     (dir / "vorn.db") + "</database_file>\n"));
  // The server makes the PID file's directory below %t itself.
  const std::string runtime = dir / "run";
  const auto serverd = unit_command("vorn-serverd", runtime, config);
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
      milliseconds(30000)));
  EXPECT_NE(latest.find("from the packaged sender"), std::string::npos) << latest;
  server.send_signal(SIGTERM);
  EXPECT_EQ(server.wait_exit(), 0);

  // Removal: the programs go, data and configuration stay.
  const std::string data = "/var/lib/vorn/vorn.db";
  vorn::test::write_file(data, "results an admin keeps\n");
  const Ran removed = for_all({"dpkg", "--remove"}, false, dir.path());
  ASSERT_EQ(removed.status, 0) << removed.out << removed.err;
  for (const std::string path : {"/opt/vorn/bin", "/usr/bin/vorn", "/usr/bin/vorn-send",
                                 "/lib/systemd/system/vorn-serverd.service"}) {
    EXPECT_FALSE(exists(path)) << path;
  }
  EXPECT_EQ(vorn::test::read_file(data), "results an admin keeps\n");
  EXPECT_TRUE(vorn::test::read_file(config_path) == edited);
  for (const std::string& package : kPackages) {
    EXPECT_EQ(dpkg_status(package, dir.path()), "rc ") << package;
  }

  // Purge: nothing of the packages is left, and dpkg forgets them.
  const Ran purged = for_all({"dpkg", "--purge"}, false, dir.path());
  ASSERT_EQ(purged.status, 0) << purged.out << purged.err;
  for (const std::string& path : footprint()) {
    EXPECT_FALSE(exists(path)) << path;
  }
  const Ran status = for_all({"dpkg", "--status"}, false, dir.path());
  EXPECT_EQ(vorn::test::occurrences(status.err, "is not installed"), 3) << status.err;
}

}  // namespace
