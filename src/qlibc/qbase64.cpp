#include "qlibc/use_qlibc.h"

#include <array>
#include <cstdint>
#include <cstdlib>
#include <limits>
#include <string_view>

namespace {

constexpr std::string_view kAlphabet =
    "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
constexpr std::uint8_t kNoDigit = 64;

constexpr std::array<std::uint8_t, 256> makeDigits() {
    std::array<std::uint8_t, 256> digits{};
    for (std::uint8_t& digit : digits) {
        digit = kNoDigit;
    }
    for (std::size_t i = 0; i < kAlphabet.size(); ++i) {
        digits[static_cast<unsigned char>(kAlphabet[i])] = static_cast<std::uint8_t>(i);
    }
    return digits;
}

constexpr std::array<std::uint8_t, 256> kDigits = makeDigits();

// Four characters for up to three bytes; those that no byte reaches are padding.
void encodeGroup(const unsigned char* in, std::size_t bytes, char* out) {
    std::uint32_t bits = 0;
    for (std::size_t i = 0; i < 3; ++i) {
        bits = bits << 8 | (i < bytes ? std::uint32_t{in[i]} : 0U);
    }
    for (std::size_t i = 0; i < 4; ++i) {
        out[i] = i <= bytes ? kAlphabet[bits >> (18 - 6 * i) & 0x3f] : '=';
    }
}

} // namespace

char* qbase64_encode(const void* bin, size_t size) {
    if (size > std::numeric_limits<std::size_t>::max() / 4 * 3 - 8) {
        return nullptr;
    }
    const std::size_t groups = (size + 2) / 3;
    auto* text = static_cast<char*>(std::malloc(groups * 4 + 1));
    if (text == nullptr) {
        return nullptr;
    }
    const auto* in = static_cast<const unsigned char*>(bin);
    for (std::size_t g = 0; g < groups; ++g) {
        const std::size_t left = size - g * 3;
        encodeGroup(in + g * 3, left < 3 ? left : 3, text + g * 4);
    }
    text[groups * 4] = '\0';
    return text;
}

size_t qbase64_decode(char* str) {
    std::size_t length = 0;
    std::uint32_t bits = 0;
    unsigned pending = 0; // bits read and not yet written, below 8 between two characters
    for (const char* in = str; *in != '\0'; ++in) {
        const std::uint8_t digit = kDigits[static_cast<unsigned char>(*in)];
        if (digit == kNoDigit) {
            continue;
        }
        bits = bits << 6 | digit;
        pending += 6;
        if (pending >= 8) {
            pending -= 8;
            // Two characters stand behind each first byte, so the writing never overtakes.
            str[length++] = static_cast<char>(bits >> pending & 0xff);
        }
    }
    str[length] = '\0';
    return length;
}
