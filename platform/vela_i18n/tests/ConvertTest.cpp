#include "TextGenerators.hpp"

#include <vela/i18n/convert.hpp>
#include <vela/i18n/initialize.hpp>

#include <gtest/gtest.h>
#include <unicode/ucnv.h>
#include <unicode/unistr.h>
#include <unicode/ustring.h>
#include <unicode/utf8.h>

#include <random>
#include <string>
#include <thread>
#include <vector>

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

TEST(Initialize, ConcurrentAndRepeatedCallsSucceed) {
    std::vector<std::thread> threads;
    for (int i = 0; i < 4; ++i) {
        threads.emplace_back([] {
            for (int j = 0; j < 100; ++j) vi::initialize();
        });
    }
    for (auto& t : threads) t.join();
    EXPECT_NO_THROW(vi::initialize());
}

TEST(Utf8, GeneratedRoundTripsAgreeWithReferenceAndIcu) {
    std::mt19937 rng(20240309);
    for (int round = 0; round < 400; ++round) {
        auto const scalars = randomScalars(rng, static_cast<std::size_t>(round % 97));
        std::u16string const u16 = encodeUTF16(scalars);
        std::string const expected = encodeUTF8(scalars);

        for (bool strict : {true, false}) {
            std::string const bytes = utf8(u16, strict);
            ASSERT_EQ(bytes, expected) << "round " << round;
            ASSERT_EQ(fromUtf8(bytes, strict), u16) << "round " << round;
        }
        std::string viaIcu;
        icu::UnicodeString(u16.data(), static_cast<int32_t>(u16.size())).toUTF8String(viaIcu);
        ASSERT_EQ(viaIcu, expected);
        // The default narrow encoding is UTF-8 too.
        ASSERT_EQ(vi::to_string(u16), expected);
        ASSERT_EQ(vi::to_ustring(expected), u16);
    }
}

TEST(Utf8, EmbeddedNulIsKept) {
    std::u16string const text(u"a\0b", 3);
    EXPECT_EQ(utf8(text), std::string("a\0b", 3));
    EXPECT_EQ(fromUtf8(std::string("a\0b", 3)), text);
}

struct BadUtf8 {
    char const* name;
    std::string bytes;
    std::size_t position;   // first invalid byte, strict mode
    std::u16string replaced; // lenient mode
};

class InvalidUtf8 : public ::testing::TestWithParam<BadUtf8> {};

TEST_P(InvalidUtf8, StrictReportsPositionLenientSubstitutes) {
    BadUtf8 const& c = GetParam();
    EXPECT_EQ(invalidPosition([&] { fromUtf8(c.bytes, true); }), c.position);
    EXPECT_EQ(fromUtf8(c.bytes, false), c.replaced);
}

INSTANTIATE_TEST_SUITE_P(
    Table, InvalidUtf8,
    ::testing::Values(BadUtf8{"LoneContinuation", "ab\x80"
                                                  "c",
                              2, u"ab\uFFFDc"},
                      BadUtf8{"TruncatedAtEnd", "x\xE2\x82", 1, u"x\uFFFD"},
                      BadUtf8{"TruncatedBeforeAscii", "\xF0\x9F\x98"
                                                      "z",
                              0, u"\uFFFDz"},
                      BadUtf8{"Overlong", "\xC0\xAF", 0, u"\uFFFD\uFFFD"},
                      BadUtf8{"EncodedSurrogate", "ok\xED\xA0\x80", 2, u"ok\uFFFD\uFFFD\uFFFD"},
                      BadUtf8{"AboveMax", "\xF4\x90\x80\x80", 0, u"\uFFFD\uFFFD\uFFFD\uFFFD"},
                      BadUtf8{"NeverValidByte", "\xC3\xA9\xFF", 2, u"\u00E9\uFFFD"}),
    [](auto const& info) { return std::string(info.param.name); });

TEST(Utf8, GeneratedInvalidBytesAreFoundWhereInserted) {
    std::mt19937 rng(7);
    for (int round = 0; round < 200; ++round) {
        auto const scalars = randomScalars(rng, 1 + static_cast<std::size_t>(round % 40));
        std::size_t const cut = std::uniform_int_distribution<std::size_t>(0, scalars.size())(rng);
        std::vector<char32_t> const head(scalars.begin(), scalars.begin() + static_cast<long>(cut));
        std::vector<char32_t> const tail(scalars.begin() + static_cast<long>(cut), scalars.end());
        char const bad = (round % 2) ? '\xFF' : '\xFE';
        std::string const bytes = encodeUTF8(head) + bad + encodeUTF8(tail);

        ASSERT_EQ(invalidPosition([&] { fromUtf8(bytes, true); }), encodeUTF8(head).size());
        ASSERT_EQ(fromUtf8(bytes, false), encodeUTF16(head) + u'\uFFFD' + encodeUTF16(tail));
    }
}

