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
// it). A failed security handshake (the server has another key, or refuses
// this node's) is logged once until a handshake succeeds; nothing is sent
// meanwhile.
//
// Results then go in batches of at most 1,000 files, 1 MiB of messages or
// 1 s of sending, each closed by a "PUB_ACK" request. The answer to a
// request means the server has committed everything sent before it; a
// batch's files are confirmed when the answer to its own request arrives
// (the server leaves a request unanswered when what came before it may be
// lost, such as rows in a database file removed under it, even if it
// answers a later one). Up to 4 batches and 4 MiB are in flight: the next
// batch goes out while the server commits the previous ones, and memory is
// bounded by the window, never by the backlog (the directory's names are
// listed, the files read one at a time).
//
// Confirmed files are deleted by four threads of lower priority, which may
// lag behind delivery by 100,000 names (then no new batch starts until they
// catch up); the directory is not listed again until they are gone, so none
// is sent twice. At the stop they get 5 s more; what is left then is sent
// again after the next start.
//
// Progress is an answer that confirms a batch. With batches in flight, the
// next one is due within 10 s of the last progress (or of the oldest
// batch's sending, if later) plus 1 s for every 32 KiB in flight, the time
// those bytes take on a 256 kbit/s link: at most 138 s with a full window.
// Since only the oldest batch has to cross before its answer, a link
// drains a backlog at its own speed down to about 8 KiB/s (1 MiB in 138 s).
// An older batch still unanswered 10 s after a newer one was confirmed is
// not waited for longer. The oldest batch's request is repeated every
// 500 ms while no answer comes (the server may have dropped it, or failed
// to reach this node). No answer by the time it is due, or a closed
// connection: the connection is made anew (the server discovered again)
// and sending starts again from the oldest file still on disk, which is
// logged with the count of files sent but not confirmed. A result may so be
// sent twice after a server crash, never lost.
//
// The send queue holds a full window and never drops: a slow server makes
// the publisher wait for answers, not for room.
//
// Health counters (health.h): files_waiting and oldest_waiting_unix as of
// each listing (also made at the start and after each failed attempt to
// reach a server), last_progress_ms at each confirming answer, rejected,
// and the server in use.
//
// VORN_BENCH_PUBLISHER_WINDOW (1 to 16 batches) changes the window for the
// benchmark's comparison with lock-step delivery (1, which also deletes
// each batch's files before the next is read, as delivery did before the
// window); it is not a setting.
//
// Thread safety: the publisher runs on a thread of its own, started by the
// constructor. After the stop is requested (stop.h) it sends no new batch,
// waits for the answers to those in flight for at most 5 s, and ends; the
// destructor requests the stop (should nobody have) and waits for it.

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
