#include "cli/output/result.h"

#include "catalog/secrets.h"
#include "cli/output/listing.h"
#include "cli/output/output.h"
#include "cli/output/shown_text.h"

#include <string>
#include <utility>
#include <vector>

namespace kelconf::cli {

namespace {

std::vector<std::pair<std::string, std::string>>& valuesSet() {
    static std::vector<std::pair<std::string, std::string>> values;
    return values;
}

std::string listOf(const std::vector<std::string>& items) {
    std::string list = "[";
    for (const std::string& item : items) {
        list.append(list.size() > 1 ? "," : "").append(item);
    }
    return list += ']';
}

} // namespace

void beginResult() {
    valuesSet().clear();
    forgetSaid();
}

void noteSet(std::string_view name, std::string_view value) {
    valuesSet().emplace_back(name, value);
}

void printResult(const Options& options, std::string_view command, int status) {
    const Secrets secrets{options.show_secrets};
    std::vector<std::string> values;
    for (const auto& [name, value] : valuesSet()) {
        std::string object = "{";
        addMember(object, "name", jsonText(name));
        addMember(object, "value", jsonText(secrets.shown(name, value)));
        values.push_back(object += '}');
    }
    std::vector<std::string> messages;
    for (const std::string& message : said()) {
        messages.push_back(jsonText(message));
    }
    std::string object = "{";
    addMember(object, "command", jsonText(command));
    addMember(object, "status", std::to_string(status));
    addMember(object, "set", listOf(values));
    addMember(object, "messages", listOf(messages));
    out(object += "}\n");
}

} // namespace kelconf::cli
