#include "container/list_check.h"
#include "container/simlist_dump.h"
#include "container/simlist_types.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <string>
#include <string_view>
#include <utility>

namespace kelconf {
namespace {

constexpr std::size_t kHeader = 30;

// A file in memory: the tests leave no trace on a disk.
class MemoryFile {
  public:
    explicit MemoryFile(std::string_view bytes = {})
        : descriptor_{::memfd_create("dump", MFD_CLOEXEC)} {
        EXPECT_GE(descriptor_, 0);
        EXPECT_EQ(::write(descriptor_, bytes.data(), bytes.size()),
                  static_cast<ssize_t>(bytes.size()));
        rewind();
    }
    ~MemoryFile() { ::close(descriptor_); }
    MemoryFile(const MemoryFile&) = delete;
    MemoryFile& operator=(const MemoryFile&) = delete;
    MemoryFile(MemoryFile&&) = delete;
    MemoryFile& operator=(MemoryFile&&) = delete;

    [[nodiscard]] int descriptor() const { return descriptor_; }
    [[nodiscard]] std::string path() const {
        return "/proc/self/fd/" + std::to_string(descriptor_);
    }
    void rewind() const { EXPECT_EQ(::lseek(descriptor_, 0, SEEK_SET), 0); }
    [[nodiscard]] std::string bytes() const {
        rewind();
        std::string all;
        std::array<char, 4096> part{};
        for (ssize_t got = 0; (got = ::read(descriptor_, part.data(), part.size())) > 0;) {
            all.append(part.data(), static_cast<std::size_t>(got));
        }
        rewind();
        return all;
    }

