// The walk of a parameter tree: from a parsed XML document to items in xitem_list.
//
// The format is described in docs/tree-format.md: trunks below the root, branches and
// multiple-instance elements below them, leaves with the attributes type, range, step, options,
// mode and http_access; the name of an item is its path. Items are appended in document order;
// for a multiple-instance element its counter item first, then instance 1, 2, ...
//
// The walk logs nothing and writes no file; xitem_list must have been initialised. It recurses
// once per level of nesting, which libxml2 limits to 256.
//
// Limit. A few lines of XML can ask for any number of items (a large "number", a long entity
// used often, long names above many leaves). What a tree does not spell out itself may take at
// most kExpansionLimit bytes of memory. A multiple-instance element whose repetition would go
// over it yields its counter item only; a leaf whose text or name would go over it is left out.
// The rest of the tree is walked on, but once an entity went over the limit, nothing more that
// is not spelled out is granted: else each use of it would cost the time of the whole limit.
// The result tells so.
#pragma once

#include <libxml/tree.h>

#include <cstddef>
#include <cstdint>
#include <functional>
#include <string>
#include <string_view>

namespace kelconf {

struct TreeElement; // tree/tree_template.h

inline constexpr std::uint64_t kExpansionLimit = 160ULL << 20;

// What a walk left out.
struct TreeWalkResult {
    std::uint32_t refused = 0;  // elements left out, or not repeated, because of the limit
    std::string refused_name;   // the first one's full name
    long refused_line = 0;      // and its line in the file
    bool out_of_memory = false; // items are missing because memory was short
};

// Told of each item in its order: full name; the leaf or, for a counter item, the
// multiple-instance element; value. False: memory is short.
using ItemVisitor =
    std::function<bool(std::string_view name, const TreeElement& element, std::string_view value)>;

// Walks every trunk below `root`; a null root yields nothing.
TreeWalkResult parseXmlTree(const xmlNode* root);
// The same walk, limit included, which appends nothing to xitem_list but tells `visit`.
TreeWalkResult visitXmlTree(const xmlNode* root, const ItemVisitor& visit);
// Walks a run of siblings outside any instance, from `first` on, below the name `parent`.
TreeWalkResult parseXmlNode(std::string_view parent, const xmlNode* first);
// The same inside an instance: "%auto" in values becomes `instance`.
TreeWalkResult parseXmlInstanceNode(std::string_view parent, const xmlNode* first,
                                    std::int32_t instance);
// Walks the run from `first` on once for each instance 1 to `count` of the element `name`.
TreeWalkResult expandMultipleInstance(std::string_view name, const xmlNode* first,
                                      std::int32_t count);

// Each returns a new text that the caller owns (freeText), null when memory is short.
// The text with every "%auto" replaced, left to right, without overlap.
char* replaceAutoToken(std::string_view text, std::string_view replacement);
// The attribute's value, or an empty text when it is absent.
char* sxmlGetProp(const xmlNode* element, const char* name);
// The text content of an element and of everything inside it, or an empty text.
char* sxmlNodeGetContent(const xmlNode* element);

} // namespace kelconf
