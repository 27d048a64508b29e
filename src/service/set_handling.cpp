#include "service/set_handling.h"

#include "bus/event_publisher.h"
#include "bus/service_locks.h"
#include "files/stored_file.h"
#include "service/item_queue.h"
#include "service/param_list.h"
#include "service/published_values.h"
#include "service/request_lists.h"
#include "service/storage.h"
#include "service/write_back.h"
#include "text/text.h"

#include <utility>
#include <vector>

namespace kelconf {

namespace {

enum class Storing { kQueued, kNone };

struct Outcome {
    bool all_known;
    bool ordinary_changed;
};

bool isUnchanged(const ParamElement& param, const char* value) {
    return param.persistent == 1 && viewOf(param.value) == viewOf(value) &&
           !namesStoredFile(param.value);
}

// The queue owns the texts of a record it takes.
void queueChange(const ParamElement& param, const char* value) {
    OwnedText name{newText(param.name)};
    OwnedText new_value{newText(viewOf(value))};
    OwnedText prev_value{newText(viewOf(param.value))};
    const QueueItem item{name.get(), new_value.get(), prev_value.get()};
    if (name && new_value && prev_value && item_queue_enqueue(&item)) {
        static_cast<void>(name.release());
        static_cast<void>(new_value.release());
        static_cast<void>(prev_value.release());
    }
}

// Gives the parameter its new value and returns the one before. The parameter lock is held.
OwnedText exchangeValue(ParamElement& param, const char* value) {
    if (namesStoredFile(param.value) && !namesStoredFile(value)) {
        deleteStoredFile(param.value);
    }
    char* copy = newText(viewOf(value));
    if (copy == nullptr) { // memory is short: the value stays
        return OwnedText{newText(viewOf(param.value))};
    }
    return OwnedText{std::exchange(param.value, copy)};
}

struct Announcement {
    const ParamElement* param;
    const char* value; // of the request
    OwnedText prev_value;
};

// What one request changed.
struct Changes {
    std::vector<ParamElement*> params;
    std::vector<Announcement> to_announce; // at once, by the SET loop
};

// True when the change was one of an ordinary parameter. The parameter lock is held.
bool applyChange(ParamElement& param, const char* value, Storing storing, Changes& changes) {
    const bool ordinary = param.persistent == 1;
    if (ordinary && storing == Storing::kQueued) {
        queueChange(param, value);
        storage().endMemoryOnly(param.name);
    } else if (ordinary) {
        storage().keepInMemory(param.name, param.value);
    }
    OwnedText prev_value = exchangeValue(param, value);
    changes.params.push_back(&param);
    if (!ordinary || storing == Storing::kNone) {
        changes.to_announce.push_back({&param, value, std::move(prev_value)});
    }
    return ordinary;
}

Outcome applyEach(Storing storing, Changes& changes) {
    Outcome outcome{true, false};
    for (std::int32_t i = 0; i < CheckSetAnswerListLength(); ++i) {
        const AnswerElement* element = setAnswerAt(static_cast<std::uint32_t>(i));
        if (element == nullptr) {
            break;
        }
        if (element->name == nullptr) {
            continue;
        }
        ParamElement* param = seekParamElement(element->name);
        if (param == nullptr) {
            outcome.all_known = false;
        } else if (!isUnchanged(*param, element->value)) {
            outcome.ordinary_changed |= applyChange(*param, element->value, storing, changes);
        }
    }
    return outcome;
}

// The lock is held over all of it: nothing is stored or announced that readers of the view could
// not see yet, and they see the request's changes at once.
Outcome applyAnswers(Storing storing) {
    Changes changes;
    Outcome outcome{true, false};
    {
        const CriticalSection lock;
        outcome = applyEach(storing, changes);
        publishChanges(changes.params);
    }
    for (const Announcement& change : changes.to_announce) {
        sendEvent(change.param->name, change.value, change.prev_value.get());
    }
    return outcome;
}

std::uint8_t resultOf(const Outcome& outcome) {
    return outcome.all_known ? 1 : 0;
}

} // namespace

std::uint8_t setValueForSetAnswerList() {
    const Outcome outcome = applyAnswers(Storing::kQueued);
    if (outcome.ordinary_changed) {
        raiseFileEvent();
    }
    return resultOf(outcome);
}

std::uint8_t setDirectValueForSetAnswerList() {
    const Outcome outcome = applyAnswers(Storing::kQueued);
    saveFileDirect();
    return resultOf(outcome);
}

std::uint8_t setValueForSetAnswerListNoDBStore() {
    return resultOf(applyAnswers(Storing::kNone));
}

} // namespace kelconf
