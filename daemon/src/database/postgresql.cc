#include "daemon/src/database/postgresql.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <set>
#include <string_view>

#include "daemon/src/database/retention.h"
#include "daemon/src/database/schema.h"
#include "daemon/src/database/stored_outputs.h"
#include "util/czmq.h"
#include "util/log.h"
#include "util/str.h"

namespace {

constexpr const char* kLogSource = "daemon/src/database";

bool valid_utf8(std::string_view text) {
  size_t i = 0;
  while (i < text.size()) {
    auto c = static_cast<unsigned char>(text[i]);
    size_t length = c < 0x80           ? 1
                    : (c >> 5) == 0x6  ? 2
                    : (c >> 4) == 0xe  ? 3
                    : (c >> 3) == 0x1e ? 4
                                       : 0;
    if (length == 0 || i + length > text.size()) {
      return false;
    }
    uint32_t code = length == 1 ? c : c & (0x7f >> length);
    for (size_t k = 1; k < length; ++k) {
      auto next = static_cast<unsigned char>(text[i + k]);
      if ((next & 0xc0) != 0x80) {
        return false;
      }
      code = (code << 6) | (next & 0x3f);
    }
    // Overlong forms, surrogates and code points past Unicode are not UTF-8.
    static constexpr uint32_t kSmallest[] = {0, 0, 0x80, 0x800, 0x10000};
    if (code < kSmallest[length] || (code >= 0xd800 && code <= 0xdfff) || code > 0x10ffff) {
      return false;
    }
    i += length;
  }
  return true;
}

// COPY's binary layout: big-endian integers, each field after its length.
void put16(std::string& out, uint16_t v) {
  out.push_back(static_cast<char>(v >> 8));
  out.push_back(static_cast<char>(v));
}
void put32(std::string& out, uint32_t v) {
  for (int shift = 24; shift >= 0; shift -= 8) {
    out.push_back(static_cast<char>(v >> shift));
  }
}
void put64(std::string& out, uint64_t v) {
  for (int shift = 56; shift >= 0; shift -= 8) {
    out.push_back(static_cast<char>(v >> shift));
  }
}
void field_int32(std::string& out, int32_t v) {
  put32(out, 4);
  put32(out, static_cast<uint32_t>(v));
}
void field_int64(std::string& out, int64_t v) {
  put32(out, 8);
  put64(out, static_cast<uint64_t>(v));
}
void field_double(std::string& out, double v) {
  uint64_t bits = 0;
  std::memcpy(&bits, &v, sizeof bits);
  put32(out, 8);
  put64(out, bits);
}
void field_bytes(std::string& out, std::string_view bytes) {
  put32(out, static_cast<uint32_t>(bytes.size()));
  out.append(bytes);
}

constexpr char kCopyHeader[] = "PGCOPY\n\377\r\n\0\0\0\0\0\0\0\0\0";  // signature, flags, extension
constexpr size_t kCopyHeaderSize = 19;
constexpr char kCopyTrailer[] = "\377\377";

// SQLSTATE classes of failures that name no row: the rows are kept and
// written again. Anything unknown is kept too; losing a row needs a reason.
bool refuses_a_value(const PGresult* result) {
  const char* state = result != nullptr ? PQresultErrorField(result, PG_DIAG_SQLSTATE) : nullptr;
  if (state == nullptr) {
    return false;
  }
  // 22: data exception (a text the database encoding cannot hold, a value
  // out of range); 23: a constraint.
  return std::strncmp(state, "22", 2) == 0 || std::strncmp(state, "23", 2) == 0;
}

// A server that answered a connection and said no for a reason that
// waiting does not mend. libpq gives no code for these, only its text.
bool connection_refused_for_good(PGconn* connection) {
  if (PQconnectionNeedsPassword(connection)) {
    return true;
  }
  std::string message = PQerrorMessage(connection);
  for (const char* reason : {"authentication failed", "does not exist", "no pg_hba.conf entry",
                             "password is required", "invalid"}) {
    if (message.find(reason) != std::string::npos) {
      return true;
    }
  }
  return false;
}

void ignore_notice(void*, const char*) {}

// `sql` with $1 and $2 written as `one` and `two`: numbers of ours, so that
// a statement goes in one query string with others.
std::string bound(std::string sql, const std::string& one, const std::string& two = "") {
  for (auto [name, value] : {std::pair{"$1", &one}, std::pair{"$2", &two}}) {
    for (size_t at = sql.find(name); at != std::string::npos; at = sql.find(name, at)) {
      sql.replace(at, 2, *value);
      at += value->size();
    }
  }
  return sql;
}

}  // namespace

