#include "daemon/src/database/stored_outputs.h"

#include <cctype>

#include "util/czmq.h"
#include "util/log.h"
#include "util/str.h"

namespace {

constexpr const char* kLogSource = "daemon/src/database";

// Base64 as providers print it, without its line breaks and blanks; false
// when a character is neither base64 nor white space.
bool compact_base64(std::string_view text, std::string* compact) {
  compact->reserve(text.size());
  for (unsigned char c : text) {
    if (std::isalnum(c) || c == '+' || c == '/' || c == '=') {
      compact->push_back(static_cast<char>(c));
    } else if (!std::isspace(c)) {
      return false;
    }
  }
  return true;
}

// Decodes base64 text; text that is not base64 is kept as it is, with a warning,
// so that nothing a provider sent is lost.
std::string decode_base64(std::string_view text, const char* stream, const char* provider) {
  std::string compact;
  if (!compact_base64(text, &compact)) {
    VORN_LOG(4) << "The " << stream << " of data provider '" << vorn::str::printable(provider)
                << "' is marked base64 but is not; storing it as received";
    return std::string(text);
  }
  zarmour_t* armour = zarmour_new();
  zchunk_t* chunk = zarmour_decode(armour, compact.c_str());
  zarmour_destroy(&armour);
  if (chunk == nullptr) {
    return std::string(text);
  }
  // The decoded chunk carries a terminating NUL of its own.
  size_t size = zchunk_size(chunk) > 0 ? zchunk_size(chunk) - 1 : 0;
  std::string out(reinterpret_cast<const char*>(zchunk_data(chunk)), size);
  zchunk_destroy(&chunk);
  return out;
}

}  // namespace

void outputs_to_store(const result_view& record, stored_outputs* outputs) {
  const result_header& h = record.header;
  if (h.encoding != 1) {
    outputs->out = record.stdout_data;
    outputs->err = record.stderr_data;
    return;
  }
  outputs->decoded_out = decode_base64(record.stdout_data, "standard output", h.name);
  outputs->decoded_err = decode_base64(record.stderr_data, "standard error", h.name);
  outputs->out = outputs->decoded_out;
  outputs->err = outputs->decoded_err;
}
