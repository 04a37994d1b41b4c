#include "util/host.h"

#include <arpa/inet.h>
#include <netdb.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/utsname.h>

#include <memory>

#include "util/fs.h"
#include "util/log.h"

namespace vorn::host {

namespace {

constexpr const char* kLogSource = "util/host";

struct FreeAddresses {
  void operator()(addrinfo* list) const { freeaddrinfo(list); }
};

}  // namespace

std::optional<std::string> machine() {
  struct utsname name;
  if (::uname(&name) != 0) {
    return std::nullopt;
  }
  return std::string(name.machine);
}

std::string resolve_host_address(const std::string& host) {
  std::string error;
  std::string address = resolve_host_address(host, &error);
  if (address.empty()) {
    VORN_LOG(3) << error;
  }
  return address;
}

std::string resolve_host_address(const std::string& host, std::string* error) {
  addrinfo hints{};
  hints.ai_family = AF_INET;
  hints.ai_socktype = SOCK_STREAM;
  addrinfo* raw = nullptr;
  int rc = getaddrinfo(host.c_str(), nullptr, &hints, &raw);
  if (rc != 0) {
    *error = "Error getting address information (" + std::to_string(rc) + "): " + gai_strerror(rc);
    return "";
  }
  std::unique_ptr<addrinfo, FreeAddresses> addresses(raw);
  char text[1025];
  rc = getnameinfo(addresses->ai_addr, addresses->ai_addrlen, text, sizeof text, nullptr, 0,
                   NI_NUMERICHOST);
  if (rc != 0) {
    *error = "Error getting name information (" + std::to_string(rc) + "): " + gai_strerror(rc);
    return "";
  }
  return text;
}

std::string local_address_towards(const std::string& address, int port) {
  sockaddr_in peer{};
  peer.sin_family = AF_INET;
  peer.sin_port = htons(static_cast<uint16_t>(port));
  if (::inet_pton(AF_INET, address.c_str(), &peer.sin_addr) != 1) {
    return "";
  }
  // Connecting a UDP socket only consults the routing table.
  vorn::fs::Fd probe(::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
  if (probe.get() < 0 ||
      ::connect(probe.get(), reinterpret_cast<const sockaddr*>(&peer), sizeof peer) != 0) {
    return "";
  }
  sockaddr_in local{};
  socklen_t size = sizeof local;
  if (::getsockname(probe.get(), reinterpret_cast<sockaddr*>(&local), &size) != 0) {
    return "";
  }
  char text[INET_ADDRSTRLEN];
  return ::inet_ntop(AF_INET, &local.sin_addr, text, sizeof text) != nullptr ? text : "";
}

}  // namespace vorn::host
