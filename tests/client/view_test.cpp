// The view: the file and its reader against each other, whatever becomes of the file, and
// kelbus.h's calls beside the real service.
#include "daemon/daemon_process.h"
#include "paths.h"
#include "view/publisher.h"
#include "view/reader.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <kelbus.h>
#include <sys/mman.h>
#include <sys/resource.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cstddef>
#include <cstring>
#include <filesystem>
#include <map>
#include <random>
#include <thread>

namespace kelconf::test {
namespace {

using view::Outcome;
using View = std::unique_ptr<kelbus_view, void (*)(kelbus_view*)>;

constexpr const char* kFile = "/tmp/view";
const std::vector<view::Item> kItems{
    {"a", "1", false}, {"a.b", "two words", false}, {"b", "", false}, {"c", "hidden", true}};

std::string valueOf(view::Reader& reader, std::string_view name) {
    std::string buffer(view::kLongestValue + 1, '#');
    std::size_t length = 0;
    const Outcome outcome = reader.get(name, buffer.data(), buffer.size(), length);
    constexpr std::array kWords{"",      "-away",    "-unknown", "-small", "-hidden",
                                "-busy", "-refused", "-broken",  "-memory"};
    return outcome == Outcome::kOk ? std::string(buffer.c_str())
                                   : kWords.at(static_cast<std::size_t>(outcome));
}

std::string visited(view::Reader& reader, const char* prefix, std::size_t most = 100) {
    std::string all;
    const Outcome outcome =
        reader.visit(prefix, [&](const char* name, const char* value, std::size_t length) {
            all.append(name).append("=");
            all.append(value == nullptr ? "?" : std::string(value, length)).append(";");
            return --most > 0;
        });
    return outcome == Outcome::kOk ? all : "-";
}

view::Publisher published(const std::vector<view::Item>& items = kItems) {
    auto made = view::Publisher::publish(kFile, items);
    if (!made) {
        throw std::runtime_error("no view");
    }
    return std::move(*made);
}

void change(view::Publisher& publisher,
            const std::vector<std::pair<const char*, std::string>>& values) {
    publisher.begin();
    for (const auto& [name, value] : values) {
        ASSERT_TRUE(publisher.set(name, value));
    }
    publisher.end();
}

TEST(View, GivesWhatWasPublished) {
    view::Publisher publisher = published();
    view::Reader reader{kFile};
    EXPECT_EQ(visited(reader, ""), "a=1;a.b=two words;b=;c=?;");
    EXPECT_EQ(visited(reader, "a"), "a=1;a.b=two words;");
    EXPECT_EQ(visited(reader, "a."), "a.b=two words;");
    EXPECT_EQ(visited(reader, "aa"), "");
    EXPECT_EQ(visited(reader, "", 2), "a=1;a.b=two words;");
    std::uint64_t changes = reader.changes();
    EXPECT_EQ(reader.changes(), changes);
    const std::string longest(view::kLongestValue, 'l');
    for (const std::string& value : {std::string{"x"}, std::string(17, 'y'), std::string{}, longest,
                                     longest + "1", std::string{"z"}}) {
        change(publisher, {{"b", value}, {"c", value}, {"unknown", value}});
        EXPECT_EQ(valueOf(reader, "b"), value.size() > longest.size() ? "-hidden" : value);
        EXPECT_EQ(valueOf(reader, "c"), "-hidden");
        EXPECT_NE(reader.changes(), std::exchange(changes, reader.changes()));
    }
    EXPECT_EQ(valueOf(reader, "a"), "1");
    for (const char* name : {"", "A", "a.", "a.bb", "d"}) {
        EXPECT_EQ(valueOf(reader, name), "-unknown") << name;
    }
    char small[2];
    std::size_t length = 0;
    EXPECT_EQ(reader.get("a.b", small, sizeof small, length), Outcome::kTooSmall);
    EXPECT_EQ(length, 9U);
    EXPECT_EQ(reader.get("a", small, sizeof small, length), Outcome::kOk);
}

TEST(View, ManyNamesAreFound) {
    std::vector<std::string> names;
    for (int i = 0; i < 3000; ++i) {
        names.push_back("group." + std::to_string(i) + ".parameter");
    }
    std::sort(names.begin(), names.end());
    std::vector<view::Item> items;
    for (const std::string& name : names) {
        items.push_back({name, name, false});
    }
    const view::Publisher publisher = published(items);
    view::Reader reader{kFile};
    for (const std::string& name : names) {
        ASSERT_EQ(valueOf(reader, name), name);
        ASSERT_EQ(valueOf(reader, name + "s"), "-unknown");
    }
}

TEST(View, AFileThatIsTooSmallIsReplaced) {
    view::Publisher first = published();
    view::Reader reader{kFile};
    EXPECT_EQ(valueOf(reader, "a"), "1");
    first.begin();
    bool room = true;
    for (std::size_t size = 100; room; size += 400) {
        room = first.set("a", std::string(size, 'n'));
    }
    view::Publisher second =
        *view::Publisher::publish(kFile, {{"a", "2", false}}, first.sequence());
    EXPECT_GT(second.sequence(), first.sequence());
    first.leave(view::kMoved);
    EXPECT_EQ(valueOf(reader, "a"), "2");
    second.begin();
    second.leave(view::kDead);
    EXPECT_EQ(valueOf(reader, "a"), "-away");
    EXPECT_EQ(reader.changes(), 0U);
}

TEST(View, APublisherThatIsGoneOrStandsStillIsTold) {
    view::Reader reader{kFile};
    std::filesystem::remove(kFile);
    EXPECT_EQ(valueOf(reader, "a"), "-away");
    auto publisher = std::make_unique<view::Publisher>(published());
    usleep(50'000); // beyond the pause between two looks
    EXPECT_EQ(valueOf(reader, "a"), "1");
    publisher->begin();
    EXPECT_EQ(valueOf(reader, "a"), "-busy");
    publisher.reset(); // dies in the middle
    EXPECT_EQ(valueOf(reader, "a"), "-away");
    publisher = std::make_unique<view::Publisher>(published());
    usleep(50'000);
    EXPECT_EQ(valueOf(reader, "a"), "1");
    publisher.reset(); // dies between two changes
    usleep(50'000);
    EXPECT_EQ(valueOf(reader, "a"), "-away");
    view::retire(kFile);
    EXPECT_FALSE(std::filesystem::exists(kFile));
}

TEST(View, IsOnlyForThoseItIsOpenTo) {
    const view::Publisher publisher = published();
    std::filesystem::permissions(kFile, std::filesystem::perms::none);
    view::Reader reader{kFile};
    EXPECT_EQ(valueOf(reader, "a"), "-refused");
}

// All room is taken when the file is made, so that no reader or writer is ended by a signal later.
TEST(View, IsNotMadeWhereThereIsNoRoom) {
    const std::string place = "/mnt/nand/view"; // of the root's small flash
    const auto room = std::filesystem::space("/mnt/nand").available;
    const Fd ballast{open("/mnt/nand/ballast", O_RDWR | O_CREAT | O_CLOEXEC, 0600)};
    ASSERT_EQ(posix_fallocate(ballast.get(), 0, static_cast<off_t>(room - 32'768)), 0);
    EXPECT_FALSE(view::Publisher::publish(place.c_str(), kItems));
    EXPECT_EQ(errno, ENOSPC);
    EXPECT_FALSE(exists(place) || exists(place + ".new"));
    std::filesystem::remove("/mnt/nand/ballast");
}

// Reads everything of a file, in a process that has it open as the publisher would.
void readAll(const std::string& content) {
    writeFile(kFile, content);
    const Fd file{open(kFile, O_RDWR | O_CLOEXEC)};
    struct flock whole {};
    whole.l_type = F_WRLCK;
    ASSERT_EQ(fcntl(file.get(), F_OFD_SETLK, &whole), 0);
    view::Reader reader{kFile};
    for (const char* name : {"a", "a.b", "b", "c", "d"}) {
        valueOf(reader, name);
    }
    visited(reader, "");
    visited(reader, "a.");
    reader.changes();
}

TEST(View, NoFileHurtsItsReader) {
    std::string good;
    {
        view::Publisher publisher = published();
        good = readFile(kFile);
    }
    for (const std::size_t size :
         {std::size_t{0}, std::size_t{127}, std::size_t{128}, good.size() - 1}) {
        readAll(good.substr(0, size));
    }
    readAll(std::string(good.size(), '\xff'));
    // A name that ends in the file, at a zero byte, where 32 bits are all there is to count with.
    const std::array<std::uint32_t, 2> name{0x80000000U, 0x80000000U + 40};
    std::uint32_t entries = 0;
    std::memcpy(&entries, good.data() + offsetof(view::Header, entries_at), sizeof entries);
    std::string wraps = good;
    std::memcpy(wraps.data() + entries, name.data(), sizeof name);
    readAll(wraps);
    std::minstd_rand random{1};
    const std::size_t used = 1200; // header, slots, entries, names and values
    for (int round = 0; round < 1000; ++round) {
        std::string bad = good;
        for (unsigned flips = 1 + random() % 4; flips > 0; --flips) {
            const std::size_t at = random() % used;
            bad[at] = random() % 2 == 0 ? static_cast<char>(bad[at] ^ 1 << random() % 8)
                                        : static_cast<char>(random());
        }
        bad.replace(64, 8, good, 64, 8); // an odd sequence is a wait, as tested above
        ASSERT_NO_FATAL_FAILURE(readAll(bad)) << round;
    }
    for (const char* other : {"/tmp/kelbus-view-dir", "/dev/zero"}) {
        std::filesystem::create_directories("/tmp/kelbus-view-dir");
        view::Reader reader{other};
        EXPECT_EQ(valueOf(reader, "a"), "-broken") << other;
    }
}

// Three names that always change together, and grow, so that files are replaced as well.
TEST(View, ManyReadersSeeWholeChanges) {
    std::vector<view::Item> items{{"x", "0", false}, {"y", "0", false}, {"z", "0", false}};
    view::Publisher publisher = published(items);
    std::atomic<bool> done{false};
    std::atomic<long> reads{0};
    view::Reader shared{kFile};
    const auto readOn = [&](view::Reader& reader) {
        const std::string_view names[] = {"x", "y", "z"};
        long last = 0;
        std::string texts;
        std::vector<view::Place> places;
        while (!done) {
            const Outcome outcome = reader.getMany(names, texts, places);
            if (outcome != Outcome::kOk) {
                ASSERT_EQ(outcome, Outcome::kBusy);
                continue;
            }
            const std::string x = texts.data() + places[0].at;
            ASSERT_EQ(x, texts.data() + places[1].at);
            ASSERT_EQ(x, texts.data() + places[2].at);
            const long now = std::stol(x);
            ASSERT_GE(now, last);
            last = now;
            ++reads;
        }
    };
    std::vector<std::thread> threads;
    for (int i = 0; i < 3; ++i) {
        threads.emplace_back([&] { readOn(shared); });
    }
    view::Reader own{kFile};
    threads.emplace_back([&] { readOn(own); });
    for (int i = 1; i < 1000 || reads < 1000; ++i) {
        const std::string value =
            std::to_string(i) + std::string(static_cast<std::size_t>(i % 600) * 30, ' ');
        publisher.begin();
        if (publisher.set("x", value) && publisher.set("y", value) && publisher.set("z", value)) {
            publisher.end();
            continue;
        }
        for (view::Item& item : items) {
            item.value = value;
        }
        auto fresh = view::Publisher::publish(kFile, items, publisher.sequence());
        ASSERT_TRUE(fresh);
        publisher.leave(view::kMoved);
        publisher = std::move(*fresh);
    }
    done = true;
    for (std::thread& thread : threads) {
        thread.join();
    }
}

// ---- Beside the service ----

View openView() {
    kelbus_view* opened = nullptr;
    EXPECT_EQ(kelbus_view_open(&opened), KELBUS_OK);
    return {opened, kelbus_view_close};
}

std::string get(const View& view, const char* name) {
    char buffer[100];
    const kelbus_error error = kelbus_view_get(view.get(), name, buffer, sizeof buffer, nullptr);
    return error == KELBUS_OK ? buffer : kelbus_strerror(error);
}

const std::string kNoService = kelbus_strerror(KELBUS_NO_SERVICE);
const std::string kTree = treeOf(leaf("a", "int", "1") + leaf("b", "int", "1") +
                                 leaf("r", "realtime", "") + leaf("passwd", "string", "secret"));

TEST(ServiceView, ShowsEverySetThatWasAnswered) {
    resetDevice(kTree);
    const View view = openView();
    EXPECT_EQ(get(view, "private.a"), kNoService);
    Daemon daemon;
    ASSERT_TRUE(daemon.awaitReady());
    usleep(50'000);
    EXPECT_EQ(get(view, "private.a"), "1");
    EXPECT_EQ(get(view, "private.passwd"), kelbus_strerror(KELBUS_NOT_IN_VIEW));
    EXPECT_EQ(get(view, "private.none"), kelbus_strerror(KELBUS_UNKNOWN_NAME));
    EXPECT_EQ(readFile(paths::kView).find("secret"), std::string::npos);
    EXPECT_EQ(std::filesystem::status(paths::kView).permissions() &
                  std::filesystem::perms::others_all,
              std::filesystem::perms::none);
    int number = 1;
    for (const char* kind : {"SET_ACTION", "SET_ACTION_DIRECT", "SET_ACTION_NO_DB"}) {
        const std::uint64_t changes = kelbus_view_changes(view.get());
        const std::string value = std::to_string(++number);
        ASSERT_TRUE(set(kind, {{"private.a", value}, {"private.r", value}}));
        EXPECT_EQ(get(view, "private.a") + get(view, "private.r"), value + value);
        EXPECT_NE(kelbus_view_changes(view.get()), changes);
    }
    for (std::size_t size = 1000; size < 65'000; size += 8000) { // several files, one by one
        ASSERT_TRUE(set("SET_ACTION_NO_DB", {{"private.r", std::string(size, 'm')}}));
        std::size_t length = 0;
        ASSERT_EQ(kelbus_view_get(view.get(), "private.r", nullptr, 0, &length), KELBUS_TOO_SMALL);
        ASSERT_EQ(length, size);
    }
    ASSERT_TRUE(set("SET_ACTION_NO_DB", {{"private.b", std::string(90'000, 'm')}}));
    EXPECT_EQ(get(view, "private.b"), kelbus_strerror(KELBUS_NOT_IN_VIEW));
    ASSERT_TRUE(set("SET_ACTION", {{"private.a", "3"}, {"private.b", "4"}}));
    const char* names[] = {"private.a", "private.none", "private.b"};
    kelbus_values* values = nullptr;
    EXPECT_EQ(kelbus_view_get_many(view.get(), names, 3, &values), KELBUS_UNKNOWN_NAME);
    EXPECT_STREQ(values->items[2].value, "4");
    EXPECT_EQ(values->items[1].value, nullptr);
    kelbus_values_free(values);
    EXPECT_EQ(daemon.stop(), 0);
    EXPECT_EQ(get(view, "private.a"), kNoService);
    EXPECT_FALSE(exists(paths::kView));
}

// A reader that is stopped in the middle of its work, and one that maps the file and never lets go.
TEST(ServiceView, ReadersCannotHoldTheServiceUp) {
    resetDevice(kTree);
    Daemon daemon;
    ASSERT_TRUE(daemon.awaitReady());
    const pid_t reader = fork();
    if (reader == 0) {
        const View view = openView();
        while (true) {
            get(view, "private.a");
        }
    }
    usleep(20'000);
    kill(reader, SIGSTOP);
    for (int i = 0; i < 100; ++i) {
        ASSERT_TRUE(set("SET_ACTION", {{"private.a", std::to_string(i)}}));
        ASSERT_EQ(get(openView(), "private.a"), std::to_string(i));
    }
    kill(reader, SIGKILL);
    waitpid(reader, nullptr, 0);
    EXPECT_EQ(daemon.stop(), 0);
}

// Killed and started again: "no service" or a value, never an older one than was seen, and what the
// new service has answered is seen at once.
TEST(ServiceView, SurvivesKillsAndForks) {
    resetDevice(kTree);
    const View view = openView();
    std::atomic<bool> done{false};
    std::thread reading([&] {
        while (!done) {
            const std::string value = get(view, "private.r");
            ASSERT_TRUE(value == kNoService || value.empty() || value == "now") << value;
        }
    });
    for (int round = 0; round < 100; ++round) {
        Daemon daemon;
        ASSERT_TRUE(daemon.awaitReady());
        ASSERT_TRUE(set("SET_ACTION_NO_DB", {{"private.r", "now"}}));
        usleep(round == 0 ? 50'000 : 0);
        while (get(view, "private.r") == kNoService) { // not found yet; never the old value
        }
        ASSERT_EQ(get(view, "private.r"), "now");
        if (round % 10 == 0) {
            const pid_t child = fork();
            if (child == 0) {
                _exit(get(view, "private.r") == "now" ? 0 : 1);
            }
            int status = 0;
            waitpid(child, &status, 0);
            ASSERT_EQ(status, 0);
        }
        daemon.killNow();
    }
    done = true;
    reading.join();
}

// What an earlier run has left must not be read once the new service has answered, however alive it
// looks.
TEST(ServiceView, TakesThePlaceOfAnOlderOne) {
    resetDevice(kTree);
    std::filesystem::create_directories("/tmp/kelbus");
    const auto older = view::Publisher::publish(paths::kView, {{"private.a", "old", false}});
    ASSERT_TRUE(older);
    const View view = openView();
    EXPECT_EQ(get(view, "private.a"), "old");
    Daemon daemon;
    ASSERT_TRUE(daemon.awaitReady());
    EXPECT_NE(get(view, "private.a"), "old");
}

TEST(ServiceView, AbsentWhereItCannotBeMade) {
    resetDevice(kTree);
    std::filesystem::create_directories("/tmp/kelbus/view.new"); // nothing can take its place
    DeviceLog log;
    Daemon daemon;
    ASSERT_TRUE(daemon.awaitReady());
    EXPECT_NE(log.take().console.find("no view of the values: "), std::string::npos);
    ASSERT_TRUE(set("SET_ACTION", {{"private.a", "2"}}));
    EXPECT_EQ(get(openView(), "private.a"), kNoService);
    EXPECT_EQ(daemon.stop(), 0);
}

} // namespace
} // namespace kelconf::test
