#pragma once
// Log records of the daemon.
//
// A message is composed by streaming into an ErrorLog record; when the record
// goes out of scope it is emitted as one unit, if its priority (a syslog
// priority: 1 alert, 3 error, 4 warning, 5 notice, 6 info, 7 debug) is at most
// LOG_LEVEL. With LOG_OUTPUT 1 it goes to syslog, with 0 to standard error
// followed by a newline. LOG_SCOPE_LEVEL decides how much of the record's
// origin is put in front of the text: 0 nothing, 1 the function, 2 also the
// source and line.
//
// A record that will not be emitted costs no formatting: with syslog as the
// destination, the mask given to use_syslog filters as early as LOG_LEVEL.
//
// Thread safety: records may be emitted from any thread; each message is
// written with one call, so lines never interleave. The globals are set once
// at start-up, before other threads exist.

#include <cstdint>
#include <optional>
#include <sstream>
#include <string>

namespace vorn::log {

extern int LOG_LEVEL;
extern int LOG_OUTPUT;
extern int LOG_SCOPE_LEVEL;

class ErrorLog {
 public:
  ErrorLog(const char* source, const char* function, int line, int priority);
  ErrorLog(const ErrorLog&) = delete;
  ErrorLog& operator=(const ErrorLog&) = delete;
  ~ErrorLog();

  template <typename T>
  ErrorLog& operator<<(const T& value) {
    if (text_) {
      *text_ << value;
    }
    return *this;
  }

 private:
  const char* source_;
  const char* function_;
  int line_;
  int priority_;
  std::optional<std::ostringstream> text_;  // empty when the record is filtered out
};

// Sends records to syslog from now on (LOG_OUTPUT := 1): opens it with the
// identity, options and facility given, and admits the priorities of `mask`
// (a setlogmask value).
void use_syslog(const char* ident, int options, int facility, int mask);

// For a warning that a stranger can make happen at will: at most one per
// interval, the others counted.
//
// Thread safety: one thread at a time.
class RateLimit {
 public:
  explicit RateLimit(int64_t interval_ms) : interval_ms_(interval_ms) {}
  // True when a warning may go out now; `suppressed` then says how many were
  // held back since the last one.
  bool allow(int64_t now_ms, uint64_t* suppressed);

 private:
  int64_t interval_ms_;
  int64_t last_ms_ = 0;
  bool any_ = false;
  uint64_t suppressed_ = 0;
};

// Runs a program's body. An exception that escapes it is logged at error
// priority and ends the program with status 1, where it would otherwise
// abort the process without a word in the log.
int run_guarded(int (*body)(int, char**), int argc, char** argv);

// The tail of a failed system call's message: "(", the decimal error number,
// "): " and the system's error text.
std::string sys_error(int error_number);

}  // namespace vorn::log

// Starts a log record in the current function. Each source file defines
// kLogSource, the module the message is reported from (e.g. "daemon/src/config").
#define VORN_LOG(priority) ::vorn::log::ErrorLog(kLogSource, __func__, __LINE__, (priority))
