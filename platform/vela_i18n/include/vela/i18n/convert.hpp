#pragma once

#include <vela/i18n/cvt_exception.hpp>
#include <vela/i18n/export.hpp>

#include <string>

/// Whole-string conversions between UTF-16 (std::u16string), narrow text in a named
/// encoding (std::string), ASCII and wide text (std::wstring, UTF-32 on this platform).
///
/// Converter objects are small immutable values: they pick the encoding and the handling of
/// invalid input, and may be shared between threads. The default narrow encoding is UTF-8.
namespace vela::i18n {

namespace detail {
/// How a converter reaches its encoding: the built-in UTF-8 path or a named code page.
enum class encoding_kind { utf8,
                           codepage };
} // namespace detail

/// Narrow encoding settings shared by the two encoding converters.
class VELA_I18N_API encoding_converter_base {
public:
    /// The encoding's canonical name ("UTF-8" for the default).
    std::string const& encoding() const noexcept { return m_name; }
    /// True: invalid input throws CvtInvalidInput. False: each invalid sequence is replaced.
    bool strict() const noexcept { return m_strict; }
    detail::encoding_kind kind() const noexcept { return m_kind; }

protected:
    /// An empty name selects the default narrow encoding (UTF-8). Throws CvtUnknownEncoding
    /// when the name is not a known encoding.
    encoding_converter_base(std::string const& encoding, bool strict);

private:
    std::string m_name;
    bool m_strict;
    detail::encoding_kind m_kind;
};

/// Narrow text in `encoding` to UTF-16.
/// strict == true: an invalid byte sequence throws CvtInvalidInput with its byte offset.
/// strict == false: each invalid sequence becomes U+FFFD (a truncated multi-byte sequence
/// counts as one), and conversion never throws.
class VELA_I18N_API codecvt_string_to_ustring : public encoding_converter_base {
public:
    explicit codecvt_string_to_ustring(std::string const& encoding = std::string(), bool strict = true)
        : encoding_converter_base(encoding, strict) {}
};

/// UTF-16 to narrow text in `encoding`.
/// strict == true: a lone surrogate, or a character the encoding cannot represent, throws
/// CvtInvalidInput with its UTF-16 offset.
/// strict == false: each such unit or character becomes the encoding's substitute (the
/// UTF-8 form of U+FFFD for UTF-8, usually "?" or 0x1A for single-byte code pages).
class VELA_I18N_API codecvt_ustring_to_string : public encoding_converter_base {
public:
    explicit codecvt_ustring_to_string(std::string const& encoding = std::string(), bool strict = true)
        : encoding_converter_base(encoding, strict) {}
};

/// ASCII to UTF-16; a byte of 0x80 or above throws CvtInvalidInput.
class VELA_I18N_API codecvt_ascii_to_ustring {};

/// UTF-16 to ASCII; a unit of 0x80 or above throws CvtInvalidInput.
class VELA_I18N_API codecvt_ustring_to_ascii {};

VELA_I18N_API std::u16string to_ustring(std::string const& text, codecvt_string_to_ustring const& cvt);
VELA_I18N_API std::u16string to_ustring(std::string const& text, codecvt_ascii_to_ustring const& cvt);
/// Narrow text in the default encoding (UTF-8), strict.
VELA_I18N_API std::u16string to_ustring(std::string const& text);
/// Wide (UTF-32) text to UTF-16. Never throws a conversion error: a value that is not a
/// Unicode scalar value (a surrogate, or above U+10FFFF) becomes U+FFFD.
VELA_I18N_API std::u16string to_ustring(std::wstring const& text);

VELA_I18N_API std::string to_string(std::u16string const& text, codecvt_ustring_to_string const& cvt);
VELA_I18N_API std::string to_string(std::u16string const& text, codecvt_ustring_to_ascii const& cvt);
/// UTF-16 to the default narrow encoding (UTF-8), strict.
VELA_I18N_API std::string to_string(std::u16string const& text);

/// UTF-16 to wide (UTF-32) text. Never throws a conversion error: a lone surrogate becomes
/// U+FFFD.
VELA_I18N_API std::wstring to_wstring(std::u16string const& text);

} // namespace vela::i18n
