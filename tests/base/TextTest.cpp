// Text helpers against the Unicode library and an independent ASCII folding.
#include <opc/Exception.hpp>
#include <opc/Text.hpp>

#include <gtest/gtest.h>
#include <unicode/locid.h>
#include <unicode/unistr.h>

#include <algorithm>
#include <random>

namespace {

/// Message of the opc::Exception `f` throws; fails the test when the code is not cleared or
/// nothing is thrown.
template <typename F>
std::string thrownMessage(F&& f) {
    try {
        f();
    } catch (opc::Exception const& e) {
        EXPECT_FALSE(e.code().failed());
        return e.what();
    }
    ADD_FAILURE() << "no opc::Exception thrown";
    return std::string();
}

/// Random UTF-16 over every plane (valid surrogate pairs only).
std::u16string randomText(std::mt19937& rng, std::size_t scalars) {
    static UChar32 const ranges[][2] = {{0x20, 0x7E}, {0x80, 0xD7FF}, {0xE000, 0xFFFF}, {0x10000, 0x10FFFF}};
    icu::UnicodeString out;
    for (std::size_t i = 0; i < scalars; ++i) {
        auto const& range = ranges[rng() % 4];
        out.append(std::uniform_int_distribution<UChar32>(range[0], range[1])(rng));
    }
    return std::u16string(out.getBuffer(), static_cast<std::size_t>(out.length()));
}

std::u16string randomASCII(std::mt19937& rng, std::size_t length, char16_t lo, char16_t hi) {
    std::u16string out;
    for (std::size_t i = 0; i < length; ++i) out.push_back(static_cast<char16_t>(std::uniform_int_distribution<int>(lo, hi)(rng)));
    return out;
}

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

// Strict conversions throw the host's message naming the fault and where it is; lenient
// ones substitute U+FFFD. ASCII-only conversions refuse anything else.
TEST(Utf8Conversion, FlagSelectsThrowingOrReplacing) {
    std::u16string const lone = std::u16string(u"ab") + char16_t(0xDC01);
    EXPECT_EQ(thrownMessage([&] { opc::detail::toUTF8String(lone, true); }), "Unpaired surrogate U+DC01 at UTF-16 offset 2 cannot be converted to UTF-8");
    EXPECT_EQ(opc::detail::toUTF8String(lone, false), "ab\xEF\xBF\xBD");
    EXPECT_NE(thrownMessage([&] { opc::toUDEString(lone); }), "");
    std::string const bad = "x\xC3(";
    std::string const badMessage = "Invalid UTF-8 sequence starting with byte 0xC3 at offset 1";
    EXPECT_EQ(thrownMessage([&] { opc::detail::toStringFromUTF8String(bad, true); }), badMessage);
    EXPECT_EQ(opc::detail::toStringFromUTF8String(bad, false), u"x\uFFFD(");
    EXPECT_EQ(thrownMessage([&] { opc::toString(bad, true); }), badMessage);
    EXPECT_EQ(opc::toString(bad, false), u"x\uFFFD(");
    EXPECT_EQ(opc::toStringFromASCIIStringLiteral("Content_Types"), u"Content_Types");
    EXPECT_EQ(opc::toASCIIString(u"rels/.rels"), "rels/.rels");
    EXPECT_EQ(thrownMessage([] { opc::toStringFromASCIIStringLiteral("caf\xC3\xA9"); }), "Non-ASCII byte 0xC3 at offset 3");
    EXPECT_EQ(thrownMessage([] { opc::toASCIIString(u"caf\u00E9"); }), "Non-ASCII character U+00E9 at UTF-16 offset 3");
}

// Long texts (converted piecewise), of ASCII runs and characters of every width, damaged at
// random places: lenient conversion substitutes exactly as the Unicode library does, strict
// conversion refuses, in both directions.
TEST(Utf8Conversion, LongDamagedTextsAgreeWithIcu) {
    std::mt19937 rng(3);
    for (int round = 0; round < 80; ++round) {
        std::u16string text;
        for (std::size_t length = 1000 + rng() % 9000; text.size() < length;)
            text += rng() % 2 ? randomASCII(rng, rng() % 40, 0x20, 0x7E) : randomText(rng, 1 + rng() % 6);
        std::string utf8, damaged;
        icu::UnicodeString(text.data(), static_cast<int32_t>(text.size())).toUTF8String(utf8);
        ASSERT_EQ(opc::detail::toStringFromUTF8String(utf8, true), text) << round;
        ASSERT_EQ(opc::detail::toUTF8String(text, true), utf8) << round;
        static char const* const faults[] = {"\x80", "\xC3", "\xE2\x82", "\xFF", "\xF0\x9F\x98", "\xED\xA0\x80"};
        for (char const c : utf8) {
            damaged += c;
            if (rng() % 60 == 0)
                damaged += faults[rng() % 6];
        }
        damaged += faults[round % 6];
        icu::UnicodeString const expected = icu::UnicodeString::fromUTF8(damaged);
        ASSERT_EQ(opc::detail::toStringFromUTF8String(damaged, false),
                  std::u16string(expected.getBuffer(), static_cast<std::size_t>(expected.length()))) << round;
        EXPECT_NE(thrownMessage([&] { opc::detail::toStringFromUTF8String(damaged, true); }), "");
        std::u16string broken = text;
        for (int n = 0; n < 8; ++n)
            broken.insert(rng() % broken.size(), 1, char16_t(0xD800 + rng() % 0x800));
        std::string lenient;
        icu::UnicodeString(broken.data(), static_cast<int32_t>(broken.size())).toUTF8String(lenient);
        ASSERT_EQ(opc::detail::toUTF8String(broken, false), lenient) << round;
    }
}

TEST(ToLowerASCIIString, FoldsAsciiAndCutsAt1024Units) {
    std::mt19937 rng(5);
    for (int round = 0; round < 200; ++round) {
        std::u16string const text = randomASCII(rng, static_cast<std::size_t>(round * 7), 0, 0x7F);
        ASSERT_EQ(opc::toLowerASCIIString(text), fold(text).substr(0, 1024)) << round;
    }
    // Only the first 1024 units are checked: non-ASCII inside them throws, past them is cut.
    for (std::size_t pos : {std::size_t(0), std::size_t(1023), std::size_t(1024)}) {
        std::u16string text(1500, u'A');
        text[pos] = u'\u00E9';
        if (pos < 1024) {
            EXPECT_EQ(thrownMessage([&] { opc::toLowerASCIIString(text); }), "Invalid character error.") << pos;
        } else {
            EXPECT_EQ(opc::toLowerASCIIString(text), std::u16string(1024, u'a'));
        }
    }
}

TEST(ToLowerString, WholeTextOfAnyLengthMatchesIcu) {
    std::mt19937 rng(8);
    // Lengths around the 1024-unit buffer, including results that grow past it (U+0130).
    for (std::size_t length : {0, 1, 1023, 1024, 1025, 3000}) {
        for (std::u16string const& text : {randomText(rng, length), std::u16string(length, u'\u0130')}) {
            icu::UnicodeString expected(text.data(), static_cast<int32_t>(text.size()));
            expected.toLower(icu::Locale::getRoot());
            ASSERT_EQ(opc::toLowerString(text), std::u16string(expected.getBuffer(), static_cast<std::size_t>(expected.length()))) << length;
        }
    }
}

TEST(CaselessCompare, GeneratedPairsAgreeWithFoldedComparison) {
    std::mt19937 rng(13);
    for (int round = 0; round < 5000; ++round) {
        // A narrow alphabet with both cases makes equal prefixes and case-only differences common.
        std::u16string a = randomASCII(rng, rng() % 13, u'A', u'c');
        std::u16string b = rng() % 4 == 0 ? a : randomASCII(rng, rng() % 13, u'A', u'c');
        if (rng() % 4 == 0) std::transform(b.begin(), b.end(), b.begin(), [](char16_t c) { return static_cast<char16_t>(std::toupper(c)); });
        std::u16string const fa = fold(a), fb = fold(b);
        int const got = opc::caselessCompare(a, b);
        ASSERT_EQ(got, -opc::caselessCompare(b, a)) << round;
        auto const diff = std::mismatch(fa.begin(), fa.end(), fb.begin(), fb.end());
        if (diff.first != fa.end() && diff.second != fb.end()) {
            ASSERT_EQ(got, int(*diff.first) - int(*diff.second)) << round;
        } else {
            ASSERT_EQ(got, sign(int(fa.size()) - int(fb.size()))) << round;
        }
    }
}

TEST(CaselessCompare, NonAsciiCountsOnlyBeforeTheFirstDifference) {
    struct Row {
        std::u16string a, b;
        int expected;
    };
    for (Row const& r : {Row{u"b", u"a\u00E9", 1}, Row{u"ab", u"ab\u00E9", -1}, Row{u"ab\u00E9", u"ab", 1}, Row{u"", u"\u00E9", -1}}) {
        EXPECT_EQ(opc::caselessCompare(r.a, r.b), r.expected) << opc::toUDEString(r.a) << " vs " << opc::toUDEString(r.b);
    }
    for (auto const& [a, b] : std::vector<std::pair<std::u16string, std::u16string>>{{u"\u00E9", u"a"}, {u"a", u"\u00E9"}, {u"ab\u00E9", u"AB\u00E9x"}}) {
        EXPECT_EQ(thrownMessage([&] { opc::caselessCompare(a, b); }), "Invalid character error.");
    }
}

TEST(HasWhitespace, Table) {
    for (std::u16string yes : {u"a b", u"name\t", u"\u00A0x"}) EXPECT_TRUE(opc::hasWhitespace(yes));
    for (std::u16string no : {u"ab", u"", u"a\u200Bb"}) EXPECT_FALSE(opc::hasWhitespace(no));
}
