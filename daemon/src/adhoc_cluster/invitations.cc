#include "daemon/src/adhoc_cluster/invitations.h"

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <ctime>

#include "daemon/src/adhoc_cluster/beacon.h"
#include "daemon/src/provider/sleep_mode.h"
#include "daemon/src/provider/stop.h"
#include "util/czmq.h"
#include "util/host.h"
#include "util/log.h"

namespace {

constexpr const char* kLogSource = "daemon/src/adhoc_cluster";
constexpr int kRsvpLingerMs = 2000;

struct FreeRex {
  void operator()(zrex_t* rex) const { zrex_destroy(&rex); }
};

// Whole-number text as an int; values beyond int saturate.
int to_int(const char* text) {
  errno = 0;
  long long value = std::strtoll(text, nullptr, 10);
  return static_cast<int>(std::clamp<long long>(value, 0, INT32_MAX));
}

// True when `socket` has a message within `seconds`; false when the time is
// up or the daemon is stopping.
bool wait_readable(void* socket, int64_t seconds) {
  zmq_pollitem_t items[] = {{zsock_resolve(socket), 0, ZMQ_POLLIN, 0},
                            {nullptr, vorn::stop::stop_fd(), ZMQ_POLLIN, 0}};
  if (zmq_poll(items, 2, vorn::czmq::timeout_ms(seconds)) <= 0) {
    return false;
  }
  return (items[0].revents & ZMQ_POLLIN) != 0 && !vorn::stop::stop_requested();
}

int seconds_left(std::time_t deadline) {
  return static_cast<int>(std::max<int64_t>(0, deadline - std::time(nullptr)));
}

}  // namespace

bool evaluate_invitation(const std::string& text, int remaining, int& port, int& lifetime) {
  if (sleep_mode) {
    VORN_LOG(4) << "In sleep mode.  Declining invite.";
    return false;
  }
  // The architecture is any word without blanks: machine names such as
  // "x86_64" hold digits and underscores, which a letters-only class refuses.
  std::unique_ptr<zrex_t, FreeRex> rex(zrex_new("arch=(\\S+) load=(\\d+) port=(\\d+) time=(\\d+)"));
  if (!rex || !zrex_matches(rex.get(), text.c_str()) || zrex_hits(rex.get()) != 5) {
    VORN_LOG(4) << "Unable to parse adhoc cluster invitation.";
    return false;
  }
  std::string architecture = zrex_hit(rex.get(), 1);
  std::string load = zrex_hit(rex.get(), 2);
  int invited_port = to_int(zrex_hit(rex.get(), 3));
  int invited_lifetime = to_int(zrex_hit(rex.get(), 4));
  std::optional<std::string> machine = vorn::host::machine();
  if (!machine) {
    VORN_LOG(3) << "Unable to obtain system architecture. Declining invite.";
    return false;
  }
  if (architecture != "any" && architecture != *machine) {
    VORN_LOG(6) << "Not a match to the requested architecture, " << architecture
                << ". Declining invite.";
    return false;
  }
  double averages[3];
  if (::getloadavg(averages, 3) != 3) {
    VORN_LOG(3) << "Unable to obtain system load average.  Declining invite.";
    return false;
  }
  if (averages[0] > std::atof(load.c_str())) {
    VORN_LOG(6) << "Load average is too high. Declining invite.";
    return false;
  }
  if (invited_lifetime > remaining) {
    VORN_LOG(6) << "Insufficient time remaining. Declining invite.";
    return false;
  }
  port = invited_port;
  lifetime = invited_lifetime;
  return true;
}

void join_adhoc_cluster(const std::string& address, int port, int lifetime) {
  std::string endpoint = "tcp://" + address + ":" + std::to_string(port);
  vorn::czmq::Socket rsvp(zsock_new(ZMQ_PUSH));
  if (!rsvp || zsock_connect(rsvp.get(), "%s", endpoint.c_str()) != 0) {
    VORN_LOG(3) << "Unable to create adhoc cluster RSVP";
    return;
  }
  zsock_set_linger(rsvp.get(), kRsvpLingerMs);
  zsock_set_sndtimeo(rsvp.get(), kRsvpLingerMs);
  vorn::czmq::Socket dissolve(zsock_new(ZMQ_PULL));
  if (!dissolve) {
    VORN_LOG(3) << "Unable to create adhoc cluster dissolve";
    return;
  }
  int dissolve_port = zsock_bind(dissolve.get(), "tcp://*:*");
  if (dissolve_port < 0) {
    VORN_LOG(3) << "Unable to bind adhoc cluster dissolve";
    return;
  }
  vorn::czmq::String hostname(zsys_hostname());
  zsock_send(rsvp.get(), "sss", "ADHOC RSVP", hostname ? hostname.get() : "",
             std::to_string(dissolve_port).c_str());
  if (!wait_readable(dissolve.get(), lifetime)) {
    if (vorn::stop::stop_requested()) {
      return;
    }
    VORN_LOG(4) << "Adhoc cluster expired without receiving dissolve message";
    return;
  }
  VORN_LOG(6) << "Left the adhoc cluster of " << address;
}

bool listen_for_invitations(const daemon_config& config, int seconds) {
  std::string hostname;
  vorn::czmq::Actor beacon = new_beacon(config, &hostname);
  if (!beacon) {
    return false;
  }
  if (seconds <= 0) {
    return true;
  }
  const std::time_t deadline = std::time(nullptr) + seconds;
  const std::string prefix = with_partition("ADHOC", config);
  if (zsock_send(beacon.get(), "sb", "SUBSCRIBE", prefix.data(), prefix.size()) != 0) {
    VORN_LOG(3) << "Failed to subscribe to the discovery broadcast";
    return false;
  }
  for (int remaining = seconds; remaining > 0; remaining = seconds_left(deadline)) {
    char* sender = nullptr;
    char* payload = nullptr;
    if (!wait_readable(beacon.get(), remaining)) {
      if (vorn::stop::stop_requested()) {
        break;
      }
      VORN_LOG(6) << "Timed out waiting for adhoc cluster broadcast";
      zstr_sendx(beacon.get(), "UNSUBSCRIBE", nullptr);
      break;
    }
    zstr_recvx(beacon.get(), &sender, &payload, nullptr);
    vorn::czmq::String sender_owner(sender);
    vorn::czmq::String payload_owner(payload);
    int port = 0;
    int lifetime = 0;
    if (payload != nullptr &&
        evaluate_invitation(payload, seconds_left(deadline), port, lifetime)) {
      join_adhoc_cluster(sender != nullptr ? sender : "", port, lifetime);
    }
  }
  return true;
}
