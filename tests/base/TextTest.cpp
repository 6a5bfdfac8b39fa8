#include <opc/Exception.hpp>
#include <opc/Text.hpp>

#include <gtest/gtest.h>
#include <unicode/locid.h>
#include <unicode/unistr.h>

#include <algorithm>
#include <random>
#include <string>
#include <vector>

namespace {

/// Message of the opc::Exception `f` throws; fails the test when the code is not cleared or
/// nothing is thrown.
template <typename F>
std::string thrownMessage(F&& f) {
    try {
        f();
    } catch (opc::Exception const& e) {
        EXPECT_EQ(e.code().value(), 0);
        EXPECT_FALSE(e.code().failed());
        return e.what();
    }
    ADD_FAILURE() << "no opc::Exception thrown";
    return std::string();
}

/// Random UTF-16 over every plane (valid surrogate pairs only).
std::u16string randomText(std::mt19937& rng, std::size_t scalars) {
    std::uniform_int_distribution<int> plane(0, 3);
    std::u16string out;
    for (std::size_t i = 0; i < scalars; ++i) {
        UChar32 c = 0;
        switch (plane(rng)) {
        case 0: c = std::uniform_int_distribution<UChar32>(0x20, 0x7E)(rng); break;
        case 1: c = std::uniform_int_distribution<UChar32>(0x80, 0xD7FF)(rng); break;
        case 2: c = std::uniform_int_distribution<UChar32>(0xE000, 0xFFFF)(rng); break;
        default: c = std::uniform_int_distribution<UChar32>(0x10000, 0x10FFFF)(rng); break;
        }
        icu::UnicodeString one(c);
        out.append(one.getBuffer(), static_cast<std::size_t>(one.length()));
    }
    return out;
}

std::u16string randomASCII(std::mt19937& rng, std::size_t length, char16_t lo = 0x20, char16_t hi = 0x7E) {
    std::uniform_int_distribution<int> unit(lo, hi);
    std::u16string out;
    for (std::size_t i = 0; i < length; ++i) out.push_back(static_cast<char16_t>(unit(rng)));
    return out;
}

/// Independent ASCII folding for the oracle.
std::u16string fold(std::u16string s) {
    for (auto& c : s) {
        if (c < 0x80) c = static_cast<char16_t>(std::tolower(static_cast<int>(c)));
    }
    return s;
}

int sign(int v) { return (v > 0) - (v < 0); }

} // namespace

TEST(Utf8Conversion, GeneratedRoundTripsAgreeWithIcu) {
    std::mt19937 rng(1);
    for (int round = 0; round < 300; ++round) {
        std::u16string const text = randomText(rng, static_cast<std::size_t>(round % 50));
        std::string expected;
        icu::UnicodeString(text.data(), static_cast<int32_t>(text.size())).toUTF8String(expected);
        for (bool strict : {true, false}) {
            ASSERT_EQ(opc::detail::toUTF8String(text, strict), expected);
            ASSERT_EQ(opc::detail::toStringFromUTF8String(expected, strict), text);
        }
        ASSERT_EQ(opc::toUDEString(text), expected);
        ASSERT_EQ(opc::toString(expected, true), text);
        ASSERT_EQ(opc::toString(opc::toWideString(text)), text);
    }
}

TEST(Utf8Conversion, FlagSelectsThrowingOrReplacing) {
    std::u16string const lone = std::u16string(u"ab") + char16_t(0xDC01);
    EXPECT_NE(thrownMessage([&] { opc::detail::toUTF8String(lone, true); }), "");
    EXPECT_EQ(opc::detail::toUTF8String(lone, false), "ab\xEF\xBF\xBD");
    EXPECT_NE(thrownMessage([&] { opc::toUDEString(lone); }), "");

    std::string const bad = "x\xC3(";
    EXPECT_NE(thrownMessage([&] { opc::detail::toStringFromUTF8String(bad, true); }), "");
    EXPECT_EQ(opc::detail::toStringFromUTF8String(bad, false), u"x\uFFFD(");
    EXPECT_NE(thrownMessage([&] { opc::toString(bad, true); }), "");
    EXPECT_EQ(opc::toString(bad, false), u"x\uFFFD(");
}

TEST(AsciiConversion, NonAsciiIsAConversionFailure) {
    EXPECT_EQ(opc::toStringFromASCIIStringLiteral("Content_Types"), u"Content_Types");
    EXPECT_EQ(opc::toStringFromASCIIStringLiteral(""), u"");
    EXPECT_EQ(opc::toASCIIString(u"rels/.rels"), "rels/.rels");
    EXPECT_NE(thrownMessage([] { opc::toStringFromASCIIStringLiteral("caf\xC3\xA9"); }), "");
    EXPECT_NE(thrownMessage([] { opc::toASCIIString(u"caf\u00E9"); }), "");
}

TEST(ToLowerASCIIString, FoldsOnlyAsciiLettersAgainstOracle) {
    std::mt19937 rng(5);
    for (int round = 0; round < 200; ++round) {
        std::u16string const text = randomASCII(rng, static_cast<std::size_t>(round * 7), 0, 0x7F);
        ASSERT_EQ(opc::toLowerASCIIString(text), fold(text).substr(0, 1024)) << round;
    }
    EXPECT_EQ(opc::toLowerASCIIString(u"ABC"), u"abc");
    EXPECT_EQ(opc::toLowerASCIIString(u"@[`{"), u"@[`{"); // neighbours of the letter ranges
    EXPECT_EQ(opc::toLowerASCIIString(u""), u"");
}

