// whole_program BIN [ROUNDS]: kelconf-init against the bare program and the sqlite3 shell.
//
// Runs inside a private device root (bench/run makes one), for every program works on the
// device's own paths. BIN holds kelconf-init, bare_build and make_tree; sqlite3 and strace are
// those of the machine. A round runs every program once on every tree, in turn, so that what
// disturbs one of them disturbs its rivals too; the figures are medians over the rounds, the
// ratios medians of each round's own ratio. The clock runs from the start of a program to its
// end; the memory is the program's own peak.
//
// Prints Markdown tables. Exit status 1 when a program fails or two of them disagree on a row.

#include "median.h"

#include <fcntl.h>
#include <spawn.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>
#include <string_view>
#include <vector>

namespace {

namespace fs = std::filesystem;

constexpr const char* kTree = "/etc/neutral_tree.xml";
constexpr const char* kDatabase = "/mnt/nand/conf/default.db";
constexpr const char* kSidecar = "/mnt/nand/conf/default.db.md5";
constexpr const char* kWork = "/tmp/bench";
constexpr const char* kCreateTable =
    "CREATE TABLE CONFIGDEFAULT(NAME TEXT PRIMARY KEY, VALUE TEXT, TYPE TEXT, RANGE TEXT, "
    "STEP TEXT, HTTP_ACCESS TEXT, OPTIONS TEXT);";

using Arguments = std::vector<std::string>;

[[noreturn]] void giveUp(const std::string& what) {
    std::fprintf(stderr, "whole_program: %s\n", what.c_str());
    std::exit(1);
}

struct Run {
    double milliseconds;
    double processor; // milliseconds of user and system time
    double mebibytes; // peak resident memory
};

// ---- Running one program ----

double milliseconds(const timeval& time) {
    return static_cast<double>(time.tv_sec) * 1000 + static_cast<double>(time.tv_usec) / 1000;
}

// Output goes to `out`; a program that does not end with status 0 ends the benchmark.
Run run(const Arguments& arguments, const char* out = "/dev/null") {
    std::vector<char*> argv;
    for (const std::string& argument : arguments) {
        argv.push_back(const_cast<char*>(argument.c_str()));
    }
    argv.push_back(nullptr);
    posix_spawn_file_actions_t actions{};
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_addopen(&actions, STDIN_FILENO, "/dev/null", O_RDONLY, 0);
    posix_spawn_file_actions_addopen(&actions, STDOUT_FILENO, out, O_WRONLY | O_CREAT | O_TRUNC,
                                     0644);
    const auto start = std::chrono::steady_clock::now();
    pid_t child = -1;
    int status = -1;
    rusage usage{};
    if (posix_spawnp(&child, argv.front(), &actions, nullptr, argv.data(), environ) != 0 ||
        wait4(child, &status, 0, &usage) != child || status != 0) {
        giveUp("failed: " + arguments.front());
    }
    const std::chrono::duration<double, std::milli> taken =
        std::chrono::steady_clock::now() - start;
    posix_spawn_file_actions_destroy(&actions);
    return {taken.count(), milliseconds(usage.ru_utime) + milliseconds(usage.ru_stime),
            static_cast<double>(usage.ru_maxrss) / 1024};
}

std::string contentOf(const std::string& path) {
    std::ostringstream content;
    content << std::ifstream(path).rdbuf();
    return content.str();
}

// The flash as it is before the first start; nothing of an earlier run waits to be written.
void cleanFlash() {
    for (const auto& entry : fs::directory_iterator(fs::path(kDatabase).parent_path())) {
        fs::remove_all(entry.path());
    }
    const int directory = open(fs::path(kDatabase).parent_path().c_str(), O_RDONLY | O_CLOEXEC);
    syncfs(directory);
    close(directory);
}

// ---- What is compared ----

enum Program : std::size_t { kKelconf, kBare, kImport, kImportVacuum, kPrograms };
enum Check : std::size_t { kSoundRun, kBareCheck, kChecks };

struct Tree {
    std::string shape;
    long parameters;
    int repeats; // in a round; the small ones are noisier
    [[nodiscard]] std::string path(const char* suffix) const {
        return std::string(kWork) + '/' + shape + std::to_string(parameters) + suffix;
    }
    std::array<std::vector<Run>, kPrograms> builds{};
    std::array<std::vector<Run>, kChecks> checks{};
    std::array<long, kPrograms> flushes{};
};

Arguments commandOf(Program program, const Tree& tree, const std::string& bin) {
    const std::string import = ".import " + tree.path(".csv") + " CONFIGDEFAULT";
    switch (program) {
    case kKelconf:
        return {bin + "/kelconf-init"};
    case kBare:
        return {bin + "/bare_build", kTree, kDatabase, kSidecar};
    case kImport:
        return {"sqlite3", "-batch", kDatabase, kCreateTable, ".mode csv", import};
    default:
        return {"sqlite3", "-batch", kDatabase, kCreateTable, ".mode csv", import, "VACUUM;"};
    }
}

void install(const Tree& tree) {
    fs::remove(kTree);
    fs::create_symlink(tree.path(".xml"), kTree);
}

// Every program must have stored the same rows, or its time says nothing.
void compareWithFirst(const Tree& tree, Program program) {
    const std::string first = std::string(kWork) + "/first.db";
    if (program == kKelconf) {
        fs::copy_file(kDatabase, first, fs::copy_options::overwrite_existing);
        return;
    }
    const std::string answer = std::string(kWork) + "/answer";
    const std::string attach = "ATTACH '" + first + "' AS first;";
    run({"sqlite3", "-batch", kDatabase, attach,
         // NOLINTNEXTLINE(bugprone-suspicious-missing-comma): one statement in several lines
         "SELECT (SELECT count(*) FROM first.CONFIGDEFAULT),"
         "(SELECT count(*) FROM (SELECT rowid,* FROM first.CONFIGDEFAULT "
         "EXCEPT SELECT rowid,* FROM main.CONFIGDEFAULT)),"
         "(SELECT count(*) FROM main.CONFIGDEFAULT);"},
        answer.c_str());
    const std::string count = std::to_string(tree.parameters);
    if (contentOf(answer) != count + "|0|" + count + "\n") {
        giveUp("rows differ: " + tree.shape + ' ' + count);
    }
}

long countFlushes(const Arguments& command) {
    const std::string trace = std::string(kWork) + "/trace";
    Arguments traced = {"strace",
                        "-f",
                        "-qq",
                        "-o",
                        trace,
                        "-e",
                        "trace=fsync,fdatasync,sync,syncfs,sync_file_range,msync"};
    traced.insert(traced.end(), command.begin(), command.end());
    run(traced);
    const std::string lines = contentOf(trace);
    return std::count(lines.begin(), lines.end(), '\n');
}

void prepare(Tree& tree, const std::string& bin) {
    run({bin + "/make_tree", tree.shape, std::to_string(tree.parameters), tree.path(".xml"),
         tree.path(".csv")});
    install(tree);
    for (std::size_t i = 0; i < kPrograms; ++i) {
        const auto program = static_cast<Program>(i);
        cleanFlash();
        tree.flushes[i] = countFlushes(commandOf(program, tree, bin));
        compareWithFirst(tree, program);
    }
}

void playRound(Tree& tree, const std::string& bin) {
    install(tree);
    for (std::size_t i = 0; i < kPrograms; ++i) {
        cleanFlash();
        tree.builds[i].push_back(run(commandOf(static_cast<Program>(i), tree, bin)));
    }
    cleanFlash();
    run(commandOf(kKelconf, tree, bin));
    tree.checks[kSoundRun].push_back(run({bin + "/kelconf-init"}));
    tree.checks[kBareCheck].push_back(run({bin + "/bare_build", "check", kDatabase, kSidecar}));
}

// ---- Figures ----

double medianOf(const std::vector<Run>& runs, double Run::*figure) {
    std::vector<double> values;
    values.reserve(runs.size());
    for (const Run& one : runs) {
        values.push_back(one.*figure);
    }
    return median(values);
}

double medianRatio(const std::vector<Run>& runs, const std::vector<Run>& rivals,
                   double Run::*figure) {
    std::vector<double> values;
    values.reserve(runs.size());
    for (std::size_t i = 0; i < runs.size(); ++i) {
        values.push_back(runs[i].*figure / (rivals[i].*figure));
    }
    return median(values);
}

void printTimes(const std::vector<Tree>& trees) {
    std::puts("Time of a build; the ratios are kelconf-init over the other program.\n\n"
              "| tree | parameters | kelconf-init, ms | over bare | over bare, "
              "processor time | over shell import | over shell import and VACUUM "
              "|\n|---|---:|---:|---:|---:|---:|---:|");
    for (const Tree& tree : trees) {
        const auto& own = tree.builds[kKelconf];
        std::printf("| %s | %ld | %.1f | %.2f | %.2f | %.2f | %.2f |\n", tree.shape.c_str(),
                    tree.parameters, medianOf(own, &Run::milliseconds),
                    medianRatio(own, tree.builds[kBare], &Run::milliseconds),
                    medianRatio(own, tree.builds[kBare], &Run::processor),
                    medianRatio(own, tree.builds[kImport], &Run::milliseconds),
                    medianRatio(own, tree.builds[kImportVacuum], &Run::milliseconds));
    }
}

void printMemory(const std::vector<Tree>& trees) {
    std::puts(
        "\nPeak memory of a build, and its flushes (fsync and fdatasync).\n\n"
        "| tree | parameters | kelconf-init, MiB | over bare | flushes: kelconf-init | bare "
        "| shell import | shell import and VACUUM |\n|---|---:|---:|---:|---:|---:|---:|---:|");
    for (const Tree& tree : trees) {
        const auto& own = tree.builds[kKelconf];
        std::printf("| %s | %ld | %.1f | %.2f | %ld | %ld | %ld | %ld |\n", tree.shape.c_str(),
                    tree.parameters, medianOf(own, &Run::mebibytes),
                    medianRatio(own, tree.builds[kBare], &Run::mebibytes), tree.flushes[kKelconf],
                    tree.flushes[kBare], tree.flushes[kImport], tree.flushes[kImportVacuum]);
    }
}

void printSoundRuns(const std::vector<Tree>& trees) {
    std::puts("\nA run that finds the database sound, over a bare digest and scan.\n\n"
              "| tree | parameters | kelconf-init, ms | over bare check | memory over bare check "
              "|\n|---|---:|---:|---:|---:|");
    for (const Tree& tree : trees) {
        const auto& own = tree.checks[kSoundRun];
        const auto& bare = tree.checks[kBareCheck];
        std::printf("| %s | %ld | %.1f | %.2f | %.2f |\n", tree.shape.c_str(), tree.parameters,
                    medianOf(own, &Run::milliseconds), medianRatio(own, bare, &Run::milliseconds),
                    medianRatio(own, bare, &Run::mebibytes));
    }
}

void printGrowthOf(const Tree& large, const Tree& small) {
    std::printf("| %s |", large.shape.c_str());
    for (const Program program : {kKelconf, kBare}) {
        for (double Run::*figure : {&Run::milliseconds, &Run::processor}) {
            std::printf(" %.2f |",
                        medianRatio(large.builds[program], small.builds[program], figure));
        }
    }
    std::puts("");
}

void printGrowth(const std::vector<Tree>& trees) {
    std::puts("\nGrowth: a build of 200,000 parameters over one of 50,000.\n\n"
              "| tree | kelconf-init | its processor time | bare | its processor time "
              "|\n|---|---:|---:|---:|---:|");
    for (const Tree& large : trees) {
        for (const Tree& small : trees) {
            if (large.shape == small.shape && large.parameters == 200'000 &&
                small.parameters == 50'000) {
                printGrowthOf(large, small);
            }
        }
    }
}

std::vector<Tree> allTrees() {
    std::vector<Tree> trees;
    for (const char* shape : {"flat", "instances"}) {
        trees.push_back({shape, 500, 3});
        trees.push_back({shape, 5'000, 2});
        trees.push_back({shape, 50'000, 1});
        trees.push_back({shape, 200'000, 1});
    }
    return trees;
}

} // namespace

int main(int argc, char** argv) {
    if (argc < 2) {
        std::fputs("usage: whole_program BIN [ROUNDS]\n", stderr);
        return 2;
    }
    const std::string bin = argv[1];
    const long rounds = argc > 2 ? std::strtol(argv[2], nullptr, 10) : 7;
    fs::create_directories(kWork);
    std::vector<Tree> trees = allTrees();
    for (Tree& tree : trees) {
        prepare(tree, bin);
    }
    for (long round = 1; round <= rounds; ++round) {
        std::fprintf(stderr, "whole program: round %ld of %ld\n", round, rounds);
        for (Tree& tree : trees) {
            for (int i = 0; i < tree.repeats; ++i) {
                playRound(tree, bin);
            }
        }
    }
    printTimes(trees);
    printMemory(trees);
    printSoundRuns(trees);
    printGrowth(trees);
    fs::remove(kTree);
    fs::remove_all(kWork);
    return 0;
}
