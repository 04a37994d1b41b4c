#pragma once
// The node daemon's request to stop, seen by every place where the provider
// runner waits: between providers, in sleep mode, while a command runs, while
// it listens for invitations, and in the publisher.
//
// The request is made once and never taken back. Waiters that poll
// descriptors add stop_fd(): it becomes readable when the stop is requested
// and stays readable, so every waiter sees it, however many there are.
//
// Thread safety: all functions may be called from any thread; request_stop
// is also safe inside a signal handler once stop_fd() has been called.

namespace vorn::stop {

void request_stop();
bool stop_requested();

// An eventfd for poll(): readable once the stop is requested.
int stop_fd();

// Waits `ms` milliseconds (negative: without end) or until the stop is
// requested; true when it was.
bool wait_for_stop(int ms);

}  // namespace vorn::stop
