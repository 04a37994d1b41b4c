#include "daemon/src/adhoc_cluster/adhoc_cluster.h"

#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <ctime>

#include "daemon/src/adhoc_cluster/beacon.h"
#include "util/czmq.h"
#include "util/fs.h"
#include "util/host.h"
#include "util/log.h"
#include "util/xml.h"

namespace {

constexpr const char* kLogSource = "daemon/src/adhoc_cluster";
constexpr int kIntervalMs = 1000;
constexpr int kDissolveLingerMs = 2000;

std::string frame_text(zframe_t* frame) {
  return std::string(reinterpret_cast<const char*>(zframe_data(frame)), zframe_size(frame));
}

// Appends the sender of a valid RSVP to `members`; false for anything else.
bool take_rsvp(zmsg_t* message, adhoc_member_list& members) {
  if (zmsg_size(message) != 3) {
    return false;
  }
  zframe_t* tag = zmsg_first(message);
  if (frame_text(tag) != "ADHOC RSVP") {
    return false;
  }
  std::string host = frame_text(zmsg_next(message));
  std::string port = frame_text(zmsg_next(message));
  // Both go into the node file and an endpoint: nothing else may ride along.
  bool host_ok = !host.empty() && host.size() < 256 &&
                 host.find_first_not_of(
                     "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ"
                     "0123456789.-_") == std::string::npos;
  bool port_ok = !port.empty() && port.size() <= 5 &&
                 port.find_first_not_of("0123456789") == std::string::npos &&
                 std::stoi(port) >= 1 && std::stoi(port) <= 65535;
  if (!host_ok || !port_ok) {
    return false;
  }
  members.push_back({host, port});
  return true;
}

}  // namespace

std::string adhoc_invitation(const provider& record, const daemon_config& config,
                             const std::string& architecture, int port) {
  int64_t lifetime = 0;
  if (__builtin_add_overflow(static_cast<int64_t>(record.adhoc_cluster_invite_time),
                             scale_timeout(record.timeout, record.max_nodes, record.timeout_scale),
                             &lifetime)) {
    lifetime = INT64_MAX;
  }
  return with_partition("ADHOC", config) + " arch=" + architecture +
         " load=" + std::to_string(vorn::xml::to_integer<int64_t>(record.loadavg)) +
         " port=" + std::to_string(port) + " time=" + std::to_string(lifetime);
}

bool form_adhoc_cluster(const provider& record, const daemon_config& config,
                        adhoc_member_list& members) {
  vorn::czmq::Socket pull(zsock_new(ZMQ_PULL));
  std::string hostname;
  vorn::czmq::Actor beacon = new_beacon(config, &hostname);
  if (!pull) {
    VORN_LOG(3) << "Error creating adhoc cluster request";
    return false;
  }
  if (!beacon) {
    return false;
  }
  std::string architecture = "any";
  if (record.cluster == cluster_kind::uniform) {
    std::optional<std::string> machine = vorn::host::machine();
    if (!machine) {
      VORN_LOG(3) << "Unable to obtain system architecture. Not creating cluster";
      return false;
    }
    architecture = *machine;
  }
  int port = zsock_bind(pull.get(), "tcp://*:*");
  if (port < 0) {
    VORN_LOG(3) << "Error creating adhoc cluster request";
    return false;
  }
  std::string invitation = adhoc_invitation(record, config, architecture, port);
  if (invitation.size() > kBeaconPayloadMax) {
    VORN_LOG(3) << "Adhoc cluster invitation of " << invitation.size()
                << " bytes is too long for a beacon; shorten network_partition";
    return false;
  }
  zsock_send(beacon.get(), "sbi", "PUBLISH", invitation.data(), invitation.size(), kIntervalMs);

  int count = 1;  // this node
  int64_t remaining = record.adhoc_cluster_invite_time;
  while (remaining > 0 && count < record.max_nodes) {
    std::time_t noted = std::time(nullptr);
    remaining = std::min(remaining, vorn::czmq::kMaxWaitSeconds);
    zsock_set_rcvtimeo(pull.get(), vorn::czmq::timeout_ms(remaining));
    vorn::czmq::Message reply(zmsg_recv(pull.get()));
    if (reply) {
      if (take_rsvp(reply.get(), members)) {
        ++count;
      } else {
        VORN_LOG(3) << "Unrecognized RSVP format";
      }
    }
    // The deadline was fixed when collection began, whatever arrives.
    remaining = static_cast<int64_t>(noted) + remaining - static_cast<int64_t>(std::time(nullptr));
  }
  zstr_sendx(beacon.get(), "SILENCE", nullptr);
  beacon.reset();
  pull.reset();

  if (count >= record.min_nodes) {
    return true;
  }
  VORN_LOG(4) << "Needed at least " << record.min_nodes << " nodes for the adhoc "
              << "cluster, but only got " << count;
  dissolve_adhoc_cluster(members);
  return false;
}

void dissolve_adhoc_cluster(adhoc_member_list& members) {
  for (const adhoc_member& member : members) {
    std::string endpoint = "tcp://" + member.host + ":" + member.port;
    vorn::czmq::Socket push(zsock_new(ZMQ_PUSH));
    // zsock_connect never binds, whatever the member's text says.
    if (!push || zsock_connect(push.get(), "%s", endpoint.c_str()) != 0) {
      VORN_LOG(3) << "Unable to send adhoc cluster dissolve message to " << endpoint;
      continue;
    }
    // The connection is made in the background: give the message time to go.
    zsock_set_linger(push.get(), kDissolveLingerMs);
    zsock_set_sndtimeo(push.get(), kDissolveLingerMs);
    zstr_send(push.get(), "ADHOC DISSOLVE");
  }
  members.clear();
}

bool write_adhoc_nodefile(const adhoc_member_list& members, std::string& path) {
  char name[] = "/tmp/nodefile.XXXXXX";
  vorn::fs::Fd fd(::mkstemp(name));
  if (fd.get() < 0) {
    VORN_LOG(3) << "Unable to create nodefile";
    return false;
  }
  vorn::czmq::String self(zsys_hostname());
  std::string text = std::string(self ? self.get() : "") + "\n";
  for (const adhoc_member& member : members) {
    text += member.host + "\n";
  }
  if (!vorn::fs::write_all(fd.get(), text.data(), text.size())) {
    VORN_LOG(3) << "Unable to create nodefile";
    ::unlink(name);
    return false;
  }
  path = name;
  return true;
}
