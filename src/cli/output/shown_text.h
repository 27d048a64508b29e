// Texts of parameters for terminals and for JSON: what a text holds never acts on either.
#pragma once

#include <string>
#include <string_view>

namespace kelconf::cli {

// Length in bytes of the character of UTF-8 that `text` begins with; 0 when it begins with none
// (cut, overlong, a surrogate, beyond U+10FFFF, or `text` is empty). `code` gets its number.
std::size_t utf8Character(std::string_view text, char32_t& code);

// Control characters (C0, DEL, C1), line and paragraph separators, controls of the writing
// direction.
bool actsOnTerminal(char32_t code);

// "\xHH".
void appendHex(std::string& text, char byte);

// "\n", "\r", "\t", or "\xHH" for each byte.
void appendEscaped(std::string& text, std::string_view bytes);

// For people: characters that act on a terminal and bytes that are no UTF-8 become \n, \r, \t or
// \xHH for each of their bytes. The rest stays as it is, a backslash too.
std::string shownText(std::string_view text);

// True when shownText would change nothing.
bool showsAsItIs(std::string_view text);

// Columns that a shown text takes, a character counted as one.
std::size_t shownWidth(std::string_view shown);

// A JSON string with its quotes; bytes that are no UTF-8 become U+FFFD.
std::string jsonText(std::string_view text);

} // namespace kelconf::cli
