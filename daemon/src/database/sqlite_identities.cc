#include "daemon/src/database/sqlite_identities.h"

#include <algorithm>
#include <cstring>
#include <iterator>

namespace {

constexpr int64_t kMinute = 60;
constexpr int64_t kMinutesPerHour = 60;
// An hour's time of last storing is written again only when it moved by this
// much: not with every commit, each of which would write its page again.
// Forgetting waits this much longer.
constexpr int64_t kHourRefreshSeconds = 60;

constexpr const char* kCreateIdentities =
    "CREATE TABLE IF NOT EXISTS vorn_result_ids (end_minute INTEGER NOT NULL, hashes BLOB NOT "
    "NULL)";
constexpr const char* kCreateIndex =
    "CREATE INDEX IF NOT EXISTS vorn_result_ids_by_minute ON vorn_result_ids (end_minute)";
constexpr const char* kCreateHours =
    "CREATE TABLE IF NOT EXISTS vorn_result_id_hours (hour INTEGER PRIMARY KEY, last_stored "
    "INTEGER NOT NULL)";
constexpr const char* kReadHours = "SELECT hour, last_stored FROM vorn_result_id_hours";
constexpr const char* kNewestMinute = "SELECT coalesce(max(end_minute), -1) FROM vorn_result_ids";
constexpr const char* kReadMinute = "SELECT hashes FROM vorn_result_ids WHERE end_minute = $0";
constexpr const char* kWriteMinute =
    "INSERT INTO vorn_result_ids (end_minute, hashes) VALUES ($0, $1)";
constexpr const char* kHourStored =
    "INSERT INTO vorn_result_id_hours (hour, last_stored) VALUES ($0, $1) ON CONFLICT (hour) DO "
    "UPDATE SET last_stored = max(last_stored, excluded.last_stored)";
constexpr const char* kForgetRowsOfHour =
    "DELETE FROM vorn_result_ids WHERE rowid IN (SELECT rowid FROM vorn_result_ids WHERE "
    "end_minute >= $0 AND end_minute < $1 LIMIT $2)";
constexpr const char* kForgetHour = "DELETE FROM vorn_result_id_hours WHERE hour = $0";

}  // namespace

sqlite_identities::key sqlite_identities::key_of(const result_identity& identity) {
  key k;
  std::memcpy(&k, identity.hash.data(), sizeof k);
  return k;
}

size_t sqlite_identities::key_set::slot(const key& k) const {
  // The bits of a cryptographic hash are as well spread as any.
  size_t mask = slots_.size() - 1;
  size_t i = static_cast<size_t>(k.low) & mask;
  while (used_[i] && !(slots_[i] == k)) {
    i = (i + 1) & mask;
  }
  return i;
}

bool sqlite_identities::key_set::contains(const key& k) const {
  return size_ > 0 && used_[slot(k)];
}

void sqlite_identities::key_set::insert(const key& k) {
  if (2 * (size_ + 1) > slots_.size()) {
    std::vector<key> held;
    for (size_t i = 0; i < slots_.size(); ++i) {
      if (used_[i]) {
        held.push_back(slots_[i]);
      }
    }
    slots_.assign(std::max<size_t>(1024, 2 * slots_.size()), key{});
    used_.assign(slots_.size(), false);
    size_ = 0;
    for (const key& h : held) {
      insert(h);
    }
  }
  size_t i = slot(k);
  if (!used_[i]) {
    slots_[i] = k;
    used_[i] = true;
    ++size_;
  }
}

void sqlite_identities::key_set::clear() {
  if (size_ > 0) {
    used_.assign(used_.size(), false);
    size_ = 0;
  }
}

