// Conversions against a reference encoder and the Unicode library: generated round trips,
// damaged input under both flag values, code pages.
#include "TextGenerators.hpp"

#include <vela/i18n/convert.hpp>

#include <gtest/gtest.h>
#include <unicode/ucnv.h>
#include <unicode/unistr.h>
#include <unicode/ustring.h>
#include <unicode/utf8.h>


namespace vi = vela::i18n;
using vela_test::encodeUTF16;
using vela_test::encodeUTF8;
using vela_test::randomScalars;

namespace {

std::string utf8(std::u16string const& s, bool strict = true) {
    return vi::to_string(s, vi::codecvt_ustring_to_string("UTF-8", strict));
}
std::u16string fromUtf8(std::string const& s, bool strict = true) {
    return vi::to_ustring(s, vi::codecvt_string_to_ustring("UTF-8", strict));
}

template <typename F>
std::size_t invalidPosition(F&& f) {
    try {
        f();
    } catch (vi::CvtInvalidInput const& e) {
        EXPECT_NE(std::string(e.what()), "");
        return e.position();
    }
    ADD_FAILURE() << "no CvtInvalidInput thrown";
    return std::string::npos;
}

} // namespace

TEST(Utf8, GeneratedRoundTripsAgreeWithReferenceAndIcu) {
    std::mt19937 rng(20240309);
    for (int round = 0; round < 400; ++round) {
        auto const scalars = randomScalars(rng, static_cast<std::size_t>(round % 97));
        std::u16string const u16 = encodeUTF16(scalars);
        std::string const expected = encodeUTF8(scalars);
        for (bool strict : {true, false}) {
            ASSERT_EQ(utf8(u16, strict), expected) << "round " << round;
            ASSERT_EQ(fromUtf8(expected, strict), u16) << "round " << round;
        }
        std::string viaIcu;
        icu::UnicodeString(u16.data(), static_cast<int32_t>(u16.size())).toUTF8String(viaIcu);
        ASSERT_EQ(viaIcu, expected);
        // The default narrow encoding is UTF-8 too.
        ASSERT_EQ(vi::to_string(u16), expected);
        ASSERT_EQ(vi::to_ustring(expected), u16);
    }
}

struct BadUtf8 {
    char const* name;
    std::string bytes;
    std::size_t position;    // first invalid byte, strict mode
    std::u16string replaced; // lenient mode
};

class InvalidUtf8 : public ::testing::TestWithParam<BadUtf8> {};

TEST_P(InvalidUtf8, StrictReportsPositionLenientSubstitutes) {
    EXPECT_EQ(invalidPosition([&] { fromUtf8(GetParam().bytes, true); }), GetParam().position);
    EXPECT_EQ(fromUtf8(GetParam().bytes, false), GetParam().replaced);
}

INSTANTIATE_TEST_SUITE_P(
    Table, InvalidUtf8,
    ::testing::Values(BadUtf8{"TruncatedAtEnd", "x\xE2\x82", 1, u"x\uFFFD"},
                      BadUtf8{"TruncatedBeforeAscii", "\xF0\x9F\x98" "z", 0, u"\uFFFDz"},
                      BadUtf8{"Overlong", "\xC0\xAF", 0, u"\uFFFD\uFFFD"},
                      BadUtf8{"EncodedSurrogate", "ok\xED\xA0\x80", 2, u"ok\uFFFD\uFFFD\uFFFD"},
                      BadUtf8{"AboveMax", "\xF4\x90\x80\x80", 0, u"\uFFFD\uFFFD\uFFFD\uFFFD"}),
    [](auto const& info) { return std::string(info.param.name); });

// A never-valid byte in UTF-8, or a lone surrogate in UTF-16, inserted into generated text:
// strict mode reports where, lenient mode puts one U+FFFD there.
TEST(Invalid, GeneratedDamageIsFoundWhereInserted) {
    std::mt19937 rng(7);
    for (int round = 0; round < 300; ++round) {
        auto const scalars = randomScalars(rng, 1 + static_cast<std::size_t>(round % 40));
        std::size_t const cut = std::uniform_int_distribution<std::size_t>(0, scalars.size())(rng);
        std::vector<char32_t> const head(scalars.begin(), scalars.begin() + static_cast<long>(cut));
        std::vector<char32_t> const tail(scalars.begin() + static_cast<long>(cut), scalars.end());

        std::string const bytes = encodeUTF8(head) + ((round % 2) ? '\xFF' : '\x80') + encodeUTF8(tail);
        ASSERT_EQ(invalidPosition([&] { fromUtf8(bytes, true); }), encodeUTF8(head).size());
        ASSERT_EQ(fromUtf8(bytes, false), encodeUTF16(head) + u'\uFFFD' + encodeUTF16(tail));

        // A trail unit alone, or a lead unit followed by something that is not a trail unit.
        bool const lead = round % 3 == 0;
        std::u16string const lone = lead ? std::u16string{char16_t(0xD800 + round), u'x'} : std::u16string{char16_t(0xDC00 + round)};
        std::u16string const text = encodeUTF16(head) + lone + encodeUTF16(tail);
        ASSERT_EQ(invalidPosition([&] { utf8(text, true); }), encodeUTF16(head).size());
        ASSERT_EQ(utf8(text, false), encodeUTF8(head) + (lead ? "\xEF\xBF\xBDx" : "\xEF\xBF\xBD") + encodeUTF8(tail));
        ASSERT_THROW(vi::to_string(text), vi::CvtInvalidInput);
    }
}

