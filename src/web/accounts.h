// Who may use the web, kept in a file of its own: a line NAME:ROLE:HASH for each account, the hash
// by crypt(3) (yescrypt). The file is replaced as a whole, flushed, and open to its owner alone.
//
// A file that is there and not in order lets nobody in, and is no reason for a set-up.
#pragma once

#include <cstdint>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace kelconf::web {

enum class Role : std::uint8_t { kNone, kViewer, kOperator, kAdministrator };

Role roleOf(std::string_view word); // kNone for an unknown one
const char* wordOf(Role role);

struct Account {
    std::string name;
    Role role = Role::kNone;
    std::string hash;
};

enum class AccountChange : std::uint8_t {
    kDone,
    kUnknown,
    kTaken,
    kLastAdministrator, // one has to be left
    kBadName,           // 1 to 32 of letters, digits, "." "_" "-"
    kBadPassword,       // 8 to 256 bytes, no control character
    kBadRole,
    kSetUp,  // asked to be the first administrator; there is one
    kFailed, // the file cannot be read or written; logged
};
// For people; empty for kDone.
const char* wordsOf(AccountChange change);

// Any thread. Changes by other processes are seen at the next call.
class Accounts {
  public:
    explicit Accounts(std::string path);

    // True while there is no administrator and the file is in order.
    bool setUpNeeded();
    std::vector<Account> list();
    std::optional<Account> find(std::string_view name);
    // Takes as long for an unknown name as for a known one: tens of milliseconds of one core.
    std::optional<Account> verify(const std::string& name, const std::string& password);

    AccountChange add(const std::string& name, Role role, const std::string& password,
                      bool as_first = false);
    // Nothing given leaves it as it is.
    AccountChange change(const std::string& name, std::optional<Role> role,
                         const std::optional<std::string>& password);
    AccountChange remove(const std::string& name);

  private:
    void refresh();
    template <typename Edit>
    AccountChange edit(Edit edit);

    std::string path_;
    std::mutex mutex_;
    std::vector<Account> accounts_;
    bool in_order_ = false;
    std::uint64_t seen_[4] = {1, 0, 0, 0}; // which file was read: device, inode, size, time
};

} // namespace kelconf::web
