// vorn-send: sends one result to an accumulate server, the way a node's
// publisher does, and returns once the server has confirmed that it stored it.

#include <sys/time.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <string>

#include "daemon/src/config/config.h"
#include "daemon/src/curve/curve.h"
#include "daemon/src/provider/result.h"
#include "daemon/src/provider/sender.h"
#include "daemon/src/startup/startup.h"
#include "util/fs.h"
#include "util/host.h"
#include "util/log.h"
#include "util/str.h"

namespace {

void usage(const char* program) {
  std::printf(
      "Usage: %s [-c file] [-e endpoint] [-r host] [-t seconds] NAME [FILE]\n"
      "Sends one result of data provider NAME, with the contents of FILE (or of standard\n"
      "input) as its standard output, to the accumulate server.\n"
      "  -c file      configuration file [default = %s]\n"
      "  -e endpoint  server endpoint [default = tcp://<accumulate_host>:<accumulate_port>,\n"
      "               with 127.0.0.1 for an empty accumulate_host]\n"
      "  -r host      address the server connects back to for its acknowledgement\n"
      "               [default = 127.0.0.1 for a local server, else this node's address]\n"
      "  -t seconds   how long to wait for the acknowledgement [default = 10]\n",
      program, installation().config_file.c_str());
}

// Where the server will answer: it answers only at the address the request
// came from, which is this machine's end of the route towards the server
// (not necessarily the address of its host name, on a machine with several
// interfaces). "" when the endpoint is not tcp://HOST:PORT or has no route.
std::string reply_address_towards(const std::string& endpoint) {
  const std::string scheme = "tcp://";
  const size_t colon = endpoint.rfind(':');
  if (endpoint.compare(0, scheme.size(), scheme) != 0 || colon == std::string::npos ||
      colon < scheme.size()) {
    return "";
  }
  std::string host = endpoint.substr(scheme.size(), colon - scheme.size());
  if (host == "*" || host == "localhost") {
    host = "127.0.0.1";
  }
  std::string error;
  const std::string address = vorn::host::resolve_host_address(host, &error);
  return address.empty()
             ? ""
             : vorn::host::local_address_towards(address, std::atoi(endpoint.c_str() + colon + 1));
}

int run_program(int argc, char** argv) {
  if (!vorn::fs::open_standard_descriptors()) {
    return 1;
  }
  std::string config_file = installation().config_file;
  std::string endpoint;
  std::string reply_host;
  int timeout_s = 10;
  int opt;
  while ((opt = getopt(argc, argv, "c:e:r:t:h")) != -1) {
    switch (opt) {
      case 'c':
        config_file = optarg;
        break;
      case 'e':
        endpoint = optarg;
        break;
      case 'r':
        reply_host = optarg;
        break;
      case 't':
        timeout_s = std::atoi(optarg);
        break;
      case 'h':
        usage(argv[0]);
        return 0;
      default:
        usage(argv[0]);
        return 2;
    }
  }
  if (optind >= argc || argc - optind > 2) {
    usage(argv[0]);
    return 2;
  }
  daemon_config config;
  if (read_config(config, config_file.c_str()) != 0) {
    return 1;
  }
  vorn::curve::settings curve;
  std::string curve_error;
  if (!vorn::curve::node_settings(config, &curve, &curve_error)) {
    std::fprintf(stderr, "%s\n", curve_error.c_str());
    return 1;
  }
  std::string server_host =
      config.accumulate_host[0] != '\0' ? config.accumulate_host : "127.0.0.1";
  if (endpoint.empty()) {
    endpoint = "tcp://" + server_host + ":" + config.accumulate_port;
  }
  if (reply_host.empty()) {
    reply_host = reply_address_towards(endpoint);
    if (reply_host.empty()) {
      std::fprintf(stderr, "Cannot tell this node's address; name it with -r\n");
      return 1;
    }
  }

  std::string output;
  const bool from_file = argc - optind == 2;
  if (from_file ? !vorn::fs::read_file(argv[optind + 1], &output)
                : !vorn::fs::read_all(STDIN_FILENO, &output)) {
    std::fprintf(stderr, "Cannot read '%s' %s\n", from_file ? argv[optind + 1] : "standard input",
                 vorn::log::sys_error(errno).c_str());
    return 1;
  }

  provider_result result;
  result.header.api = 1;
  vorn::str::copy(result.header.name, argv[optind]);
  gettimeofday(&result.header.timestamp, nullptr);
  gethostname(result.header.hostname, sizeof result.header.hostname - 1);
  vorn::str::copy(result.header.option_id, "None");
  result.header.version = 1;
  result.stdout_data = output;
  result.header.stdout_size = output.size();

  std::unique_ptr<vorn::curve::zap_handler> zap;
  if (curve.enabled) {
    zap = std::make_unique<vorn::curve::zap_handler>(only_the_server(curve),
                                                     "acknowledgement socket");
    if (!zap->ok()) {
      return 1;
    }
  }
  auto publisher = connect_result_publisher(endpoint, curve);
  if (!publisher) {
    return 1;
  }
  pub_ack_client ack;
  if (!open_pub_ack_client(ack, reply_host, curve)) {
    std::fprintf(stderr, "Cannot bind the acknowledgement socket on '%s' %s\n", reply_host.c_str(),
                 vorn::log::sys_error(errno).c_str());
    return 1;
  }
  if (!await_pub_ack(ack, publisher.get(), config, timeout_s * 1000)) {
    std::fprintf(stderr, "No acknowledgement from %s within %d s\n", endpoint.c_str(), timeout_s);
    return 1;
  }
  if (send_result(result, config, publisher.get()) != 1) {
    return 1;
  }
  // The server answers a request only once everything its sender sent
  // before it is committed: after this one, a reader finds the result.
  if (!await_pub_ack(ack, publisher.get(), config, timeout_s * 1000)) {
    std::fprintf(stderr,
                 "Sent result of '%s' to %s, but the server did not confirm within %d s that it "
                 "was stored\n",
                 result.header.name, endpoint.c_str(), timeout_s);
    return 1;
  }
  std::printf("Sent result of '%s' (%zu bytes of output) to %s, and the server stored it\n",
              result.header.name, output.size(), endpoint.c_str());
  return 0;
}

}  // namespace

int main(int argc, char** argv) {
  return vorn::log::run_guarded(run_program, argc, argv);
}
