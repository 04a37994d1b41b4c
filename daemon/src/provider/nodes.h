#pragma once
// Node lists of multi-node provider runs, and the checks made on them.
//
// A node file (see util/node.h for its syntax) lists the nodes of one run;
// its node list text is the node names in file order joined by ", ".
//
// Thread safety: plain functions over their arguments.

#include <cstdint>
#include <string>

struct provider;

// True when the file opens and names at least one node; fills the count and
// the node list text.
bool read_node_file(const std::string& path, uint16_t& count, std::string& nodes_text);

// Whether the provider may run on its current node file (logged when not). A
// single-node provider needs none; too many nodes is reported, not refused.
bool check_node_requirements(const provider& record);

// The node-list permutation count for a "number" attribute: a non-negative
// integer (0 means all), or "all"/"ALL" for 0; anything else keeps `current`
// with a warning naming `path`.
int32_t nodelist_permutation_count(const std::string& text, int32_t current,
                                   const std::string& path);
