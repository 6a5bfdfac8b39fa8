// The public conversion entry points: pick the back end for the converter, and the small
// ASCII and wide-text conversions that need no tables.

#include "convert_impl.hpp"

#include <vela/i18n/convert.hpp>

#include <unicode/ucnv.h>
#include <unicode/utf16.h>

#include <algorithm>
#include <cstdio>
#include <string_view>

namespace vela::i18n {
namespace {

constexpr std::string_view kUtf8 = "UTF-8";

} // namespace

encoding_converter_base::encoding_converter_base(std::string const& encoding, bool strict)
    : m_name(kUtf8.data(), kUtf8.size()), m_strict(strict), m_kind(detail::encoding_kind::utf8) {
    // The common names of UTF-8 are recognised without opening a converter: conversions
    // build a converter object per call, so this must stay cheap (a length test and one
    // inlined compare for the usual spelling).
    if (encoding.empty() || std::string_view(encoding) == kUtf8 || ucnv_compareNames(encoding.c_str(), "UTF-8") == 0) {
        return;
    }
    impl::converter_ptr const cnv = impl::open_converter(encoding);
    if (ucnv_getType(cnv.get()) != UCNV_UTF8) {
        UErrorCode status = U_ZERO_ERROR;
        m_name = ucnv_getName(cnv.get(), &status);
        m_kind = detail::encoding_kind::codepage;
    }
}

std::u16string to_ustring(std::string const& text, codecvt_string_to_ustring const& cvt) {
    if (cvt.kind() == detail::encoding_kind::utf8) {
        return impl::utf8_to_utf16(text.data(), text.size(), cvt.strict());
    }
    return impl::codepage_to_utf16(text.data(), text.size(), cvt.encoding(), cvt.strict());
}

std::u16string to_ustring(std::string const& text) {
    return impl::utf8_to_utf16(text.data(), text.size(), true);
}

std::u16string to_ustring(std::string const& text, codecvt_ascii_to_ustring const&) {
    auto const bad = std::find_if(text.begin(), text.end(), [](char c) { return static_cast<unsigned char>(c) >= 0x80; });
    if (bad != text.end()) {
        auto const at = static_cast<std::size_t>(bad - text.begin());
        char hex[8];
        std::snprintf(hex, sizeof hex, "0x%02X", static_cast<unsigned>(static_cast<unsigned char>(*bad)));
        throw CvtInvalidInput("Non-ASCII byte " + std::string(hex) + " at offset " + std::to_string(at), at);
    }
    return std::u16string(text.begin(), text.end());
}

std::u16string to_ustring(std::wstring const& text) {
    std::u16string out;
    out.reserve(text.size());
    for (wchar_t const w : text) {
        auto const c = static_cast<uint32_t>(w);
        if (c < 0xD800 || (c >= 0xE000 && c < 0x10000)) {
            out.push_back(static_cast<char16_t>(c));
        } else if (c >= 0x10000 && c <= 0x10FFFF) {
            out.push_back(static_cast<char16_t>(U16_LEAD(c)));
            out.push_back(static_cast<char16_t>(U16_TRAIL(c)));
        } else {
            out.push_back(u'\uFFFD');
        }
    }
    return out;
}

std::string to_string(std::u16string const& text, codecvt_ustring_to_string const& cvt) {
    if (cvt.kind() == detail::encoding_kind::utf8) {
        return impl::utf16_to_utf8(text.data(), text.size(), cvt.strict());
    }
    return impl::utf16_to_codepage(text.data(), text.size(), cvt.encoding(), cvt.strict());
}

std::string to_string(std::u16string const& text) {
    return impl::utf16_to_utf8(text.data(), text.size(), true);
}

std::string to_string(std::u16string const& text, codecvt_ustring_to_ascii const&) {
    std::string out(text.size(), '\0');
    for (std::size_t i = 0; i < text.size(); ++i) {
        char16_t const unit = text[i];
        if (unit >= 0x80) {
            throw CvtInvalidInput("Non-ASCII character " + impl::code_point_name(unit) + " at UTF-16 offset " +
                                      std::to_string(i),
                                  i);
        }
        out[i] = static_cast<char>(unit);
    }
    return out;
}

std::wstring to_wstring(std::u16string const& text) {
    std::wstring out;
    out.reserve(text.size());
    std::size_t const n = text.size();
    for (std::size_t i = 0; i < n;) {
        UChar32 c;
        U16_NEXT(text.data(), i, n, c);
        out.push_back(U_IS_SURROGATE(c) ? L'\uFFFD' : static_cast<wchar_t>(c));
    }
    return out;
}

} // namespace vela::i18n
