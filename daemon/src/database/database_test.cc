// The store against real SQLite files, read back with SQL.

#include "daemon/src/database/database.h"
#include "daemon/src/database/schema.h"
#include "daemon/src/database/sqlite_identities.h"

#include <sys/stat.h>

#include <gtest/gtest.h>

#include <cstdio>
#include <ctime>
#include <functional>
#include <memory>
#include <ostream>
#include <string>
#include <vector>

#include "tests/support/results.h"
#include "tests/support/test_support.h"
#include "util/czmq.h"

// Statuses by name in failure messages.
void PrintTo(write_status status, std::ostream* out) {
  const char* names[] = {"written", "duplicate", "refused", "retry"};
  *out << names[static_cast<int>(status)];
}

namespace {

using namespace vorn::test;
using Rows = std::vector<std::vector<std::string>>;

class DatabaseTest : public testing::Test {
 protected:
  void SetUp() override { config_.database_file = dir_ / "vorn.db"; }

  TempDir dir_;
  daemon_config config_;
};

TEST_F(DatabaseTest, WritesOneRowPerResultWithEveryColumn) {
  auto store = open_database(&config_);
  ASSERT_TRUE(store);
  provider_result binary = sample_result("probe", all_bytes(), "", "n1, n2");
  ASSERT_EQ(store->write(binary), write_status::written);
  ASSERT_EQ(store->write(sample_result("quiet", "")), write_status::written);
  store.reset();

  auto rows = query(config_.database_file,
                    "SELECT Provider, Hostname, num_nodes, node_names, Exit_status, Timestamp, "
                    "Duration, Encoding, Stdout_size, STDOUT, Stderr_size, STDERR, OptionID, "
                    "version, typeof(STDERR), row_timestamp > 0 FROM vorn_1 ORDER BY rowid");
  ASSERT_EQ(rows.size(), 2u);
  std::vector<std::string> want = {"probe",   "node17", "2",    "n1, n2",    "3", "1700000000",
                                   "2.5",     "0",      "512",  all_bytes(), "0", "",
                                   "default", "7",      "blob", "1"};
  EXPECT_EQ(rows[0], want);
  EXPECT_EQ(rows[1][9], "");
  EXPECT_EQ(rows[1][14], "blob") << "an empty output is an empty blob, not NULL";
  EXPECT_EQ(query(config_.database_file, "PRAGMA journal_mode")[0][0], "wal");
}

TEST_F(DatabaseTest, Base64OutputIsStoredDecoded) {
  auto store = open_database(&config_);
  ASSERT_TRUE(store);
  struct Row {
    const char* comment;
    std::string out;
    std::string want_out;
  } rows[] = {
      {"line breaks as base64(1) prints them", "aGVs\nbG8=\n", "hello"},
      {"binary payload", "AAEC/w==", std::string("\x00\x01\x02\xff", 4)},
      {"not base64: kept as received", "hello world!", "hello world!"},
  };
  for (const Row& row : rows) {
    provider_result r = sample_result(row.comment, row.out, "ZXJy");
    r.header.encoding = 1;
    ASSERT_EQ(store->write(r), write_status::written);
  }
  store.reset();
  auto got = query(config_.database_file,
                   "SELECT Encoding, Stdout_size, STDOUT, Stderr_size, STDERR FROM vorn_1 "
                   "ORDER BY rowid");
  ASSERT_EQ(got.size(), std::size(rows));
  for (size_t i = 0; i < got.size(); ++i) {
    SCOPED_TRACE(rows[i].comment);
    EXPECT_EQ(got[i], (std::vector<std::string>{"1", std::to_string(rows[i].want_out.size()),
                                                rows[i].want_out, "3", "err"}));
  }
}

// Another connection's lock, on the commit (a reader in rollback-journal
// mode) and on the write itself (a writer in WAL mode): the open
// transaction is rolled back and reported as one to retry, never lost, and
// rows written again once the lock is gone are committed.
TEST_F(DatabaseTest, LockedDatabaseAsksForARetry) {
  ASSERT_TRUE(open_database(&config_));
  sqlite3* raw = nullptr;
  ASSERT_EQ(sqlite3_open(config_.database_file.c_str(), &raw), SQLITE_OK);
  std::unique_ptr<sqlite3, int (*)(sqlite3*)> other(raw, sqlite3_close);
  auto run = [&](const char* sql) {
    return sqlite3_exec(other.get(), sql, nullptr, nullptr, nullptr);
  };
  ASSERT_EQ(run("PRAGMA journal_mode=DELETE"), SQLITE_OK);
  // Held while the store opens, so that it cannot switch to write-ahead logging.
  ASSERT_EQ(run("BEGIN; SELECT count(*) FROM vorn_1"), SQLITE_OK);
  config_.database_busy_timeout_ms = 10;
  auto store = open_database(&config_);
  ASSERT_TRUE(store);
  ASSERT_EQ(run("COMMIT"), SQLITE_OK);
  ASSERT_EQ(store->write(sample_result("waiting", "x")), write_status::written);
  ASSERT_EQ(run("BEGIN; SELECT count(*) FROM vorn_1"), SQLITE_OK);
  EXPECT_EQ(store->flush(), commit_result::retry);
  EXPECT_NE(store->last_error().find("locked"), std::string::npos) << store->last_error();
  ASSERT_EQ(run("COMMIT"), SQLITE_OK);
  EXPECT_EQ(store->flush(), commit_result::committed);
  EXPECT_EQ(count_rows(config_.database_file), 0) << "the rolled-back row came back";
  ASSERT_EQ(store->write(sample_result("waiting", "x")), write_status::written);
  EXPECT_EQ(store->flush(), commit_result::committed);
  EXPECT_EQ(count_rows(config_.database_file), 1);
  store.reset();

  // A busy time-out of a minute, cut short by a deadline.
  config_.database_busy_timeout_ms = 60000;
  store = open_database(&config_);
  ASSERT_TRUE(store);
  ASSERT_EQ(run("PRAGMA journal_mode=WAL"), SQLITE_OK);
  ASSERT_EQ(run("BEGIN IMMEDIATE"), SQLITE_OK);
  store->give_up_waiting_at(zclock_mono() + 200);
  EXPECT_EQ(store->write(sample_result("blocked", "x")), write_status::retry);
  ASSERT_EQ(run("COMMIT"), SQLITE_OK);
}

// vorn_latest names each key's newest row, also for rows that reached the
// file without the store, once the store opens it again.
TEST_F(DatabaseTest, LatestRowOfEachKeyIsKept) {
  auto store = open_database(&config_);
  ASSERT_TRUE(store);
  for (const char* name : {"cpu", "mem", "cpu", "disk", "cpu"}) {
    ASSERT_EQ(store->write(sample_result(name, "x")), write_status::written);
  }
  ASSERT_EQ(store->flush(), commit_result::committed);
  const char* latest = "SELECT Provider, last_rowid FROM vorn_latest ORDER BY Provider";
  EXPECT_EQ(query(config_.database_file, latest),
            (Rows{{"cpu", "5"}, {"disk", "4"}, {"mem", "2"}}));
  store.reset();
  ASSERT_TRUE(execute(config_.database_file,
                      "INSERT INTO vorn_1 (Provider, Hostname) VALUES ('mem', NULL)"));
  ASSERT_TRUE(open_database(&config_));
  EXPECT_EQ(query(config_.database_file,
                  "SELECT Provider, Hostname, last_rowid FROM vorn_latest"
                  " WHERE last_rowid = 6"),
            (Rows{{"mem", "", "6"}}));
}

// A result is known by all of it: written again, in the open transaction
// or after a commit and a reopen, it is a duplicate and writes nothing; one
// byte changed anywhere makes another result.
TEST_F(DatabaseTest, AResultIsStoredOnceAndAnyChangeMakesAnother) {
  const provider_result base = sample_result("probe", "out", "err", "n1, n2");
  struct Row {
    const char* comment;
    std::function<void(provider_result&)> change;
  } rows[] = {
      {"the same result", [](provider_result&) {}},
      {"one byte of standard output", [](provider_result& r) { r.stdout_data[2] = 'T'; }},
      {"one byte of standard error", [](provider_result& r) { r.stderr_data[0] = 'E'; }},
      {"the node list", [](provider_result& r) { r.nodes_csv = "n1, n3"; }},
      {"the end time by a microsecond", [](provider_result& r) { ++r.header.timestamp.tv_usec; }},
      {"the option set", [](provider_result& r) { vorn::str::copy(r.header.option_id, "b"); }},
      {"the host", [](provider_result& r) { vorn::str::copy(r.header.hostname, "node18"); }},
      {"output moved into standard error",
       [](provider_result& r) {
         r.stdout_data = "ou";
         r.stderr_data = "terr";
         r.header.stdout_size = 2;
         r.header.stderr_size = 4;
       }},
  };
  for (int round = 0; round < 2; ++round) {
    SCOPED_TRACE(round == 0 ? "first written" : "after a commit and a reopen");
    auto store = open_database(&config_);
    ASSERT_TRUE(store);
    if (round == 0) {
      ASSERT_EQ(store->write(base), write_status::written);
    }
    for (const Row& row : rows) {
      SCOPED_TRACE(row.comment);
      provider_result r = base;
      row.change(r);
      bool first = round == 0 && &row != &rows[0];
      EXPECT_EQ(store->write(r), first ? write_status::written : write_status::duplicate);
      EXPECT_EQ(store->write(r), write_status::duplicate);
    }
    ASSERT_EQ(store->flush(), commit_result::committed);
  }
  EXPECT_EQ(count_rows(config_.database_file), static_cast<long>(std::size(rows)));
}

// An hour of end time that nothing was stored into for a day is forgotten
// a slice at the start of each transaction; a result of it sent again then
// is stored again, while one of a later hour is still known.
TEST_F(DatabaseTest, IdentitiesAreForgottenADayAfterTheirHourWasLastStoredInto) {
  constexpr long kHourStart = 472222L * 3600;  // hour 472222, minutes 28333320 to 28333379
  constexpr int kCommits = 3;
  constexpr int kMinutes = 50;  // a row of identities per minute and commit
  auto store = open_database(&config_);
  ASSERT_TRUE(store);
  std::vector<provider_result> old;
  for (int commit = 0; commit < kCommits; ++commit) {
    for (int minute = 0; minute < kMinutes; ++minute) {
      old.push_back(sample_result("old", std::to_string(old.size())));
      old.back().header.timestamp.tv_sec = kHourStart + minute * 60;
      ASSERT_EQ(store->write(old.back()), write_status::written);
    }
    ASSERT_EQ(store->flush(), commit_result::committed);
  }
  provider_result later = sample_result("later", "x");
  later.header.timestamp.tv_sec = kHourStart + 3600;
  ASSERT_EQ(store->write(later), write_status::written);
  ASSERT_EQ(store->flush(), commit_result::committed);
  store.reset();
  // As if two days had passed since.
  ASSERT_TRUE(execute(config_.database_file,
                      "UPDATE vorn_result_id_hours SET last_stored = last_stored - "
                      "172800 WHERE hour = 472222"));
  auto kept = [&] {
    return query(
        config_.database_file,
        "SELECT (SELECT count(*) FROM vorn_result_ids WHERE end_minute BETWEEN 28333320 "
        "AND 28333379), (SELECT count(*) FROM vorn_result_id_hours WHERE hour = 472222)")[0];
  };
  using Kept = std::vector<std::string>;
  const int rows = kCommits * kMinutes;
  const int slice = static_cast<int>(sqlite_identities::kForgetSlice);
  ASSERT_EQ(kept(), (Kept{std::to_string(rows), "1"}));
  store = open_database(&config_);
  ASSERT_TRUE(store);
  for (const Kept& want : {Kept{std::to_string(rows - slice), "1"},
                           Kept{std::to_string(rows - 2 * slice), "1"}, Kept{"0", "0"}}) {
    provider_result now = sample_result("now", "x");
    now.header.timestamp.tv_sec = std::time(nullptr);
    ASSERT_EQ(store->write(now), write_status::written);
    ASSERT_EQ(store->flush(), commit_result::committed);
    EXPECT_EQ(kept(), want);
  }
  EXPECT_EQ(store->write(old[0]), write_status::written) << "forgotten";
  EXPECT_EQ(store->write(later), write_status::duplicate) << "its hour is still remembered";
}

// More identities than the store holds in memory: a minute it let go of,
// with some of its identities still uncommitted, is read back from the
// table when needed, and nothing is stored twice.
TEST_F(DatabaseTest, IdentitiesBeyondWhatIsHeldAreReadBack) {
  auto store = open_database(&config_);
  ASSERT_TRUE(store);
  auto result = [](long end, size_t i) {
    provider_result r = sample_result("many", std::to_string(i));
    r.header.timestamp.tv_sec = end;
    return r;
  };
  const size_t kMany = sqlite_identities::kMaxCached + 10;
  std::vector<provider_result> first_minute = {result(1700000000, 0), result(1700000001, 1)};
  ASSERT_EQ(store->write(first_minute[0]), write_status::written);
  ASSERT_EQ(store->flush(), commit_result::committed);
  ASSERT_EQ(store->write(first_minute[1]), write_status::written);
  provider_result last;
  for (size_t i = 0; i < kMany; ++i) {
    last = result(1700000060, i);
    ASSERT_EQ(store->write(last), write_status::written);
  }
  for (const provider_result& r : first_minute) {
    EXPECT_EQ(store->write(r), write_status::duplicate) << "in the open transaction";
  }
  ASSERT_EQ(store->flush(), commit_result::committed);
  for (const provider_result& r : first_minute) {
    EXPECT_EQ(store->write(r), write_status::duplicate) << "committed";
  }
  EXPECT_EQ(store->write(last), write_status::duplicate);
  ASSERT_EQ(store->flush(), commit_result::committed);
  EXPECT_EQ(count_rows(config_.database_file), static_cast<long>(kMany + 2));
}

// Retention deletes the expired rows of each key and the vorn_latest
// entries naming them, but never the newest row of the table, so that the
// next row does not get its rowid again.
TEST_F(DatabaseTest, RetentionDeletesExpiredRowsButNeverTheNewest) {
  const long day_ago = static_cast<long>(std::time(nullptr)) - 86400;
  struct Row {
    const char* provider;
    long age;  // seconds before a day ago; -1: stored now
  } rows[] = {
      {"gone", 10}, {"mixed", 9}, {"gone", 8},   {"mixed", -1},  // "mixed" keeps its recent row
      {"kept", -1}, {"gone", 7},  {"newest", 6},  // expired, but the table's newest row
  };
  ASSERT_TRUE(execute(config_.database_file, vorn::schema::kCreateResultsSqlite));
  for (const Row& row : rows) {
    std::string stamp = row.age < 0 ? "strftime('%s', 'now')" : std::to_string(day_ago - row.age);
    ASSERT_TRUE(execute(config_.database_file,
                        "INSERT INTO vorn_1 (row_timestamp, Provider, Hostname, "
                        "OptionID) VALUES (" +
                            stamp + ", '" + row.provider + "', 'h', 'default')"));
  }
  config_.retention_seconds = 3600;
  auto store = open_database(&config_);
  ASSERT_TRUE(store);
  auto left = [&] { return query(config_.database_file, "SELECT rowid FROM vorn_1 ORDER BY 1"); };
  EXPECT_TRUE(wait_until([&] { return left().size() == 3; }, milliseconds(10000)));
  EXPECT_EQ(left(), (Rows{{"4"}, {"5"}, {"7"}}));
  EXPECT_EQ(query(config_.database_file,
                  "SELECT Provider, last_rowid FROM vorn_latest ORDER BY Provider"),
            (Rows{{"kept", "5"}, {"mixed", "4"}, {"newest", "7"}}));
  ASSERT_EQ(store->write(sample_result("after", "x")), write_status::written);
  ASSERT_EQ(store->flush(), commit_result::committed);
  EXPECT_EQ(query(config_.database_file, "SELECT max(rowid) FROM vorn_1 WHERE Provider = 'after'"),
            (Rows{{"8"}}))
      << "a rowid given out again";
}

// A row deleted after it was committed but before its key was summarised
// (a server idle for longer than the retention) is not named by vorn_latest
// when the summary comes.
TEST_F(DatabaseTest, TheSummaryNamesNoDeletedRow) {
  auto store = open_database(&config_);
  ASSERT_TRUE(store);
  ASSERT_EQ(store->write(sample_result("first", "x")), write_status::written);
  ASSERT_EQ(store->flush(), commit_result::committed);
  ASSERT_EQ(store->write(sample_result("deleted", "x")), write_status::written);
  ASSERT_EQ(store->write(sample_result("last", "x")), write_status::written);
  ASSERT_EQ(store->flush(), commit_result::committed);
  const char* latest = "SELECT Provider FROM vorn_latest ORDER BY Provider";
  ASSERT_EQ(query(config_.database_file, latest), (Rows{{"first"}}))
      << "summarised at once; the test needs it a second later";
  ASSERT_TRUE(execute(config_.database_file, "DELETE FROM vorn_1 WHERE Provider = 'deleted'"));
  store.reset();
  EXPECT_EQ(query(config_.database_file, latest), (Rows{{"first"}, {"last"}}));
}

TEST_F(DatabaseTest, UnusableFileIsMovedAsideAndReplaced) {
  std::time_t now = std::time(nullptr);
  char date[16];
  std::strftime(date, sizeof date, ".%Y%m%d.bad", std::localtime(&now));
  const std::string bad = config_.database_file + date;
  struct Row {
    const char* comment;
    std::function<void(const std::string&)> spoil;
    std::string moved_to;
  } rows[] = {
      {"a file that is not a database",
       [](const std::string& p) { write_file(p, std::string(8192, 'z')); }, bad},
      {"a directory in place of the file",
       [](const std::string& p) { ASSERT_EQ(mkdir(p.c_str(), 0755), 0); }, bad + ".1"},
      {"a third the same day", [](const std::string& p) { write_file(p, std::string(8192, 'y')); },
       bad + ".2"},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.comment);
    std::string cleanup = "rm -rf '" + config_.database_file + "' '" + config_.database_file +
                          "-wal' '" + config_.database_file + "-shm'";
    ASSERT_EQ(std::system(cleanup.c_str()), 0);
    row.spoil(config_.database_file);
    testing::internal::CaptureStderr();
    auto store = open_database(&config_);
    std::string log = testing::internal::GetCapturedStderr();
    ASSERT_TRUE(store) << log;
    EXPECT_EQ(store->write(sample_result("after", "x")), write_status::written);
    store.reset();
    EXPECT_EQ(count_rows(config_.database_file), 1);
    struct stat st;
    EXPECT_EQ(stat(row.moved_to.c_str(), &st), 0) << log;
  }
  EXPECT_EQ(read_file(bad), std::string(8192, 'z')) << "never overwritten";
}

