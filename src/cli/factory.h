// The factory defaults and attributes of the parameters, out of /mnt/nand/conf/default.db.
//
// Read without a lock and without a look at journals (SQLite's immutable mode), so that reading
// never disturbs whoever builds the file. A file that is being built may therefore read as damaged
// or incomplete; factorySound tells.
#pragma once

#include "db/sqlite_handle.h"

#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace kelconf::cli {

struct FactoryRow {
    std::string name;
    std::string value;
    std::string type;
    std::string range;
    std::string step;
    std::string options;
    std::string access; // from the web pages
};

class Factory {
  public:
    // Not open when the file is missing or not readable.
    Factory();

    explicit operator bool() const { return open_; }
    // Why it is not open, or why reading failed.
    [[nodiscard]] const std::string& problem() const { return problem_; }

    // Nothing for an unknown name, and after a failure.
    std::optional<FactoryRow> find(std::string_view name);
    // Every row, by name. False when the scan failed.
    bool forEach(const std::function<void(FactoryRow&&)>& visit);
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
bool factorySound();

// Values of this type are states of the device.
inline constexpr const char* kRealtime = "realtime";

// True for what is no setting: realtime states, and the mark of the service that passwords are
// scrambled. These are in no diff, no export and no reset of many.
bool isState(std::string_view name, std::string_view type);

} // namespace kelconf::cli
