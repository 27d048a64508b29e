#include "web/accounts.h"

#include "base/fd.h"
#include "log/keldebug.h"
#include "web/password_hash.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdio>
#include <cstring>

namespace kelconf::web {

namespace {

constexpr std::string_view kHeader = "# kelconf-web accounts, format 1\n";
constexpr std::size_t kMostOfFile = 65536;
constexpr std::array<const char*, 4> kRoles{"", "viewer", "operator", "administrator"};

void say(const std::string& path, const char* what) {
    keldebug(kLogError, kToBoth, "accounts %s: %s (%s)\n", path.c_str(), what,
             std::strerror(errno));
}

bool goodName(std::string_view name) {
    constexpr std::string_view kOthers = "._-";
    return !name.empty() && name.size() <= 32 && std::all_of(name.begin(), name.end(), [&](char c) {
        return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') ||
               kOthers.find(c) != std::string_view::npos;
    });
}

bool goodPassword(std::string_view password) {
    return password.size() >= 8 && password.size() <= 256 &&
           std::none_of(password.begin(), password.end(),
                        [](char c) { return static_cast<unsigned char>(c) < 0x20 || c == 0x7F; });
}

auto named(std::vector<Account>& accounts, std::string_view name) {
    return std::find_if(accounts.begin(), accounts.end(),
                        [&](const Account& account) { return account.name == name; });
}

bool anyAdministrator(const std::vector<Account>& accounts) {
    return std::any_of(accounts.begin(), accounts.end(),
                       [](const Account& account) { return account.role == Role::kAdministrator; });
}

// False for a line that is no account.
bool readLine(std::string_view line, std::vector<Account>& accounts) {
    const std::size_t first = line.find(':');
    const std::size_t second = first == std::string_view::npos ? first : line.find(':', first + 1);
    if (second == std::string_view::npos) {
        return false;
    }
    Account account{std::string{line.substr(0, first)},
                    roleOf(line.substr(first + 1, second - first - 1)),
                    std::string{line.substr(second + 1)}};
    const bool good = goodName(account.name) && account.role != Role::kNone &&
                      account.hash.starts_with('$') &&
                      named(accounts, account.name) == accounts.end();
    accounts.push_back(std::move(account));
    return good;
}

bool readContent(std::string_view content, std::vector<Account>& accounts) {
    if (!content.starts_with(kHeader) || !content.ends_with('\n')) {
        return false;
    }
    content.remove_prefix(kHeader.size());
    while (!content.empty()) {
        const std::size_t end = content.find('\n');
        if (!readLine(content.substr(0, end), accounts)) {
            return false;
        }
        content.remove_prefix(end + 1);
    }
    return true;
}

bool readWhole(int fd, std::string& content) {
    std::array<char, 4096> part{};
    for (ssize_t got = 0; content.size() <= kMostOfFile;) {
        got = readSome(fd, part.data(), part.size());
        if (got <= 0) {
            return got == 0;
        }
        content.append(part.data(), static_cast<std::size_t>(got));
    }
    return false;
}

std::string directoryOf(const std::string& path) {
    const std::size_t slash = path.rfind('/');
    return slash == std::string::npos ? "." : slash == 0 ? "/" : path.substr(0, slash);
}

// A file that root makes at a shell is for the owner of its directory, who serves.
bool giveToOwnerOf(int directory, int file) {
    struct stat about {};
    return geteuid() != 0 ||
           (fstat(directory, &about) == 0 && fchown(file, about.st_uid, about.st_gid) == 0);
}

// The old file or the new one is there whole, whenever the power fails.
bool replaceFile(const std::string& path, int directory, const std::string& content) {
    const std::string fresh = path + ".new";
    unlink(fresh.c_str());
    Fd file{open(fresh.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC | O_NOFOLLOW, 0600)};
    const bool written = file && writeAll(file.get(), content.data(), content.size()) &&
                         giveToOwnerOf(directory, file.get()) && fsync(file.get()) == 0 &&
                         file.close() == 0 && rename(fresh.c_str(), path.c_str()) == 0 &&
                         fsync(directory) == 0;
    if (!written) {
        say(path, "cannot be written");
    }
    return written;
}

} // namespace

Role roleOf(std::string_view word) {
    for (std::size_t i = 1; i < kRoles.size(); ++i) {
        if (word == kRoles[i]) {
            return static_cast<Role>(i);
        }
    }
    return Role::kNone;
}

const char* wordOf(Role role) {
    return kRoles[static_cast<std::size_t>(role)];
}

const char* wordsOf(AccountChange change) {
    constexpr std::array<const char*, 9> kWords{
        "",
        "no such account",
        "there is an account of this name",
        "the last administrator has to stay one",
        R"(a name is 1 to 32 letters, digits, ".", "_" or "-")",
        "a password is 8 to 256 bytes without control characters",
        "a role is viewer, operator or administrator",
        "there is an administrator already",
        "the accounts cannot be stored"};
    return kWords[static_cast<std::size_t>(change)];
}

Accounts::Accounts(std::string path) : path_(std::move(path)) {}

// Reads the file when it is another one than before; a file is only ever replaced, so the time of
// the change tells. The lock is held.
void Accounts::refresh() {
    struct stat about {};
    const bool missing = lstat(path_.c_str(), &about) != 0 && errno == ENOENT;
    const std::uint64_t now[4] = {about.st_dev, about.st_ino,
                                  static_cast<std::uint64_t>(about.st_size),
                                  static_cast<std::uint64_t>(about.st_ctim.tv_sec) * 1000000000U +
                                      static_cast<std::uint64_t>(about.st_ctim.tv_nsec)};
    if (std::equal(std::begin(now), std::end(now), std::begin(seen_)) && in_order_) {
        return;
    }
    const bool first = seen_[0] == 1; // no device has that number
    std::copy(std::begin(now), std::end(now), std::begin(seen_));
    accounts_.clear();
    std::string content;
    const Fd file{open(path_.c_str(), O_RDONLY | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK)};
    const bool was_in_order = in_order_ || first;
    in_order_ = missing || (file && S_ISREG(about.st_mode) && readWhole(file.get(), content) &&
                            readContent(content, accounts_));
    if (!in_order_) {
        accounts_.clear();
        if (was_in_order) {
            say(path_, "not in order, nobody can log in");
        }
    }
}

bool Accounts::setUpNeeded() {
    const std::lock_guard lock{mutex_};
    refresh();
    return in_order_ && !anyAdministrator(accounts_);
}

std::vector<Account> Accounts::list() {
    const std::lock_guard lock{mutex_};
    refresh();
    return accounts_;
}

std::optional<Account> Accounts::find(std::string_view name) {
    const std::lock_guard lock{mutex_};
    refresh();
    const auto found = named(accounts_, name);
    return found == accounts_.end() ? std::nullopt : std::optional{*found};
}

std::optional<Account> Accounts::verify(const std::string& name, const std::string& password) {
    auto account = find(name);
    if (!account) {
        matchNothing(password);
        return {};
    }
    return matches(password, account->hash) ? account : std::nullopt;
}

// Changes the accounts as they are in the file now, while no other process does.
template <typename Edit>
AccountChange Accounts::edit(Edit edit) {
    const std::lock_guard lock{mutex_};
    const std::string directory = directoryOf(path_);
    mkdir(directory.c_str(), 0700); // may be there
    const Fd held{open(directory.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC)};
    if (!held || flock(held.get(), LOCK_EX) != 0) {
        say(directory, "cannot be opened");
        return AccountChange::kFailed;
    }
    refresh();
    if (!in_order_) {
        return AccountChange::kFailed;
    }
    std::vector<Account> accounts = accounts_;
    const AccountChange result = edit(accounts);
    if (result != AccountChange::kDone) {
        return result;
    }
    if (anyAdministrator(accounts_) && !anyAdministrator(accounts)) {
        return AccountChange::kLastAdministrator;
    }
    std::string content{kHeader};
    for (const Account& account : accounts) {
        content += account.name + ":" + wordOf(account.role) + ":" + account.hash + "\n";
    }
    if (content.size() > kMostOfFile || !replaceFile(path_, held.get(), content)) {
        return AccountChange::kFailed;
    }
    refresh();
    return AccountChange::kDone;
}

AccountChange Accounts::add(const std::string& name, Role role, const std::string& password,
                            bool as_first) {
    if (!goodName(name) || !goodPassword(password) || role == Role::kNone) {
        return !goodName(name)       ? AccountChange::kBadName
               : role == Role::kNone ? AccountChange::kBadRole
                                     : AccountChange::kBadPassword;
    }
    std::string hash = hashOf(password);
    return edit([&](std::vector<Account>& accounts) {
        if (as_first && anyAdministrator(accounts)) {
            return AccountChange::kSetUp;
        }
        if (hash.empty() || named(accounts, name) != accounts.end()) {
            return hash.empty() ? AccountChange::kFailed : AccountChange::kTaken;
        }
        accounts.push_back({name, role, std::move(hash)});
        return AccountChange::kDone;
    });
}

AccountChange Accounts::change(const std::string& name, std::optional<Role> role,
                               const std::optional<std::string>& password) {
    if ((password && !goodPassword(*password)) || role == Role::kNone) {
        return role == Role::kNone ? AccountChange::kBadRole : AccountChange::kBadPassword;
    }
    const std::string hash = password ? hashOf(*password) : "";
    return edit([&](std::vector<Account>& accounts) {
        const auto account = named(accounts, name);
        if (account == accounts.end() || (password && hash.empty())) {
            return account == accounts.end() ? AccountChange::kUnknown : AccountChange::kFailed;
        }
        account->role = role.value_or(account->role);
        account->hash = password ? hash : account->hash;
        return AccountChange::kDone;
    });
}

AccountChange Accounts::remove(const std::string& name) {
    return edit([&](std::vector<Account>& accounts) {
        const auto account = named(accounts, name);
        if (account == accounts.end()) {
            return AccountChange::kUnknown;
        }
        accounts.erase(account);
        return AccountChange::kDone;
    });
}

} // namespace kelconf::web
