#pragma once
// The sending side of the result transport: a publisher connected to an
// accumulate server, and the "PUB_ACK" handshake that tells the sender its
// results reach the server.
//
// A subscriber learns of a new publisher only after a moment, and until then
// the publisher drops what it sends; so a sender completes the handshake
// before it counts on delivery. The publisher's queue is unbounded: when the
// server is slower than the sender, results wait in the sender's memory
// instead of being dropped.
//
// Thread safety: each socket belongs to the thread that created it.

#include <cstdint>
#include <string>

#include "daemon/src/config/config.h"
#include "util/czmq.h"

// How long results still queued when the publisher is closed keep being sent
// (at the latest until the process ends; its exit waits this long at most).
constexpr int kFlushOnCloseMs = 10000;

// Sends one "PUB_ACK" request for `number`, asking the server to connect back
// to `reply_endpoint`. False when the message could not be queued.
bool send_pub_ack_request(zsock_t* publisher, const daemon_config& config,
                          const std::string& reply_endpoint, int32_t number);

// Whether a message that arrived on the reply socket answers `number`: its
// last frame holds the number as decimal text, or as 4 raw bytes.
bool is_pub_ack_answer(zmsg_t* reply, int32_t number);

// A PUB socket connected to `endpoint` (e.g. "tcp://head1:1974"); null on failure.
vorn::czmq::Socket connect_result_publisher(const std::string& endpoint);

// Repeats a "PUB_ACK" request on `publisher` until the server connects back
// with its number, or `timeout_ms` passes. The reply socket is bound on
// `reply_host`, which the server must be able to reach. True when answered.
bool request_pub_ack(zsock_t* publisher, const daemon_config& config, const std::string& reply_host,
                     int timeout_ms);
