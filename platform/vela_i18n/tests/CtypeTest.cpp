// Lower-casing and class scans against the Unicode library.
#include "TextGenerators.hpp"

#include <vela/i18n/ctype.hpp>

#include <gtest/gtest.h>
#include <unicode/locid.h>
#include <unicode/uchar.h>
#include <unicode/unistr.h>

namespace vi = vela::i18n;

TEST(Transform, GeneratedTextMatchesRootLowerCasing) {
    std::mt19937 rng(99);
    for (int round = 0; round < 300; ++round) {
        std::u16string const text = vela_test::encodeUTF16(vela_test::randomScalars(rng, 1 + round % 60));
        icu::UnicodeString lower(text.data(), static_cast<int32_t>(text.size()));
        lower.toLower(icu::Locale::getRoot());
        std::u16string const expected(lower.getBuffer(), static_cast<std::size_t>(lower.length()));
        std::vector<char16_t> out(expected.size() + 8, u'#');
        std::size_t const needed = vi::detail::transform(out.data(), out.size(), text.data(), text.size(), vi::to_lower);
        ASSERT_EQ(std::u16string(out.data(), needed), expected);
    }
}

TEST(Transform, ReportsNeededLengthWithoutWritingPastCapacity) {
    // U+0130 lower-cases to "i" + U+0307: the result is longer than the source.
    std::u16string const text = u"A\u0130B";
    std::vector<char16_t> out(8, u'#');
    EXPECT_EQ(vi::detail::transform(out.data(), 2, text.data(), text.size(), vi::to_lower), 4u);
    EXPECT_EQ(std::u16string(out.begin() + 2, out.end()), std::u16string(6, u'#'));
    EXPECT_EQ(vi::detail::transform(out.data(), 4, text.data(), text.size(), vi::to_lower), 4u);
    EXPECT_EQ(std::u16string(out.data(), 4), u"ai\u0307b");
    EXPECT_EQ(vi::detail::transform(nullptr, 0, text.data(), 0, vi::to_lower), 0u);
}

std::size_t scanAt(unsigned mask, std::u16string const& text) {
    char16_t const* hit = vi::detail::scan(mask, text.data(), text.data() + text.size(), vi::is_posix);
    return hit == text.data() + text.size() ? std::u16string::npos : static_cast<std::size_t>(hit - text.data());
}

TEST(Scan, WhiteSpaceAgreesWithTheUnicodePropertyOnEveryBmpCharacter) {
    for (char32_t c = 0; c < 0x10000; ++c) {
        if (c >= 0xD800 && c < 0xE000) continue;
        bool const space = u_hasBinaryProperty(static_cast<UChar32>(c), UCHAR_WHITE_SPACE);
        ASSERT_EQ(scanAt(vi::ctype_space, u"ab" + std::u16string(1, static_cast<char16_t>(c)) + u"cd"), space ? 2 : std::u16string::npos)
            << std::hex << static_cast<unsigned>(c);
    }
}

TEST(Scan, OtherClasses) {
    std::size_t const none = std::u16string::npos;
    EXPECT_EQ(scanAt(vi::ctype_space, u""), none);
    EXPECT_EQ(scanAt(vi::ctype_digit, u"ab\U0001D7CE"), 2u);  // a supplementary digit, found at its lead unit
    EXPECT_EQ(scanAt(vi::ctype_digit, u"abc"), none);
    EXPECT_EQ(scanAt(vi::ctype_upper, u"abC"), 2u);
    EXPECT_EQ(scanAt(vi::ctype_punct | vi::ctype_space, u"ab!c d"), 2u);
    EXPECT_EQ(scanAt(vi::ctype_alpha, std::u16string(u"12") + char16_t(0xD800) + u"x"), 3u);  // lone surrogate skipped
}
