#include "cli/session/bus_session.h"

#include "cli/output/output.h"

#include <string>
#include <utility>

namespace kelconf::cli {

namespace {

// The bus compares this many bytes of a group's name with those of a parameter.
constexpr std::size_t kGroupBytes = 8;
constexpr double kMilliseconds = 1000;

bool keeps_client = false;
kelbus* kept_client = nullptr;

} // namespace

void CloseClient::operator()(kelbus* client) const noexcept {
    if (keeps_client && kept_client == nullptr) {
        kept_client = client;
    } else {
        kelbus_close(client);
    }
}

void keepClient() {
    keeps_client = true;
}

bool keepsClient() {
    return keeps_client;
}

void dropClient() {
    keeps_client = false;
    kelbus_close(std::exchange(kept_client, nullptr));
}

int openBus(const Options& options, Bus& bus) {
    kelbus* client = std::exchange(kept_client, nullptr);
    const kelbus_error error = client != nullptr ? KELBUS_OK : kelbus_open(&client);
    bus.client.reset(client);
    bus.limit = static_cast<int>(options.request_timeout * kMilliseconds);
    return error == KELBUS_OK ? kDone : saidFailure(bus, error);
}

int exitStatus(kelbus_error error) {
    switch (error) {
    case KELBUS_OK:
        return kDone;
    case KELBUS_NO_SERVICE:
    case KELBUS_TIMEOUT:
        return kNoService;
    case KELBUS_UNKNOWN_NAME:
        return kDifferent;
    case KELBUS_REFUSED:
        return kRefused;
    case KELBUS_BAD_ARGUMENT:
        return kUsage;
    case KELBUS_BROKEN_REPLY:
    case KELBUS_NO_MEMORY:
    case KELBUS_NO_CATALOG:
        break;
    }
    return kBroken;
}

std::string failureText(const Bus& bus, kelbus_error error) {
    const char* words = bus.client == nullptr ? nullptr : kelbus_message(bus.client.get());
    std::string what = words == nullptr || *words == '\0' ? kelbus_strerror(error) : words;
    switch (error) {
    case KELBUS_NO_SERVICE:
        return what + "; start kelconfd, or look with kelctl status";
    case KELBUS_TIMEOUT:
        return what + "; try again, or give it longer with --request-timeout";
    default:
        return what;
    }
}

int saidFailure(const Bus& bus, kelbus_error error) {
    complain(failureText(bus, error));
    return exitStatus(error);
}

std::vector<const char*> cTexts(const std::vector<std::string>& texts) {
    std::vector<const char*> result;
    result.reserve(texts.size());
    for (const std::string& text : texts) {
        result.push_back(text.c_str());
    }
    return result;
}

int fetchListing(const Bus& bus, std::string_view prefix, Values& values) {
    kelbus_values* raw = nullptr;
    kelbus_error error = KELBUS_OK;
    if (prefix.size() < kGroupBytes) {
        error = kelbus_get_all(bus.client.get(), &raw, bus.limit);
    } else { // all that begin alike are of one group: a shorter answer
        const std::string group{prefix};
        const char* name = group.c_str();
        error = kelbus_get_group(bus.client.get(), &name, 1, &raw, bus.limit);
    }
    values.reset(raw);
    return error == KELBUS_OK ? kDone : saidFailure(bus, error);
}

int fetchNamed(const Bus& bus, const std::vector<std::string>& names, Values& values) {
    const std::vector<const char*> texts = cTexts(names);
    kelbus_values* raw = nullptr;
    const kelbus_error error =
        kelbus_get_many(bus.client.get(), texts.data(), texts.size(), &raw, bus.limit);
    values.reset(raw);
    const bool answered = error == KELBUS_OK || (error == KELBUS_UNKNOWN_NAME && raw != nullptr);
    return answered ? kDone : saidFailure(bus, error);
}

} // namespace kelconf::cli
