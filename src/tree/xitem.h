// Parameter items: what a parameter tree defines, and the list of one build.
//
// The walker (tree/tree_walker.h) makes the items; the builders (builders/conf_builders.h) and the
// default table (db/default_db.h) read them. All items of one build live in one process-wide
// list, xitem_list, in the order of the tree until they are sorted. Two items may have one
// name; it is the databases' primary keys that refuse the second row.
//
// Life of the list: initXitemList, fill, read, delXitemList; then it must be initialised again.
// No lock: one thread initialises, fills, reads and destroys it.
#pragma once

#include "container/simlist.h"

#include <cstdint>

namespace kelconf {

// Every text is a heap allocation of its own (text/text.h) that the record owns. An attribute
// that the tree leaves out is an empty text, never a null pointer.
struct xitem {
    char* name;  // full dotted name
    char* value; // default value
    char* type;  // type word; "realtime": no default, changes are not written back
    char* range; // this and the following attributes as the tree spells them
    char* step;
    char* options;
    char* mode; // shown by the dump only, stored in no table
    char* http_access;
    std::uint8_t mark; // 1 once searchAndMarkXitem has found the item
};

extern simlist xitem_list;

// 0 on success, -1 on error.
std::int32_t initXitemList();
std::int32_t CheckXitemListLength();
// Appends a copy of the record; its texts then belong to the list. 1, or -1 on failure (the
// texts stay the caller's).
std::int32_t addXitemElement(const xitem* item);
// The item at a position of the list, or null.
xitem* xitemAt(std::uint32_t position);
// Binary search by exact name over a sorted list; null when there is none.
xitem* searchXitemElement(const char* name);
// The same, and sets the item's mark.
xitem* searchAndMarkXitem(const char* name);
// Ascending byte order of the names; the result of simlist_sort.
std::int32_t sortXitemList();
std::int32_t sortXitem();
// Frees the eight texts of an item; a null one is skipped.
void freeXitemTexts(xitem& item);
// Frees the texts of every item and destroys the list.
void delXitemList();
// Logs every item in list order.
void dumpXitemlist();

// The list's attributes.
std::int32_t xitemCompare(const void* a, const void* b);
std::int32_t xitemSeek(const void* element, const void* key);
std::size_t xitemSize(const void* element);

} // namespace kelconf