TEST(ToLowerASCIIString, CutsAt1024UnitsAndChecksOnlyThose) {
    std::u16string const longText(1500, u'Q');
    EXPECT_EQ(opc::toLowerASCIIString(longText), std::u16string(1024, u'q'));

    for (std::size_t pos : {std::size_t(0), std::size_t(500), std::size_t(1023)}) {
        std::u16string text(1500, u'a');
        text[pos] = u'\u00E9';
        EXPECT_EQ(thrownMessage([&] { opc::toLowerASCIIString(text); }), "Invalid character error.") << pos;
    }
    std::u16string tail(1500, u'A');
    tail[1024] = u'\u00E9';
    EXPECT_EQ(opc::toLowerASCIIString(tail), std::u16string(1024, u'a'));
}

TEST(ToLowerString, WholeTextOfAnyLengthMatchesIcu) {
    std::mt19937 rng(8);
    // Lengths around the 1024-unit buffer, including results that grow past it (U+0130).
    for (std::size_t length : {std::size_t(1), std::size_t(1023), std::size_t(1024), std::size_t(1025),
                               std::size_t(3000)}) {
        for (std::u16string const& text : {randomText(rng, length), std::u16string(length, u'\u0130')}) {
            icu::UnicodeString expected(text.data(), static_cast<int32_t>(text.size()));
            expected.toLower(icu::Locale::getRoot());
            ASSERT_EQ(opc::toLowerString(text),
                      std::u16string(expected.getBuffer(), static_cast<std::size_t>(expected.length())))
                << length;
        }
    }
    EXPECT_EQ(opc::toLowerString(u""), u"");
    EXPECT_EQ(opc::toLowerString(u"\u00C9COLE"), u"\u00E9cole");
}

struct CompareCase {
    std::u16string a;
    std::u16string b;
    int expected;
};

TEST(CaselessCompare, Table) {
    std::vector<CompareCase> const cases = {
        {u"abc", u"ABC", 0},  {u"ab", u"abc", -1},  {u"abd", u"ABC", 1},    {u"", u"", 0},
        {u"", u"a", -1},      {u"a", u"", 1},       {u"a", u"C", -2},       {u"Z", u"a", 25},
        {u"[", u"a", -6},     {u"b", u"a\u00E9", 1}, {u"ab", u"ab\u00E9", -1}, {u"ab\u00E9", u"ab", 1},
        {u"\u00E9", u"", 1},  {u"", u"\u00E9", -1},
    };
    for (auto const& c : cases) {
        EXPECT_EQ(opc::caselessCompare(c.a, c.b), c.expected)
            << opc::toUDEString(c.a) << " vs " << opc::toUDEString(c.b);
    }
}

TEST(CaselessCompare, NonAsciiBeforeTheFirstDifferenceThrows) {
    for (auto const& [a, b] : std::vector<std::pair<std::u16string, std::u16string>>{
             {u"\u00E9", u"a"}, {u"a", u"\u00E9"}, {u"ab\u00E9", u"AB\u00E9x"}, {u"x\u0100", u"X\u0100"}}) {
        EXPECT_EQ(thrownMessage([&] { opc::caselessCompare(a, b); }), "Invalid character error.");
    }
}

TEST(CaselessCompare, GeneratedPairsAgreeWithFoldedComparison) {
    std::mt19937 rng(13);
    std::uniform_int_distribution<int> len(0, 12);
    std::uniform_int_distribution<int> coin(0, 3);
    for (int round = 0; round < 5000; ++round) {
        // A narrow alphabet with both cases makes equal prefixes and case-only differences common.
        std::u16string a = randomASCII(rng, static_cast<std::size_t>(len(rng)), u'A', u'c');
        std::u16string b = coin(rng) == 0 ? a : randomASCII(rng, static_cast<std::size_t>(len(rng)), u'A', u'c');
        if (coin(rng) == 0) {
            for (auto& ch : b) ch = static_cast<char16_t>(std::toupper(ch));
        }
        std::u16string const fa = fold(a);
        std::u16string const fb = fold(b);
        int const got = opc::caselessCompare(a, b);
        ASSERT_EQ(sign(got), sign(fa.compare(fb))) << round;
        ASSERT_EQ(got, -opc::caselessCompare(b, a)) << round;
        auto const diff = std::mismatch(fa.begin(), fa.end(), fb.begin(), fb.end());
        if (diff.first != fa.end() && diff.second != fb.end()) {
            ASSERT_EQ(got, int(*diff.first) - int(*diff.second)) << round;
        } else {
            ASSERT_EQ(got, sign(int(fa.size()) - int(fb.size()))) << round;
        }
    }
}

TEST(HasWhitespace, Table) {
    EXPECT_TRUE(opc::hasWhitespace(u"a b"));
    EXPECT_FALSE(opc::hasWhitespace(u"ab"));
    EXPECT_FALSE(opc::hasWhitespace(u""));
    EXPECT_TRUE(opc::hasWhitespace(u"name\t"));
    EXPECT_TRUE(opc::hasWhitespace(u"\u00A0x"));
    EXPECT_FALSE(opc::hasWhitespace(u"a\u200Bb"));
}