size_t postgresql::identity_hash::operator()(
    const std::array<unsigned char, result_identity::kHashSize>& h) const {
  // The bits of a cryptographic hash are as well spread as any.
  size_t v = 0;
  std::memcpy(&v, h.data(), sizeof v);
  return v;
}

postgresql::postgresql(const daemon_config& config, bool exactly_once)
    : config_(config), exactly_once_(exactly_once) {}

postgresql::~postgresql() {
  if (!rows_.empty() && flush() != commit_result::committed) {
    VORN_LOG(1) << "Database unavailable at shutdown (" << last_error_ << "). Stored results lost!";
  }
  // Left pending, the rows would be folded in by the next server to start.
  if (connection_ && (!pending_ || fold_latest())) {
    command(bound(vorn::schema::kDropMarkPostgresql, mark_).c_str(), "dropping the mark");
  }
}

bool postgresql::connect() {
  if (connection_) {
    return true;
  }
  refused_for_good_ = false;
  // Later keywords win: what the url says overrides these defaults. A
  // server that vanished without a word (a partition, a power cut) is noticed
  // by TCP keepalives within about a minute, not the system's two hours.
  std::vector<const char*> keywords = {
      "connect_timeout",     "fallback_application_name", "client_encoding", "keepalives_idle",
      "keepalives_interval", "keepalives_count",          "dbname"};
  std::vector<const char*> values = {
      "10", "vorn-serverd", "UTF8", "30", "10", "3", config_.database_url.c_str()};
  // A stopping server waits for a connection no longer than it has left.
  std::string timeout;
  if (int64_t give_up_at = give_up_at_.load(std::memory_order_relaxed); give_up_at > 0) {
    timeout = std::to_string(std::max<int64_t>(2, (give_up_at - zclock_mono()) / 1000));
    keywords.push_back("connect_timeout");
    values.push_back(timeout.c_str());
  }
  keywords.push_back(nullptr);
  values.push_back(nullptr);
  pq_connection connection(PQconnectdbParams(keywords.data(), values.data(), 1));
  if (!connection) {
    last_error_ = "cannot connect to PostgreSQL: out of memory";
    return false;
  }
  // Notices ("relation already exists, skipping") are no news.
  PQsetNoticeProcessor(connection.get(), ignore_notice, nullptr);
  if (PQstatus(connection.get()) != CONNECTION_OK) {
    last_error_ = "cannot connect to PostgreSQL: " + pq_one_line(PQerrorMessage(connection.get()));
    refused_for_good_ = connection_refused_for_good(connection.get());
    return false;
  }
  connection_ = std::move(connection);
  std::string set_up = std::string("BEGIN; ") + vorn::schema::kLockForSetUpPostgresql + "; " +
                       vorn::schema::kCreateResultsPostgresql + "; " +
                       vorn::schema::kCreateLatestPostgresql + "; " +
                       vorn::schema::kCreateMarksPostgresql + "; ";
  if (exactly_once_) {
    set_up += std::string(vorn::schema::kCreateIdentitiesPostgresql) + "; " +
              vorn::schema::kCreateIdentityHoursPostgresql + "; " +
              vorn::schema::kMigrateIdentityHoursPostgresql + "; ";
  }
  set_up += "COMMIT";
  pq_result layout;
  if (!command(set_up.c_str(), "creating the tables") ||
      !check(pq_result(PQexec(connection_.get(), vorn::schema::kResultsLayoutPostgresql)),
             "reading the columns of vorn_1", &layout)) {
    // Not allowed to create or read them: an administrator's business.
    refused_for_good_ = sqlstate_.compare(0, 2, "42") == 0;
    connection_.reset();
    return false;
  }
  std::string columns = PQgetvalue(layout.get(), 0, 0);
  if (columns != vorn::schema::kResultsLayout) {
    last_error_ = "table vorn_1 has the columns (" + columns +
                  "), not the ones the server writes (" + vorn::schema::kResultsLayout + ")";
    refused_for_good_ = true;
    connection_.reset();
    return false;
  }
  // Rows that reached vorn_1 without a server (a hand-made insert) are
  // summarised here.
  if (!command(vorn::schema::kCatchUp, "bringing vorn_latest up to date") ||
      (exactly_once_ &&
       !command(vorn::schema::kCreateProbePostgresql, "creating a temporary table"))) {
    connection_.reset();
    return false;
  }
  if (!retention_ && config_.retention_seconds > 0) {
    retention_ = std::make_unique<retention_sweeper>(
        config_.retention_seconds,
        postgresql_retention(config_.database_url, config_.retention_seconds), false);
  }
  pq_result mark;
  if (!check(pq_result(PQexec(connection_.get(), vorn::schema::kTakeMarkPostgresql)),
             "taking a mark in vorn_latest_marks", &mark)) {
    connection_.reset();
    return false;
  }
  mark_ = PQgetvalue(mark.get(), 0, 0);
  pending_ = false;
  // Rows of servers that stopped before folding them in.
  return fold_latest();
}

