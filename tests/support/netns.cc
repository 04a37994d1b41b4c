#include "tests/support/netns.h"

#include <fcntl.h>
#include <sched.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <iostream>
#include <thread>

#include "util/fs.h"

namespace vorn::test {

namespace {

bool run(const std::string& command) {
  if (std::system((command + " >/dev/null 2>&1").c_str()) == 0) {
    return true;
  }
  std::cerr << "test network: failed: " << command << "\n";
  return false;
}

}  // namespace

bool TestNetwork::available(std::string* why) {
  if (::geteuid() != 0) {
    *why = "network namespace tests need root";
    return false;
  }
  if (std::system("ip -V >/dev/null 2>&1") != 0) {
    *why = "network namespace tests need iproute2 (ip)";
    return false;
  }
  return true;
}

TestNetwork::TestNetwork(int hosts) : tag_("v" + std::to_string(::getpid())), hosts_(hosts) {
  const std::string sw = namespace_name(-1);
  ok_ = run("ip netns add " + sw) && run("ip -n " + sw + " link add br0 type bridge") &&
        run("ip -n " + sw + " link set br0 up");
  std::string hosts_file = "127.0.0.1 localhost\n";
  for (int i = 0; i < hosts_; ++i) {
    hosts_file += address(i) + " " + hostname(i) + "\n";
  }
  for (int i = 0; ok_ && i < hosts_; ++i) {
    const std::string ns = namespace_name(i);
    const std::string host_end = interface_name(i);
    const std::string switch_end = tag_ + "s" + std::to_string(i);
    ok_ = run("mkdir -p /etc/netns/" + ns) && run("ip netns add " + ns) &&
          run("ip link add " + host_end + " netns " + ns + " type veth peer name " + switch_end +
              " netns " + sw) &&
          run("ip -n " + sw + " link set " + switch_end + " master br0") &&
          run("ip -n " + sw + " link set " + switch_end + " up") &&
          run("ip -n " + ns + " addr add " + address(i) + "/24 broadcast 10.77.0.255 dev " +
              host_end) &&
          run("ip -n " + ns + " link set " + host_end + " up") &&
          run("ip -n " + ns + " link set lo up");
    std::ofstream(("/etc/netns/" + ns + "/hosts").c_str()) << hosts_file;
  }
}

TestNetwork::~TestNetwork() {
  for (int i = -1; i < hosts_; ++i) {
    std::string ns = namespace_name(i);
    int ignored = std::system(("ip netns del " + ns + " >/dev/null 2>&1").c_str());
    ignored = std::system(("rm -rf /etc/netns/" + ns).c_str());
    (void)ignored;
  }
}

std::string TestNetwork::namespace_name(int host) const {
  return tag_ + (host < 0 ? std::string("sw") : "h" + std::to_string(host));
}

std::string TestNetwork::address(int host) const {
  return "10.77.0." + std::to_string(host + 1);
}

std::string TestNetwork::hostname(int host) const {
  return "node" + std::to_string(host + 1);
}

std::string TestNetwork::interface_name(int host) const {
  return tag_ + "e" + std::to_string(host);
}

std::vector<std::string> TestNetwork::on_host(int host,
                                              const std::vector<std::string>& argv) const {
  std::vector<std::string> out = {"ip",
                                  "netns",
                                  "exec",
                                  namespace_name(host),
                                  "unshare",
                                  "--uts",
                                  "sh",
                                  "-c",
                                  "hostname " + hostname(host) + " && exec \"$0\" \"$@\""};
  out.insert(out.end(), argv.begin(), argv.end());
  return out;
}

bool TestNetwork::run_command(int host, const std::string& command) const {
  return run("ip netns exec " + namespace_name(host) + " sh -c '" + command + "'");
}

std::vector<std::string> TestNetwork::namespaces() const {
  std::vector<std::string> names;
  for (int i = -1; i < hosts_; ++i) {
    names.push_back(namespace_name(i));
  }
  return names;
}

bool TestNetwork::run_on_host(int host, const std::function<void()>& work, std::string* why) const {
  // ip netns keeps a namespace alive as a file of this name.
  const std::string path = "/run/netns/" + namespace_name(host);
  fs::Fd ns(::open(path.c_str(), O_RDONLY | O_CLOEXEC));
  if (ns.get() < 0) {
    *why = "cannot open " + path + " (" + std::to_string(errno) + "): " + std::strerror(errno);
    return false;
  }
  bool joined = false;
  std::thread worker([&] {
    // A network namespace belongs to a thread, not to the whole process.
    if (::setns(ns.get(), CLONE_NEWNET) != 0) {
      *why = "cannot join " + path + " (" + std::to_string(errno) + "): " + std::strerror(errno);
      return;
    }
    joined = true;
    work();
  });
  worker.join();
  return joined;
}

}  // namespace vorn::test
