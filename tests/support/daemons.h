#pragma once
// The daemons as the tests run them: configuration keys that keep a server's
// and a node's files inside the test's directory, a program started in debug
// mode, and a result publisher that a server has answered.

#include <gtest/gtest.h>

#include <memory>
#include <regex>
#include <string>
#include <vector>

#include "daemon/src/provider/sender.h"
#include "tests/support/test_support.h"

namespace vorn::test {

// What vorn-serverd logs once it receives results.
inline const std::string kServerReady =
    "Accumulate server started and subscribing to 'ACCUMULATE vorn3'";

// A server on 127.0.0.1:`port` with its accumulate directory in `dir`/acc and
// its rows in the SQLite file `db`.
inline std::string server_keys(int port, const std::string& dir, const std::string& db) {
  return "<accumulate_host>127.0.0.1</accumulate_host><accumulate_port>" + std::to_string(port) +
         "</accumulate_port>\n<accumulate_output_dir>" + dir +
         "/acc</accumulate_output_dir>\n<database_file>" + db + "</database_file>\n";
}

// A node beside it: providers from `dir`/providers, results written to `out`,
// and no ad hoc clusters, which would reach for the network.
inline std::string node_keys(const std::string& dir, const std::string& out) {
  return "<provider_config_dir>" + dir + "/providers</provider_config_dir><provider_output_dir>" +
         out + "</provider_output_dir><enable_adhoc_clusters>false</enable_adhoc_clusters>";
}

// `program` -d -c `config`, its output kept in `log_dir`.
inline std::unique_ptr<Process> start_daemon(const std::string& program, const std::string& config,
                                             const std::string& log_dir) {
  return std::make_unique<Process>(std::vector<std::string>{program, "-d", "-c", config}, log_dir);
}

// A result publisher to 127.0.0.1:`port` whose acknowledgement request the
// server answered within `timeout_ms`.
inline vorn::czmq::Socket acked_publisher(int port, const daemon_config& config,
                                          int timeout_ms = 10000) {
  auto publisher = connect_result_publisher("tcp://127.0.0.1:" + std::to_string(port));
  EXPECT_TRUE(publisher);
  EXPECT_TRUE(publisher && request_pub_ack(publisher.get(), config, "127.0.0.1", timeout_ms));
  return publisher;
}

// The port `vorn serve` names in its first line; 0 when it has named none
// within `timeout`.
inline int served_port(const Process& serve, milliseconds timeout = milliseconds(20000)) {
  int port = 0;
  wait_until(
      [&] {
        std::smatch m;
        std::string out = serve.out();
        if (std::regex_search(out, m, std::regex("http://127\\.0\\.0\\.1:([0-9]+)/"))) {
          port = std::stoi(m[1]);
        }
        return port != 0;
      },
      timeout);
  return port;
}

}  // namespace vorn::test
