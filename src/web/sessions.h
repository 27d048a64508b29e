// Who is logged in: sessions by cookie, in memory alone, and passwords of scripts that were found
// right a short while ago, as keyed digests, so that not every call takes the time of a hash.
#pragma once

#include "web/accounts.h"

#include <chrono>
#include <map>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>

namespace kelconf::web {

inline constexpr std::chrono::minutes kIdleSession{30}; // without a call
inline constexpr std::chrono::hours kLongestSession{12};

struct Session {
    std::string token; // of the cookie
    std::string csrf;
    std::string account;
    std::string hash; // of the account when it logged in: another password ends the session
    std::chrono::steady_clock::time_point used;
    std::chrono::steady_clock::time_point begun;
};

// Any thread.
class Sessions {
  public:
    Session begin(const Account& account);
    // The session of a cookie, which counts as used where `use` says so.
    std::optional<Session> find(std::string_view token, bool use);
    void end(std::string_view token);
    // Goes on although the account's password is another one now.
    void renew(std::string_view token, const std::string& hash);

    // Passwords that were right within the last five minutes.
    void remember(const Account& account, std::string_view password);
    bool remembered(const Account& account, std::string_view password);

  private:
    using Time = std::chrono::steady_clock::time_point;

    std::mutex mutex_;
    std::map<std::string, Session, std::less<>> sessions_;
    std::map<std::string, Time> passwords_; // digest, until when
};

} // namespace kelconf::web
