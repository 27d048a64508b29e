#include "client/reply_scan.h"

#include <array>
#include <charconv>
#include <cstdint>
#include <cstring>

namespace kelconf {

namespace {

constexpr std::string_view kDeclaration = "<?xml version=\"1.0\"?>\n<";
constexpr std::string_view kOpening = "<parameter name=\"";
constexpr std::string_view kPrevious = " prev_value=\"";
constexpr std::string_view kClosing = "</parameter>";

struct Reference {
    std::string_view name; // between "&" and ";"
    char character;
};
constexpr std::array<Reference, 7> kReferences{{{"lt", '<'},
                                                {"gt", '>'},
                                                {"amp", '&'},
                                                {"quot", '"'},
                                                {"#10", '\n'},
                                                {"#9", '\t'},
                                                {"#13", '\r'}}};

bool isCharacter(char32_t value) {
    return (value >= 0x20 && value < 0xD800) || (value >= 0xE000 && value < 0xFFFE) ||
           (value >= 0x10000 && value < 0x110000) || value == '\t' || value == '\n' ||
           value == '\r';
}

void appendUtf8(std::string& text, char32_t value) {
    const auto low = [&](unsigned shift) {
        return static_cast<char>(0x80U | ((value >> shift) & 0x3FU));
    };
    if (value < 0x80) {
        text.push_back(static_cast<char>(value));
    } else if (value < 0x800) {
        text.append({static_cast<char>(0xC0U | (value >> 6U)), low(0)});
    } else if (value < 0x10000) {
        text.append({static_cast<char>(0xE0U | (value >> 12U)), low(6), low(0)});
    } else {
        text.append({static_cast<char>(0xF0U | (value >> 18U)), low(12), low(6), low(0)});
    }
}

// The character that a reference stands for, between "&" and ";". False for a foreign one.
bool appendReferred(std::string& text, std::string_view name) {
    for (const Reference& reference : kReferences) {
        if (reference.name == name) {
            text.push_back(reference.character);
            return true;
        }
    }
    if (!name.starts_with("#x")) {
        return false;
    }
    name.remove_prefix(2);
    std::uint32_t value = 0;
    const auto [end, error] = std::from_chars(name.data(), name.data() + name.size(), value, 16);
    if (error != std::errc{} || end != name.data() + name.size() || !isCharacter(value)) {
        return false;
    }
    appendUtf8(text, value);
    return true;
}

using PlainBytes = std::array<bool, 256>;

// Bytes that stand for themselves. Outside ASCII the service writes references.
constexpr PlainBytes plainBytes(std::string_view marks, std::string_view controls) {
    PlainBytes plain{};
    for (std::size_t byte = 0x20; byte < 0x80; ++byte) {
        plain[byte] = true;
    }
    for (const char mark : marks) {
        plain[static_cast<unsigned char>(mark)] = false;
    }
    for (const char control : controls) {
        plain[static_cast<unsigned char>(control)] = true;
    }
    return plain;
}

constexpr PlainBytes kInText = plainBytes("<>&", "\n\t");
constexpr PlainBytes kInAttribute = plainBytes("<>&\"", "");

constexpr std::size_t kBlock = sizeof(std::uint64_t);

// Whether the bytes of a block stand for themselves in texts and attributes alike.
bool plainBlock(const char* bytes) {
    constexpr std::uint64_t kOnes = 0x0101010101010101;
    constexpr std::uint64_t kHighs = 0x80 * kOnes;
    std::uint64_t block = 0;
    std::memcpy(&block, bytes, sizeof block);
    const auto marked = [&](char mark) {
        const std::uint64_t zero = block ^ (static_cast<unsigned char>(mark) * kOnes);
        return (zero - kOnes) & ~zero;
    };
    // A byte that fails sets a high bit: by itself, by a borrow, or by being the mark.
    return ((block | (block - 0x20 * kOnes) | marked('<') | marked('>') | marked('&') |
             marked('"')) &
            kHighs) == 0;
}

class Scanner {
  public:
    explicit Scanner(std::string_view bytes) : rest_(bytes) {}

