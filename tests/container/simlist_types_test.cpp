#include "container/simlist_types.h"

#include <gtest/gtest.h>

#include <array>
#include <cmath>
#include <limits>

namespace kelconf {
namespace {

template <typename T>
std::uint32_t hashed(std::uint32_t (*computer)(const void*), T value) {
    return computer(&value);
}

TEST(SimlistTypes, MetersCountBytes) {
    const std::uint64_t any = 0;
    EXPECT_EQ(list_meter_int8_t(&any), 1U);
    EXPECT_EQ(list_meter_uint8_t(&any), 1U);
    EXPECT_EQ(list_meter_int16_t(&any), 2U);
    EXPECT_EQ(list_meter_uint16_t(&any), 2U);
    EXPECT_EQ(list_meter_int32_t(&any), 4U);
    EXPECT_EQ(list_meter_uint32_t(&any), 4U);
    EXPECT_EQ(list_meter_float(&any), 4U);
    EXPECT_EQ(list_meter_int64_t(&any), 8U);
    EXPECT_EQ(list_meter_uint64_t(&any), 8U);
    EXPECT_EQ(list_meter_double(&any), 8U);
    EXPECT_EQ(simlist_meter_string(""), 1U);
    EXPECT_EQ(simlist_meter_string("abc"), 4U);
}

TEST(SimlistTypes, HashesOfNumbersAreTheirLowBits) {
    EXPECT_EQ(hashed(simlist_hashcomputer_int8_t, std::int8_t{-1}), 0xffffffffU);
    EXPECT_EQ(hashed(simlist_hashcomputer_int16_t, std::int16_t{-2}), 0xfffffffeU);
    EXPECT_EQ(hashed(simlist_hashcomputer_uint8_t, std::uint8_t{0xff}), 0xffU);
    EXPECT_EQ(hashed(simlist_hashcomputer_uint16_t, std::uint16_t{0xffff}), 0xffffU);
    EXPECT_EQ(hashed(simlist_hashcomputer_int32_t, std::int32_t{-3}), 0xfffffffdU);
    EXPECT_EQ(hashed(simlist_hashcomputer_uint32_t, 0x89abcdefU), 0x89abcdefU);
    EXPECT_EQ(hashed(simlist_hashcomputer_int64_t, std::int64_t{-0x123456789LL}), 0xdcba9877U);
    EXPECT_EQ(hashed(simlist_hashcomputer_uint64_t, 0x1122334455667788ULL), 0x55667788U);
}

TEST(SimlistTypes, HashesOfFractionsAreTheirWholePart) {
    struct Case {
        double value;
        std::uint32_t hash;
    };
    const double infinity = std::numeric_limits<double>::infinity();
    const std::array cases{
        Case{0.9, 0},           Case{-0.9, 0},      Case{-1.5, 0xffffffffU},
        Case{4294967297.75, 1}, Case{1e300, 0},     Case{18446744073709555712.0, 4096},
        Case{infinity, 0},      Case{-infinity, 0}, Case{std::nan(""), 0}};
    for (const Case& c : cases) {
        EXPECT_EQ(hashed(simlist_hashcomputer_double, c.value), c.hash) << c.value;
    }
    EXPECT_EQ(hashed(simlist_hashcomputer_float, -7.9F), 0xfffffff9U);
    EXPECT_EQ(hashed(simlist_hashcomputer_float, std::nanf("")), 0U);
    EXPECT_EQ(hashed(simlist_hashcomputer_float, std::numeric_limits<float>::max()), 0U);
}

TEST(SimlistTypes, HashOfATextLeavesOutItsFirstByte) {
    EXPECT_EQ(simlist_hashcomputer_string(""), 123U);
    EXPECT_EQ(simlist_hashcomputer_string("a"), 246U); // 123 + (123 ^ 0)
    EXPECT_EQ(simlist_hashcomputer_string("b"), 246U);
    // 246 + ((246 ^ 'b') << 8) = 246 + 0x94 * 256
    EXPECT_EQ(simlist_hashcomputer_string("ab"), 0x94f6U);
    EXPECT_EQ(simlist_hashcomputer_string("a\xff"), 0x9f6U) << "bytes count without a sign";
}

TEST(SimlistTypes, NanIsEqualToEverything) {
    const double nan = std::nan("");
    const double one = 1;
    EXPECT_EQ(simlist_comparator_double(&nan, &one), 0);
    EXPECT_EQ(simlist_comparator_double(&one, &nan), 0);
}

TEST(SimlistTypes, ComparatorsArePositiveForTheSmaller) {
    const std::int8_t small = -2;
    const std::int8_t large = 1;
    EXPECT_EQ(simlist_comparator_int8_t(&small, &large), 1);
    EXPECT_EQ(simlist_comparator_int8_t(&large, &small), -1);
    EXPECT_EQ(simlist_comparator_int8_t(&large, &large), 0);
    EXPECT_EQ(simlist_comparator_uint8_t(&small, &large), -1);
    EXPECT_GT(simlist_comparator_string("a", "b"), 0);
    EXPECT_LT(simlist_comparator_string("b", "a"), 0);
    EXPECT_EQ(simlist_comparator_string("a", "a"), 0);
}

} // namespace
} // namespace kelconf
