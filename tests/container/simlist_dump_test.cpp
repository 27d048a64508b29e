#include "container/list_check.h"
#include "container/simlist_dump.h"
#include "container/simlist_types.h"
#include "support/files.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <set>
#include <string>
#include <string_view>
#include <utility>

namespace kelconf {
namespace {

using namespace test;
using Texts = std::vector<std::string>;

constexpr const char* kPath = "/dev/shm/list.dump";

struct TextList : ScopedList {
    explicit TextList(const Texts& texts = {}) {
        simlist_attributes_copy(this, simlist_meter_string, 1);
        for (const std::string& text : texts) {
            EXPECT_EQ(simlist_append(this, text.c_str()), 1);
        }
    }
};

Texts textsOf(const simlist& list) {
    Texts all;
    for (const void* data : contentsOf(list)) {
        all.emplace_back(static_cast<const char*>(data));
    }
    return all;
}

// 0, or errno.
int errorOf(std::int32_t result) {
    return result == 0 ? 0 : errno;
}

std::string dumpOf(const simlist& list) {
    EXPECT_EQ(simlist_dump_file(&list, kPath, nullptr), 0);
    return readFile(kPath);
}

int restoredTo(simlist& list, const std::string& bytes) {
    writeFile(kPath, bytes);
    return errorOf(simlist_restore_file(&list, kPath, nullptr));
}

int informed(simlist_dump_info& info, const std::string& bytes) {
    writeFile(kPath, bytes);
    return errorOf(simlist_dump_getinfo_file(kPath, &info));
}

// The same with a list of texts that had one already and keeps it, alone, after a failure.
int restored(const std::string& bytes) {
    TextList list{{"kept"}};
    const int error = restoredTo(list, bytes);
    EXPECT_TRUE(error == 0 ? textsOf(list)[0] == "kept" : textsOf(list) == Texts{"kept"});
    return error;
}

std::string bigEndian(std::uint32_t value) {
    std::string bytes;
    for (unsigned shift = 32; shift > 0; shift -= 8) {
        bytes.push_back(static_cast<char>(value >> (shift - 8) & 0xffU));
    }
    return bytes;
}

// A dump whose time, mark and, at its end, trailer are 0.
std::string dumped(std::uint32_t total, std::uint32_t count, std::uint32_t size,
                   const std::string& contents, std::uint32_t hash = 0) {
    return std::string{"\0\1", 2} + std::string(12, '\0') + bigEndian(total) + bigEndian(count) +
           bigEndian(size) + bigEndian(hash) + contents + bigEndian(0);
}

std::string withoutMarks(std::string bytes) {
    EXPECT_EQ(bytes.substr(10, 4), bytes.substr(bytes.size() - 4));
    return bytes.replace(2, 12, 12, '\0').replace(bytes.size() - 4, 4, 4, '\0');
}

TEST(SimlistDump, KeepsTheFormatToTheByte) {
    EXPECT_EQ(withoutMarks(dumpOf(TextList{{"aa", "bb", "c"}})), // prefixes are not content
              dumped(8, 3, 0, {"\3\0\0\0aa\0\3\0\0\0bb\0\2\0\0\0c\0", 20}));
    const std::uint16_t values[] = {1, 0xabcd};
    ScopedList list;
    simlist_attributes_copy(&list, list_meter_uint16_t, 0);
    simlist_attributes_hash_computer(&list, simlist_hashcomputer_uint16_t);
    simlist_append(&list, &values[0]);
    simlist_append(&list, &values[1]);
    std::uint32_t hash = 0;
    simlist_hash(&list, &hash);
    EXPECT_EQ(withoutMarks(dumpOf(list)), dumped(4, 2, 2, {"\1\0\xcd\xab", 4}, hash));
}

TEST(SimlistDump, ComesBackAsItWas) {
    ::unlink(kPath);
    const mode_t mask = ::umask(0);
    dumpOf(TextList{});
    ::umask(mask);
    EXPECT_EQ(std::filesystem::status(kPath).permissions(), std::filesystem::perms{0644});
    const int file = ::open(kPath, O_RDWR); // each dump replaces the one before, also a longer one
    for (const Texts& texts :
         {Texts{"on", "", std::string(70000, 'v'), "x"}, {"same", "size"}, {"", ""}, {"one"}, {}}) {
        std::size_t written = 1;
        std::size_t read = 2;
        const TextList list{texts};
        EXPECT_EQ(simlist_dump_filedescriptor(&list, file, &written), 0);
        ScopedList copy;                                    // without a meter: raw bytes
        FILE* cat = ::popen("cat /dev/shm/list.dump", "r"); // NOLINT(cert-env33-c): in pieces
        EXPECT_EQ(simlist_restore_filedescriptor(&copy, ::fileno(cat), &read), 0);
        ::pclose(cat);
        copy.copy_data = 1; // frees them
        EXPECT_EQ(written, read);
        EXPECT_EQ(textsOf(copy), texts);
    }
    ::close(file);
}

// '>' and the text, without its NUL.
void* serializeText(const void* element, std::uint32_t* length) {
    const std::string text = static_cast<const char*>(element);
    *length = static_cast<std::uint32_t>(text.size() + 1);
    return text == "unwritable" ? nullptr : ::strdup((">" + text).c_str());
}

void* unserializeText(const void* buffer, std::uint32_t* length) {
    const std::string text{static_cast<const char*>(buffer), *length};
    *length += text == ">overclaimed" ? 1U : 0U; // more than there is
    return text == ">unreadable" ? nullptr : ::strdup(&text[1]);
}

TEST(SimlistDump, ElementsPassThroughTheSerializers) {
    for (const auto& [text, error] : {std::pair{"sound", 0},
                                      {"", 0},
                                      {"unreadable", EPROTO},
                                      {"overclaimed", EPROTO},
                                      {"unwritable", EILSEQ}}) {
        TextList list{{std::string(70000, 'l'), text}};
        simlist_attributes_serializer(&list, serializeText);
        const int failure = errorOf(simlist_dump_file(&list, kPath, nullptr));
        EXPECT_EQ(failure, error == EILSEQ ? EINVAL : 0) << "and what it leaves is not a dump";
        TextList copy;
        simlist_attributes_unserializer(&copy, unserializeText);
        EXPECT_EQ(errorOf(simlist_restore_file(&copy, kPath, nullptr)), error) << text;
        EXPECT_EQ(textsOf(copy), error == 0 ? textsOf(list) : Texts{}) << text;
    }
}

TEST(SimlistDump, SaysWhyItCannotWriteOrRead) {
    TextList texts{{"a"}};
    for (const auto& [path, error] :
         {std::pair{"/nowhere/list", ENOENT}, {"/", EISDIR}, {"/dev/full", ENOSPC}}) {
        EXPECT_EQ(errorOf(simlist_dump_file(&texts, path, nullptr)), error) << path;
    }
    EXPECT_EQ(errorOf(simlist_restore_file(&texts, "/nowhere/list", nullptr)), ENOENT);
    EXPECT_EQ(errorOf(simlist_restore_file(&texts, "/", nullptr)), EISDIR);
    simlist_iterator_start(&texts);
    EXPECT_EQ(restoredTo(texts, dumpOf(texts)), EBUSY);
    ScopedList plain;
    EXPECT_EQ(errorOf(simlist_dump_file(&plain, "/nowhere/list", nullptr)), ENOTTY);
    simlist_attributes_copy(&plain, list_meter_int8_t, 0);
    simlist_append(&plain, nullptr);
    EXPECT_EQ(errorOf(simlist_dump_file(&plain, kPath, nullptr)), EINVAL);
}

TEST(SimlistRestore, RefusesADumpCutAtAnyLength) {
    for (const Texts& texts : {Texts{"a", "bb", ""}, {"aa", "bb"}, {}}) {
        const std::string bytes = dumpOf(TextList{texts});
        for (std::size_t length = 0; length < bytes.size(); ++length) {
            simlist_dump_info info{};
            EXPECT_EQ(restored(bytes.substr(0, length)), ENODATA) << length;
            EXPECT_EQ(informed(info, bytes.substr(0, length)), ENODATA) << length;
        }
        EXPECT_EQ(restored(bytes + 'x'), EPROTO);
    }
}

TEST(SimlistRestore, NoticesAChangedByteAnywhereButInTheContents) {
    for (const Texts& texts : {Texts{"a", "bb", ""}, {"aa", "bb"}}) {
        const std::string sound = dumpOf(TextList{texts});
        // 'v'ersion, 'i'nformation only (time, hash), 'm'ark, 's'izes, 'c'ontents: whatever these
        // make of the elements, the list stays sound.
        const std::string fields =
            "vviiiiiiiimmmmssssssssssssiiii" + std::string(sound.size() - 34, 'c') + "mmmm";
        for (std::size_t i = 0; i < sound.size() * 3; ++i) {
            std::string bytes = sound;
            bytes[i / 3] = static_cast<char>(bytes[i / 3] ^ std::array{0x01, 0x80, 0xff}[i % 3]);
            const int error = restored(bytes);
            const char field = fields[i / 3];
            const int expected = field == 'v' ? EILSEQ : field == 'm' ? EPROTO : 0;
            EXPECT_TRUE(field == 's' ? error != 0 : field == 'c' || error == expected)
                << i / 3 << ": " << error;
        }
    }
}

TEST(SimlistRestore, BelievesNoCountOrLength) {
    constexpr std::uint32_t kMost = 0xffffffff;
    EXPECT_EQ(restored(dumped(kMost, 1, kMost, "few")), ENODATA);
    EXPECT_EQ(restored(dumped(kMost, 1, 0, "\xff\xff\xff\xff few")), ENODATA);
    EXPECT_EQ(restored(dumped(kMost, kMost, 1, "few")), EPROTO) << "\"f\" is no text of one byte";
    EXPECT_EQ(restored(dumped(5, 1, 0, "\xff\xff\xff\xff few")), EPROTO);
    EXPECT_EQ(restored(dumped(0x10000, 0x10001, 0xffff0001, "")), EPROTO) << "beyond 32 bits";
    EXPECT_EQ(restored(dumped(1, 0, 0, "")), EPROTO);
}

TEST(SimlistInfo, TellsTheHeaderAndWhetherTheTrailerFits) {
    std::set<std::string> marks;
    for (int i = 0; i < 3; ++i) {
        marks.insert(dumpOf(TextList{}).substr(10, 4));
    }
    EXPECT_EQ(marks.size(), 3U) << "random, not alike";
    using namespace std::chrono;
    const auto before = duration_cast<microseconds>(system_clock::now().time_since_epoch());
    std::string bytes = dumpOf(TextList{{"a", "bbb"}});
    bytes[29] = 9;
    simlist_dump_info info{};
    EXPECT_EQ(informed(info, bytes), 0);
    EXPECT_LT(info.timestamp - static_cast<std::uint64_t>(before.count()), 60'000'000U);
    EXPECT_TRUE(info.version == 1 && info.content_length == 6 && info.count == 2 &&
                info.element_size == 0 && info.hash == 9 && info.consistent == 1);
    bytes[10] = static_cast<char>(bytes[10] ^ 1);
    bytes[1] = 0; // what an interrupted dump leaves
    EXPECT_EQ(informed(info, bytes), 0);
    EXPECT_EQ(info.consistent, 0);
    bytes[1] = 2;
    EXPECT_EQ(informed(info, bytes), EILSEQ);
}

} // namespace
} // namespace kelconf
