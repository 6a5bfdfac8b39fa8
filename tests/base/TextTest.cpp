// Text helpers against the Unicode library and an independent ASCII folding, over generated
// texts.
#include "support/ThroughOps.hpp"

#include <opc/Text.hpp>

#include <gtest/gtest.h>
#include <unicode/locid.h>
#include <unicode/unistr.h>

#include <algorithm>
#include <random>

namespace {

using opc::detail::toStringFromUTF8String;
using opc::detail::toUTF8String;
using opc::test::thrown;

/// What a refusal throws: the library's exception with `message` and a cleared code.
std::pair<std::string, boost::system::error_code> refused(std::string const& message) { return {message, {}}; }

std::u16string fromIcu(icu::UnicodeString const& s) { return std::u16string(s.getBuffer(), std::size_t(s.length())); }
icu::UnicodeString toIcu(std::u16string const& s) { return icu::UnicodeString(s.data(), static_cast<int32_t>(s.size())); }

/// Random UTF-16 over every plane (valid surrogate pairs only).
std::u16string randomText(std::mt19937& rng, std::size_t scalars) {
    static UChar32 const ranges[][2] = {{0x20, 0x7E}, {0x80, 0xD7FF}, {0xE000, 0xFFFF}, {0x10000, 0x10FFFF}};
    icu::UnicodeString out;
    for (std::size_t i = 0; i < scalars; ++i) {
        auto const& range = ranges[rng() % 4];
        out.append(std::uniform_int_distribution<UChar32>(range[0], range[1])(rng));
    }
    return fromIcu(out);
}

std::u16string randomASCII(std::mt19937& rng, std::size_t length, char16_t lo, char16_t hi) {
    std::u16string out;
    while (out.size() < length) out.push_back(static_cast<char16_t>(std::uniform_int_distribution<int>(lo, hi)(rng)));
    return out;
}

std::u16string fold(std::u16string s) {
    for (auto& c : s) c = c < 0x80 ? static_cast<char16_t>(std::tolower(c)) : c;
    return s;
}

} // namespace

// Short texts, texts around the 2048-unit pieces the host converts in, and long ones, of ASCII
// runs and characters of every width: strict conversions round-trip as ICU converts. Damaged
// at random places, lenient conversion substitutes exactly as ICU does and strict refuses.
TEST(Utf8Conversion, GeneratedAndDamagedTextsAgreeWithIcu) {
    std::mt19937 rng(3);
    static char const* const faults[] = {"\x80", "\xC3", "\xE2\x82", "\xFF", "\xF0\x9F\x98", "\xED\xA0\x80"};
    for (int round = 0; round < 200; ++round) {
        std::size_t const length = round < 60 ? round : (round < 140 ? 2030 + round % 40 : 1000 + rng() % 9000);
        std::u16string text;
        while (text.size() < length)
            text += rng() % 2 ? randomASCII(rng, rng() % 40, 0x20, 0x7E) : randomText(rng, 1 + rng() % 6);
        std::string utf8, damaged, lenient;
        toIcu(text).toUTF8String(utf8);
        SCOPED_TRACE(round);
        for (bool strict : {true, false}) {
            ASSERT_EQ(toUTF8String(text, strict), utf8);
            ASSERT_EQ(toStringFromUTF8String(utf8, strict), text);
        }
        ASSERT_EQ(opc::toUDEString(text), utf8);
        ASSERT_EQ(opc::toString(utf8, true), text);
        ASSERT_EQ(opc::toString(opc::toWideString(text)), text);
        for (char const c : utf8) damaged += rng() % 60 ? std::string(1, c) : c + std::string(faults[rng() % 6]);
        damaged += faults[round % 6];
        ASSERT_EQ(toStringFromUTF8String(damaged, false), fromIcu(icu::UnicodeString::fromUTF8(damaged)));
        EXPECT_NE(thrown([&] { toStringFromUTF8String(damaged, true); }).first, "");
        std::u16string broken = text;
        for (int n = 0; n < 8; ++n) broken.insert(rng() % (broken.size() + 1), 1, char16_t(0xD800 + rng() % 0x800));
        // Every ordered pair of the surrogate ranges' first and last units, somewhere.
        char16_t const edges[] = {0xD800, 0xDBFF, 0xDC00, 0xDFFF};
        broken.insert(rng() % (broken.size() + 1), {edges[round % 4], edges[round / 4 % 4]});
        toIcu(broken).toUTF8String(lenient);
        ASSERT_EQ(toUTF8String(broken, false), lenient);
    }
}

