// The live values of what the web may know of, kept up to date by the watch: reading through the
// web costs the bus nothing, and a count of changes says whether a list is still the same.
#pragma once

#include "web/definitions.h"

#include <cstdint>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace kelconf::web {

// Definitions and values go by the same places. A definition whose parameter is not in the service
// has no value: it does not exist.
struct Content {
    std::shared_ptr<const Definitions> definitions = std::make_shared<const Definitions>();
    std::vector<std::optional<std::string>> values;
    std::uint64_t changes = 0; // grows with each change of a value, of the parameters, of `up`
    bool up = false;           // the service answers; otherwise the values are old
    std::size_t live = 0;      // parameters in the service, those unknown to the web too
};

// What an event tells.
struct Change {
    std::string name;
    std::string previous;
    std::string value;
    bool secret = false;
};

// Any thread.
class Mirror {
  public:
    // Calls read(content) under the lock: briefly.
    template <typename Read>
    auto read(Read read) const {
        const std::lock_guard lock{mutex_};
        return read(content_);
    }
    // Takes a new value. Nothing when the name is not for the web or has that value already.
    std::optional<Change> apply(std::string_view name, std::string_view value);
    // Takes everything anew; the service is up.
    void load(Content content);
    // The service does not answer. False when that was known.
    bool goDown();

  private:
    mutable std::mutex mutex_;
    Content content_;
};

// A value by its name; null when the web knows none. The content's lock is held.
const std::string* valueOf(const Content& content, std::string_view name, std::size_t& place);

// True when the name begins with one of the prefixes, or there is none.
bool isWanted(std::string_view name, const std::vector<std::string>& prefixes);

} // namespace kelconf::web
