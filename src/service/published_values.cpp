#include "service/published_values.h"

#include "log/keldebug.h"
#include "paths.h"
#include "service/passwords.h"
#include "text/text.h"
#include "view/publisher.h"

#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <optional>
#include <vector>

namespace kelconf {

namespace {

using Clock = std::chrono::steady_clock;
constexpr std::chrono::seconds kRetryPause{10};

// Written by the start and under the get-all lock.
std::optional<view::Publisher> publisher;
bool wanted = false;
std::optional<Clock::time_point> next_attempt; // once one has failed

std::vector<view::Item> itemsOfParamList() {
    std::vector<view::Item> items;
    items.reserve(static_cast<std::size_t>(CheckParamListLength()));
    for (std::uint32_t i = 0; const ParamElement* element = paramElementAt(i); ++i) {
        items.push_back(
            {viewOf(element->name), viewOf(element->value), isPasswordName(element->name)});
    }
    return items;
}

// A file of all values in place of the present one, if there is one.
void publishAll() {
    const std::uint64_t earlier = publisher ? publisher->sequence() : 0;
    std::optional<view::Publisher> fresh =
        view::Publisher::publish(paths::kView, itemsOfParamList(), earlier);
    if (!fresh) {
        keldebug(kLogWarning, kToBoth, "no view of the values: %s\n", std::strerror(errno));
        next_attempt = Clock::now() + kRetryPause;
        unlink(paths::kView);
    }
    if (publisher) {
        publisher->leave(fresh ? view::kMoved : view::kDead);
    }
    publisher = std::move(fresh);
}

} // namespace

void publishValues() {
    view::retire(paths::kView);
    wanted = true;
    publishAll();
}

void publishChanges(std::span<ParamElement* const> changed) {
    if (!publisher) {
        if (wanted && (!next_attempt || Clock::now() >= *next_attempt)) {
            publishAll();
        }
        return;
    }
    publisher->begin();
    const bool room = std::all_of(changed.begin(), changed.end(), [](const ParamElement* element) {
        return publisher->set(viewOf(element->name), viewOf(element->value));
    });
    room ? publisher->end() : publishAll();
}

void withdrawValues() {
    wanted = false;
    if (publisher) {
        publisher->begin();
        publisher->leave(view::kDead);
        unlink(paths::kView);
        publisher.reset();
    }
}

} // namespace kelconf