int sqlite_identities::open(std::string* error) {
  for (const char* sql : {kCreateIdentities, kCreateIndex, kCreateHours}) {
    if (int rc = connection_->issueCommand(sql); rc != 0) {
      *error = connection_->getLastErrorInfo();
      return rc;
    }
  }
  hours_.clear();
  for (const char* sql : {kReadHours, kNewestMinute}) {
    storix1::DataWriter* raw = nullptr;
    int rc = connection_->getDataWriter(sql, &raw);
    storix1::Owned<storix1::DataWriter> query(raw);
    if (rc == 0) {
      rc = query->readData([&](const storix1::DataRow& row) {
        if (sql == kReadHours) {
          hours_[row.integer(0)] = row.integer(1);
        } else {
          newest_minute_ = row.integer(0);
        }
      });
    }
    if (rc != 0) {
      *error = query ? query->getLastErrorInfo() : connection_->getLastErrorInfo();
      return rc;
    }
  }
  return 0;
}

sqlite_identities::minute* sqlite_identities::load(int64_t m, int* rc, std::string* error) {
  *rc = 0;
  if (auto it = minutes_.find(m); it != minutes_.end()) {
    it->second.used = ++use_clock_;
    return &it->second;
  }
  minute fresh;
  fresh.used = ++use_clock_;
  if (m <= newest_minute_) {
    storix1::DataWriter* raw = nullptr;
    *rc = connection_->getDataWriter(kReadMinute, &raw);
    storix1::Owned<storix1::DataWriter> query(raw);
    if (*rc == 0) {
      query->bindParam(0, storix1::kInt64, 8, &m);
      *rc = query->readData([&](const storix1::DataRow& row) {
        std::string_view hashes = row.blob(0);
        for (size_t at = 0; at + sizeof(key) <= hashes.size(); at += sizeof(key)) {
          key& k = fresh.stored.emplace_back();
          std::memcpy(&k, hashes.data() + at, sizeof k);
        }
      });
    }
    if (*rc != 0) {
      *error = query ? query->getLastErrorInfo() : connection_->getLastErrorInfo();
      return nullptr;
    }
    std::sort(fresh.stored.begin(), fresh.stored.end());
  }
  cached_ += fresh.stored.size();
  minute* loaded = &minutes_.emplace(m, std::move(fresh)).first->second;
  evict();
  return loaded;
}

void sqlite_identities::evict() {
  while ((cached_ > kMaxCached || minutes_.size() > kMaxMinutes) && minutes_.size() > 1) {
    auto oldest = minutes_.begin();
    for (auto it = minutes_.begin(); it != minutes_.end(); ++it) {
      if (it->second.used < oldest->second.used) {
        oldest = it;
      }
    }
    cached_ -= oldest->second.stored.size();
    minutes_.erase(oldest);
  }
}

void sqlite_identities::drop(int64_t first_minute, int64_t end_minute) {
  for (int64_t m = first_minute; m < end_minute; ++m) {
    if (auto it = minutes_.find(m); it != minutes_.end()) {
      cached_ -= it->second.stored.size();
      minutes_.erase(it);
    }
  }
}

int sqlite_identities::remember(const result_identity& identity, bool* known, std::string* error) {
  const key h = key_of(identity);
  if (added_set_.contains(h)) {
    *known = true;
    return 0;
  }
  int64_t m = identity.end_seconds / kMinute;
  int rc = 0;
  minute* stored = load(m, &rc, error);
  if (stored == nullptr) {
    return rc;
  }
  *known = std::binary_search(stored->stored.begin(), stored->stored.end(), h);
  if (!*known) {
    added_set_.insert(h);
    added_[m].push_back(h);
  }
  return 0;
}

void sqlite_identities::take_back(const result_identity& identity) {
  auto it = added_.find(identity.end_seconds / kMinute);
  if (it == added_.end() || it->second.empty() || !(it->second.back() == key_of(identity))) {
    return;
  }
  it->second.pop_back();
  if (it->second.empty()) {
    added_.erase(it);
  }
  // Rare (a refused row): the set is made anew rather than taught to erase.
  added_set_.clear();
  for (const auto& [m, keys] : added_) {
    for (const key& k : keys) {
      added_set_.insert(k);
    }
  }
}

