#include "container/simlist.h"
#include "container/simlist_types.h"

#include <gtest/gtest.h>

#include <iterator>
#include <limits>

namespace kelconf {
namespace {

// `hash`: what the hash computer makes of `value`.
template <typename T>
void checkType(simlist_comparator comparator, simlist_meter meter, simlist_hash_computer computer,
               T value, std::uint32_t hash) {
    constexpr T kMost = std::numeric_limits<T>::max();
    constexpr T upwards[] = {std::numeric_limits<T>::lowest(), 1, kMost / 4 * 3, kMost};
    for (std::size_t i = 1; i < std::size(upwards); ++i) {
        EXPECT_EQ(comparator(&upwards[i - 1], &upwards[i]), 1);
        EXPECT_EQ(comparator(&upwards[i], &upwards[i - 1]), -1);
        EXPECT_EQ(comparator(&upwards[i], &upwards[i]), 0);
    }
    EXPECT_EQ(meter(&value), sizeof(T));
    EXPECT_EQ(computer(&value), hash);
}

#define CHECK_TYPE(T, VALUE, HASH)                                                                 \
    checkType<T>(simlist_comparator_##T, list_meter_##T, simlist_hashcomputer_##T, VALUE, HASH)

TEST(SimlistTypes, NumbersAreComparedMeasuredAndHashedByTheirWidth) {
    CHECK_TYPE(int8_t, -1, 0xffffffff);
    CHECK_TYPE(int16_t, -2, 0xfffffffe);
    CHECK_TYPE(int32_t, -3, 0xfffffffd);
    CHECK_TYPE(int64_t, -0x123456789, 0xdcba9877);
    CHECK_TYPE(uint8_t, 0xff, 0xff);
    CHECK_TYPE(uint16_t, 0xffff, 0xffff);
    CHECK_TYPE(uint32_t, 0x89abcdef, 0x89abcdef);
    CHECK_TYPE(uint64_t, 0x1122334455667788, 0x55667788);
    CHECK_TYPE(float, -7.9F, 0xfffffff9);
    CHECK_TYPE(double, 18446744073709555712.0, 4096);
    CHECK_TYPE(double, 4294967297.75, 1);
    CHECK_TYPE(double, -std::numeric_limits<double>::infinity(), 0);
    const double nan = std::numeric_limits<double>::quiet_NaN();
    CHECK_TYPE(double, nan, 0);
    EXPECT_EQ(simlist_comparator_double(&nan, &nan), 0);
}

TEST(SimlistTypes, TextsAreComparedByBytesAndHashedWithoutTheirFirst) {
    EXPECT_GT(simlist_comparator_string("Z", "\xc3\xa4"), 0);
    EXPECT_EQ(simlist_meter_string("abc"), 4U);
    EXPECT_EQ(simlist_hashcomputer_string(""), 123U);
    EXPECT_EQ(simlist_hashcomputer_string("a"), 246U); // 123 + (123 ^ 0)
    // 246 + ((246 ^ 'b') << 8) = 246 + 0x94 * 256
    EXPECT_EQ(simlist_hashcomputer_string("ab"), 0x94f6U);
    EXPECT_EQ(simlist_hashcomputer_string("a\xff"), 0x9f6U) << "bytes count without a sign";
}

} // namespace
} // namespace kelconf
