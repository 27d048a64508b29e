#include "view/reader.h"

#include <unistd.h>

#include <memory>
#include <new>
#include <utility>

namespace kelconf::view {

namespace {

constexpr int kAttempts = 3;
constexpr useconds_t kTurnPause = 50; // us

} // namespace

// Keeps the mappings of a reader from being closed while it lives.
class Reader::Use {
  public:
    explicit Use(Reader& reader) : reader_(reader) { ++reader_.reading_; }
    ~Use() { release(); }
    Use(const Use&) = delete;
    Use& operator=(const Use&) = delete;
    Use(Use&&) = delete;
    Use& operator=(Use&&) = delete;

    void renew() {
        ++reader_.reading_;
        held_ = true;
    }
    void release() {
        if (held_) {
            --reader_.reading_;
            held_ = false;
        }
    }
    Mapping* mapping = nullptr;

  private:
    Reader& reader_;
    bool held_ = true;
};

Reader::~Reader() {
    replace(nullptr);
    reading_ = 0;
    collect();
}

// False when another thread has it.
bool Reader::takeTurn() {
    const pid_t self = getpid();
    pid_t holder = 0;
    return turn_.compare_exchange_strong(holder, self) ||
           (holder != self && turn_.compare_exchange_strong(holder, self));
}

// What nobody can be using any more is closed. By whose turn it is.
void Reader::collect() {
    if (reading_ != 0) {
        return; // whoever comes later finds the present mapping
    }
    for (Mapping* mapping = std::exchange(dropped_, nullptr); mapping != nullptr;) {
        const std::unique_ptr<Mapping> closed{mapping};
        mapping = closed->next;
    }
}

void Reader::replace(Mapping* fresh) {
    if (Mapping* old = current_.exchange(fresh)) {
        old->next = dropped_;
        dropped_ = old;
    }
}

// Nobody looks more often than the period, but after a move: then there is something to find.
Outcome Reader::reopen(const Mapping* stale, bool moved) {
    if (!moved && coarseNow() < next_look_.load(std::memory_order_relaxed)) {
        const Outcome last = last_look_;
        return last == Outcome::kOk ? Outcome::kNoService : last;
    }
    if (!takeTurn()) {
        usleep(kTurnPause); // another thread is at it, and soon done
        return Outcome::kOk;
    }
    Outcome outcome = Outcome::kOk;
    if (current_ == stale) {
        try {
            std::unique_ptr<Mapping> fresh;
            outcome = Mapping::open(path_, fresh);
            if (outcome == Outcome::kOk && !fresh->alive()) {
                outcome = Outcome::kNoService;
            }
            replace(outcome == Outcome::kOk ? fresh.release() : nullptr);
        } catch (const std::bad_alloc&) {
            outcome = Outcome::kNoMemory;
        }
        last_look_ = outcome;
        next_look_ = coarseNow() + kLookPeriod;
    }
    collect();
    turn_ = 0;
    return outcome;
}

// Gives the use a mapping of a service that lives.
Outcome Reader::attach(Use& use) {
    constexpr unsigned kTurns = 10000; // a second and more of waiting for another thread
    for (unsigned attempt = 0; attempt < kTurns; ++attempt) {
        use.mapping = current_;
        if (use.mapping != nullptr && use.mapping->alive()) {
            return Outcome::kOk;
        }
        const bool moved = use.mapping != nullptr && use.mapping->state() == kMoved;
        const Mapping* stale = use.mapping;
        use.release();
        const Outcome outcome = reopen(stale, moved);
        use.renew();
        if (outcome != Outcome::kOk) {
            return outcome;
        }
    }
    return Outcome::kBusy;
}

// Runs `body` on a mapping; again when the service left the file meanwhile.
template <typename Read>
Outcome Reader::read(Read body) {
    Outcome outcome = Outcome::kNoService;
    for (int attempt = 0; attempt < kAttempts; ++attempt) {
        Use use{*this};
        outcome = attach(use);
        if (outcome != Outcome::kOk) {
            return outcome;
        }
        outcome = body(*use.mapping);
        if (outcome != Outcome::kNoService) {
            break;
        }
    }
    return outcome;
}

Outcome Reader::get(std::string_view name, char* buffer, std::size_t size, std::size_t& length) {
    return read([&](const Mapping& mapping) {
        std::uint32_t number = 0;
        if (!mapping.find(name, number)) {
            return Outcome::kUnknown;
        }
        return mapping.undisturbed([&] {
            ValuePlace place;
            const Outcome outcome = mapping.placeOf(number, place);
            if (outcome != Outcome::kOk) {
                return outcome;
            }
            length = place.length;
            if (length >= size) {
                return Outcome::kTooSmall;
            }
            place.copy(buffer);
            buffer[length] = '\0';
            return Outcome::kOk;
        });
    });
}

Outcome Reader::getMany(std::span<const std::string_view> names, std::string& texts,
                        std::vector<Place>& places) {
    std::vector<std::uint32_t> numbers(names.size());
    return read([&](const Mapping& mapping) {
        places.assign(names.size(), {});
        for (std::size_t i = 0; i < names.size(); ++i) {
            places[i].known = mapping.find(names[i], numbers[i]);
        }
        return mapping.undisturbed([&] {
            texts.clear();
            for (std::size_t i = 0; i < names.size(); ++i) {
                if (!places[i].known) {
                    continue;
                }
                ValuePlace value;
                const Outcome outcome = mapping.placeOf(numbers[i], value);
                if (outcome != Outcome::kOk) {
                    return outcome;
                }
                places[i].at = texts.size();
                texts.resize(texts.size() + value.length + 1);
                value.copy(texts.data() + places[i].at);
            }
            return Outcome::kOk;
        });
    });
}

namespace {

// kOk with the value, or as placeOf.
Outcome readValue(const Mapping& mapping, std::uint32_t number, std::string& value) {
    return mapping.undisturbed([&] {
        ValuePlace place;
        const Outcome outcome = mapping.placeOf(number, place);
        if (outcome == Outcome::kOk) {
            value.resize(place.length);
            place.copy(value.data());
        }
        return outcome;
    });
}

} // namespace

Outcome Reader::visit(std::string_view prefix, const Visitor& visitor) {
    std::string last{prefix}; // where a visit goes on that a new file has interrupted
    std::string value;
    bool begun = false;
    return read([&](const Mapping& mapping) {
        for (std::uint32_t number = mapping.firstFrom(last, begun); number < mapping.count();
             ++number) {
            const std::string_view name = mapping.name(number);
            if (!name.starts_with(prefix) || name.data() == nullptr) {
                break;
            }
            const Outcome outcome = readValue(mapping, number, value);
            if (outcome != Outcome::kOk && outcome != Outcome::kNotInView) {
                return outcome;
            }
            const bool shown = outcome == Outcome::kOk;
            if (!visitor(name.data(), shown ? value.c_str() : nullptr, shown ? value.size() : 0)) {
                break;
            }
            last = name;
            begun = true;
        }
        return Outcome::kOk;
    });
}

std::uint64_t Reader::changes() {
    std::uint64_t sequence = 0;
    read([&](const Mapping& mapping) {
        sequence = mapping.sequence() | 1U;
        return Outcome::kOk;
    });
    return sequence;
}

} // namespace kelconf::view
