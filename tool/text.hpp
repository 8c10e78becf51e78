// Makes text from outside, such as file names, safe for a terminal. Pure functions over any bytes.
#pragma once

#include <string>
#include <string_view>
#include <vector>

namespace qzpfile {

bool isUtf8(std::string_view text);

// Escapes what a terminal would obey instead of showing it, and what hides the text around it:
// control characters ("\n", "\x1b"), marks of writing direction ("\u202e"), and bytes that are not
// UTF-8 ("\xff"). Escaped text passes through unchanged.
std::string printable(std::string_view text);

// "1bff0a": two hexadecimal digits per byte.
std::string hexOf(std::string_view bytes);

// The known word that `word` was probably meant to be; empty: none is close.
std::string closest(std::string_view word, const std::vector<std::string>& known);

}  // namespace qzpfile
