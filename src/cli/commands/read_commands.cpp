// get, list and group.

#include "catalog/catalog.h"
#include "catalog/secrets.h"
#include "cli/commands/commands.h"
#include "cli/output/listing.h"
#include "cli/output/nearest.h"
#include "cli/output/output.h"
#include "cli/output/shown_text.h"
#include "cli/session/bus_session.h"
#include "cli/session/live_values.h"
#include "text/text.h"

#include <algorithm>
#include <cctype>
#include <functional>
#include <future>
#include <optional>
#include <span>
#include <string>

namespace kelconf::cli {

namespace {

constexpr std::size_t kFewNames = 32; // up to here single look-ups are quicker than a scan

std::span<const kelbus_parameter> itemsOf(const Values& values) {
    return {values->items, values->count};
}

std::vector<Row> rowsOf(const Values& values, const Secrets& secrets, Patterns& patterns) {
    std::vector<Row> rows;
    rows.reserve(values->count);
    for (const kelbus_parameter& item : itemsOf(values)) {
        if (patterns.match(item.name)) {
            rows.push_back(
                {item.name, secrets.shown(item.name, viewOf(item.value)), item.value != nullptr});
        }
    }
    return rows;
}

// A name that only default.db has is one that the service never knows.
std::string unknownText(const std::string& name, const std::vector<std::string>& factory) {
    if (std::binary_search(factory.begin(), factory.end(), name)) {
        return name +
               " is factory-only: the service does not know it; kelctl info shows its default";
    }
    const std::string guess = nearest(name, factory);
    return "unknown name " + name +
           (guess.empty() ? "; kelctl list shows all names" : didYouMean(guess));
}

int complainAboutUnknown(const std::vector<Row>& rows) {
    const bool unknown =
        std::any_of(rows.begin(), rows.end(), [](const Row& row) { return !row.known; });
    if (!unknown) {
        return kDone;
    }
    std::vector<std::string> factory;
    if (Catalog catalog; catalog) {
        catalog.forEach([&](Parameter&& each) { factory.push_back(std::move(each.name)); });
    }
    std::sort(factory.begin(), factory.end());
    for (const Row& row : rows) {
        if (!row.known) {
            complain(unknownText(std::string{row.name}, factory));
        }
    }
    return kDifferent;
}

Secrets secretsAmong(const Options& options, const std::vector<std::string>& names) {
    if (keepsClient() && !options.show_secrets) { // many look-ups are to come: read once
        static const Secrets all{false};
        return all;
    }
    return names.size() <= kFewNames ? Secrets{options.show_secrets, names}
                                     : Secrets{options.show_secrets};
}

// ---- list --long, search: values beside what default.db knows ---------------------------------

void printLongJson(const std::string& name, std::string_view value, const Parameter& known,
                   JsonArray& array) {
    std::string object = "{";
    addMember(object, "name", jsonText(name));
    addMember(object, "value", jsonText(value));
    const std::pair<const char*, const std::string*> members[] = {
        {"default", &known.default_value}, {"type", &known.type},
        {"range", &known.range},           {"step", &known.step},
        {"options", &known.options},       {"access", &known.access}};
    for (const auto& [key, text] : members) {
        addMember(object, key, jsonText(*text));
    }
    array.add(object);
}

// "NAME=VALUE  TYPE, RULE, default DEFAULT, access ACCESS", what is empty left out.
void printLongText(const Options& options, const Style& style, const std::string& name,
                   std::string_view value, const Parameter& known) {
    std::string about = known.type;
    const auto add = [&](const char* word, const std::string& text) {
        if (!text.empty()) {
            about.append(about.empty() ? "" : ", ").append(word).append(shownText(text));
        }
    };
    add("range ", known.range);
    add("step ", known.step);
    add("one of ", known.options);
    add("default ", known.default_value);
    add("access ", known.access);
    out(inked(style, Ink::kName, shownText(name)) + "=" + shownText(value));
    out(about.empty() ? "" : "  " + inked(style, Ink::kFaint, about));
    out(options.entryEnd());
}

using Filter =
    std::function<bool(const std::string& name, std::string_view value, const Parameter& known)>;

// Prints those of the matching parameters that are wanted. kDifferent when none is.
int printKnown(const Options& options, Patterns& patterns, bool detailed, const Filter& wanted) {
    Bus bus;
    FactoryRows factory;
    int status = openBus(options, bus);
    status = status != kDone ? status : readFactory(factory, false);
    if (status != kDone) {
        return status;
    }
    const Secrets secrets{options.show_secrets};
    const Style style = styleOf(options);
    std::optional<JsonArray> array;
    bool any = false;
    status = forEachLive(bus, patterns, [&](std::string_view live, std::string_view value) {
        const std::string name{live};
        const auto row = factory.find(name);
        Parameter known = row == factory.end() ? Parameter{} : row->second;
        known.default_value = secrets.shown(name, known.default_value);
        value = secrets.shown(name, value);
        if (!wanted(name, value, known)) {
            return;
        }
        any = true;
        if (options.json) {
            printLongJson(name, value, known, array ? *array : array.emplace());
        } else if (detailed) {
            printLongText(options, style, name, value, known);
        } else {
            printRows(options, {{name, value}});
        }
    });
    return status == kDone && !any ? int{kDifferent} : status;
}

int listLong(const Options& options) {
    Patterns patterns{options.operands};
    return printKnown(options, patterns, true, [](const auto&...) { return true; });
}

bool holdsWord(std::string_view text, std::string_view word) {
    const auto same = [](char a, char b) {
        return std::tolower(static_cast<unsigned char>(a)) ==
               std::tolower(static_cast<unsigned char>(b));
    };
    return std::search(text.begin(), text.end(), word.begin(), word.end(), same) != text.end();
}

} // namespace

int runSearch(const Options& options) {
    Patterns all{{}};
    const auto wanted = [&](const std::string& name, std::string_view value,
                            const Parameter& known) {
        return std::all_of(options.operands.begin(), options.operands.end(),
                           [&](const std::string& word) {
                               return holdsWord(name, word) || holdsWord(known.options, word) ||
                                      (value.data() != kStars.data() && holdsWord(value, word));
                           });
    };
    const int status = printKnown(options, all, options.long_form, wanted);
    if (status == kDifferent) {
        complain("nothing found");
    }
    return status;
}

int runExists(const Options& options) {
    Bus bus;
    Values values;
    int status = openBus(options, bus);
    status = status != kDone ? status : fetchNamed(bus, options.operands, values);
    for (const kelbus_parameter& item : values ? itemsOf(values) : std::span<kelbus_parameter>{}) {
        status = item.value == nullptr ? int{kDifferent} : status;
    }
    return status;
}

int runGet(const Options& options) {
    Bus bus;
    Values values;
    if (int status = openBus(options, bus); status != kDone) {
        return status;
    }
    if (int status = fetchNamed(bus, options.operands, values); status != kDone) {
        return status;
    }
    const Secrets secrets = secretsAmong(options, options.operands);
    Patterns all{{}};
    std::vector<Row> rows = rowsOf(values, secrets, all);
    for (Row& row : rows) {
        if (!row.known && options.fallback) {
            row = {row.name, *options.fallback};
        }
    }
    printRows(options, rows);
    return complainAboutUnknown(rows);
}

int runList(const Options& options) {
    if (options.long_form) {
        return listLong(options);
    }
    Patterns patterns{options.operands};
    Bus bus;
    Values values;
    if (int status = openBus(options, bus); status != kDone) {
        return status;
    }
    // Read while the service works on its answer.
    std::future<Secrets> secrets =
        std::async(std::launch::async, [&] { return Secrets{options.show_secrets}; });
    if (int status = fetchListing(bus, patterns.common(), values); status != kDone) {
        return status;
    }
    const std::vector<Row> rows = rowsOf(values, secrets.get(), patterns);
    printRows(options, rows);
    return patterns.saidUnmatched() ? kDifferent : kDone;
}

int runGroup(const Options& options) {
    Bus bus;
    if (int status = openBus(options, bus); status != kDone) {
        return status;
    }
    Values values;
    if (int status = fetchGroups(bus, options.operands, values); status != kDone) {
        return status;
    }
    Patterns all{{}};
    const Secrets secrets{options.show_secrets};
    const std::vector<Row> rows = rowsOf(values, secrets, all);
    printRows(options, rows);
    if (rows.empty()) {
        complain("no parameter belongs to " + options.operands.front());
        return kDifferent;
    }
    return kDone;
}

} // namespace kelconf::cli