bool postgresql::fold_latest() {
  pq_result orphans;
  if (!check(pq_result(PQexec(connection_.get(),
                              bound(vorn::schema::kTakeOrphanMarksPostgresql, mark_).c_str())),
             "looking for marks of stopped servers", &orphans)) {
    connection_.reset();
    return false;
  }
  last_fold_ms_ = zclock_mono();
  if (PQntuples(orphans.get()) == 0 && !pending_) {
    return true;
  }
  std::string marks = "'{" + mark_;
  for (int i = 0; i < PQntuples(orphans.get()); ++i) {
    marks += std::string(",") + PQgetvalue(orphans.get(), i, 0);
  }
  marks += "}'";
  std::string sql = "BEGIN; " + bound(vorn::schema::kFoldMarksPostgresql, marks) + "; " +
                    bound(vorn::schema::kClearMarksPostgresql, marks, mark_) + "; COMMIT; " +
                    bound(vorn::schema::kReleaseMarksPostgresql, marks, mark_);
  // The rows are committed whatever happens here: on a failure the mark
  // stays pending, and readers and the next server to start go by it.
  if (!command(sql.c_str(), "bringing vorn_latest up to date")) {
    VORN_LOG(6) << last_error_;
    connection_.reset();
    return false;
  }
  pending_ = false;
  return true;
}

bool postgresql::check(pq_result result, const char* what, pq_result* out) {
  ExecStatusType status = result ? PQresultStatus(result.get()) : PGRES_FATAL_ERROR;
  if (status == PGRES_COMMAND_OK || status == PGRES_TUPLES_OK) {
    if (out != nullptr) {
      *out = std::move(result);
    }
    failure_ = failure::none;
    return true;
  }
  const char* message =
      result ? PQresultErrorMessage(result.get()) : PQerrorMessage(connection_.get());
  last_error_ = std::string(what) + ": " + pq_one_line(message);
  failure_ = refuses_a_value(result.get()) ? failure::refused : failure::may_pass;
  const char* state = result ? PQresultErrorField(result.get(), PG_DIAG_SQLSTATE) : nullptr;
  sqlstate_ = state != nullptr ? state : "";
  return false;
}

bool postgresql::command(const char* sql, const char* what) {
  return check(pq_result(PQexec(connection_.get(), sql)), what);
}

