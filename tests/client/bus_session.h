// libkelbus in the hands of a test: what comes of a call is one text.
#pragma once

#include <gtest/gtest.h>
#include <kelbus.h>

#include <array>
#include <memory>
#include <string>
#include <vector>

namespace kelconf::test {

inline constexpr int kLimit = 60'000; // ms: the guard against a hang

using BusSession = std::unique_ptr<kelbus, void (*)(kelbus*)>;

inline BusSession openBus() {
    kelbus* opened = nullptr;
    EXPECT_EQ(kelbus_open(&opened), KELBUS_OK);
    return {opened, kelbus_close};
}

// "name=value;" for each, "name?" for an unknown one, then the error. Releases the values.
inline std::string taken(kelbus_error error, kelbus_values* values) {
    constexpr std::array kWords{"", "-absent", "-timeout", "-unknown", "-refused", "-broken"};
    std::string text;
    for (std::size_t i = 0; values != nullptr && i < values->count; ++i) {
        const auto& [name, value] = values->items[i];
        text.append(name).append(value == nullptr ? "?" : std::string{"="} + value + ";");
    }
    kelbus_values_free(values);
    return text + kWords.at(error);
}

inline std::string many(const BusSession& bus, const std::vector<const char*>& names,
                        int limit = kLimit) {
    kelbus_values* values = nullptr;
    const kelbus_error error =
        kelbus_get_many(bus.get(), names.data(), names.size(), &values, limit);
    return taken(error, values);
}

} // namespace kelconf::test
