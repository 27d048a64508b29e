// The calls of qLibc that the system uses: the same of the stand-in and of the library.
#include "qlibc/use_qlibc.h"

#include <gtest/gtest.h>
#include <sys/mman.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <iomanip>
#include <map>
#include <memory>
#include <sstream>
#include <string>
#include <string_view>
#include <thread>

namespace {

struct Freer {
    void operator()(void* memory) const { std::free(memory); }
    void operator()(qqueue_t* queue) const { queue->free(queue); }
};
using Queue = std::unique_ptr<qqueue_t, Freer>;

std::string encoded(std::string_view bytes) {
    return std::unique_ptr<char, Freer>{qbase64_encode(bytes.data(), bytes.size())}.get();
}

// Decodes in a buffer that ends with the text, where the checkers see a step beyond it.
std::string decoded(std::string_view text) {
    const std::unique_ptr<char, Freer> buffer{::strndup(text.data(), text.size())};
    const std::size_t length = qbase64_decode(buffer.get());
    EXPECT_EQ(buffer.get()[length], '\0');
    return std::string{buffer.get(), length};
}

TEST(Base64, CarriesEveryByteAndPassesOverForeignCharacters) {
    EXPECT_EQ(encoded("f") + encoded("fo"), "Zg==Zm8=");
    EXPECT_EQ(encoded("\xfb\xff\xbf"), "+/+/");
    std::string bytes;
    for (int i = 0; i < 256; ++i) {
        EXPECT_EQ(decoded(encoded(bytes)), bytes);
        bytes.push_back(static_cast<char>(i));
    }
    EXPECT_EQ(decoded("Zm\xff\x80\r\n-_9v"), "foo");
    EXPECT_EQ(decoded("Zg==Zg=="), "f\x06`") << "padding does not end the text";
    EXPECT_EQ(decoded("Z"), "") << "bits that fill no byte";
}

std::string failure(int error) {
    return "errno " + std::to_string(error);
}

// MD5 of a part of a file in hexadecimal digits, or errno as text.
std::string md5(const char* path, off_t offset = 0, ssize_t length = 0) {
    std::string raw(16, '?');
    if (!qhashmd5_file(path, offset, length, raw.data())) {
        EXPECT_EQ(raw, std::string(16, '?')) << path;
        return failure(errno);
    }
    std::ostringstream digits;
    for (const char byte : raw) {
        digits << std::hex << std::setw(2) << std::setfill('0') << (byte & 0xff);
    }
    return digits.str();
}

// The same of bytes that a file in memory holds.
std::string md5Of(std::string_view bytes, off_t offset, ssize_t length) {
    const int file = ::memfd_create("md5", MFD_CLOEXEC);
    EXPECT_EQ(::write(file, bytes.data(), bytes.size()), static_cast<ssize_t>(bytes.size()));
    std::string digits = md5(("/proc/self/fd/" + std::to_string(file)).c_str(), offset, length);
    ::close(file);
    return digits;
}

TEST(Md5OfFile, DigestsTheAskedPart) {
    EXPECT_EQ(md5Of(std::string(1'000'000, 'a'), 0, 0), "7707d6ae4e027c70eea2a935c2296f21");
    EXPECT_EQ(md5Of("xxabcyy", 2, 3), "900150983cd24fb0d6963f7d28e17f72");
    EXPECT_EQ(md5Of("", 0, 0), "d41d8cd98f00b204e9800998ecf8427e");
    EXPECT_EQ(md5Of("xxab", 2, 3), failure(EINVAL));
    EXPECT_EQ(md5Of("x", -1, 0), failure(EINVAL));
    EXPECT_EQ(md5Of("x", 0, -1), failure(EINVAL));
}

TEST(Md5OfFile, SaysWhatItCannotRead) {
    EXPECT_EQ(md5("/nowhere/file"), failure(ENOENT));
    EXPECT_EQ(md5("/"), failure(EISDIR));
    EXPECT_EQ(md5(nullptr), failure(EINVAL));
    EXPECT_FALSE(qhashmd5_file("/dev/null", 0, 0, nullptr));
    // A failure after good blocks: the mapping reads, the page behind it does not.
    constexpr std::size_t kGood = 1U << 20U; // several reads
    constexpr std::size_t kHole = 1U << 16U; // at least a page
    void* memory = ::mmap(nullptr, kGood + kHole, PROT_READ, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    ASSERT_EQ(::munmap(static_cast<char*>(memory) + kGood, kHole), 0);
    const auto start = static_cast<off_t>(reinterpret_cast<std::uintptr_t>(memory));
    EXPECT_EQ(md5("/proc/self/mem", start, kGood), "b6d81b360a5672d80c27430f39153e2c");
    const std::string behind = md5("/proc/self/mem", start, kGood + 1);
    ::munmap(memory, kGood);
    if (sizeof(void*) == 4 && behind != failure(EIO)) {
        GTEST_SKIP() << "an emulator of 32 bits leaves no holes";
    }
    EXPECT_EQ(behind, failure(EIO));
}

std::string pop(qqueue_t* queue) {
    std::size_t size = 0;
    const std::unique_ptr<char, Freer> data{static_cast<char*>(queue->pop(queue, &size))};
    return data ? std::string{data.get(), size} : failure(errno);
}

TEST(Queue, HandsOutCopiesAndIsReleasedWithAMillionRecords) {
    const Queue queue{qqueue(0)};
    EXPECT_EQ(pop(queue.get()), failure(ENOENT));
    EXPECT_FALSE(queue->push(queue.get(), nullptr, 4));
    EXPECT_FALSE(queue->push(queue.get(), "x", 0));
    EXPECT_TRUE(queue->push(queue.get(), "x", 1));
    EXPECT_EQ(pop(queue.get()), "x");
    for (std::size_t i = 0; i < 1'000'000; ++i) { // a recursive release would exhaust the stack
        static_cast<void>(queue->push(queue.get(), &i, sizeof i));
    }
    EXPECT_EQ(pop(queue.get()), std::string(sizeof(std::size_t), '\0'));
    EXPECT_EQ(queue->size(queue.get()), 999'999U);
}

TEST(Queue, LosesNothingBetweenTwoPushersAndAPopper) {
    constexpr std::size_t kEach = 20000;
    const Queue queue{qqueue(QQUEUE_THREADSAFE)};
    const auto pusher = [&queue](char who) {
        for (std::size_t i = 1; i <= kEach; ++i) {
            const std::string record = who + std::to_string(i);
            EXPECT_TRUE(queue->push(queue.get(), record.data(), record.size()));
        }
    };
    const std::jthread first{pusher, 'a'};
    const std::jthread second{pusher, 'b'};
    std::map<char, std::size_t> seen;
    while (seen['a'] + seen['b'] < 2 * kEach) {
        const std::string record = pop(queue.get());
        if (record != failure(ENOENT)) {
            EXPECT_EQ(record.substr(1), std::to_string(++seen[record[0]])) << "order is kept";
        }
    }
}

} // namespace
