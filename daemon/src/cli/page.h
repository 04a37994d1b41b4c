#pragma once
// The status page of `vorn serve`: one self-contained HTML document (styles
// and script inline, nothing loaded from elsewhere) that fetches api/latest
// and api/health every 10 seconds and draws the hosts x providers grid, each
// result coloured by its exit status and age, and beside each host's name
// the health its daemons last reported. The address's fragment holds the view
// (#rowid=N&show=failing|stale&order=failing): the result whose outputs the
// pane beside the grid shows (fetched from api/result), which hosts are
// listed and whether failing hosts come first.
//
// Thread safety: a constant.

#include <cstdint>
#include <string>

namespace vorn::cli {

// The page, with results older than `stale_after` seconds drawn as stale
// (health rows by their own limit, from api/health).
std::string status_page(int64_t stale_after);

}  // namespace vorn::cli
