#include "client/request_document.h"

#include "bus/bus_xml.h"
#include "bus/xml_writer.h"

#include <algorithm>

namespace kelconf {

namespace {

constexpr std::size_t kElementSize = 64; // bytes, likely length of one element

// A name stands in an attribute, where the writer leaves the control characters to libxml2.
bool hasControls(std::string_view name) {
    return std::any_of(name.begin(), name.end(), [](char c) {
        return static_cast<unsigned char>(c) < 0x20 && c != '\t' && c != '\n' && c != '\r';
    });
}

kelbus_error refuse(const char* name, const char* why, std::string& message) {
    message = std::string{"\""} + (name == nullptr ? "" : name) + "\": " + why;
    return KELBUS_BAD_ARGUMENT;
}

kelbus_error add(XmlWriter& writer, const kelbus_parameter& parameter, std::string& message) {
    if (viewOf(parameter.name).empty()) {
        return refuse(parameter.name, "a name is empty", message);
    }
    if (!hasControls(parameter.name) && writer.add({parameter.name, nullptr, parameter.value})) {
        return KELBUS_OK;
    }
    if (writer.outOfMemory()) {
        return KELBUS_NO_MEMORY;
    }
    return refuse(parameter.name,
                  "the name or the value is not UTF-8 or holds a character that XML cannot carry",
                  message);
}

} // namespace

kelbus_error buildRequest(const char* root, std::span<const kelbus_parameter> parameters,
                          RequestDocument& document, std::string& message) {
    XmlWriter writer{root, kElementSize * (parameters.size() + 1)};
    for (const kelbus_parameter& parameter : parameters) {
        const kelbus_error error = add(writer, parameter, message);
        if (error != KELBUS_OK) {
            return error;
        }
        if (writer.size() > static_cast<std::size_t>(kMaxRequestBytes)) {
            break;
        }
    }
    document.bytes = writer.finish(&document.length);
    if (!document.bytes) {
        return KELBUS_NO_MEMORY;
    }
    if (document.length > kMaxRequestBytes) {
        message = "the request is longer than the 16 MiB that the service reads";
        return KELBUS_BAD_ARGUMENT;
    }
    return KELBUS_OK;
}

} // namespace kelconf
