// Reading parameters, the state of the store, and changes as they happen.

#include "cli/output/shown_text.h"
#include "cli/session/store_state.h"
#include "paths.h"
#include "web/access.h"
#include "web/call.h"

#include <algorithm>
#include <cstring>

namespace kelconf::web {

namespace {

Answer unavailable() {
    return failure(503, "unavailable", "the service does not answer");
}

std::string tagOf(const Site& site, const Content& content) {
    return '"' + site.run + "-" + std::to_string(content.changes) + '"';
}

// The list, made piece by piece: a client that does not read costs no memory. Values that change
// meanwhile are in it as they are by then.
class ListStream final : public Stream {
  public:
    ListStream(Site& site, const Content& content, std::vector<std::string> prefixes)
        : site_(site), definitions_(content.definitions), prefixes_(std::move(prefixes)),
          piece_(R"({"changes":)" + std::to_string(content.changes) + R"(,"parameters":[)") {}

    std::ptrdiff_t read(char* to, std::size_t size) override {
        if (sent_ == piece_.size() && !next()) {
            return broken_ ? kBroken : kEnd;
        }
        const std::size_t part = std::min(size, piece_.size() - sent_);
        piece_.copy(to, part, sent_);
        sent_ += part;
        return static_cast<std::ptrdiff_t>(part);
    }

  private:
    static constexpr std::size_t kPiece = 16384;

    bool next() {
        piece_.clear();
        sent_ = 0;
        site_.mirror.read([&](const Content& content) {
            broken_ = content.definitions != definitions_; // the service was away
            while (!broken_ && place_ < definitions_->size() && piece_.size() < kPiece) {
                add(content);
                ++place_;
            }
        });
        if (!ended_ && place_ == definitions_->size()) {
            piece_ += "]}";
            ended_ = true;
        }
        return !broken_ && !piece_.empty();
    }
    void add(const Content& content) {
        const Definition& definition = (*definitions_)[place_];
        if (content.values[place_] && isWanted(definition.parameter.name, prefixes_)) {
            piece_ += any_ ? "," : "";
            any_ = true;
            appendJson(piece_, definition, *content.values[place_]);
        }
    }

    Site& site_;
    std::shared_ptr<const Definitions> definitions_;
    std::vector<std::string> prefixes_;
    std::string piece_;
    std::size_t sent_ = 0;
    std::size_t place_ = 0;
    bool any_ = false;
    bool ended_ = false;
    bool broken_ = false;
};

// The whole list in one text; null when too many are kept already.
std::shared_ptr<const std::string> wholeList(Site& site, const Content& content) {
    constexpr int kMostKept = 4;
    ListCopies& lists = site.lists;
    auto list = lists.changes == content.changes ? lists.last.lock() : nullptr;
    if (list || *lists.kept >= kMostKept) {
        return list;
    }
    auto made = std::make_unique<std::string>(R"({"changes":)" + std::to_string(content.changes) +
                                              R"(,"parameters":[)");
    made->reserve(lists.size);
    bool any = false;
    for (std::size_t place = 0; place < content.values.size(); ++place) {
        if (content.values[place]) {
            *made += any ? "," : "";
            any = true;
            appendJson(*made, (*content.definitions)[place], *content.values[place]);
        }
    }
    *made += "]}";
    lists.size = made->size() + made->size() / 16;
    ++*lists.kept;
    list = {made.release(), [kept = lists.kept](const std::string* text) {
                delete text;
                --*kept;
            }};
    lists.last = list;
    lists.changes = content.changes;
    return list;
}

class EventStream final : public Stream {
  public:
    EventStream(Site& site, const Call& call) : site_(site) {
        subscriber_.prefixes = call.queried("prefix");
        subscriber_.sleep = [this] { sleep(); };
        subscriber_.wake = [this] { wake(); };
        subscriber_.allowed = [this, caller = call.caller] { return isAllowed(caller); };
        const bool up = site.mirror.read([](const Content& content) { return content.up; });
        added_ = site.hub.add(subscriber_,
                              up ? ":\n\n" : "event: service\ndata: {\"state\":\"down\"}\n\n");
    }
    EventStream(const EventStream&) = delete;
    EventStream& operator=(const EventStream&) = delete;
    EventStream(EventStream&&) = delete;
    EventStream& operator=(EventStream&&) = delete;
    ~EventStream() override { site_.hub.remove(subscriber_); }

    [[nodiscard]] bool added() const { return added_; }
    std::ptrdiff_t read(char* to, std::size_t size) override {
        return site_.hub.read(subscriber_, to, size);
    }

  private:
    // The account and, where there is one, the session are still there.
    bool isAllowed(const Caller& caller) {
        const auto account = site_.accounts.find(caller.account);
        const auto session = site_.sessions.find(caller.token, false);
        return account && (caller.token.empty() || (session && session->hash == account->hash));
    }

    Site& site_;
    Subscriber subscriber_;
    bool added_ = false;
};

} // namespace

Answer getParameters(Site& site, const Call& call) {
    return site.mirror.read([&](const Content& content) {
        if (!content.up) {
            return unavailable();
        }
        const std::string tag = tagOf(site, content);
        Answer answer;
        answer.headers.emplace_back("ETag", tag);
        if (call.if_none_match == tag) {
            answer.status = 304;
            return answer;
        }
        const auto prefixes = call.queried("prefix");
        answer.shared = prefixes.empty() ? wholeList(site, content) : nullptr;
        if (!answer.shared) {
            answer.stream = std::make_unique<ListStream>(site, content, prefixes);
        }
        return answer;
    });
}

Answer getParameter(Site& site, const Call& call) {
    return site.mirror.read([&](const Content& content) {
        std::size_t place = 0;
        const std::string* value = valueOf(content, call.name, place);
        if (!content.up || value == nullptr) {
            return content.up ? failure(404, "not_found", "no such parameter") : unavailable();
        }
        std::string text;
        appendJson(text, (*content.definitions)[place], *value);
        return jsonAnswer(std::move(text));
    });
}

Answer getStatus(Site& site, const Call& /*call*/) {
    const auto [up, live, changes] = site.mirror.read([](const Content& content) {
        return std::tuple{content.up, content.live, content.changes};
    });
    const cli::StoreState state = cli::judgeStore(
        {paths::kLiveDb, paths::kLiveDbMd5, paths::kLiveDbSeal, paths::kLiveDbJournal, "CONFIG"},
        up);
    return jsonAnswer(std::string{R"({"service":")"} + (up ? "up" : "down") + R"(","parameters":)" +
                      std::to_string(live) + R"(,"changes":)" + std::to_string(changes) +
                      R"(,"state":)" + cli::jsonText(state.word) + "}");
}

Answer getEvents(Site& site, const Call& call) {
    auto stream = std::make_unique<EventStream>(site, call);
    if (!stream->added()) {
        return failure(503, "too_many", "too many subscribers");
    }
    Answer answer;
    answer.type = "text/event-stream";
    answer.stream = std::move(stream);
    return answer;
}

} // namespace kelconf::web