int sqlite_identities::forget_expired(int64_t now, std::string* error) {
  auto oldest = hours_.end();
  for (auto it = hours_.begin(); it != hours_.end(); ++it) {
    if (oldest == hours_.end() || it->second < oldest->second) {
      oldest = it;
    }
  }
  if (oldest == hours_.end() || now - oldest->second <= kRememberSeconds + kHourRefreshSeconds) {
    return 0;
  }
  int64_t hour = oldest->first;
  int64_t from = hour * kMinutesPerHour;
  int64_t to = from + kMinutesPerHour;
  int64_t limit = kForgetSlice;
  // Lookups read what is left of the hour from the table again.
  drop(from, to);
  storix1::DataWriter* raw = nullptr;
  int rc = connection_->getDataWriter(kForgetRowsOfHour, &raw);
  storix1::Owned<storix1::DataWriter> erase(raw);
  if (rc == 0) {
    erase->bindParam(0, storix1::kInt64, 8, &from);
    erase->bindParam(1, storix1::kInt64, 8, &to);
    erase->bindParam(2, storix1::kInt64, 8, &limit);
    rc = erase->writeData();
  }
  if (rc == 0 && connection_->changes() < limit) {
    // The hour's last rows: the hour goes too.
    erase.reset();
    if ((rc = connection_->getDataWriter(kForgetHour, &raw)) == 0) {
      erase.reset(raw);
      erase->bindParam(0, storix1::kInt64, 8, &hour);
      rc = erase->writeData();
    }
    if (rc == 0) {
      hours_emptied_.push_back(hour);
    }
  }
  if (rc != 0) {
    *error = erase ? erase->getLastErrorInfo() : connection_->getLastErrorInfo();
  }
  return rc;
}

int sqlite_identities::write(int64_t now, std::string* error) {
  written_at_ = now;
  storix1::DataWriter* raw = nullptr;
  for (auto& [m, hashes] : added_) {
    int rc = connection_->getDataWriter(kWriteMinute, &raw);
    storix1::Owned<storix1::DataWriter> insert(raw);
    if (rc == 0) {
      int64_t end_minute = m;
      insert->bindParam(0, storix1::kInt64, 8, &end_minute);
      insert->bindParam(1, storix1::kBlob, hashes.size() * sizeof(key), hashes.data());
      rc = insert->writeData();
    }
    int64_t hour = m / kMinutesPerHour;
    auto known = hours_.find(hour);
    bool fresh = known != hours_.end() && now - known->second < kHourRefreshSeconds;
    if (rc == 0 && !fresh && (hours_written_.empty() || hours_written_.back() != hour)) {
      insert.reset();
      if ((rc = connection_->getDataWriter(kHourStored, &raw)) == 0) {
        insert.reset(raw);
        insert->bindParam(0, storix1::kInt64, 8, &hour);
        insert->bindParam(1, storix1::kInt64, 8, &now);
        rc = insert->writeData();
      }
      hours_written_.push_back(hour);
    }
    if (rc != 0) {
      *error = insert ? insert->getLastErrorInfo() : connection_->getLastErrorInfo();
      return rc;
    }
  }
  return 0;
}

void sqlite_identities::committed() {
  for (auto& [m, hashes] : added_) {
    newest_minute_ = std::max(newest_minute_, m);
    auto it = minutes_.find(m);
    if (it == minutes_.end()) {
      continue;  // read from the table when next needed
    }
    std::vector<key>& stored = it->second.stored;
    std::sort(hashes.begin(), hashes.end());
    std::vector<key> merged;
    merged.reserve(stored.size() + hashes.size());
    std::merge(stored.begin(), stored.end(), hashes.begin(), hashes.end(),
               std::back_inserter(merged));
    stored.swap(merged);
    cached_ += hashes.size();
  }
  for (int64_t hour : hours_emptied_) {
    hours_.erase(hour);
  }
  for (int64_t hour : hours_written_) {
    int64_t& last_stored = hours_[hour];
    last_stored = std::max(last_stored, written_at_);
  }
  rolled_back();
  evict();
}

void sqlite_identities::rolled_back() {
  added_.clear();
  added_set_.clear();
  hours_written_.clear();
  hours_emptied_.clear();
}
