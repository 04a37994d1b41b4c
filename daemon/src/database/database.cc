#include "daemon/src/database/database.h"

#include <fcntl.h>
#include <pthread.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <thread>

#include "daemon/src/database/postgresql.h"
#include "daemon/src/database/retention.h"
#include "daemon/src/database/schema.h"
#include "daemon/src/database/sqlite_identities.h"
#include "daemon/src/database/stored_outputs.h"
#include "util/czmq.h"
#include "util/fs.h"
#include "util/log.h"
#include "util/str.h"

namespace {

constexpr const char* kLogSource = "daemon/src/database";

constexpr const char* kInsert =
    "INSERT INTO vorn_1 (Provider, Hostname, num_nodes, node_names, Exit_status, Timestamp, "
    "Duration, Encoding, Stdout_size, STDOUT, Stderr_size,STDERR, OptionID, version) values "
    "($0, $1, $2, $3, $4, $5, $6, $7, $8, $9, $10, $11, $12, $13)";

storix1::Owned<storix1::Connection> connect(const daemon_config& config) {
  storix1::Connection* raw = nullptr;
  int rc = config.run_mode == 0 ? storix1::newConnection(config.database_file.c_str(), 0, &raw)
                                : storix1::newConnection(config.database_file.c_str(), 0,
                                                         config.database_vfs.c_str(), &raw);
  return storix1::Owned<storix1::Connection>(rc == 0 ? raw : nullptr);
}

}  // namespace

// Runs a passive checkpoint every kIntervalMs, and a last one when stopped.
class wal_checkpointer {
 public:
  static constexpr int kIntervalMs = 200;

  explicit wal_checkpointer(storix1::Owned<storix1::Connection> connection)
      : connection_(std::move(connection)), thread_([this] { run(); }) {}

  ~wal_checkpointer() {
    {
      std::lock_guard<std::mutex> lock(mutex_);
      stopping_ = true;
    }
    wake_.notify_one();
    thread_.join();
  }

 private:
  void run() {
    pthread_setname_np(pthread_self(), "vorn-checkpoint");
    std::unique_lock<std::mutex> lock(mutex_);
    for (;;) {
      bool stopping = wake_.wait_for(lock, std::chrono::milliseconds(kIntervalMs),
                                     [this] { return stopping_; });
      lock.unlock();
      // A checkpoint that cannot finish now (a reader in the way) is simply
      // repeated next time.
      connection_->issueCommand("PRAGMA wal_checkpoint(PASSIVE)");
      lock.lock();
      if (stopping) {
        return;
      }
    }
  }

  storix1::Owned<storix1::Connection> connection_;
  std::mutex mutex_;
  std::condition_variable wake_;
  bool stopping_ = false;
  std::thread thread_;
};

namespace {

// Why a file could not be used as the store.
enum class open_failure {
  none,
  unusable,  // not a database, corrupt, or a directory: to be moved aside
  other,     // permissions, descriptors, locks: left as it is
};

bool unusable_error(int rc) {
  return (rc & 0xff) == SQLITE_NOTADB || (rc & 0xff) == SQLITE_CORRUPT;
}

// Failures that may pass: another process's lock, a full disk, a disk or
// file system failing for a while. Rows that meet one are kept and retried.
bool may_pass(int rc) {
  switch (rc & 0xff) {
    case SQLITE_BUSY:
    case SQLITE_LOCKED:
    case SQLITE_FULL:
    case SQLITE_IOERR:
    case SQLITE_NOMEM:
    case SQLITE_CANTOPEN:
    case SQLITE_READONLY:
    case SQLITE_PROTOCOL:
      return true;
    default:
      return false;
  }
}

std::unique_ptr<database> try_open_database(const daemon_config& config, open_failure* failure) {
  const std::string& path = config.database_file;
  int fd = ::open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0644);
  if (fd <= 0) {
    int error = errno;
    if (fd == 0) {
      ::close(fd);
    }
    VORN_LOG(3) << "Error opening database file '" << path << "' " << vorn::log::sys_error(error);
    *failure = fd < 0 && error == EISDIR ? open_failure::unusable : open_failure::other;
    return nullptr;
  }
  ::close(fd);
  auto store = std::make_unique<sqlite>(config);
  if (!store->usable()) {
    VORN_LOG(3) << "Could not initialize the database.";
    *failure = unusable_error(store->open_error()) ? open_failure::unusable : open_failure::other;
    return nullptr;
  }
  *failure = open_failure::none;
  return store;
}

