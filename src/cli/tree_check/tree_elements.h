// What can be said of the elements of a parameter tree as they are written: kinds, attributes,
// counts, and what the walk passes over. Part of cli/tree_check/tree_check.h.
#pragma once

#include "cli/tree_check/tree_check.h"

#include <libxml/tree.h>

namespace kelconf::cli {

// Goes through every element that the walk reaches, once, and through none inside a leaf or inside
// what is skipped. Recurses once per level, which libxml2 limits to 256.
void checkElements(const xmlNode* root, TreeReport& report);

} // namespace kelconf::cli
