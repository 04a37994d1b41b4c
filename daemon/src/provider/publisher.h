#pragma once
// The node's publisher: delivers every output file of provider_output_dir to
// the accumulate server, with nothing lost.
//
// The directory is the queue: output files ("<provider>.XXXXXX"), those the
// scheduler writes and any left from before, go out oldest first, each read
// under a shared lock (the writer holds an exclusive one while it writes) and
// checked against the sizes its header gives. A file that stays short of its
// header, or cannot be read, moves to "rejected/" in the directory with a
// warning: never deleted, never retried in a loop.
//
// The server is tcp://<accumulate_host>:<accumulate_port>, or, without
// accumulate_host, the first one heard on broadcast_port whose discovery
// beacon names this node's partition. Before the first result goes out the
// publisher asks "PUB_ACK" every 500 ms until the server answers (a new
// connection loses messages until the server's subscription has reached
// it). Results then go in batches (at most 1000 files or 1 s of sending),
// each closed by a "PUB_ACK" whose answer means the server has committed the
// batch: only then are its files deleted. No answer within 10 s: the files
// stay, the connection is made anew (and the server discovered again), and
// sending starts again from the oldest file. A result may so be stored twice
// after a server crash, never lost. A failed security handshake (the server
// has another key, or refuses this node's) is logged once until a handshake
// succeeds; nothing is sent meanwhile.
//
// The send queue is bounded and never drops: a slow server makes the
// publisher wait, and a long backlog is not loaded into memory at once.
//
// Thread safety: the publisher runs on a thread of its own, started by the
// constructor. After the stop is requested (stop.h) it finishes the
// checkpoint under way for at most 5 s and ends; the destructor requests the
// stop (should nobody have) and waits for it.

#include <atomic>
#include <thread>

#include "daemon/src/config/config.h"
#include "daemon/src/curve/curve.h"

class result_publisher {
 public:
  // `config` and `curve` must outlive the publisher. With CURVE, the process
  // must run a zap_handler with only_the_server (sender.h).
  result_publisher(const daemon_config& config, const vorn::curve::settings& curve);
  result_publisher(const result_publisher&) = delete;
  result_publisher& operator=(const result_publisher&) = delete;
  ~result_publisher();

  // True when the publisher ended on an unexpected error (and requested the
  // daemon's stop); read it once the scheduler has returned.
  bool failed() const { return failed_; }

 private:
  void run();

  const daemon_config& config_;
  const vorn::curve::settings& curve_;
  std::atomic<bool> failed_{false};
  std::thread thread_;
};