file_identity identify(const std::string& path) {
  struct stat st;
  if (::stat(path.c_str(), &st) != 0) {
    return {};
  }
  return {true, st.st_dev, st.st_ino};
}

bool same_file(const file_identity& a, const file_identity& b) {
  return a.known && b.known && a.device == b.device && a.inode == b.inode;
}

bool exists(const std::string& path) {
  struct stat st;
  return ::lstat(path.c_str(), &st) == 0;
}

// "<file>.<YYYYMMDD>.bad", or with ".1", ".2", ... when that is taken: an
// earlier bad file of the same day is never overwritten.
std::string bad_file_name(const std::string& path) {
  std::string name = path;
  std::time_t now = std::time(nullptr);
  std::tm local;
  if (::localtime_r(&now, &local) != nullptr) {
    char date[32];
    std::snprintf(date, sizeof date, ".%04d%02d%02d", local.tm_year + 1900, local.tm_mon + 1,
                  local.tm_mday);
    name += date;
  }
  name += ".bad";
  std::string free_name = name;
  for (int n = 1; exists(free_name); ++n) {
    free_name = name + "." + std::to_string(n);
  }
  return free_name;
}

}  // namespace

sqlite::sqlite(const daemon_config& config, bool exactly_once)
    : config_(config), exactly_once_(exactly_once) {
  open();
}

void sqlite::open() {
  const daemon_config& config = config_;
  connection_ = connect(config);
  if (!connection_) {
    return;
  }
  file_ = identify(config.database_file);
  if (connection_->setBusyTimeout(config.database_busy_timeout_ms, &give_up_at_) != 0) {
    VORN_LOG(4) << "Could not set busy timeout value for database. "
                << "Concurrent writes may fail.";
  }
  // Large pages suit rows that carry kilobytes of output: fewer pages and
  // log frames per row. It takes effect only when the file is new.
  connection_->issueCommand("PRAGMA page_size=16384");
  if ((open_error_ = connection_->issueCommand(vorn::schema::kCreateResultsSqlite)) != 0) {
    VORN_LOG(3) << "Could not create table in the database: " << connection_->getLastErrorInfo();
    connection_.reset();
    return;
  }
  if (exactly_once_) {
    identities_ = std::make_unique<sqlite_identities>(connection_.get());
    std::string error;
    if (identities_->open(&error) != 0) {
      VORN_LOG(4) << "Cannot keep the identities of stored results: " << error
                  << ". Results sent again may be stored twice";
      identities_.reset();
    }
  }
  // Rows that reached the file without this server (an older one, a hand-made
  // insert) are summarised once here.
  if (connection_->issueCommand(vorn::schema::kCreateLatestSqlite) != 0 ||
      connection_->issueCommand(vorn::schema::kCatchUp) != 0) {
    VORN_LOG(4) << "Could not bring table vorn_latest up to date: "
                << connection_->getLastErrorInfo();
  }
  // Committed rows survive a crash of the process, at a fraction of the cost
  // of syncing every row; see README.md, Performance.
  if (connection_->issueCommand("PRAGMA journal_mode=WAL") != 0 ||
      connection_->issueCommand("PRAGMA synchronous=NORMAL") != 0) {
    VORN_LOG(4) << "Could not switch the database to write-ahead logging: "
                << connection_->getLastErrorInfo();
  } else if (auto checkpoints = connect(config)) {
    // Without a checkpoint connection the writer checkpoints for itself.
    checkpoints->setBusyTimeout(config.database_busy_timeout_ms);
    if (checkpoints->issueCommand("PRAGMA synchronous=NORMAL") == 0 &&
        connection_->issueCommand("PRAGMA wal_autocheckpoint=0") == 0) {
      checkpointer_ = std::make_unique<wal_checkpointer>(std::move(checkpoints));
    }
  }
  start_retention();
}

