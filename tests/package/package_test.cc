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
    std::string depends;  // named beside the computed libraries
  };
  std::vector<Expected> table = {
      // The configuration that both others read, and nothing else.
      {"vorn-common", {"./opt/vorn/etc/vornd.xml"}, "/opt/vorn/etc/vornd.xml\n", ""},
      // Every node: the daemon, the tools a node uses, the example providers.
      {"vorn-node",
       {"./lib/systemd/system/vorn-noded.service", bin + "vorn-noded", bin + "vorn-provider",
        bin + "vorn-send", "./opt/vorn/provider/share/README", link("vorn-noded"),
        link("vorn-provider"), link("vorn-send")},
       "",
       ""},
      // The collecting host: the server, the reader and the status page's unit.
      {"vorn-server",
       {"./lib/systemd/system/vorn-serverd.service", "./lib/systemd/system/vorn-serve.service",
        bin + "vorn-serverd", bin + "vorn", link("vorn-serverd"), link("vorn")},
       "",
       // Its postinst makes the server's account.
       "adduser"},
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
      EXPECT_NE(fields.find("Depends: vorn-common (= " + kVersion + "), " + want.depends),
                std::string::npos)
          << fields;
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

// The server's account, which vorn-server's postinst makes.
const std::string kAccount = "vorn";

// The fields of `name` in the passwd or group database (name, password, id,
// ...); none when it has no such entry.
std::vector<std::string> account_entry(const std::string& database, const std::string& name,
                                       const std::string& log_dir) {
  std::istringstream line(run({"getent", database, name}, log_dir).out);
  std::vector<std::string> fields;
  for (std::string field; std::getline(line, field, ':');) {
    fields.push_back(field.substr(0, field.find('\n')));
  }
  return fields;
}

// Purges whatever of the packages dpkg still knows, however the test ends,
// and the account if the purge left it (the test runs only where there was
// none).
struct PurgeOnExit {
  std::string log_dir;
  ~PurgeOnExit() {
    for_all({"dpkg", "--purge"}, false, log_dir);
    if (!account_entry("passwd", kAccount, log_dir).empty()) {
      run({"userdel", kAccount}, log_dir);
    }
    if (!account_entry("group", kAccount, log_dir).empty()) {
      run({"groupdel", kAccount}, log_dir);
    }
  }
};

// An installed unit's `key=` setting; "" when it has none.
std::string unit_setting(const std::string& text, const std::string& key) {
  const size_t at = text.find("\n" + key + "=");
  if (at == std::string::npos) {
    return "";
  }
  const size_t start = at + key.size() + 2;
  return text.substr(start, text.find('\n', start) - start);
}

// How systemd starts an installed unit's program here.
struct UnitStart {
  std::string user;
  std::string group;
  bool no_new_privileges;
  std::vector<std::string> exec;  // ExecStart's words
};

// The unit's account and ExecStart words as systemd passes them (our units
// quote paths, which hold no blanks), %t being `runtime_dir` and the
// configuration after -c being `config`.
UnitStart unit_start(const std::string& unit, const std::string& runtime_dir,
                     const std::string& config) {
  const std::string text = vorn::test::read_file("/lib/systemd/system/" + unit + ".service");
  UnitStart start{unit_setting(text, "User"),
                  unit_setting(text, "Group"),
                  unit_setting(text, "NoNewPrivileges") == "yes",
                  {}};
  std::istringstream line(unit_setting(text, "ExecStart"));
  for (std::string word; line >> word;) {
    if (word.size() >= 2 && word.front() == '"' && word.back() == '"') {
      word = word.substr(1, word.size() - 2);
    }
    for (size_t at; (at = word.find("%t")) != std::string::npos;) {
      word.replace(at, 2, runtime_dir);
    }
    start.exec.push_back(!start.exec.empty() && start.exec.back() == "-c" ? config : word);
  }
  return start;
}

// The command that runs it as systemd would: as the unit's user and group,
// with the user's other groups, unable to gain privileges if the unit says so.
std::vector<std::string> as_unit(const UnitStart& start) {
  std::vector<std::string> argv = {"setpriv", "--reuid=" + start.user, "--regid=" + start.group,
                                   "--init-groups"};
  if (start.no_new_privileges) {
    argv.push_back("--no-new-privs");
  }
  argv.insert(argv.end(), start.exec.begin(), start.exec.end());
  return argv;
}

uid_t owner(const std::string& path) {
  struct stat st;
  return ::stat(path.c_str(), &st) == 0 ? st.st_uid : static_cast<uid_t>(-1);
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
  for (const std::string database : {"passwd", "group"}) {
    if (!account_entry(database, kAccount, dir.path()).empty()) {
      GTEST_SKIP() << database << " has '" << kAccount
                   << "': the package would run its server as it, and a purge remove it";
    }
  }

  PurgeOnExit purge_on_exit{dir.path()};
  const Ran installed = for_all({"dpkg", "--install"}, true, dir.path());
  ASSERT_EQ(installed.status, 0) << installed.out << installed.err;
  // Enabled for systemd's next start, whether or not it runs here.
  for (const std::string& unit : kUnits) {
    EXPECT_TRUE(exists("/etc/systemd/system/multi-user.target.wants/" + unit + ".service"));
  }
  // The server's account: a system account in a group of its own, at home
  // in the database's directory, without a login.
  const std::vector<std::string> user = account_entry("passwd", kAccount, dir.path());
  const std::vector<std::string> group = account_entry("group", kAccount, dir.path());
  ASSERT_EQ(user.size(), 7u) << "no account " << kAccount;
  ASSERT_GE(group.size(), 3u) << "no group " << kAccount;
  const uid_t uid = static_cast<uid_t>(std::stoul(user[2]));
  const gid_t gid = static_cast<gid_t>(std::stoul(user[3]));
  EXPECT_LT(uid, 1000u);
  EXPECT_EQ(group[2], user[3]);
  EXPECT_EQ(user[5], "/var/lib/vorn");
  EXPECT_EQ(user[6], "/usr/sbin/nologin");
  // The directories of the packaged configuration: the server's, and the
  // node's queue root's alone. The configuration names them and keeps
  // discovery off.
  struct Directory {
    mode_t mode;
    uid_t uid;
    gid_t gid;
  };
  for (const auto& [path, want] :
       std::map<std::string, Directory>{{"/var/lib/vorn", {0750, uid, gid}},
                                        {"/var/cache/vorn", {0750, uid, gid}},
                                        {"/var/spool/vorn", {0700, 0, 0}}}) {
    struct stat st;
    ASSERT_EQ(::stat(path.c_str(), &st), 0) << path;
    EXPECT_EQ(st.st_mode & 07777, want.mode) << path;
    EXPECT_EQ(st.st_uid, want.uid) << path;
    EXPECT_EQ(st.st_gid, want.gid) << path;
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

  // The server as its unit starts it, but with a configuration of the
  // test's, whose files are in a directory of the account's, as
  // /var/lib/vorn is.
  ASSERT_EQ(::chmod(dir.path().c_str(), 0711), 0);
  const std::string own = dir / "vorn";
  ASSERT_EQ(::mkdir(own.c_str(), 0700), 0);
  ASSERT_EQ(::chown(own.c_str(), uid, gid), 0);
  const int port = vorn::test::free_tcp_port();
  const std::string config = dir / "vornd.xml";
  const std::string db = own + "/vorn.db";
  vorn::test::write_file(
      config, vorn::test::config_xml("<accumulate_port>" + std::to_string(port) +
                                     "</accumulate_port>\n<accumulate_listen_address>127.0.0.1"
                                     "</accumulate_listen_address>\n<accumulate_output_dir>" +
                                     own + "/acc</accumulate_output_dir>\n<database_file>" + db +
                                     "</database_file>\n"));
  // The server makes the PID file's directory below %t itself.
  const UnitStart serverd = unit_start("vorn-serverd", own + "/run", config);
  ASSERT_FALSE(serverd.exec.empty());
  EXPECT_EQ(serverd.exec[0], "/opt/vorn/bin/x86_64/vorn-serverd");
  // The status page reads the database as the server's account.
  for (const std::string unit : {"vorn-serverd", "vorn-serve"}) {
    const UnitStart start = unit_start(unit, own + "/run", config);
    EXPECT_EQ(start.user, kAccount) << unit;
    EXPECT_EQ(start.group, kAccount) << unit;
    // The sandbox that the test cannot apply without systemd is at least
    // spelled as systemd reads it.
    const Ran verify =
        run({"systemd-analyze", "verify", "/lib/systemd/system/" + unit + ".service"}, dir.path());
    EXPECT_EQ(verify.status, 0) << verify.err;
    // Its complaints name the unit; a container may add lines of its own.
    EXPECT_EQ(verify.err.find(unit + ".service"), std::string::npos) << verify.err;
  }

  // A result sent by the packaged sender is stored, and root reads it back.
  // Then root reads while the server is stopped, which in WAL mode makes
  // the database's -shm and -wal files anew: the server, started again, must
  // still be able to write.
  const std::string output = dir / "output.txt";
  for (const std::string provider : {"packaged", "after_root_read"}) {
    SCOPED_TRACE(provider);
    Process server(as_unit(serverd), dir.path());
    vorn::test::write_file(output, "from the " + provider + " sender\n");
    const Ran sent =
        run({"/usr/bin/vorn-send", "-c", config, "-t", "60", provider, output}, dir.path());
    EXPECT_EQ(sent.status, 0) << sent.err << server.err();
    std::string latest;
    EXPECT_TRUE(vorn::test::wait_until(
        [&] {
          latest = run({"/usr/bin/vorn", "latest", "-c", config}, dir.path()).out;
          return latest.find("\t" + provider + "\t") != std::string::npos;
        },
        milliseconds(30000)))
        << latest << server.err();
    EXPECT_NE(latest.find("from the " + provider + " sender"), std::string::npos) << latest;
    server.send_signal(SIGTERM);
    EXPECT_EQ(server.wait_exit(), 0) << server.err();
    EXPECT_EQ(owner(db), uid);

    const Ran stopped = run({"/usr/bin/vorn", "latest", "-c", config}, dir.path());
    EXPECT_NE(stopped.out.find("\t" + provider + "\t"), std::string::npos) << stopped.err;
    for (const std::string suffix : {"-shm", "-wal"}) {
      if (exists(db + suffix)) {
        EXPECT_EQ(owner(db + suffix), uid) << suffix;
      }
    }
  }

  // Removal: the programs go; data, configuration and account stay.
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
  EXPECT_EQ(account_entry("passwd", kAccount, dir.path()), user);
  for (const std::string& package : kPackages) {
    EXPECT_EQ(dpkg_status(package, dir.path()), "rc ") << package;
  }

  // Purge: nothing of the packages is left, and dpkg forgets them.
  const Ran purged = for_all({"dpkg", "--purge"}, false, dir.path());
  ASSERT_EQ(purged.status, 0) << purged.out << purged.err;
  for (const std::string& path : footprint()) {
    EXPECT_FALSE(exists(path)) << path;
  }
  for (const std::string database : {"passwd", "group"}) {
    EXPECT_TRUE(account_entry(database, kAccount, dir.path()).empty()) << database;
  }
  const Ran status = for_all({"dpkg", "--status"}, false, dir.path());
  EXPECT_EQ(vorn::test::occurrences(status.err, "is not installed"), 3) << status.err;
}

}  // namespace
