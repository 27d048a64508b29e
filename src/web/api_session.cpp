// Set-up, log-in and accounts.

#include "cli/output/shown_text.h"
#include "web/access.h"
#include "web/call.h"
#include "web/json.h"

namespace kelconf::web {

namespace {

using cli::jsonText;

Answer badRequest() {
    return failure(400, "bad_request", "the body is not the JSON object that is expected");
}

// A call from the device's own loopback address, by that name: not by a page elsewhere whose name
// leads to that address.
bool isLocal(const Call& call) {
    const std::string name = call.host.substr(0, call.host.rfind(':'));
    return call.from_here && (name == "127.0.0.1" || name == "localhost" || name == "[::1]");
}

Answer failureOf(AccountChange change) {
    switch (change) {
    case AccountChange::kUnknown:
        return failure(404, "not_found", wordsOf(change));
    case AccountChange::kSetUp:
        return failure(403, "forbidden", wordsOf(change));
    case AccountChange::kFailed:
        return failure(503, "unavailable", wordsOf(change));
    default:
        return failure(422, "refused", wordsOf(change));
    }
}

Answer sessionAnswer(const Session& session, Role role) {
    return jsonAnswer(R"({"account":{"name":)" + jsonText(session.account) + R"(,"role":")" +
                      wordOf(role) + R"("},"csrf":")" + session.csrf + R"(","expires_in":)" +
                      std::to_string(std::chrono::seconds{kIdleSession}.count()) + "}");
}

Answer begin(Site& site, Call call, const Account& account, unsigned status) {
    const Session session = site.sessions.begin(account);
    Answer answer = sessionAnswer(session, account.role);
    answer.status = status;
    answer.headers.emplace_back("Set-Cookie", "kelconf=" + session.token +
                                                  "; Path=/; HttpOnly; SameSite=Strict" +
                                                  (site.tls ? "; Secure" : ""));
    call.caller.account = account.name;
    logDeed(call, "logged in");
    return answer;
}

} // namespace

Answer getSetUp(Site& site, const Call& call) {
    const bool needed = site.accounts.setUpNeeded();
    const bool code = needed && !isLocal(call);
    return jsonAnswer(std::string{R"({"needed":)"} + (needed ? "true" : "false") +
                      R"(,"allowed":)" + (needed && !code ? "true" : "false") +
                      R"(,"code_needed":)" + (code ? "true" : "false") + "}");
}

Answer postSetUp(Site& site, const Call& call) {
    const auto object = parseJson(call.body);
    const std::string* name = object ? object->text("name") : nullptr;
    const std::string* password = object ? object->text("password") : nullptr;
    if (name == nullptr || password == nullptr) {
        return badRequest();
    }
    if (!site.accounts.setUpNeeded()) {
        return failureOf(AccountChange::kSetUp);
    }
    if (!isLocal(call)) {
        const std::string* code = object->text("code");
        if (const int wait = site.throttle.attempt(call.address, " set-up"); wait > 0) {
            return slowDown(wait);
        }
        if (code == nullptr || site.set_up_code.empty() || *code != site.set_up_code) {
            return failure(403, "forbidden", "the set-up code is missing or wrong");
        }
        site.throttle.succeeded(call.address, " set-up");
    }
    const AccountChange done = site.accounts.add(*name, Role::kAdministrator, *password, true);
    const auto account = site.accounts.find(*name);
    if (done != AccountChange::kDone || !account) {
        return failureOf(done == AccountChange::kDone ? AccountChange::kFailed : done);
    }
    return begin(site, call, *account, 201);
}

Answer postSession(Site& site, const Call& call) {
    const auto object = parseJson(call.body);
    const std::string* name = object ? object->text("name") : nullptr;
    const std::string* password = object ? object->text("password") : nullptr;
    if (name == nullptr || password == nullptr) {
        return badRequest();
    }
    Account account;
    if (auto wrong = logIn(site, call, *name, *password, account)) {
        return std::move(*wrong);
    }
    return begin(site, call, account, 200);
}

Answer getSession(Site& site, const Call& call) {
    const auto session = site.sessions.find(call.caller.token, true);
    Session shown;
    shown.account = call.caller.account;
    return sessionAnswer(session.value_or(shown), call.caller.role);
}

Answer deleteSession(Site& site, const Call& call) {
    site.sessions.end(call.caller.token);
    logDeed(call, "logged out");
    Answer answer = noContent();
    answer.headers.emplace_back("Set-Cookie",
                                "kelconf=; Path=/; HttpOnly; SameSite=Strict; Max-Age=0");
    return answer;
}

Answer putPassword(Site& site, const Call& call) {
    const auto object = parseJson(call.body);
    const std::string* old = object ? object->text("old") : nullptr;
    const std::string* fresh = object ? object->text("new") : nullptr;
    if (old == nullptr || fresh == nullptr) {
        return badRequest();
    }
    Account account;
    if (auto wrong = logIn(site, call, call.caller.account, *old, account)) {
        return wrong->status == 401 ? failure(403, "forbidden", "the old password is wrong")
                                    : std::move(*wrong);
    }
    const AccountChange done = site.accounts.change(account.name, {}, *fresh);
    if (done != AccountChange::kDone) {
        return failureOf(done);
    }
    logDeed(call, "changed the own password");
    // The other sessions of the account end; this one goes on.
    site.sessions.renew(call.caller.token, site.accounts.find(account.name).value_or(account).hash);
    return noContent();
}

Answer getAccounts(Site& site, const Call& /*call*/) {
    std::string text;
    for (const Account& account : site.accounts.list()) {
        text += text.empty() ? "" : ",";
        text += R"({"name":)" + jsonText(account.name) + R"(,"role":")" + wordOf(account.role) +
                R"("})";
    }
    return jsonAnswer(R"({"accounts":[)" + text + "]}");
}

Answer postAccount(Site& site, const Call& call) {
    const auto object = parseJson(call.body);
    const std::string* name = object ? object->text("name") : nullptr;
    const std::string* role = object ? object->text("role") : nullptr;
    const std::string* password = object ? object->text("password") : nullptr;
    if (name == nullptr || role == nullptr || password == nullptr) {
        return badRequest();
    }
    const AccountChange done = site.accounts.add(*name, roleOf(*role), *password);
    if (done != AccountChange::kDone) {
        return failureOf(done);
    }
    logDeed(call, "added the " + *role + " " + *name);
    return jsonAnswer(R"({"name":)" + jsonText(*name) + R"(,"role":")" + *role + R"("})", 201);
}

Answer patchAccount(Site& site, const Call& call) {
    const auto object = parseJson(call.body);
    const std::string* role = object ? object->text("role") : nullptr;
    const std::string* password = object ? object->text("password") : nullptr;
    if (role == nullptr && password == nullptr) {
        return badRequest();
    }
    const AccountChange done = site.accounts.change(
        call.name, role == nullptr ? std::nullopt : std::optional{roleOf(*role)},
        password == nullptr ? std::nullopt : std::optional{*password});
    if (done != AccountChange::kDone) {
        return failureOf(done);
    }
    const std::string what = password == nullptr ? "role"
                             : role == nullptr   ? "password"
                                                 : "role and password";
    logDeed(call, "changed the " + what + " of the account " + call.name);
    return noContent();
}

Answer deleteAccount(Site& site, const Call& call) {
    const AccountChange done = site.accounts.remove(call.name);
    if (done != AccountChange::kDone) {
        return failureOf(done);
    }
    logDeed(call, "removed the account " + call.name);
    return noContent();
}

} // namespace kelconf::web
