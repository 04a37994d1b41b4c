#pragma once
// Owners for CZMQ handles, so that every early return releases what the
// routine created. Each owner is movable and not copyable; release happens on
// the thread that owns the handle, as CZMQ requires.

#include <czmq.h>

#include <cstdint>
#include <memory>
#include <string>

namespace vorn::czmq {

struct DestroySocket {
  void operator()(zsock_t* socket) const { zsock_destroy(&socket); }
};
struct DestroyActor {
  void operator()(zactor_t* actor) const { zactor_destroy(&actor); }
};
struct DestroyPoller {
  void operator()(zpoller_t* poller) const { zpoller_destroy(&poller); }
};
struct DestroyMessage {
  void operator()(zmsg_t* message) const { zmsg_destroy(&message); }
};
struct DestroyFrame {
  void operator()(zframe_t* frame) const { zframe_destroy(&frame); }
};
struct FreeString {
  void operator()(char* text) const { zstr_free(&text); }
};

using Socket = std::unique_ptr<zsock_t, DestroySocket>;
using Actor = std::unique_ptr<zactor_t, DestroyActor>;
using Poller = std::unique_ptr<zpoller_t, DestroyPoller>;
using Message = std::unique_ptr<zmsg_t, DestroyMessage>;
using Frame = std::unique_ptr<zframe_t, DestroyFrame>;
using String = std::unique_ptr<char, FreeString>;

// The longest wait, in seconds, that a ZeroMQ time-out in milliseconds can hold.
constexpr int64_t kMaxWaitSeconds = 2147483;

// `seconds` as a ZeroMQ time-out in milliseconds, clamped to what fits.
inline int timeout_ms(int64_t seconds) {
  if (seconds <= 0) {
    return 0;
  }
  return static_cast<int>((seconds < kMaxWaitSeconds ? seconds : kMaxWaitSeconds) * 1000);
}

// Initialises CZMQ once, whichever thread comes first. CZMQ's own lazy
// initialisation is not safe when several threads make their first sockets
// at the same moment.
inline void init() {
  static const bool done = [] {
    zsys_init();
    return true;
  }();
  (void)done;
}

// The endpoint a socket last bound, e.g. "tcp://127.0.0.1:49153"; "" if none.
inline std::string last_endpoint(zsock_t* socket) {
  String endpoint(zsock_last_endpoint(socket));
  return endpoint ? std::string(endpoint.get()) : std::string();
}

}  // namespace vorn::czmq
