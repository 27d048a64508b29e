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

inline std::string wordOf(kelbus_error error) {
    constexpr std::array kWords{"",         "-absent", "-timeout", "-unknown",
                                "-refused", "-broken", "-bad",     "-short"};
    return kWords.at(error);
}

// "name=value;" for each, "name?" for an unknown one, then the error. Releases the values.
inline std::string taken(kelbus_error error, kelbus_values* values) {
    std::string text;
    for (std::size_t i = 0; values != nullptr && i < values->count; ++i) {
        const auto& [name, value] = values->items[i];
        text.append(name).append(value == nullptr ? "?" : std::string{"="} + value + ";");
    }
    kelbus_values_free(values);
    return text + wordOf(error);
}

class BusSession {
  public:
    BusSession() {
        kelbus* opened = nullptr;
        EXPECT_EQ(kelbus_open(&opened), KELBUS_OK);
        client_.reset(opened);
    }
    [[nodiscard]] kelbus* get() const { return client_.get(); }
    [[nodiscard]] std::string many(const std::vector<const char*>& names,
                                   int limit = kLimit) const {
        kelbus_values* values = nullptr;
        const kelbus_error error =
            kelbus_get_many(get(), names.data(), names.size(), &values, limit);
        return taken(error, values);
    }
    // Sets cam.a.
    [[nodiscard]] std::string set(const std::string& value) const {
        return wordOf(kelbus_set(get(), "cam.a", value.c_str(), KELBUS_SET, kLimit));
    }

  private:
    std::unique_ptr<kelbus, void (*)(kelbus*)> client_{nullptr, kelbus_close};
};

} // namespace kelconf::test
