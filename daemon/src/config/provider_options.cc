#include "daemon/src/config/provider_options.h"

#include <vector>

#include "util/log.h"
#include "util/str.h"
#include "util/xml.h"

namespace {

constexpr const char* kLogSource = "daemon/src/config";

std::vector<const xmlNode*> element_children(const xmlNode* parent) {
  std::vector<const xmlNode*> out;
  for (const xmlNode* child = parent->children; child != nullptr; child = child->next) {
    if (child->type == XML_ELEMENT_NODE) {
      out.push_back(child);
    }
  }
  return out;
}

std::string node_name(const xmlNode* node) {
  return reinterpret_cast<const char*>(node->name);
}

// Appends the option's assignment to `environment`, unless its value would
// break the shell quoting.
void append_option(const std::string& provider_key, const xmlNode* option,
                   std::string& environment) {
  std::string value = vorn::xml::text(option);
  if (value.find('"') != std::string::npos) {
    VORN_LOG(4) << "Environment variables intended to be passed to providers"
                << " should not contain double quotes. The value "
                << "<" << value << "> will be ignored.";
    return;
  }
  environment += "VORN_PROVIDER_" + provider_key + "_" +
                 vorn::str::upper(vorn::str::strip(node_name(option))) + "=\"" +
                 vorn::str::strip(value) + "\" ";
}

void read_provider(const std::string& name, xmlXPathContext* context, daemon_config& config) {
  const std::string key = vorn::str::upper(name);
  std::vector<xmlNode*> matches = vorn::xml::select(context, "//configuration/provider/" + name);
  if (matches.empty()) {
    return;
  }
  std::string common;
  option_set_map sets;
  for (const xmlNode* child : element_children(matches.front())) {
    if (node_name(child) != "optionset") {
      append_option(key, child, common);
      continue;
    }
    std::string id;
    if (!vorn::xml::attribute(child, "id", &id)) {
      VORN_LOG(4) << "Unable to find ID for optionset. Options will be ignored for provider "
                  << key;
      continue;
    }
    std::string environment;
    for (const xmlNode* option : element_children(child)) {
      append_option(key, option, environment);
    }
    sets[id] = environment;
  }
  if (sets.empty()) {
    sets["default"] = common;
  } else {
    // A set's own options come first; the common ones follow in every set.
    for (auto& entry : sets) {
      entry.second += common;
    }
  }
  config.option_sets[key] = std::move(sets);
}

}  // namespace

void read_provider_options(daemon_config& config, xmlXPathContext* context) {
  std::vector<xmlNode*> containers = vorn::xml::select(context, "//configuration/provider");
  if (containers.empty()) {
    return;
  }
  // Names are collected first: a name listed twice is read twice, and the
  // later reading replaces the earlier entry.
  std::vector<std::string> names;
  for (const xmlNode* child : element_children(containers.front())) {
    names.push_back(node_name(child));
  }
  for (const std::string& name : names) {
    read_provider(name, context, config);
  }
}
