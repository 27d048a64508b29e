// Writes a bus document straight to its bytes.
//
// The bytes are those that libxml2's xmlDocDumpMemory gives for the same document made with
// xmlNewDoc("1.0"), xmlNewText and xmlNewProp: no encoding declaration, no indentation, every
// character outside ASCII as a hexadecimal reference. That holds for well-formed text. For text
// that is none (invalid UTF-8, characters that XML excludes) libxml2 truncates or re-encodes in
// ways that depend on its buffers; the writer then says so, and the document has to be made by
// libxml2 itself (bus/xml_dump.h).
#pragma once

#include "text/text.h"

#include <cstddef>
#include <cstdint>

namespace kelconf {

// One `parameter` element. The attribute `name` is always written.
struct BusParameter {
    const char* name;
    const char* prev_value; // null: no such attribute
    const char* value;      // null: no content, written as an empty element
};

class XmlWriter {
  public:
    // `expected` is the likely length of the document in bytes.
    XmlWriter(std::string_view root, std::size_t expected);

    // False when the element cannot be written here; the writer is then of no further use.
    bool add(const BusParameter& parameter);

    [[nodiscard]] bool outOfMemory() const { return failed_; }
    [[nodiscard]] std::size_t size() const { return size_; } // bytes so far

    // The document with its length in bytes, without a terminator. Null when memory was short.
    OwnedText finish(std::int32_t* length);

  private:
    bool reserve(std::size_t bytes);
    void put(std::string_view bytes); // into reserved room
    bool append(std::string_view bytes);
    bool appendText(std::string_view text);
    bool appendAttribute(std::string_view opening, std::string_view value);

    std::string_view root_;
    OwnedText buffer_;
    std::size_t capacity_ = 0;
    std::size_t size_ = 0;
    bool failed_ = false;
    bool has_children_ = false;
};

} // namespace kelconf
