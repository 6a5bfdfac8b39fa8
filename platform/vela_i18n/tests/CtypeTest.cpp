#include "TextGenerators.hpp"

#include <vela/i18n/ctype.hpp>

#include <gtest/gtest.h>
#include <unicode/locid.h>
#include <unicode/uchar.h>
#include <unicode/unistr.h>

#include <random>
#include <string>
#include <vector>

namespace vi = vela::i18n;

namespace {

std::u16string icuLower(std::u16string const& s) {
    icu::UnicodeString u(s.data(), static_cast<int32_t>(s.size()));
    u.toLower(icu::Locale::getRoot());
    return std::u16string(u.getBuffer(), static_cast<std::size_t>(u.length()));
}

} // namespace

TEST(Transform, GeneratedTextMatchesRootLowerCasing) {
    std::mt19937 rng(99);
    for (int round = 0; round < 300; ++round) {
        std::u16string const text = vela_test::encodeUTF16(vela_test::randomScalars(rng, 1 + round % 60));
        std::u16string const expected = icuLower(text);
        std::vector<char16_t> out(expected.size() + 8, u'#');
        std::size_t const needed = vi::detail::transform(out.data(), out.size(), text.data(), text.size(), vi::to_lower);
        ASSERT_EQ(needed, expected.size());
        ASSERT_EQ(std::u16string(out.data(), needed), expected);
    }
}

TEST(Transform, ReportsNeededLengthWithoutWritingPastCapacity) {
    // U+0130 lower-cases to "i" + U+0307: the result is longer than the source.
    std::u16string const text = u"A\u0130B";
    std::vector<char16_t> out(8, u'#');
    EXPECT_EQ(vi::detail::transform(out.data(), 2, text.data(), text.size(), vi::to_lower), 4u);
    for (std::size_t i = 2; i < out.size(); ++i) EXPECT_EQ(out[i], u'#') << i;
    EXPECT_EQ(vi::detail::transform(out.data(), 4, text.data(), text.size(), vi::to_lower), 4u);
    EXPECT_EQ(std::u16string(out.data(), 4), u"ai\u0307b");
    EXPECT_EQ(vi::detail::transform(nullptr, 0, text.data(), 0, vi::to_lower), 0u);
}

TEST(Scan, WhiteSpaceAgreesWithTheUnicodePropertyOnEveryBmpCharacter) {
    for (char32_t c = 0; c < 0x10000; ++c) {
        if (c >= 0xD800 && c < 0xE000) continue;
        std::u16string const text = u"ab" + std::u16string(1, static_cast<char16_t>(c)) + u"cd";
        char16_t const* end = text.data() + text.size();
        char16_t const* hit = vi::detail::scan(vi::ctype_space, text.data(), end, vi::is_posix);
        bool const space = u_hasBinaryProperty(static_cast<UChar32>(c), UCHAR_WHITE_SPACE);
        ASSERT_EQ(hit, space ? text.data() + 2 : end) << std::hex << static_cast<unsigned>(c);
    }
}

struct ScanCase {
    unsigned mask;
    std::u16string text;
    std::size_t expected; // npos: not found
};

TEST(Scan, ClassesTable) {
    std::size_t const none = std::u16string::npos;
    std::vector<ScanCase> const cases = {
        {vi::ctype_space, u"", none},
        {vi::ctype_space, u"ab", none},
        {vi::ctype_space, u"a b", 1},
        {vi::ctype_space, u"\tx", 0},
        {vi::ctype_space, u"x\u3000", 1},
        {vi::ctype_space, u"x\u200B", none}, // zero-width space is not white space
        {vi::ctype_digit, u"ab\U0001D7CE", 2}, // a supplementary decimal digit, reported at its lead unit
        {vi::ctype_digit, u"abc", none},
        {vi::ctype_upper, u"abC", 2},
        {vi::ctype_punct | vi::ctype_space, u"ab!c d", 2},
        {vi::ctype_alpha, std::u16string(u"12") + char16_t(0xD800) + u"x", 3}, // lone surrogate skipped
    };
    for (auto const& c : cases) {
        char16_t const* end = c.text.data() + c.text.size();
        char16_t const* hit = vi::detail::scan(c.mask, c.text.data(), end, vi::is_posix);
        std::size_t const at = hit == end ? none : static_cast<std::size_t>(hit - c.text.data());
        EXPECT_EQ(at, c.expected) << "mask " << c.mask << " case " << (&c - cases.data());
    }
}
