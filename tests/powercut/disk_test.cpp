// The images that known operations may leave, counted by hand.
#include "powercut/disk.h"

#include <gtest/gtest.h>

#include <set>

namespace {

using namespace kelconf::powercut;

// Each file as "name=", the first letter of each block ("." for zeros), its size.
std::string textOf(const Image& image) {
    std::string text;
    for (const auto& [path, content] : image.files) {
        text += " " + path.substr(path.rfind('/') + 1) + "=";
        for (std::size_t at = 0; at < content->first.size(); at += 4096) {
            text += content->first[at] == '\0' ? '.' : content->first[at];
        }
        text += std::to_string(content->first.size());
    }
    return text;
}

// From a flushed "/d/a" of one block of "o": all images in ascending order, each ended by " |".
std::string imagesAfter(Model model, const std::vector<Record>& trace) {
    Disk disk{model, {{"/d/a", 1, std::string(4096, 'o')}}};
    for (const Record& record : trace) {
        disk.apply(record);
    }
    std::set<std::string> images;
    disk.eachImage(1000, [&](const Image& image, const auto&) { images.insert(textOf(image)); });
    std::string text;
    for (const std::string& image : images) {
        text += image + " |";
    }
    return text;
}

const Record kWriteA{Op::kWrite, 1, 0, "/d/a", std::string(4096, 'n')};
const Record kWriteAgain{Op::kWrite, 1, 0, "/d/a", "z"};
const Record kExtendA{Op::kWrite, 1, 4096, "/d/a", std::string(100, 'n')};
const Record kEmptyA{Op::kTruncate, 1, 0, "/d/a", ""};
const Record kUnlinkA{Op::kUnlink, 1, 0, "/d/a", ""};
const Record kFlushDataA{Op::kFlushData, 1, 0, "/d/a", ""};
const Record kCreateB{Op::kCreate, 2, 0, "/d/b", ""};
const Record kWriteB{Op::kWrite, 2, 0, "/d/b", "x"};
const Record kFlushB{Op::kFlush, 2, 0, "/d/b", ""};
const Record kRenameB{Op::kRename, 2, 0, "/d/a", "/d/b"};
const Record kFlushNames{Op::kFlushNames, 9, 0, "/d", ""};
const Record kSync{Op::kSync, 0, 0, "", ""};

TEST(Disk, Images) {
    const struct {
        const char* name;
        std::vector<Record> trace;
        const char *ordered, *loose;
    } cases[] = {
        {"flushed", {kWriteA, kFlushDataA}, " a=n4096 |", nullptr},
        {"a block is old or new", {kWriteA}, " a=n4096 | a=o4096 |", nullptr},
        {"or between", {kWriteA, kWriteAgain}, " a=n4096 | a=o4096 | a=z4096 |", nullptr},
        {"a new block may be zeros", {kExtendA}, " a=o.4196 | a=o4096 | a=on4196 |", nullptr},
        {"emptied", {kEmptyA, kWriteA}, " a=.4096 | a=0 | a=n4096 | a=o4096 |", nullptr},
        {"names in order, or not",
         {kCreateB, kUnlinkA},
         " a=o4096 | a=o4096 b=0 | b=0 |",
         " | a=o4096 | a=o4096 b=0 | b=0 |"},
        {"fsync brings names in order, or not even its own",
         {kUnlinkA, kCreateB, kWriteB, kFlushB},
         " b=x1 |",
         " | a=o4096 | a=o4096 b=x1 | b=x1 |"},
        {"fdatasync that needs none brings no name",
         {kCreateB, kWriteA, kFlushDataA},
         " a=n4096 | a=n4096 b=0 |",
         nullptr},
        {"a directory's fsync brings names, and no data",
         {kCreateB, kWriteB, kFlushNames},
         " a=o4096 b=.1 | a=o4096 b=x1 |",
         " a=o4096 b=.1 | a=o4096 b=0 | a=o4096 b=x1 |"},
        {"a rename is one step",
         {kCreateB, kFlushNames, kRenameB},
         " a=0 | a=o4096 b=0 |",
         nullptr},
        {"sync", {kCreateB, kWriteB, kWriteA, kSync}, " a=n4096 b=x1 |", nullptr}};
    for (const auto& [name, trace, ordered, loose] : cases) {
        EXPECT_EQ(imagesAfter(Model::kOrdered, trace), ordered) << name;
        EXPECT_EQ(imagesAfter(Model::kLoose, trace), loose == nullptr ? ordered : loose) << name;
    }
}

TEST(Disk, ChoosesAllOrASelection) {
    const auto count = [](const std::vector<std::size_t>& choices, std::size_t most) {
        std::set<std::vector<std::size_t>> seen;
        eachChoice(choices, most, [&](const auto& choice) { seen.insert(choice); });
        return seen.size();
    };
    EXPECT_EQ(count({}, 10), 1U);
    EXPECT_EQ(count({2, 3, 2}, 12), 12U);
    EXPECT_EQ(count(std::vector<std::size_t>(30, 2), 62), 62U); // all, nothing, each alone
}

} // namespace
