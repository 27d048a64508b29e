// The builders of bus/bus_xml.h.
#include "bus/bus_xml.h"
#include "bus/xml_dump.h"
#include "bus/xml_writer.h"
#include "service/param_list.h"
#include "service/request_lists.h"
#include "text/text.h"

#include <cstdio>

namespace kelconf {

namespace {

constexpr std::size_t kShortDocument = 256; // bytes, likely length of a document with one element
constexpr std::size_t kElementSize = 80;    // bytes, likely length of one of many elements

// `walk(sink)` hands every parameter to the sink, in order, until the sink returns false.
template <typename Walk>
char* build(const char* root, std::size_t expected, const Walk& walk, std::int32_t* length) {
    XmlWriter writer{root, expected};
    bool complete = true;
    walk([&](const BusParameter& parameter) {
        complete = writer.add(parameter);
        return complete;
    });
    if (complete) {
        return writer.finish(length).release();
    }
    return dumpWithLibrary(root, walk, length);
}

char* buildEmpty(const char* root, std::int32_t* length) {
    return XmlWriter{root, kShortDocument}.finish(length).release();
}

char* buildOne(const char* root, const BusParameter& parameter, std::int32_t* length) {
    return build(
        root, kShortDocument, [&](const auto& sink) { sink(parameter); }, length);
}

std::size_t expectedSize(std::uint32_t elements) {
    return kShortDocument + elements * kElementSize;
}

// Accept decides by name whether a parameter is part of the document.
template <typename Accept>
char* buildFromParamList(const char* root, std::size_t expected, Accept accept,
                         std::int32_t* length) {
    const auto walk = [&](const auto& sink) {
        const auto count = static_cast<std::uint32_t>(CheckParamListLength());
        for (std::uint32_t i = 0; i < count; ++i) {
            const ParamElement* element = paramElementAt(i);
            if (element == nullptr) {
                return;
            }
            if (accept(element->name) && !sink({element->name, nullptr, element->value})) {
                return;
            }
        }
    };
    return build(root, expected, walk, length);
}

} // namespace

char* genGetRequestXML(const char* name, std::int32_t* length) {
    return buildOne("GET_ACTION", {name, nullptr, nullptr}, length);
}

char* genGetAllRequestXML(std::int32_t* length) {
    return buildEmpty("GET_ALL_ACTION", length);
}

char* genSetRequestXML(const char* name, const char* value, std::int32_t* length) {
    return buildOne("SET_ACTION", {name, nullptr, value == nullptr ? "" : value}, length);
}

char* genGetReponseXML(std::uint8_t found, std::int32_t* length) {
    const char* root = found != 0 ? "GET_RESPONSE_ACTION" : "GET_RESPONSE_FAIL_ACTION";
    const auto count = static_cast<std::uint32_t>(CheckGetAnswerListLength());
    const auto walk = [&](const auto& sink) {
        for (std::uint32_t i = 0; i < count; ++i) {
            const AnswerElement* element = getAnswerAt(i);
            if (element == nullptr ||
                !sink({element->name, nullptr, element->value == nullptr ? "" : element->value})) {
                return;
            }
        }
    };
    return build(root, expectedSize(count), walk, length);
}

char* genGetAllReponseXML(std::int32_t* length) {
    const auto count = static_cast<std::uint32_t>(CheckParamListLength());
    return buildFromParamList(
        "GET_RESPONSE_ALL_ACTION", expectedSize(count), [](const char*) { return true; }, length);
}

char* genGetGroupReponseXML(std::int32_t* length) {
    constexpr unsigned kTraceNumber = 375; // marks this line in a trace
    std::printf("%s %u CheckParamListLength %u \n", "bus_xml", kTraceNumber,
                static_cast<unsigned>(CheckParamListLength()));
    std::fflush(stdout);
    return buildFromParamList(
        "GET_RESPONSE_GROUP_ACTION", kShortDocument,
        [](const char* name) { return IsGroupNode(name) != 0; }, length);
}

char* genSetReponseXML(std::uint8_t success, std::int32_t* length) {
    return buildEmpty(success != 0 ? "SET_RESPONSE_ACTION" : "SET_RESPONSE_FAIL_ACTION", length);
}

char* genEventXML(const char* name, const char* value, const char* prev_value,
                  std::int32_t* length) {
    return buildOne("EVENT_ACTION",
                    {name, prev_value == nullptr ? "" : prev_value, value == nullptr ? "" : value},
                    length);
}

char* genMultipleEventXML(simlist* changes, std::int32_t* length) {
    const std::uint32_t count = simlist_size(changes);
    const auto recordAt = [&](std::uint32_t i) {
        return static_cast<ChangeRecord*>(simlist_get_at(changes, i));
    };
    const auto walk = [&](const auto& sink) {
        for (std::uint32_t i = 0; i < count; ++i) {
            const ChangeRecord* change = recordAt(i);
            const char* prev_value = change->prev_value == nullptr ? "" : change->prev_value;
            if (!sink({change->name, prev_value, change->value == nullptr ? "" : change->value})) {
                return;
            }
        }
    };
    char* document = build("EVENT_ACTION", expectedSize(count), walk, length);
    for (std::uint32_t i = 0; i < count; ++i) {
        ChangeRecord* change = recordAt(i);
        freeText(change->prev_value);
        freeText(change->name);
        freeText(change->value);
    }
    return document;
}

} // namespace kelconf