void postgresql::clear_rows() {
  copy_.clear();
  rows_.clear();
  identities_.clear();
}

write_status postgresql::write(const result_view& record, const result_identity* known) {
  // Rows are only buffered here, but while there is no server to take them
  // the writer should wait rather than buffer them again and again. Retry
  // means every row since the last commit comes again.
  if (!connect()) {
    clear_rows();
    return write_status::retry;
  }
  const result_header& h = record.header;
  staged_row row;
  if (exactly_once_) {
    row.identity = known != nullptr ? *known : identify(record);
    if (!identities_.insert(row.identity.hash).second) {
      return write_status::duplicate;
    }
  }
  for (auto [text, name] :
       {std::pair{h.name, "provider name"}, std::pair{h.hostname, "host name"},
        std::pair{record.nodes_csv, "node list"}, std::pair{h.option_id, "option set"}}) {
    if (!valid_utf8(text)) {
      last_error_ =
          std::string("its ") + name + " is not UTF-8, which PostgreSQL cannot store as text";
      VORN_LOG(3) << "Database insertion error: " << last_error_;
      identities_.erase(row.identity.hash);
      return write_status::refused;
    }
  }
  stored_outputs outputs;
  outputs_to_store(record, &outputs);

  row.begin = copy_.size();
  put16(copy_, vorn::schema::kCopyResultsColumns);
  field_bytes(copy_, h.name);
  field_bytes(copy_, h.hostname);
  field_int32(copy_, h.num_nodes);
  field_bytes(copy_, record.nodes_csv);
  field_int32(copy_, h.exit_status);
  // As SQLite has it: the seconds as a 32-bit integer.
  field_int64(copy_, static_cast<int32_t>(h.timestamp.tv_sec));
  field_double(copy_, h.duration);
  field_int32(copy_, h.encoding);
  field_int64(copy_, static_cast<int64_t>(outputs.out.size()));
  field_bytes(copy_, outputs.out);
  field_int64(copy_, static_cast<int64_t>(outputs.err.size()));
  field_bytes(copy_, outputs.err);
  field_bytes(copy_, h.option_id);
  field_int32(copy_, h.version);
  row.end = copy_.size();
  row.provider = h.name;
  row.host = h.hostname;
  rows_.push_back(std::move(row));
  return write_status::written;
}

bool postgresql::copy_in(const char* sql, const char* what,
                         const std::vector<std::string_view>& pieces) {
  pq_result started(PQexec(connection_.get(), sql));
  if (!started || PQresultStatus(started.get()) != PGRES_COPY_IN) {
    return check(std::move(started), what);
  }
  bool copied = send_copy(what, pieces) && check(pq_result(PQgetResult(connection_.get())), what);
  while (PGresult* more = PQgetResult(connection_.get())) {
    PQclear(more);
  }
  return copied;
}

bool postgresql::send_copy(const char* what, const std::vector<std::string_view>& pieces) {
  PGconn* connection = connection_.get();
  // PQputCopyData takes an int: large pieces go in parts.
  constexpr size_t kPart = size_t{1} << 26;
  bool sent = PQputCopyData(connection, kCopyHeader, kCopyHeaderSize) == 1;
  for (std::string_view piece : pieces) {
    for (size_t at = 0; sent && at < piece.size(); at += kPart) {
      size_t part = std::min(kPart, piece.size() - at);
      sent = PQputCopyData(connection, piece.data() + at, static_cast<int>(part)) == 1;
    }
  }
  sent = sent && PQputCopyData(connection, kCopyTrailer, 2) == 1;
  if (PQputCopyEnd(connection, sent ? nullptr : "not sent whole") != 1) {
    last_error_ = std::string(what) + ": " + pq_one_line(PQerrorMessage(connection));
    failure_ = failure::may_pass;
    return false;
  }
  return true;
}

std::string postgresql::begin_sql() const {
  return pending_ ? "BEGIN; " : "BEGIN; " + bound(vorn::schema::kSetMarkPostgresql, mark_) + "; ";
}

