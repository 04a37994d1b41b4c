#pragma once
// UDP broadcast beacons: the discovery beacon of the server, and the beacons
// that carry ad hoc cluster invitations.
//
// Every beacon of the process uses network_interface when it names one (for
// multi-homed nodes); otherwise CZMQ picks the first interface that can
// broadcast. A beacon payload is at most 255 bytes.
//
// The discovery beacon is an actor of its own thread, driven by the main
// thread through "CONFIGURE" and "PUBLISH" and ended by destroying it.

#include <string>

#include "daemon/src/config/config.h"
#include "util/czmq.h"

struct daemon_options;

constexpr size_t kBeaconPayloadMax = 255;

// A beacon actor configured for broadcast_port. `hostname` receives the
// beacon's answer: this node's address on the chosen interface. Null when the
// actor cannot be made, or when no interface can broadcast; the latter is
// logged as "UDP broadcast is not supported." once, and again only after
// broadcasting has worked in between, so a node that retries does not fill
// the log.
vorn::czmq::Actor new_beacon(const daemon_config& config, std::string* hostname);

// "DISCOVERY", a blank and the partition when there is one, " port=" and the
// accumulate port.
std::string discovery_payload(const daemon_config& config);

// Starts broadcasting the discovery payload every second; the actor is kept in
// options.beacon. False when no beacon could be started (the server runs on).
bool start_discovery_beacon(daemon_options& options, const daemon_config& config);
