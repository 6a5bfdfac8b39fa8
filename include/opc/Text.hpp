#pragma once

#include <opc/Export.hpp>

#include <string>

/// Text conversion and comparison. Paths and names are UTF-16; error details are narrow.
///
/// Conversion failures are thrown as opc::Exception carrying the text layer's message and a
/// cleared error code. The bool `strict` argument is handed to the text layer's converter:
/// true throws on invalid input, false replaces each invalid sequence.
namespace opc {

/// ASCII (NUL-terminated) to UTF-16; a byte of 0x80 or above is a conversion failure.
OPC_API std::u16string toStringFromASCIIStringLiteral(char const* text);

/// Text in the default narrow encoding (UTF-8) to UTF-16.
OPC_API std::u16string toString(std::string const& text, bool strict);

/// Wide text (UTF-32 on this platform) to UTF-16; a value that is not a Unicode scalar value
/// becomes U+FFFD. Never throws a conversion failure.
OPC_API std::u16string toString(std::wstring const& text);

/// UTF-16 to wide text; a lone surrogate becomes U+FFFD. Never throws a conversion failure.
OPC_API std::wstring toWideString(std::u16string const& text);

/// UTF-16 to ASCII; a code unit of 0x80 or above is a conversion failure.
OPC_API std::string toASCIIString(std::u16string const& text);

/// UTF-16 to the default narrow encoding (UTF-8); used for paths inside error details.
/// Strict: a lone surrogate is a conversion failure.
OPC_API std::string toUDEString(std::u16string const& text);

/// ASCII lower-casing of at most the first 1024 code units; longer text is cut to 1024 units.
/// A non-ASCII unit among them throws "Invalid character error.".
OPC_API std::u16string toLowerASCIIString(std::u16string const& text);

/// Full Unicode lower-casing of the whole text (the result may differ in length).
OPC_API std::u16string toLowerString(std::u16string const& text);

/// ASCII-caseless three-way comparison: <0, 0 or >0 (the difference of the first differing
/// folded units, or -1/1 when one text is a prefix of the other). Non-ASCII text before the
/// first difference throws "Invalid character error."; text after it is never looked at.
OPC_API int caselessCompare(std::u16string const& a, std::u16string const& b);

/// True when the text holds a white-space character (POSIX classification: Unicode
/// White_Space, so U+00A0 and U+3000 count). Does not throw.
OPC_API bool hasWhitespace(std::u16string const& text);

namespace detail {

/// UTF-16 to UTF-8.
OPC_API std::string toUTF8String(std::u16string const& text, bool strict);

/// UTF-8 to UTF-16.
OPC_API std::u16string toStringFromUTF8String(std::string const& text, bool strict);

} // namespace detail
} // namespace opc
