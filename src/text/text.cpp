#include "text/text.h"

#include <cstdlib>
#include <cstring>

namespace kelconf {

std::size_t strlens(const char* text) noexcept {
    return text == nullptr ? 0 : std::strlen(text);
}

char* newTextBuffer(std::size_t length) noexcept {
    return static_cast<char*>(std::calloc(length + 1, 1));
}

char* newText(std::string_view text) noexcept {
    auto* copy = static_cast<char*>(std::malloc(text.size() + 1));
    if (copy == nullptr) {
        return nullptr;
    }
    if (!text.empty()) {
        std::memcpy(copy, text.data(), text.size());
    }
    copy[text.size()] = '\0';
    return copy;
}

char* resizeText(char* text, std::size_t length) noexcept {
    return static_cast<char*>(std::realloc(text, length + 1));
}

void freeText(char* text) noexcept {
    std::free(text);
}

bool replaceText(char*& slot, std::string_view text) noexcept {
    char* copy = newText(text);
    if (copy == nullptr) {
        return false;
    }
    freeText(slot);
    slot = copy;
    return true;
}

} // namespace kelconf
