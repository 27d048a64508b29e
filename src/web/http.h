// The HTTP server: libmicrohttpd's event loop in one thread, which never waits for anything else.
//
// Limits (docs/web.md): connections, in all and of an address; the time that a request may take to
// come; its head; its body by the call, and all bodies together.
#pragma once

#include "web/call.h"
#include "web/static_files.h"

#include <memory>
#include <string>

namespace kelconf::web {

struct HttpOptions {
    int listening = -1;      // a socket that listens; taken over
    std::string certificate; // PEM; both empty: no TLS
    std::string key;
};

// From construction to destruction.
class Http {
  public:
    Http(Site& site, const StaticFiles& files, const HttpOptions& options);
    ~Http();
    Http(const Http&) = delete;
    Http& operator=(const Http&) = delete;
    Http(Http&&) = delete;
    Http& operator=(Http&&) = delete;

    // False when it could not be started.
    explicit operator bool() const;
    // Cuts connections whose request takes too long; to be called every second or so.
    void cutSlow();

    struct State; // of the source file

  private:
    std::unique_ptr<State> state_;
};

} // namespace kelconf::web
