// Any sequence of SET and GET requests, through their documents, gives what a map of names gives:
// the values, which changes are queued with which previous value, and which names are unknown.
#include "bus/bus_xml.h"
#include "files/stored_file.h"
#include "lists.h"
#include "service/set_handling.h"
#include "service/storage.h"

#include <array>
#include <map>
#include <string>
#include <vector>

using namespace kelconf;
using namespace kelconf::fuzz;

namespace {

// The last two are unknown to the service; "state" is realtime.
constexpr std::array kNames{"a", "a.b", "password", "state", "z", "a.", "unknown"};

using Model = std::map<std::string, std::string>;
Model model;

// Texts that XML can carry.
std::string text(FuzzedDataProvider& input) {
    std::string value = input.ConsumeRandomLengthString(40);
    for (char& byte : value) {
        byte = static_cast<char>(byte & 0x7f);
        byte = byte < 0x20 ? '<' : byte;
    }
    return value;
}

struct Change {
    std::string name, value, previous;
};

void requireQueued(const std::vector<Change>& changes) {
    for (const Change& change : changes) {
        QueueItem* item = item_queue_dequeue();
        require(item != nullptr && change.name == item->name && change.value == item->value &&
                change.previous == item->prev_value);
        releaseQueueItem(item);
    }
    require(item_queue_size() == 0);
}

void set(FuzzedDataProvider& input) {
    const bool stored = input.ConsumeBool();
    bool all_known = true;
    std::vector<Change> changes;
    std::string body;
    for (int i = input.ConsumeIntegralInRange<int>(1, 4); i > 0; --i) {
        const std::string name = input.PickValueInArray(kNames);
        const std::string value = text(input);
        std::int32_t length = 0;
        const OwnedText one{genSetRequestXML(name.c_str(), value.c_str(), &length)};
        require(one != nullptr);
        const std::string document(one.get(), static_cast<std::size_t>(length));
        const std::size_t from = document.find("<parameter");
        body += document.substr(from, document.rfind("</") - from);
        const auto held = model.find(name);
        if (held == model.end()) {
            all_known = false;
            continue;
        }
        const bool same = held->second == value && !namesStoredFile(value.c_str());
        if (stored && name != "state" && !same) {
            changes.push_back({name, value, held->second});
        }
        held->second = value;
    }
    const std::string root = stored ? "SET_ACTION" : "SET_ACTION_NO_DB";
    const std::string request =
        "<?xml version=\"1.0\"?>\n<" + root + ">" + body + "</" + root + ">\n";
    const std::int32_t code =
        parseSetRequestXML(request.data(), static_cast<std::int32_t>(request.size()));
    require(code == (stored ? kSetAction : kSetActionNoDb));
    const std::uint8_t known =
        stored ? setValueForSetAnswerList() : setValueForSetAnswerListNoDBStore();
    require(known == (all_known ? 1 : 0));
    emptyRequests();
    requireQueued(changes);
}

void get(FuzzedDataProvider& input) {
    const std::string name = input.PickValueInArray(kNames);
    std::int32_t length = 0;
    const OwnedText request{genGetRequestXML(name.c_str(), &length)};
    parseGetRequestXML(request.get(), length);
    const auto held = model.find(name);
    require(searchValueForGetAnswerList() == (held == model.end() ? 0 : 1));
    require(CheckGetAnswerListLength() == 1);
    require((held == model.end() ? "" : held->second) == getAnswerAt(0)->value);
    emptyRequests();
}

} // namespace

extern "C" int LLVMFuzzerInitialize(int* /*argc*/, char*** /*argv*/) {
    makeLists();
    Storage none{};
    none.keepInMemory = [](const std::string& /*name*/, const std::string& /*stored*/) {};
    none.endMemoryOnly = [](const std::string& /*name*/) {};
    useStorage(none);
    for (std::size_t i = 0; i < kNames.size() - 2; ++i) {
        addLive(kNames[i], "", std::string_view(kNames[i]) == "state");
        model[kNames[i]] = "";
    }
    sortParamList();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    FuzzedDataProvider input(data, size);
    for (int step = 0; step < 100 && input.remaining_bytes() > 0; ++step) {
        input.ConsumeBool() ? set(input) : get(input);
    }
    return 0;
}
