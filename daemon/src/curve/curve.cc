#include "daemon/src/curve/curve.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>
#include <zmq.h>

#include <atomic>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <map>
#include <mutex>
#include <tuple>
#include <unordered_map>
#include <utility>
#include <vector>

#include "util/czmq.h"
#include "util/fs.h"
#include "util/log.h"

namespace vorn::curve {

namespace {

constexpr const char* kLogSource = "daemon/src/curve";
constexpr const char* kZapEndpoint = "inproc://zeromq.zap.01";
constexpr int64_t kRefusalReportMs = 10000;
constexpr size_t kZ85KeyLength = 40;

struct CloseFd {
  explicit CloseFd(int fd) : fd(fd) {}
  CloseFd(const CloseFd&) = delete;
  CloseFd& operator=(const CloseFd&) = delete;
  ~CloseFd() {
    if (fd >= 0) {
      close(fd);
    }
  }
  int fd;
};

struct CloseDir {
  explicit CloseDir(DIR* dir) : dir(dir) {}
  CloseDir(const CloseDir&) = delete;
  CloseDir& operator=(const CloseDir&) = delete;
  ~CloseDir() {
    if (dir) {
      closedir(dir);
    }
  }
  DIR* dir;
};

struct DestroyConfig {
  void operator()(zconfig_t* config) const { zconfig_destroy(&config); }
};
using Config = std::unique_ptr<zconfig_t, DestroyConfig>;

struct DestroyCert {
  void operator()(zcert_t* cert) const { zcert_destroy(&cert); }
};
using Cert = std::unique_ptr<zcert_t, DestroyCert>;

bool valid_z85_key(const char* text) {
  if (!text || std::strlen(text) != kZ85KeyLength) {
    return false;
  }
  uint8_t key[32];
  return zmq_z85_decode(key, text) != nullptr;
}

bool refuse(const std::string& path, const std::string& reason, std::string* error) {
  *error = "Cannot use CURVE certificate '" + path + "': " + reason;
  return false;
}

// A name that stays inside its directory and is not hidden.
bool safe_file_name(const std::string& name) {
  return !name.empty() && name[0] != '.' && name.find('/') == std::string::npos &&
         name.find('\0') == std::string::npos;
}

// Reserves `path` for a file that must not exist yet, with `mode`.
bool create_exclusive(const std::string& path, mode_t mode, std::string* error) {
  CloseFd file(open(path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, mode));
  if (file.fd < 0) {
    *error = "Cannot create '" + path + "' " + log::sys_error(errno);
    return false;
  }
  return true;
}

}  // namespace

bool load_certificate(const std::string& path, bool need_secret, certificate* out,
                      std::string* error) {
  // The named file alone counts: zcert_load would read NAME_secret instead
  // when it exists, so a public file would seem to hold the secret.
  std::string text;
  {
    CloseFd file(open(path.c_str(), O_RDONLY | O_CLOEXEC));
    if (file.fd < 0) {
      return refuse(path, "cannot open " + log::sys_error(errno), error);
    }
    struct stat status;
    if (fstat(file.fd, &status) != 0) {
      return refuse(path, "cannot stat " + log::sys_error(errno), error);
    }
    if (!S_ISREG(status.st_mode)) {
      return refuse(path, "not a regular file", error);
    }
    if (!fs::read_all(file.fd, &text)) {
      return refuse(path, "cannot read " + log::sys_error(errno), error);
    }
  }
  // Parsed from memory: zconfig_load leaks its file handle on a parse error.
  Config root(zconfig_str_load(text.c_str()));
  const char* public_text = root ? zconfig_get(root.get(), "/curve/public-key", nullptr) : nullptr;
  if (!valid_z85_key(public_text)) {
    return refuse(path, "not a certificate (no valid curve public-key)", error);
  }
  const char* secret_text = zconfig_get(root.get(), "/curve/secret-key", nullptr);
  if (secret_text && !valid_z85_key(secret_text)) {
    return refuse(path, "the curve secret-key is malformed", error);
  }
  if (need_secret && !secret_text) {
    return refuse(
        path, "holds no secret key (a public certificate where the _secret one is needed)", error);
  }
  certificate cert;
  cert.path = path;
  cert.public_key = public_text;
  cert.secret_key = secret_text ? secret_text : "";
  cert.hostname = zconfig_get(root.get(), "/metadata/hostname", "");
  *out = std::move(cert);
  return true;
}

bool write_new_certificate(const std::string& dir, const std::string& name,
                           const std::string& hostname, std::string* error) {
  if (!safe_file_name(name)) {
    *error = "Invalid certificate name '" + name +
             "': it must be a file name, not empty, without '/', not starting with '.'";
    return false;
  }
  // The directory of a first key is made, as `vorn cert new NAME -d keys` in
  // a fresh place expects (make_path logs why when it cannot).
  if (!fs::make_path(dir)) {
    *error = "Cannot use the directory '" + dir + "' for certificates";
    return false;
  }
  const std::string public_path = dir + "/" + name + kPublicSuffix;
  const std::string secret_path = public_path + "_secret";
  // Both names are reserved before anything is written, so that no existing
  // key is overwritten and the secret is never readable by others.
  if (!create_exclusive(secret_path, 0600, error)) {
    return false;
  }
  if (!create_exclusive(public_path, 0644, error)) {
    unlink(secret_path.c_str());
    return false;
  }
  Cert cert(zcert_new());
  if (cert) {
    zcert_set_meta(cert.get(), kHostnameMeta, "%s", hostname.c_str());
  }
  if (!cert || zcert_save(cert.get(), public_path.c_str()) != 0) {
    *error = "Cannot write the certificate '" + public_path + "'";
    unlink(secret_path.c_str());
    unlink(public_path.c_str());
    return false;
  }
  if (chmod(secret_path.c_str(), 0600) != 0) {
    *error = "Cannot make '" + secret_path + "' private " + log::sys_error(errno);
    unlink(secret_path.c_str());
    unlink(public_path.c_str());
    return false;
  }
  return true;
}

bool may_send_for(const std::string& certificate_hostname, const std::string& result_hostname) {
  return !certificate_hostname.empty() &&
         (certificate_hostname == kAnyHost || certificate_hostname == result_hostname);
}

namespace {

// Both keys or neither; `*both` says which.
bool paired(const std::string& first_value, const char* first, const std::string& second_value,
            const char* second, bool* both, std::string* error) {
  if (first_value.empty() != second_value.empty()) {
    *error = std::string("CURVE needs both ") + first + " and " + second + "; only " +
             (first_value.empty() ? second : first) + " is set";
    return false;
  }
  *both = !first_value.empty();
  return true;
}

}  // namespace

bool server_settings(const daemon_config& config, settings* out, std::string* error) {
  settings result;
  if (!paired(config.curve_certificate, "curve_certificate", config.curve_clients_dir,
              "curve_clients_dir", &result.enabled, error)) {
    return false;
  }
  if (result.enabled) {
    if (!load_certificate(config.curve_certificate, true, &result.own, error)) {
      return false;
    }
    CloseDir dir(opendir(config.curve_clients_dir.c_str()));
    if (!dir.dir) {
      *error = "Cannot use CURVE clients directory '" + config.curve_clients_dir +
               "': " + "cannot open " + log::sys_error(errno);
      return false;
    }
    result.clients_dir = config.curve_clients_dir;
  }
  *out = std::move(result);
  return true;
}

bool node_settings(const daemon_config& config, settings* out, std::string* error) {
  settings result;
  if (!paired(config.curve_certificate, "curve_certificate", config.curve_server_certificate,
              "curve_server_certificate", &result.enabled, error)) {
    return false;
  }
  if (result.enabled &&
      (!load_certificate(config.curve_certificate, true, &result.own, error) ||
       !load_certificate(config.curve_server_certificate, false, &result.server, error))) {
    return false;
  }
  *out = std::move(result);
  return true;
}

void make_server(zsock_t* socket, const certificate& own) {
  zsock_set_zap_domain(socket, kZapDomain);
  zsock_set_curve_server(socket, 1);
  zsock_set_curve_publickey(socket, own.public_key.c_str());
  zsock_set_curve_secretkey(socket, own.secret_key.c_str());
}

void make_client(zsock_t* socket, const certificate& own, const std::string& server_public_key) {
  zsock_set_curve_serverkey(socket, server_public_key.c_str());
  zsock_set_curve_publickey(socket, own.public_key.c_str());
  zsock_set_curve_secretkey(socket, own.secret_key.c_str());
}

bool make_client(void* socket, const certificate& own, const std::string& server_public_key) {
  const std::pair<int, const std::string*> options[] = {
      {ZMQ_CURVE_SERVERKEY, &server_public_key},
      {ZMQ_CURVE_PUBLICKEY, &own.public_key},
      {ZMQ_CURVE_SECRETKEY, &own.secret_key},
  };
  for (const auto& [option, key] : options) {
    // A Z85 key is passed with its terminating NUL.
    if (zmq_setsockopt(socket, option, key->c_str(), key->size() + 1) != 0) {
      VORN_LOG(3) << "Cannot set up CURVE on a socket " << log::sys_error(zmq_errno());
      return false;
    }
  }
  return true;
}

// ---------------------------------------------------------------------------
// key_directory

namespace {

// What identifies one version of a file without reading it.
using file_stamp = std::tuple<ino_t, off_t, int64_t>;

file_stamp stamp_of(const struct stat& status) {
  return {status.st_ino, status.st_size,
          int64_t{status.st_mtim.tv_sec} * 1000000000 + status.st_mtim.tv_nsec};
}

struct listed_file {
  file_stamp stamp;
  std::optional<certificate> cert;  // nullopt: not a usable public certificate
};

}  // namespace

struct key_directory::state {
  std::string dir;
  std::mutex mutex;
  int64_t checked_ms = 0;
  bool checked = false;
  std::optional<file_stamp> dir_stamp;
  std::map<std::string, listed_file> files;                // by file name
  std::unordered_map<std::string, std::string> hostnames;  // public key -> hostname
  bool dir_warned = false;