TEST(Ascii, BothDirectionsRejectNonAsciiWithPosition) {
    std::string all;
    for (int c = 0; c < 0x80; ++c) all.push_back(static_cast<char>(c));
    std::u16string const wide = vi::to_ustring(all, vi::codecvt_ascii_to_ustring());
    EXPECT_EQ(wide, std::u16string(all.begin(), all.end()));
    EXPECT_EQ(vi::to_string(wide, vi::codecvt_ustring_to_ascii()), all);
    for (int c = 0x80; c < 0x100; ++c) {
        EXPECT_EQ(invalidPosition([&] { vi::to_ustring("ab" + std::string(1, static_cast<char>(c)), vi::codecvt_ascii_to_ustring()); }), 2u);
    }
    for (char16_t u : {char16_t(0x80), char16_t(0xD800), char16_t(0xFFFF)}) {
        EXPECT_EQ(invalidPosition([&] { vi::to_string(u"xyz" + std::u16string(1, u), vi::codecvt_ustring_to_ascii()); }), 3u);
    }
}

TEST(Wide, RoundTripAndReplacementOfNonScalars) {
    std::mt19937 rng(3);
    for (int round = 0; round < 200; ++round) {
        auto const scalars = randomScalars(rng, static_cast<std::size_t>(round));
        ASSERT_EQ(vi::to_ustring(std::wstring(scalars.begin(), scalars.end())), encodeUTF16(scalars));
        ASSERT_EQ(vi::to_wstring(encodeUTF16(scalars)), std::wstring(scalars.begin(), scalars.end()));
    }
    EXPECT_EQ(vi::to_wstring(std::u16string(u"a") + char16_t(0xD800) + u"b"), L"a\uFFFDb");
    EXPECT_EQ(vi::to_wstring(std::u16string(1, char16_t(0xDFFF))), L"\uFFFD");
    EXPECT_EQ(vi::to_ustring(std::wstring{L'a', static_cast<wchar_t>(0xD800), static_cast<wchar_t>(0x110000)}), u"a\uFFFD\uFFFD");
}

TEST(Encodings, NamesAndCodePages) {
    EXPECT_EQ(vi::codecvt_string_to_ustring().encoding(), "UTF-8");
    EXPECT_EQ(vi::codecvt_string_to_ustring("utf8").kind(), vi::detail::encoding_kind::utf8);
    EXPECT_EQ(vi::codecvt_ustring_to_string("ISO-8859-1").kind(), vi::detail::encoding_kind::codepage);
    EXPECT_THROW(vi::codecvt_string_to_ustring("no-such-encoding"), vi::CvtUnknownEncoding);
    EXPECT_THROW(vi::codecvt_ustring_to_string("no-such-encoding", false), vi::CvtExceptionBase);
    // Latin-1 is the identity on bytes.
    std::string all;
    for (int c = 1; c < 0x100; ++c) all.push_back(static_cast<char>(c));
    std::u16string const text = vi::to_ustring(all, vi::codecvt_string_to_ustring("ISO-8859-1", true));
    std::u16string identity;
    for (char c : all) identity.push_back(static_cast<char16_t>(static_cast<unsigned char>(c)));
    EXPECT_EQ(text, identity);
    EXPECT_EQ(vi::to_string(text, vi::codecvt_ustring_to_string("ISO-8859-1", true)), all);
    // Shift_JIS takes two bytes per kana: the output buffer must grow past its first guess.
    std::u16string const kana(5000, u'\u3042');
    std::string const bytes = vi::to_string(kana, vi::codecvt_ustring_to_string("Shift_JIS", true));
    EXPECT_EQ(bytes.size(), 10000u);
    EXPECT_EQ(vi::to_ustring(bytes, vi::codecvt_string_to_ustring("Shift_JIS", true)), kana);
}

