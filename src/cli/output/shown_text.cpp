#include "cli/output/shown_text.h"

#include <algorithm>
#include <array>

namespace kelconf::cli {

namespace {

unsigned char byteAt(std::string_view text, std::size_t at) {
    return static_cast<unsigned char>(text[at]);
}

std::size_t lengthByLead(unsigned char lead) {
    if (lead < 0x80U) {
        return 1;
    }
    if (lead < 0xC2U || lead > 0xF4U) {
        return 0;
    }
    return lead < 0xE0U ? 2 : lead < 0xF0U ? 3 : 4;
}

void appendDigits(std::string& text, char byte) {
    constexpr std::string_view kDigits = "0123456789abcdef";
    const auto number = static_cast<unsigned char>(byte);
    text += {kDigits[number >> 4U], kDigits[number & 15U]};
}

} // namespace

bool actsOnTerminal(char32_t code) {
    return code < 0x20U || (code >= 0x7FU && code < 0xA0U) ||
           (code >= 0x200EU && code <= 0x200FU) || (code >= 0x2028U && code <= 0x202EU) ||
           (code >= 0x2066U && code <= 0x2069U) || code == 0x061CU;
}

void appendHex(std::string& text, char byte) {
    text += "\\x";
    appendDigits(text, byte);
}

void appendEscaped(std::string& text, std::string_view bytes) {
    for (const char c : bytes) {
        if (c == '\n' || c == '\r' || c == '\t') {
            text += c == '\n' ? "\\n" : c == '\r' ? "\\r" : "\\t";
        } else {
            appendHex(text, c);
        }
    }
}

std::size_t utf8Character(std::string_view text, char32_t& code) {
    const std::size_t length = text.empty() ? 0 : lengthByLead(byteAt(text, 0));
    if (length == 0 || length > text.size()) {
        return 0;
    }
    constexpr std::array<unsigned, 5> kLeadBits{0, 0x7F, 0x1F, 0x0F, 0x07};
    code = byteAt(text, 0) & kLeadBits[length];
    for (std::size_t i = 1; i < length; ++i) {
        if ((byteAt(text, i) & 0xC0U) != 0x80U) {
            return 0;
        }
        code = (code << 6U) | (byteAt(text, i) & 0x3FU);
    }
    constexpr std::array<char32_t, 5> kLeast{0, 0, 0x80, 0x800, 0x10000};
    const bool surrogate = code >= 0xD800U && code < 0xE000U;
    return code < kLeast[length] || surrogate || code > 0x10FFFFU ? 0 : length;
}

bool showsAsItIs(std::string_view text) {
    return std::all_of(text.begin(), text.end(), [](char c) { return c >= 0x20 && c < 0x7F; });
}

std::string shownText(std::string_view text) {
    if (showsAsItIs(text)) {
        return std::string{text};
    }
    std::string shown;
    while (!text.empty()) {
        char32_t code = 0;
        const std::size_t length = utf8Character(text, code);
        const std::string_view character = text.substr(0, std::max<std::size_t>(length, 1));
        if (length == 0 || actsOnTerminal(code)) {
            appendEscaped(shown, character);
        } else {
            shown += character;
        }
        text.remove_prefix(character.size());
    }
    return shown;
}

std::size_t shownWidth(std::string_view shown) {
    return static_cast<std::size_t>(std::count_if(shown.begin(), shown.end(), [](char c) {
        return (static_cast<unsigned char>(c) & 0xC0U) != 0x80U;
    }));
}

std::string jsonText(std::string_view text) {
    constexpr std::string_view kShort = "\b\f\n\r\t\"\\";
    constexpr std::string_view kLetters = "bfnrt\"\\";
    std::string quoted = "\"";
    while (!text.empty()) {
        char32_t code = 0;
        const std::size_t length = utf8Character(text, code);
        const std::string_view character = text.substr(0, std::max<std::size_t>(length, 1));
        if (const std::size_t at = kShort.find(text[0]); at != std::string_view::npos) {
            quoted.append(1, '\\').append(1, kLetters[at]);
        } else if (length == 0) {
            quoted += "\xEF\xBF\xBD"; // U+FFFD
        } else if (code < 0x20U) {
            quoted.append("\\u00");
            appendDigits(quoted, text[0]);
        } else {
            quoted += character;
        }
        text.remove_prefix(character.size());
    }
    return quoted + "\"";
}

} // namespace kelconf::cli
