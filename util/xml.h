#pragma once
// Owners and helpers for the libxml2 handles the XML readers use.
//
// Documents are parsed without network access and without libxml2's own error
// printing; callers report failures in their own words. Handles are owned by
// the routine that creates them and freed on every return path. libxml2 is
// initialised on first use; parse on one thread at a time during start-up.

#include <libxml/tree.h>
#include <libxml/xpath.h>

#include <cmath>
#include <cstdint>
#include <limits>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace vorn::xml {

struct FreeDocument {
  void operator()(xmlDoc* doc) const { xmlFreeDoc(doc); }
};
struct FreeContext {
  void operator()(xmlXPathContext* context) const { xmlXPathFreeContext(context); }
};
struct FreeObject {
  void operator()(xmlXPathObject* object) const { xmlXPathFreeObject(object); }
};

using Document = std::unique_ptr<xmlDoc, FreeDocument>;
using XPathContext = std::unique_ptr<xmlXPathContext, FreeContext>;
using XPathObject = std::unique_ptr<xmlXPathObject, FreeObject>;

// Null when the file cannot be read or is not well-formed XML.
Document parse_file(const std::string& path);

XPathContext new_context(xmlDoc* doc);

// The element nodes that `expression` selects, in document order; empty when
// nothing matches or the expression fails.
std::vector<xmlNode*> select(xmlXPathContext* context, const std::string& expression);

// Text content of a node (its string value in XPath terms).
std::string text(const xmlNode* node);

// Value of an attribute, or false when the element has no such attribute.
bool attribute(const xmlNode* node, const char* name, std::string* value);

// XPath number value of a text: NaN for anything that is not a number.
double number(const std::string& text);

// Reads settings of a file whose every setting is an element below any
// "configuration" element ("//configuration/<key>"). When a key occurs more
// than once, the first occurrence in document order is used and a warning is
// logged: the caller's message, the file's path, then `kFirstOne` or the
// caller's closing text.
class ConfigurationReader {
 public:
  static constexpr const char* kFirstOne = "'. Using first one.";

  ConfigurationReader(xmlXPathContext* context, std::string path)
      : context_(context), path_(std::move(path)) {}

  // Every match of the key, in document order.
  std::vector<xmlNode*> all(const char* key) const;

  const xmlNode* find(const char* key, const char* several_message,
                      const char* closing = kFirstOne) const;
  std::optional<std::string> text(const char* key, const char* several_message,
                                  const char* closing = kFirstOne) const;
  std::optional<double> number(const char* key, const char* several_message,
                               const char* closing = kFirstOne) const;

  const std::string& path() const { return path_; }

 private:
  xmlXPathContext* context_;
  std::string path_;
};

// Truncates toward zero into T. NaN gives 0; values beyond T's range saturate,
// because a plain cast of such a double is undefined.
template <typename T>
T to_integer(double value) {
  if (std::isnan(value)) {
    return 0;
  }
  if (value <= static_cast<double>(std::numeric_limits<T>::min())) {
    return std::numeric_limits<T>::min();
  }
  if (value >= static_cast<double>(std::numeric_limits<T>::max())) {
    return std::numeric_limits<T>::max();
  }
  return static_cast<T>(value);
}

// Truncates toward zero into 64 bits and then keeps the low bits of type T, as
// configuration values do that are read as 64-bit numbers and stored narrower.
template <typename T>
T to_integer_via_64(double value) {
  return static_cast<T>(to_integer<int64_t>(value));
}

}  // namespace vorn::xml
