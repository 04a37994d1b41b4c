// Fuzz target: one message as the accumulate server receives it, through
// result_receiver::classify and received_message::parse_result / result(),
// which is what the server applies to every message off its subscriber
// socket. No socket is opened: the frames are built in memory and handed
// over with received_message::append, as receive() does with each frame.
//
// Input: one byte that picks where the message came from (its low three
// bits index kPeers, the peer address ZeroMQ would report; the next three
// kKeys, the public key; bit 6 switches the CURVE key policy on), then the frames
// one after another, separated by the four bytes "\n--\n"; n separators make
// n + 1 frames (an input without one is a single frame), and a frame cannot
// hold the separator. Seeds in receiver_fuzz_corpus/:
// result-* five-frame results (plain; empty outputs and nodes; a header
// claiming more output than its frame holds; a header frame one byte short;
// outputs longer than the header says), pub_ack-* requests (IPv4, IPv6, a
// host name, an odd number frame, port 0, another address than the
// requester's, an IPv4-mapped requester; with the key policy, a listed and
// an unlisted key), result-key-* results under the key policy (for its own
// host, another host, a prefix of its host, any host with "*", a key without
// hostname, an unlisted key, no key) and other-* messages that are
// neither (four frames without "PUB_ACK", seven frames).
//
// Checked besides the sanitizers: the frames kept are the frames given and
// every byte is counted; a result's outputs lie inside their frames with the
// sizes its header gives, and its text fields are terminated inside their
// arrays; a request names the endpoint frame as sent, which
// valid_reply_endpoint accepts, with the address the request came from, and
// once answered it is not returned again; with the key policy, only listed
// keys with a hostname are heard, and a result only for that host or any
// host with "*".

#include <arpa/inet.h>
#include <netinet/in.h>
#include <zmq.h>

#include <cstdint>
#include <cstring>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "daemon/src/provider/result.h"
#include "daemon/src/serverd/receiver.h"
#include "tests/support/fuzz_support.h"

