// One request on its way through the server, between libmicrohttpd and the calls of the API.
#pragma once

#include "web/call.h"
#include "web/static_files.h"
#include "web/workers.h"

#include <microhttpd.h>

#include <atomic>
#include <optional>
#include <string_view>

namespace kelconf::web {

// What all requests share.
struct Exchanges {
    Site& site;
    const StaticFiles& files;
    Workers& workers;
    std::atomic<std::size_t> body_bytes{0}; // of all requests together
};

class Exchange {
  public:
    Exchange(Exchanges& shared, MHD_Connection* connection, const char* path, const char* method);
    ~Exchange();
    Exchange(const Exchange&) = delete;
    Exchange& operator=(const Exchange&) = delete;
    Exchange(Exchange&&) = delete;
    Exchange& operator=(Exchange&&) = delete;

    // The head is there, or a part of the body (size > 0), or all of it. libmicrohttpd's thread.
    MHD_Result go(const char* part, std::size_t* size);

    // The request is there whole, or needed no more.
    [[nodiscard]] bool received() const {
        return stage_ == Stage::kRunning || stage_ == Stage::kAnswered;
    }

  private:
    enum class Stage : unsigned char { kHead, kProving, kBody, kFile, kRunning, kAnswered };

    MHD_Result takeHead();
    MHD_Result takePart(const char* part, std::size_t* size);
    MHD_Result takeWhole();
    MHD_Result later(Stage stage, std::optional<Answer> (*work)(Exchange& self));
    MHD_Result answer(Answer answer);
    MHD_Result answerFile();
    [[nodiscard]] bool hasBody() const;
    [[nodiscard]] bool tooLarge() const;

    Exchanges& shared_;
    MHD_Connection* connection_;
    Call call_;
    const Route* route_ = nullptr;
    Stage stage_ = Stage::kHead;
    std::optional<Answer> answer_; // of the work that was done by another thread
};

} // namespace kelconf::web