bool postgresql::begin() {
  return command(begin_sql().c_str(), "begin");
}

std::string postgresql::identity_tuples(const std::vector<size_t>& batch) const {
  // In key order, so that two servers adding the same ones wait for each
  // other instead of deadlocking.
  std::vector<const result_identity*> sorted;
  for (size_t i : batch) {
    sorted.push_back(&rows_[i].identity);
  }
  std::sort(sorted.begin(), sorted.end(), [](const result_identity* a, const result_identity* b) {
    return a->end_seconds != b->end_seconds ? a->end_seconds < b->end_seconds : a->hash < b->hash;
  });
  std::string tuples;
  for (const result_identity* identity : sorted) {
    put16(tuples, 2);
    field_int64(tuples, identity->end_seconds);
    field_bytes(tuples, std::string_view(reinterpret_cast<const char*>(identity->hash.data()),
                                         identity->hash.size()));
  }
  return tuples;
}

bool postgresql::copy_identities(const std::vector<size_t>& batch, const char* sql) {
  if (copy_in(sql, "remembering stored results", {identity_tuples(batch)})) {
    return true;
  }
  if (sqlstate_ == "23505") {
    failure_ = failure::known;
  }
  return false;
}

std::vector<std::string_view> postgresql::result_pieces(const std::vector<size_t>& batch) const {
  // Rows next to each other in the buffer go as one piece.
  std::vector<std::string_view> pieces;
  size_t begin = 0;
  size_t end = 0;
  for (size_t i : batch) {
    if (rows_[i].begin != end) {
      if (end > begin) {
        pieces.emplace_back(copy_.data() + begin, end - begin);
      }
      begin = rows_[i].begin;
    }
    end = rows_[i].end;
  }
  pieces.emplace_back(copy_.data() + begin, end - begin);
  return pieces;
}

bool postgresql::copy_results(const std::vector<size_t>& batch) {
  return copy_in(vorn::schema::kCopyResultsPostgresql, "insert", result_pieces(batch));
}

bool postgresql::store_and_commit(const std::vector<size_t>& batch) {
  // One query string for BEGIN, the mark, both COPYs and the COMMIT: the
  // server runs them in turn and asks for each COPY's data as it comes to
  // it, so that a commit waits for one answer here. After a failure it skips
  // the rest, and the transaction is left to be rolled back.
  std::string sql = begin_sql();
  std::vector<std::pair<const char*, std::vector<std::string_view>>> copies;
  std::string identities;
  if (exactly_once_) {
    sql += std::string(vorn::schema::kCopyIdentitiesPostgresql) + "; ";
    identities = identity_tuples(batch);
    copies.push_back({"remembering stored results", {identities}});
  }
  sql +=
      std::string(vorn::schema::kCopyResultsPostgresql) + "; " + note_hours_sql(batch) + "COMMIT";
  copies.push_back({"insert", result_pieces(batch)});
  PGconn* connection = connection_.get();
  if (PQsendQuery(connection, sql.c_str()) != 1) {
    last_error_ = std::string("begin: ") + pq_one_line(PQerrorMessage(connection));
    failure_ = failure::may_pass;
    return false;
  }
  bool stored = true;
  size_t copy = 0;
  const char* what = "begin";
  // Every result is read, also after a failure, so that the connection is
  // ready for the next statement.
  while (PGresult* next = PQgetResult(connection)) {
    pq_result result(next);
    if (!stored) {
      continue;
    }
    ExecStatusType status = PQresultStatus(result.get());
    if (status == PGRES_COPY_IN) {
      if (copy == copies.size()) {
        last_error_ = "insert: PostgreSQL asked for more COPY data than was sent";
        failure_ = failure::may_pass;
        stored = false;
        continue;
      }
      what = copies[copy].first;
      stored = send_copy(what, copies[copy].second);
      ++copy;
    } else {
      stored = check(std::move(result), what);
      if (!stored && exactly_once_ && copy == 1 && sqlstate_ == "23505") {
        failure_ = failure::known;
      }
    }
  }
  if (stored && copy != copies.size()) {
    last_error_ = std::string("insert: ") + pq_one_line(PQerrorMessage(connection));
    failure_ = failure::may_pass;
    return false;
  }
  return stored;
}