  // Re-reads the files whose stamp changed, and rebuilds the key map when
  // any did. Called with the mutex held.
  void refresh() {
    struct stat status;
    CloseDir handle(opendir(dir.c_str()));
    if (!handle.dir || fstat(dirfd(handle.dir), &status) != 0) {
      if (!dir_warned) {
        VORN_LOG(4) << "Cannot read the CURVE clients directory '" << dir << "' "
                    << log::sys_error(errno) << "; no client is accepted until it can be.";
        dir_warned = true;
      }
      dir_stamp.reset();
      files.clear();
      hostnames.clear();
      return;
    }
    dir_warned = false;
    std::map<std::string, listed_file> seen;
    bool changed = dir_stamp != stamp_of(status);
    dir_stamp = stamp_of(status);
    while (const dirent* entry = readdir(handle.dir)) {
      const std::string name = entry->d_name;
      const std::string secret_suffix = "_secret";
      if (name.empty() || name[0] == '.' ||
          (name.size() >= secret_suffix.size() &&
           name.compare(name.size() - secret_suffix.size(), secret_suffix.size(), secret_suffix) ==
               0)) {
        continue;
      }
      const std::string path = dir + "/" + name;
      if (stat(path.c_str(), &status) != 0 || !S_ISREG(status.st_mode)) {
        continue;
      }
      auto old = files.find(name);
      if (old != files.end() && old->second.stamp == stamp_of(status)) {
        seen.emplace(name, std::move(old->second));
        continue;
      }
      changed = true;
      listed_file file{stamp_of(status), std::nullopt};
      certificate cert;
      std::string error;
      if (load_certificate(path, false, &cert, &error)) {
        file.cert = std::move(cert);
      } else {
        VORN_LOG(4) << error << "; skipped.";
      }
      seen.emplace(name, std::move(file));
    }
    changed = changed || seen.size() != files.size();
    files = std::move(seen);
    if (!changed) {
      return;
    }
    hostnames.clear();
    for (const auto& [name, file] : files) {
      if (file.cert && !hostnames.emplace(file.cert->public_key, file.cert->hostname).second) {
        VORN_LOG(4) << "CURVE certificate '" << file.cert->path
                    << "' repeats the key of another file; ignored.";
      }
    }
  }
};

key_directory::key_directory(std::string dir) : state_(std::make_unique<state>()) {
  state_->dir = std::move(dir);
}

key_directory::~key_directory() = default;

std::optional<std::string> key_directory::lookup(const std::string& public_key) {
  std::lock_guard<std::mutex> lock(state_->mutex);
  const int64_t now = zclock_mono();
  if (!state_->checked || now - state_->checked_ms >= kRecheckMs) {
    state_->refresh();
    state_->checked = true;
    state_->checked_ms = now;
  }
  auto it = state_->hostnames.find(public_key);
  if (it == state_->hostnames.end()) {
    return std::nullopt;
  }
  return it->second;
}

zap_handler::policy listed_with_hostname(key_directory& keys) {
  return [&keys](const std::string& public_key) -> std::optional<std::string> {
    std::optional<std::string> hostname = keys.lookup(public_key);
    if (!hostname || hostname->empty()) {
      return std::nullopt;
    }
    return hostname;
  };
}

// ---------------------------------------------------------------------------
// zap_handler
//
// A handler of our own rather than zauth: zauth's CURVE store only says yes
// or no per key (and logs through zsys only in verbose mode), so it neither
// counts refusals with the peer's address for a rate-limited warning, nor
// lets us decide per key with our own directory and hand our own metadata
// (the hostname we checked) to the connection.

struct zap_handler::state {
  policy allow;
  std::string what;
  czmq::Socket socket;  // destroyed after the actor, which uses it
  czmq::Actor actor;
  std::atomic<uint64_t> refused{0};
  // Owned by the actor's thread.
  uint64_t unreported = 0;
  int64_t reported_ms = 0;
  std::string last_peer;

