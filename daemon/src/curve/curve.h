#pragma once
// CURVE authentication and encryption of the result transport.
//
// Keys are CZMQ certificates (zcert): a public file NAME.cert and a secret
// file NAME.cert_secret (mode 0600), with the metadata "hostname": the host
// whose results the key may send, or "*" for any (a relay, an administrator's
// vorn-send). The server keeps a directory of its nodes' public certificates;
// a node keeps its own secret certificate and the server's public one.
//
// Without the configuration keys everything stays plaintext, as before; with
// them, a key that names a missing, unreadable or malformed file is an error
// at start, never a fall-back to plaintext.
//
// Thread safety: certificates and settings are plain values; key_directory
// and zap_handler may be used from any thread.

#include <czmq.h>

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>

#include "daemon/src/config/config.h"

namespace vorn::curve {

// The ZAP domain of every CURVE socket of ours.
constexpr const char* kZapDomain = "vorn";
// The metadata key that binds a certificate to a host, and the value that
// binds it to every host.
constexpr const char* kHostnameMeta = "hostname";
constexpr const char* kAnyHost = "*";
// The message property that holds the sender's public key (Z85).
constexpr const char* kUserIdProperty = "User-Id";
// File names written by write_new_certificate: NAME + suffix.
constexpr const char* kPublicSuffix = ".cert";
constexpr const char* kSecretSuffix = ".cert_secret";

struct certificate {
  std::string path;
  std::string public_key;  // Z85, 40 characters
  std::string secret_key;  // Z85; empty when loaded from a public file
  std::string hostname;    // the "hostname" metadata; empty when absent
};

// Loads the certificate at `path` (zcert_load). With `need_secret`, the file
// must hold the secret key. False with a one-line reason in `error`
// ("Cannot use CURVE certificate '<path>': <reason>") when the file is
// missing, unreadable, not a certificate, or lacks the secret.
bool load_certificate(const std::string& path, bool need_secret, certificate* out,
                      std::string* error);

// Writes a new key pair as DIR/NAME.cert and DIR/NAME.cert_secret (0600) with
// hostname metadata `hostname`, making DIR when missing. Refuses a NAME that
// is not a plain file name
// and files that exist already. False with the reason in `error`.
bool write_new_certificate(const std::string& dir, const std::string& name,
                           const std::string& hostname, std::string* error);

// Whether a sender whose certificate carries `certificate_hostname` may
// deliver a result for `result_hostname`: the same name, or "*". A
// certificate without hostname metadata may send nothing.
bool may_send_for(const std::string& certificate_hostname, const std::string& result_hostname);

// What one program's configuration says about CURVE. `enabled` is false when
// none of the keys is set.
struct settings {
  bool enabled = false;
  certificate own;          // curve_certificate (with its secret)
  certificate server;       // node side: curve_server_certificate (public)
  std::string clients_dir;  // server side: curve_clients_dir
};

// The server's settings: both curve_certificate and curve_clients_dir, or
// neither. False with a one-line reason otherwise, or when a file or the
// directory cannot be used.
bool server_settings(const daemon_config& config, settings* out, std::string* error);
// A node's (vorn-noded, vorn-send): both curve_certificate and
// curve_server_certificate, or neither.
bool node_settings(const daemon_config& config, settings* out, std::string* error);

// Socket set-up, before bind or connect. A CURVE server socket of ours needs
// a zap_handler in the process (without one libzmq accepts every client key).
void make_server(zsock_t* socket, const certificate& own);
void make_client(zsock_t* socket, const certificate& own, const std::string& server_public_key);
// The same for a raw libzmq socket (the answerer's context is its own).
// False when libzmq refused an option (logged).
bool make_client(void* socket, const certificate& own, const std::string& server_public_key);

// The public certificates in a directory, keyed by public key, re-read when
// the directory or a file in it changed (checked at most every kRecheckMs),
// so that a removed key is refused and an added one accepted without a
// restart. Files ending in "_secret" and files that are not certificates are
// skipped, with one warning per file.
class key_directory {
 public:
  static constexpr int kRecheckMs = 500;

  explicit key_directory(std::string dir);
  key_directory(const key_directory&) = delete;
  key_directory& operator=(const key_directory&) = delete;
  ~key_directory();

  // The hostname metadata of `public_key` (Z85) while it is listed, "" for a
  // listed certificate without one; nullopt when not listed.
  std::optional<std::string> lookup(const std::string& public_key);

 private:
  struct state;
  std::unique_ptr<state> state_;
};

// The process's ZAP handler (a thread with a REP socket bound to
// "inproc://zeromq.zap.01" on CZMQ's context). It accepts a CURVE peer of
// domain kZapDomain whose key `allow` accepts, and hands the certificate's
// hostname to the connection as metadata "hostname" (and the key as
// "User-Id"); it refuses every other peer (NULL, PLAIN, unknown keys).
// Refusals are logged as one warning per 10 s, with their count and the last
// peer's address. One per process: a second one cannot bind (not ok()).
class zap_handler {
 public:
  // `allow` returns the hostname metadata for an accepted key (may be "" for
  // none), nullopt to refuse. Called on the handler's thread. `what` names
  // the socket in the log.
  using policy = std::function<std::optional<std::string>(const std::string& public_key)>;
  zap_handler(policy allow, std::string what);
  zap_handler(const zap_handler&) = delete;
  zap_handler& operator=(const zap_handler&) = delete;
  ~zap_handler();

  // False when the handler could not start (logged).
  bool ok() const;
  // Peers refused since the start.
  uint64_t refused() const;

 private:
  struct state;
  std::unique_ptr<state> state_;
};

// The policy of the result server: keys listed in `keys` (which must outlive
// the handler) whose certificate carries hostname metadata.
zap_handler::policy listed_with_hostname(key_directory& keys);

}  // namespace vorn::curve
