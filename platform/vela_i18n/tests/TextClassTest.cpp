// Character classes, code-page conversion and wide text: each row checks a class or a path
// (an error, a growing buffer, a pair) that a slip in its condition would change.
#include <vela/i18n/convert.hpp>
#include <vela/i18n/ctype.hpp>
#include <vela/i18n/cvt_exception.hpp>

#include <gtest/gtest.h>

namespace {

namespace i18n = vela::i18n;

TEST(Scan, FirstCharacterOfEachClass) {
    struct Row {
        unsigned mask;
        std::u16string text;
        std::size_t at; // text.size(): none
    } const rows[] = {
        {i18n::ctype_digit, u"a\u0665", 1}, // ARABIC-INDIC DIGIT FIVE
        {i18n::ctype_upper, u"5a", 2},      // a digit belongs to no other class asked for
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
    EXPECT_EQ(i18n::to_ustring(std::wstring(L"\U00010000\uFFFF")), u"\U00010000\uFFFF");
    // Four bytes for each unit: more than the first guess of the output's size.
    EXPECT_EQ(i18n::to_string(std::u16string(100, u'a'), i18n::codecvt_ustring_to_string("UTF-32BE")).size(), 400u);
    // A byte the code page lacks, a character it cannot hold, a lone surrogate; U+0080 is not ASCII.
    EXPECT_THROW(i18n::to_string(u"a\u0080", i18n::codecvt_ustring_to_ascii()), i18n::CvtInvalidInput);
    EXPECT_THROW(i18n::to_ustring("ab\x80", i18n::codecvt_string_to_ustring("US-ASCII")), i18n::CvtInvalidInput);
    EXPECT_THROW(i18n::to_string(u"caf\u00E9", i18n::codecvt_ustring_to_string("US-ASCII")), i18n::CvtInvalidInput);
    EXPECT_THROW(i18n::to_string(std::u16string(u"a") + char16_t(0xD800) + u"b",
                                 i18n::codecvt_ustring_to_string("ISO-8859-1")),
                 i18n::CvtInvalidInput);
}

} // namespace
