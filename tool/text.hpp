// Text from outside, such as file names, made fit for a terminal. Pure functions over any bytes.
#pragma once

#include <string>
#include <string_view>
#include <vector>

namespace qzpfile {

bool isUtf8(std::string_view text);

// The text with escapes in place of whatever a terminal would obey instead of showing it, or that
// hides what stands around it: control characters ("\n", "\x1b"), marks of writing direction
// ("\u202e"), and bytes that are not UTF-8 ("\xff"). Escapes it all the same when done twice.
std::string printable(std::string_view text);

// "1bff0a": two hexadecimal digits a byte.
std::string hexOf(std::string_view bytes);

// The word of `known` that was probably meant by `word`; empty: none comes close.
std::string closest(std::string_view word, const std::vector<std::string>& known);

}  // namespace qzpfile
