// Test helper: one node's part in the network tests, run inside a network
// namespace of the test's own.
//
//   adhoc_node beacon-listen PORT SECONDS     print the first beacon heard
//   adhoc_node invite PORT PAYLOAD            broadcast PAYLOAD until killed
//   adhoc_node listen CONFIG SECONDS          listen_for_invitations
//   adhoc_node form CONFIG PROVIDERFILE       form a cluster, print its node file, dissolve it
//   adhoc_node respond CONFIG KIND            answer the first invitation with a bad RSVP

#include <cstdio>
#include <cstdlib>
#include <string>

#include "daemon/src/adhoc_cluster/adhoc_cluster.h"
#include "daemon/src/adhoc_cluster/beacon.h"
#include "daemon/src/adhoc_cluster/invitations.h"
#include "daemon/src/config/config.h"
#include "daemon/src/provider/provider.h"
#include "util/czmq.h"
#include "util/fs.h"

namespace {

int beacon_listen(int port, int seconds) {
  daemon_config config;
  config.broadcast_port = port;
  std::string hostname;
  vorn::czmq::Actor beacon = new_beacon(config, &hostname);
  zsock_send(beacon.get(), "sb", "SUBSCRIBE", "", static_cast<size_t>(0));
  zsock_set_rcvtimeo(beacon.get(), seconds * 1000);
  zmsg_t* message = zmsg_recv(beacon.get());
  if (message == nullptr) {
    return 1;
  }
  char* sender = zmsg_popstr(message);
  zframe_t* payload = zmsg_pop(message);
  std::printf("%s %zu ", sender, zframe_size(payload));
  std::fwrite(zframe_data(payload), 1, zframe_size(payload), stdout);
  std::printf("\n");
  zstr_free(&sender);
  zframe_destroy(&payload);
  zmsg_destroy(&message);
  return 0;
}

int invite(int port, const std::string& payload) {
  daemon_config config;
  config.broadcast_port = port;
  std::string hostname;
  vorn::czmq::Actor beacon = new_beacon(config, &hostname);
  zsock_send(beacon.get(), "sbi", "PUBLISH", payload.data(), payload.size(), 200);
  std::printf("inviting\n");
  std::fflush(stdout);
  zclock_sleep(60000);
  return 0;
}

int respond(const daemon_config& config, const std::string& kind) {
  std::string hostname;
  vorn::czmq::Actor beacon = new_beacon(config, &hostname);
  zsock_send(beacon.get(), "sb", "SUBSCRIBE", "ADHOC", static_cast<size_t>(5));
  zsock_set_rcvtimeo(beacon.get(), 20000);
  char* sender = nullptr;
  char* payload = nullptr;
  if (zstr_recvx(beacon.get(), &sender, &payload, nullptr) < 0) {
    return 1;
  }
  std::string text = payload;
  std::string port = text.substr(text.find("port=") + 5);
  port = port.substr(0, port.find(' '));
  vorn::czmq::Socket push(zsock_new(ZMQ_PUSH));
  zsock_set_linger(push.get(), 2000);
  zsock_connect(push.get(), "tcp://%s:%s", sender, port.c_str());
  if (kind == "late") {
    // A valid answer, but after the invitation's time is over.
    zclock_sleep(4000);
    zstr_sendx(push.get(), "ADHOC RSVP", "node9", "1", nullptr);
  } else if (kind == "two") {
    zstr_sendx(push.get(), "ADHOC RSVP", "node9", nullptr);
  } else if (kind == "four") {
    zstr_sendx(push.get(), "ADHOC RSVP", "node9", "1", "extra", nullptr);
  } else {
    zstr_sendx(push.get(), "ADHOC RSVQ", "node9", "1", nullptr);
  }
  zstr_free(&sender);
  zstr_free(&payload);
  std::printf("responded\n");
  return 0;
}

int form(const daemon_config& config, const char* provider_file) {
  provider record;
  if (check_provider_file(provider_file, config, record) != 0) {
    return 2;
  }
  adhoc_member_list members;
  if (!form_adhoc_cluster(record, config, members)) {
    return 1;
  }
  std::string path;
  if (!write_adhoc_nodefile(members, path)) {
    return 1;
  }
  std::string text;
  vorn::fs::read_file(path, &text);
  std::printf("NODEFILE %s\n%s", path.c_str(), text.c_str());
  std::fflush(stdout);
  std::remove(path.c_str());
  dissolve_adhoc_cluster(members);
  return 0;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc < 4) {
    std::fprintf(stderr, "usage: see the comment at the top of adhoc_node.cc\n");
    return 2;
  }
  std::string mode = argv[1];
  if (mode == "beacon-listen") {
    return beacon_listen(std::atoi(argv[2]), std::atoi(argv[3]));
  }
  if (mode == "invite") {
    return invite(std::atoi(argv[2]), argv[3]);
  }
  daemon_config config;
  if (read_config(config, argv[2]) != 0) {
    return 2;
  }
  if (mode == "listen") {
    return listen_for_invitations(config, std::atoi(argv[3])) ? 0 : 1;
  }
  if (mode == "form") {
    return form(config, argv[3]);
  }
  if (mode == "respond") {
    return respond(config, argv[3]);
  }
  return 2;
}