bool postgresql::store(const std::vector<size_t>& batch) {
  return (!exactly_once_ || copy_identities(batch, vorn::schema::kCopyIdentitiesPostgresql)) &&
         copy_results(batch);
}

bool postgresql::find_stored() {
  std::vector<size_t> batch = unstored_rows();
  pq_result found;
  if (!command("BEGIN", "begin") || !copy_identities(batch, vorn::schema::kCopyProbePostgresql) ||
      !check(pq_result(PQexecParams(connection_.get(), vorn::schema::kFindStoredPostgresql, 0,
                                    nullptr, nullptr, nullptr, nullptr, 1)),
             "looking up stored results", &found) ||
      !command("COMMIT", "commit")) {
    return false;
  }
  std::set<std::pair<int64_t, std::string>> stored;
  for (int i = 0; i < PQntuples(found.get()); ++i) {
    uint64_t end = 0;
    for (int k = 0; k < 8; ++k) {
      end = (end << 8) | static_cast<unsigned char>(PQgetvalue(found.get(), i, 0)[k]);
    }
    stored.emplace(static_cast<int64_t>(end),
                   std::string(PQgetvalue(found.get(), i, 1), PQgetlength(found.get(), i, 1)));
  }
  for (size_t i : batch) {
    const result_identity& identity = rows_[i].identity;
    std::string hash(reinterpret_cast<const char*>(identity.hash.data()), identity.hash.size());
    rows_[i].stored_already = stored.count({identity.end_seconds, hash}) > 0;
  }
  return true;
}

bool postgresql::forget_old_identities() {
  int64_t now = zclock_mono();
  if (!exactly_once_ || now - last_forget_ms_ < kForgetEveryMs) {
    return true;
  }
  // Hours are noted at most once a minute: a minute more, so that none is
  // forgotten early.
  std::string age = std::to_string(kRememberSeconds + kNoteHourEveryMs / 1000);
  std::string limit = std::to_string(std::max(kForgetAtLeast, 2 * stored_since_forget_));
  const char* values[] = {age.c_str(), limit.c_str()};
  if (!check(pq_result(PQexecParams(connection_.get(), vorn::schema::kForgetIdentitiesPostgresql, 2,
                                    nullptr, values, nullptr, nullptr, 0)),
             "forgetting old results")) {
    return false;
  }
  last_forget_ms_ = now;
  stored_since_forget_ = 0;
  return true;
}

std::vector<size_t> postgresql::unstored_rows() const {
  std::vector<size_t> batch;
  for (size_t i = 0; i < rows_.size(); ++i) {
    if (!rows_[i].stored_already && !rows_[i].lost) {
      batch.push_back(i);
    }
  }
  return batch;
}

commit_result postgresql::give_up_transaction() {
  // A new connection starts clean, and finds a server that restarted or
  // failed over.
  connection_.reset();
  clear_rows();
  return commit_result::retry;
}

commit_result postgresql::committed() {
  found_stored_ = 0;
  for (const staged_row& row : rows_) {
    found_stored_ += row.stored_already;
    stored_since_forget_ += !row.stored_already && !row.lost;
  }
  clear_rows();
  fold_when_due();
  if (retention_) {
    retention_->note_commit();
  }
  return commit_result::committed;
}

std::string postgresql::note_hours_sql(const std::vector<size_t>& batch) {
  hours_noting_.clear();
  if (!exactly_once_) {
    return "";
  }
  int64_t now = zclock_mono();
  std::set<int64_t> hours;
  for (size_t i : batch) {
    int64_t hour = rows_[i].identity.end_seconds / 3600;
    auto noted = hours_noted_.find(hour);
    if (noted == hours_noted_.end() || now - noted->second >= kNoteHourEveryMs) {
      hours.insert(hour);
    }
  }
  if (hours.empty()) {
    return "";
  }
  std::string list;
  for (int64_t hour : hours) {
    list += (list.empty() ? "'{" : ",") + std::to_string(hour);
    hours_noting_.push_back(hour);
  }
  return bound(vorn::schema::kNoteIdentityHoursPostgresql, list + "}'") + "; ";
}

