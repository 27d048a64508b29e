#include "powercut/judge.h"

#include "daemon/daemon_process.h"
#include "support/files.h"

#include <sys/stat.h>

#include <algorithm>
#include <filesystem>
#include <sstream>

namespace kelconf::powercut {

namespace {

// The start sets it when it has scrambled the passwords.
constexpr const char* kSwitch = "private.encrypt_campass";

std::string shortened(const std::string& value) {
    return value.size() <= 12 ? value
                              : value.substr(0, 6) + "... (" + std::to_string(value.size()) + ")";
}

} // namespace

// ---- Promises -----------------------------------------------------------------------------------

Values valuesOf(const std::string& tree) {
    Values values;
    std::istringstream lines(tree);
    for (std::string name, value; std::getline(lines, name) && std::getline(lines, value);) {
        values[name] = value;
    }
    return values;
}

std::string treeDocument(const Values& values) {
    std::string elements;
    for (const auto& [name, value] : values) {
        elements += test::leaf(name.substr(name.find('.') + 1), "string", value);
    }
    return test::treeOf(elements);
}

// What was answered with at least this promise binds from now on.
void Promises::keepAnswered(std::int64_t least) {
    for (auto& [name, parameter] : parameters_) {
        for (std::size_t i = parameter.promised; i < parameter.sent.size(); ++i) {
            if (parameter.sent[i].answered && parameter.sent[i].promise >= least) {
                parameter.promised = i;
            }
        }
    }
}

void Promises::take(const Record& mark) {
    if (mark.op == Op::kTree) {
        trees_.push_back(valuesOf(mark.data));
        for (const auto& [name, value] : trees_.back()) {
            parameters_.try_emplace(name, Parameter{{{value, 0, kNothing}}, 0});
        }
    } else if (mark.op == Op::kSent) {
        parameters_.at(mark.path).sent.push_back({mark.data, mark.file, mark.number});
    } else if (mark.op == Op::kAnswered) {
        for (Sent& sent : parameters_.at(mark.path).sent) {
            sent.answered |= sent.id == mark.file;
        }
        if (mark.number == kStored) {
            keepAnswered(kLater);
        }
    } else if (mark.op == Op::kSettled) {
        keepAnswered(kNothing);
    } else if (mark.op == Op::kEnded) {
        for (auto& [name, parameter] : parameters_) {
            std::ranges::for_each(parameter.sent, [](Sent& sent) { sent.answered = false; });
        }
    }
    if (mark.op >= Op::kSettled) {
        quiet_ = mark.op == Op::kQuiet;
    }
}

void Promises::compare(const Values& served, Failures& found) const {
    for (const auto& [name, parameter] : parameters_) {
        const auto& sent = parameter.sent;
        const auto at = served.find(name);
        const std::string value = at == served.end() ? "missing" : at->second;
        const auto is_it = [&](const Sent& one) { return one.value == value; };
        const auto from = sent.begin() + static_cast<std::ptrdiff_t>(parameter.promised);
        if (std::any_of(from, sent.end(), is_it) || (name == kSwitch && value == "1")) {
            continue;
        }
        const char* kind = name.find("passw") != std::string::npos  ? "password"
                           : is_it(sent.front())                    ? "default"
                           : std::any_of(sent.begin(), from, is_it) ? "older"
                                                                    : "foreign";
        found.try_emplace(kind, name + " is " + shortened(value) + ", promised " +
                                    shortened(from->value));
    }
}

// ---- Starts -------------------------------------------------------------------------------------

std::vector<StoredFile> storedFiles() {
    std::vector<StoredFile> files;
    for (const char* directory : {"/mnt/nand/conf", "/mnt/backup/conf"}) {
        for (const auto& entry : std::filesystem::directory_iterator(directory)) {
            struct stat info {};
            lstat(entry.path().c_str(), &info);
            files.push_back({entry.path(), info.st_ino, test::readFile(entry.path())});
        }
    }
    return files;
}

void putImage(const Image& image) {
    for (const StoredFile& file : storedFiles()) {
        std::filesystem::remove(file.path);
    }
    for (const auto& [path, content] : image.files) {
        test::writeFile(path, content->first);
    }
}

std::string Judge::secondStart(const Values& first, std::size_t trees) {
    std::uint64_t hash = 0; // whatever the order
    for (const StoredFile& file : storedFiles()) {
        hash += std::hash<std::string>{}(file.path + '\n' + file.content);
    }
    const auto [found, fresh] = seconds_.try_emplace({hash, trees});
    if (fresh) {
        found->second = startService();
    }
    const Start& second = found->second;
    if (!second.through || second.log.find("live database sound") == std::string::npos) {
        return "second start: " + second.log;
    }
    return second.values == first ? "" : "second start serves other values";
}

Judge::Outcome Judge::outcomeOf(const Image& image, const std::vector<Values>& trees,
                                bool factory) {
    Outcome outcome;
    const auto note = [&](const char* kind, const std::string& words) {
        if (!words.empty()) {
            outcome.failures[kind] = words;
        }
    };
    test::writeFile("/etc/neutral_tree.xml", treeDocument(trees.back()));
    putImage(image);
    if (factory) {
        note("factory", wrongWithFactory(trees));
        return outcome;
    }
    outcome.first = startService();
    if (!outcome.first.through) {
        note("start", "waits, or ends: " + outcome.first.log);
        return outcome;
    }
    note("sidecar", liveSealed() ? "" : "the live file's does not match after the start");
    note("backup", backupSealed() ? wrongWithBackup() : "");
    note("second", secondStart(outcome.first.values, trees.size()));
    return outcome;
}

Failures Judge::judge(const Image& image, const Promises& promises, bool factory, bool& damaged) {
    const auto [found, fresh] =
        outcomes_.try_emplace({image.hash + (factory ? 1 : 0), promises.trees().size()});
    Outcome& outcome = found->second;
    if (fresh) {
        outcome = outcomeOf(image, promises.trees(), factory);
    }
    damaged = outcome.first.log.find("live database damaged") != std::string::npos;
    Failures failures = outcome.failures;
    if (outcome.first.through) {
        promises.compare(outcome.first.values, failures);
    }
    return failures;
}

} // namespace kelconf::powercut
