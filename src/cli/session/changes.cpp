#include "cli/session/changes.h"

#include "catalog/secrets.h"
#include "catalog/value_rules.h"
#include "cli/output/output.h"
#include "cli/output/result.h"
#include "cli/output/shown_text.h"

#include <unistd.h>

#include <algorithm>
#include <csignal>
#include <optional>

namespace kelconf::cli {

namespace {

constexpr std::size_t kLongestRequest = std::size_t{16} << 20U; // bytes; the service takes no more
constexpr std::size_t kFrame = 4096;                            // bytes around a text in a request

// Bytes that a character may take in a request: the references of XML at their longest.
std::size_t carriedBytes(char32_t code) {
    constexpr std::size_t kLongestReference = 10;
    constexpr std::size_t kLongestEntity = 6;
    if (code >= 0x80U) {
        return kLongestReference;
    }
    const bool marked = code == '<' || code == '>' || code == '&' || code == '"' || code < 0x20U;
    return marked ? kLongestEntity : 1;
}

bool excludedByXml(char32_t code) {
    return (code < 0x20U && code != '\t' && code != '\n' && code != '\r') || code == 0xFFFEU ||
           code == 0xFFFFU;
}

std::string hexOf(char32_t code) {
    constexpr std::string_view kDigits = "0123456789ABCDEF";
    std::string text = "U+";
    for (int shift = 12; shift >= 0; shift -= 4) {
        text += kDigits[(code >> static_cast<unsigned>(shift)) & 15U];
    }
    return text;
}

// ---- Allowed values -----------------------------------------------------------------------------

bool sayIf(const Change& change, const std::string& reason) {
    if (!reason.empty()) {
        complain(change.where + change.name + ": " + reason);
    }
    return !reason.empty();
}

std::string brokenRuleOf(const Change& change, Catalog& catalog) {
    const auto parameter = catalog.find(change.name);
    return parameter ? brokenRule(ruleOf(*parameter), change.value) : std::string{};
}

// ---- Batches ------------------------------------------------------------------------------------

constexpr std::size_t kMostValues = 200;
constexpr std::size_t kMostBytes = std::size_t{1} << 20U;

std::size_t batchEnd(const std::vector<Change>& changes, std::size_t from) {
    std::size_t bytes = 0;
    std::size_t end = from;
    while (end < changes.size() && end - from < kMostValues) {
        bytes += changes[end].name.size() + changes[end].value.size();
        if (bytes > kMostBytes && end > from) {
            break;
        }
        ++end;
    }
    return end;
}

// Ctrl-C and its like wait while a request is under way, and are asked for in between.
sigset_t stopSignals() {
    sigset_t set;
    sigemptyset(&set);
    for (const int number : {SIGINT, SIGTERM, SIGHUP}) {
        sigaddset(&set, number);
    }
    return set;
}

// 0 when none waits.
int waitingSignal() {
    sigset_t waiting;
    sigpending(&waiting);
    for (const int number : {SIGINT, SIGTERM, SIGHUP}) {
        if (sigismember(&waiting, number) == 1) {
            return number;
        }
    }
    return 0;
}

class Progress {
  public:
    explicit Progress(std::size_t total) : total_(total) {
        shown_ = total > kMostValues && onTerminal(STDERR_FILENO) && !dumbTerminal();
    }
    ~Progress() { clear(); }
    Progress(const Progress&) = delete;
    Progress& operator=(const Progress&) = delete;
    Progress(Progress&&) = delete;
    Progress& operator=(Progress&&) = delete;

    void show(std::size_t done) const {
        if (shown_) {
            toStandardError("\r" + std::to_string(done) + " of " + std::to_string(total_) +
                            " values set");
        }
    }
    void clear() {
        if (shown_) {
            toStandardError("\r\x1b[K");
            shown_ = false;
        }
    }

