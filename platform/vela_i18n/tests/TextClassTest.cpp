// Character classes, code-page conversion and wide text: each row checks a class or a path
// (an error, a growing buffer, a pair) that a slip in its condition would change.
#include <vela/i18n/convert.hpp>
#include <vela/i18n/ctype.hpp>
#include <vela/i18n/cvt_exception.hpp>

#include <gtest/gtest.h>

#include <functional>

namespace {

namespace i18n = vela::i18n;

TEST(Scan, FirstCharacterOfEachClass) {
    struct Row {
        unsigned mask;
        std::u16string text;
        std::size_t at; // text.size(): none
    } const rows[] = {
        {i18n::ctype_space, u"a\u2003", 1},  // EM SPACE
        {i18n::ctype_blank, u"\n\u3000", 1}, // a line break is space, not blank
        {i18n::ctype_lower, u"A\u00DF", 1},
        {i18n::ctype_alpha, u"1\u4E00", 1},
        {i18n::ctype_digit, u"a\u0665", 1}, // ARABIC-INDIC DIGIT FIVE
        {i18n::ctype_xdigit, u"gF", 1},
        {i18n::ctype_alnum, u"_\u0665", 1},
        {i18n::ctype_print, u"\t\u0085 ", 2}, // a space prints; controls do not
        {i18n::ctype_upper, u"5a", 2},        // a digit belongs to no other class asked for
        {i18n::ctype_upper, u"a\u00C9", 1},
        {i18n::ctype_punct, u"a b!", 3},
        {i18n::ctype_cntrl, u"a\u0085", 1},
        {i18n::ctype_graph, u" \t\u00A0x", 3}, // a no-break space is space, not graph
        {i18n::ctype_graph, u"\U0001F600", 0}, // a pair is one character
    };
    for (Row const& r : rows)
        EXPECT_EQ(i18n::detail::scan(r.mask, r.text.data(), r.text.data() + r.text.size(), i18n::is_posix),
                  r.text.data() + r.at)
            << "mask " << r.mask << " row at " << r.at;
}

TEST(CodePage, ConvertsGrowsAndNamesTheFault) {
    EXPECT_EQ(i18n::to_ustring("caf\xE9", i18n::codecvt_string_to_ustring("ISO-8859-1")), u"caf\u00E9");
    // Wide text: each value at the edge of a surrogate or beyond the last plane becomes U+FFFD.
    std::wstring const wide{wchar_t(0xD7FF), wchar_t(0xD800), wchar_t(0xDFFF), wchar_t(0xE000),
                            wchar_t(0xFFFF), wchar_t(0x10000), wchar_t(0x10FFFF), wchar_t(0x110000)};
    EXPECT_EQ(i18n::to_ustring(wide), u"\uD7FF\uFFFD\uFFFD\uE000\uFFFF\U00010000\U0010FFFF\uFFFD");
    EXPECT_EQ(i18n::to_wstring(std::u16string{u'a', char16_t(0xDC00), char16_t(0xD800)}), L"a\uFFFD\uFFFD");
    // Four bytes for each unit: more than the first guess of the output's size.
    EXPECT_EQ(i18n::to_string(std::u16string(100, u'a'), i18n::codecvt_ustring_to_string("UTF-32BE")).size(), 400u);
    // A trail unit is no lead, also where sixteen units or more follow it (the wide encoder's block).
    std::u16string const trails = u"a" + std::u16string{char16_t(0xDC00), char16_t(0xDC01)} + std::u16string(16, u'b');
    EXPECT_EQ(i18n::to_string(trails, i18n::codecvt_ustring_to_string("UTF-8", false)),
              "a\xEF\xBF\xBD\xEF\xBF\xBD" + std::string(16, 'b'));
    EXPECT_THROW(i18n::to_ustring("a\x82", i18n::codecvt_string_to_ustring("Shift_JIS")), i18n::CvtInvalidInput); // cut short
    // The first fault is named: a byte the code page lacks (a NUL byte is text), a character the
    // target cannot hold (U+0080 is not ASCII), a lone surrogate.
    std::pair<std::function<void()>, std::string> const faults[] = {
        {[] { i18n::to_ustring(std::string("\xC3\xA9\0\xFF", 4), i18n::codecvt_string_to_ustring("UTF-8", true)); },
         "Invalid UTF-8 sequence starting with byte 0xFF at offset 3"},
        {[] { i18n::to_ustring("ab\x80", i18n::codecvt_string_to_ustring("US-ASCII")); }, "Invalid byte sequence for US-ASCII at offset 2"},
        {[] { i18n::to_string(u"a\u0080", i18n::codecvt_ustring_to_ascii()); }, "Non-ASCII character U+0080 at UTF-16 offset 1"},
        {[] { i18n::to_string(u"caf\u00E9", i18n::codecvt_ustring_to_string("US-ASCII")); },
         "Character U+00E9 at UTF-16 offset 3 cannot be represented in US-ASCII"},
        {[] { i18n::to_string(std::u16string(u"a") + char16_t(0xD800) + u"b", i18n::codecvt_ustring_to_string("ISO-8859-1")); },
         "Character U+D800 at UTF-16 offset 1 is an unpaired surrogate and cannot be converted to ISO-8859-1"}};
    for (auto const& [convert, message] : faults) {
        try {
            convert();
            ADD_FAILURE() << "no fault: " << message;
        } catch (i18n::CvtInvalidInput const& e) {
            EXPECT_EQ(e.what(), message);
        }
    }
}

} // namespace