  void report(int64_t now) {
    VORN_LOG(4) << "Refused " << unreported << " peer(s) on " << what
                << " in the handshake since the last report; the last from " << last_peer << ".";
    unreported = 0;
    reported_ms = now;
  }

  void refuse(const std::string& address, const std::string& reason) {
    refused.fetch_add(1, std::memory_order_relaxed);
    ++unreported;
    last_peer = address + " (" + reason + ")";
    const int64_t now = zclock_mono();
    if (reported_ms == 0 || now - reported_ms >= kRefusalReportMs) {
      report(now);
    }
  }

  void flush_report() {
    const int64_t now = zclock_mono();
    if (unreported > 0 && now - reported_ms >= kRefusalReportMs) {
      report(now);
    }
  }

  // Answers one ZAP request: version, request id, domain, address,
  // identity, mechanism, credentials.
  void answer(zmsg_t* request) {
    czmq::Frame version(zmsg_pop(request));
    czmq::Frame request_id(zmsg_pop(request));
    czmq::String domain(zmsg_popstr(request));
    czmq::String address(zmsg_popstr(request));
    czmq::Frame identity(zmsg_pop(request));
    czmq::String mechanism(zmsg_popstr(request));
    czmq::Frame key(zmsg_pop(request));

    std::string status = "400";
    std::string text = "refused";
    std::string user_id;
    std::string metadata;
    const std::string peer = address ? address.get() : "?";
    if (!version || !zframe_streq(version.get(), "1.0") || !request_id || !mechanism) {
      refuse(peer, "malformed ZAP request");
    } else if (std::string(mechanism.get()) != "CURVE") {
      refuse(peer, std::string(mechanism.get()) + " mechanism");
    } else if (!domain || std::string(domain.get()) != kZapDomain) {
      refuse(peer, "unknown domain");
    } else if (!key || zframe_size(key.get()) != 32) {
      refuse(peer, "malformed CURVE key");
    } else {
      char z85[kZ85KeyLength + 1];
      zmq_z85_encode(z85, zframe_data(key.get()), 32);
      std::optional<std::string> hostname = allow(z85);
      if (!hostname) {
        refuse(peer, std::string("key ") + z85 + " not accepted");
      } else {
        status = "200";
        text = "OK";
        user_id = z85;
        if (!hostname->empty()) {
          // ZMTP metadata: name length (1 byte), name, value length (4 bytes,
          // big-endian), value.
          const std::string name = kHostnameMeta;
          const uint32_t size = static_cast<uint32_t>(hostname->size());
          metadata += static_cast<char>(name.size());
          metadata += name;
          for (int shift = 24; shift >= 0; shift -= 8) {
            metadata += static_cast<char>((size >> shift) & 0xff);
          }
          metadata += *hostname;
        }
      }
    }
    czmq::Message reply(zmsg_new());
    zmsg_addstr(reply.get(), "1.0");
    zmsg_addmem(reply.get(), request_id ? zframe_data(request_id.get()) : nullptr,
                request_id ? zframe_size(request_id.get()) : 0);
    zmsg_addstr(reply.get(), status.c_str());
    zmsg_addstr(reply.get(), text.c_str());
    zmsg_addstr(reply.get(), user_id.c_str());
    zmsg_addmem(reply.get(), metadata.data(), metadata.size());
    zmsg_t* sent = reply.release();
    if (zmsg_send(&sent, socket.get()) != 0) {
      zmsg_destroy(&sent);
    }
  }

