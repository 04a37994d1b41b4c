#pragma once
// The accumulate server: the receiving end of the result transport.
//
// It binds one SUB socket on accumulate_port (accumulate_listen_address), subscribes to
// its partition's topic, and stores every result in the database, or as a
// text dump in accumulate_output_dir when there is none. It answers a
// "PUB_ACK" request only once every row received before it is committed.
// When `running` is cleared it keeps storing while messages arrive less than
// 100 ms apart, then returns; CZMQ's interrupt flag stops it at once. Either
// way, what it has received is stored before it returns.
//
// Receives on the calling thread, which alone uses the socket; the rows are
// written by a thread of its own (result_writer.h), the only user of the
// database while the server runs.

#include <string>

#include "daemon/src/config/config.h"
#include "daemon/src/curve/curve.h"
#include "daemon/src/database/database.h"
#include "daemon/src/serverd/daemon_options.h"

// True after an orderly stop, false when it could not start. `store` may be
// null. The endpoint slot of `options` is fulfilled in every case. With
// `curve` enabled, the socket is a CURVE server that hears only the keys
// listed in curve.clients_dir at the time, each for its own host (see
// result_receiver), and refused handshakes are logged.
bool run_accumulate_server(daemon_options& options, const daemon_config& config, database* store,
                           const vorn::curve::settings& curve = {});
