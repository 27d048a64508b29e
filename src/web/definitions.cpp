#include "web/definitions.h"

#include "catalog/catalog.h"
#include "catalog/secrets.h"
#include "catalog/value_rules.h"
#include "cli/output/shown_text.h"

#include <algorithm>

namespace kelconf::web {

namespace {

using cli::jsonText;

std::string textOrNull(const std::string& text) {
    return text.empty() ? "null" : jsonText(text);
}

std::string fixedPart(const Definition& definition) {
    const Parameter& parameter = definition.parameter;
    const RuleInWords rule = inWords(ruleOf(parameter));
    std::string options;
    for (const std::string_view word : rule.options) {
        options.append(options.empty() ? "" : ",").append(jsonText(word));
    }
    const auto truth = [](bool is) { return is ? "true" : "false"; };
    std::string text = R"({"name":)" + jsonText(parameter.name);
    text += R"(,"default":)" + (definition.secret ? "null" : jsonText(parameter.default_value));
    text += R"(,"type":)" + jsonText(parameter.type) + R"(,"min":)" + textOrNull(rule.min);
    text += R"(,"max":)" + textOrNull(rule.max) + R"(,"step":)" + textOrNull(rule.step);
    text += R"(,"options":[)" + options + R"(],"rule":)" + jsonText(rule.words);
    text += R"(,"access":")" + parameter.access + R"(","secret":)" + truth(definition.secret);
    return text + R"(,"state":)" + truth(definition.state);
}

// Bytes that XML 1.0, and so the bus, cannot carry.
bool isCarried(std::string_view text) {
    for (std::size_t length = 0; !text.empty(); text.remove_prefix(length)) {
        char32_t code = 0;
        length = cli::utf8Character(text, code);
        const bool control = code < 0x20 && code != '\t' && code != '\n' && code != '\r';
        if (length == 0 || control || code == 0xFFFE || code == 0xFFFF) {
            return false;
        }
    }
    return true;
}

} // namespace

std::shared_ptr<const Definitions> readDefinitions() {
    Catalog catalog;
    auto definitions = std::make_shared<Definitions>();
    const bool read = catalog && catalog.forEach([&](Parameter&& parameter) {
        if (parameter.access != "r" && parameter.access != "rw") {
            return;
        }
        Definition definition;
        definition.writable = parameter.access == "rw";
        definition.secret = isSecret(parameter.name, parameter.type);
        definition.state = isState(parameter.name, parameter.type);
        definition.parameter = std::move(parameter);
        definition.json = fixedPart(definition);
        definitions->push_back(std::move(definition));
    });
    return read ? definitions : nullptr;
}

std::size_t placeOf(const Definitions& definitions, std::string_view name) {
    const auto found = std::lower_bound(definitions.begin(), definitions.end(), name,
                                        [](const Definition& definition, std::string_view wanted) {
                                            return definition.parameter.name < wanted;
                                        });
    const bool is_there = found != definitions.end() && found->parameter.name == name;
    return is_there ? static_cast<std::size_t>(found - definitions.begin()) : definitions.size();
}

void appendJson(std::string& text, const Definition& definition, std::string_view value) {
    const bool changed = !definition.state && value != definition.parameter.default_value;
    text += definition.json;
    text += R"(,"value":)";
    text += definition.secret ? "null" : jsonText(value);
    text += value.empty() ? R"(,"set":false)" : R"(,"set":true)";
    text += changed ? R"(,"changed":true})" : R"(,"changed":false})";
}

std::string refusal(const Definition& definition, std::string_view value) {
    if (!definition.writable) {
        return "cannot be set from the web";
    }
    if (!isCarried(value)) {
        return "holds a character that cannot be stored";
    }
    if (cutWhenStored(definition.parameter.name, value)) {
        return kCutWhenStored;
    }
    return brokenRule(ruleOf(definition.parameter), value);
}

} // namespace kelconf::web
