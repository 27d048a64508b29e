// A request as the calls of the API see it, and what they answer.
#pragma once

#include "web/accounts.h"
#include "web/events.h"
#include "web/mirror.h"
#include "web/sessions.h"
#include "web/throttle.h"

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace kelconf::web {

// The whole list as it was sent last, for as long as somebody is being sent one. Few are kept at a
// time, whatever clients do not read. Any thread; the mirror's lock is held.
struct ListCopies {
    std::weak_ptr<const std::string> last;
    std::uint64_t changes = 0; // which that is
    std::size_t size = 0;      // of the next, about
    std::shared_ptr<std::atomic<int>> kept = std::make_shared<std::atomic<int>>(0);
};

// What the server has in its hands, shared by all calls.
struct Site {
    explicit Site(std::string accounts_path) : accounts(std::move(accounts_path)) {}

    Accounts accounts;
    Sessions sessions;
    Throttle throttle;
    Mirror mirror;
    Hub hub;
    std::string set_up_code; // for who does not come from the loopback address
    std::string run;         // of this process: part of every ETag
    bool tls = false;
    ListCopies lists;
};

struct Caller {
    std::string account;
    Role role = Role::kNone;
    std::string token; // of the session; empty with a password
};

struct Call {
    std::string method;
    std::string path; // below /api/v1/; with the first slash elsewhere
    std::string name; // the last part of a path that has one
    std::vector<std::pair<std::string, std::string>> query;
    std::string address;    // of the client, without port
    bool from_here = false; // by the loopback address and no proxy
    std::string cookie;     // the session's
    std::string authorization;
    std::string csrf;
    std::string fetch_site;
    std::string origin;
    std::string host;
    std::string content_type;
    std::string if_none_match;
    std::string body;
    Caller caller;

    // The values of a key in the query.
    [[nodiscard]] std::vector<std::string> queried(std::string_view key) const;
    [[nodiscard]] bool asks(std::string_view key) const; // "1" or "true"
};

// An answer that is made while it is sent.
class Stream {
  public:
    static constexpr std::ptrdiff_t kEnd = -1;
    static constexpr std::ptrdiff_t kBroken = -2;

    Stream() = default;
    Stream(const Stream&) = delete;
    Stream& operator=(const Stream&) = delete;
    Stream(Stream&&) = delete;
    Stream& operator=(Stream&&) = delete;
    virtual ~Stream() = default;
    // Puts up to `size` bytes; 0 only after sleep().
    virtual std::ptrdiff_t read(char* to, std::size_t size) = 0;

    std::function<void()> sleep; // set by the server: no more bytes are asked for
    std::function<void()> wake;  // until this is called
};

struct Answer {
    unsigned status = 200;
    std::string body;
    std::string type = "application/json";
    std::vector<std::pair<std::string, std::string>> headers;
    std::unique_ptr<Stream> stream;            // instead of the body
    std::shared_ptr<const std::string> shared; // the same, one for many answers
};

// One value that was refused.
struct Detail {
    std::string name;
    std::string message;
    const Definition* definition = nullptr; // null: unknown to the web
};

Answer failure(unsigned status, std::string_view code, std::string_view message);
Answer refused(const std::vector<Detail>& details);
Answer slowDown(int seconds);
Answer jsonAnswer(std::string body, unsigned status = 200);
Answer noContent();

// The calls. Those marked so wait for the bus or for a hash, and run on a thread that may.
Answer getSetUp(Site& site, const Call& call);
Answer postSetUp(Site& site, const Call& call); // waits
Answer getSession(Site& site, const Call& call);
Answer postSession(Site& site, const Call& call); // waits
Answer deleteSession(Site& site, const Call& call);
Answer putPassword(Site& site, const Call& call); // waits
Answer getParameters(Site& site, const Call& call);
Answer getParameter(Site& site, const Call& call);
Answer patchParameters(Site& site, const Call& call); // waits
Answer postReset(Site& site, const Call& call);       // waits
Answer getExport(Site& site, const Call& call);       // waits
Answer postImport(Site& site, const Call& call);      // waits
Answer getStatus(Site& site, const Call& call);       // waits
Answer getEvents(Site& site, const Call& call);
Answer getAccounts(Site& site, const Call& call);
Answer postAccount(Site& site, const Call& call);   // waits
Answer patchAccount(Site& site, const Call& call);  // waits
Answer deleteAccount(Site& site, const Call& call); // waits

// One call of the API and who may make it.
struct Route {
    const char* method;
    const char* path; // one that ends with "/" has a name after it
    Role least;       // kNone: everybody
    bool waits;
    std::size_t most_bytes; // of the body
    Answer (*run)(Site& site, const Call& call);
};
// Null for none; `path_known` then tells whether another method would do. Sets call.name.
const Route* findRoute(Call& call, bool& path_known);

} // namespace kelconf::web
