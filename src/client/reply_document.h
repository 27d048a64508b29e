// Reads the documents that the service sends.
#pragma once

#include "kelbus.h"

#include <libxml/parser.h>

#include <memory>
#include <string>
#include <string_view>
#include <vector>

namespace kelconf {

// One `parameter` element: places of its texts in ReplyDocument::texts, each ended by a zero byte.
struct ReplyParameter {
    std::size_t name;
    std::size_t value;
    std::size_t prev_value;
};

struct ReplyDocument {
    std::string root;
    std::vector<ReplyParameter> parameters;
    std::string texts;
    [[nodiscard]] const char* text(std::size_t place) const { return texts.data() + place; }
};

class ReplyReader {
  public:
    // Replaces what `document` held. False when the bytes are no bus document: not well-formed, or
    // with a document type. Throws std::bad_alloc.
    bool read(std::string_view bytes, ReplyDocument& document);

    // The same by the XML parser alone, whatever form the bytes have.
    bool parse(std::string_view bytes, ReplyDocument& document);

  private:
    struct FreeParser {
        void operator()(xmlParserCtxt* parser) const noexcept { xmlFreeParserCtxt(parser); }
    };
    std::unique_ptr<xmlParserCtxt, FreeParser> parser_; // made when it is needed, and kept
};

} // namespace kelconf
