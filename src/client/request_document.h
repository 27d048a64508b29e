// The requests of a client: documents of the bus (docs/bus.md) with any number of parameters.
#pragma once

#include "kelbus.h"
#include "text/text.h"

#include <span>
#include <string>
#include <string_view>

namespace kelconf {

struct RequestDocument {
    OwnedText bytes;
    std::int32_t length = 0;
    [[nodiscard]] std::string_view view() const {
        return {bytes.get(), static_cast<std::size_t>(length)};
    }
};

// One `parameter` element for each parameter; a null value writes none. Refuses what the service
// would not read as it was meant: empty names, texts that XML cannot carry, a request over
// kMaxRequestBytes. `message` then says which parameter it is.
kelbus_error buildRequest(const char* root, std::span<const kelbus_parameter> parameters,
                          RequestDocument& document, std::string& message);

} // namespace kelconf
