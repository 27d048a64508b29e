#include <gtest/gtest.h>
#include <qlibc/qlibc.h>

#include <array>
#include <cstdlib>
#include <memory>
#include <string>
#include <string_view>
#include <utility>

namespace {

std::string encoded(std::string_view bytes) {
    struct Freer {
        void operator()(char* text) const { std::free(text); }
    };
    const std::unique_ptr<char, Freer> text{qbase64_encode(bytes.data(), bytes.size())};
    return text.get();
}

// Decodes in a buffer that ends with the text, where the checkers see a step beyond it.
std::string decoded(std::string_view text) {
    const std::unique_ptr<char[]> buffer{new char[text.size() + 1]};
    text.copy(buffer.get(), text.size());
    buffer[text.size()] = '\0';
    const std::size_t length = qbase64_decode(buffer.get());
    EXPECT_LE(length, text.size());
    EXPECT_EQ(buffer[length], '\0');
    return std::string{buffer.get(), length};
}

TEST(Base64, KeepsTheVectorsOfRfc4648) {
    constexpr std::array<std::pair<std::string_view, std::string_view>, 7> kVectors{
        {{"", ""},
         {"f", "Zg=="},
         {"fo", "Zm8="},
         {"foo", "Zm9v"},
         {"foob", "Zm9vYg=="},
         {"fooba", "Zm9vYmE="},
         {"foobar", "Zm9vYmFy"}}};
    for (const auto& [bytes, text] : kVectors) {
        EXPECT_EQ(encoded(bytes), text);
        EXPECT_EQ(decoded(text), bytes);
    }
}

TEST(Base64, CarriesEveryByteAtEveryPlace) {
    std::string bytes;
    for (int i = 0; i < 256; ++i) {
        bytes.push_back(static_cast<char>(i));
        EXPECT_EQ(decoded(encoded(bytes)), bytes);
    }
    EXPECT_EQ(encoded("\xfb\xff\xbf"), "+/+/");
}

TEST(Base64, PassesOverWhatIsNotInTheAlphabet) {
    constexpr std::array<std::pair<std::string_view, std::string_view>, 8> kCases{
        {{"Zm9v\nYmFy\r\n", "foobar"},
         {" Z m 9 v", "foo"},
         {"Zm\xff\x80"
          "9v",
          "foo"},
         {"Zg==Zg==", "f\x06`"},
         {"Z", ""},
         {"Zg", "f"},
         {"====", ""},
         {"!\"#-_.,", ""}}};
    for (const auto& [text, bytes] : kCases) {
        EXPECT_EQ(decoded(text), bytes) << text;
    }
}

} // namespace