// Another database moved over the file while the store has it open: the
// commit that finds it asks for its rows again, and they go into the file
// now at the path, beside what it held.
TEST_F(DatabaseTest, AFileReplacedUnderTheStoreIsFoundAtTheCommit) {
  auto store = open_database(&config_);
  ASSERT_TRUE(store);
  ASSERT_EQ(store->write(sample_result("first", "x")), write_status::written);
  ASSERT_EQ(store->flush(), commit_result::committed);
  daemon_config other = config_;
  other.database_file = dir_ / "other.db";
  {
    auto restored = open_database(&other);
    ASSERT_TRUE(restored);
    ASSERT_EQ(restored->write(sample_result("restored", "x")), write_status::written);
  }
  ASSERT_EQ(std::rename(other.database_file.c_str(), config_.database_file.c_str()), 0);
  ASSERT_EQ(store->write(sample_result("second", "x")), write_status::written);
  ASSERT_EQ(store->flush(), commit_result::file_replaced);
  ASSERT_EQ(store->write(sample_result("second", "x")), write_status::written);
  ASSERT_EQ(store->flush(), commit_result::committed);
  EXPECT_EQ(query(config_.database_file, "SELECT Provider FROM vorn_1 ORDER BY rowid"),
            (Rows{{"restored"}, {"second"}}));
}

// A file that cannot be opened for another reason than its content is left
// as it is, and there is no store.
TEST_F(DatabaseTest, OtherOpenFailuresLeaveTheFileAlone) {
  config_.database_file = dir_ / "missing-dir/vorn.db";
  testing::internal::CaptureStderr();
  EXPECT_FALSE(open_database(&config_));
  std::string log = testing::internal::GetCapturedStderr();
  EXPECT_NE(log.find("Error opening database file '" + config_.database_file +
                     "' (2): No such file or directory"),
            std::string::npos);
  EXPECT_EQ(log.find("renaming"), std::string::npos) << log;
  EXPECT_EQ(log.find("Moved"), std::string::npos) << log;
}

TEST_F(DatabaseTest, OtherBackendsYieldNoDatabaseAndTouchNothing) {
  config_.database_backend = database_backend_kind::none;
  EXPECT_FALSE(open_database(&config_));
  EXPECT_FALSE(open_database(nullptr));
  struct stat st;
  EXPECT_NE(stat(config_.database_file.c_str(), &st), 0);
}

}  // namespace
