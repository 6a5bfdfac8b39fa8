#pragma once

#include <string>

namespace stratum::storage::vfs::detail {

/// UTF-16 to UTF-8; false (and `out` unspecified) when `text` holds a lone surrogate.
bool toUtf8(std::u16string const& text, std::string& out);

/// UTF-8 to UTF-16; false when `bytes` is not valid UTF-8.
bool fromUtf8(std::string const& bytes, std::u16string& out);

/// UTF-8 for messages: invalid code units become U+FFFD instead of failing.
std::string toUtf8Lenient(std::u16string const& text);

/// Lower-cases ASCII letters only (schemes are ASCII).
std::u16string asciiLower(std::u16string text);

} // namespace stratum::storage::vfs::detail
