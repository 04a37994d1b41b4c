#include "util/xml.h"

#include <libxml/parser.h>
#include <libxml/xpathInternals.h>

#include "util/log.h"

namespace vorn::xml {

namespace {

constexpr const char* kLogSource = "util/xml";

void discard_message(void*, const char*, ...) {}

void init_once() {
  static const bool done = [] {
    xmlInitParser();
    xmlSetGenericErrorFunc(nullptr, discard_message);
    return true;
  }();
  (void)done;
}

}  // namespace

Document parse_file(const std::string& path) {
  init_once();
  return Document(xmlReadFile(path.c_str(), nullptr,
                              XML_PARSE_NONET | XML_PARSE_NOERROR | XML_PARSE_NOWARNING));
}

XPathContext new_context(xmlDoc* doc) {
  init_once();
  return XPathContext(xmlXPathNewContext(doc));
}

std::vector<xmlNode*> select(xmlXPathContext* context, const std::string& expression) {
  std::vector<xmlNode*> out;
  XPathObject result(
      xmlXPathEvalExpression(reinterpret_cast<const xmlChar*>(expression.c_str()), context));
  if (!result || result->type != XPATH_NODESET || result->nodesetval == nullptr) {
    return out;
  }
  xmlXPathNodeSetSort(result->nodesetval);
  for (int i = 0; i < result->nodesetval->nodeNr; ++i) {
    out.push_back(result->nodesetval->nodeTab[i]);
  }
  return out;
}

std::string text(const xmlNode* node) {
  xmlChar* content = xmlNodeGetContent(node);
  if (content == nullptr) {
    return {};
  }
  std::string out(reinterpret_cast<const char*>(content));
  xmlFree(content);
  return out;
}

bool attribute(const xmlNode* node, const char* name, std::string* value) {
  xmlChar* raw = xmlGetProp(node, reinterpret_cast<const xmlChar*>(name));
  if (raw == nullptr) {
    return false;
  }
  *value = reinterpret_cast<const char*>(raw);
  xmlFree(raw);
  return true;
}

double number(const std::string& text) {
  return xmlXPathCastStringToNumber(reinterpret_cast<const xmlChar*>(text.c_str()));
}

std::vector<xmlNode*> ConfigurationReader::all(const char* key) const {
  return select(context_, std::string("//configuration/") + key);
}

const xmlNode* ConfigurationReader::find(const char* key, const char* several_message,
                                         const char* closing) const {
  std::vector<xmlNode*> nodes = all(key);
  if (nodes.empty()) {
    return nullptr;
  }
  if (nodes.size() > 1) {
    VORN_LOG(4) << several_message << path_ << closing;
  }
  return nodes.front();
}

std::optional<std::string> ConfigurationReader::text(const char* key, const char* several_message,
                                                     const char* closing) const {
  const xmlNode* node = find(key, several_message, closing);
  if (node == nullptr) {
    return std::nullopt;
  }
  return vorn::xml::text(node);
}

std::optional<double> ConfigurationReader::number(const char* key, const char* several_message,
                                                  const char* closing) const {
  std::optional<std::string> value = text(key, several_message, closing);
  if (!value) {
    return std::nullopt;
  }
  return vorn::xml::number(*value);
}

}  // namespace vorn::xml
