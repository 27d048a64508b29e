// The live parameters: one record for each row of CONFIG, in memory, sorted by name.
//
// The service loads the list once (loadSQLDB, db/live_db.h), which sorts it; from then on its
// elements, their order and names stay as they are and only values change. So lookups and walks
// take no lock. Values are guarded by the parameter lock (bus/service_locks.h): it is held for
// every replacement and for every copy. The GET_ALL and GET_GROUP loops read values under the
// get-all lock alone, which the SET loop holds while it replaces them.
#pragma once

#include "container/simlist.h"

#include <cstdint>

namespace kelconf {

// The element owns both texts (text/text.h).
struct ParamElement {
    char* name;              // full dotted name, unique
    char* value;             // never null once loaded
    std::uint8_t persistent; // 1: a SET is stored; 0: realtime, a SET only changes memory
};

// Copies records on insert; the texts pass into the list with the record.
extern simlist ParamList;

void initParamList();

// No texts, persistent 1.
void initParamElement(ParamElement* element);

// Appends a copy of the record, unsorted. The container's result: 1 or -1.
std::int32_t addParamElement(const ParamElement* element);

// Ascending by strcmp of the names. Every lookup relies on it.
void sortParamList();

std::int32_t CheckParamListLength();

// By a table of positions that the sort leaves, else by binary search. The element stays in the
// list, its value may be replaced in place under the parameter lock. Null for an unknown name. On
// a list that is not sorted it can miss names.
ParamElement* seekParamElement(const char* name);

// Element at a position, null outside the list.
ParamElement* paramElementAt(std::uint32_t position);

// Removes the first element of that name, under the parameter lock; 1, or 0 when there is none.
// Only while no other thread uses the list. Never called while requests are served.
std::int32_t DeleteFromParamList(const char* name);

// Log records: every element; the figure (name length + value length + 27, summed, bytes).
void dumpParamList();
void calculateParamSize();

} // namespace kelconf