// The messages name the fault and where it is; ASCII-only conversions refuse anything else.
TEST(Utf8Conversion, RefusalsNameTheFault) {
    std::u16string const lone = std::u16string(u"ab") + char16_t(0xDC01);
    EXPECT_EQ(thrown([&] { toUTF8String(lone, true); }), refused("Unpaired surrogate U+DC01 at UTF-16 offset 2 cannot be converted to UTF-8"));
    EXPECT_EQ(thrown([&] { opc::toUDEString(lone); }), refused("Unpaired surrogate U+DC01 at UTF-16 offset 2 cannot be converted to UTF-8"));
    // Past the first sixteen units, inside mixed text, and a lead unit without its trail.
    std::u16string const later = std::u16string(40, u'\u00E9') + char16_t(0xD83D) + u"xyz" + std::u16string(20, u'\u6F22');
    EXPECT_EQ(thrown([&] { toUTF8String(later, true); }), refused("Unpaired surrogate U+D83D at UTF-16 offset 40 cannot be converted to UTF-8"));
    std::string const badMessage = "Invalid UTF-8 sequence starting with byte 0xC3 at offset 1";
    EXPECT_EQ(thrown([&] { toStringFromUTF8String("x\xC3(", true); }), refused(badMessage));
    EXPECT_EQ(thrown([&] { opc::toString("x\xC3(", true); }), refused(badMessage));
    EXPECT_EQ(opc::toString("x\xC3(", false), u"x\uFFFD(");
    EXPECT_EQ(opc::toStringFromASCIIStringLiteral("Content_Types"), u"Content_Types");
    EXPECT_EQ(opc::toASCIIString(u"rels/.rels"), "rels/.rels");
    EXPECT_EQ(thrown([] { opc::toStringFromASCIIStringLiteral("caf\xC3\xA9"); }), refused("Non-ASCII byte 0xC3 at offset 3"));
    EXPECT_EQ(thrown([] { opc::toASCIIString(u"caf\u00E9"); }), refused("Non-ASCII character U+00E9 at UTF-16 offset 3"));
}

// ASCII folding cuts at 1024 units; non-ASCII inside them throws, past them is cut. Full
// lower-casing matches ICU at any length, also where the result grows (U+0130).
TEST(LowerCase, AsciiFoldingAndFullLowerCasing) {
    std::mt19937 rng(5);
    for (int round = 0; round < 200; ++round) {
        std::u16string const text = randomASCII(rng, static_cast<std::size_t>(round * 7), 0, 0x7F);
        ASSERT_EQ(opc::toLowerASCIIString(text), fold(text).substr(0, 1024)) << round;
    }
    EXPECT_EQ(opc::toLowerASCIIString(std::u16string(1024, u'A') + u"\u00E9"), std::u16string(1024, u'a'));
    EXPECT_EQ(thrown([] { opc::toLowerASCIIString(u"A\u0080"); }), refused("Invalid character error.")); // the first non-ASCII unit
    for (std::size_t length : {0, 1, 1023, 1024, 1025, 3000})
        for (std::u16string const& text : {randomText(rng, length), std::u16string(length, u'\u0130')})
            ASSERT_EQ(opc::toLowerString(text), fromIcu(toIcu(text).toLower(icu::Locale::getRoot()))) << length;
}

// Generated pairs over a narrow alphabet with both cases: the difference of the first folded
// units that differ, else the sign of the length difference. Non-ASCII counts only before the
// first difference.
TEST(CaselessCompare, AgreesWithFoldedComparison) {
    std::mt19937 rng(13);
    for (int round = 0; round < 5000; ++round) {
        std::u16string a = randomASCII(rng, rng() % 13, u'A', u'c');
        std::u16string b = rng() % 4 == 0 ? a : randomASCII(rng, rng() % 13, u'A', u'c');
        if (rng() % 4 == 0)
            std::transform(b.begin(), b.end(), b.begin(), [](char16_t c) { return static_cast<char16_t>(std::toupper(c)); });
        std::u16string const fa = fold(a), fb = fold(b);
        int const got = opc::caselessCompare(a, b);
        ASSERT_EQ(got, -opc::caselessCompare(b, a)) << round;
        auto const diff = std::mismatch(fa.begin(), fa.end(), fb.begin(), fb.end());
        int const length = (fa.size() > fb.size()) - (fa.size() < fb.size());
        ASSERT_EQ(got, diff.first != fa.end() && diff.second != fb.end() ? int(*diff.first) - int(*diff.second) : length) << round;
    }
    EXPECT_EQ(opc::caselessCompare(u"b", u"a\u00E9"), 1);
    EXPECT_EQ(opc::caselessCompare(u"ab", u"ab\u00E9"), -1);
    for (auto const& [a, b] : std::vector<std::pair<std::u16string, std::u16string>>{{u"\u00E9", u"a"}, {u"a", u"\u00E9"}, {u"ab\u00E9", u"AB\u00E9x"}})
        EXPECT_EQ(thrown([&] { opc::caselessCompare(a, b); }), refused("Invalid character error."));
}

TEST(HasWhitespace, Table) {
    for (std::u16string yes : {u"a b", u"name\t", u"\u00A0x"}) EXPECT_TRUE(opc::hasWhitespace(yes));
    for (std::u16string no : {u"ab", u"", u"a\u200Bb"}) EXPECT_FALSE(opc::hasWhitespace(no));
}
