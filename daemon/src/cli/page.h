#pragma once
// The status page of `vorn serve`: one self-contained HTML document (styles
// and script inline, nothing loaded from elsewhere) that fetches api/latest
// every 10 seconds and draws the hosts x providers grid, each result coloured
// by its exit status and age; a click on a result (or a link to
// #rowid=N) shows its outputs, fetched from api/result.
//
// Thread safety: a constant.

#include <cstdint>
#include <string>

namespace vorn::cli {

// The page, with results older than `stale_after` seconds drawn as stale.
std::string status_page(int64_t stale_after);

}  // namespace vorn::cli
