// UTF-8 <-> UTF-16 over the Unicode library's optimised string functions.

#include "convert_impl.hpp"

#include <vela/i18n/cvt_exception.hpp>

#include <unicode/ustring.h>
#include <unicode/utf16.h>
#include <unicode/utf8.h>

#include <cstdint>
#include <cstdio>
#include <limits>
#include <new>
#include <stdexcept>

namespace vela::i18n::impl {
namespace {

constexpr UChar32 kReplacement = 0xFFFD;

[[noreturn]] void throw_status(UErrorCode status) {
    if (status == U_MEMORY_ALLOCATION_ERROR) {
        throw std::bad_alloc();
    }
    throw CvtExceptionBase(std::string("Text conversion failed: ") + u_errorName(status));
}

/// Offset of the first unpaired surrogate; only called once a conversion has reported one.
std::size_t first_lone_surrogate(char16_t const* text, int32_t length) {
    for (int32_t i = 0; i < length;) {
        int32_t const start = i;
        UChar32 c;
        U16_NEXT(text, i, length, c);
        if (U_IS_SURROGATE(c)) {
            return static_cast<std::size_t>(start);
        }
    }
    return static_cast<std::size_t>(length);
}

/// Offset of the first ill-formed UTF-8 sequence; only called once a conversion has
/// reported one.
std::size_t first_invalid_utf8(char const* text, int32_t length) {
    auto const* bytes = reinterpret_cast<uint8_t const*>(text);
    for (int32_t i = 0; i < length;) {
        int32_t const start = i;
        UChar32 c;
        U8_NEXT(bytes, i, length, c);
        if (c < 0) {
            return static_cast<std::size_t>(start);
        }
    }
    return static_cast<std::size_t>(length);
}

/// Bytes the UTF-8 form of a UTF-16 text needs at most: 1 per ASCII unit, 2 below U+0800,
/// 3 otherwise (a surrogate pair's 4 bytes are covered by its two units' 6). A lone
/// surrogate replaced by U+FFFD also takes 3. The loop is branch-free so it vectorises.
std::size_t utf8_bound(char16_t const* text, std::size_t length) {
    std::size_t extra = 0;
    for (std::size_t i = 0; i < length; ++i) {
        extra += static_cast<std::size_t>(text[i] >= 0x80) + static_cast<std::size_t>(text[i] >= 0x800);
    }
    return length + extra;
}

} // namespace

void check_length(std::size_t length) {
    if (length > static_cast<std::size_t>(std::numeric_limits<int32_t>::max())) {
        throw std::length_error("text too long to convert");
    }
}

std::string code_point_name(char32_t c) {
    char buffer[16];
    std::snprintf(buffer, sizeof buffer, "U+%04X", static_cast<unsigned>(c));
    return buffer;
}

std::string utf16_to_utf8(char16_t const* text, std::size_t length, bool strict) {
    if (length == 0) {
        return {};
    }
    check_length(length);
    std::size_t const bound = utf8_bound(text, length);
    check_length(bound);

    std::string out(bound, '\0');
    int32_t written = 0;
    UErrorCode status = U_ZERO_ERROR;
    auto const n = static_cast<int32_t>(length);
    if (strict) {
        u_strToUTF8(out.data(), static_cast<int32_t>(bound), &written, text, n, &status);
    } else {
        u_strToUTF8WithSub(out.data(), static_cast<int32_t>(bound), &written, text, n, kReplacement, nullptr,
                           &status);
    }
    if (status == U_INVALID_CHAR_FOUND) {
        std::size_t const at = first_lone_surrogate(text, n);
        throw CvtInvalidInput("Unpaired surrogate " + code_point_name(text[at]) + " at UTF-16 offset " +
                                  std::to_string(at) + " cannot be converted to UTF-8",
                              at);
    }
    if (U_FAILURE(status)) {
        throw_status(status);
    }
    out.resize(static_cast<std::size_t>(written));
    return out;
}

std::u16string utf8_to_utf16(char const* text, std::size_t length, bool strict) {
    if (length == 0) {
        return {};
    }
    check_length(length);
    // UTF-16 never needs more units than UTF-8 has bytes, even with replacements.
    std::u16string out(length, u'\0');
    int32_t written = 0;
    UErrorCode status = U_ZERO_ERROR;
    auto const n = static_cast<int32_t>(length);
    if (strict) {
        u_strFromUTF8(out.data(), n, &written, text, n, &status);
    } else {
        u_strFromUTF8WithSub(out.data(), n, &written, text, n, kReplacement, nullptr, &status);
    }
    if (status == U_INVALID_CHAR_FOUND) {
        std::size_t const at = first_invalid_utf8(text, n);
        char hex[8];
        std::snprintf(hex, sizeof hex, "0x%02X", static_cast<unsigned>(static_cast<unsigned char>(text[at])));
        throw CvtInvalidInput("Invalid UTF-8 sequence starting with byte " + std::string(hex) + " at offset " +
                                  std::to_string(at),
                              at);
    }
    if (U_FAILURE(status)) {
        throw_status(status);
    }
    out.resize(static_cast<std::size_t>(written));
    return out;
}

} // namespace vela::i18n::impl
