#include "cli/output/export_format.h"

#include "cli/output/shown_text.h"

#include <algorithm>
#include <charconv>
#include <optional>
#include <unordered_map>

namespace kelconf::cli {

namespace {

constexpr std::string_view kByteOrderMark = "\xEF\xBB\xBF";

bool isBlank(char c) {
    return c == ' ' || c == '\t';
}

// `special`: further characters that are not to stand as they are.
void appendText(std::string& line, std::string_view text, std::string_view special) {
    for (std::size_t at = 0; at < text.size();) {
        char32_t code = 0;
        const std::string_view rest = text.substr(at);
        const std::size_t length = std::max<std::size_t>(utf8Character(rest, code), 1);
        const std::string_view character = rest.substr(0, length);
        const bool at_end = at == 0 || at + 1 == text.size();
        const bool lonely = static_cast<unsigned char>(character[0]) >= 0x80U && length == 1;
        if (character == "\\") {
            line += "\\\\";
        } else if (special.find(character[0]) != std::string_view::npos ||
                   (character == " " && at_end)) {
            appendHex(line, character[0]);
        } else if (lonely || actsOnTerminal(code)) {
            appendEscaped(line, character);
        } else {
            line += character;
        }
        at += length;
    }
}

std::string_view trimmed(std::string_view text) {
    while (!text.empty() && isBlank(text.front())) {
        text.remove_prefix(1);
    }
    while (!text.empty() && isBlank(text.back())) {
        text.remove_suffix(1);
    }
    return text;
}

// The byte that an escape stands for; `text` begins after the backslash and loses the escape.
std::optional<char> escapedByte(std::string_view& text) {
    constexpr std::string_view kLetters = "nrt\\";
    constexpr std::string_view kBytes = "\n\r\t\\";
    const char letter = text.empty() ? '\0' : text[0];
    if (const std::size_t found = kLetters.find(letter); found != std::string_view::npos) {
        text.remove_prefix(1);
        return kBytes[found];
    }
    unsigned number = 0;
    if (letter != 'x' || text.size() < 3) {
        return {};
    }
    const auto result = std::from_chars(text.data() + 1, text.data() + 3, number, 16);
    if (result.ptr != text.data() + 3 || number == 0) {
        return {};
    }
    text.remove_prefix(3);
    return static_cast<char>(number);
}

// False for an escape that is none.
bool unescape(std::string_view text, std::string& result) {
    while (!text.empty()) {
        const std::size_t plain = std::min(text.find('\\'), text.size());
        result += text.substr(0, plain);
        text.remove_prefix(plain);
        if (text.empty()) {
            break;
        }
        text.remove_prefix(1);
        const std::optional<char> byte = escapedByte(text);
        if (!byte) {
            return false;
        }
        result += *byte;
    }
    return true;
}

// What is wrong with the line, or empty; then `entry` has its name and value.
std::string parseLine(std::string_view line, ExportEntry& entry) {
    if (line.find('\0') != std::string_view::npos) {
        return "a zero byte; this is no text";
    }
    const std::size_t equals = line.find('=');
    if (equals == std::string_view::npos) {
        return "no \"=\" between name and value";
    }
    if (!unescape(trimmed(line.substr(0, equals)), entry.name) ||
        !unescape(trimmed(line.substr(equals + 1)), entry.value)) {
        return R"(an unknown escape; \n, \r, \t, \\ and \xHH (not 00) are known)";
    }
    return entry.name.empty() ? "no name in front of \"=\"" : "";
}

} // namespace

std::string exportLine(std::string_view name, std::string_view value) {
    std::string line;
    appendText(line, name, name.substr(0, 1) == "#" ? "=#" : "=");
    line += '=';
    appendText(line, value, "");
    return line += '\n';
}

std::string exportNote(std::string_view name, std::string_view note) {
    std::string line = "# ";
    appendText(line, name, "");
    return line.append(": ").append(note) += '\n';
}

ParsedExport parseExport(std::string_view content) {
    ParsedExport parsed;
    std::unordered_map<std::string, std::size_t> lines; // of each name
    if (content.substr(0, kByteOrderMark.size()) == kByteOrderMark) {
        content.remove_prefix(kByteOrderMark.size());
    }
    for (std::size_t number = 1; !content.empty(); ++number) {
        const std::size_t end = std::min(content.find('\n'), content.size());
        std::string_view line = content.substr(0, end);
        content.remove_prefix(std::min(end + 1, content.size()));
        if (!line.empty() && line.back() == '\r') {
            line.remove_suffix(1);
        }
        line = trimmed(line);
        if (line.empty() || line.front() == '#') {
            continue;
        }
        ExportEntry entry{"", "", number};
        std::string fault = parseLine(line, entry);
        if (fault.empty() && !lines.emplace(entry.name, number).second) {
            fault =
                entry.name + " stands in line " + std::to_string(lines[entry.name]) + " already";
        }
        if (fault.empty()) {
            parsed.entries.push_back(std::move(entry));
        } else {
            parsed.faults.push_back(std::to_string(number) + ": " + fault);
        }
    }
    return parsed;
}

} // namespace kelconf::cli