TEST(Encodings, UnmappableCharactersUnderBothFlags) {
    std::u16string const text = u"caf\u00E9 \u20AC\U0001F600!";
    EXPECT_EQ(invalidPosition([&] { vi::to_string(text, vi::codecvt_ustring_to_string("ISO-8859-1", true)); }), 5u);
    char sub[8];
    int8_t subLength = sizeof sub;
    UErrorCode status = U_ZERO_ERROR;
    UConverter* cnv = ucnv_open("ISO-8859-1", &status);
    ucnv_getSubstChars(cnv, sub, &subLength, &status);
    ucnv_close(cnv);
    ASSERT_TRUE(U_SUCCESS(status));
    std::string const s(sub, static_cast<std::size_t>(subLength));
    EXPECT_EQ(vi::to_string(text, vi::codecvt_ustring_to_string("ISO-8859-1", false)), "caf\xE9 " + s + s + "!");
    // windows-1252 maps 0x80 to the euro sign; US-ASCII has no byte 0x81.
    EXPECT_EQ(vi::to_ustring("\x80", vi::codecvt_string_to_ustring("windows-1252")), u"\u20AC");
    EXPECT_EQ(invalidPosition([&] { vi::to_ustring("ab\x81", vi::codecvt_string_to_ustring("US-ASCII")); }), 2u);
    std::u16string const replaced = vi::to_ustring("ab\x81z", vi::codecvt_string_to_ustring("US-ASCII", false));
    ASSERT_EQ(replaced.size(), 4u);
    EXPECT_EQ(replaced.substr(0, 2) + replaced[3], u"abz");
    EXPECT_NE(replaced[2], u'\x81');
}

// Texts far longer than the converter's internal chunks, damaged at random places, against
// the Unicode library's own whole-string conversion with substitution.
TEST(Utf8, LongTextsWithDamageMatchIcuAcrossChunkBoundaries) {
    std::mt19937 rng(17);
    for (int round = 0; round < 40; ++round) {
        auto const scalars = randomScalars(rng, 3000 + static_cast<std::size_t>(round) * 97);
        std::string bytes = encodeUTF8(scalars);
        std::u16string units = encodeUTF16(scalars);
        for (int d = 0; d < round % 6; ++d) {
            bytes[std::uniform_int_distribution<std::size_t>(0, bytes.size() - 1)(rng)] = static_cast<char>(std::uniform_int_distribution<int>(0x80, 0xFF)(rng));
            units[std::uniform_int_distribution<std::size_t>(0, units.size() - 1)(rng)] = static_cast<char16_t>(std::uniform_int_distribution<int>(0xD800, 0xDFFF)(rng));
        }
        std::u16string fromIcu(bytes.size(), u'\0');
        int32_t n = 0;
        UErrorCode status = U_ZERO_ERROR;
        u_strFromUTF8WithSub(fromIcu.data(), static_cast<int32_t>(fromIcu.size()), &n, bytes.data(), static_cast<int32_t>(bytes.size()), 0xFFFD, nullptr, &status);
        ASSERT_TRUE(U_SUCCESS(status));
        fromIcu.resize(static_cast<std::size_t>(n));
        ASSERT_EQ(fromUtf8(bytes, false), fromIcu) << round;

        std::string toIcu(units.size() * 3, '\0');
        status = U_ZERO_ERROR;
        u_strToUTF8WithSub(toIcu.data(), static_cast<int32_t>(toIcu.size()), &n, units.data(), static_cast<int32_t>(units.size()), 0xFFFD, nullptr, &status);
        ASSERT_TRUE(U_SUCCESS(status));
        toIcu.resize(static_cast<std::size_t>(n));
        ASSERT_EQ(utf8(units, false), toIcu) << round;

        // Strict mode reports the first ill-formed sequence found by walking code points.
        std::size_t firstBad = std::string::npos;
        for (int32_t i = 0, len = static_cast<int32_t>(bytes.size()); i < len && firstBad == std::string::npos;) {
            int32_t const start = i;
            UChar32 c;
            U8_NEXT(reinterpret_cast<uint8_t const*>(bytes.data()), i, len, c);
            if (c < 0) firstBad = static_cast<std::size_t>(start);
        }
        if (firstBad == std::string::npos) {
            ASSERT_EQ(fromUtf8(bytes, true), fromIcu);
        } else {
            ASSERT_EQ(invalidPosition([&] { fromUtf8(bytes, true); }), firstBad) << round;
        }
    }
}
