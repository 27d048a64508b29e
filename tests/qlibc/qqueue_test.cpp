#include <gtest/gtest.h>
#include <qlibc/qlibcext.h>

#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>
#include <thread>
#include <vector>

namespace {

struct QueueDeleter {
    void operator()(qqueue_t* queue) const { queue->free(queue); }
};
using Queue = std::unique_ptr<qqueue_t, QueueDeleter>;

bool push(qqueue_t* queue, const std::string& text) {
    return queue->push(queue, text.data(), text.size());
}

std::string pop(qqueue_t* queue) {
    std::size_t size = 0;
    auto* data = static_cast<char*>(queue->pop(queue, &size));
    std::string text = data == nullptr ? "(empty)" : std::string{data, size};
    std::free(data);
    return text;
}

class QueueOptions : public ::testing::TestWithParam<int> {};

TEST_P(QueueOptions, HandsOutCopiesInTheirOrder) {
    const Queue queue{qqueue(GetParam())};
    ASSERT_NE(queue, nullptr);
    EXPECT_EQ(pop(queue.get()), "(empty)");
    EXPECT_EQ(errno, ENOENT);
    for (int round = 0; round < 3; ++round) { // emptied in between
        std::string text = "first";
        EXPECT_TRUE(push(queue.get(), text));
        text = "other";
        EXPECT_TRUE(push(queue.get(), text));
        EXPECT_TRUE(push(queue.get(), std::string("\0x", 2)));
        EXPECT_EQ(queue->size(queue.get()), 3U);
        EXPECT_EQ(pop(queue.get()), "first");
        EXPECT_EQ(pop(queue.get()), "other");
        EXPECT_EQ(pop(queue.get()), std::string("\0x", 2));
        EXPECT_EQ(queue->size(queue.get()), 0U);
    }
    EXPECT_EQ(queue->pop(queue.get(), nullptr), nullptr);
}

TEST_P(QueueOptions, RefusesNothingToStore) {
    const Queue queue{qqueue(GetParam())};
    EXPECT_FALSE(queue->push(queue.get(), nullptr, 4));
    EXPECT_FALSE(queue->push(queue.get(), "x", 0));
    EXPECT_EQ(errno, EINVAL);
    EXPECT_EQ(queue->size(queue.get()), 0U);
}

TEST_P(QueueOptions, IsReleasedWithAMillionRecords) {
    const Queue queue{qqueue(GetParam())}; // a recursive release would exhaust the stack
    constexpr std::size_t kRecords = 1'000'000;
    for (std::size_t i = 0; i < kRecords; ++i) {
        ASSERT_TRUE(queue->push(queue.get(), &i, sizeof i));
    }
    EXPECT_EQ(queue->size(queue.get()), kRecords);
}

INSTANTIATE_TEST_SUITE_P(Options, QueueOptions, ::testing::Values(0, QQUEUE_THREADSAFE));

TEST(QueueThreads, NothingIsLostBetweenTwoPushersAndAPopper) {
    constexpr std::uint32_t kEach = 20000;
    const Queue queue{qqueue(QQUEUE_THREADSAFE)};
    const auto pusher = [&queue](std::uint32_t who) {
        for (std::uint32_t i = 0; i < kEach; ++i) {
            const std::uint32_t record[] = {who, i};
            EXPECT_TRUE(queue->push(queue.get(), record, sizeof record));
        }
    };
    std::thread first{pusher, 0U};
    std::thread second{pusher, 1U};
    std::vector<std::uint32_t> next(2, 0);
    while (next[0] + next[1] < 2 * kEach) {
        std::size_t size = 0;
        void* data = queue->pop(queue.get(), &size);
        if (data == nullptr) {
            std::this_thread::yield();
            continue;
        }
        std::uint32_t record[2];
        ASSERT_EQ(size, sizeof record);
        std::memcpy(record, data, sizeof record);
        std::free(data);
        EXPECT_EQ(record[1], next.at(record[0])++) << "each pusher's order is kept";
    }
    first.join();
    second.join();
    EXPECT_EQ(queue->size(queue.get()), 0U);
}

} // namespace
