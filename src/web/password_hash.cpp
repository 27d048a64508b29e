#include "web/password_hash.h"

#include "base/owned.h"

#include <crypt.h>
#include <sys/random.h>

#include <array>
#include <cstdlib>
#include <mutex>

namespace kelconf::web {

namespace {

std::mutex one_at_a_time;

std::string cryptOf(const std::string& password, const char* setting) {
    const std::lock_guard lock{one_at_a_time};
    void* work = nullptr; // crypt_ra's own buffer
    int size = 0;
    const char* hash = crypt_ra(password.c_str(), setting, &work, &size);
    std::string result = hash == nullptr ? "" : hash;
    const Owned<void> freed{work};
    return result;
}

} // namespace

std::string hashOf(const std::string& password) {
    const Owned<char> setting{crypt_gensalt_ra("$y$", 0, nullptr, 0)};
    return setting ? cryptOf(password, setting.get()) : "";
}

bool matches(const std::string& password, const std::string& hash) {
    const std::string made = cryptOf(password, hash.c_str());
    unsigned difference = made.size() == hash.size() && !made.empty() ? 0 : 1;
    for (std::size_t i = 0; i < made.size() && i < hash.size(); ++i) {
        difference |= static_cast<unsigned>(made[i] != hash[i]);
    }
    return difference == 0;
}

void matchNothing(const std::string& password) {
    hashOf(password);
}

std::string randomText(std::size_t bytes) {
    constexpr const char* kDigits = "0123456789abcdef";
    std::string text;
    for (; bytes > 0; --bytes) {
        unsigned char byte = 0;
        if (getrandom(&byte, 1, 0) != 1) {
            std::abort(); // no token is better than one that can be guessed
        }
        text += kDigits[byte >> 4U];
        text += kDigits[byte & 0xFU];
    }
    return text;
}

} // namespace kelconf::web
