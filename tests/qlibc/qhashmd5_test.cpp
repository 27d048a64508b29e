#include <gtest/gtest.h>
#include <qlibc/qlibc.h>
#include <sys/mman.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <string>
#include <string_view>
#include <utility>

namespace {

// MD5 of bytes that a file in memory holds, in hexadecimal digits; or errno as text.
std::string digest(std::string_view bytes, off_t offset = 0, ssize_t length = 0) {
    const int descriptor = ::memfd_create("md5", MFD_CLOEXEC);
    EXPECT_EQ(::write(descriptor, bytes.data(), bytes.size()), static_cast<ssize_t>(bytes.size()));
    const std::string path = "/proc/self/fd/" + std::to_string(descriptor);
    std::array<std::uint8_t, 16> raw{};
    const bool done = qhashmd5_file(path.c_str(), offset, length, raw.data());
    std::string result = done ? "" : "errno " + std::to_string(errno);
    ::close(descriptor);
    for (std::size_t i = 0; done && i < raw.size(); ++i) {
        constexpr std::string_view kDigits = "0123456789abcdef";
        result += kDigits[raw[i] >> 4U];
        result += kDigits[raw[i] & 0xfU];
    }
    return result;
}

TEST(Md5OfFile, KeepsTheVectorsOfRfc1321) {
    constexpr std::array<std::pair<std::string_view, std::string_view>, 7> kVectors{
        {{"", "d41d8cd98f00b204e9800998ecf8427e"},
         {"a", "0cc175b9c0f1b6a831c399e269772661"},
         {"abc", "900150983cd24fb0d6963f7d28e17f72"},
         {"message digest", "f96b697d7cb7938d525a2f31aaf161d0"},
         {"abcdefghijklmnopqrstuvwxyz", "c3fcd3d76192e4007dfb496cca67e13b"},
         {"ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789",
          "d174ab98d277d9f5a5611c2c9f419d9f"},
         {"1234567890123456789012345678901234567890123456789012345678901234567890123456789012345678"
          "9012",
          "57edf4a22be3c955ac49da2e2107b67a"}}};
    for (const auto& [bytes, expected] : kVectors) {
        if (bytes.size() > 80) {
            EXPECT_EQ(digest(bytes.substr(0, 80)), expected);
        } else {
            EXPECT_EQ(digest(bytes), expected);
        }
    }
}

TEST(Md5OfFile, TakesFilesOfManyReads) {
    EXPECT_EQ(digest(std::string(1'000'000, 'a')), "7707d6ae4e027c70eea2a935c2296f21");
}

TEST(Md5OfFile, TakesAPartOfAFile) {
    EXPECT_EQ(digest("xxabcyy", 2, 3), "900150983cd24fb0d6963f7d28e17f72");
    EXPECT_EQ(digest("xxabc", 2, 0), "900150983cd24fb0d6963f7d28e17f72");
    EXPECT_EQ(digest("xxab", 2, 3), "errno " + std::to_string(EINVAL));
    EXPECT_EQ(digest("x", -1, 0), "errno " + std::to_string(EINVAL));
    EXPECT_EQ(digest("x", 0, -1), "errno " + std::to_string(EINVAL));
}

TEST(Md5OfFile, SaysWhatItCannotRead) {
    std::array<std::uint8_t, 16> raw{};
    raw.fill(7);
    const std::array<std::uint8_t, 16> untouched = raw;
    constexpr std::array<std::pair<const char*, int>, 3> kCases{
        {{"/nowhere/file", ENOENT},
         {"/", EISDIR},             // opens, fails at the first read
         {"/proc/self/mem", EIO}}}; // the same: nothing is mapped at 0
    for (const auto& [path, error] : kCases) {
        errno = 0;
        EXPECT_FALSE(qhashmd5_file(path, 0, 0, raw.data())) << path;
        EXPECT_EQ(errno, error) << path;
        EXPECT_EQ(raw, untouched) << path;
    }
    EXPECT_FALSE(qhashmd5_file(nullptr, 0, 0, raw.data()));
    EXPECT_FALSE(qhashmd5_file("/", 0, 0, nullptr));
}

// A failure after good blocks: the start of a mapping reads, the page behind it does not.
TEST(Md5OfFile, FailsWhenALaterReadFails) {
    const auto page = static_cast<std::size_t>(::sysconf(_SC_PAGESIZE));
    constexpr std::size_t kPages = 256; // several read blocks
    void* mapping =
        ::mmap(nullptr, kPages * page, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    ASSERT_NE(mapping, MAP_FAILED);
    auto* hole = static_cast<char*>(mapping) + (kPages - 1) * page;
    ASSERT_EQ(::munmap(hole, page), 0);
    std::array<std::uint8_t, 16> raw{};
    const auto start = static_cast<off_t>(reinterpret_cast<std::uintptr_t>(mapping));
    const auto good = static_cast<ssize_t>((kPages - 1) * page);
    EXPECT_TRUE(qhashmd5_file("/proc/self/mem", start, good, raw.data()));
    EXPECT_FALSE(qhashmd5_file("/proc/self/mem", start, good + 1, raw.data()));
    EXPECT_EQ(errno, EIO);
    EXPECT_EQ(::munmap(mapping, (kPages - 1) * page), 0);
}

} // namespace
