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
// With CURVE (both keys of vorn::curve::node_settings), the publisher is a
// CURVE client of the server's key, and the reply socket a CURVE server with
// the sender's own key that lets in only the server's key (only_the_server,
// in the process's one zap_handler): else anyone who reaches the reply
// socket could answer in the server's name, and the sender would delete
// results the server never stored.
//
// Thread safety: each socket belongs to the thread that created it.

#include <cstdint>
#include <string>

#include "daemon/src/config/config.h"
#include "daemon/src/curve/curve.h"
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

// A PUB socket for results, not yet connected, with `curve` applied; null on
// failure.
vorn::czmq::Socket new_result_publisher(const vorn::curve::settings& curve);

// A PUB socket connected to `endpoint` (e.g. "tcp://head1:1974"); null on failure.
vorn::czmq::Socket connect_result_publisher(const std::string& endpoint,
                                            const vorn::curve::settings& curve = {});

// The ZAP policy of a sender's reply socket: the server's key, nothing else.
vorn::curve::zap_handler::policy only_the_server(const vorn::curve::settings& curve);

// The sender's side of the "PUB_ACK" handshake, one for the node's publisher
// and vorn-send: the reply socket the server connects back to, the requests
// that name it, and the answers. The server answers each request from a REQ
// socket that sends once and goes, so the reply socket is a ROUTER: it owes
// nobody an answer and takes whatever arrives, a stale answer included.
struct pub_ack_client {
  vorn::czmq::Socket reply;
  std::string endpoint;  // tcp://<address>:<port>, as requests name it
  int32_t next_number = 0;
};

// Binds the reply socket on `reply_host`, on a port the system picks, in
// place of the one it had (numbering goes on). False, with errno, when that
// fails.
bool open_pub_ack_client(pub_ack_client& client, const std::string& reply_host,
                         const vorn::curve::settings& curve = {});

// The number for the next request: numbers grow within a client's life from
// a random start, so a restarted sender does not repeat a request the server
// still remembers as answered.
int32_t next_pub_ack_number(pub_ack_client& client);

// Sends a request for `number` on `publisher` naming the client's endpoint.
bool send_pub_ack_request(const pub_ack_client& client, zsock_t* publisher,
                          const daemon_config& config, int32_t number);

// Reads one message that is waiting on the reply socket; true when it
// answers `number`.
bool read_pub_ack_answer(pub_ack_client& client, int32_t number);

// Asks "PUB_ACK" on `publisher` every 100 ms until the server answers, or
// `timeout_ms` passes. True when answered.
bool await_pub_ack(pub_ack_client& client, zsock_t* publisher, const daemon_config& config,
                   int timeout_ms);

// The same with a client of its own, bound on `reply_host`, which the
// server must be able to reach.
bool request_pub_ack(zsock_t* publisher, const daemon_config& config, const std::string& reply_host,
                     int timeout_ms, const vorn::curve::settings& curve = {});
