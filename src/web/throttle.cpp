#include "web/throttle.h"

#include <algorithm>

namespace kelconf::web {

namespace {

using Clock = std::chrono::steady_clock;
using std::chrono::seconds;

constexpr std::size_t kMostKeys = 2048;
constexpr std::chrono::minutes kForgotten{30};

struct Rule {
    int free; // failures without a wait
    seconds longest;
};
constexpr Rule kAddress{5, seconds{300}};
constexpr Rule kAccount{10, seconds{30}};

seconds waitAfter(int failures, const Rule& rule) {
    const int doublings = std::min(failures - rule.free, 10);
    return doublings < 0 ? seconds{0}
                         : std::min(seconds{1U << static_cast<unsigned>(doublings)}, rule.longest);
}

std::string addressKey(std::string_view address) {
    return "address " + std::string{address};
}
std::string accountKey(std::string_view account) {
    return "account " + std::string{account};
}

} // namespace

Throttle::Failures& Throttle::of(const std::string& key) {
    const auto now = Clock::now();
    if (failures_.size() >= kMostKeys && failures_.find(key) == failures_.end()) {
        failures_.erase(
            std::min_element(failures_.begin(), failures_.end(), [](const auto& a, const auto& b) {
                return a.second.last < b.second.last;
            }));
    }
    Failures& failures = failures_[key];
    if (now - failures.last > kForgotten) {
        failures = {};
    }
    failures.last = now;
    return failures;
}

int Throttle::attempt(std::string_view address, std::string_view account) {
    const std::lock_guard lock{mutex_};
    const auto now = Clock::now();
    Failures by_address = of(addressKey(address));
    Failures by_account = of(accountKey(account));
    const auto until = std::max(by_address.until, by_account.until);
    if (until > now) {
        return static_cast<int>(std::chrono::ceil<seconds>(until - now).count());
    }
    by_address.until = now + waitAfter(++by_address.count, kAddress);
    by_account.until = now + waitAfter(++by_account.count, kAccount);
    failures_[addressKey(address)] = by_address;
    failures_[accountKey(account)] = by_account;
    return 0;
}

void Throttle::succeeded(std::string_view address, std::string_view account) {
    const std::lock_guard lock{mutex_};
    failures_.erase(addressKey(address));
    failures_.erase(accountKey(account));
}

} // namespace kelconf::web
