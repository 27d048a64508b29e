// The documents of the configuration bus: builders and parsers (docs/bus.md shows each one).
//
// A document is an XML 1.0 declaration, a line feed, the root element on one line, a line feed.
// Its root element names the kind of message; its children are `parameter` elements.
//
// Builders return the bytes in a buffer that the caller releases with free, and their length
// without a terminator; null with length 0 when memory is short. Parsers put what they read into
// the request lists (service/request_lists.h).
//
// A request that is not well-formed, is longer than kMaxRequestBytes or holds a document type
// declaration is not a bus document: it counts as not parsable, silently, and costs no more than
// reading it. A root of another name is logged. Children that are no elements or have no `name`
// are skipped; the name of a child element is not examined.
//
// No state. The response builders read GetAnswerList or ParamList without taking a lock: the
// loops hold the get-all lock around them.
#pragma once

#include "container/simlist.h"

#include <cstdint>

namespace kelconf {

// Bytes of the longest request that is read; a longer one is answered as one that does not parse.
inline constexpr std::int32_t kMaxRequestBytes = 16 * 1024 * 1024;

// What parseSetRequestXML found.
enum SetRequestCode : std::int32_t {
    kSetAction = 0,       // store later
    kSetActionDirect = 1, // store before the response
    kSetActionNoDb = 2,   // memory only
    kNotASetRequest = 3
};

// A change to announce. Owned texts (text/text.h).
struct ChangeRecord {
    char* name;
    char* value;
    char* prev_value;
};

// ---- Client side --------------------------------------------------------------------------------

char* genGetRequestXML(const char* name, std::int32_t* length);
char* genGetAllRequestXML(std::int32_t* length);
char* genSetRequestXML(const char* name, const char* value, std::int32_t* length);

// ---- Responses ----------------------------------------------------------------------------------

// GetAnswerList in order; `found` 0 makes it a failure response.
char* genGetReponseXML(std::uint8_t found, std::int32_t* length);
// All of ParamList in order.
char* genGetAllReponseXML(std::int32_t* length);
// The parameters of ParamList that IsGroupNode accepts. Writes one trace line to standard output.
char* genGetGroupReponseXML(std::int32_t* length);
char* genSetReponseXML(std::uint8_t success, std::int32_t* length);

// ---- Events -------------------------------------------------------------------------------------

// A null previous value is announced as an empty one.
char* genEventXML(const char* name, const char* value, const char* prev_value,
                  std::int32_t* length);
// One element for each ChangeRecord of `changes`. Releases the records' texts, also when it
// fails; the records stay in the list, which the caller then destroys.
char* genMultipleEventXML(simlist* changes, std::int32_t* length);

// ---- Requests -----------------------------------------------------------------------------------

void parseGetRequestXML(const char* bytes, std::int32_t length);
void parseGetAllRequestXML(const char* bytes, std::int32_t length);
void parseGetGroupRequestXML(const char* bytes, std::int32_t length);
std::int32_t parseSetRequestXML(const char* bytes, std::int32_t length);

} // namespace kelconf
