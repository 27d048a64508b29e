#include "powercut/disk.h"

#include <algorithm>
#include <iterator>
#include <limits>
#include <random>
#include <set>
#include <utility>

namespace kelconf::powercut {

namespace {

constexpr std::size_t kBlock = 4096;
constexpr std::size_t kSize = std::numeric_limits<std::size_t>::max(); // in the place of a block
constexpr std::size_t kMadeAtOnce = 2000; // contents that are kept for the next images
constexpr long kNoCut = std::numeric_limits<long>::max();

std::string blockOf(const std::string& content, std::size_t index) {
    std::string block = content.substr(std::min(index * kBlock, content.size()), kBlock);
    block.resize(kBlock);
    return block;
}

std::size_t offsetOf(const Record& change) {
    return static_cast<std::size_t>(change.number);
}

// Also of a truncation: its new size.
std::size_t endOf(const Record& change) {
    return offsetOf(change) + change.data.size();
}

bool truncates(const Record& change) {
    return change.op == Op::kTruncate;
}

void overwrite(std::string& content, std::size_t offset, const std::string& bytes) {
    content.resize(std::max(content.size(), offset + bytes.size()));
    content.replace(offset, bytes.size(), bytes);
}

void change(std::string& content, const Record& record) {
    if (truncates(record)) {
        content.resize(endOf(record));
    } else {
        overwrite(content, offsetOf(record), record.data);
    }
}

std::string baseOf(const std::string& path) {
    return path.substr(path.rfind('/') + 1);
}

std::uint64_t mix(std::uint64_t hash, std::uint64_t more) {
    hash = (hash ^ more) * 0x9E3779B97F4A7C15U;
    return hash ^ (hash >> 29U);
}

} // namespace

// ---- Following the trace ------------------------------------------------------------------------

Disk::Disk(Model model, const std::vector<StoredFile>& files) : model_(model) {
    for (const StoredFile& file : files) {
        files_[file.file] = {file.path, file.content, file.content, {}, 0};
        durable_names_[file.path] = names_[file.path] = file.file;
    }
}

void Disk::rename(Names& names, const Record& change) {
    if (change.op == Op::kUnlink || change.op == Op::kRename) {
        const auto found = names.find(change.op == Op::kUnlink ? change.path : change.data);
        if (found != names.end() && found->second == change.file) {
            names.erase(found);
        }
    }
    if (change.op != Op::kUnlink) {
        names[change.path] = change.file;
    }
}

void Disk::flushFile(std::uint64_t number) {
    File& file = files_[number];
    file.durable = file.now;
    file.pending.clear();
    ++file.epoch;
}

void Disk::flushNames(const std::string& directory) {
    std::erase_if(pending_names_, [&](const Change& change) {
        const std::string& path = change.record.path;
        const bool here = path.substr(0, path.rfind('/')) == directory;
        if (here) {
            rename(durable_names_, change.record);
        }
        return here;
    });
}

// All names and sizes become durable; data stay on their way.
void Disk::flushOrder() {
    durable_names_ = names_;
    pending_names_.clear();
    for (auto& [number, file] : files_) {
        for (const Change& change : file.pending) {
            const std::size_t end = endOf(change.record);
            file.durable.resize(truncates(change.record) ? end
                                                         : std::max(file.durable.size(), end));
        }
        std::vector<Change> writes; // what no truncation has cut off
        for (Change& change : file.pending) {
            if (truncates(change.record)) {
                std::erase_if(writes, [&](const Change& write) {
                    return offsetOf(write.record) >= endOf(change.record);
                });
            } else {
                writes.push_back(std::move(change));
            }
        }
        file.pending = std::move(writes);
        ++file.epoch;
    }
}

bool Disk::waitsForOrder(std::uint64_t number) const {
    const File& file = files_.at(number);
    return std::ranges::any_of(file.pending,
                               [&](const Change& one) {
                                   return truncates(one.record) ||
                                          endOf(one.record) > file.durable.size();
                               }) ||
           std::ranges::any_of(pending_names_,
                               [&](const Change& one) { return one.record.file == number; });
}

void Disk::apply(const Record& record, bool ours) {
    ++at_;
    const bool ordered = model_ == Model::kOrdered;
    if (!ours || record.op >= Op::kSent) {
        return;
    }
    if (record.op == Op::kSync) {
        flushOrder();
        for (const auto& [number, file] : files_) {
            flushFile(number);
        }
    } else if (record.op == Op::kFlushNames) {
        ordered ? flushOrder() : flushNames(record.path);
    } else if (record.op == Op::kFlush || record.op == Op::kFlushData) {
        if (ordered && (record.op == Op::kFlush || waitsForOrder(record.file))) {
            flushOrder();
        }
        flushFile(record.file);
    } else if (record.op == Op::kWrite || record.op == Op::kTruncate) {
        File& file = files_[record.file];
        file.pending.push_back({at_, record});
        change(file.now, record);
    } else {
        pending_names_.push_back({at_, record});
        rename(names_, record);
        files_[record.file].name = record.path;
    }
}

std::map<std::string, std::string> Disk::present() const {
    std::map<std::string, std::string> files;
    for (const auto& [path, number] : names_) {
        files[path] = files_.at(number).now;
    }
    return files;
}

// ---- What can be lost ---------------------------------------------------------------------------

// The size of a file, then its unflushed blocks. Ordered: the size is that of record `cut`; a
// truncation up to there has happened, a later one has not, and nothing that was written after it
// can be seen.
std::vector<Disk::Atom> Disk::atomsOf(std::uint64_t number, long cut) const {
    const bool ordered = model_ == Model::kOrdered;
    const File& file = files_.at(number);
    std::vector<Atom> atoms{{nullptr, number, kSize, {{0, file.durable.size(), ""}}}};
    std::map<std::size_t, std::vector<Version>> blocks;
    std::set<std::size_t> closed;
    std::string content = file.durable;
    for (const auto& [at, record] : file.pending) {
        const std::size_t before = content.size();
        change(content, record);
        const std::size_t end = truncates(record) ? before : endOf(record);
        for (std::size_t i = offsetOf(record) / kBlock; i * kBlock < end; ++i) {
            auto& versions = blocks[i];
            if (versions.empty()) {
                versions.push_back({0, 0, blockOf(file.durable, i)});
            }
            if (ordered && truncates(record)) {
                at <= cut ? versions.clear() : void(closed.insert(i));
            }
            std::string bytes = blockOf(content, i);
            if (!closed.contains(i) && (versions.empty() || versions.back().bytes != bytes)) {
                versions.push_back({at, 0, std::move(bytes)});
            }
        }
        if (content.size() != before && at <= cut) {
            atoms[0].versions.push_back({at, content.size(), ""});
        }
    }
    if (ordered) {
        atoms[0].versions = {atoms[0].versions.back()};
    }
    for (auto& [i, versions] : blocks) {
        atoms.push_back({nullptr, number, i, std::move(versions)});
    }
    return atoms;
}

Image Disk::imageOf(Names names, const std::vector<Atom>& atoms, const Choice& choice) {
    struct Chosen {
        std::string key;
        std::size_t size;
        std::vector<std::pair<std::size_t, const std::string*>> blocks;
    };
    std::map<std::uint64_t, Chosen> chosen;
    for (std::size_t i = 0; i < atoms.size(); ++i) {
        const Atom& atom = atoms[i];
        const Version& version = atom.versions[choice[i]];
        if (atom.name != nullptr && choice[i] == 1) {
            rename(names, atom.name->record);
        } else if (atom.name == nullptr) {
            Chosen& file = chosen[atom.file];
            file.key += " " + std::to_string(atom.block) + ":" + std::to_string(version.at);
            if (atom.block == kSize) {
                file.size = version.size;
            } else {
                file.blocks.emplace_back(atom.block, &version.bytes);
            }
        }
    }
    if (made_.size() > kMadeAtOnce) {
        made_.clear();
    }
    Image image;
    for (const auto& [path, number] : names) {
        const File& file = files_.at(number);
        const Chosen& now =
            chosen.try_emplace(number, Chosen{"", file.durable.size(), {}}).first->second;
        auto& content = made_[std::to_string(number) + " " + std::to_string(file.epoch) + now.key];
        if (!content) {
            std::string bytes = file.durable;
            for (const auto& [block, version] : now.blocks) {
                overwrite(bytes, block * kBlock, *version);
            }
            bytes.resize(now.size);
            const std::uint64_t hash = std::hash<std::string>{}(bytes);
            content = std::make_shared<const Content>(std::move(bytes), hash);
        }
        image.files[path] = content;
        image.hash = mix(mix(image.hash, std::hash<std::string>{}(path)), content->second);
    }
    return image;
}

std::string Disk::lostOf(const std::vector<Atom>& atoms, const Choice& choice, long cut) const {
    std::string text;
    for (std::size_t i = 0; i < atoms.size(); ++i) {
        const Atom& atom = atoms[i];
        if (choice[i] + 1 == atom.versions.size()) {
            continue;
        }
        text += atom.name != nullptr  ? "name of " + baseOf(atom.name->record.path)
                : atom.block == kSize ? "size of " + baseOf(files_.at(atom.file).name)
                                      : "block " + std::to_string(atom.block) + " of " +
                                            baseOf(files_.at(atom.file).name);
        text += (atom.name != nullptr ? " #" + std::to_string(atom.name->at)
                                      : " since #" + std::to_string(atom.versions[choice[i]].at)) +
                ", ";
    }
    return (text.empty() ? "nothing" : text.substr(0, text.size() - 2)) +
           (cut == kNoCut ? "" : ", and all names and sizes since #" + std::to_string(cut));
}

// Ordered: with these names and the sizes as of record `cut`. Loose: from these names on.
double Disk::eachOf(const Names& names, long cut, std::size_t most, const Visit& visit) {
    std::set<std::uint64_t> named;
    for (const auto& [path, number] : names) {
        named.insert(number);
    }
    std::vector<Atom> atoms;
    for (const Change& change : pending_names_) {
        if (cut == kNoCut) {
            named.insert(change.record.file);
            atoms.push_back({&change, 0, 0, {{0, 0, ""}, {change.at, 0, ""}}});
        }
    }
    for (const std::uint64_t number : named) {
        std::ranges::move(atomsOf(number, cut), std::back_inserter(atoms));
    }
    Choice choices;
    std::ranges::transform(atoms, std::back_inserter(choices),
                           [](const Atom& atom) { return atom.versions.size(); });
    return eachChoice(choices, most, [&](const Choice& choice) {
        visit(imageOf(names, atoms, choice), [&] { return lostOf(atoms, choice, cut); });
    });
}

double Disk::eachImage(std::size_t most, const Visit& visit) {
    if (model_ == Model::kLoose) {
        return eachOf(durable_names_, kNoCut, most, visit);
    }
    std::set<long, std::greater<>> cuts{0}; // the latest first: nothing is lost
    for (const Change& change : pending_names_) {
        cuts.insert(change.at);
    }
    for (const auto& [number, file] : files_) {
        std::size_t size = file.durable.size();
        for (const auto& [at, record] : file.pending) {
            const std::size_t end =
                truncates(record) ? endOf(record) : std::max(size, endOf(record));
            if (std::exchange(size, end) != end) {
                cuts.insert(at);
            }
        }
    }
    double ways = 0;
    for (const long cut : cuts) {
        Names names = durable_names_;
        for (const auto& [at, record] : pending_names_) {
            if (at <= cut) {
                rename(names, record);
            }
        }
        ways += eachOf(names, cut, most, visit);
    }
    return ways;
}

double eachChoice(const std::vector<std::size_t>& choices, std::size_t most,
                  const std::function<void(const std::vector<std::size_t>&)>& visit) {
    const std::size_t count = choices.size();
    const std::vector<std::size_t> lost(count, 0);
    std::vector<std::size_t> kept;
    double ways = 1;
    for (const std::size_t n : choices) {
        kept.push_back(n - 1);
        ways *= static_cast<double>(n);
    }
    std::vector<std::vector<std::size_t>> chosen{kept};
    if (ways <= static_cast<double>(most)) {
        for (std::size_t i = 0; i < count;) {
            auto next = chosen.back(); // counts down
            for (i = 0; i < count && next[i] == 0; ++i) {
                next[i] = kept[i];
            }
            if (i < count) {
                --next[i];
                chosen.push_back(std::move(next));
            }
        }
    } else {
        chosen.push_back(lost);
        for (const auto& others : {kept, lost}) {
            for (std::size_t i = 0; i < count; ++i) {
                for (std::size_t version = choices[i]; version-- > 0;) {
                    auto single = others;
                    if (std::exchange(single[i], version) != version) {
                        chosen.push_back(std::move(single));
                    }
                }
            }
        }
        for (std::size_t i = 1; i < count; ++i) {
            const auto split = static_cast<std::ptrdiff_t>(i);
            std::fill_n(chosen.emplace_back(kept).begin(), split, 0);
            std::fill_n(chosen.emplace_back(kept).rbegin(), split, 0);
        }
        // By turns two things lost, and anything.
        std::mt19937_64 random{2011}; // NOLINT: the same selection in every run
        while (chosen.size() < most) {
            auto drawn = kept;
            for (std::size_t i = 0; i < (chosen.size() % 2 == 0 ? 2 : count); ++i) {
                const std::size_t which = chosen.size() % 2 == 0 ? random() % count : i;
                drawn[which] = random() % choices[which];
            }
            chosen.push_back(std::move(drawn));
        }
        chosen.resize(most);
    }
    for (const auto& choice : chosen) {
        visit(choice);
    }
    return ways;
}

} // namespace kelconf::powercut
