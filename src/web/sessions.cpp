#include "web/sessions.h"

#include "web/password_hash.h"

#include <gnutls/crypto.h>
#include <gnutls/gnutls.h>

#include <algorithm>
#include <array>

namespace kelconf::web {

namespace {

using Clock = std::chrono::steady_clock;

constexpr std::size_t kMostSessions = 256;
constexpr std::size_t kMostPasswords = 64;
constexpr std::chrono::minutes kRemembered{5};
constexpr std::size_t kTokenBytes = 32;

bool isOver(const Session& session) {
    const auto now = Clock::now();
    return now - session.used > kIdleSession || now - session.begun > kLongestSession;
}

std::string digestOf(const Account& account, std::string_view password) {
    static const std::string key = randomText(kTokenBytes); // of this process
    std::string text = account.name + '\n' + account.hash + '\n';
    text += password;
    std::array<char, 32> digest{};
    const int failed = gnutls_hmac_fast(GNUTLS_MAC_SHA256, key.data(), key.size(), text.data(),
                                        text.size(), digest.data());
    return failed != 0 ? "" : std::string{digest.data(), digest.size()};
}

} // namespace

Session Sessions::begin(const Account& account) {
    const std::lock_guard lock{mutex_};
    std::erase_if(sessions_, [](const auto& entry) { return isOver(entry.second); });
    if (sessions_.size() >= kMostSessions) {
        sessions_.erase(
            std::min_element(sessions_.begin(), sessions_.end(), [](const auto& a, const auto& b) {
                return a.second.used < b.second.used;
            }));
    }
    const auto now = Clock::now();
    Session session{
        randomText(kTokenBytes), randomText(kTokenBytes), account.name, account.hash, now, now};
    sessions_[session.token] = session;
    return session;
}

std::optional<Session> Sessions::find(std::string_view token, bool use) {
    const std::lock_guard lock{mutex_};
    const auto found = sessions_.find(token);
    if (found == sessions_.end() || isOver(found->second)) {
        return {};
    }
    if (use) {
        found->second.used = Clock::now();
    }
    return found->second;
}

void Sessions::end(std::string_view token) {
    const std::lock_guard lock{mutex_};
    if (const auto found = sessions_.find(token); found != sessions_.end()) {
        sessions_.erase(found);
    }
}

void Sessions::renew(std::string_view token, const std::string& hash) {
    const std::lock_guard lock{mutex_};
    if (const auto found = sessions_.find(token); found != sessions_.end()) {
        found->second.hash = hash;
    }
}

void Sessions::remember(const Account& account, std::string_view password) {
    const std::lock_guard lock{mutex_};
    const auto now = Clock::now();
    std::erase_if(passwords_, [&](const auto& entry) { return entry.second < now; });
    if (passwords_.size() >= kMostPasswords) {
        passwords_.erase(passwords_.begin());
    }
    const std::string digest = digestOf(account, password);
    if (!digest.empty()) {
        passwords_[digest] = now + kRemembered;
    }
}

bool Sessions::remembered(const Account& account, std::string_view password) {
    const std::lock_guard lock{mutex_};
    const auto found = passwords_.find(digestOf(account, password));
    return found != passwords_.end() && found->second > Clock::now();
}

} // namespace kelconf::web
