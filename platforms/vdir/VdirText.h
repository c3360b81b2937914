// Text from the store made safe for the library: calendar files and file names are bytes, while
// every text the library hands out is UTF-8.
#pragma once

#include <optional>
#include <string>
#include <string_view>

namespace vesp::vdir {

// True when `text` is well-formed UTF-8 (no overlong forms, surrogates or code points past U+10FFFF).
bool isValidUtf8(std::string_view text);

// `text` with every byte that is not part of a well-formed sequence replaced by U+FFFD.
std::string validUtf8(std::string_view text);

// A file or directory name as identifiers carry it: "%" becomes "%25" and every byte that is not
// part of a well-formed UTF-8 sequence "%XX", so distinct names stay distinct.
std::string escapedName(std::string_view name);
// The name `escaped` was made from ("%XX" back to its byte); absent when it is not such a name.
std::optional<std::string> unescapedName(std::string_view escaped);

}  // namespace vesp::vdir
