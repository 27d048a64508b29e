// Text of XML elements and attributes, with a bound: an entity of a few bytes can stand for
// gigabytes. Within it the text is what libxml2's xmlNodeGetContent and xmlGetProp give, but for
// comments and processing instructions: here they have none inside entities either.
#pragma once

#include <libxml/tree.h>

#include <cstdint>
#include <string>

namespace kelconf {

// Appends to `text` the text of `element`: that of all text and CDATA inside it, entities
// expanded, in document order. Comments and processing instructions have none. Text that comes
// out of entities, and each node visited there, counts one against `allowance`; when it is used
// up the result is false and `text` is incomplete.
bool appendElementText(const xmlNode* element, std::uint64_t& allowance, std::string& text);

// The same for the value of the attribute `name`; an absent attribute appends nothing.
bool appendAttributeText(const xmlNode* element, const char* name, std::uint64_t& allowance,
                         std::string& text);

// True when `element` is an element that carries the attribute (a default of an internal
// document type counts).
bool hasAttribute(const xmlNode* element, const char* name);

} // namespace kelconf
