// Reads a document in the very bytes that the service writes (bus/xml_writer.h), without an XML
// parser: most of the time of a short request would be the parser's.
#pragma once

#include "client/reply_document.h"

#include <string_view>

namespace kelconf {

// False for everything that is not in the service's own form, well-formed or not; `document` is
// then of no use. What is accepted reads exactly as an XML parser reads it. Throws std::bad_alloc.
bool scanReply(std::string_view bytes, ReplyDocument& document);

} // namespace kelconf
