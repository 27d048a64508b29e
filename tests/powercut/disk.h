// What a power cut can leave of files that were being written.
//
// A Disk follows a trace (trace.h) and knows what is on the medium for sure and what is only on its
// way. Data are lost by blocks of 4 KiB: each unflushed block may be there as it was flushed last
// or as any write since has left it; one that was never written reads as zeros. On names and sizes
// two models differ:
//   ordered  they arrive in the order in which they were changed; fsync of any file or directory
//            brings all earlier ones, fdatasync of a file too when its own size or name is among
//            them
//   loose    each arrives or not, independently; fsync and fdatasync bring the file's data and
//            size alone, a name is there for sure by fsync of its directory. The letter of POSIX.
// A rename is one step in both; sync brings everything. One thread.
#pragma once

#include "powercut/trace.h"

#include <functional>
#include <map>
#include <memory>
#include <string>
#include <vector>

namespace kelconf::powercut {

enum class Model { kOrdered, kLoose };

using Content = std::pair<std::string, std::uint64_t>; // bytes and their hash
struct Image {
    std::map<std::string, std::shared_ptr<const Content>> files; // by path
    std::uint64_t hash = 0;                                      // of paths and contents
};

class Disk {
  public:
    // The files of the starting state are all flushed.
    Disk(Model model, const std::vector<StoredFile>& files);
    // The next record of the trace. Marks do nothing; `ours`: false passes over another's.
    void apply(const Record& record, bool ours = true);
    // Without a cut: what the programs see.
    [[nodiscard]] std::map<std::string, std::string> present() const;

    // Calls `visit` with images that a cut now can leave: all of them where there are at most
    // `most`; else those in which all, nothing, one thing or a prefix is lost or alone survives,
    // and others drawn with a fixed seed, until there are `most` (ordered: for each prefix of the
    // names and sizes). The first lacks nothing; one image may come several times. `lost` says what
    // the image lacks, while `visit` runs. Returns how many ways there are.
    using Lost = std::function<std::string()>;
    using Visit = std::function<void(const Image&, const Lost&)>;
    double eachImage(std::size_t most, const Visit& visit);

  private:
    using Names = std::map<std::string, std::uint64_t>;
    using Choice = std::vector<std::size_t>;
    struct Change {
        long at; // number of the record
        Record record;
    };
    struct File {
        std::string name; // its last one, for the reader
        std::string durable, now;
        std::vector<Change> pending;
        long epoch = 0; // counts what became durable
    };
    struct Version {
        long at; // 0: durable
        std::size_t size;
        std::string bytes;
    };
    // What may be lost on its own, from the oldest version to the newest.
    struct Atom {
        const Change* name; // a change of names, of two versions
        std::uint64_t file; // else
        std::size_t block;  // of it, or kSize
        std::vector<Version> versions;
    };

    static void rename(Names& names, const Record& change);
    void flushFile(std::uint64_t number);
    void flushNames(const std::string& directory);
    void flushOrder();
    [[nodiscard]] bool waitsForOrder(std::uint64_t number) const;
    [[nodiscard]] std::vector<Atom> atomsOf(std::uint64_t number, long cut) const;
    double eachOf(const Names& names, long cut, std::size_t most, const Visit& visit);
    Image imageOf(Names names, const std::vector<Atom>& atoms, const Choice& choice);
    [[nodiscard]] std::string lostOf(const std::vector<Atom>& atoms, const Choice& choice,
                                     long cut) const;

    Model model_;
    long at_ = 0;
    std::map<std::uint64_t, File> files_;
    Names durable_names_, names_;
    std::vector<Change> pending_names_;
    std::map<std::string, std::shared_ptr<const Content>> made_; // by their choices
};

// Calls `visit` with vectors of choices, each below its number in `choices`: see Disk::eachImage.
// How many there are.
double eachChoice(const std::vector<std::size_t>& choices, std::size_t most,
                  const std::function<void(const std::vector<std::size_t>&)>& visit);

} // namespace kelconf::powercut
