// Any sequence of operations on a list gives what it gives on a plain vector.
#include "container/simlist.h"
#include "require.h"

#include <algorithm>
#include <vector>

using namespace kelconf;
using namespace kelconf::fuzz;

namespace {

// An element is a number in the pointer itself; 0 would be a null pointer.
void* element(unsigned number) {
    return reinterpret_cast<void*>(static_cast<std::uintptr_t>(number) + 1);
}

std::int32_t compare(const void* a, const void* b) {
    const auto left = reinterpret_cast<std::uintptr_t>(a);
    const auto right = reinterpret_cast<std::uintptr_t>(b);
    return left < right ? 1 : left > right ? -1 : 0;
}

std::uint32_t hashOf(const void* data) {
    return static_cast<std::uint32_t>(reinterpret_cast<std::uintptr_t>(data));
}

using Model = std::vector<void*>;

std::uint32_t hashed(const simlist& list) {
    std::uint32_t hash = 0;
    require(simlist_hash(&list, &hash) == 0);
    return hash;
}

void requireSame(const simlist& list, const Model& model) {
    require(simlist_size(&list) == model.size());
    require(simlist_empty(&list) == (model.empty() ? 1 : 0));
    for (std::uint32_t i = 0; i < model.size(); ++i) {
        require(simlist_get_at(&list, i) == model[i]);
    }
    require(simlist_get_at(&list, static_cast<std::uint32_t>(model.size())) == nullptr);
    require(model.empty() ? list.middle == nullptr
                          : list.middle->data == model[(model.size() - 1) / 2]);
}

void insert(simlist& list, Model& model, FuzzedDataProvider& input) {
    const auto at = input.ConsumeIntegralInRange<std::uint32_t>(
        0, static_cast<std::uint32_t>(model.size()) + 1);
    void* data = element(input.ConsumeIntegral<std::uint8_t>());
    const bool inside = at <= model.size();
    require((simlist_insert_at(&list, data, at) == 1) == inside);
    if (inside) {
        model.insert(model.begin() + at, data);
    }
}

void fill(simlist& list, Model& model, FuzzedDataProvider& input) {
    const unsigned count = input.ConsumeIntegral<std::uint16_t>() % 700;
    for (unsigned i = 0; i < count; ++i) {
        require(simlist_append(&list, element(i * 37 % 251)) == 1);
        model.push_back(element(i * 37 % 251));
    }
}

void extract(simlist& list, Model& model, FuzzedDataProvider& input) {
    const auto at = input.ConsumeIntegral<std::uint16_t>() % (model.size() + 1);
    void* data = simlist_extract_at(&list, static_cast<std::uint32_t>(at));
    require(data == (at < model.size() ? model[at] : nullptr));
    if (at < model.size()) {
        model.erase(model.begin() + static_cast<std::ptrdiff_t>(at));
    }
}

void removeRange(simlist& list, Model& model, FuzzedDataProvider& input) {
    const auto start = input.ConsumeIntegral<std::uint16_t>() % (model.size() + 1);
    const auto end = input.ConsumeIntegral<std::uint16_t>() % (model.size() + 1);
    if (start <= end && end < model.size()) {
        require(simlist_delete_range(&list, static_cast<std::uint32_t>(start),
                                     static_cast<std::uint32_t>(end)) == 0);
        model.erase(model.begin() + static_cast<std::ptrdiff_t>(start),
                    model.begin() + static_cast<std::ptrdiff_t>(end) + 1);
    } else {
        require(simlist_delete_range(&list, static_cast<std::uint32_t>(start),
                                     static_cast<std::uint32_t>(end)) == -1);
    }
}

void find(simlist& list, Model& model, FuzzedDataProvider& input) {
    void* data = element(input.ConsumeIntegral<std::uint8_t>());
    const auto at = std::find(model.begin(), model.end(), data);
    const bool held = at != model.end();
    require(simlist_contains(&list, data) == (held ? 1 : 0));
    require(simlist_locate(&list, data) ==
            (held ? static_cast<std::int32_t>(at - model.begin()) : -1));
    if (!model.empty()) {
        require(simlist_get_min(&list) == *std::min_element(model.begin(), model.end()));
        require(simlist_get_max(&list) == *std::max_element(model.begin(), model.end()));
    }
    require((simlist_delete(&list, data) == -1) == !held);
    if (held) {
        model.erase(at);
    }
}

void sort(simlist& list, Model& model, FuzzedDataProvider& input) {
    const bool rising = input.ConsumeBool();
    require(simlist_sort(&list, rising ? 1 : -1) == 0);
    rising ? std::sort(model.begin(), model.end(), std::less<>())
           : std::sort(model.begin(), model.end(), std::greater<>());
}

// The list twice, in a list of its own.
void doubled(simlist& list, Model& model) {
    if (model.size() > 5000) {
        require(simlist_clear(&list) == 0);
        model.clear();
        return;
    }
    simlist both;
    require(simlist_concat(&list, &list, &both) == 0);
    Model twice = model;
    twice.insert(twice.end(), model.begin(), model.end());
    requireSame(both, twice);
    simlist_destroy(&both);
}

// While an iteration runs nothing changes the list.
void iterate(simlist& list, const Model& model) {
    require(simlist_iterator_start(&list) == 1 && simlist_iterator_start(&list) == 0);
    require(simlist_append(&list, element(1)) == -1 && simlist_sort(&list, 1) == -1);
    for (void* expected : model) {
        require(simlist_iterator_hasnext(&list) == 1 && simlist_iterator_next(&list) == expected);
    }
    require(simlist_iterator_hasnext(&list) == 0 && simlist_iterator_stop(&list) == 1);
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    FuzzedDataProvider input(data, size);
    simlist list;
    require(simlist_init(&list) == 0);
    simlist_attributes_comparator(&list, compare);
    simlist_attributes_hash_computer(&list, hashOf);
    Model model;
    const std::uint32_t empty = hashed(list);
    for (int step = 0; step < 64 && input.remaining_bytes() > 0; ++step) {
        switch (input.ConsumeIntegralInRange<int>(0, 7)) {
        case 0:
            insert(list, model, input);
            break;
        case 1:
            fill(list, model, input);
            break;
        case 2:
            extract(list, model, input);
            break;
        case 3:
            removeRange(list, model, input);
            break;
        case 4:
            find(list, model, input);
            break;
        case 5:
            sort(list, model, input);
            break;
        case 6:
            doubled(list, model);
            break;
        default:
            iterate(list, model);
        }
        requireSame(list, model);
    }
    require(simlist_clear(&list) == 0 && hashed(list) == empty);
    simlist_destroy(&list);
    return 0;
}
