// The calls of kelbus.h that read the view.
#include "client/values.h"
#include "kelbus.h"
#include "paths.h"
#include "view/reader.h"

#include <algorithm>
#include <exception>
#include <memory>
#include <vector>

struct kelbus_view {
    kelconf::view::Reader reader{kelconf::paths::kView};
};

namespace kelconf {

namespace {

using view::Outcome;

kelbus_error errorOf(Outcome outcome) {
    switch (outcome) {
    case Outcome::kOk:
        return KELBUS_OK;
    case Outcome::kNoService:
        return KELBUS_NO_SERVICE;
    case Outcome::kUnknown:
        return KELBUS_UNKNOWN_NAME;
    case Outcome::kTooSmall:
        return KELBUS_TOO_SMALL;
    case Outcome::kNotInView:
        return KELBUS_NOT_IN_VIEW;
    case Outcome::kBusy:
        return KELBUS_TIMEOUT;
    case Outcome::kRefused:
        return KELBUS_REFUSED;
    case Outcome::kBroken:
        return KELBUS_BROKEN_REPLY;
    case Outcome::kNoMemory:
        break;
    }
    return KELBUS_NO_MEMORY;
}

// Exceptions end here: what reading throws is a want of memory.
template <typename Body>
kelbus_error guardedRead(Body body) {
    try {
        return body();
    } catch (const std::exception&) {
        return KELBUS_NO_MEMORY;
    }
}

// Every name is there and has a character at least.
bool areNames(const char* const* names, std::size_t count) {
    for (std::size_t i = 0; i < count; ++i) {
        if (names == nullptr || names[i] == nullptr || *names[i] == '\0') {
            return false;
        }
    }
    return true;
}

// The values of the known names as an answer.
std::unique_ptr<ValueList> makeAnswer(const std::vector<std::string_view>& names,
                                      const std::vector<view::Place>& places, std::string&& texts) {
    auto list = std::make_unique<ValueList>();
    list->texts = std::move(texts);
    const std::size_t names_at = list->texts.size();
    for (const std::string_view name : names) {
        list->texts.append(name).push_back('\0');
    }
    const char* name = list->texts.data() + names_at;
    for (std::size_t i = 0; i < names.size(); name += names[i++].size() + 1) {
        list->parameters.push_back(
            {name, places[i].known ? list->texts.data() + places[i].at : nullptr});
    }
    list->count = list->parameters.size();
    list->items = list->parameters.data();
    return list;
}

} // namespace

} // namespace kelconf

using namespace kelconf; // NOLINT(google-build-using-namespace): the calls below are its border

kelbus_error kelbus_view_open(kelbus_view** view) {
    if (view == nullptr) {
        return KELBUS_BAD_ARGUMENT;
    }
    *view = nullptr;
    return guardedRead([&] {
        *view = new kelbus_view;
        return KELBUS_OK;
    });
}

void kelbus_view_close(kelbus_view* view) {
    delete view;
}

kelbus_error kelbus_view_get(kelbus_view* view, const char* name, char* buffer, size_t size,
                             size_t* length) {
    if (view == nullptr || !areNames(&name, 1) || (buffer == nullptr && size > 0)) {
        return KELBUS_BAD_ARGUMENT;
    }
    std::size_t found = 0;
    const Outcome outcome = view->reader.get(name, buffer, size, found);
    if (length != nullptr) {
        *length = found;
    }
    return errorOf(outcome);
}

kelbus_error kelbus_view_get_many(kelbus_view* view, const char* const* names, size_t count,
                                  kelbus_values** values) {
    if (values == nullptr) {
        return KELBUS_BAD_ARGUMENT;
    }
    *values = nullptr;
    if (view == nullptr || !areNames(names, count)) {
        return KELBUS_BAD_ARGUMENT;
    }
    return guardedRead([&] {
        const std::vector<std::string_view> asked{names, names + count};
        std::string texts;
        std::vector<view::Place> places;
        const Outcome outcome = view->reader.getMany(asked, texts, places);
        if (outcome != Outcome::kOk) {
            return errorOf(outcome);
        }
        *values = makeAnswer(asked, places, std::move(texts)).release();
        const bool all_known = std::all_of(places.begin(), places.end(),
                                           [](const view::Place& place) { return place.known; });
        return all_known ? KELBUS_OK : KELBUS_UNKNOWN_NAME;
    });
}

kelbus_error kelbus_view_visit(kelbus_view* view, const char* prefix,
                               bool (*visit)(void* context, const char* name, const char* value,
                                             size_t length),
                               void* context) {
    if (view == nullptr || prefix == nullptr || visit == nullptr) {
        return KELBUS_BAD_ARGUMENT;
    }
    return guardedRead([&] {
        return errorOf(view->reader.visit(
            prefix, [&](const char* name, const char* value, std::size_t length) {
                return visit(context, name, value, length);
            }));
    });
}

uint64_t kelbus_view_changes(kelbus_view* view) {
    return view == nullptr ? 0 : view->reader.changes();
}
