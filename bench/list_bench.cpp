// The ordered list against what it replaces: an array of pointers for reading, a list without an
// index for changes in the middle, std::sort for sorting. bench/list.sh runs this and prints the
// ratios.

#include "container/simlist.h"
#include "walk_list.h"

#include <benchmark/benchmark.h>

#include <algorithm>
#include <cstring>
#include <functional>
#include <memory>
#include <random>
#include <string>
#include <string_view>
#include <vector>

namespace {

using namespace kelconf;

struct Record {
    const char* name;
    const char* value;
};

std::size_t recordSize(const void* /*element*/) {
    return sizeof(Record);
}

std::int32_t compareNames(const void* a, const void* b) {
    return std::strcmp(static_cast<const Record*>(a)->name, static_cast<const Record*>(b)->name);
}

// Names as a camera's tree makes them, sorted.
std::vector<std::string> makeNames(std::size_t count) {
    std::vector<std::string> names;
    for (std::size_t i = 0; i < count; ++i) {
        names.push_back("ipcam.stream." + std::to_string(i % 97) + ".profile." +
                        std::to_string(i / 97) + ".bitrate");
    }
    std::sort(names.begin(), names.end());
    return names;
}

// A list of copied records, in the order of the names, and an array of pointers to the very same
// records.
class Fixture {
  public:
    explicit Fixture(std::size_t count) : names_{makeNames(count)} {
        simlist_init(&list_);
        simlist_attributes_copy(&list_, recordSize, 1);
        simlist_attributes_comparator(&list_, compareNames);
        for (const std::string& name : names_) {
            const Record record{name.c_str(), ""};
            simlist_append(&list_, &record);
            array_.push_back(static_cast<Record*>(list_.tail->prev->data));
        }
    }
    ~Fixture() { simlist_destroy(&list_); }
    Fixture(const Fixture&) = delete;
    Fixture& operator=(const Fixture&) = delete;
    Fixture(Fixture&&) = delete;
    Fixture& operator=(Fixture&&) = delete;

    simlist* list() { return &list_; }
    std::vector<Record*>& array() { return array_; }

    // Every name once, in random order.
    [[nodiscard]] std::vector<const char*> shuffledNames() const {
        std::vector<const char*> names;
        for (const std::string& name : names_) {
            names.push_back(name.c_str());
        }
        std::shuffle(names.begin(), names.end(), std::mt19937{11});
        return names;
    }

    // Puts the array's order into the list.
    void fillListFromArray() {
        simlist_element* e = list_.head->next;
        for (Record* record : array_) {
            e->data = record;
            e = e->next;
        }
    }

