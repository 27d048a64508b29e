// Setting, reset, export and import: checked as a whole, then sent in one request.

#include "catalog/secrets.h"
#include "cli/output/export_format.h"
#include "cli/output/shown_text.h"
#include "web/access.h"
#include "web/bus.h"
#include "web/call.h"
#include "web/json.h"

#include <set>

namespace kelconf::web {

namespace {

using cli::jsonText;

// What a call is about to do, checked.
struct Plan {
    NamedValues values; // to be set
    std::vector<Change> changes;
    std::vector<Detail> refused;
    std::shared_ptr<const Definitions> definitions; // keeps those of `refused`
    bool up = false;
};

void planValue(const Content& content, const std::string& name, const std::string& value,
               Plan& plan) {
    std::size_t place = 0;
    const std::string* present = valueOf(content, name, place);
    if (present == nullptr) {
        plan.refused.push_back({name, "is unknown", nullptr});
        return;
    }
    const Definition& definition = (*content.definitions)[place];
    if (const std::string why = refusal(definition, value); !why.empty()) {
        plan.refused.push_back({name, why, &definition});
        return;
    }
    plan.values.emplace_back(name, value);
    plan.changes.push_back({name, *present, value, definition.secret});
}

Plan planOf(const Content& content) {
    Plan plan;
    plan.definitions = content.definitions;
    plan.up = content.up;
    return plan;
}

Answer unavailable(kelbus_error error) {
    return failure(503, "unavailable", kelbus_strerror(error));
}

// Sets what was planned, tells the subscribers and the log.
std::optional<Answer> carryOut(Site& site, const Call& call, const Plan& plan, bool now) {
    const kelbus_error error = plan.values.empty() ? KELBUS_OK : setValues(plan.values, now);
    if (error != KELBUS_OK) {
        return unavailable(error);
    }
    for (const Change& change : plan.changes) {
        const std::string_view shown = change.secret ? kStars : std::string_view{change.value};
        logDeed(call, change.name + " = " + std::string{shown});
        if (const auto seen = site.mirror.apply(change.name, change.value)) {
            site.hub.publish(seen->name, changeEvent(*seen));
        }
    }
    return {};
}

std::string changesJson(const std::vector<Change>& changes) {
    std::string text;
    for (const Change& change : changes) {
        text += text.empty() ? "" : ",";
        text += R"({"name":)" + jsonText(change.name);
        text += R"(,"from":)" + (change.secret ? "null" : jsonText(change.previous));
        text += R"(,"to":)" + (change.secret ? "null" : jsonText(change.value)) + "}";
    }
    return R"({"changes":[)" + text + "]";
}

bool isResettable(const Definition& definition) {
    return definition.writable && !definition.state;
}

void planReset(const Content& content, std::size_t place, Plan& plan) {
    const Definition& definition = (*content.definitions)[place];
    const std::string& value = *content.values[place];
    const Parameter& parameter = definition.parameter;
    if (value != parameter.default_value) {
        plan.values.emplace_back(parameter.name, parameter.default_value);
        plan.changes.push_back({parameter.name, value, parameter.default_value, definition.secret});
    }
}

Plan planReset(const Content& content, const std::vector<std::string>& names,
               const std::vector<std::string>& prefixes) {
    Plan plan = planOf(content);
    const std::set<std::string> once{names.begin(), names.end()};
    for (const std::string& name : once) {
        std::size_t place = 0;
        if (valueOf(content, name, place) == nullptr) {
            plan.refused.push_back({name, "is unknown", nullptr});
        } else if (!isResettable((*content.definitions)[place])) {
            plan.refused.push_back({name, "cannot be set from the web", nullptr});
        } else {
            planReset(content, place, plan);
        }
    }
    for (std::size_t i = 0; !prefixes.empty() && i < content.values.size(); ++i) {
        const Definition& definition = (*content.definitions)[i];
        const std::string& name = definition.parameter.name;
        if (content.values[i] && isResettable(definition) && isWanted(name, prefixes) &&
            once.find(name) == once.end()) {
            planReset(content, i, plan);
        }
    }
    return plan;
}

Plan planImport(const Content& content, const cli::ParsedExport& parsed) {
    Plan plan = planOf(content);
    for (const cli::ExportEntry& entry : parsed.entries) {
        std::size_t place = 0;
        const std::string* present = valueOf(content, entry.name, place);
        if (present == nullptr || *present != entry.value) {
            planValue(content, entry.name, entry.value, plan);
        }
    }
    return plan;
}

void addExported(const Definition& definition, const std::string& value, std::string& text) {
    const std::string& name = definition.parameter.name;
    text += definition.secret ? cli::exportNote(name, "secret, left out")
                              : cli::exportLine(name, value);
}

} // namespace

Answer patchParameters(Site& site, const Call& call) {
    const auto object = parseJson(call.body);
    const std::string* store = object ? object->text("store") : nullptr;
    const auto values = object ? object->objects.find("values") : decltype(object->objects.end()){};
    if (!object || values == object->objects.end() ||
        (store != nullptr && *store != "now" && *store != "soon")) {
        return failure(400, "bad_request",
                       R"(expected {"store":"now" or "soon","values":{NAME:TEXT}})");
    }
    const Plan plan = site.mirror.read([&](const Content& content) {
        Plan made = planOf(content);
        for (const auto& [name, value] : values->second) {
            planValue(content, name, value, made);
        }
        return made;
    });
    if (!plan.up || !plan.refused.empty()) {
        return plan.up ? refused(plan.refused) : unavailable(KELBUS_NO_SERVICE);
    }
    if (auto wrong = carryOut(site, call, plan, store == nullptr || *store == "now")) {
        return std::move(*wrong);
    }
    std::string names;
    for (const auto& [name, value] : plan.values) {
        names.append(names.empty() ? "" : ",").append(jsonText(name));
    }
    return jsonAnswer(R"({"set":[)" + names + "]}");
}

Answer postReset(Site& site, const Call& call) {
    auto object = parseJson(call.body);
    if (!object || object->lists.count("names") + object->lists.count("prefixes") == 0) {
        return failure(400, "bad_request", R"(expected {"names":[..]} or {"prefixes":[..]})");
    }
    const Plan plan = site.mirror.read([&](const Content& content) {
        return planReset(content, object->lists["names"], object->lists["prefixes"]);
    });
    if (!plan.up || !plan.refused.empty()) {
        return plan.up ? refused(plan.refused) : unavailable(KELBUS_NO_SERVICE);
    }
    const bool dry = object->truths["dry_run"];
    if (auto wrong = dry ? std::nullopt : carryOut(site, call, plan, true)) {
        return std::move(*wrong);
    }
    return jsonAnswer(changesJson(plan.changes) + "}");
}

Answer getExport(Site& site, const Call& call) {
    const std::vector<std::string> prefixes = call.queried("prefix");
    const bool changed_only = call.asks("changed");
    std::string text{cli::kExportHeader};
    const bool up = site.mirror.read([&](const Content& content) {
        for (std::size_t i = 0; i < content.values.size(); ++i) {
            const Definition& definition = (*content.definitions)[i];
            const auto& value = content.values[i];
            if (value && !definition.state && isWanted(definition.parameter.name, prefixes) &&
                !(changed_only && *value == definition.parameter.default_value)) {
                addExported(definition, *value, text);
            }
        }
        return content.up;
    });
    if (!up) {
        return unavailable(KELBUS_NO_SERVICE);
    }
    logDeed(call, "exported the settings");
    Answer answer;
    answer.type = "text/plain; charset=utf-8";
    answer.body = std::move(text);
    return answer;
}

Answer postImport(Site& site, const Call& call) {
    const cli::ParsedExport parsed = cli::parseExport(call.body);
    if (!parsed.faults.empty()) {
        return failure(400, "bad_request", "line " + parsed.faults.front());
    }
    const Plan plan =
        site.mirror.read([&](const Content& content) { return planImport(content, parsed); });
    if (!plan.up) {
        return unavailable(KELBUS_NO_SERVICE);
    }
    const bool dry = call.asks("dry_run");
    if (!dry && !plan.refused.empty()) {
        return refused(plan.refused);
    }
    if (auto wrong = dry ? std::nullopt : carryOut(site, call, plan, true)) {
        return std::move(*wrong);
    }
    std::string details;
    for (const Detail& detail : plan.refused) {
        details += details.empty() ? "" : ",";
        details += R"({"name":)" + jsonText(detail.name) + R"(,"message":)" +
                   jsonText(detail.message) + "}";
    }
    return jsonAnswer(changesJson(plan.changes) + R"(,"refused":[)" + details + "]}");
}

} // namespace kelconf::web
