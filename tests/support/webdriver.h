#pragma once
// A browser driven the way a person uses it, through chromedriver's W3C
// WebDriver protocol over HTTP: open a page, click an element, run a script
// and read its value. One object is one browser session; the browser quits
// when the object goes.

#include <httplib.h>

#include <optional>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

#include "tests/support/test_support.h"

namespace vorn::test {

// True once a chromedriver on 127.0.0.1:`port` says it is ready for a session.
bool webdriver_ready(int port, milliseconds timeout);

class WebDriver {
 public:
  // Opens a session of Chromium (the driver finds it) started with `args`.
  WebDriver(int port, const std::vector<std::string>& args);
  WebDriver(const WebDriver&) = delete;
  WebDriver& operator=(const WebDriver&) = delete;
  ~WebDriver();

  // False when the session could not be opened; error() says why.
  bool ok() const { return !session_.empty(); }
  // What the driver answered to the last command that failed.
  const std::string& error() const { return error_; }

  bool open(const std::string& url);
  // Clicks the first element that matches the CSS selector, as a mouse would
  // (the driver scrolls it into view and refuses when another covers it).
  bool click(const std::string& selector);
  // The value of a script's `return`, run as a function's body with `args`
  // as its arguments; null when it failed.
  nlohmann::json run(const std::string& script,
                     const nlohmann::json& args = nlohmann::json::array());
  // Polls the script until it returns `want` or the time is up; the last
  // value it returned either way.
  nlohmann::json wait_for(const std::string& script, const nlohmann::json& want,
                          milliseconds timeout = milliseconds(10000));

 private:
  std::optional<nlohmann::json> command(const std::string& method, const std::string& path,
                                        const nlohmann::json& body = nlohmann::json::object());
  httplib::Client client_;
  std::string session_;
  std::string error_;
};

}  // namespace vorn::test
