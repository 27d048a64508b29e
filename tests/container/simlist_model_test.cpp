// Random operations on a list and on a std::vector: both must stay the same.
#include "container/list_check.h"
#include "container/simlist.h"

#include <algorithm>
#include <random>

namespace kelconf {
namespace {

struct Mix {
    const char* name;
    std::uint32_t inserts; // of 100 operations; the rest removes
    std::uint32_t ends;    // of 100 positions: how many are the first or the last
};

class Model {
  public:
    Model(const Mix& mix, std::uint32_t seed) : mix_{mix}, random_{seed} {}

    void step() {
        if (chance(mix_.inserts) || contents_.empty()) {
            insert();
        } else if (chance(3)) {
            removeRange();
        } else {
            removeOne();
        }
        if (below(4000) == 0) {
            ASSERT_EQ(simlist_clear(&list_), 0);
            spares_ = std::min<std::size_t>(kSimlistSpares, spares_ + contents_.size());
            contents_.clear();
        }
        ASSERT_EQ(list_.spare_count, spares_);
    }

    [[nodiscard]] ::testing::AssertionResult sound() const { return isSound(list_, contents_); }

  private:
    std::uint32_t below(std::size_t limit) { return static_cast<std::uint32_t>(random_() % limit); }
    bool chance(std::uint32_t percent) { return below(100) < percent; }

    std::uint32_t position(std::size_t limit) {
        if (chance(mix_.ends)) {
            return chance(50) ? 0 : static_cast<std::uint32_t>(limit - 1);
        }
        return below(limit);
    }

    void insert() {
        const std::uint32_t at = position(contents_.size() + 1);
        void* data = numbered(++made_);
        ASSERT_EQ(simlist_insert_at(&list_, data, at), 1);
        contents_.insert(contents_.begin() + at, data);
        spares_ -= spares_ > 0 ? 1 : 0;
    }

    void removeOne() {
        const std::uint32_t at = position(contents_.size());
        if (chance(50)) {
            ASSERT_EQ(simlist_delete_at(&list_, at), 0);
        } else {
            ASSERT_EQ(simlist_extract_at(&list_, at), contents_[at]);
        }
        contents_.erase(contents_.begin() + at);
        spares_ = std::min<std::size_t>(kSimlistSpares, spares_ + 1);
    }

    void removeRange() {
        const std::uint32_t start = position(contents_.size());
        const std::size_t longest = contents_.size() - start;
        const std::uint32_t length =
            1 + below(chance(10) ? longest : std::min<std::size_t>(longest, 9));
        ASSERT_EQ(simlist_delete_range(&list_, start, start + length - 1), 0);
        contents_.erase(contents_.begin() + start, contents_.begin() + start + length);
        spares_ = std::min<std::size_t>(kSimlistSpares, spares_ + length);
    }

    Mix mix_;
    std::mt19937 random_;
    ScopedList list_;
    std::vector<void*> contents_;
    std::size_t spares_ = 0;
    std::size_t made_ = 0;
};

class SimlistModel : public ::testing::TestWithParam<Mix> {};

TEST_P(SimlistModel, StaysEqualToAVector) {
    constexpr int kSteps = 9000;
    constexpr int kStepsBetweenWalks = 37;
    for (const std::uint32_t seed : {1U, 2U, 3U}) {
        SCOPED_TRACE(seed);
        Model model{GetParam(), seed};
        for (int i = 0; i < kSteps; ++i) {
            ASSERT_NO_FATAL_FAILURE(model.step()) << "step " << i;
            if (i % kStepsBetweenWalks == 0) {
                ASSERT_TRUE(model.sound()) << "step " << i;
            }
        }
        ASSERT_TRUE(model.sound());
    }
}

INSTANTIATE_TEST_SUITE_P(Mixes, SimlistModel,
                         ::testing::Values(Mix{"Small", 50, 20}, Mix{"Growing", 75, 5},
                                           Mix{"Ends", 62, 95}, Mix{"Anywhere", 60, 0}),
                         [](const auto& mix) { return mix.param.name; });

// A queue and a stack of pushes at either end cross every edge of the index's blocks.
TEST(SimlistEnds, WindowsSlideThroughTheList) {
    for (const std::size_t window : {1U, 7U, 8U, 9U, 511U, 512U, 513U, 1400U}) {
        for (const bool forward : {true, false}) {
            SCOPED_TRACE(::testing::Message() << window << (forward ? " forward" : " back"));
            ScopedList list;
            std::vector<void*> expected;
            for (std::size_t i = 1; i <= window + 1500; ++i) {
                ASSERT_EQ(simlist_insert_at(&list, numbered(i), forward ? list.count : 0), 1);
                if (i > window) {
                    void* oldest = simlist_extract_at(&list, forward ? 0 : list.count - 1);
                    ASSERT_EQ(oldest, numbered(i - window));
                }
            }
            for (std::size_t i = 1501; i <= window + 1500; ++i) {
                expected.push_back(numbered(i));
            }
            if (!forward) {
                std::reverse(expected.begin(), expected.end());
            }
            ASSERT_TRUE(isSound(list, expected));
        }
    }
}

} // namespace
} // namespace kelconf
