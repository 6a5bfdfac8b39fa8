#pragma once

// Conversion back ends behind the public to_ustring / to_string overloads.

#include <unicode/ucnv.h>

#include <cstddef>
#include <memory>
#include <string>

namespace vela::i18n::impl {

std::string utf16_to_utf8(char16_t const* text, std::size_t length, bool strict);
std::u16string utf8_to_utf16(char const* text, std::size_t length, bool strict);

std::string utf16_to_codepage(char16_t const* text, std::size_t length, std::string const& encoding, bool strict);
std::u16string codepage_to_utf16(char const* text, std::size_t length, std::string const& encoding, bool strict);

/// Throws std::length_error when a text is too long for the 32-bit lengths of the Unicode
/// library.
void check_length(std::size_t length);

struct converter_closer {
    void operator()(UConverter* c) const noexcept { ucnv_close(c); }
};
using converter_ptr = std::unique_ptr<UConverter, converter_closer>;

/// A converter for `encoding`; throws CvtUnknownEncoding when the library has none.
converter_ptr open_converter(std::string const& encoding);

/// "U+00E9" style rendering of a code point for messages.
std::string code_point_name(char32_t c);

} // namespace vela::i18n::impl
