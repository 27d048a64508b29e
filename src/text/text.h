// The one place that allocates and frees texts.
//
// A record of this system (an xitem, a live parameter, a queued change) owns each of its texts
// as a heap allocation of its own, NUL-terminated, in the encoding in which it came (UTF-8).
// The texts are made here and freed here; they are compatible with libc's free, because
// libraries that speak C (qLibc, ZeroMQ callers) may take them over.
#pragma once

#include "base/owned.h"

#include <cstddef>
#include <string_view>

namespace kelconf {

// Length of a text in bytes; 0 for a null pointer.
[[nodiscard]] std::size_t strlens(const char* text) noexcept;

// A new text holding a copy of `text`, to be released with freeText. Null when memory is short.
[[nodiscard]] char* newText(std::string_view text) noexcept;

// A new text of `length` bytes and a terminator, all zero, for the caller to fill.
// Null when memory is short.
[[nodiscard]] char* newTextBuffer(std::size_t length) noexcept;

// Gives a text buffer room for `length` bytes and a terminator; what it held stays, what is
// added is not set. Null, with the old buffer untouched, when memory is short.
[[nodiscard]] char* resizeText(char* text, std::size_t length) noexcept;

// Releases a text of newText, newTextBuffer or malloc; a null pointer is ignored.
void freeText(char* text) noexcept;

// Replaces the text that `slot` owns by a copy of `text`, which may lie inside the old one.
// Returns false, with `slot` unchanged, when memory is short.
bool replaceText(char*& slot, std::string_view text) noexcept;

// A view of a text that may be absent.
[[nodiscard]] inline std::string_view viewOf(const char* text) noexcept {
    return text == nullptr ? std::string_view{} : std::string_view{text};
}

// Owner of a text until a record takes it over (release()).
using OwnedText = Owned<char>;

} // namespace kelconf