  private:
    std::vector<std::string> names_;
    simlist list_{};
    std::vector<Record*> array_;
};

void readList(benchmark::State& state) {
    Fixture fixture{static_cast<std::size_t>(state.range(0))};
    for (auto _ : state) {
        for (std::uint32_t i = 0; i < simlist_size(fixture.list()); ++i) {
            benchmark::DoNotOptimize(static_cast<Record*>(simlist_get_at(fixture.list(), i))->name);
        }
    }
}

// What the caches alone make of ten times the records.
void readArray(benchmark::State& state) {
    Fixture fixture{static_cast<std::size_t>(state.range(0))};
    for (auto _ : state) {
        for (const Record* record : fixture.array()) {
            benchmark::DoNotOptimize(record->name);
        }
    }
}

// The search of the system: by position, three ways.
const Record* searchList(const simlist* list, const char* name) {
    std::uint32_t low = 0;
    std::uint32_t high = simlist_size(list);
    while (low < high) {
        const std::uint32_t middle = low + (high - low) / 2;
        const auto* record = static_cast<const Record*>(simlist_get_at(list, middle));
        const int order = std::strcmp(record->name, name);
        if (order == 0) {
            return record;
        }
        if (order < 0) {
            low = middle + 1;
        } else {
            high = middle;
        }
    }
    return nullptr;
}

void searchByPosition(benchmark::State& state) {
    Fixture fixture{static_cast<std::size_t>(state.range(0))};
    const std::vector<const char*> names = fixture.shuffledNames();
    std::size_t next = 0;
    for (auto _ : state) {
        benchmark::DoNotOptimize(searchList(fixture.list(), names[next]));
        next = next + 1 == names.size() ? 0 : next + 1;
    }
}

void searchLowerBound(benchmark::State& state) {
    Fixture fixture{static_cast<std::size_t>(state.range(0))};
    const std::vector<const char*> names = fixture.shuffledNames();
    const auto& array = fixture.array();
    std::size_t next = 0;
    for (auto _ : state) {
        benchmark::DoNotOptimize(std::lower_bound(array.begin(), array.end(), names[next],
                                                  [](const Record* record, const char* name) {
                                                      return std::strcmp(record->name, name) < 0;
                                                  }));
        next = next + 1 == names.size() ? 0 : next + 1;
    }
}

std::vector<std::uint32_t> randomPositions(std::uint32_t below) {
    std::vector<std::uint32_t> positions(4096);
    std::mt19937 random{5};
    std::generate(positions.begin(), positions.end(), [&] { return random() % below; });
    return positions;
}

// One insertion and one removal, each at a position of its own, in a list of a steady length
// that was mixed by as many of both before.
void changeList(benchmark::State& state) {
    const auto count = static_cast<std::uint32_t>(state.range(0));
    simlist list{};
    simlist_init(&list);
    for (std::uint32_t i = 0; i < count; ++i) {
        simlist_append(&list, &list);
    }
    const std::vector<std::uint32_t> positions = randomPositions(count);
    std::size_t next = 0;
    for (auto _ : state) {
        simlist_insert_at(&list, &list, positions[next]);
        simlist_delete_at(&list, positions[positions.size() - 1 - next]);
        next = (next + 1) % positions.size();
    }
    simlist_destroy(&list);
}

void changeWalkList(benchmark::State& state) {
    const auto count = static_cast<std::uint32_t>(state.range(0));
    bench::WalkList list;
    for (std::uint32_t i = 0; i < count; ++i) {
        list.insert(static_cast<std::int32_t>(i), &list);
    }
    const std::vector<std::uint32_t> positions = randomPositions(count);
    std::size_t next = 0;
    for (auto _ : state) {
        list.insert(static_cast<std::int32_t>(positions[next]), &list);
        list.remove(static_cast<std::int32_t>(positions[positions.size() - 1 - next]));
        next = (next + 1) % positions.size();
    }
}

enum class Shape { random, sorted, reversed, equal };

void shape(std::vector<Record*>& array, Shape wanted) {
    switch (wanted) {
    case Shape::random:
        std::shuffle(array.begin(), array.end(), std::mt19937{3});
        break;
    case Shape::reversed:
        std::reverse(array.begin(), array.end());
        break;
    case Shape::equal:
        for (Record* record : array) {
            record->name = array.front()->name;
        }
        break;
    case Shape::sorted:
        break;
    }
}

constexpr std::size_t kSorted = 100000;

void sortList(benchmark::State& state, Shape wanted) {
    Fixture fixture{kSorted};
    shape(fixture.array(), wanted);
    for (auto _ : state) {
        state.PauseTiming();
        fixture.fillListFromArray();
        state.ResumeTiming();
        simlist_sort(fixture.list(), -1);
    }
}

void sortArray(benchmark::State& state, Shape wanted) {
    Fixture fixture{kSorted};
    shape(fixture.array(), wanted);
    for (auto _ : state) {
        state.PauseTiming();
        std::vector<Record*> array = fixture.array();
        state.ResumeTiming();
        std::sort(array.begin(), array.end(), [](const Record* a, const Record* b) {
            return std::strcmp(a->name, b->name) < 0;
        });
        benchmark::DoNotOptimize(array.data());
    }
}

BENCHMARK(readList)->Arg(10000)->Arg(50000)->Arg(100000);
BENCHMARK(readArray)->Arg(10000)->Arg(100000);
BENCHMARK(searchByPosition)->Arg(100000);
BENCHMARK(searchLowerBound)->Arg(100000);
BENCHMARK(changeList)->Arg(4)->Arg(100)->Arg(1000)->Arg(10000)->Arg(100000);
BENCHMARK(changeWalkList)->Arg(4)->Arg(100)->Arg(1000)->Arg(10000)->Arg(100000);
BENCHMARK_CAPTURE(sortList, random, Shape::random);
BENCHMARK_CAPTURE(sortArray, random, Shape::random);
BENCHMARK_CAPTURE(sortList, sorted, Shape::sorted);
BENCHMARK_CAPTURE(sortArray, sorted, Shape::sorted);
BENCHMARK_CAPTURE(sortList, reversed, Shape::reversed);
BENCHMARK_CAPTURE(sortArray, reversed, Shape::reversed);
BENCHMARK_CAPTURE(sortList, equal, Shape::equal);
BENCHMARK_CAPTURE(sortArray, equal, Shape::equal);

} // namespace

BENCHMARK_MAIN();
