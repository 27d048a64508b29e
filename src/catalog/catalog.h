// The parameters as the factory has set them, out of /mnt/nand/conf/default.db.
//
// Read without a lock and without a look at journals (SQLite's immutable mode), so that reading
// never disturbs whoever builds the file. A file that is being built may therefore read as damaged
// or incomplete; catalogSound tells.
#pragma once

#include "catalog/parameter.h"
#include "db/sqlite_handle.h"

#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace kelconf {

// An open catalog holds one connection; one thread.
class Catalog {
  public:
    // Not open when the file is missing or not readable.
    Catalog();

    explicit operator bool() const { return open_; }
    // Why it is not open, or why reading failed.
    [[nodiscard]] const std::string& problem() const { return problem_; }

    // Nothing for an unknown name, and after a failure.
    std::optional<Parameter> find(std::string_view name);
    // Every parameter, by name. False when the scan failed.
    bool forEach(const std::function<void(Parameter&&)>& visit);
    // The names of the given type word.
    std::vector<std::string> namesOfType(const char* type);

  private:
    void fail();

    Database database_;
    Statement by_name_; // before the connection is closed
    bool open_ = false;
    std::string problem_;
};

// True when default.db is what its sidecar was made of.
bool catalogSound();

} // namespace kelconf
