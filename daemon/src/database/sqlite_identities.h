#pragma once
// The identities of stored results in the SQLite store, written in the
// transaction of their rows (see database.h, exactly once).
//
// Table vorn_result_ids holds them grouped by minute of end time: one row per
// minute and commit, its hashes side by side. A transaction thus adds a row or
// two, not one per result, which would cost the writer a second insert for
// every row it stores. Lookups are answered from the identities of recently
// used minutes, read from the table once and kept, at most kMaxCached of them
// in at most kMaxMinutes minutes (the minute in use is always held whole);
// results arrive near the present, so that is nearly always the current
// minute.
//
// Table vorn_result_id_hours says, for each hour of end time, when a result of
// it was last stored (to the minute). An hour nothing was stored into for
// kRememberSeconds is forgotten, kForgetSlice rows at the start of each
// transaction.
//
// Every operation returns 0 or the SQLite code of its failure, with the text
// in *error; what failed in a transaction is undone by the caller's rollback,
// after which rolled_back() must be called.
//
// Thread safety: as its connection, one thread at a time.

#include <cstdint>
#include <map>
#include <string>
#include <unordered_map>
#include <vector>

#include "daemon/src/database/result_identity.h"
#include "daemon/src/database/storix1.h"

class sqlite_identities {
 public:
  static constexpr size_t kMaxCached = size_t{1} << 14;
  static constexpr size_t kMaxMinutes = 1024;
  static constexpr int64_t kForgetSlice = 64;

  // `connection` must outlive the object.
  explicit sqlite_identities(storix1::Connection* connection) : connection_(connection) {}
  sqlite_identities(const sqlite_identities&) = delete;
  sqlite_identities& operator=(const sqlite_identities&) = delete;

  // Creates the tables when missing and reads what the store needs of them.
  int open(std::string* error);

  // In the open transaction: *known tells whether the result is stored
  // already (committed, or added earlier in the transaction); if not, it is
  // added.
  int remember(const result_identity& identity, bool* known, std::string* error);
  // Takes back the identity remember() added last: its row was refused.
  void take_back(const result_identity& identity);

  // At the start of a transaction begun at `now` (Unix seconds): forgets a
  // slice of the hour nothing was stored into for longest, if that was more
  // than kRememberSeconds ago.
  int forget_expired(int64_t now, std::string* error);
  // Before the commit: writes the identities added, and when their hours
  // were stored into (`now`).
  int write(int64_t now, std::string* error);
  // After the commit, or after a rollback of the transaction.
  void committed();
  void rolled_back();

 private:
  // A hash as two integers, so that comparing one is no call to memcmp:
  // the writer compares several for every result.
  struct key {
    uint64_t high = 0;
    uint64_t low = 0;
    bool operator<(const key& other) const {
      return high != other.high ? high < other.high : low < other.low;
    }
    bool operator==(const key& other) const { return high == other.high && low == other.low; }
  };
  static_assert(sizeof(key) == result_identity::kHashSize);
  static key key_of(const result_identity& identity);

  // The keys added in the open transaction: open addressing, so that adding
  // one allocates nothing.
  class key_set {
   public:
    bool contains(const key& k) const;
    void insert(const key& k);
    void clear();

   private:
    size_t slot(const key& k) const;
    std::vector<key> slots_;
    std::vector<bool> used_;
    size_t size_ = 0;
  };

  struct minute {
    std::vector<key> stored;  // sorted
    uint64_t used = 0;
  };

  // The stored identities of minute `m`, read from the table when not held;
  // null on failure.
  minute* load(int64_t m, int* rc, std::string* error);
  // Lets go of the minutes used longest ago while more than kMaxCached
  // identities or kMaxMinutes minutes are held, keeping the last used.
  void evict();
  void drop(int64_t first_minute, int64_t end_minute);

  storix1::Connection* const connection_;
  std::unordered_map<int64_t, minute> minutes_;
  size_t cached_ = 0;  // hashes held in minutes_
  uint64_t use_clock_ = 0;
  int64_t newest_minute_ = -1;  // of the committed rows; later minutes have none
  // Hour of end time -> when a result of it was last stored, as committed.
  std::map<int64_t, int64_t> hours_;
  // Of the open transaction.
  std::map<int64_t, std::vector<key>> added_;  // by minute, in the order added
  key_set added_set_;
  std::vector<int64_t> hours_written_;
  std::vector<int64_t> hours_emptied_;
  int64_t written_at_ = 0;
};
