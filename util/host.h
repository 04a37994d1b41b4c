#pragma once
// Facts about this host and addresses on the network: the machine
// architecture, numeric addresses of host names, and which of this host's
// addresses faces a given peer.
//
// Name look-ups may block for as long as the resolver takes; call them from
// threads that may wait, never from one that carries results.
//
// Thread safety: every function may be called from any thread.

#include <optional>
#include <string>

namespace vorn::host {

// The machine field of uname ("x86_64"), or none when uname fails (not logged).
std::optional<std::string> machine();

// The numeric IPv4 address of `host`, or "" when it does not resolve (logged:
// "Error getting address information (" or "Error getting name information (").
std::string resolve_host_address(const std::string& host);

// The same, with the reason of a failure put in `error` instead of the log,
// for callers that retry and report a lasting failure once.
std::string resolve_host_address(const std::string& host, std::string* error);

// The local IPv4 address that packets to `address`:`port` leave from, chosen
// by the kernel's routing table without sending anything; "" when there is no
// route.
std::string local_address_towards(const std::string& address, int port);

}  // namespace vorn::host