namespace {

constexpr std::string_view kSeparator = "\n--\n";

using vorn::fuzz::check;

struct peer {
  const char* reported;   // as ZeroMQ's "Peer-Address" gives it
  const char* canonical;  // the same address as inet_ntop writes it
};
// Eight entries, one for each value of the origin byte's low bits.
constexpr peer kPeers[] = {
    {"", ""},  // assembled without a socket: no address
    {"127.0.0.1", "127.0.0.1"},
    {"::ffff:127.0.0.1", "127.0.0.1"},  // an IPv4 peer of a dual-stack socket
    {"::1", "::1"},
    {"10.0.0.7", "10.0.0.7"},
    {"fe80::1%eth0", "fe80::1"},  // link-local, with its scope
    {"0:0:0:0:0:0:0:1", "::1"},
    {"not an address", ""},
};

struct key {
  const char* public_key;
  const char* hostname;  // nullptr: not listed
};
// Eight entries, for the origin byte's bits 3 to 5.
constexpr key kKeys[] = {
    {"", nullptr},  // no key: a plaintext peer
    {"rq:rM>}U?@Lns47E1%kR.o@n%FcmmsL/@{H8]yf7", "node01"},
    {"Yne@$w-vo<fVvi]a<NY6T1ed:M$fCG*[IaLV{hID", "*"},
    {"D:)Q[IlAW!ahhC2ac:9*A}h:p?([4%wOTJ%JR%cs", ""},  // no hostname metadata
    {"Yne@$w-vo<fVvi]a<NY6T1ed:M$fCG*[IaLV{hIE", nullptr},
    {"x-ee1w4TNFz=)9Y0aE%wNc]x.RP<R:*Yj(:kz6Bm", "node0"},  // a prefix is another host
    {"TbvzL1b=R}v1ey{n[?hN7AL8V{#[7i^6n@WK:Hwr", "node17"},
    {"rq:rM>}U?@Lns47E1%kR.o@n%FcmmsL/@{H8]yf8", nullptr},
};

std::optional<std::string> listed_hostname(const std::string& public_key) {
  for (const key& k : kKeys) {
    if (public_key == k.public_key && k.hostname != nullptr) {
      return std::string(k.hostname);
    }
  }
  return std::nullopt;
}

std::vector<std::string_view> split_frames(std::string_view input) {
  std::vector<std::string_view> frames;
  for (;;) {
    size_t end = input.find(kSeparator);
    frames.push_back(input.substr(0, end));
    if (end == std::string_view::npos) {
      return frames;
    }
    input.remove_prefix(end + kSeparator.size());
  }
}

bool terminated(const char* field, size_t size) {
  return std::memchr(field, '\0', size) != nullptr;
}

void check_result(const received_message& message) {
  const result_view result = message.result();
  const result_header& h = result.header;
  check(result.stdout_data.size() == h.stdout_size, "stdout has the header's size");
  check(result.stderr_data.size() == h.stderr_size, "stderr has the header's size");
  check(result.stdout_data.data() == message.frame(2).data(), "stdout is read from frame 2");
  check(result.stderr_data.data() == message.frame(3).data(), "stderr is read from frame 3");
  check(terminated(h.name, sizeof h.name), "name is terminated");
  check(terminated(h.hostname, sizeof h.hostname), "hostname is terminated");
  check(terminated(h.option_id, sizeof h.option_id), "option_id is terminated");
  check(std::strlen(result.nodes_csv) <= message.frame(4).size(), "nodes come from frame 4");
  // The text form reads every byte of the result, as a dump would.
  check(!result_text(result).empty(), "a result has a text form");
}

// The address of a valid endpoint as inet_ntop writes it, IPv4 plain.
std::string canonical_address(const std::string& endpoint) {
  std::string address = endpoint.substr(6, endpoint.rfind(':') - 6);
  unsigned char binary[sizeof(in6_addr)];
  char text[INET6_ADDRSTRLEN];
  int family = AF_INET;
  if (address.front() == '[') {
    family = AF_INET6;
    address = address.substr(1, address.size() - 2);
  }
  if (inet_pton(family, address.c_str(), binary) != 1 ||
      inet_ntop(family, binary, text, sizeof text) == nullptr) {
    return "";
  }
  std::string out = text;
  if (out.rfind("::ffff:", 0) == 0 && out.find('.') != std::string::npos) {
    out = out.substr(7);
  }
  return out;
}

void check_request(result_receiver& receiver, received_message& message,
                   const message_origin& origin, const peer& from) {
  const pub_ack_request& request = receiver.request();
  check(request.endpoint == message.frame(2), "the endpoint is frame 2 as sent");
  check(valid_reply_endpoint(request.endpoint), "only valid endpoints are answered");
  check(request.endpoint.find('\0') == std::string::npos, "an answered endpoint holds no NUL");
  check(*from.canonical != '\0' && canonical_address(request.endpoint) == from.canonical,
        "only the requester's own address is answered");
  receiver.mark_answered(request.key);
  check(receiver.classify(message, origin) == message_kind::ignored,
        "an answered request is not repeated");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  vorn::fuzz::quiet_logs();
  std::string_view input(reinterpret_cast<const char*>(data), size);
  const uint8_t origin_byte = input.empty() ? 0 : data[0];
  input.remove_prefix(input.empty() ? 0 : 1);
  const peer& from = kPeers[origin_byte & 7];
  const key& by = kKeys[(origin_byte >> 3) & 7];
  const bool with_keys = (origin_byte & 0x40) != 0;
  const message_origin origin{from.reported, by.public_key};

  // The endpoint check on its own, with whatever text it is given.
  if (valid_reply_endpoint(input)) {
    check(input.size() <= kMaxEndpointSize && input.substr(0, 6) == "tcp://",
          "a valid endpoint is short and tcp://");
    // zmq_connect takes the endpoint as a C string.
    check(input.find('\0') == std::string_view::npos, "a valid endpoint holds no NUL");
  }

  const std::vector<std::string_view> frames = split_frames(input);
  received_message message;
  size_t total = 0;
  for (std::string_view frame : frames) {
    zmq_msg_t part;
    check(zmq_msg_init_size(&part, frame.size()) == 0, "zmq_msg_init_size");
    if (!frame.empty()) {
      std::memcpy(zmq_msg_data(&part), frame.data(), frame.size());
    }
    message.append(part);
    check(zmq_msg_size(&part) == 0 || message.count() > received_message::kKept,
          "a kept frame is taken over");
    zmq_msg_close(&part);
    total += frame.size();
  }
  check(message.count() == frames.size(), "every frame is counted");
  check(message.total_size() == total, "every byte is counted");
  for (size_t i = 0; i < frames.size() && i < received_message::kKept; ++i) {
    check(message.frame(i) == frames[i], "a kept frame holds what was sent");
  }

  result_receiver receiver(with_keys ? key_policy(listed_hostname) : nullptr);
  // Whom the key policy lets speak at all, and for which hosts.
  const bool heard = !with_keys || (by.hostname != nullptr && *by.hostname != '\0');
  auto may_send_for = [&](const char* hostname) {
    return !with_keys || (heard && (std::strcmp(by.hostname, "*") == 0 ||
                                    std::strcmp(by.hostname, hostname) == 0));
  };
  check(message.origin().peer_address.empty() && message.origin().user_id.empty(),
        "a message assembled without a socket has no properties");
  switch (receiver.classify(message, origin)) {
    case message_kind::result:
      check(frames.size() == 5, "a result has five frames");
      check(heard, "a result comes from a listed key with a hostname");
      check(may_send_for(message.result().header.hostname), "a key sends only for its own host");
      check_result(message);
      break;
    case message_kind::pub_ack:
      check(frames.size() == 4 && frames[1] == "PUB_ACK", "a request has four frames");
      check(heard, "a request comes from a listed key with a hostname");
      check_request(receiver, message, origin, from);
      break;
    case message_kind::ignored:
      check(!message.parse_result() || !may_send_for(message.result().header.hostname),
            "an ignored message is no result its key may send");
      break;
    case message_kind::nothing:
      check(false, "a received message is never nothing");
      break;
  }
  return 0;
}
