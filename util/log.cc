#include "util/log.h"

#include <syslog.h>
#include <unistd.h>

#include <cstring>
#include <exception>

namespace vorn::log {

int LOG_LEVEL = 7;
int LOG_OUTPUT = 0;
int LOG_SCOPE_LEVEL = 0;

namespace {
constexpr const char* kLogSource = "util/log";
int syslog_mask = LOG_UPTO(LOG_DEBUG);
}  // namespace

void use_syslog(const char* ident, int options, int facility, int mask) {
  setlogmask(mask);
  openlog(ident, options, facility);
  syslog_mask = mask;
  LOG_OUTPUT = 1;
}

ErrorLog::ErrorLog(const char* source, const char* function, int line, int priority)
    : source_(source), function_(function), line_(line), priority_(priority) {
  bool admitted = priority <= LOG_LEVEL && (LOG_OUTPUT != 1 || (LOG_MASK(priority) & syslog_mask));
  if (admitted) {
    text_.emplace();
  }
}

ErrorLog::~ErrorLog() {
  if (!text_) {
    return;
  }
  std::string message;
  if (LOG_SCOPE_LEVEL >= 2) {
    message += std::string(source_) + ":" + std::to_string(line_) + " ";
  }
  if (LOG_SCOPE_LEVEL >= 1) {
    message += std::string(function_) + ": ";
  }
  message += text_->str();
  if (LOG_OUTPUT == 1) {
    ::syslog(priority_, "%s\n", message.c_str());
    return;
  }
  message += '\n';
  // One write per message keeps lines of concurrent threads apart.
  ssize_t ignored = ::write(STDERR_FILENO, message.data(), message.size());
  (void)ignored;
}

std::string sys_error(int error_number) {
  char buffer[256];
  // The GNU strerror_r returns the text, which need not be in the buffer.
  const char* text = ::strerror_r(error_number, buffer, sizeof buffer);
  return "(" + std::to_string(error_number) + "): " + text;
}

int run_guarded(int (*body)(int, char**), int argc, char** argv) {
  try {
    return body(argc, argv);
  } catch (const std::exception& error) {
    VORN_LOG(3) << "Stopping after an unexpected error: " << error.what();
  } catch (...) {
    VORN_LOG(3) << "Stopping after an unexpected error";
  }
  return 1;
}

bool RateLimit::allow(int64_t now_ms, uint64_t* suppressed) {
  if (any_ && now_ms - last_ms_ < interval_ms_) {
    ++suppressed_;
    return false;
  }
  *suppressed = suppressed_;
  suppressed_ = 0;
  last_ms_ = now_ms;
  any_ = true;
  return true;
}

}  // namespace vorn::log
