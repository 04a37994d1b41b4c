#pragma once
// Ad hoc clusters, the member's side: while the provider runner has nothing
// of its own to run, it listens for invitations of its partition and answers
// those it can honour; it then stays reserved for the initiator until
// "ADHOC DISSOLVE" arrives or the cluster's lifetime is over.
//
// An invitation is declined in sleep mode, when it cannot be parsed, when it
// asks for another architecture, when this node's one-minute load average is
// above the invitation's load, or when the cluster would outlive the time
// this node has left.
//
// Runs on the provider runner's thread; each call owns its beacon and sockets.

#include <string>

#include "daemon/src/config/config.h"

// Listens for `seconds` seconds (the deadline is fixed at the start). True
// when the time was used up, false when no beacon could listen (logged).
bool listen_for_invitations(const daemon_config& config, int seconds);

// True when this node accepts the invitation `text` with `remaining` seconds
// left; `port` and `lifetime` then hold the invitation's values.
bool evaluate_invitation(const std::string& text, int remaining, int& port, int& lifetime);

// Answers the initiator at `address`:`port` and waits for the dissolve at
// most `lifetime` seconds.
void join_adhoc_cluster(const std::string& address, int port, int lifetime);
