// Counterpart of XmlWriter for any text, apart from it: libkelbus writes without libxml2.
#pragma once

#include "bus/xml_writer.h"

#include <cstdint>
#include <functional>

namespace kelconf {

// Calls its argument for each parameter of a document, in order, as long as that returns true.
using ParameterSink = std::function<bool(const BusParameter&)>;

// Builds the document with libxml2 and dumps it. `walk` feeds the sink. Null with length 0 when
// libxml2 gives nothing. Release with free.
char* dumpWithLibrary(const char* root, const std::function<void(const ParameterSink&)>& walk,
                      std::int32_t* length);

} // namespace kelconf
