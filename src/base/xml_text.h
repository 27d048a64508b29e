// Texts as libxml2 wants them: the same bytes, read as xmlChar.
#pragma once

#include <libxml/xmlstring.h>

namespace kelconf {

inline const xmlChar* asXml(const char* text) {
    return reinterpret_cast<const xmlChar*>(text);
}

} // namespace kelconf
