#include "cli/output/listing.h"

#include "catalog/secrets.h"
#include "cli/output/output.h"
#include "cli/output/shown_text.h"

#include <unistd.h>

#include <algorithm>
#include <cstdlib>

namespace kelconf::cli {

namespace {

constexpr std::size_t kWidestName = 48; // columns; longer names push their value to the right

bool wantsColour(const Options& options, bool terminal) {
    if (options.no_colour || options.colour == "never") {
        return false;
    }
    if (options.colour == "always") {
        return true;
    }
    const char* no_color = std::getenv("NO_COLOR");
    return terminal && !dumbTerminal() && (no_color == nullptr || *no_color == '\0');
}

const char* codeOf(Ink ink) {
    switch (ink) {
    case Ink::kName:
        return "\x1b[36m";
    case Ink::kValue:
        return "";
    case Ink::kOld:
        return "\x1b[31m";
    case Ink::kNew:
        return "\x1b[32m";
    case Ink::kStars:
    case Ink::kFaint:
        break;
    }
    return "\x1b[2m";
}

Ink valueInk(std::string_view value) {
    return value.data() == kStars.data() ? Ink::kStars : Ink::kValue;
}

void printAligned(const Style& style, const std::vector<Row>& rows) {
    std::size_t width = 0;
    for (const Row& row : rows) {
        width = std::max(width, std::min(kWidestName, row.name.size()));
    }
    for (const Row& row : rows) {
        if (row.known) {
            const std::string name = shownText(row.name);
            const std::size_t taken = shownWidth(name);
            out(inked(style, Ink::kName, name));
            if (!row.value.empty()) {
                out(std::string(taken < width ? width - taken : 0, ' ') + "  ");
            }
            out(inked(style, valueInk(row.value), shownText(row.value)) + "\n");
        }
    }
}

void printPlain(const Options& options, const Style& style, const std::vector<Row>& rows) {
    const std::string_view end = options.entryEnd();
    for (const Row& row : rows) {
        if (!row.known) {
            continue;
        }
        if (!options.values_only) {
            out(style.colour ? inked(style, Ink::kName, row.name) : row.name);
            out("=");
        }
        out(row.value);
        out(end);
    }
}

void printJson(const std::vector<Row>& rows) {
    JsonArray array;
    std::string object;
    for (const Row& row : rows) {
        object = "{";
        addMember(object, "name", jsonText(row.name));
        addMember(object, "value", row.known ? jsonText(row.value) : "null");
        array.add(object);
    }
}

void printSide(const Style& style, std::string_view end, char sign, std::string_view name,
               std::string_view value) {
    std::string line = sign + std::string{name} + "=" + std::string{value};
    if (style.people) {
        line = shownText(line);
    }
    out(inked(style, sign == '-' ? Ink::kOld : Ink::kNew, line));
    out(end);
}

} // namespace

Style styleOf(const Options& options) {
    const bool terminal = onTerminal(STDOUT_FILENO);
    const bool text = !options.json && !options.null_ended;
    return {terminal && text, text && wantsColour(options, terminal)};
}

std::string inked(const Style& style, Ink ink, std::string_view text) {
    const std::string_view code = codeOf(ink);
    if (!style.colour || code.empty() || text.empty()) {
        return std::string{text};
    }
    return std::string{code}.append(text).append("\x1b[0m");
}

void printRows(const Options& options, const std::vector<Row>& rows) {
    const Style style = styleOf(options);
    if (options.json) {
        printJson(rows);
    } else if (style.people && !options.values_only) {
        printAligned(style, rows);
    } else if (style.people) {
        for (const Row& row : rows) {
            out(row.known ? inked(style, valueInk(row.value), shownText(row.value)) + "\n" : "");
        }
    } else {
        printPlain(options, style, rows);
    }
}

void printDifferences(const Options& options, const std::vector<Difference>& differences,
                      const char* old_key, const char* new_key) {
    if (options.json) {
        JsonArray array;
        for (const Difference& difference : differences) {
            std::string object = "{";
            addMember(object, "name", jsonText(difference.name));
            addMember(object, old_key, jsonText(difference.old_value));
            addMember(object, new_key, jsonText(difference.new_value));
            array.add(object);
        }
        return;
    }
    const Style style = styleOf(options);
    const std::string_view end = options.entryEnd();
    for (const Difference& difference : differences) {
        printSide(style, end, '-', difference.name, difference.old_value);
        printSide(style, end, '+', difference.name, difference.new_value);
    }
}

JsonArray::JsonArray() {
    out("[");
}

JsonArray::~JsonArray() {
    out(first_ ? "]\n" : "\n]\n");
}

void JsonArray::add(std::string_view object) {
    out(first_ ? "\n" : ",\n");
    out(object);
    out("}");
    first_ = false;
}

void addMember(std::string& object, const char* key, std::string_view json) {
    object.append(object == "{" ? "\"" : ",\"").append(key).append("\":").append(json);
}

} // namespace kelconf::cli
