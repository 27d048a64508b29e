// The content of the bus request that is being handled.
//
//   GetAnswerList  the names of a GET; each receives a copy of its live value
//   SetAnswerList  the names and new values of a SET (applied by service/set_handling.h)
//   QryGroupList   the group names of a GET_GROUP
//
// The parsers of bus/bus_xml.h fill them in document order, the loop of the endpoint empties
// them after its reply; between two requests they are empty. Each list belongs to one loop:
// GetAnswerList and QryGroupList are used under the get-all lock, SetAnswerList is touched by
// the SET loop only. Texts given are copied; the lists own theirs until the release.
//
// Adding gives the container's result: 1, or -1 when memory is short (nothing is added).
#pragma once

#include "container/simlist.h"

#include <cstdint>

namespace kelconf {

struct AnswerElement {
    char* name;  // as it stood in the request; may be null
    char* value; // GET: the answer, empty until found; SET: the new value; may be null
};

struct GroupElement {
    char* name;
};

extern simlist GetAnswerList;
extern simlist SetAnswerList;
extern simlist QryGroupList;

// Each once, before the first request.
void initGetAnswerList();
void initSetAnswerList();
void initQryGroupListList();

std::int32_t CheckGetAnswerListLength();
std::int32_t CheckSetAnswerListLength();
std::int32_t CheckQryGroupListLength();

// A ready record: the list stores a copy of it and owns its texts from then on.
std::int32_t addGetAnswerElement(const AnswerElement* element);
std::int32_t addSetAnswerElement(const AnswerElement* element);

// Copies of the texts; the value is empty where none is given.
std::int32_t addGetAnswerElementWithName(const char* name);
std::int32_t addSetAnswerElementWithName(const char* name);
std::int32_t addQryGroupElementWithName(const char* name);
std::int32_t addGetAnswerElementWithNameAndValue(const char* name, const char* value);
std::int32_t addSetAnswerElementWithNameAndValue(const char* name, const char* value);

// Null outside the list.
AnswerElement* getAnswerAt(std::uint32_t position);
AnswerElement* setAnswerAt(std::uint32_t position);

// Log records: every element.
void dumpGetAnswerList();
void dumpSetAnswerList();

// Release all texts and empty the list.
void delGetAnswerElement();
void delSetAnswerElement();
void delQryGroupElement();

// Copies the live value of every name in GetAnswerList into it, each under the parameter lock.
// 1 when every named element was found (also for an empty list), 0 when at least one was not;
// the others are answered all the same.
std::int32_t searchValueForGetAnswerList();

// 1 when the first eight bytes of the name agree with those of a group in QryGroupList, else 0.
// A position beyond the end of a name agrees with nothing but the same end, so a group name
// shorter than eight bytes means the parameter of exactly that name.
std::int32_t IsGroupNode(const char* name);

} // namespace kelconf
