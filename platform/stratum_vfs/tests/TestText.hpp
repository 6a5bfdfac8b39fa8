#pragma once

// Text helpers for the storage tests, built on ICU so that they don't share code with the
// layer under test.
#include <unicode/unistr.h>

#include <string>

namespace stratum::test {

inline std::u16string u16(std::string const& utf8) {
    icu::UnicodeString text = icu::UnicodeString::fromUTF8(utf8);
    return std::u16string(reinterpret_cast<char16_t const*>(text.getBuffer()), static_cast<std::size_t>(text.length()));
}

inline std::string u8(std::u16string const& text) {
    std::string out;
    icu::UnicodeString(text.data(), static_cast<int32_t>(text.size())).toUTF8String(out);
    return out;
}

} // namespace stratum::test