  private:
    std::size_t total_;
    bool shown_ = false;
};

std::string howFar(const std::vector<Change>& changes, std::size_t done) {
    return std::to_string(done) + " of " + std::to_string(changes.size()) + " values are set";
}

// What is known of a batch whose request failed.
std::string fateOf(kelbus_error error, const std::vector<Change>& changes, std::size_t from,
                   std::size_t end) {
    std::string first = "the first that is not is " + changes[from].name;
    if (error == KELBUS_BAD_ARGUMENT || error == KELBUS_NO_MEMORY) {
        return first;
    }
    return "of the next " + std::to_string(end - from) + " (" + changes[from].name + " to " +
           changes[end - 1].name + ") it is not known; none after them is set";
}

} // namespace

std::string notCarried(std::string_view text) {
    std::size_t bytes = kFrame;
    while (!text.empty()) {
        char32_t code = 0;
        const std::size_t length = utf8Character(text, code);
        if (length == 0) {
            return "is not valid UTF-8";
        }
        if (excludedByXml(code)) {
            return "holds the control character " + hexOf(code) + ", which the bus cannot carry";
        }
        bytes += carriedBytes(code);
        text.remove_prefix(length);
    }
    return bytes > kLongestRequest ? "is too long for a request (16 MiB)" : std::string{};
}

bool allCarried(const std::vector<Change>& changes) {
    bool carried = true;
    for (const Change& change : changes) {
        std::string reason = notCarried(change.name);
        if (!reason.empty()) {
            reason.insert(0, "the name ");
        } else if (reason = notCarried(change.value); !reason.empty()) {
            reason.insert(0, "the value ");
        }
        carried = !sayIf(change, reason) && carried;
    }
    return carried;
}

bool allAllowed(const std::vector<Change>& changes, bool force) {
    bool allowed = true;
    for (const Change& change : changes) {
        if (cutWhenStored(change.name, change.value)) {
            sayIf(change, force ? std::string{"warning: "} + kCutWhenStored
                                : std::string{kCutWhenStored} + "; --force sets it all the same");
            allowed = force && allowed;
        }
    }
    if (force || changes.empty()) {
        return allowed;
    }
    Catalog catalog;
    for (const Change& change : changes) {
        const std::string reason = catalog ? brokenRuleOf(change, catalog) : "";
        allowed = !sayIf(change, reason.empty() ? "" : reason + "; --force sets it all the same") &&
                  allowed;
    }
    if (!catalog.problem().empty()) {
        complain("values not checked against range, step and options: " + catalog.problem());
    }
    return allowed;
}

kelbus_error sendChanges(const Bus& bus, std::span<const Change> changes, kelbus_kind kind) {
    std::vector<kelbus_parameter> parameters;
    parameters.reserve(changes.size());
    for (const Change& change : changes) {
        parameters.push_back({change.name.c_str(), change.value.c_str()});
    }
    const kelbus_error error =
        kelbus_set_many(bus.client.get(), parameters.data(), parameters.size(), kind, bus.limit);
    for (const Change& change : changes) {
        if (error == KELBUS_OK) {
            noteSet(change.name, change.value);
        }
    }
    return error;
}

int applyChanges(const Bus& bus, const std::vector<Change>& changes, kelbus_kind kind,
                 const char* doing) {
    const sigset_t signals = stopSignals();
    sigset_t before;
    sigprocmask(SIG_BLOCK, &signals, &before);
    Progress progress{changes.size()};
    std::size_t done = 0;
    while (done < changes.size()) {
        if (const int number = waitingSignal(); number != 0) {
            progress.clear();
            complain(std::string{doing} + " interrupted: " + howFar(changes, done) +
                     "; the first that is not is " + changes[done].name);
            constexpr int kBySignal = 128;
            return kBySignal + number; // still blocked: the process ends by itself
        }
        const std::size_t end = batchEnd(changes, done);
        const kelbus_error error =
            sendChanges(bus, std::span{changes}.subspan(done, end - done), kind);
        if (error != KELBUS_OK) {
            progress.clear();
            complain(std::string{doing} + " stopped: " + failureText(bus, error));
            complain(howFar(changes, done) + "; " + fateOf(error, changes, done, end));
            return error == KELBUS_UNKNOWN_NAME ? kRefused : exitStatus(error);
        }
        done = end;
        progress.show(done);
    }
    sigprocmask(SIG_SETMASK, &before, nullptr);
    return kDone;
}

kelbus_kind kindOf(const Options& options) {
    if (options.direct) {
        return KELBUS_SET_DIRECT;
    }
    return options.no_db ? KELBUS_SET_NO_DB : KELBUS_SET;
}

} // namespace kelconf::cli