void postgresql::transaction_committed() {
  pending_ = true;
  int64_t now = zclock_mono();
  if (hours_noted_.size() > 64) {
    for (auto it = hours_noted_.begin(); it != hours_noted_.end();) {
      it = now - it->second >= kNoteHourEveryMs ? hours_noted_.erase(it) : std::next(it);
    }
  }
  for (int64_t hour : hours_noting_) {
    hours_noted_[hour] = now;
  }
  hours_noting_.clear();
}

void postgresql::fold_when_due() {
  if (pending_ && zclock_mono() - last_fold_ms_ >= kFoldEveryMs) {
    fold_latest();
  }
}

commit_result postgresql::flush() {
  found_stored_ = 0;
  if (rows_.empty()) {
    if (connection_) {
      fold_when_due();
    }
    return commit_result::committed;
  }
  if (!connect()) {
    clear_rows();
    return commit_result::retry;
  }
  // A result stored already fails the commit: the stored ones are looked up
  // and left out, and the rest tried again. Each round finds one at least.
  for (size_t round = 0; round <= rows_.size(); ++round) {
    std::vector<size_t> batch = unstored_rows();
    if (batch.empty()) {
      return committed();
    }
    if (forget_old_identities() && store_and_commit(batch)) {
      transaction_committed();
      return committed();
    }
    if (failure_ == failure::refused) {
      return store_one_by_one();
    }
    if (failure_ != failure::known || !command("ROLLBACK", "rollback") || !find_stored()) {
      return give_up_transaction();
    }
  }
  return give_up_transaction();
}

commit_result postgresql::store_one_by_one() {
  if (!command("ROLLBACK", "rollback") || !begin()) {
    return give_up_transaction();
  }
  for (size_t i : unstored_rows()) {
    if (!command("SAVEPOINT vorn_row", "savepoint")) {
      return give_up_transaction();
    }
    if (!store({i})) {
      if (failure_ == failure::known) {
        rows_[i].stored_already = true;
      } else if (failure_ == failure::refused) {
        rows_[i].lost = true;
        VORN_LOG(1) << "Error writing to database. Data lost! (data provider '"
                    << vorn::str::printable(rows_[i].provider) << "' from "
                    << vorn::str::printable(rows_[i].host) << ": " << last_error_ << ")";
      } else {
        return give_up_transaction();
      }
      if (!command("ROLLBACK TO SAVEPOINT vorn_row", "rollback")) {
        return give_up_transaction();
      }
    }
    if (!command("RELEASE SAVEPOINT vorn_row", "savepoint")) {
      return give_up_transaction();
    }
  }
  if (!command((note_hours_sql(unstored_rows()) + "COMMIT").c_str(), "commit")) {
    return give_up_transaction();
  }
  transaction_committed();
  return committed();
}

bool valid_database_url(const std::string& url, std::string* error) {
  std::string why = pq_url_error(url);
  if (why.empty()) {
    return true;
  }
  *error = "database_url is not a PostgreSQL connection string or URI: " + why;
  return false;
}

std::unique_ptr<database> open_postgresql(const daemon_config& config) {
  std::string error;
  if (!valid_database_url(config.database_url, &error)) {
    VORN_LOG(3) << error;
    return nullptr;
  }
  auto store = std::make_unique<postgresql>(config);
  if (!store->connect()) {
    if (store->refused_for_good()) {
      VORN_LOG(3) << "PostgreSQL cannot be used: " << store->last_error();
      return nullptr;
    }
    // In a cluster the database and the collector start in any order.
    VORN_LOG(4) << "Waiting for PostgreSQL (" << store->last_error()
                << "); received results are kept until it answers";
  }
  return store;
}
