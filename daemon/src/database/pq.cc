#include "daemon/src/database/pq.h"

#include <vector>

namespace {

// What in a url may be a password: the value of a password keyword, or what
// follows the user name in a URI's user information.
std::vector<std::string> passwords_in(const std::string& url) {
  std::vector<std::string> found;
  for (size_t at = url.find("password"); at != std::string::npos;
       at = url.find("password", at + 1)) {
    size_t begin = url.find_first_not_of(" =", at + 8);
    if (begin == std::string::npos || url.find('=', at + 8) >= begin) {
      continue;
    }
    size_t end = url.find_first_of(" &", begin);
    found.push_back(url.substr(begin, end == std::string::npos ? end : end - begin));
  }
  if (size_t scheme = url.find("://"); scheme != std::string::npos) {
    size_t begin = scheme + 3;
    std::string authority = url.substr(begin, url.find_first_of("/?", begin) - begin);
    size_t at = authority.rfind('@');
    size_t colon = authority.find(':');
    if (at != std::string::npos && colon < at) {
      found.push_back(authority.substr(colon + 1, at - colon - 1));
    }
  }
  for (std::string& secret : found) {
    if (secret.size() >= 2 && (secret.front() == '\'' || secret.front() == '"')) {
      secret = secret.substr(1, secret.size() - 2);
    }
  }
  return found;
}

}  // namespace

std::string pq_one_line(const char* message) {
  std::string line;
  bool blank = false;
  for (const char* c = message != nullptr ? message : ""; *c != '\0'; ++c) {
    if (*c == '\n' || *c == '\t' || *c == '\r' || *c == ' ') {
      blank = true;
      continue;
    }
    if (blank && !line.empty()) {
      line += ' ';
    }
    blank = false;
    line += *c;
  }
  return line;
}

std::string pq_url_error(const std::string& url) {
  char* message = nullptr;
  if (PQconninfoOption* options = PQconninfoParse(url.c_str(), &message)) {
    PQconninfoFree(options);
    return "";
  }
  std::string why = message != nullptr ? pq_one_line(message) : "out of memory";
  PQfreemem(message);
  // libpq quotes the part it could not parse, which may be a password.
  for (const std::string& secret : passwords_in(url)) {
    for (size_t at; !secret.empty() && (at = why.find(secret)) != std::string::npos;) {
      why.replace(at, secret.size(), "****");
    }
  }
  return why;
}
