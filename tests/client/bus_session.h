// A client of libkelbus in the hands of a test.
#pragma once

#include <gtest/gtest.h>
#include <kelbus.h>

#include <memory>
#include <string>
#include <utility>
#include <vector>

namespace kelconf::test {

inline constexpr int kLimit = 60'000; // ms: the guard against a hang

using Pairs = std::vector<std::pair<std::string, std::string>>;

inline constexpr const char* kUnknown = "<unknown>"; // stands for the value null

class BusSession {
  public:
    BusSession() {
        kelbus* opened = nullptr;
        EXPECT_EQ(kelbus_open(&opened), KELBUS_OK);
        client_.reset(opened);
    }
    [[nodiscard]] kelbus* get() const { return client_.get(); }
    [[nodiscard]] std::string message() const { return kelbus_message(client_.get()); }

    // The value, or the error in words.
    std::string value(const std::string& name, int limit = kLimit) {
        char* value = nullptr;
        const kelbus_error error = kelbus_get(get(), name.c_str(), &value, limit);
        const std::unique_ptr<char, void (*)(void*)> owner{value, kelbus_free};
        return error == KELBUS_OK ? value : kelbus_strerror(error);
    }
    kelbus_error set(const std::string& name, const std::string& value,
                     kelbus_kind kind = KELBUS_SET, int limit = kLimit) {
        return kelbus_set(get(), name.c_str(), value.c_str(), kind, limit);
    }
    std::pair<kelbus_error, Pairs> many(const std::vector<const char*>& names) {
        kelbus_values* values = nullptr;
        const kelbus_error error =
            kelbus_get_many(get(), names.data(), names.size(), &values, kLimit);
        return {error, taken(values)};
    }
    // Releases the values.
    static Pairs taken(kelbus_values* values) {
        Pairs pairs;
        for (std::size_t i = 0; values != nullptr && i < values->count; ++i) {
            const kelbus_parameter& item = values->items[i];
            pairs.emplace_back(item.name, item.value == nullptr ? kUnknown : item.value);
        }
        kelbus_values_free(values);
        return pairs;
    }

  private:
    std::unique_ptr<kelbus, void (*)(kelbus*)> client_{nullptr, kelbus_close};
};

class WatchSession {
  public:
    explicit WatchSession(const std::vector<const char*>& prefixes = {}) {
        kelbus_watch* opened = nullptr;
        EXPECT_EQ(kelbus_watch_open(&opened, prefixes.data(), prefixes.size()), KELBUS_OK);
        watch_.reset(opened);
    }
    [[nodiscard]] kelbus_watch* get() const { return watch_.get(); }

    // "name: before -> now", or the error in words.
    std::string next(int limit = kLimit) {
        kelbus_change change{};
        const kelbus_error error = kelbus_watch_next(get(), &change, limit);
        return error == KELBUS_OK
                   ? std::string{change.name} + ": " + change.prev_value + " -> " + change.value
                   : kelbus_strerror(error);
    }

  private:
    std::unique_ptr<kelbus_watch, void (*)(kelbus_watch*)> watch_{nullptr, kelbus_watch_close};
};

} // namespace kelconf::test
