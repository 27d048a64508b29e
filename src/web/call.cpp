#include "web/call.h"

#include "catalog/value_rules.h"
#include "cli/output/shown_text.h"

#include <algorithm>
#include <array>

namespace kelconf::web {

namespace {

using cli::jsonText;

constexpr std::size_t kSmall = 4096;
constexpr std::size_t kMany = std::size_t{1} << 20;
constexpr auto kAnybody = Role::kNone;
constexpr auto kView = Role::kViewer;
constexpr auto kOperate = Role::kOperator;
constexpr auto kAdminister = Role::kAdministrator;

constexpr std::array<Route, 18> kRoutes{{
    {"GET", "setup", kAnybody, false, 0, getSetUp},
    {"POST", "setup", kAnybody, true, kSmall, postSetUp},
    {"POST", "session", kAnybody, true, kSmall, postSession},
    {"GET", "session", kView, false, 0, getSession},
    {"DELETE", "session", kView, false, 0, deleteSession},
    {"PUT", "session/password", kView, true, kSmall, putPassword},
    {"GET", "parameters", kView, false, 0, getParameters},
    {"GET", "parameters/", kView, false, 0, getParameter},
    {"PATCH", "parameters", kOperate, true, kMany, patchParameters},
    {"POST", "reset", kAdminister, true, kMany, postReset},
    {"GET", "export", kAdminister, true, 0, getExport},
    {"POST", "import", kAdminister, true, kMany, postImport},
    {"GET", "status", kView, true, 0, getStatus},
    {"GET", "events", kView, false, 0, getEvents},
    {"GET", "accounts", kAdminister, false, 0, getAccounts},
    {"POST", "accounts", kAdminister, true, kSmall, postAccount},
    {"PATCH", "accounts/", kAdminister, true, kSmall, patchAccount},
    {"DELETE", "accounts/", kAdminister, true, 0, deleteAccount},
}};

bool pathFits(std::string_view pattern, std::string_view path) {
    return pattern.ends_with('/') ? path.size() > pattern.size() && path.starts_with(pattern)
                                  : path == pattern;
}

std::string ruleOfDetail(const Definition& definition) {
    const RuleInWords rule = inWords(ruleOf(definition.parameter));
    const auto textOrNull = [](const std::string& text) {
        return text.empty() ? "null" : jsonText(text);
    };
    std::string options;
    for (const std::string_view word : rule.options) {
        options.append(options.empty() ? "" : ",").append(jsonText(word));
    }
    return R"(,"rule":{"min":)" + textOrNull(rule.min) + R"(,"max":)" + textOrNull(rule.max) +
           R"(,"step":)" + textOrNull(rule.step) + R"(,"options":[)" + options + "]}";
}

} // namespace

std::vector<std::string> Call::queried(std::string_view key) const {
    std::vector<std::string> values;
    for (const auto& [asked, value] : query) {
        if (asked == key) {
            values.push_back(value);
        }
    }
    return values;
}

bool Call::asks(std::string_view key) const {
    const auto values = queried(key);
    return !values.empty() && (values.back() == "1" || values.back() == "true");
}

Answer failure(unsigned status, std::string_view code, std::string_view message) {
    return jsonAnswer(R"({"error":{"code":)" + jsonText(code) + R"(,"message":)" +
                          jsonText(message) + "}}",
                      status);
}

Answer refused(const std::vector<Detail>& details) {
    std::string text;
    for (const Detail& detail : details) {
        text += text.empty() ? "" : ",";
        text += R"({"name":)" + jsonText(detail.name) + R"(,"message":)" + jsonText(detail.message);
        text += (detail.definition == nullptr ? "" : ruleOfDetail(*detail.definition)) + "}";
    }
    return jsonAnswer(R"({"error":{"code":"refused","message":"nothing was set","details":[)" +
                          text + "]}}",
                      422);
}

Answer slowDown(int seconds) {
    Answer answer = failure(429, "slow_down", "too many failed log-ins");
    answer.headers.emplace_back("Retry-After", std::to_string(seconds));
    return answer;
}

Answer jsonAnswer(std::string body, unsigned status) {
    Answer answer;
    answer.status = status;
    answer.body = std::move(body);
    return answer;
}

Answer noContent() {
    return jsonAnswer("", 204);
}

const Route* findRoute(Call& call, bool& path_known) {
    path_known = false;
    for (const Route& route : kRoutes) {
        if (pathFits(route.path, call.path)) {
            path_known = true;
            if (call.method == route.method) {
                const std::string_view path = route.path;
                call.name = path.ends_with('/') ? call.path.substr(path.size()) : "";
                return &route;
            }
        }
    }
    return nullptr;
}

} // namespace kelconf::web
