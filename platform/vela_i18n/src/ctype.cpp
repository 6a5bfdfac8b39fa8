// Case mapping and POSIX character classes over the Unicode character database.

#include <vela/i18n/ctype.hpp>

#include <unicode/uchar.h>
#include <unicode/ustring.h>
#include <unicode/utf16.h>

#include <cstdint>
#include <limits>
#include <new>
#include <stdexcept>
#include <string>

namespace vela::i18n::detail {
namespace {

bool in_posix_class(UChar32 c, unsigned mask) {
    if ((mask & ctype_space) && u_isUWhiteSpace(c)) return true;
    if ((mask & ctype_blank) && u_isblank(c)) return true;
    if ((mask & ctype_upper) && u_isUUppercase(c)) return true;
    if ((mask & ctype_lower) && u_isULowercase(c)) return true;
    if ((mask & ctype_alpha) && u_isUAlphabetic(c)) return true;
    if ((mask & ctype_digit) && u_isdigit(c)) return true;
    if ((mask & ctype_xdigit) && u_isxdigit(c)) return true;
    if ((mask & ctype_alnum) && u_hasBinaryProperty(c, UCHAR_POSIX_ALNUM)) return true;
    if ((mask & ctype_punct) && u_ispunct(c)) return true;
    if ((mask & ctype_cntrl) && u_charType(c) == U_CONTROL_CHAR) return true;
    if ((mask & ctype_print) && u_hasBinaryProperty(c, UCHAR_POSIX_PRINT)) return true;
    if ((mask & ctype_graph) && u_hasBinaryProperty(c, UCHAR_POSIX_GRAPH)) return true;
    return false;
}

} // namespace

std::size_t transform(char16_t* destination, std::size_t capacity, char16_t const* source, std::size_t length,
                      to_lower_t) {
    constexpr auto max = static_cast<std::size_t>(std::numeric_limits<int32_t>::max());
    if (length > max) {
        throw std::length_error("text too long to lower-case");
    }
    if (length == 0) {
        return 0;
    }
    UErrorCode status = U_ZERO_ERROR;
    int32_t const needed = u_strToLower(destination, static_cast<int32_t>(capacity < max ? capacity : max), source,
                                        static_cast<int32_t>(length), "", &status);
    if (status == U_BUFFER_OVERFLOW_ERROR || U_SUCCESS(status)) {
        return static_cast<std::size_t>(needed);
    }
    if (status == U_MEMORY_ALLOCATION_ERROR) {
        throw std::bad_alloc();
    }
    throw std::runtime_error(std::string("lower-casing failed: ") + u_errorName(status));
}

char16_t const* scan(unsigned mask, char16_t const* begin, char16_t const* end, is_posix_t) {
    std::size_t const n = static_cast<std::size_t>(end - begin);
    for (std::size_t i = 0; i < n;) {
        std::size_t const start = i;
        UChar32 c;
        U16_NEXT(begin, i, n, c);
        if (!U_IS_SURROGATE(c) && in_posix_class(c, mask)) {
            return begin + start;
        }
    }
    return end;
}

} // namespace vela::i18n::detail
