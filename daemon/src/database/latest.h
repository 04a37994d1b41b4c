#pragma once
// The latest result of every provider, host and option set, kept beside
// vorn_1 so that readers find it without scanning millions of rows.
//
// Table vorn_latest holds one row per (Provider, Hostname, OptionID) of
// vorn_1, with the rowid of that key's newest row. Keys are the texts as
// stored, NULL read as ''.
//
// The invariant readers rely on: every row of vorn_1 up to max(last_rowid)
// is accounted for here. The server upserts every key written since the last
// time in one transaction with the rows of a commit, about once a second
// (and when it stops), so the rows after max(last_rowid) are at most a
// second's worth: a reader that wants to be exact groups those itself.
// Rows that reached vorn_1 some other way (an older server, a hand-made
// insert, a server killed before its next update) are folded in when the
// server next opens the file.
//
// vorn_1 keeps its CREATE statement exactly; nothing here changes it.

namespace vorn::latest {

inline constexpr const char* kCreateTable =
    "CREATE TABLE IF NOT EXISTS vorn_latest (Provider TEXT NOT NULL, Hostname TEXT NOT NULL, "
    "OptionID TEXT NOT NULL, last_rowid INTEGER NOT NULL, "
    "PRIMARY KEY (Provider, Hostname, OptionID)) WITHOUT ROWID";

// ?1 provider, ?2 host, ?3 option set, ?4 rowid of a newer row of that key.
inline constexpr const char* kUpsert =
    "INSERT INTO vorn_latest (Provider, Hostname, OptionID, last_rowid) VALUES (?1, ?2, ?3, ?4) "
    "ON CONFLICT (Provider, Hostname, OptionID) DO UPDATE SET last_rowid = excluded.last_rowid "
    "WHERE excluded.last_rowid > vorn_latest.last_rowid";

// Folds in every row of vorn_1 after the newest one already accounted for.
inline constexpr const char* kCatchUp =
    "INSERT INTO vorn_latest (Provider, Hostname, OptionID, last_rowid) "
    "SELECT coalesce(Provider, ''), coalesce(Hostname, ''), coalesce(OptionID, ''), max(rowid) "
    "FROM vorn_1 WHERE rowid > (SELECT coalesce(max(last_rowid), 0) FROM vorn_latest) "
    "GROUP BY 1, 2, 3 "
    "ON CONFLICT (Provider, Hostname, OptionID) DO UPDATE SET last_rowid = excluded.last_rowid "
    "WHERE excluded.last_rowid > vorn_latest.last_rowid";

}  // namespace vorn::latest
