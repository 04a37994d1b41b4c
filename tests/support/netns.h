#pragma once
// A broadcast network of the test's own: network namespaces joined by veth
// pairs to a bridge that lives in a namespace of its own, so nothing a test
// sends reaches the machine's real interfaces. Host i (from 0) has the address
// 10.77.0.<i+1>/24 and the host name "node<i+1>", which every host resolves
// (through ip-netns' per-namespace /etc/netns/<name>/hosts). Everything is
// removed when the object goes, also when the test fails.
//
// Needs root and iproute2; use available() to skip otherwise.

#include <functional>
#include <string>
#include <vector>

namespace vorn::test {

class TestNetwork {
 public:
  // True when this process may create namespaces; otherwise `why` says why.
  static bool available(std::string* why);

  explicit TestNetwork(int hosts);
  TestNetwork(const TestNetwork&) = delete;
  TestNetwork& operator=(const TestNetwork&) = delete;
  ~TestNetwork();

  bool ok() const { return ok_; }
  std::string address(int host) const;
  std::string hostname(int host) const;
  std::string interface_name(int host) const;

  // The command line that runs `argv` on host `host`, under its host name.
  std::vector<std::string> on_host(int host, const std::vector<std::string>& argv) const;

  // Runs the shell command `command` in host `host`'s network namespace
  // (e.g. a tc qdisc on its interface); true when it exits with status 0.
  bool run_command(int host, const std::string& command) const;

  // The namespaces this network made, the switch's included: each is gone
  // (no /run/netns/<name>) once the object is.
  std::vector<std::string> namespaces() const;

  // Runs `work` on a thread of its own that joined host `host`'s network
  // namespace, so that it reaches what listens on that host's 127.0.0.1
  // (the rest of the process stays where it is). False, with `why`, when
  // the thread cannot join it; `work` then does not run.
  bool run_on_host(int host, const std::function<void()>& work, std::string* why) const;

 private:
  std::string namespace_name(int host) const;
  std::string tag_;
  int hosts_;
  bool ok_ = false;
};

}  // namespace vorn::test
