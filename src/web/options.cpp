#include "web/options.h"

#include "paths.h"
#include "web/accounts.h"

#include <getopt.h>
#include <termios.h>
#include <unistd.h>

#include <array>
#include <cstdio>
#include <iostream>

namespace kelconf::web {

namespace {

constexpr std::array<option, 8> kOptions{{{"listen", required_argument, nullptr, 'l'},
                                          {"tls-cert", required_argument, nullptr, 'c'},
                                          {"tls-key", required_argument, nullptr, 'k'},
                                          {"accounts", required_argument, nullptr, 'a'},
                                          {"root", required_argument, nullptr, 'r'},
                                          {"insecure", no_argument, nullptr, 'i'},
                                          {"help", no_argument, nullptr, 'h'},
                                          {nullptr, 0, nullptr, 0}}};

bool takeOption(int letter, WebOptions& options) {
    switch (letter) {
    case 'l':
        options.listen = optarg;
        return true;
    case 'c':
        options.certificate = optarg;
        return true;
    case 'k':
        options.key = optarg;
        return true;
    case 'a':
        options.accounts = optarg;
        return true;
    case 'r':
        options.root = optarg;
        return true;
    case 'i':
        options.insecure = true;
        return true;
    case 'h':
        options.help = true;
        return true;
    default:
        return false;
    }
}

// A line of standard input, not shown where it is typed.
std::string readPassword() {
    const bool terminal = isatty(STDIN_FILENO) == 1;
    termios before{};
    if (terminal && tcgetattr(STDIN_FILENO, &before) == 0) {
        std::cerr << "password: " << std::flush;
        termios hidden = before;
        hidden.c_lflag &= ~static_cast<tcflag_t>(ECHO);
        tcsetattr(STDIN_FILENO, TCSAFLUSH, &hidden);
    }
    std::string line;
    std::getline(std::cin, line);
    if (terminal) {
        tcsetattr(STDIN_FILENO, TCSAFLUSH, &before);
        std::cerr << '\n';
    }
    return line;
}

int finish(AccountChange change) {
    if (change != AccountChange::kDone) {
        std::cerr << "kelconf-web: " << wordsOf(change) << '\n';
    }
    return change == AccountChange::kDone ? 0 : 1;
}

} // namespace

const char* usage() {
    return "usage: kelconf-web [OPTION...]\n"
           "       kelconf-web [--accounts FILE] account add NAME ROLE   (password: standard "
           "input)\n"
           "       kelconf-web [--accounts FILE] account remove NAME\n"
           "       kelconf-web [--accounts FILE] account list\n"
           "\n"
           "Serves the parameters of the device over HTTP: the page, and an API for programs.\n"
           "\n"
           "  --listen ADDRESS:PORT            where (default 127.0.0.1:8080)\n"
           "  --tls-cert FILE --tls-key FILE   certificate chain and key (PEM)\n"
           "  --insecure                       plain HTTP beyond the loopback address\n"
           "  --accounts FILE                  the accounts\n"
           "  --root DIR                       the files of the page\n"
           "  --help                           this text\n"
           "\n"
           "ROLE is viewer (reads), operator (reads, sets) or administrator (everything).\n";
}

std::optional<WebOptions> readOptions(int argc, char** argv) {
    WebOptions options;
    options.accounts = paths::kWebAccounts;
    options.root = KELCONF_WEB_ROOT;
    for (int letter = 0; letter != -1;) {
        letter = getopt_long(argc, argv, "", kOptions.data(), nullptr);
        if (letter != -1 && !takeOption(letter, options)) {
            return {};
        }
    }
    options.words.assign(argv + optind, argv + argc);
    if (options.certificate.empty() != options.key.empty()) {
        std::cerr << "kelconf-web: --tls-cert and --tls-key go together\n";
        return {};
    }
    return options;
}

int runAccountCommand(const WebOptions& options) {
    const std::vector<std::string>& words = options.words;
    const std::string what = words.size() > 1 && words[0] == "account" ? words[1] : "";
    Accounts accounts{options.accounts};
    if (what == "list" && words.size() == 2) {
        for (const Account& account : accounts.list()) {
            std::cout << account.name << ' ' << wordOf(account.role) << '\n';
        }
        return accounts.setUpNeeded() || !accounts.list().empty() ? 0 : 1;
    }
    if (what == "add" && words.size() == 4) {
        return finish(accounts.add(words[2], roleOf(words[3]), readPassword()));
    }
    if (what == "remove" && words.size() == 3) {
        return finish(accounts.remove(words[2]));
    }
    std::cerr << usage();
    return kUsage;
}

} // namespace kelconf::web