void sqlite::start_retention() {
  if (config_.retention_seconds <= 0) {
    return;
  }
  auto deletes = connect(config_);
  // Another process's lock is waited for only briefly: the writer may be
  // waiting for this batch's turn meanwhile. The next pass tries again.
  if (!deletes || deletes->setBusyTimeout(kRetentionBusyMs) != 0 ||
      deletes->issueCommand("PRAGMA synchronous=NORMAL") != 0) {
    VORN_LOG(4) << "Cannot delete expired results: no second connection to the database";
    return;
  }
  retention_ = std::make_unique<retention_sweeper>(config_.retention_seconds,
                                                   sqlite_retention(std::move(deletes)), true);
}

void sqlite::take_turn() {
  if (retention_ && !holds_turn_) {
    holds_turn_ = retention_->writer_turns()->take();
  }
}

void sqlite::give_back_turn() {
  if (holds_turn_ && !in_transaction_) {
    retention_->writer_turns()->give_back();
    holds_turn_ = false;
  }
}

void sqlite::stop_retention() {
  // The turns go with the sweeper; one held now is given back by going.
  holds_turn_ = false;
  retention_.reset();
}

sqlite::~sqlite() {
  if (connection_) {
    force_summary_ = true;
    // A file replaced at the end was logged as such; what it held was
    // committed there.
    commit_result result = flush();
    if (result == commit_result::retry || result == commit_result::lost) {
      VORN_LOG(1) << "Database unavailable at shutdown (" << last_error_
                  << "). Stored results lost!";
    }
  }
  stop_retention();
  checkpointer_.reset();
}

bool sqlite::file_in_place() {
  if (!file_.known) {
    return true;
  }
  file_identity now = identify(config_.database_file);
  if (same_file(now, file_)) {
    // SQLite makes the log and its index at the first transaction.
    if (!wal_.known) {
      wal_ = identify(config_.database_file + "-wal");
      shm_ = identify(config_.database_file + "-shm");
    }
    return true;
  }
  VORN_LOG(1) << "The database file '" << config_.database_file << "' was "
              << (now.known ? "replaced" : "removed")
              << " while the server ran; opening it anew. Results not yet acknowledged will be "
                 "sent again by their senders";
  abandon_file();
  reopen();
  return false;
}

void sqlite::abandon_file() {
  stop_retention();
  checkpointer_.reset();
  identities_.reset();
  connection_.reset();
  // SQLite leaves the log of a file that moved where it is. Still at the
  // path, it would be read into whatever file is opened there: the old
  // file's own log and index go, and only they.
  for (const auto& [suffix, identity] : {std::pair{"-wal", wal_}, std::pair{"-shm", shm_}}) {
    std::string path = config_.database_file + suffix;
    if (same_file(identify(path), identity) && ::unlink(path.c_str()) != 0) {
      VORN_LOG(3) << "Could not remove '" << path << "', the log of the lost database file "
                  << vorn::log::sys_error(errno);
    }
  }
  file_ = wal_ = shm_ = file_identity{};
  in_transaction_ = false;
  transaction_lost_ = false;
  uncommitted_ = 0;
  // Rowids of the lost file mean nothing in the new one, whose vorn_latest
  // is made from its own rows.
  latest_.clear();
  summary_pending_.clear();
}

bool sqlite::reopen() {
  if (vorn::fs::make_path(vorn::str::dirname(config_.database_file))) {
    // Created as at start-up, with the same mode. The descriptor is closed
    // before SQLite opens the file: closing it later would drop SQLite's locks.
    {
      vorn::fs::Fd created(
          ::open(config_.database_file.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0644));
    }
    open();
  }
  if (!connection_) {
    last_error_ = "cannot open the database file '" + config_.database_file + "' anew";
    return false;
  }
  VORN_LOG(5) << "Writing results into a new database file '" << config_.database_file << "'";
  return true;
}

