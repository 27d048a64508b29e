// info: everything about single parameters.

#include "catalog/catalog.h"
#include "catalog/secrets.h"
#include "cli/commands/commands.h"
#include "cli/output/listing.h"
#include "cli/output/output.h"
#include "cli/output/shown_text.h"
#include "cli/session/bus_session.h"

#include <array>
#include <optional>

namespace kelconf::cli {

namespace {

struct Info {
    std::string name;
    std::optional<std::string> value; // none: the service does not know the name, or is not there
    std::optional<Parameter> factory;
};

struct Line {
    const char* key;
    std::optional<std::string> text;
};

std::vector<Line> linesOf(const Info& info, const Secrets& secrets) {
    const auto shown = [&](const std::string& value) {
        return std::string{secrets.shown(info.name, value)};
    };
    std::vector<Line> lines{{"name", info.name}, {"value", {}}, {"default", {}}, {"type", {}},
                            {"range", {}},       {"step", {}},  {"options", {}}, {"access", {}}};
    if (info.value) {
        lines[1].text = shown(*info.value);
    }
    if (info.factory) {
        const Parameter& parameter = *info.factory;
        if (parameter.type != kRealtime) {
            lines[2].text = shown(parameter.default_value);
        }
        const std::array texts{parameter.type, parameter.range, parameter.step, parameter.options,
                               parameter.access};
        for (std::size_t i = 0; i < texts.size(); ++i) {
            lines[3 + i].text = texts[i];
        }
    }
    return lines;
}

void printJsonInfo(JsonArray& array, const std::vector<Line>& lines) {
    std::string object = "{";
    for (const Line& line : lines) {
        addMember(object, line.key, line.text ? jsonText(*line.text) : "null");
    }
    array.add(object);
}

void printTextInfo(const Options& options, const Style& style, const std::vector<Line>& lines) {
    constexpr std::size_t kKeyWidth = 9;
    for (const Line& line : lines) {
        if (!line.text) {
            continue;
        }
        const std::string key = line.key;
        if (style.people) {
            out(inked(style, Ink::kName, key) + std::string(kKeyWidth - key.size(), ' '));
            out(shownText(*line.text) + "\n");
        } else {
            out(key + "=" + *line.text);
            out(options.entryEnd());
        }
    }
}

void print(const Options& options, const std::vector<Info>& infos) {
    const Secrets secrets{options.show_secrets, options.operands};
    const Style style = styleOf(options);
    std::optional<JsonArray> array;
    if (options.json) {
        array.emplace();
    }
    bool first = true;
    for (const Info& info : infos) {
        if (array) {
            printJsonInfo(*array, linesOf(info, secrets));
            continue;
        }
        out(first || options.null_ended ? "" : "\n");
        printTextInfo(options, style, linesOf(info, secrets));
        first = false;
    }
}

// Live values, where the service gives them; its failure is said and is the result.
int addValues(const Options& options, std::vector<Info>& infos) {
    Bus bus;
    Values values;
    int status = openBus(options, bus);
    status = status != kDone ? status : fetchNamed(bus, options.operands, values);
    for (std::size_t i = 0; values && i < values->count && i < infos.size(); ++i) {
        if (values->items[i].value != nullptr) {
            infos[i].value = values->items[i].value;
        }
    }
    return status;
}

int addFactory(std::vector<Info>& infos) {
    Catalog catalog;
    for (Info& info : infos) {
        info.factory = catalog ? catalog.find(info.name) : std::nullopt;
    }
    if (!catalog.problem().empty()) {
        complain("no factory defaults: " + catalog.problem());
        return kBroken;
    }
    return kDone;
}

} // namespace

int runInfo(const Options& options) {
    std::vector<Info> infos;
    for (const std::string& name : options.operands) {
        infos.push_back({name, {}, {}});
    }
    const int files = addFactory(infos);
    int status = addValues(options, infos);
    status = status == kDone ? files : status;
    std::vector<Info> known;
    for (Info& info : infos) {
        if (info.value || info.factory) {
            known.push_back(std::move(info));
            continue;
        }
        if (status == kDone) {
            complain("unknown name " + info.name);
            status = kDifferent;
        }
    }
    print(options, known);
    return status;
}

} // namespace kelconf::cli
