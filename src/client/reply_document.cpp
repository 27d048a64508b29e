#include "client/reply_document.h"

#include "client/reply_scan.h"

#include <climits>
#include <cstring>
#include <new>

namespace kelconf {

namespace {

// Where the parser is. Exceptions must not cross libxml2, so a shortage of memory is noted.
struct Reading {
    xmlParserCtxt* parser;
    ReplyDocument* document;
    unsigned depth = 0; // 1: in the root, 2: in a parameter
    bool out_of_memory = false;
};

std::string_view asText(const xmlChar* begin, const xmlChar* end) {
    return {reinterpret_cast<const char*>(begin), static_cast<std::size_t>(end - begin)};
}

template <typename Step>
void withinMemory(Reading& reading, Step step) {
    try {
        step();
    } catch (const std::bad_alloc&) {
        reading.out_of_memory = true;
        xmlStopParser(reading.parser);
    }
}

std::size_t addText(std::string& texts, std::string_view text) {
    const std::size_t place = texts.size();
    texts.append(text).push_back('\0');
    return place;
}

// Each attribute is five pointers: local name, prefix, URI, begin and end of the value.
std::string_view attribute(const xmlChar** attributes, int count, std::string_view name) {
    constexpr int kPointers = 5;
    for (; count > 0; --count, attributes += kPointers) {
        if (name == reinterpret_cast<const char*>(attributes[0])) {
            return asText(attributes[3], attributes[4]);
        }
    }
    return {};
}

void startElement(void* context, const xmlChar* name, const xmlChar* /*prefix*/,
                  const xmlChar* /*uri*/, int /*namespaces*/, const xmlChar** /*namespace_list*/,
                  int attribute_count, int /*defaulted*/, const xmlChar** attributes) {
    auto& reading = *static_cast<Reading*>(context);
    ++reading.depth;
    withinMemory(reading, [&] {
        ReplyDocument& document = *reading.document;
        if (reading.depth == 1) {
            document.root = reinterpret_cast<const char*>(name);
        } else if (reading.depth == 2) {
            ReplyParameter parameter{};
            parameter.name =
                addText(document.texts, attribute(attributes, attribute_count, "name"));
            parameter.prev_value =
                addText(document.texts, attribute(attributes, attribute_count, "prev_value"));
            parameter.value = document.texts.size();
            document.parameters.push_back(parameter);
        }
    });
}

void endElement(void* context, const xmlChar* /*name*/, const xmlChar* /*prefix*/,
                const xmlChar* /*uri*/) {
    auto& reading = *static_cast<Reading*>(context);
    if (reading.depth-- == 2) {
        withinMemory(reading, [&] { reading.document->texts.push_back('\0'); });
    }
}

void characters(void* context, const xmlChar* text, int length) {
    auto& reading = *static_cast<Reading*>(context);
    if (reading.depth >= 2) {
        withinMemory(reading, [&] {
            reading.document->texts.append(reinterpret_cast<const char*>(text),
                                           static_cast<std::size_t>(length));
        });
    }
}

void refuseDocumentType(void* context, const xmlChar* /*name*/, const xmlChar* /*external_id*/,
                        const xmlChar* /*system_id*/) {
    auto& reading = *static_cast<Reading*>(context);
    reading.parser->wellFormed = 0;
    xmlStopParser(reading.parser);
}

// libxml2 would quote the faulty line, which may hold a password, on standard error.
void ignoreError(void* /*context*/, xmlErrorPtr /*error*/) {}

void setHandlers(xmlSAXHandler& handlers) {
    std::memset(&handlers, 0, sizeof handlers);
    handlers.initialized = XML_SAX2_MAGIC;
    handlers.startElementNs = startElement;
    handlers.endElementNs = endElement;
    handlers.characters = characters;
    handlers.cdataBlock = characters;
    handlers.internalSubset = refuseDocumentType;
    handlers.serror = ignoreError;
}

} // namespace

bool ReplyReader::read(std::string_view bytes, ReplyDocument& document) {
    document = {};
    return scanReply(bytes, document) || parse(bytes, document);
}

bool ReplyReader::parse(std::string_view bytes, ReplyDocument& document) {
    document = {};
    if (bytes.empty() || bytes.size() > INT_MAX) {
        return false;
    }
    if (!parser_) {
        parser_.reset(xmlNewParserCtxt());
        if (!parser_) {
            throw std::bad_alloc{};
        }
        setHandlers(*parser_->sax);
    }
    document.texts.reserve(bytes.size());
    Reading reading{parser_.get(), &document};
    parser_->userData = &reading;
    // A large reply is no attack: without a document type nothing in it can grow, and the only
    // entities are XML's own, which attributes would hold as references without that option.
    xmlDoc* none =
        xmlCtxtReadMemory(parser_.get(), bytes.data(), static_cast<int>(bytes.size()), nullptr,
                          nullptr, XML_PARSE_NONET | XML_PARSE_HUGE | XML_PARSE_NOENT);
    xmlFreeDoc(none);
    if (reading.out_of_memory || parser_->errNo == XML_ERR_NO_MEMORY) {
        throw std::bad_alloc{};
    }
    return parser_->wellFormed != 0;
}

} // namespace kelconf
