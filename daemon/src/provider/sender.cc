#include "daemon/src/provider/sender.h"

#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <optional>
#include <random>

#include "daemon/src/provider/result.h"
#include "util/log.h"

namespace {

constexpr const char* kLogSource = "daemon/src/provider";
constexpr int kRetryIntervalMs = 100;

}  // namespace

bool is_pub_ack_answer(zmsg_t* reply, int32_t number) {
  // A ROUTER reply socket puts the peer's identity and an empty frame first.
  zframe_t* frame = zmsg_last(reply);
  if (frame == nullptr) {
    return false;
  }
  std::string text(reinterpret_cast<const char*>(zframe_data(frame)), zframe_size(frame));
  if (text == std::to_string(number)) {
    return true;
  }
  return text.size() == sizeof number && std::memcmp(text.data(), &number, sizeof number) == 0;
}

bool send_pub_ack_request(zsock_t* publisher, const daemon_config& config,
                          const std::string& reply_endpoint, int32_t number) {
  zmsg_t* request = zmsg_new();
  zmsg_addstr(request, accumulate_topic(config).c_str());
  zmsg_addstr(request, "PUB_ACK");
  zmsg_addstr(request, reply_endpoint.c_str());
  zmsg_addmem(request, &number, sizeof number);
  if (zmsg_send(&request, publisher) != 0) {
    zmsg_destroy(&request);
    return false;
  }
  return true;
}

vorn::czmq::Socket new_result_publisher(const vorn::curve::settings& curve) {
  vorn::czmq::init();
  vorn::czmq::Socket publisher(zsock_new(ZMQ_PUB));
  if (publisher && curve.enabled &&
      !vorn::curve::make_client(zsock_resolve(publisher.get()), curve.own,
                                curve.server.public_key)) {
    return nullptr;
  }
  return publisher;
}

vorn::czmq::Socket connect_result_publisher(const std::string& endpoint,
                                            const vorn::curve::settings& curve) {
  vorn::czmq::Socket publisher = new_result_publisher(curve);
  if (!publisher) {
    return nullptr;
  }
  zsock_set_sndhwm(publisher.get(), 0);
  // CZMQ discards unsent messages when a socket closes; give them time to go.
  zsock_set_linger(publisher.get(), kFlushOnCloseMs);
  if (zsock_connect(publisher.get(), "%s", endpoint.c_str()) != 0) {
    VORN_LOG(3) << "Unable to connect to accumulate server '" << endpoint << "' "
                << vorn::log::sys_error(errno);
    return nullptr;
  }
  return publisher;
}

vorn::curve::zap_handler::policy only_the_server(const vorn::curve::settings& curve) {
  return [server = curve.server.public_key](
             const std::string& public_key) -> std::optional<std::string> {
    if (public_key == server) {
      return std::string();
    }
    return std::nullopt;
  };
}

bool open_pub_ack_client(pub_ack_client& client, const std::string& reply_host,
                         const vorn::curve::settings& curve) {
  vorn::czmq::init();
  client.reply.reset();  // the old one first: it may hold the port
  client.reply.reset(zsock_new(ZMQ_ROUTER));
  if (!client.reply) {
    return false;
  }
  if (curve.enabled) {
    vorn::curve::make_server(client.reply.get(), curve.own);
  }
  if (zsock_bind(client.reply.get(), "tcp://%s:*", reply_host.c_str()) < 0) {
    client.reply.reset();
    return false;
  }
  zsock_set_linger(client.reply.get(), 0);
  client.endpoint = vorn::czmq::last_endpoint(client.reply.get());
  if (client.next_number == 0) {
    client.next_number = static_cast<int32_t>(std::random_device{}() % (1u << 30)) + 1;
  }
  return true;
}

int32_t next_pub_ack_number(pub_ack_client& client) {
  int32_t number = client.next_number;
  // Past the largest number, start again low rather than overflow.
  client.next_number = number < INT32_MAX ? number + 1 : 1;
  return number;
}

bool send_pub_ack_request(const pub_ack_client& client, zsock_t* publisher,
                          const daemon_config& config, int32_t number) {
  return send_pub_ack_request(publisher, config, client.endpoint, number);
}

bool read_pub_ack_answer(pub_ack_client& client, int32_t number) {
  vorn::czmq::Message answer(zmsg_recv(client.reply.get()));
  return answer && is_pub_ack_answer(answer.get(), number);
}

bool await_pub_ack(pub_ack_client& client, zsock_t* publisher, const daemon_config& config,
                   int timeout_ms) {
  const int32_t number = next_pub_ack_number(client);
  vorn::czmq::Poller poller(zpoller_new(client.reply.get(), nullptr));
  const int64_t deadline = zclock_mono() + timeout_ms;
  while (zclock_mono() < deadline) {
    send_pub_ack_request(client, publisher, config, number);
    if (zpoller_wait(poller.get(), kRetryIntervalMs) != nullptr &&
        read_pub_ack_answer(client, number)) {
      return true;
    }
  }
  return false;
}

bool request_pub_ack(zsock_t* publisher, const daemon_config& config, const std::string& reply_host,
                     int timeout_ms, const vorn::curve::settings& curve) {
  pub_ack_client client;
  if (!open_pub_ack_client(client, reply_host, curve)) {
    VORN_LOG(3) << "Unable to bind pub-ack reply socket on '" << reply_host << "' "
                << vorn::log::sys_error(errno);
    return false;
  }
  return await_pub_ack(client, publisher, config, timeout_ms);
}