TEST(Utf16, GeneratedLoneSurrogatesAreFoundWhereInserted) {
    std::mt19937 rng(11);
    for (int round = 0; round < 200; ++round) {
        auto const scalars = randomScalars(rng, 1 + static_cast<std::size_t>(round % 40));
        std::size_t const cut = std::uniform_int_distribution<std::size_t>(0, scalars.size())(rng);
        std::vector<char32_t> const head(scalars.begin(), scalars.begin() + static_cast<long>(cut));
        std::vector<char32_t> const tail(scalars.begin() + static_cast<long>(cut), scalars.end());
        // A trail unit alone, or a lead unit followed by something that is not a trail unit.
        char16_t const lone = (round % 2) ? char16_t(0xDC00 + round) : char16_t(0xD800 + round);
        std::u16string text = encodeUTF16(head) + lone;
        if (lone < 0xDC00) text += u'x';
        text += encodeUTF16(tail);
        std::string expected = encodeUTF8(head) + "\xEF\xBF\xBD";
        if (lone < 0xDC00) expected += 'x';
        expected += encodeUTF8(tail);

        ASSERT_EQ(invalidPosition([&] { utf8(text, true); }), encodeUTF16(head).size());
        ASSERT_EQ(utf8(text, false), expected);
        ASSERT_THROW(vi::to_string(text), vi::CvtInvalidInput);
    }
}

TEST(Ascii, BothDirectionsRejectNonAsciiWithPosition) {
    std::string all;
    for (int c = 0; c < 0x80; ++c) all.push_back(static_cast<char>(c));
    std::u16string const wide = vi::to_ustring(all, vi::codecvt_ascii_to_ustring());
    ASSERT_EQ(wide.size(), all.size());
    for (std::size_t i = 0; i < all.size(); ++i) EXPECT_EQ(wide[i], static_cast<char16_t>(i));
    EXPECT_EQ(vi::to_string(wide, vi::codecvt_ustring_to_ascii()), all);

    for (int c = 0x80; c < 0x100; ++c) {
        std::string const bad = std::string("ab") + static_cast<char>(c);
        EXPECT_EQ(invalidPosition([&] { vi::to_ustring(bad, vi::codecvt_ascii_to_ustring()); }), 2u);
    }
    for (char16_t u : {char16_t(0x80), char16_t(0xE9), char16_t(0xD800), char16_t(0xFFFF)}) {
        std::u16string const bad = u"xyz" + std::u16string(1, u);
        EXPECT_EQ(invalidPosition([&] { vi::to_string(bad, vi::codecvt_ustring_to_ascii()); }), 3u);
    }
}

TEST(Wide, RoundTripAndReplacementOfNonScalars) {
    std::mt19937 rng(3);
    for (int round = 0; round < 200; ++round) {
        auto const scalars = randomScalars(rng, static_cast<std::size_t>(round));
        std::wstring const w = vela_test::encodeWide(scalars);
        std::u16string const u = encodeUTF16(scalars);
        ASSERT_EQ(vi::to_ustring(w), u);
        ASSERT_EQ(vi::to_wstring(u), w);
    }
    EXPECT_EQ(vi::to_wstring(std::u16string(u"a") + char16_t(0xD800) + u"b"), L"a\uFFFDb");
    EXPECT_EQ(vi::to_wstring(std::u16string(1, char16_t(0xDFFF))), L"\uFFFD");
    std::wstring bad = L"a";
    bad.push_back(static_cast<wchar_t>(0xD800));
    bad.push_back(static_cast<wchar_t>(0x110000));
    EXPECT_EQ(vi::to_ustring(bad), u"a\uFFFD\uFFFD");
}

TEST(Encodings, NamesAreResolved) {
    EXPECT_EQ(vi::codecvt_string_to_ustring().encoding(), "UTF-8");
    EXPECT_EQ(vi::codecvt_string_to_ustring("utf8").kind(), vi::detail::encoding_kind::utf8);
    EXPECT_EQ(vi::codecvt_ustring_to_string("ISO-8859-1").kind(), vi::detail::encoding_kind::codepage);
    EXPECT_THROW(vi::codecvt_string_to_ustring("no-such-encoding"), vi::CvtUnknownEncoding);
    EXPECT_THROW(vi::codecvt_ustring_to_string("no-such-encoding", false), vi::CvtExceptionBase);
}

TEST(Encodings, Latin1IsTheIdentityOnBytes) {
    std::string all;
    for (int c = 1; c < 0x100; ++c) all.push_back(static_cast<char>(c));
    vi::codecvt_string_to_ustring const in("ISO-8859-1", true);
    std::u16string const text = vi::to_ustring(all, in);
    ASSERT_EQ(text.size(), all.size());
    for (std::size_t i = 0; i < all.size(); ++i) {
        EXPECT_EQ(text[i], static_cast<char16_t>(static_cast<unsigned char>(all[i])));
    }
    EXPECT_EQ(vi::to_string(text, vi::codecvt_ustring_to_string("ISO-8859-1", true)), all);
}

