#pragma once
// What makes two received results the same result, for any store.
//
// A node sends again what the server did not acknowledge, and the server may
// have committed some of it before it was killed. So a store recognises a
// result it already holds by its identity: a 128-bit XXH3 hash of the
// whole result as received (the 456-byte header with its host, provider,
// option set, end time to the microsecond and sizes, then the standard
// output, standard error and node list, each after its length), plus the end
// time in whole seconds. Results that differ in one byte anywhere differ in
// their identity; two runs never share one, as they differ at least in their
// host, provider, option set or end time.
//
// The end time comes with the identity so that a store can keep identities
// by time: results arrive near the present, so new identities go next to
// recent ones, which keeps writing and looking them up cheap, and old ones
// can be forgotten by age. A store remembers each identity for at least
// kRememberSeconds after it stored the result.
//
// XXH3 rather than a cryptographic hash because hashing sits on the
// receiving thread of every result: it takes about 0.1 us for 1.6 KB here,
// where BLAKE2b took 2 us and cost a tenth of the server's ingest. Its
// weakness against crafted collisions does not matter here: a sender can
// only make a result of its own look like another result that it knows byte
// for byte in advance, end time to the microsecond included, and a host name
// is bound to the sender's key.
//
// Thread safety: identify() may be called from any thread.

#include <array>
#include <cstdint>

#include "daemon/src/provider/result.h"

struct result_identity {
  static constexpr size_t kHashSize = 16;
  // The run's end time in Unix seconds, held between 0 and kMaxEndSeconds
  // (a header may say anything; the hash keeps the exact value).
  int64_t end_seconds = 0;
  std::array<unsigned char, kHashSize> hash{};
};

constexpr int64_t kMaxEndSeconds = int64_t{1} << 40;

// A result sent again within this time after it was stored is known.
constexpr int64_t kRememberSeconds = 24 * 60 * 60;

result_identity identify(const result_view& record);