  private:
    int descriptor_;
};

struct TextList : ScopedList {
    explicit TextList(const std::vector<std::string>& texts = {}) {
        simlist_attributes_copy(this, simlist_meter_string, 1);
        for (const std::string& text : texts) {
            EXPECT_EQ(simlist_append(this, text.c_str()), 1);
        }
    }
    [[nodiscard]] const simlist* self() const { return this; }
    [[nodiscard]] std::vector<std::string> texts() const {
        std::vector<std::string> all;
        for (const void* data : contentsOf(*this)) {
            all.emplace_back(static_cast<const char*>(data));
        }
        return all;
    }
};

std::string dumpOf(const simlist& list) {
    const MemoryFile file;
    EXPECT_EQ(simlist_dump_filedescriptor(&list, file.descriptor(), nullptr), 0);
    return file.bytes();
}

std::uint64_t bigEndian(const std::string& bytes, std::size_t at, std::size_t length) {
    std::uint64_t value = 0;
    for (std::size_t i = 0; i < length; ++i) {
        value = value << 8 | static_cast<unsigned char>(bytes[at + i]);
    }
    return value;
}

// The result of a restore into a list of texts that had one already: 0, or errno.
int restored(std::string_view bytes, std::vector<std::string>* texts = nullptr) {
    const MemoryFile file{bytes};
    TextList list{{"kept"}};
    errno = 0;
    const std::int32_t result = simlist_restore_filedescriptor(&list, file.descriptor(), nullptr);
    const int error = errno;
    EXPECT_TRUE(isSound(list, contentsOf(list)));
    if (texts != nullptr) {
        *texts = list.texts();
    }
    if (result != 0) {
        EXPECT_EQ(list.texts(), std::vector<std::string>{"kept"}) << "as before after a failure";
        EXPECT_NE(error, 0);
        return error;
    }
    return 0;
}

const std::vector<std::string>& mixedTexts() {
    static const std::vector<std::string> texts{"on", "", "1280x720", std::string(70000, 'v'), "x"};
    return texts;
}

TEST(SimlistDump, WritesElementsOfOneSizeBackToBack) {
    const std::array<std::uint16_t, 3> values{1, 2, 0xabcd};
    ScopedList list;
    simlist_attributes_copy(&list, list_meter_uint16_t, 0);
    simlist_attributes_hash_computer(&list, simlist_hashcomputer_uint16_t);
    for (const std::uint16_t& value : values) {
        simlist_append(&list, &value);
    }
    using Clock = std::chrono::system_clock;
    const auto before =
        std::chrono::duration_cast<std::chrono::microseconds>(Clock::now().time_since_epoch());
    const std::string bytes = dumpOf(list);
    ASSERT_EQ(bytes.size(), kHeader + 6 + 4);
    EXPECT_EQ(bigEndian(bytes, 0, 2), 1U);
    EXPECT_GE(bigEndian(bytes, 2, 8), static_cast<std::uint64_t>(before.count()));
    EXPECT_LT(bigEndian(bytes, 2, 8), static_cast<std::uint64_t>(before.count()) + 60'000'000);
    EXPECT_EQ(bigEndian(bytes, 10, 4), bigEndian(bytes, kHeader + 6, 4)) << "mark and trailer";
    EXPECT_EQ(bigEndian(bytes, 14, 4), 6U);
    EXPECT_EQ(bigEndian(bytes, 18, 4), 3U);
    EXPECT_EQ(bigEndian(bytes, 22, 4), 2U);
    std::uint32_t hash = 0;
    simlist_hash(&list, &hash);
    EXPECT_EQ(bigEndian(bytes, 26, 4), hash);
    EXPECT_EQ(std::memcmp(&bytes[kHeader], values.data(), 6), 0);
}

TEST(SimlistDump, PrefixesElementsOfDifferentSizes) {
    const std::string bytes = dumpOf(TextList{{"aa", "bb", "c"}});
    std::string contents;
    for (const std::string_view text : {"aa", "bb", "c"}) {
        const auto length = static_cast<std::uint32_t>(text.size() + 1);
        contents.append(reinterpret_cast<const char*>(&length), sizeof length);
        contents.append(text).push_back('\0');
    }
    ASSERT_EQ(bytes.size(), kHeader + contents.size() + 4);
    EXPECT_EQ(bytes.substr(kHeader, contents.size()), contents);
    EXPECT_EQ(bigEndian(bytes, 14, 4), 8U) << "prefixes are not content";
    EXPECT_EQ(bigEndian(bytes, 22, 4), 0U);
    EXPECT_EQ(bigEndian(bytes, 26, 4), 0U) << "no hash without a computer";
}

TEST(SimlistDump, ComesBackAsItWas) {
    const std::array<std::vector<std::string>, 6> lists{
        {{}, {"one"}, {"", ""}, {"same", "size"}, mixedTexts(), {9000, "many"}}};
    for (const std::vector<std::string>& texts : lists) {
        SCOPED_TRACE(texts.size());
        const MemoryFile file;
        const TextList list{texts};
        std::size_t written = 1;
        std::size_t read = 2;
        ASSERT_EQ(simlist_dump_file(&list, file.path().c_str(), &written), 0);
        TextList copy{{"first"}};
        ASSERT_EQ(simlist_restore_file(&copy, file.path().c_str(), &read), 0);
        EXPECT_EQ(written, read);
        std::vector<std::string> expected = texts;
        expected.insert(expected.begin(), "first");
        EXPECT_EQ(copy.texts(), expected);
        EXPECT_TRUE(isSound(copy, contentsOf(copy)));
    }
}

TEST(SimlistDump, RawBytesGoToAListWithoutAttributes) {
    const MemoryFile file{dumpOf(TextList{mixedTexts()})};
    ScopedList list;
    ASSERT_EQ(simlist_restore_filedescriptor(&list, file.descriptor(), nullptr), 0);
    ASSERT_EQ(list.count, mixedTexts().size());
    for (const std::string& text : mixedTexts()) {
        auto* data = static_cast<char*>(simlist_fetch(&list));
        EXPECT_EQ(text, data);
        std::free(data);
    }
}

TEST(SimlistDump, ReplacesALongerOldDump) {
    const MemoryFile file;
    ASSERT_EQ(
        simlist_dump_filedescriptor(TextList{mixedTexts()}.self(), file.descriptor(), nullptr), 0);
    ASSERT_EQ(simlist_dump_filedescriptor(TextList{{"short"}}.self(), file.descriptor(), nullptr),
              0);
    std::vector<std::string> texts;
    EXPECT_EQ(restored(file.bytes(), &texts), 0);
    EXPECT_EQ(texts, (std::vector<std::string>{"kept", "short"}));
}

TEST(SimlistDump, MakesItsFileReadableForAll) {
    constexpr const char* kPath = "/tmp/list.dump";
    const mode_t mask = ::umask(0);
    EXPECT_EQ(simlist_dump_file(TextList{{"a"}}.self(), kPath, nullptr), 0);
    ::umask(mask);
    struct stat status {};
    ASSERT_EQ(::stat(kPath, &status), 0);
    EXPECT_EQ(status.st_mode & 07777U, 0644U);
    EXPECT_EQ(::unlink(kPath), 0);
}

// A record as the system has it: the text is outside, so only a serializer can write it.
struct Setting {
    char* name;
    int value;
};

constexpr int kNothing = -1;
constexpr int kOverclaimed = 13; // the unserializer consumes more of it than there is
int refuse_setting = kNothing;   // value that the callbacks refuse

void* serializeSetting(const void* element, std::uint32_t* length) {
    const auto* setting = static_cast<const Setting*>(element);
    if (setting->value == refuse_setting) {
        return nullptr;
    }
    *length = static_cast<std::uint32_t>(sizeof setting->value + std::strlen(setting->name));
    auto* bytes = static_cast<char*>(std::malloc(*length));
    std::memcpy(bytes, &setting->value, sizeof setting->value);
    std::memcpy(bytes + sizeof setting->value, setting->name, std::strlen(setting->name));
    return bytes;
}

void* unserializeSetting(const void* buffer, std::uint32_t* length) {
    int value = 0;
    std::memcpy(&value, buffer, sizeof value);
    if (value == refuse_setting) {
        return nullptr;
    }
    const std::string name{static_cast<const char*>(buffer) + sizeof value, *length - sizeof value};
    *length += value == kOverclaimed ? 1 : 0;
    auto* setting = static_cast<Setting*>(std::malloc(sizeof(Setting)));
    *setting = Setting{value == kOverclaimed ? nullptr : ::strdup(name.c_str()), value};
    return setting;
}

struct SettingList : ScopedList {
    SettingList() {
        simlist_attributes_serializer(this, serializeSetting);
        simlist_attributes_unserializer(this, unserializeSetting);
        simlist_attributes_copy(
            this, [](const void*) { return sizeof(Setting); }, 1);
    }
    void add(const char* name, int value) {
        const Setting setting{::strdup(name), value};
        EXPECT_EQ(simlist_append(this, &setting), 1);
    }
    ~SettingList() {
        for (void* data : contentsOf(*this)) {
            std::free(static_cast<Setting*>(data)->name);
        }
    }
    SettingList(const SettingList&) = delete;
    SettingList& operator=(const SettingList&) = delete;
    SettingList(SettingList&&) = delete;
    SettingList& operator=(SettingList&&) = delete;
};

TEST(SimlistDump, SerializedElementsComeBackThroughTheUnserializer) {
    SettingList list;
    list.add("ipcam.audio.volume", 7);
    list.add("a", 8);
    const MemoryFile file{dumpOf(list)};
    SettingList copy;
    ASSERT_EQ(simlist_restore_filedescriptor(&copy, file.descriptor(), nullptr), 0);
    ASSERT_EQ(copy.count, 2U);
    const auto* first = static_cast<const Setting*>(simlist_get_at(&copy, 0));
    EXPECT_STREQ(first->name, "ipcam.audio.volume");
    EXPECT_EQ(first->value, 7);
    EXPECT_STREQ(static_cast<const Setting*>(simlist_get_at(&copy, 1))->name, "a");
}

TEST(SimlistDump, RefusedElementsEndBothDirections) {
    for (const int value : {7, kOverclaimed}) {
        SettingList list;
        list.add("same", value);
        const MemoryFile file{dumpOf(list)};
        refuse_setting = 7;
        SettingList copy;
        EXPECT_EQ(simlist_restore_filedescriptor(&copy, file.descriptor(), nullptr), -1);
        EXPECT_EQ(errno, EPROTO);
        EXPECT_TRUE(isSound(copy, {}));
        refuse_setting = value;
        EXPECT_EQ(simlist_dump_filedescriptor(&list, file.descriptor(), nullptr), -1);
        EXPECT_EQ(errno, EINVAL);
        EXPECT_NE(restored(file.bytes()), 0) << "what a failed dump leaves is not a dump";
        refuse_setting = kNothing;
    }
}

TEST(SimlistDump, SaysWhyItCannotWrite) {
    const TextList texts{{"a"}};
    ScopedList plain;
    errno = 0;
    EXPECT_EQ(simlist_dump_file(&plain, "/nowhere/list", nullptr), -1);
    EXPECT_EQ(errno, ENOTTY);
    const std::array<std::pair<const char*, int>, 3> paths{
        {{"/nowhere/list", ENOENT}, {"/", EISDIR}, {"/dev/full", ENOSPC}}};
    for (const auto& [path, error] : paths) {
        EXPECT_EQ(simlist_dump_file(&texts, path, nullptr), -1) << path;
        EXPECT_EQ(errno, error) << path;
    }
    std::array<int, 2> ends{};
    ASSERT_EQ(::pipe(ends.data()), 0);
    EXPECT_EQ(simlist_dump_filedescriptor(&texts, ends[1], nullptr), -1);
    EXPECT_EQ(errno, ESPIPE);
    ::close(ends[0]);
    ::close(ends[1]);
    EXPECT_EQ(simlist_dump_filedescriptor(&texts, -1, nullptr), -1);
    EXPECT_EQ(errno, EBADF);
    simlist_attributes_copy(&plain, list_meter_int8_t, 0);
    simlist_append(&plain, nullptr);
    EXPECT_EQ(simlist_dump_filedescriptor(&plain, MemoryFile{}.descriptor(), nullptr), -1);
    EXPECT_EQ(errno, EINVAL);
}

TEST(SimlistRestore, ReadsFromAPipe) {
    const std::string bytes = dumpOf(TextList{{"one", "three"}});
    std::array<int, 2> ends{};
    ASSERT_EQ(::pipe(ends.data()), 0);
    ASSERT_EQ(::write(ends[1], bytes.data(), bytes.size()), static_cast<ssize_t>(bytes.size()));
    ::close(ends[1]);
    TextList list;
    EXPECT_EQ(simlist_restore_filedescriptor(&list, ends[0], nullptr), 0);
    EXPECT_EQ(list.texts(), (std::vector<std::string>{"one", "three"}));
    ::close(ends[0]);
}

TEST(SimlistRestore, FailsWithoutAFileOrUnderAnIteration) {
    TextList list{{"a"}};
    EXPECT_EQ(simlist_restore_file(&list, "/nowhere/list", nullptr), -1);
    EXPECT_EQ(errno, ENOENT);
    EXPECT_EQ(simlist_restore_file(&list, "/", nullptr), -1);
    EXPECT_EQ(errno, EISDIR);
    const MemoryFile file{dumpOf(list)};
    simlist_iterator_start(&list);
    EXPECT_EQ(simlist_restore_filedescriptor(&list, file.descriptor(), nullptr), -1);
    EXPECT_EQ(errno, EBUSY);
}

TEST(SimlistRestore, RefusesADumpCutAtAnyLength) {
    for (const auto& texts : {std::vector<std::string>{"a", "bb", ""}, {"aa", "bb"}, {}}) {
        const std::string bytes = dumpOf(TextList{texts});
        for (std::size_t length = 0; length < bytes.size(); ++length) {
            SCOPED_TRACE(length);
            EXPECT_EQ(restored(std::string_view{bytes}.substr(0, length)), ENODATA);
            simlist_dump_info info{};
            const MemoryFile cut{std::string_view{bytes}.substr(0, length)};
            EXPECT_EQ(simlist_dump_getinfo_filedescriptor(cut.descriptor(), &info), -1);
            EXPECT_EQ(errno, ENODATA);
        }
        EXPECT_EQ(restored(bytes + 'x'), EPROTO);
    }
}

// What a changed byte of a dump must lead to. The time and the hash are information only.
int expectedAfterChange(std::size_t at, std::size_t size) {
    if (at < 2) {
        return EILSEQ;
    }
    if (at < 10 || (at >= 26 && at < kHeader)) {
        return 0;
    }
    return (at >= 10 && at < 14) || at >= size - 4 ? EPROTO : -1; // -1: some error
}

TEST(SimlistRestore, NoticesAChangedByteAnywhereButInTheContents) {
    for (const auto& texts : {std::vector<std::string>{"a", "bb", ""}, {"aa", "bb"}}) {
        const std::string sound = dumpOf(TextList{texts});
        for (std::size_t at = 0; at < sound.size(); ++at) {
            for (const unsigned flip : {0x01U, 0x80U, 0xffU}) {
                SCOPED_TRACE(::testing::Message() << "byte " << at << " xor " << flip);
                std::string bytes = sound;
                bytes[at] = static_cast<char>(static_cast<unsigned char>(bytes[at]) ^ flip);
                const int error = restored(bytes);
                const int expected = expectedAfterChange(at, sound.size());
                if (at >= kHeader && at < sound.size() - 4) {
                    continue; // contents: whatever it makes of them, the list stays sound
                }
                EXPECT_TRUE(expected < 0 ? error != 0 : error == expected) << error;
            }
        }
    }
}

std::string dumpHeader(std::uint32_t total, std::uint32_t count, std::uint32_t size) {
    std::string bytes{"\0\1", 2};
    bytes.append(12, '\0');
    for (const std::uint32_t value : {total, count, size, 0U}) {
        for (unsigned shift = 32; shift > 0; shift -= 8) {
            bytes.push_back(static_cast<char>(value >> (shift - 8) & 0xffU));
        }
    }
    return bytes;
}

TEST(SimlistRestore, BelievesNoCountOrLength) {
    constexpr std::uint32_t kMost = 0xffffffff;
    const std::string prefix_most(4, '\xff');
    const std::array<std::pair<std::string, int>, 7> cases{{
        {dumpHeader(kMost, 1, kMost) + "few", ENODATA},
        {dumpHeader(kMost, 1, 0) + prefix_most + "few", ENODATA},
        {dumpHeader(kMost, kMost, 1) + "few", EPROTO}, // "fe" is no text of one byte
        {dumpHeader(0, kMost, 0) + std::string(4, '\0'), EPROTO},
        {dumpHeader(5, 1, 0) + prefix_most + "few", EPROTO},
        {dumpHeader(0x10000, 0x10001, 0xffff0001), EPROTO}, // the product passes 32 bits
        {dumpHeader(1, 0, 0) + std::string(4, '\0'), EPROTO},
    }};
    for (const auto& [bytes, error] : cases) {
        SCOPED_TRACE(&bytes - &cases.front().first);
        EXPECT_EQ(restored(bytes), error);
    }
}

TEST(SimlistRestore, RawElementsMustHaveTheSizeThatTheMeterGives) {
    const std::array<std::uint16_t, 2> values{1, 2};
    ScopedList narrow;
    simlist_attributes_copy(&narrow, list_meter_uint16_t, 1);
    for (const std::uint16_t& value : values) {
        simlist_append(&narrow, &value);
    }
    const MemoryFile file{dumpOf(narrow)};
    ScopedList wide;
    simlist_attributes_copy(&wide, list_meter_uint64_t, 1);
    EXPECT_EQ(simlist_restore_filedescriptor(&wide, file.descriptor(), nullptr), -1);
    EXPECT_EQ(errno, EPROTO);
    EXPECT_TRUE(isSound(wide, {}));
}

TEST(SimlistInfo, TellsTheHeaderAndWhetherTheTrailerFits) {
    std::string bytes = dumpOf(TextList{{"a", "bbb"}});
    simlist_dump_info info{};
    ASSERT_EQ(simlist_dump_getinfo_file(MemoryFile{bytes}.path().c_str(), &info), 0);
    EXPECT_EQ(info.version, 1);
    EXPECT_EQ(info.timestamp, bigEndian(bytes, 2, 8));
    EXPECT_EQ(info.content_length, 6U);
    EXPECT_EQ(info.count, 2U);
    EXPECT_EQ(info.element_size, 0U);
    EXPECT_EQ(info.hash, 0U);
    EXPECT_EQ(info.consistent, 1);
    bytes.back() = static_cast<char>(bytes.back() + 1);
    ASSERT_EQ(simlist_dump_getinfo_file(MemoryFile{bytes}.path().c_str(), &info), 0);
    EXPECT_EQ(info.consistent, 0);
    for (const auto& [version, result] : {std::pair{0, 0}, std::pair{2, -1}}) {
        bytes[1] = static_cast<char>(version);
        errno = 0;
        EXPECT_EQ(simlist_dump_getinfo_file(MemoryFile{bytes}.path().c_str(), &info), result);
        EXPECT_EQ(errno, result == 0 ? 0 : EILSEQ);
    }
    EXPECT_EQ(simlist_dump_getinfo_file("/nowhere/list", &info), -1);
    EXPECT_EQ(errno, ENOENT);
}

} // namespace
} // namespace kelconf
