#include "daemon/src/database/result_identity.h"

#include <xxhash.h>

#include <algorithm>
#include <memory>
#include <string_view>

namespace {

struct FreeState {
  void operator()(XXH3_state_t* state) const { XXH3_freeState(state); }
};

void hash_part(XXH3_state_t* state, std::string_view bytes) {
  // Each part after its length, so that no bytes can move from one part to
  // the next unnoticed.
  unsigned char length[8];
  uint64_t size = bytes.size();
  for (unsigned char& byte : length) {
    byte = static_cast<unsigned char>(size & 0xff);
    size >>= 8;
  }
  XXH3_128bits_update(state, length, sizeof length);
  XXH3_128bits_update(state, bytes.data(), bytes.size());
}

}  // namespace

result_identity identify(const result_view& record) {
  // One hashing state per thread, made once: the receiving thread hashes
  // every result.
  thread_local std::unique_ptr<XXH3_state_t, FreeState> state(XXH3_createState());
  if (state == nullptr) {
    throw std::bad_alloc();
  }
  result_identity identity;
  identity.end_seconds = std::clamp<int64_t>(record.header.timestamp.tv_sec, 0, kMaxEndSeconds);
  XXH3_128bits_reset(state.get());
  XXH3_128bits_update(state.get(), &record.header, kResultHeaderSize);
  hash_part(state.get(), record.stdout_data);
  hash_part(state.get(), record.stderr_data);
  hash_part(state.get(), record.nodes_csv);
  // The canonical (big-endian) form, so that stored identities mean the same
  // on every processor.
  XXH128_canonical_t canonical;
  XXH128_canonicalFromHash(&canonical, XXH3_128bits_digest(state.get()));
  static_assert(sizeof canonical.digest == result_identity::kHashSize);
  std::copy(std::begin(canonical.digest), std::end(canonical.digest), identity.hash.begin());
  return identity;
}