void sqlite::give_up_waiting_at(int64_t mono_ms) {
  give_up_at_.store(mono_ms, std::memory_order_relaxed);
}

void sqlite::roll_back(std::string error) {
  last_error_ = std::move(error);
  if (connection_->inTransaction()) {
    connection_->issueCommand("ROLLBACK");
  }
  in_transaction_ = false;
  uncommitted_ = 0;
  // The rows are written again; what earlier commits left to summarise stays.
  latest_.clear();
  if (identities_) {
    identities_->rolled_back();
  }
}

bool sqlite::begin() {
  take_turn();
  int rc = connection_->issueCommand("BEGIN");
  if (rc != 0 && may_pass(rc)) {
    roll_back(std::string("begin: ") + connection_->getLastErrorInfo());
    return false;
  }
  in_transaction_ = connection_->inTransaction();
  transaction_time_ = std::time(nullptr);
  if (!identities_) {
    // Without a transaction each row commits on its own: slower, not wrong.
    return true;
  }
  if (!in_transaction_) {
    // A row and its identity must commit together, or a result whose
    // identity alone was committed would be dropped when sent again.
    last_error_ = std::string("begin: ") + connection_->getLastErrorInfo();
    return false;
  }
  std::string error;
  if (int rc = identities_->forget_expired(transaction_time_, &error); rc != 0) {
    if (may_pass(rc)) {
      roll_back("forgetting old results: " + error);
      return false;
    }
    // Kept longer is not wrong: tried again with the next transaction.
    static vorn::log::RateLimit warnings(600000);
    uint64_t suppressed = 0;
    if (warnings.allow(zclock_mono(), &suppressed)) {
      VORN_LOG(4) << "Cannot forget the identities of old results: " << error;
    }
  }
  return true;
}

write_status sqlite::remember(const result_identity& identity) {
  bool known = false;
  std::string error;
  int rc = identities_->remember(identity, &known, &error);
  if (rc == 0) {
    return known ? write_status::duplicate : write_status::written;
  }
  if (may_pass(rc)) {
    roll_back("reading stored results: " + error);
    return write_status::retry;
  }
  // Stored at least once is better than not stored.
  static vorn::log::RateLimit warnings(600000);
  uint64_t suppressed = 0;
  if (warnings.allow(zclock_mono(), &suppressed)) {
    VORN_LOG(4) << "Cannot look up stored results: " << error
                << ". Results sent again may be stored twice";
  }
  return write_status::written;
}

bool sqlite::write_summary() {
  if (summary_pending_.empty() && latest_.empty()) {
    return true;
  }
  if (!in_transaction_) {
    take_turn();
    if (int rc = connection_->issueCommand("BEGIN"); rc != 0) {
      last_error_ = std::string("begin: ") + connection_->getLastErrorInfo();
      return !may_pass(rc);
    }
    in_transaction_ = true;
  }
  storix1::DataWriter* raw = nullptr;
  int rc = connection_->getDataWriter(vorn::schema::kUpsertLatest, &raw);
  storix1::Owned<storix1::DataWriter> upsert(raw);
  // The upsert keeps the newer rowid, so the order of the two does not matter.
  for (const auto* keys : {&summary_pending_, &latest_}) {
    for (auto it = keys->begin(); rc == 0 && it != keys->end(); ++it) {
      // The key is "provider\0host\0option set", and a string ends in a NUL.
      const char* provider = it->first.c_str();
      const char* host = provider + std::strlen(provider) + 1;
      const char* option_id = host + std::strlen(host) + 1;
      int64_t rowid = it->second;
      upsert->bindParam(0, storix1::kText, 8, &provider);
      upsert->bindParam(1, storix1::kText, 8, &host);
      upsert->bindParam(2, storix1::kText, 8, &option_id);
      upsert->bindParam(3, storix1::kInt64, 8, &rowid);
      rc = upsert->writeData();
    }
  }
  if (rc == 0) {
    return true;
  }
  const char* error = upsert ? upsert->getLastErrorInfo() : connection_->getLastErrorInfo();
  if (may_pass(rc)) {
    std::string text = std::string("updating vorn_latest: ") + error;
    upsert.reset();
    roll_back(std::move(text));
    return false;
  }
  // The rows matter more than their summary: they are committed all the same.
  static vorn::log::RateLimit warnings(600000);
  uint64_t suppressed = 0;
  if (warnings.allow(zclock_mono(), &suppressed)) {
    VORN_LOG(4) << "Could not update table vorn_latest: " << error;
  }
  return true;
}

