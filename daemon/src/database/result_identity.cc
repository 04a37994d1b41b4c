#include "daemon/src/database/result_identity.h"

#include <sodium.h>

#include <algorithm>
#include <string_view>

namespace {

void hash_part(crypto_generichash_state* state, std::string_view bytes) {
  // Each part after its length, so that no bytes can move from one part to
  // the next unnoticed.
  unsigned char length[8];
  uint64_t size = bytes.size();
  for (unsigned char& byte : length) {
    byte = static_cast<unsigned char>(size & 0xff);
    size >>= 8;
  }
  crypto_generichash_update(state, length, sizeof length);
  crypto_generichash_update(state, reinterpret_cast<const unsigned char*>(bytes.data()),
                            bytes.size());
}

}  // namespace

result_identity identify(const result_view& record) {
  // Picks the fastest implementation this processor has; the hash is the
  // same with any of them.
  static const int sodium_ready = sodium_init();
  (void)sodium_ready;
  result_identity identity;
  identity.end_seconds = std::clamp<int64_t>(record.header.timestamp.tv_sec, 0, kMaxEndSeconds);
  crypto_generichash_state state;
  crypto_generichash_init(&state, nullptr, 0, identity.hash.size());
  crypto_generichash_update(&state, reinterpret_cast<const unsigned char*>(&record.header),
                            kResultHeaderSize);
  hash_part(&state, record.stdout_data);
  hash_part(&state, record.stderr_data);
  hash_part(&state, record.nodes_csv);
  crypto_generichash_final(&state, identity.hash.data(), identity.hash.size());
  return identity;
}
