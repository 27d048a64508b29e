// The JSON of requests: one object of texts, truths, lists of texts and objects of texts. Nothing
// deeper is taken, so that no request costs more memory than a few times its length.
#pragma once

#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace kelconf::web {

struct JsonObject {
    std::map<std::string, std::string> texts;
    std::map<std::string, bool> truths;
    std::map<std::string, std::vector<std::string>> lists;
    std::map<std::string, std::vector<std::pair<std::string, std::string>>> objects;
    std::size_t members = 0; // of the object itself

    // Null when there is none.
    [[nodiscard]] const std::string* text(const std::string& key) const;
};

// Nothing when the text is no such object, or names a key twice.
std::optional<JsonObject> parseJson(std::string_view text);

} // namespace kelconf::web
