#include "web/json.h"

#include <algorithm>
#include <nlohmann/json.hpp>

namespace kelconf::web {

namespace {

// Called by the parser; each returns whether to go on.
class Reader final : public nlohmann::json_sax<nlohmann::json> {
  public:
    JsonObject object;

    bool null() override { return false; }
    bool number_integer(number_integer_t) override { return false; }
    bool number_unsigned(number_unsigned_t) override { return false; }
    bool number_float(number_float_t, const string_t&) override { return false; }
    bool binary(binary_t&) override { return false; }
    bool parse_error(std::size_t, const std::string&, const nlohmann::detail::exception&) override {
        return false;
    }

    bool boolean(bool truth) override {
        return depth_ == 1 && object.truths.emplace(key_, truth).second;
    }
    bool string(string_t& text) override {
        if (depth_ == 1) {
            return object.texts.emplace(key_, text).second;
        }
        if (in_list_) {
            object.lists[key_].push_back(std::move(text));
        } else {
            object.objects[key_].emplace_back(inner_key_, std::move(text));
        }
        return true;
    }
    bool key(string_t& name) override {
        if (depth_ == 2) {
            inner_key_ = std::move(name);
            return true;
        }
        key_ = std::move(name);
        ++object.members;
        return true;
    }
    bool start_object(std::size_t) override {
        ++depth_;
        in_list_ = false;
        return depth_ == 1 || (depth_ == 2 && object.objects.try_emplace(key_).second);
    }
    bool start_array(std::size_t) override {
        ++depth_;
        in_list_ = true;
        return depth_ == 2 && object.lists.try_emplace(key_).second;
    }
    bool end_object() override { return --depth_ >= 0; }
    bool end_array() override { return --depth_ >= 0; }

  private:
    int depth_ = 0;
    bool in_list_ = false;
    std::string key_;
    std::string inner_key_;
};

bool hasTwice(std::vector<std::pair<std::string, std::string>>& members) {
    std::stable_sort(members.begin(), members.end(),
                     [](const auto& a, const auto& b) { return a.first < b.first; });
    return std::adjacent_find(members.begin(), members.end(), [](const auto& a, const auto& b) {
               return a.first == b.first;
           }) != members.end();
}

} // namespace

const std::string* JsonObject::text(const std::string& key) const {
    const auto found = texts.find(key);
    return found == texts.end() ? nullptr : &found->second;
}

std::optional<JsonObject> parseJson(std::string_view text) {
    Reader reader;
    if (!nlohmann::json::sax_parse(text, &reader)) {
        return {};
    }
    for (auto& [key, members] : reader.object.objects) {
        if (hasTwice(members)) {
            return {};
        }
    }
    const JsonObject& object = reader.object;
    const bool all_differ = object.members == object.texts.size() + object.truths.size() +
                                                  object.lists.size() + object.objects.size();
    return all_differ ? std::optional{std::move(reader.object)} : std::nullopt;
}

} // namespace kelconf::web
