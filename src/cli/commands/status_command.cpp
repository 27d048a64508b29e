// status: the service and its files, at a glance.

#include "cli/commands/commands.h"
#include "cli/output/listing.h"
#include "cli/output/output.h"
#include "cli/output/shown_text.h"
#include "cli/session/bus_session.h"
#include "cli/session/store_state.h"
#include "paths.h"

#include <algorithm>
#include <array>
#include <chrono>
#include <thread>

namespace kelconf::cli {

namespace {

constexpr std::array<StoreFile, 3> kFiles = {
    {{paths::kDefaultDb, paths::kDefaultDbMd5, nullptr, paths::kDefaultDbJournal, "CONFIGDEFAULT"},
     {paths::kLiveDb, paths::kLiveDbMd5, paths::kLiveDbSeal, paths::kLiveDbJournal, "CONFIG"},
     {paths::kBackupDb, paths::kBackupDbMd5, nullptr, nullptr, "CONFIG"}}};

struct Service {
    std::string words;           // "up", or why not
    const char* word = "failed"; // in one: "up", "down", "silent" or "failed"
    std::size_t parameters = 0;
    int status = kDone;
};

Service askService(const Options& options) {
    Bus bus;
    Service service;
    if (service.status = openBus(options, bus); service.status != kDone) {
        service.words = "cannot be asked";
        return service;
    }
    kelbus_values* raw = nullptr;
    const kelbus_error error = kelbus_get_all(bus.client.get(), &raw, bus.limit);
    const Values values = ownedValues(raw);
    service.status = exitStatus(error);
    if (error == KELBUS_OK) {
        service.words = service.word = "up";
        service.parameters = values->count;
    } else if (error == KELBUS_NO_SERVICE) {
        service.words = service.word = "down";
    } else {
        service.words = kelbus_strerror(error);
        service.word = error == KELBUS_TIMEOUT ? "silent" : "failed";
    }
    return service;
}

// Asks again, for as long as --wait says, until the service is up.
Service awaitService(const Options& options) {
    constexpr std::chrono::milliseconds kPause{50};
    const auto end =
        std::chrono::steady_clock::now() + std::chrono::duration<double>{options.watch_timeout};
    Service service = askService(options);
    while (service.status == kNoService && std::chrono::steady_clock::now() < end) {
        std::this_thread::sleep_for(kPause);
        service = askService(options);
    }
    return service;
}

std::string wordsOf(const StoreState& state) {
    return state.rows == 0 ? state.words
                           : state.words + ", " + std::to_string(state.rows) + " parameters";
}

void printJsonStatus(const Service& service, const std::array<StoreState, kFiles.size()>& states) {
    std::string object = "{";
    addMember(object, "service", jsonText(service.word));
    addMember(object, "parameters", std::to_string(service.parameters));
    std::string files;
    for (std::size_t i = 0; i < kFiles.size(); ++i) {
        std::string file = "{";
        addMember(file, "path", jsonText(kFiles[i].path));
        addMember(file, "in_order", states[i].in_order ? "true" : "false");
        addMember(file, "state", jsonText(states[i].word));
        addMember(file, "reason", jsonText(states[i].words));
        addMember(file, "parameters", std::to_string(states[i].rows));
        files.append(files.empty() ? "" : ",").append(file).append("}");
    }
    addMember(object, "files", "[" + files + "]");
    out(object + "}\n");
}

} // namespace

int runStatus(const Options& options) {
    const Service service = awaitService(options);
    std::array<StoreState, kFiles.size()> states;
    bool in_order = true;
    std::array<std::string, kFiles.size()> words;
    const std::string parameters = std::to_string(service.parameters);
    std::vector<Row> rows{{"service", service.words}};
    if (service.status == kDone) {
        rows.push_back({"parameters", parameters});
    }
    for (std::size_t i = 0; i < kFiles.size(); ++i) {
        states[i] = judgeStore(kFiles[i], service.status == kDone);
        words[i] = wordsOf(states[i]);
        in_order = in_order && states[i].in_order;
        rows.push_back({kFiles[i].path, words[i]});
    }
    if (options.json) {
        printJsonStatus(service, states);
    } else {
        printRows(options, rows);
    }
    // Before the first start of the service its files are missing rightly.
    const bool harmed = std::any_of(states.begin(), states.end(), [](const StoreState& state) {
        return !state.in_order && state.words != "missing";
    });
    if (service.status == kNoService && harmed) {
        return kDownAndBroken;
    }
    return service.status != kDone || in_order ? service.status : int{kBroken};
}

} // namespace kelconf::cli
