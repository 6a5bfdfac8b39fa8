// Text conversion and comparison: thin frames around the host text layer, plus the
// library's own ASCII folding.

#include <opc/Exception.hpp>
#include <opc/Text.hpp>

#include <stratum/ustring/CtypeException.hpp>
#include <vela/i18n/convert.hpp>
#include <vela/i18n/ctype.hpp>
#include <vela/i18n/initialize.hpp>

#include <array>
#include <cstddef>
#include <utility>

namespace opc {
namespace {

/// Runs `work`, turning an exception of type `Caught` into opc::Exception with the same
/// message and a cleared code. Other exceptions pass through.
template <typename Caught, typename Work>
auto translated(Work&& work) -> decltype(work()) {
    try {
        return work();
    } catch (Caught const& e) {
        throw Exception(e.what(), boost::system::error_code());
    }
}

template <typename Work>
auto translateConversion(Work&& work) -> decltype(work()) {
    return translated<vela::i18n::CvtExceptionBase>(std::forward<Work>(work));
}

template <typename Work>
auto translateCtype(Work&& work) -> decltype(work()) {
    return translated<stratum::ustring::CtypeExceptionBase>(std::forward<Work>(work));
}

/// ASCII folding of one code unit; a unit of 0x80 or above is not ASCII and is refused.
char16_t foldASCII(char16_t unit) {
    if (unit >= 0x80) {
        throw stratum::ustring::CtypeInvalidCharacter();
    }
    return (unit >= u'A' && unit <= u'Z') ? static_cast<char16_t>(unit + (u'a' - u'A')) : unit;
}

/// Longest text toLowerASCIIString folds; longer input is cut to this many units.
constexpr std::size_t kASCIIFoldLimit = 1024;

/// Stack buffer of toLowerString; longer results are transformed a second time.
constexpr std::size_t kLowerBufferSize = 1024;

} // namespace

std::u16string toStringFromASCIIStringLiteral(char const* text) {
    return translateConversion(
        [&] { return vela::i18n::to_ustring(std::string(text), vela::i18n::codecvt_ascii_to_ustring()); });
}

std::u16string toString(std::string const& text, bool strict) {
    vela::i18n::initialize();
    return translateConversion(
        [&] { return vela::i18n::to_ustring(text, vela::i18n::codecvt_string_to_ustring(std::string(), strict)); });
}

std::u16string toString(std::wstring const& text) {
    return vela::i18n::to_ustring(text);
}

std::wstring toWideString(std::u16string const& text) {
    return vela::i18n::to_wstring(text);
}

std::string toASCIIString(std::u16string const& text) {
    return translateConversion([&] { return vela::i18n::to_string(text, vela::i18n::codecvt_ustring_to_ascii()); });
}

std::string toUDEString(std::u16string const& text) {
    vela::i18n::initialize();
    return translateConversion([&] { return vela::i18n::to_string(text); });
}

std::u16string toLowerASCIIString(std::u16string const& text) {
    vela::i18n::initialize();
    if (text.empty()) {
        return std::u16string();
    }
    return translateCtype([&] {
        std::u16string folded(text, 0, kASCIIFoldLimit);
        for (char16_t& unit : folded) {
            unit = foldASCII(unit);
        }
        return folded;
    });
}

std::u16string toLowerString(std::u16string const& text) {
    vela::i18n::initialize();
    if (text.empty()) {
        return std::u16string();
    }
    return translateCtype([&] {
        std::array<char16_t, kLowerBufferSize> buffer;
        std::size_t const needed =
            vela::i18n::detail::transform(buffer.data(), buffer.size(), text.data(), text.size(), vela::i18n::to_lower);
        if (needed <= buffer.size()) {
            return std::u16string(buffer.data(), needed);
        }
        std::u16string lowered(needed, u'\0');
        vela::i18n::detail::transform(lowered.data(), lowered.size(), text.data(), text.size(), vela::i18n::to_lower);
        return lowered;
    });
}

int caselessCompare(std::u16string const& a, std::u16string const& b) {
    vela::i18n::initialize();
    if (a.empty()) {
        return b.empty() ? 0 : -1;
    }
    if (b.empty()) {
        return 1;
    }
    return translateCtype([&] {
        // The shorter text's unit is folded first (a's when the lengths are equal), so the
        // order in which a non-ASCII unit is noticed does not depend on argument order.
        bool const aFirst = a.size() <= b.size();
        std::size_t const common = aFirst ? a.size() : b.size();
        for (std::size_t i = 0; i < common; ++i) {
            char16_t fa;
            char16_t fb;
            if (aFirst) {
                fa = foldASCII(a[i]);
                fb = foldASCII(b[i]);
            } else {
                fb = foldASCII(b[i]);
                fa = foldASCII(a[i]);
            }
            if (fa != fb) {
                return static_cast<int>(fa) - static_cast<int>(fb);
            }
        }
        if (a.size() == b.size()) {
            return 0;
        }
        return a.size() < b.size() ? -1 : 1;
    });
}

bool hasWhitespace(std::u16string const& text) {
    char16_t const* end = text.data() + text.size();
    return vela::i18n::detail::scan(vela::i18n::ctype_space, text.data(), end, vela::i18n::is_posix) != end;
}

namespace detail {

std::string toUTF8String(std::u16string const& text, bool strict) {
    vela::i18n::initialize();
    return translateConversion(
        [&] { return vela::i18n::to_string(text, vela::i18n::codecvt_ustring_to_string("UTF-8", strict)); });
}

std::u16string toStringFromUTF8String(std::string const& text, bool strict) {
    vela::i18n::initialize();
    return translateConversion(
        [&] { return vela::i18n::to_ustring(text, vela::i18n::codecvt_string_to_ustring("UTF-8", strict)); });
}

} // namespace detail
} // namespace opc
