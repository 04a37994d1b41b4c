#pragma once
// The result store: one row of table vorn_1 per received result.
//
// open_database opens the configured SQLite file (in WAL mode with
// synchronous=NORMAL: a committed row survives a crash of the process). A file
// that cannot be used is moved aside to "<file>.<YYYYMMDD>.bad" and a fresh one
// is started in its place.
//
// Thread safety: the object is owned by the entry routine; write is called
// from the accumulate server's thread only.

#include <memory>

#include "daemon/src/config/config.h"
#include "daemon/src/database/storix1.h"
#include "daemon/src/provider/result.h"

class database {
 public:
  database() = default;
  database(const database&) = delete;
  database& operator=(const database&) = delete;
  virtual ~database() = default;

  // Stores one result; false on any failure (already logged).
  virtual bool write(const provider_result& record) = 0;
};

class sqlite : public database {
 public:
  explicit sqlite(const daemon_config& config);
  bool write(const provider_result& record) override;
  bool usable() const { return connection_ != nullptr; }

 private:
  storix1::Owned<storix1::Connection> connection_;
};

// None when the backend is not sqlite3 or the file cannot be used even after
// moving it aside.
std::unique_ptr<database> open_database(const daemon_config* config);
