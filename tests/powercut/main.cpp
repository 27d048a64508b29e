// powercut: plays scenes against kelconfd and kelconf-init, builds what a power cut at each of
// their operations may leave, and judges a start on it (scripts/powercut --help). Inside a device
// root. Exit status: 0 without failures, 1 with, 2 for wrong usage.

#include "powercut/judge.h"
#include "powercut/scenes.h"

#include <CLI/CLI.hpp>
#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <filesystem>
#include <set>
#include <utility>

namespace kelconf::powercut {
namespace {

struct Options {
    std::size_t most = 48;     // ways at each position (ordered: and prefix)
    std::size_t images = 5000; // of a scene and model: all that differ
    std::size_t shown = 3;     // failures of a kind
    std::vector<std::string> scenes;
    std::vector<Model> models{Model::kOrdered, Model::kLoose};
    bool keep = false, trace = false, list = false;
};

// Of one scene in one model.
struct Tally {
    std::string scene, model;
    double ways = 0;
    std::size_t images = 0, damaged = 0;
    std::map<std::string, std::set<std::uint64_t>> failed; // images, by kind and by "" for any
    std::map<std::string, std::set<std::string>> shown;    // operations, by kind
};

std::string textOf(const Record& record) {
    constexpr std::array kWords = {"create",   "unlink",   "rename to", "link to",        "write",
                                   "truncate", "fsync",    "fdatasync", "flush names of", "sync",
                                   "sent",     "answered", "tree",      "ended",          "settled",
                                   "quiet",    "restored"};
    std::string text = kWords.at(static_cast<std::size_t>(record.op)) + (" " + record.path);
    return record.op == Op::kWrite || record.op == Op::kTruncate
               ? text + " " + std::to_string(record.number) + "+" +
                     std::to_string(record.data.size())
               : text;
}

void keep(const Image& image, const std::string& name) {
    const std::string directory = "/tmp/kept/" + name;
    putImage(image);
    std::filesystem::create_directories(directory);
    std::filesystem::copy("/mnt", directory,
                          std::filesystem::copy_options::recursive |
                              std::filesystem::copy_options::overwrite_existing);
}

// The live files and the factory ones are disks of their own: neither's recovery asks for the
// other.
bool concerns(const Record& record, bool factory) {
    const bool all = record.op == Op::kSync || record.op == Op::kFlushNames;
    return all || (record.path.find("/default.db") != std::string::npos) == factory;
}

// Calls `visit` with each image at each position where something is promised.
template <typename Visit>
void follow(const Options& options, const Recording& recording, Model model, bool factory,
            Tally& tally, Visit visit) {
    Disk disk{model, factory ? std::vector<StoredFile>{} : recording.before};
    Promises promises;
    tally.ways = 0;
    for (std::size_t i = 0; i < recording.trace.size(); ++i) {
        const Record& record = recording.trace[i];
        const bool ours = concerns(record, factory);
        promises.take(record);
        disk.apply(record, ours);
        if (promises.quiet() || promises.trees().empty() || record.op == Op::kSent ||
            record.op == Op::kTree || (record.op < Op::kSent && !ours)) {
            continue;
        }
        tally.ways += disk.eachImage(options.most, [&](const Image& image, const Disk::Lost& lost) {
            visit(image, promises, i, lost);
        });
    }
}

void judgeScene(const Options& options, const Recording& recording, Model model, bool factory,
                Judge& judge, Tally& tally) {
    // Counted first, so that those chosen are spread evenly. What the end of the process alone
    // leaves where something is promised is always among them.
    std::set<std::uint64_t> seen;
    follow(options, recording, model, factory, tally,
           [&](const Image& image, auto&&...) { seen.insert(image.hash); });
    const std::size_t step = 1 + seen.size() / options.images;
    std::map<std::uint64_t, bool> chosen;
    std::size_t position = recording.trace.size();
    follow(options, recording, model, factory, tally,
           [&](const Image& image, const Promises& promises, std::size_t at, const auto& lost) {
               const bool first = std::exchange(position, at) != at;
               const auto [found, fresh] = chosen.try_emplace(image.hash, false);
               const bool now = !found->second && ((first && recording.trace[at].op >= Op::kSent) ||
                                                   (fresh && chosen.size() % step == 0));
               found->second |= now;
               if (!found->second) {
                   return;
               }
               bool damaged = false;
               for (const auto& [kind, words] : judge.judge(image, promises, factory, damaged)) {
                   tally.failed[""].insert(image.hash);
                   auto& shown = tally.shown[kind];
                   const std::string operation = textOf(recording.trace[at]);
                   if (tally.failed[kind].insert(image.hash).second &&
                       shown.size() < options.shown && shown.insert(words + operation).second) {
                       std::printf("  %s, %s: %s: %s\n    after #%zu (%s), lost: %s\n",
                                   tally.scene.c_str(), tally.model.c_str(), kind.c_str(),
                                   words.c_str(), at + 1, operation.c_str(), lost().c_str());
                       if (options.keep && shown.size() == 1) {
                           keep(image, tally.scene + "/" + tally.model + "/" + kind);
                       }
                   }
               }
               tally.images += now ? 1U : 0U;
               tally.damaged += now && damaged ? 1U : 0U;
           });
}

// A call that the recorder does not know would make every image a fiction.
void checkComplete(const Recording& recording) {
    Disk disk{Model::kOrdered, recording.before};
    for (const Record& record : recording.trace) {
        disk.apply(record);
    }
    std::map<std::string, std::string> files;
    for (const StoredFile& file : storedFiles()) {
        files[file.path] = file.content;
    }
    if (files != disk.present()) {
        throw std::runtime_error("the recorded operations do not lead to the files that are there");
    }
}

// False when the scene could not be played to its end.
bool runScene(const Options& options, const Scene& scene, std::vector<Tally>& tallies) {
    const Recording recording = play(scene);
    checkComplete(recording);
    for (std::size_t i = 0; options.trace && i < recording.trace.size(); ++i) {
        std::printf("  #%zu %s\n", i + 1, textOf(recording.trace[i]).c_str());
    }
    if (!recording.broken.empty()) {
        std::printf("  %s: ENDS at%s\n", scene.name.c_str(), recording.broken.c_str());
    }
    Judge judge;
    for (const Model model : options.models) {
        Tally& tally = tallies.emplace_back();
        tally.scene = scene.name;
        tally.model = model == Model::kOrdered ? "ordered" : "loose";
        judgeScene(options, recording, model, true, judge, tally);
        judgeScene(options, recording, model, false, judge, tally);
    }
    std::fflush(stdout);
    return recording.broken.empty();
}

void print(const std::vector<Tally>& tallies) {
    std::printf("\n%-28s %-8s %7s %9s %7s %7s", "scene", "model", "images", "of", "damaged",
                "failed");
    for (const char* kind : kKinds) {
        std::printf(" %8s", kind);
    }
    std::size_t images = 0;
    std::size_t failed = 0;
    for (const Tally& tally : tallies) {
        std::printf("\n%-28s %-8s %7zu %9.3g %7zu", tally.scene.c_str(), tally.model.c_str(),
                    tally.images, tally.ways, tally.damaged);
        const auto count = [&](const char* kind) {
            const auto found = tally.failed.find(kind);
            return found == tally.failed.end() ? 0 : found->second.size();
        };
        std::printf(" %7zu", count(""));
        for (const char* kind : kKinds) {
            std::printf(" %8s", count(kind) == 0 ? "-" : std::to_string(count(kind)).c_str());
        }
        images += tally.images;
        failed += count("");
    }
    std::printf("\n%zu images, %zu failed\n", images, failed);
}

bool runAll(const Options& options) {
    std::vector<Tally> tallies;
    bool good = true;
    for (const Scene& scene : readScenes()) {
        if (options.list) {
            std::puts(scene.name.c_str());
        } else if (options.scenes.empty() || std::ranges::count(options.scenes, scene.name) > 0) {
            good = runScene(options, scene, tallies) && good;
        }
    }
    if (!options.list) {
        print(tallies);
    }
    return options.list ||
           (good && !tallies.empty() &&
            std::ranges::all_of(tallies, [](const Tally& tally) { return tally.failed.empty(); }));
}

} // namespace
} // namespace kelconf::powercut

int main(int count, char** words) {
    using namespace kelconf::powercut;
    Options options;
    bool selection = false;
    CLI::App app{"cuts the power of the live store; see scripts/powercut --help"};
    app.add_option("--scene", options.scenes);
    app.add_option("--images", options.images)->check(CLI::PositiveNumber);
    app.add_option("--model", options.models)
        ->transform(CLI::CheckedTransformer(
            std::map<std::string, Model>{{"ordered", Model::kOrdered}, {"loose", Model::kLoose}}))
        ->expected(1);
    app.add_flag("--short", selection);
    app.add_flag("--keep", options.keep);
    app.add_flag("--trace", options.trace);
    app.add_flag("--list", options.list);
    try {
        app.parse(count, words);
        if (selection) {
            options.most = 12;
            options.images = 50;
            options.shown = 1;
        }
        prepareStarts();
        return runAll(options) ? EXIT_SUCCESS : EXIT_FAILURE;
    } catch (const CLI::ParseError& error) {
        return app.exit(error) == 0 ? 0 : 2;
    } catch (const std::exception& failure) {
        std::fprintf(stderr, "powercut: %s\n", failure.what());
        return EXIT_FAILURE;
    }
}
