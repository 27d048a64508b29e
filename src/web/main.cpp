// kelconf-web: the parameters of the device in a browser (docs/web.md).

#include "base/fd.h"
#include "log/keldebug.h"
#include "web/bus.h"
#include "web/http.h"
#include "web/options.h"
#include "web/password_hash.h"
#include "web/static_files.h"

#include <pthread.h>

#include <csignal>
#include <ctime>
#include <exception>
#include <iostream>

namespace kelconf::web {

namespace {

constexpr int kFailed = 1;
constexpr std::size_t kCodeBytes = 6;

bool readPem(const std::string& path, std::string& text) {
    if (path.empty()) {
        return true;
    }
    text = contentOf(path);
    if (text.empty()) {
        std::cerr << "kelconf-web: " << path << " cannot be read\n";
    }
    return !text.empty();
}

// Until the end is asked for.
void serve(Http& http, const sigset_t& ends) {
    for (const timespec second{1, 0}; sigtimedwait(&ends, nullptr, &second) < 0;) {
        http.cutSlow();
    }
}

int run(const WebOptions& options, const sigset_t& ends) {
    HttpOptions http_options;
    bool loopback = false;
    std::string place;
    if (!readPem(options.certificate, http_options.certificate) ||
        !readPem(options.key, http_options.key)) {
        return kFailed;
    }
    Fd listening{listenAt(options.listen, loopback, place)};
    if (!listening) {
        return kFailed;
    }
    const bool tls = !http_options.certificate.empty();
    if (!tls && !loopback && !options.insecure) {
        std::cerr
            << "kelconf-web: " << options.listen
            << " is beyond the loopback address: give --tls-cert and --tls-key, or --insecure\n";
        return kUsage;
    }
    Site site{options.accounts};
    site.tls = tls;
    site.run = randomText(4);
    site.set_up_code = randomText(kCodeBytes);
    const StaticFiles files{options.root};
    http_options.listening = listening.get();
    const Watcher watcher{site.mirror, site.hub};
    Http http{site, files, http_options};
    if (!http) {
        keldebug(kLogError, kToBoth, "the web server cannot be started\n");
        return kFailed;
    }
    (void)listening.release(); // the server closes it
    const std::string url = std::string{tls ? "https://" : "http://"} + place + "/";
    keldebug(kLogInfo, kToBoth, "kelconf-web listens at %s\n", url.c_str());
    if (site.accounts.setUpNeeded()) {
        keldebug(kLogWarning, kToBoth, "no administrator yet, set-up code: %s\n",
                 site.set_up_code.c_str());
    }
    serve(http, ends);
    return 0;
}

} // namespace

} // namespace kelconf::web

int main(int argc, char** argv) {
    using namespace kelconf::web;
    try {
        const auto options = readOptions(argc, argv);
        if (!options) {
            std::cerr << usage();
            return kUsage;
        }
        if (options->help) {
            std::cout << usage();
            return 0;
        }
        if (!options->words.empty()) {
            return runAccountCommand(*options);
        }
        sigset_t ends;
        sigemptyset(&ends);
        sigaddset(&ends, SIGTERM);
        sigaddset(&ends, SIGINT);
        pthread_sigmask(SIG_BLOCK, &ends, nullptr);
        std::signal(SIGPIPE, SIG_IGN);
        return run(*options, ends);
    } catch (const std::exception& failure) {
        std::cerr << "kelconf-web: " << failure.what() << '\n';
        return kFailed;
    }
}