    bool skip(std::string_view expected) {
        const bool there = rest_.starts_with(expected);
        rest_.remove_prefix(there ? expected.size() : 0);
        return there;
    }

    // Up to `end`, which is taken too. Appends the text and a zero byte.
    bool text(char end, const PlainBytes& plain, std::string& texts, std::size_t& place) {
        place = texts.size();
        while (!rest_.empty() && rest_.front() != end) {
            if (!run(plain, texts)) {
                return false;
            }
        }
        texts.push_back('\0');
        if (rest_.empty()) {
            return false;
        }
        rest_.remove_prefix(1);
        return true;
    }

    std::string_view word() {
        std::size_t length = 0;
        while (length < rest_.size() &&
               (rest_[length] == '_' || (rest_[length] >= 'A' && rest_[length] <= 'Z'))) {
            ++length;
        }
        const std::string_view found = rest_.substr(0, length);
        rest_.remove_prefix(length);
        return found;
    }

    [[nodiscard]] bool atEnd() const { return rest_.empty(); }

  private:
    // Some bytes that stand for themselves, or one reference.
    bool run(const PlainBytes& plain, std::string& texts) {
        std::size_t length = 0;
        while (length + kBlock <= rest_.size() && plainBlock(rest_.data() + length)) {
            length += kBlock;
        }
        while (length < rest_.size() && plain[static_cast<unsigned char>(rest_[length])]) {
            ++length;
        }
        texts.append(rest_.substr(0, length));
        rest_.remove_prefix(length);
        return length > 0 || reference(texts);
    }

    bool reference(std::string& texts) {
        constexpr std::size_t kLongest = 10; // "&#x10FFFF;"
        const std::size_t end = rest_.substr(0, kLongest).find(';');
        if (rest_.front() != '&' || end == std::string_view::npos ||
            !appendReferred(texts, rest_.substr(1, end - 1))) {
            return false;
        }
        rest_.remove_prefix(end + 1);
        return true;
    }

    std::string_view rest_;
};

// The text ends at the "<" of the closing tag.
bool scanValue(Scanner& scanner, std::string& texts, std::size_t& place) {
    if (scanner.skip("/>")) {
        place = texts.size();
        texts.push_back('\0');
        return true;
    }
    return scanner.skip(">") && scanner.text('<', kInText, texts, place) &&
           scanner.skip(kClosing.substr(1));
}

bool scanParameter(Scanner& scanner, ReplyDocument& document) {
    ReplyParameter parameter{};
    std::string& texts = document.texts;
    if (!scanner.text('"', kInAttribute, texts, parameter.name)) {
        return false;
    }
    if (scanner.skip(kPrevious)) {
        if (!scanner.text('"', kInAttribute, texts, parameter.prev_value)) {
            return false;
        }
    } else {
        parameter.prev_value = texts.size() - 1; // the zero byte of the name: an empty text
    }
    if (!scanValue(scanner, texts, parameter.value)) {
        return false;
    }
    document.parameters.push_back(parameter);
    return true;
}

} // namespace

bool scanReply(std::string_view bytes, ReplyDocument& document) {
    Scanner scanner{bytes};
    if (!scanner.skip(kDeclaration)) {
        return false;
    }
    document.root = scanner.word();
    document.texts.reserve(bytes.size());
    if (scanner.skip("/>\n")) {
        return !document.root.empty() && scanner.atEnd();
    }
    if (document.root.empty() || !scanner.skip(">")) {
        return false;
    }
    while (scanner.skip(kOpening)) {
        if (!scanParameter(scanner, document)) {
            return false;
        }
    }
    return scanner.skip("</") && scanner.skip(document.root) && scanner.skip(">\n") &&
           scanner.atEnd();
}

} // namespace kelconf