commit_result sqlite::flush() {
  turn_guard turn(this);
  if (!connection_ && !reopen()) {
    return commit_result::retry;
  }
  if (transaction_lost_) {
    transaction_lost_ = false;
    last_error_ = "the transaction was rolled back by a refused row";
    return commit_result::retry;
  }
  if (identities_ && in_transaction_) {
    std::string error;
    if (int rc = identities_->write(transaction_time_, &error); rc != 0) {
      if (may_pass(rc)) {
        roll_back("insert: " + error);
        return commit_result::retry;
      }
      static vorn::log::RateLimit warnings(600000);
      uint64_t suppressed = 0;
      if (warnings.allow(zclock_mono(), &suppressed)) {
        VORN_LOG(4) << "Cannot write the identities of stored results: " << error
                    << ". Results sent again may be stored twice";
      }
      identities_->rolled_back();
    }
  }
  int64_t now = zclock_mono();
  bool summarise = force_summary_ || now - last_summary_ms_ >= kSummaryMs;
  if (summarise && !write_summary()) {
    return commit_result::retry;
  }
  int rc = in_transaction_ ? connection_->issueCommand("COMMIT") : 0;
  if (rc == 0 && !file_in_place()) {
    return commit_result::file_replaced;
  }
  if (rc == 0) {
    in_transaction_ = false;
    uncommitted_ = 0;
    if (retention_) {
      retention_->note_commit();
    }
    if (identities_) {
      identities_->committed();
    }
    if (summarise) {
      summary_pending_.clear();
      last_summary_ms_ = now;
    } else {
      for (const auto& [key, rowid] : latest_) {
        int64_t& pending = summary_pending_[key];
        pending = std::max(pending, rowid);
      }
    }
    latest_.clear();
    return commit_result::committed;
  }
  std::string error = std::string("commit: ") + connection_->getLastErrorInfo();
  if (may_pass(rc)) {
    roll_back(std::move(error));
    return commit_result::retry;
  }
  VORN_LOG(1) << "Database commit error: " << error << ". " << uncommitted_
              << " stored results lost!";
  roll_back(std::move(error));
  return commit_result::lost;
}

