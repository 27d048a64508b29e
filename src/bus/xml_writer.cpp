#include "bus/xml_writer.h"

#include <algorithm>
#include <array>
#include <cstring>
#include <limits>

namespace kelconf {

namespace {

constexpr std::string_view kDeclaration = "<?xml version=\"1.0\"?>\n";
constexpr std::size_t kSlice = 1024;    // bytes of a text escaped for one check of the room
constexpr std::size_t kWorstGrowth = 6; // "&quot;", or "&#x80;" for two bytes
constexpr std::size_t kLongestReference = 16;

// What becomes of a byte. Everything from kMark up is not copied as it is.
enum ByteClass : unsigned char { kCopy, kMark, kHexReference, kUtf8, kForbidden };

using ByteClasses = std::array<unsigned char, 256>;

constexpr ByteClasses byteClasses(std::string_view marked, unsigned char control,
                                  unsigned char carriage_return) {
    ByteClasses classes{};
    for (std::size_t byte = 0; byte < classes.size(); ++byte) {
        if (byte < 0x20) {
            classes[byte] = control;
        } else if (byte >= 0x80) {
            classes[byte] = kUtf8;
        }
    }
    classes['\n'] = classes['\t'] = kCopy;
    classes['\r'] = carriage_return;
    for (const char c : marked) {
        classes[static_cast<unsigned char>(c)] = kMark;
    }
    return classes;
}

// libxml2 leaves the other control characters as they are in an attribute, and stops at them in
// a text.
constexpr ByteClasses kInText = byteClasses("<>&", kForbidden, kHexReference);
constexpr ByteClasses kInAttribute = byteClasses("<>&\"\n\t", kCopy, kMark);

std::string_view referenceFor(char c) {
    switch (c) {
    case '<':
        return "&lt;";
    case '>':
        return "&gt;";
    case '&':
        return "&amp;";
    case '"':
        return "&quot;";
    case '\n':
        return "&#10;";
    case '\t':
        return "&#9;";
    default: // '\r'
        return "&#13;";
    }
}

struct CodePoint {
    char32_t value;   // 0: not a character that XML allows
    std::size_t size; // bytes
};

unsigned byteAt(std::string_view text, std::size_t i) {
    return i < text.size() ? static_cast<unsigned char>(text[i]) : 0U;
}

constexpr CodePoint kNoCharacter{0, 1};

// Strict: no overlong form, no surrogate, nothing beyond U+10FFFF, no U+FFFE and U+FFFF.
CodePoint decode(std::string_view text) {
    const unsigned lead = byteAt(text, 0);
    const std::size_t size = lead < 0xC2   ? 0U
                             : lead < 0xE0 ? 2U
                             : lead < 0xF0 ? 3U
                             : lead < 0xF5 ? 4U
                                           : 0U;
    if (size == 0) {
        return kNoCharacter;
    }
    char32_t value = lead & (0xFFU >> (size + 1));
    for (std::size_t i = 1; i < size; ++i) {
        const unsigned byte = byteAt(text, i);
        if ((byte & 0xC0U) != 0x80U) {
            return kNoCharacter;
        }
        value = (value << 6U) | (byte & 0x3FU);
    }
    constexpr std::array<char32_t, 5> kSmallest{0, 0, 0x80, 0x800, 0x10000};
    const bool surrogate = value >= 0xD800 && value < 0xE000;
    if (value < kSmallest[size] || surrogate || value > 0x10FFFF || value == 0xFFFE ||
        value == 0xFFFF) {
        return kNoCharacter;
    }
    return {value, size};
}

// "&#x20AC;" at `out`; returns the end.
char* writeReference(char* out, char32_t value) {
    std::array<char, 8> digits{};
    std::size_t count = 0;
    do {
        digits[count++] = "0123456789ABCDEF"[value & 0xFU];
        value >>= 4U;
    } while (value != 0);
    *out++ = '&';
    *out++ = '#';
    *out++ = 'x';
    while (count > 0) {
        *out++ = digits[--count];
    }
    *out++ = ';';
    return out;
}

// Escapes from `text` until at least `limit` bytes are done; `done` says how many. The end of
// what was written, or null for a text that is not well-formed.
char* escape(char* out, std::string_view text, std::size_t limit, const ByteClasses& classes,
             std::size_t& done) {
    std::size_t i = 0;
    while (i < limit) {
        const char c = text[i];
        const unsigned char kind = classes[static_cast<unsigned char>(c)];
        if (kind == kCopy) {
            *out++ = c;
            ++i;
        } else if (kind == kMark) {
            const std::string_view reference = referenceFor(c);
            std::memcpy(out, reference.data(), reference.size());
            out += reference.size();
            ++i;
        } else if (kind == kHexReference) {
            out = writeReference(out, static_cast<unsigned char>(c));
            ++i;
        } else {
            const CodePoint point = kind == kUtf8 ? decode(text.substr(i)) : kNoCharacter;
            if (point.value == 0) {
                return nullptr;
            }
            out = writeReference(out, point.value);
            i += point.size;
        }
    }
    done = i;
    return out;
}

} // namespace

XmlWriter::XmlWriter(std::string_view root, std::size_t expected) : root_(root) {
    if (reserve(std::max(expected, kDeclaration.size() + 2 * root.size() + 8))) {
        put(kDeclaration);
        put("<");
        put(root);
    }
}

bool XmlWriter::reserve(std::size_t bytes) {
    if (failed_ || size_ + bytes <= capacity_) {
        return !failed_;
    }
    const std::size_t capacity = std::max(capacity_ * 2, size_ + bytes);
    char* larger = resizeText(buffer_.get(), capacity);
    if (larger == nullptr) {
        failed_ = true;
        return false;
    }
    static_cast<void>(buffer_.release());
    buffer_.reset(larger);
    capacity_ = capacity;
    return true;
}

void XmlWriter::put(std::string_view bytes) {
    std::memcpy(buffer_.get() + size_, bytes.data(), bytes.size());
    size_ += bytes.size();
}

bool XmlWriter::append(std::string_view bytes) {
    if (!reserve(bytes.size())) {
        return false;
    }
    put(bytes);
    return true;
}

bool XmlWriter::appendText(std::string_view text) {
    while (!text.empty()) {
        const std::size_t limit = std::min(text.size(), kSlice);
        if (!reserve(limit * kWorstGrowth + kLongestReference)) {
            return false;
        }
        std::size_t done = 0;
        const char* end = escape(buffer_.get() + size_, text, limit, kInText, done);
        if (end == nullptr) {
            return false;
        }
        size_ = static_cast<std::size_t>(end - buffer_.get());
        text.remove_prefix(done);
    }
    return true;
}

bool XmlWriter::appendAttribute(std::string_view opening, std::string_view value) {
    if (!append(opening)) {
        return false;
    }
    while (!value.empty()) {
        const std::size_t limit = std::min(value.size(), kSlice);
        if (!reserve(limit * kWorstGrowth + kLongestReference)) {
            return false;
        }
        std::size_t done = 0;
        const char* end = escape(buffer_.get() + size_, value, limit, kInAttribute, done);
        if (end == nullptr) {
            return false;
        }
        size_ = static_cast<std::size_t>(end - buffer_.get());
        value.remove_prefix(done);
    }
    return append("\"");
}

bool XmlWriter::add(const BusParameter& parameter) {
    if (!has_children_) {
        has_children_ = true;
        append(">");
    }
    if (!appendAttribute("<parameter name=\"", viewOf(parameter.name)) ||
        (parameter.prev_value != nullptr &&
         !appendAttribute(" prev_value=\"", parameter.prev_value))) {
        return false;
    }
    if (parameter.value == nullptr) {
        return append("/>");
    }
    return append(">") && appendText(parameter.value) && append("</parameter>");
}

OwnedText XmlWriter::finish(std::int32_t* length) {
    *length = 0;
    if (!reserve(root_.size() + 4)) {
        return {};
    }
    if (has_children_) {
        put("</");
        put(root_);
        put(">\n");
    } else {
        put("/>\n");
    }
    if (size_ > static_cast<std::size_t>(std::numeric_limits<std::int32_t>::max())) {
        return {};
    }
    *length = static_cast<std::int32_t>(size_);
    return std::move(buffer_);
}

} // namespace kelconf
