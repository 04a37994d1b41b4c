#include "daemon/src/database/database.h"

#include <fcntl.h>
#include <pthread.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cctype>
#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <ctime>
#include <mutex>
#include <string>
#include <string_view>
#include <thread>

#include "util/czmq.h"
#include "util/log.h"
#include "util/str.h"

namespace {

constexpr const char* kLogSource = "daemon/src/database";

constexpr const char* kCreateTable =
    "CREATE TABLE IF NOT EXISTS vorn_1 (rowid INTEGER PRIMARY KEY, row_timestamp INTEGER "
    "DEFAULT (strftime('%s', 'now')), Provider TEXT, Hostname TEXT, num_nodes INTEGER, "
    "node_names TEXT, Exit_status INTEGER, Timestamp INTEGER, Duration REAL, Encoding "
    "INTEGER, Stdout_size INTEGER, STDOUT BLOB, Stderr_size INTEGER, STDERR BLOB, OptionID "
    "TEXT, version INTEGER)";

constexpr const char* kInsert =
    "INSERT INTO vorn_1 (Provider, Hostname, num_nodes, node_names, Exit_status, Timestamp, "
    "Duration, Encoding, Stdout_size, STDOUT, Stderr_size,STDERR, OptionID, version) values "
    "($0, $1, $2, $3, $4, $5, $6, $7, $8, $9, $10, $11, $12, $13)";

// Base64 as providers print it, without its line breaks and blanks; false
// when a character is neither base64 nor white space.
bool compact_base64(std::string_view text, std::string* compact) {
  compact->reserve(text.size());
  for (unsigned char c : text) {
    if (std::isalnum(c) || c == '+' || c == '/' || c == '=') {
      compact->push_back(static_cast<char>(c));
    } else if (!std::isspace(c)) {
      return false;
    }
  }
  return true;
}

// Decodes base64 text; text that is not base64 is kept as it is, with a warning,
// so that nothing a provider sent is lost.
std::string decode_base64(std::string_view text, const char* stream, const char* provider) {
  std::string compact;
  if (!compact_base64(text, &compact)) {
    VORN_LOG(4) << "The " << stream << " of data provider '" << vorn::str::printable(provider)
                << "' is marked base64 but is not; storing it as received";
    return std::string(text);
  }
  zarmour_t* armour = zarmour_new();
  zchunk_t* chunk = zarmour_decode(armour, compact.c_str());
  zarmour_destroy(&armour);
  if (chunk == nullptr) {
    return std::string(text);
  }
  // The decoded chunk carries a terminating NUL of its own.
  size_t size = zchunk_size(chunk) > 0 ? zchunk_size(chunk) - 1 : 0;
  std::string out(reinterpret_cast<const char*>(zchunk_data(chunk)), size);
  zchunk_destroy(&chunk);
  return out;
}

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

sqlite::sqlite(const daemon_config& config) {
  connection_ = connect(config);
  if (!connection_) {
    return;
  }
  if (connection_->setBusyTimeout(config.database_busy_timeout_ms) != 0) {
    VORN_LOG(4) << "Could not set busy timeout value for database. "
                << "Concurrent writes may fail.";
  }
  // Large pages suit rows that carry kilobytes of output: fewer pages and
  // log frames per row. It takes effect only when the file is new.
  connection_->issueCommand("PRAGMA page_size=16384");
  if ((open_error_ = connection_->issueCommand(kCreateTable)) != 0) {
    VORN_LOG(3) << "Could not create table in the database: " << connection_->getLastErrorInfo();
    connection_.reset();
    return;
  }
  // Committed rows survive a crash of the process, at a fraction of the cost
  // of syncing every row; see README.md, Performance.
  if (connection_->issueCommand("PRAGMA journal_mode=WAL") != 0 ||
      connection_->issueCommand("PRAGMA synchronous=NORMAL") != 0) {
    VORN_LOG(4) << "Could not switch the database to write-ahead logging: "
                << connection_->getLastErrorInfo();
    return;
  }
  // Without a checkpoint connection the writer checkpoints for itself.
  if (auto checkpoints = connect(config)) {
    checkpoints->setBusyTimeout(config.database_busy_timeout_ms);
    if (checkpoints->issueCommand("PRAGMA synchronous=NORMAL") == 0 &&
        connection_->issueCommand("PRAGMA wal_autocheckpoint=0") == 0) {
      checkpointer_ = std::make_unique<wal_checkpointer>(std::move(checkpoints));
    }
  }
}

sqlite::~sqlite() {
  if (connection_) {
    flush();
    if (in_transaction_) {
      VORN_LOG(1) << "Database still busy at shutdown. " << uncommitted_ << " stored results lost!";
    }
  }
  checkpointer_.reset();
}

commit_result sqlite::flush() {
  if (!in_transaction_) {
    return commit_result::committed;
  }
  int rc = connection_->issueCommand("COMMIT");
  if (rc == 0) {
    in_transaction_ = false;
    uncommitted_ = 0;
    return commit_result::committed;
  }
  // A database that another process keeps busy leaves the transaction open
  // for the next attempt.
  if ((rc & 0xff) == SQLITE_BUSY || (rc & 0xff) == SQLITE_LOCKED) {
    VORN_LOG(4) << "Database commit postponed: " << connection_->getLastErrorInfo();
    return commit_result::postponed;
  }
  VORN_LOG(1) << "Database commit error: " << connection_->getLastErrorInfo() << ". "
              << uncommitted_ << " stored results lost!";
  connection_->issueCommand("ROLLBACK");
  in_transaction_ = false;
  uncommitted_ = 0;
  return commit_result::lost;
}

bool sqlite::write(const result_view& record) {
  if (!in_transaction_) {
    // Without a transaction each row commits on its own: slower, not wrong.
    in_transaction_ = connection_->issueCommand("BEGIN") == 0;
  }
  storix1::DataWriter* raw = nullptr;
  if (connection_->getDataWriter(kInsert, &raw) != 0) {
    VORN_LOG(3) << "Database writer creation error: " << connection_->getLastErrorInfo();
    return false;
  }
  storix1::Owned<storix1::DataWriter> writer(raw);
  const result_header& h = record.header;

  std::string decoded_out;
  std::string decoded_err;
  const char* out = record.stdout_data.data();
  const char* err = record.stderr_data.data();
  int64_t out_size = static_cast<int64_t>(record.stdout_data.size());
  int64_t err_size = static_cast<int64_t>(record.stderr_data.size());
  if (h.encoding == 1) {
    decoded_out = decode_base64(record.stdout_data, "standard output", h.name);
    decoded_err = decode_base64(record.stderr_data, "standard error", h.name);
    out = decoded_out.data();
    err = decoded_err.data();
    out_size = static_cast<int64_t>(decoded_out.size());
    err_size = static_cast<int64_t>(decoded_err.size());
  }

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
  writer->bindParam(0, kText, 8, &provider);
  writer->bindParam(1, kText, 8, &hostname);
  writer->bindParam(2, kInt32, 4, &num_nodes);
  writer->bindParam(3, kText, 8, &node_names);
  writer->bindParam(4, kInt32, 4, &exit_status);
  writer->bindParam(5, kInt32, 4, &timestamp);
  writer->bindParam(6, kReal, 8, &duration);
  writer->bindParam(7, kInt32, 4, &encoding);
  writer->bindParam(8, kInt64, 8, &out_size);
  writer->bindParam(9, kBlob, static_cast<size_t>(out_size), out);
  writer->bindParam(10, kInt64, 8, &err_size);
  writer->bindParam(11, kBlob, static_cast<size_t>(err_size), err);
  writer->bindParam(12, kText, 8, &option_id);
  writer->bindParam(13, kInt32, 4, &version);

  if (writer->writeData() != 0) {
    VORN_LOG(3) << "Database insertion error: " << writer->getLastErrorInfo();
    // Some errors roll the whole transaction back; commit what survived.
    flush();
    return false;
  }
  if (in_transaction_ && ++uncommitted_ >= kMaxBatch) {
    return flush() != commit_result::lost;
  }
  return true;
}

std::unique_ptr<database> open_database(const daemon_config* config) {
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
