#include "util/str.h"

#include <wordexp.h>

#include <algorithm>
#include <cctype>
#include <cstring>

namespace vorn::str {

namespace {

constexpr std::string_view kWhiteSpace = " \t\n\r\f\v";

// Whether every "$" of the text starts "$NAME" or "${NAME}". glibc's wordexp
// dereferences a null pointer on "$(())", "$[]" and "${NAME:?}" with NAME
// unset, so no other form reaches it.
bool only_plain_parameters(std::string_view text) {
  auto name_start = [](char c) { return std::isalpha(static_cast<unsigned char>(c)) || c == '_'; };
  auto name_char = [](char c) { return std::isalnum(static_cast<unsigned char>(c)) || c == '_'; };
  for (size_t dollar = text.find('$'); dollar != std::string_view::npos;
       dollar = text.find('$', dollar + 1)) {
    size_t at = dollar + 1;
    const bool braced = at < text.size() && text[at] == '{';
    if (braced) {
      ++at;
    }
    if (at >= text.size() || !name_start(text[at])) {
      return false;
    }
    while (at < text.size() && name_char(text[at])) {
      ++at;
    }
    if (braced && (at >= text.size() || text[at] != '}')) {
      return false;
    }
  }
  return true;
}

// Owns the word list that wordexp(3) allocates.
class WordList {
 public:
  WordList() = default;
  WordList(const WordList&) = delete;
  WordList& operator=(const WordList&) = delete;
  ~WordList() {
    if (filled_) {
      ::wordfree(&words_);
    }
  }

  bool expand(const std::string& text) {
    if (!only_plain_parameters(text)) {
      return false;
    }
    int rc = ::wordexp(text.c_str(), &words_, WRDE_NOCMD);
    // WRDE_NOSPACE may leave a partial list behind that still must be freed.
    filled_ = (rc == 0 || rc == WRDE_NOSPACE);
    return rc == 0;
  }

  std::string joined() const {
    std::string out;
    for (size_t i = 0; i < words_.we_wordc; ++i) {
      if (i > 0) {
        out += ' ';
      }
      out += words_.we_wordv[i];
    }
    return out;
  }

 private:
  wordexp_t words_{};
  bool filled_ = false;
};

}  // namespace

std::string strip(std::string_view text, std::string_view chars) {
  if (chars.empty()) {
    chars = kWhiteSpace;
  }
  size_t first = text.find_first_not_of(chars);
  if (first == std::string_view::npos) {
    return {};
  }
  size_t last = text.find_last_not_of(chars);
  return std::string(text.substr(first, last - first + 1));
}

std::string upper(std::string_view text) {
  std::string out(text);
  std::transform(out.begin(), out.end(), out.begin(),
                 [](unsigned char c) { return static_cast<char>(std::toupper(c)); });
  return out;
}

std::string dirname(std::string_view path) {
  // Trailing slashes do not name a further component.
  while (path.size() > 1 && path.back() == '/') {
    path.remove_suffix(1);
  }
  size_t slash = path.rfind('/');
  if (slash == std::string_view::npos) {
    return ".";
  }
  std::string_view dir = path.substr(0, slash);
  while (dir.size() > 1 && dir.back() == '/') {
    dir.remove_suffix(1);
  }
  return dir.empty() ? "/" : std::string(dir);
}

std::string replace(std::string_view text, std::string_view from, std::string_view to) {
  if (from.empty()) {
    return std::string(text);
  }
  std::string out;
  size_t pos = 0;
  for (size_t hit = text.find(from); hit != std::string_view::npos; hit = text.find(from, pos)) {
    out.append(text.substr(pos, hit - pos));
    out.append(to);
    pos = hit + from.size();
  }
  out.append(text.substr(pos));
  return out;
}

std::optional<std::string> try_wordexp(std::string_view text) {
  WordList words;
  if (!words.expand(std::string(text))) {
    return std::nullopt;
  }
  return words.joined();
}

std::string wordexp(std::string_view text) {
  return try_wordexp(text).value_or(std::string(text));
}

std::string printable(std::string_view text) {
  static constexpr char kHex[] = "0123456789abcdef";
  std::string out;
  out.reserve(text.size());
  for (unsigned char c : text) {
    if (c == '\\') {
      out += "\\\\";
    } else if (c < 0x20 || c == 0x7f) {
      out += "\\x";
      out += kHex[c >> 4];
      out += kHex[c & 0xf];
    } else {
      out += static_cast<char>(c);
    }
  }
  return out;
}

void copy(char* buffer, std::size_t size, std::string_view text) {
  if (size == 0) {
    return;
  }
  size_t n = std::min(size - 1, text.size());
  std::memcpy(buffer, text.data(), n);
  buffer[n] = '\0';
}

}  // namespace vorn::str
