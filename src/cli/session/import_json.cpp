#include "cli/session/import_json.h"

#include <algorithm>
#include <charconv>
#include <unordered_set>
#include <utility>

namespace kelconf::cli {

namespace {

constexpr std::string_view kJsonBlanks = " \t\r\n";
constexpr std::string_view kDigits = "0123456789";
constexpr int kDeepest = 100; // levels of nesting, which no setting has

void appendUtf8(std::string& text, unsigned code) {
    constexpr unsigned kBits = 6;
    constexpr unsigned kMask = 0x3F;
    const unsigned tails = code < 0x80 ? 0 : code < 0x800 ? 1 : code < 0x10000 ? 2 : 3;
    constexpr unsigned char kLeads[] = {0x00, 0xC0, 0xE0, 0xF0};
    text += static_cast<char>(kLeads[tails] | code >> (tails * kBits));
    for (unsigned left = tails; left-- > 0;) {
        text += static_cast<char>(0x80U | (code >> (left * kBits) & kMask));
    }
}

// Takes a document apart from its beginning. Each function takes what it is named after, and is
// false when something else stands there.
class Scanner {
  public:
    explicit Scanner(std::string_view text) : rest_(text) {}

    bool end() {
        skipBlanks();
        return rest_.empty();
    }
    bool take(char wanted) {
        skipBlanks();
        const bool there = !rest_.empty() && rest_.front() == wanted;
        rest_.remove_prefix(there ? 1 : 0);
        return there;
    }
    bool text(std::string& text) {
        if (!take('"')) {
            return false;
        }
        while (!rest_.empty() && rest_.front() != '"') {
            const char next = rest_.front();
            rest_.remove_prefix(1);
            if (static_cast<unsigned char>(next) < 0x20 || (next == '\\' && !escape(text))) {
                return false;
            }
            if (next != '\\') {
                text += next;
            }
        }
        return take('"');
    }
    // Any value. Empty, and `value` with it, when it can be a setting's; else why not.
    bool value(std::string& value, std::string& why, int depth = 0) {
        skipBlanks();
        const char first = rest_.empty() ? '\0' : rest_.front();
        if (first == '{' || first == '[' || word("null")) {
            why = "is neither a text nor a number nor a truth value";
            return first == 'n' || (depth < kDeepest && group(first == '{' ? '}' : ']', depth));
        }
        if (first == '"') {
            return text(value);
        }
        if (word("true") || word("false")) {
            value = first == 't' ? "1" : "0";
            return true;
        }
        return number(value);
    }

  private:
    void skipBlanks() {
        rest_.remove_prefix(std::min(rest_.find_first_not_of(kJsonBlanks), rest_.size()));
    }
    bool word(std::string_view wanted) {
        const bool there = rest_.starts_with(wanted);
        rest_.remove_prefix(there ? wanted.size() : 0);
        return there;
    }
    std::size_t digits(std::size_t from) {
        return std::min(rest_.find_first_not_of(kDigits, from), rest_.size()) - from;
    }
    bool number(std::string& value) {
        const std::size_t sign = rest_.starts_with('-') ? 1 : 0;
        const std::size_t whole = digits(sign);
        std::size_t length = sign + whole;
        if (whole == 0 || (whole > 1 && rest_[sign] == '0')) {
            return false;
        }
        if (length < rest_.size() && rest_[length] == '.') {
            const std::size_t places = digits(length + 1);
            length += 1 + places;
            if (places == 0) {
                return false;
            }
        }
        if (length < rest_.size() && (rest_[length] == 'e' || rest_[length] == 'E')) {
            const std::size_t mark =
                rest_.find_first_not_of("+-", length + 1) == length + 2 ? 2 : 1;
            const std::size_t exponent = digits(std::min(length + mark, rest_.size()));
            length += mark + exponent;
            if (exponent == 0) {
                return false;
            }
        }
        value = rest_.substr(0, length);
        rest_.remove_prefix(length);
        return true;
    }
    bool hex4(unsigned& code) {
        constexpr int kHex = 16;
        const char* end = rest_.data() + std::min<std::size_t>(4, rest_.size());
        const auto [stop, error] = std::from_chars(rest_.data(), end, code, kHex);
        const bool read = error == std::errc{} && stop - rest_.data() == 4;
        rest_.remove_prefix(read ? 4 : 0);
        return read;
    }
    // What follows a backslash.
    bool escape(std::string& text) {
        constexpr std::string_view kLetters = "\"\\/bfnrt";
        constexpr std::string_view kMeant = "\"\\/\b\f\n\r\t";
        const char letter = rest_.empty() ? '\0' : rest_.front();
        rest_.remove_prefix(rest_.empty() ? 0 : 1);
        if (const std::size_t found = kLetters.find(letter); found != std::string_view::npos) {
            text += kMeant[found];
            return true;
        }
        unsigned code = 0;
        if (letter != 'u' || !hex4(code)) {
            return false;
        }
        if (code >= 0xD800 && code < 0xDC00) { // the first half of a pair
            unsigned low = 0;
            if (!word("\\u") || !hex4(low) || low < 0xDC00 || low > 0xDFFF) {
                return false;
            }
            code = 0x10000 + ((code - 0xD800) << 10U) + (low - 0xDC00);
        }
        const bool character = code != 0 && (code < 0xD800 || code > 0xDFFF);
        if (character) {
            appendUtf8(text, code);
        }
        return character;
    }
    // An array or an object up to its end; what is in it does not matter.
    bool group(char closing, int depth) {
        rest_.remove_prefix(1);
        if (take(closing)) {
            return true;
        }
        do {
            std::string ignored;
            if (closing == '}' && (!text(ignored) || !take(':'))) {
                return false;
            }
            if (!value(ignored, ignored, depth + 1)) {
                return false;
            }
        } while (take(','));
        return take(closing);
    }

    std::string_view rest_;
};

bool parseMembers(Scanner& scanner, ParsedExport& parsed) {
    std::unordered_set<std::string> names;
    do {
        ExportEntry entry{"", "", 0};
        std::string fault;
        if (!scanner.text(entry.name) || !scanner.take(':') || !scanner.value(entry.value, fault)) {
            return false;
        }
        if (entry.name.empty()) {
            fault = "a name is empty";
        } else if (!names.insert(entry.name).second) {
            fault = "stands there twice";
        }
        if (fault.empty()) {
            parsed.entries.push_back(std::move(entry));
        } else {
            parsed.faults.push_back(" " + entry.name + ": " + fault);
        }
    } while (scanner.take(','));
    return true;
}

} // namespace

bool isJson(std::string_view content) {
    const std::size_t first = content.find_first_not_of(kJsonBlanks);
    return first != std::string_view::npos && content[first] == '{';
}

ParsedExport parseJson(std::string_view content) {
    ParsedExport parsed;
    Scanner scanner{content};
    const bool empty = scanner.take('{') && scanner.take('}');
    const bool read = empty || (parseMembers(scanner, parsed) && scanner.take('}'));
    if (!read || !scanner.end()) {
        parsed.faults.emplace_back(" no JSON that can be read");
    }
    return parsed;
}

} // namespace kelconf::cli
