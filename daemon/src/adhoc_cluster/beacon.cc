#include "daemon/src/adhoc_cluster/beacon.h"

#include <atomic>

#include "daemon/src/serverd/daemon_options.h"
#include "util/log.h"

namespace {
constexpr const char* kLogSource = "daemon/src/adhoc_cluster";
constexpr int kIntervalMs = 1000;
}  // namespace

vorn::czmq::Actor new_beacon(const daemon_config& config, std::string* hostname) {
  if (!config.network_interface.empty()) {
    zsys_set_interface(config.network_interface.c_str());
  }
  vorn::czmq::Actor beacon(zactor_new(zbeacon, nullptr));
  if (!beacon) {
    return nullptr;
  }
  zsock_send(beacon.get(), "si", "CONFIGURE", config.broadcast_port);
  vorn::czmq::String answer(zstr_recv(beacon.get()));
  *hostname = answer ? answer.get() : "";
  static std::atomic<bool> reported{false};
  if (hostname->empty()) {
    if (!reported.exchange(true)) {
      VORN_LOG(3) << "UDP broadcast is not supported.";
    }
    return nullptr;
  }
  if (reported.exchange(false)) {
    VORN_LOG(5) << "UDP broadcast works again";
  }
  return beacon;
}

std::string discovery_payload(const daemon_config& config) {
  return with_partition("DISCOVERY", config) + " port=" + config.accumulate_port;
}

bool start_discovery_beacon(daemon_options& options, const daemon_config& config) {
  std::string hostname;
  vorn::czmq::Actor beacon = new_beacon(config, &hostname);
  if (!beacon) {
    return false;
  }
  std::string payload = discovery_payload(config);
  if (payload.size() > kBeaconPayloadMax) {
    VORN_LOG(3) << "Discovery beacon of " << payload.size() << " bytes is longer than "
                << kBeaconPayloadMax << "; shorten network_partition";
    return false;
  }
  zsock_send(beacon.get(), "sbi", "PUBLISH", payload.data(), payload.size(), kIntervalMs);
  VORN_LOG(5) << "Dynamic service discovery beacon started and broadcasting to '"
              << config.network_partition << "'";
  options.beacon = std::move(beacon);
  return true;
}