  static void run(zsock_t* pipe, void* arg) {
    state* self = static_cast<state*>(arg);
    czmq::Poller poller(zpoller_new(pipe, self->socket.get(), nullptr));
    zsock_signal(pipe, 0);
    while (poller) {
      void* which = zpoller_wait(poller.get(), 1000);
      if (which == pipe) {
        czmq::String command(zstr_recv(pipe));
        if (!command || std::string(command.get()) == "$TERM") {
          break;
        }
      } else if (which == self->socket.get()) {
        czmq::Message request(zmsg_recv(self->socket.get()));
        if (request) {
          self->answer(request.get());
        }
      } else if (zpoller_terminated(poller.get())) {
        break;
      }
      self->flush_report();
    }
  }
};

zap_handler::zap_handler(policy allow, std::string what) : state_(std::make_unique<state>()) {
  state_->allow = std::move(allow);
  state_->what = std::move(what);
  czmq::init();
  czmq::Socket socket(zsock_new(ZMQ_REP));
  if (!socket) {
    VORN_LOG(3) << "Cannot create the ZAP socket for " << state_->what << " "
                << log::sys_error(zmq_errno());
    return;
  }
  if (zsock_bind(socket.get(), "%s", kZapEndpoint) != 0) {
    VORN_LOG(3) << "Cannot bind the ZAP handler for " << state_->what << " to " << kZapEndpoint
                << " " << log::sys_error(zmq_errno());
    return;
  }
  state_->socket = std::move(socket);
  state_->actor.reset(zactor_new(&state::run, state_.get()));
  if (!state_->actor) {
    VORN_LOG(3) << "Cannot start the ZAP handler for " << state_->what;
    state_->socket.reset();
  }
}

zap_handler::~zap_handler() {
  // The actor's thread ends before its socket goes.
  state_->actor.reset();
  state_->socket.reset();
}

bool zap_handler::ok() const {
  return state_->actor != nullptr;
}

uint64_t zap_handler::refused() const {
  return state_->refused.load(std::memory_order_relaxed);
}

}  // namespace vorn::curve
