#include "cli/session/bus_session.h"

#include "cli/output/output.h"

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <span>
#include <string>
#include <utility>

namespace kelconf::cli {

namespace {

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
    case KELBUS_NOT_IN_VIEW:
    case KELBUS_TOO_SMALL:
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

Values ownedValues(kelbus_values* raw) {
    return Values{raw, kelbus_values_free};
}

namespace {

kelbus_view* view() {
    struct CloseView {
        void operator()(kelbus_view* opened) const noexcept { kelbus_view_close(opened); }
    };
    static const std::unique_ptr<kelbus_view, CloseView> opened{[] {
        kelbus_view* fresh = nullptr;
        kelbus_view_open(&fresh); // null without memory, and a view that is null has nothing
        return fresh;
    }()};
    return opened.get();
}

// A listing out of the view: its texts one behind the other, each ended by a zero byte.
struct Listing : kelbus_values {
    std::span<const std::string> groups; // whose members it has; of none: all
    std::string texts;
    std::vector<std::pair<std::size_t, std::size_t>> places; // of a name and its value
    std::vector<kelbus_parameter> parameters;
};
constexpr std::size_t kLeftToBus = std::string::npos;

bool add(void* context, const char* name, const char* value, std::size_t length) {
    auto& listing = *static_cast<Listing*>(context);
    const auto has = [&](const std::string& group) {
        return std::strncmp(name, group.c_str(), kGroupBytes) == 0;
    };
    if (!listing.groups.empty() && std::ranges::none_of(listing.groups, has)) {
        return true;
    }
    const std::size_t name_at = listing.texts.size();
    listing.texts.append(name).push_back('\0');
    listing.places.emplace_back(name_at, value == nullptr ? kLeftToBus : listing.texts.size());
    if (value != nullptr) {
        listing.texts.append(value, length + 1);
    }
    return true;
}

// False when values changed between the first and the last.
bool readAtOnce(const std::string& prefix, Listing& listing) {
    constexpr int kAttempts = 3;
    for (int attempt = 0; attempt < kAttempts; ++attempt) {
        listing.texts.clear();
        listing.places.clear();
        const std::uint64_t before = kelbus_view_changes(view());
        if (before == 0 || kelbus_view_visit(view(), prefix.c_str(), add, &listing) != KELBUS_OK) {
            return false;
        }
        if (kelbus_view_changes(view()) == before) {
            return true;
        }
    }
    return false;
}

bool readHidden(const Bus& bus, Listing& listing) {
    std::vector<std::string> names;
    for (const auto& [name, value] : listing.places) {
        if (value == kLeftToBus) {
            names.emplace_back(listing.texts.c_str() + name);
        }
    }
    if (names.empty()) {
        return true;
    }
    const std::vector<const char*> texts = cTexts(names);
    kelbus_values* raw = nullptr;
    const bool read =
        kelbus_get_many(bus.client.get(), texts.data(), texts.size(), &raw, bus.limit) == KELBUS_OK;
    const Values values = ownedValues(raw);
    std::size_t at = 0;
    for (auto& [name, value] : listing.places) {
        if (read && value == kLeftToBus) {
            value = listing.texts.size();
            listing.texts.append(values->items[at++].value).push_back('\0');
        }
    }
    return read;
}

// Null where the bus is to be asked for all.
Values listingOfView(const Bus& bus, const std::string& prefix,
                     std::span<const std::string> groups) {
    auto listing = std::make_shared<Listing>();
    listing->groups = groups;
    if (!readAtOnce(prefix, *listing) || !readHidden(bus, *listing)) {
        return {};
    }
    const char* texts = listing->texts.data();
    listing->parameters.reserve(listing->places.size());
    for (const auto& [name, value] : listing->places) {
        listing->parameters.push_back({texts + name, texts + value});
    }
    listing->count = listing->parameters.size();
    listing->items = listing->parameters.data();
    return listing;
}

} // namespace

int fetchListing(const Bus& bus, std::string_view prefix, Values& values) {
    const std::string group{prefix};
    values = listingOfView(bus, group, {});
    if (values) {
        return kDone;
    }
    kelbus_values* raw = nullptr;
    kelbus_error error = KELBUS_OK;
    if (prefix.size() < kGroupBytes) {
        error = kelbus_get_all(bus.client.get(), &raw, bus.limit);
    } else { // all that begin alike are of one group: a shorter answer
        const char* name = group.c_str();
        error = kelbus_get_group(bus.client.get(), &name, 1, &raw, bus.limit);
    }
    values = ownedValues(raw);
    return error == KELBUS_OK ? kDone : saidFailure(bus, error);
}

int fetchGroups(const Bus& bus, const std::vector<std::string>& groups, Values& values) {
    const std::string prefix = groups.size() == 1 ? groups[0].substr(0, kGroupBytes) : "";
    values = listingOfView(bus, prefix, groups);
    if (values) {
        return kDone;
    }
    const std::vector<const char*> names = cTexts(groups);
    kelbus_values* raw = nullptr;
    const kelbus_error error =
        kelbus_get_group(bus.client.get(), names.data(), names.size(), &raw, bus.limit);
    values = ownedValues(raw);
    return error == KELBUS_OK ? kDone : saidFailure(bus, error);
}

std::vector<std::string> namesInView() {
    std::vector<std::string> names;
    const auto take = [](void* context, const char* name, const char*, std::size_t) {
        static_cast<std::vector<std::string>*>(context)->emplace_back(name);
        return true;
    };
    if (kelbus_view_visit(view(), "", take, &names) != KELBUS_OK) {
        names.clear();
    }
    return names;
}

int fetchNamed(const Bus& bus, const std::vector<std::string>& names, Values& values) {
    const std::vector<const char*> texts = cTexts(names);
    kelbus_values* raw = nullptr;
    kelbus_error error = kelbus_view_get_many(view(), texts.data(), texts.size(), &raw);
    if (error != KELBUS_OK) {
        kelbus_values_free(raw);
        error = kelbus_get_many(bus.client.get(), texts.data(), texts.size(), &raw, bus.limit);
    }
    values = ownedValues(raw);
    const bool answered = error == KELBUS_OK || (error == KELBUS_UNKNOWN_NAME && raw != nullptr);
    return answered ? kDone : saidFailure(bus, error);
}

} // namespace kelconf::cli
