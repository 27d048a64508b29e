// Judges disk images: starts the service on each and compares what it serves with what the clients
// were promised.
#pragma once

#include "powercut/disk.h"
#include "powercut/recover.h"

#include <array>
#include <map>
#include <string>
#include <vector>

namespace kelconf::powercut {

// What is wrong with an image, by kind, in words.
using Failures = std::map<std::string, std::string>;
inline constexpr std::array kKinds = {
    "older",    // a value from before an answered one is served
    "default",  // the tree's default instead of an answered one
    "foreign",  // a value that was never sent, or none at all
    "password", // any of these in a password
    "sidecar",  // does not match when the start is through
    "backup",   // its sidecar matches, but it cannot be read
    "second",   // a second start serves other values, or judges its file otherwise than sound
    "start",    // the start ends or waits
    "factory"   // kelconf-init leaves a database that is not sealed, or not a tree's
};

// What may be served, following the marks of a trace.
class Promises {
  public:
    void take(const Record& mark);
    [[nodiscard]] bool quiet() const { return quiet_; } // nothing is promised now
    // All trees so far.
    [[nodiscard]] const std::vector<Values>& trees() const { return trees_; }
    void compare(const Values& served, Failures& found) const;

  private:
    struct Sent {
        std::string value;
        std::uint64_t id;
        std::int64_t promise;
        bool answered = false;
    };
    struct Parameter {
        std::vector<Sent> sent;   // begins with the default
        std::size_t promised = 0; // from this one on, all may be served
    };
    void keepAnswered(std::int64_t least);

    std::map<std::string, Parameter> parameters_;
    std::vector<Values> trees_;
    bool quiet_ = false;
};

// The text of a kTree mark ("NAME\nVALUE\n" each), and the XML of the tree.
Values valuesOf(const std::string& tree);
std::string treeDocument(const Values& values);

// All files below /mnt; and puts those of the image, and no other, there.
std::vector<StoredFile> storedFiles();
void putImage(const Image& image);

class Judge {
  public:
    // `factory`: the image holds the factory database alone. `damaged`: the live file was called
    // so.
    Failures judge(const Image& image, const Promises& promises, bool factory, bool& damaged);

  private:
    struct Outcome {
        Start first;
        Failures failures;
    };
    [[nodiscard]] Outcome outcomeOf(const Image& image, const std::vector<Values>& trees,
                                    bool factory);
    std::string secondStart(const Values& first, std::size_t trees);

    std::map<std::pair<std::uint64_t, std::size_t>, Outcome> outcomes_; // by image and tree
    std::map<std::pair<std::uint64_t, std::size_t>, Start> seconds_;    // by files and tree
};

} // namespace kelconf::powercut
