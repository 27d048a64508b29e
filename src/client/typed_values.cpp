// The calls of kelbus.h for values of a type. Numbers are read and written as in the C locale.
#include "client/client.h"

#include <array>
#include <charconv>
#include <cmath>
#include <cstring>
#include <limits>
#include <memory>
#include <string>
#include <string_view>

namespace kelconf {

namespace {

struct FreeValue {
    void operator()(char* value) const noexcept { kelbus_free(value); }
};

// Null, or what is wrong with the text.
const char* parse(std::string_view text, bool& value) {
    value = text == "1";
    return value || text == "0" ? nullptr : "the value is neither 0 nor 1";
}

template <typename Number>
const char* parseNumber(std::string_view text, Number& value, const char* why) {
    const char* end = text.data() + text.size();
    const auto [stop, error] = std::from_chars(text.data(), end, value);
    if (error == std::errc::result_out_of_range && stop == end) {
        return "the value does not fit into 64 bits";
    }
    return error == std::errc{} && stop == end ? nullptr : why;
}

const char* parse(std::string_view text, std::int64_t& value) {
    return parseNumber(text, value, "the value is no whole number");
}

const char* parse(std::string_view text, double& value) {
    const char* wrong = parseNumber(text, value, "the value is no number");
    return wrong == nullptr && !std::isfinite(value) ? "the value is no number" : wrong;
}

template <typename Value>
kelbus_error getTyped(kelbus* client, const char* name, Value* value, int timeout_ms) {
    if (value == nullptr) {
        return KELBUS_BAD_ARGUMENT;
    }
    char* raw = nullptr;
    const kelbus_error error = kelbus_get(client, name, &raw, timeout_ms);
    const std::unique_ptr<char, FreeValue> text{raw};
    if (error != KELBUS_OK) {
        return error;
    }
    return guarded(client, [&](kelbus& open) {
        Value read{};
        if (const char* wrong = parse(raw, read)) {
            return badArgument(open, (std::string{"\""} + name + "\": " + wrong).c_str());
        }
        *value = read;
        return KELBUS_OK;
    });
}

// The longest: a number with 309 digits before the point, or as many behind it and 17 more.
using NumberText = std::array<char, std::numeric_limits<double>::max_exponent10 + 40>;

template <typename Number, typename... Form>
kelbus_error setNumber(kelbus* client, const char* name, Number value, kelbus_kind kind,
                       int timeout_ms, Form... form) {
    NumberText text{};
    std::to_chars(text.data(), text.data() + text.size() - 1, value, form...);
    return kelbus_set(client, name, text.data(), kind, timeout_ms);
}

} // namespace

} // namespace kelconf

using namespace kelconf; // NOLINT(google-build-using-namespace): the calls below are its border

kelbus_error kelbus_get_bool(kelbus* client, const char* name, bool* value, int timeout_ms) {
    return getTyped(client, name, value, timeout_ms);
}

kelbus_error kelbus_get_int64(kelbus* client, const char* name, int64_t* value, int timeout_ms) {
    return getTyped(client, name, value, timeout_ms);
}

kelbus_error kelbus_get_double(kelbus* client, const char* name, double* value, int timeout_ms) {
    return getTyped(client, name, value, timeout_ms);
}

kelbus_error kelbus_set_bool(kelbus* client, const char* name, bool value, kelbus_kind kind,
                             int timeout_ms) {
    return kelbus_set(client, name, value ? "1" : "0", kind, timeout_ms);
}

kelbus_error kelbus_set_int64(kelbus* client, const char* name, int64_t value, kelbus_kind kind,
                              int timeout_ms) {
    return setNumber(client, name, value, kind, timeout_ms);
}

kelbus_error kelbus_set_double(kelbus* client, const char* name, double value, kelbus_kind kind,
                               int timeout_ms) {
    if (!std::isfinite(value)) {
        return guarded(client, [](kelbus& open) {
            return badArgument(open, "only finite numbers can be set");
        });
    }
    return setNumber(client, name, value, kind, timeout_ms, std::chars_format::fixed);
}