TEST(Encodings, UnmappableCharactersUnderBothFlags) {
    std::u16string const text = u"caf\u00E9 \u20AC\U0001F600!";
    vi::codecvt_ustring_to_string const strict("ISO-8859-1", true);
    vi::codecvt_ustring_to_string const lenient("ISO-8859-1", false);
    EXPECT_EQ(invalidPosition([&] { vi::to_string(text, strict); }), 5u);

    char sub[8];
    int8_t subLength = sizeof sub;
    UErrorCode status = U_ZERO_ERROR;
    UConverter* cnv = ucnv_open("ISO-8859-1", &status);
    ucnv_getSubstChars(cnv, sub, &subLength, &status);
    ucnv_close(cnv);
    ASSERT_TRUE(U_SUCCESS(status));
    std::string const s(sub, static_cast<std::size_t>(subLength));
    EXPECT_EQ(vi::to_string(text, lenient), "caf\xE9 " + s + s + "!");

    // windows-1252 maps 0x80 to the euro sign; US-ASCII has no byte 0x81.
    EXPECT_EQ(vi::to_ustring("\x80", vi::codecvt_string_to_ustring("windows-1252")), u"\u20AC");
    EXPECT_EQ(invalidPosition([&] { vi::to_ustring("ab\x81", vi::codecvt_string_to_ustring("US-ASCII")); }), 2u);
    std::u16string const replaced = vi::to_ustring("ab\x81z", vi::codecvt_string_to_ustring("US-ASCII", false));
    EXPECT_EQ(replaced.size(), 4u);
    EXPECT_EQ(replaced.substr(0, 2), u"ab");
    EXPECT_NE(replaced[2], u'\x81');
    EXPECT_EQ(replaced[3], u'z');
}

TEST(Encodings, LongTextGrowsTheOutput) {
    // Shift_JIS takes two bytes per kana: the output buffer must grow past its first guess.
    std::u16string const kana(5000, u'\u3042');
    vi::codecvt_ustring_to_string const out("Shift_JIS", true);
    std::string const bytes = vi::to_string(kana, out);
    EXPECT_EQ(bytes.size(), 10000u);
    EXPECT_EQ(vi::to_ustring(bytes, vi::codecvt_string_to_ustring("Shift_JIS", true)), kana);
}

TEST(Utf8, LongTextsWithDamageMatchIcuAcrossChunkBoundaries) {
    // Texts far longer than the converter's internal chunks, damaged at random places, are
    // checked against the Unicode library's own whole-string conversion with substitution.
    std::mt19937 rng(17);
    for (int round = 0; round < 40; ++round) {
        auto const scalars = randomScalars(rng, 3000 + static_cast<std::size_t>(round) * 97);
        std::string bytes = encodeUTF8(scalars);
        std::u16string units = encodeUTF16(scalars);
        std::uniform_int_distribution<int> damageByte(0x80, 0xFF);
        for (int d = 0; d < round % 6; ++d) {
            bytes[std::uniform_int_distribution<std::size_t>(0, bytes.size() - 1)(rng)] =
                static_cast<char>(damageByte(rng));
            units[std::uniform_int_distribution<std::size_t>(0, units.size() - 1)(rng)] =
                static_cast<char16_t>(std::uniform_int_distribution<int>(0xD800, 0xDFFF)(rng));
        }

        std::u16string fromIcu(bytes.size(), u'\0');
        int32_t n = 0;
        UErrorCode status = U_ZERO_ERROR;
        u_strFromUTF8WithSub(fromIcu.data(), static_cast<int32_t>(fromIcu.size()), &n, bytes.data(),
                             static_cast<int32_t>(bytes.size()), 0xFFFD, nullptr, &status);
        ASSERT_TRUE(U_SUCCESS(status));
        fromIcu.resize(static_cast<std::size_t>(n));
        ASSERT_EQ(fromUtf8(bytes, false), fromIcu) << round;

        std::string toIcu(units.size() * 3, '\0');
        status = U_ZERO_ERROR;
        u_strToUTF8WithSub(toIcu.data(), static_cast<int32_t>(toIcu.size()), &n, units.data(),
                           static_cast<int32_t>(units.size()), 0xFFFD, nullptr, &status);
        ASSERT_TRUE(U_SUCCESS(status));
        toIcu.resize(static_cast<std::size_t>(n));
        ASSERT_EQ(utf8(units, false), toIcu) << round;

        // Strict mode reports the first ill-formed sequence found by walking code points.
        std::size_t firstBad = std::string::npos;
        for (int32_t i = 0, len = static_cast<int32_t>(bytes.size()); i < len;) {
            int32_t const start = i;
            UChar32 c;
            U8_NEXT(reinterpret_cast<uint8_t const*>(bytes.data()), i, len, c);
            if (c < 0) {
                firstBad = static_cast<std::size_t>(start);
                break;
            }
        }
        if (firstBad == std::string::npos) {
            ASSERT_EQ(fromUtf8(bytes, true), fromIcu);
        } else {
            ASSERT_EQ(invalidPosition([&] { fromUtf8(bytes, true); }), firstBad) << round;
        }
    }
}
