#include "web/access.h"

#include "base/owned.h"
#include "cli/output/shown_text.h"
#include "log/keldebug.h"

#include <gnutls/gnutls.h>
#include <strings.h>

namespace kelconf::web {

namespace {

// A page of another origin has made the browser call us.
bool isCrossSite(const Site& site, const Call& call) {
    if (!call.fetch_site.empty() && call.fetch_site != "same-origin" && call.fetch_site != "none") {
        return true;
    }
    return !call.origin.empty() && call.origin != (site.tls ? "https://" : "http://") + call.host;
}

bool changesSomething(const Call& call) {
    return call.method != "GET";
}

// The caller by the session's cookie.
std::optional<Answer> checkSession(Site& site, Call& call) {
    const auto session = site.sessions.find(call.cookie, true);
    const auto account = session ? site.accounts.find(session->account) : std::nullopt;
    if (!account || account->hash != session->hash) {
        return failure(401, "unauthorized", "log in first");
    }
    if (changesSomething(call) && call.csrf != session->csrf) {
        return failure(403, "cross_site", "the header X-Kelconf-Csrf is missing or wrong");
    }
    call.caller = {account->name, account->role, session->token};
    return {};
}

std::optional<Answer> checkRole(const Call& call, const Route& route) {
    if (call.caller.role >= route.least) {
        return {};
    }
    return failure(403, "forbidden", "your role does not allow this");
}

// True when the password was right a short while ago.
bool isRemembered(Site& site, Call& call) {
    const auto basic = basicOf(call.authorization);
    const auto account = basic ? site.accounts.find(basic->first) : std::nullopt;
    if (!account || !site.sessions.remembered(*account, basic->second)) {
        return false;
    }
    call.caller = {account->name, account->role, ""};
    return true;
}

} // namespace

std::optional<Answer> checkCaller(Site& site, Call& call, const Route& route, bool& unproven) {
    unproven = false;
    if (isCrossSite(site, call)) {
        return failure(403, "cross_site", "calls by pages of other sites are refused");
    }
    const bool is_set_up = call.path == "setup";
    if (!is_set_up && site.accounts.setUpNeeded()) {
        return failure(403, "setup_needed", "an administrator has to be made first");
    }
    if (route.least == Role::kNone) {
        return {};
    }
    if (call.authorization.empty()) {
        auto wrong = checkSession(site, call);
        return wrong ? std::move(wrong) : checkRole(call, route);
    }
    unproven = !isRemembered(site, call);
    return unproven ? std::nullopt : checkRole(call, route);
}

std::optional<Answer> logIn(Site& site, const Call& call, const std::string& name,
                            const std::string& password, Account& account) {
    if (const int wait = site.throttle.attempt(call.address, name); wait > 0) {
        return slowDown(wait);
    }
    const auto verified = site.accounts.verify(name, password);
    if (!verified) {
        keldebug(kLogWarning, kToSyslog, "log-in of %s from %s failed\n",
                 cli::shownText(name).c_str(), call.address.c_str());
        return failure(401, "unauthorized", "the name or the password is wrong");
    }
    site.throttle.succeeded(call.address, name);
    account = *verified;
    return {};
}

std::optional<Answer> provePassword(Site& site, Call& call) {
    const auto basic = basicOf(call.authorization);
    if (!basic) {
        return failure(401, "unauthorized", "the Authorization header is not understood");
    }
    Account account;
    if (auto wrong = logIn(site, call, basic->first, basic->second, account)) {
        return wrong;
    }
    site.sessions.remember(account, basic->second);
    call.caller = {account.name, account.role, ""};
    bool known = false;
    const Route* route = findRoute(call, known);
    return route == nullptr ? std::nullopt : checkRole(call, *route);
}

std::optional<std::pair<std::string, std::string>> basicOf(const std::string& authorization) {
    constexpr std::string_view kScheme = "Basic ";
    if (strncasecmp(authorization.c_str(), kScheme.data(), kScheme.size()) != 0) {
        return {};
    }
    std::string coded = authorization.substr(kScheme.size());
    const gnutls_datum_t from{reinterpret_cast<unsigned char*>(coded.data()),
                              static_cast<unsigned>(coded.size())};
    gnutls_datum_t plain{};
    if (gnutls_base64_decode2(&from, &plain) != 0) {
        return {};
    }
    const Owned<unsigned char> freed{plain.data};
    const std::string text{reinterpret_cast<const char*>(plain.data), plain.size};
    const std::size_t colon = text.find(':');
    if (colon == std::string::npos || text.find('\0') != std::string::npos) {
        return {};
    }
    return std::pair{text.substr(0, colon), text.substr(colon + 1)};
}

void logDeed(const Call& call, const std::string& deed) {
    keldebug(kLogInfo, kToSyslog, "%s from %s: %s\n", call.caller.account.c_str(),
             call.address.c_str(), cli::shownText(deed).c_str());
}

} // namespace kelconf::web
