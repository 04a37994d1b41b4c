#include "tests/support/webdriver.h"

namespace vorn::test {

namespace {

using nlohmann::json;

// The key under which the protocol names an element.
constexpr const char* kElement = "element-6066-11e4-a52e-4f735466cecf";

}  // namespace

bool webdriver_ready(int port, milliseconds timeout) {
  httplib::Client client("127.0.0.1", port);
  client.set_connection_timeout(1, 0);
  return wait_until(
      [&] {
        auto status = client.Get("/status");
        if (!status || status->status != 200) {
          return false;
        }
        json answer = json::parse(status->body, nullptr, false);
        return !answer.is_discarded() && answer["value"].value("ready", false);
      },
      timeout);
}

WebDriver::WebDriver(int port, const std::vector<std::string>& args) : client_("127.0.0.1", port) {
  // Starting a browser on a busy machine takes seconds.
  client_.set_read_timeout(120, 0);
  json options = {{"args", args}};
  json capabilities = {
      {"alwaysMatch", {{"browserName", "chrome"}, {"goog:chromeOptions", options}}}};
  auto answer = command("POST", "/session", {{"capabilities", capabilities}});
  if (answer && answer->contains("sessionId")) {
    session_ = answer->at("sessionId").get<std::string>();
  }
}

WebDriver::~WebDriver() {
  if (ok()) {
    command("DELETE", "/session/" + session_);
  }
}

std::optional<json> WebDriver::command(const std::string& method, const std::string& path,
                                       const json& body) {
  httplib::Result response = method == "DELETE"
                                 ? client_.Delete(path.c_str())
                                 : client_.Post(path.c_str(), body.dump(), "application/json");
  if (!response) {
    error_ = method + " " + path + ": " + httplib::to_string(response.error());
    return std::nullopt;
  }
  json answer = json::parse(response->body, nullptr, false);
  if (response->status != 200 || answer.is_discarded() || !answer.contains("value")) {
    error_ = method + " " + path + ": " + std::to_string(response->status) + " " + response->body;
    return std::nullopt;
  }
  return answer["value"];
}

bool WebDriver::open(const std::string& url) {
  return command("POST", "/session/" + session_ + "/url", {{"url", url}}).has_value();
}

bool WebDriver::click(const std::string& selector) {
  auto element = command("POST", "/session/" + session_ + "/element",
                         {{"using", "css selector"}, {"value", selector}});
  if (!element || !element->contains(kElement)) {
    return false;
  }
  std::string id = element->at(kElement).get<std::string>();
  return command("POST", "/session/" + session_ + "/element/" + id + "/click").has_value();
}

json WebDriver::run(const std::string& script, const json& args) {
  auto value = command("POST", "/session/" + session_ + "/execute/sync",
                       {{"script", script}, {"args", args}});
  return value ? *value : json();
}

json WebDriver::wait_for(const std::string& script, const json& want, milliseconds timeout) {
  json last;
  wait_until(
      [&] {
        last = run(script);
        return last == want;
      },
      timeout);
  return last;
}

}  // namespace vorn::test