write_status sqlite::write(const result_view& record, const result_identity* known_identity) {
  turn_guard turn(this);
  if (!connection_ && !reopen()) {
    return write_status::retry;
  }
  if (transaction_lost_) {
    transaction_lost_ = false;
    last_error_ = "the transaction was rolled back by a refused row";
    return write_status::retry;
  }
  if (!in_transaction_ && !begin()) {
    return write_status::retry;
  }
  std::optional<result_identity> identity;
  if (identities_) {
    identity = known_identity != nullptr ? *known_identity : identify(record);
    if (write_status known = remember(*identity); known != write_status::written) {
      return known;
    }
  }
  storix1::DataWriter* raw = nullptr;
  if (int rc = connection_->getDataWriter(kInsert, &raw); rc != 0) {
    if (may_pass(rc)) {
      roll_back(std::string("prepare: ") + connection_->getLastErrorInfo());
      return write_status::retry;
    }
    last_error_ = connection_->getLastErrorInfo();
    VORN_LOG(3) << "Database writer creation error: " << last_error_;
    if (identity) {
      identities_->take_back(*identity);
    }
    return write_status::refused;
  }
  storix1::Owned<storix1::DataWriter> writer(raw);
  const result_header& h = record.header;

  stored_outputs outputs;
  outputs_to_store(record, &outputs);
  const char* out = outputs.out.data();
  const char* err = outputs.err.data();
  int64_t out_size = static_cast<int64_t>(outputs.out.size());
  int64_t err_size = static_cast<int64_t>(outputs.err.size());

  const char* provider = h.name;
  const char* hostname = h.hostname;
  int32_t num_nodes = h.num_nodes;
  const char* node_names = record.nodes_csv;
  int32_t exit_status = h.exit_status;
  int32_t timestamp = static_cast<int32_t>(h.timestamp.tv_sec);
  double duration = h.duration;
  int32_t encoding = h.encoding;
  const char* option_id = h.option_id;
  int32_t version = h.version;

  using storix1::kBlob;
  using storix1::kInt32;
  using storix1::kInt64;
  using storix1::kReal;
  using storix1::kText;
  // A value that cannot be bound (an output past SQLite's limit) would be
  // stored as NULL: the row is refused instead.
  int rc = 0;
  auto bind = [&](int index, storix1::ColumnType type, size_t size, const void* value) {
    if (rc == 0) {
      rc = writer->bindParam(index, type, size, value);
    }
  };
  bind(0, kText, 8, &provider);
  bind(1, kText, 8, &hostname);
  bind(2, kInt32, 4, &num_nodes);
  bind(3, kText, 8, &node_names);
  bind(4, kInt32, 4, &exit_status);
  bind(5, kInt32, 4, &timestamp);
  bind(6, kReal, 8, &duration);
  bind(7, kInt32, 4, &encoding);
  bind(8, kInt64, 8, &out_size);
  bind(9, kBlob, static_cast<size_t>(out_size), out);
  bind(10, kInt64, 8, &err_size);
  bind(11, kBlob, static_cast<size_t>(err_size), err);
  bind(12, kText, 8, &option_id);
  bind(13, kInt32, 4, &version);
  if (rc == 0) {
    rc = writer->writeData();
  }
  if (rc != 0 && may_pass(rc)) {
    std::string error = std::string("insert: ") + writer->getLastErrorInfo();
    writer.reset();
    roll_back(std::move(error));
    return write_status::retry;
  }
  if (rc != 0) {
    last_error_ = writer->getLastErrorInfo();
    VORN_LOG(3) << "Database insertion error: " << last_error_;
    // A trigger may roll the whole transaction back; the rows written before
    // this one must then be written again.
    if (in_transaction_ && !connection_->inTransaction()) {
      in_transaction_ = false;
      uncommitted_ = 0;
      latest_.clear();
      if (identities_) {
        identities_->rolled_back();
      }
      transaction_lost_ = true;
    } else if (identity) {
      // Sent again, it is refused again rather than taken for stored.
      identities_->take_back(*identity);
    }
    return write_status::refused;
  }
  key_.assign(provider);
  key_.push_back('\0');
  key_.append(hostname);
  key_.push_back('\0');
  key_.append(option_id);
  latest_[key_] = connection_->lastInsertRowid();
  if (in_transaction_) {
    ++uncommitted_;
  }
  return write_status::written;
}

std::unique_ptr<database> open_database(const daemon_config* config) {
  if (config != nullptr && config->database_backend == database_backend_kind::postgresql) {
    return open_postgresql(*config);
  }
  if (config == nullptr || config->database_backend != database_backend_kind::sqlite3) {
    return nullptr;
  }
  open_failure failure = open_failure::none;
  if (auto store = try_open_database(*config, &failure)) {
    return store;
  }
  // Only a file that cannot hold results is moved aside; a healthy one that
  // cannot be opened just now (permissions, descriptors, a lock) is left
  // alone, and the server does not start.
  if (config->run_mode != 0 || failure != open_failure::unusable) {
    return nullptr;
  }
  const std::string& path = config->database_file;
  std::string aside = bad_file_name(path);
  if (std::rename(path.c_str(), aside.c_str()) != 0) {
    VORN_LOG(3) << "Error renaming database file '" << path << "' " << vorn::log::sys_error(errno);
    return nullptr;
  }
  VORN_LOG(4) << "Moved unusable database file '" << path << "' to '" << aside << "'";
  return try_open_database(*config, &failure);
}
