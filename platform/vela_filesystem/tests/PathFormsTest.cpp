// Path text: tables of cases, generated paths against std::filesystem, conversions.
#include "Scratch.hpp"

#include <vela/filesystem/exceptions.hpp>
#include <vela/filesystem/path.hpp>

#include <gtest/gtest.h>

#include <filesystem>
#include <random>

namespace vfs = vela::filesystem;
namespace vd = vela::filesystem::detail;
using vela_test::Scratch;

namespace {

struct Case {
    std::string in, native, parent, filename, extension;
};

std::string u8(std::u16string const& s) { return Scratch::utf8(s); }

class PathTable : public ::testing::TestWithParam<Case> {};

TEST_P(PathTable, FormsAndElements) {
    Case const& c = GetParam();
    std::u16string const in = Scratch::utf16(c.in);
    EXPECT_EQ(u8(vd::make_native_form(in, true)), c.native);
    EXPECT_EQ(u8(vd::make_native_form(in, false)), c.in);
    EXPECT_EQ(u8(vd::make_generic_form(in)), c.native);
    EXPECT_EQ(u8(vd::extract_parent_path(in)), c.parent);
    EXPECT_EQ(u8(vd::extract_filename(in)), c.filename);
    EXPECT_EQ(u8(vd::extract_extension(in)), c.extension);
    EXPECT_EQ(u8(vfs::path(in).native()), c.native);
}

INSTANTIATE_TEST_SUITE_P(
    Cases, PathTable,
    ::testing::Values(Case{"", "", "", "", ""}, Case{"/", "/", "", "", ""}, Case{"//", "/", "", "", ""},
                      Case{"a", "a", "", "a", ""}, Case{"a.txt", "a.txt", "", "a.txt", ".txt"},
                      Case{"/a", "/a", "/", "a", ""}, Case{"a/b", "a/b", "a", "b", ""},
                      Case{"a//b///c.d", "a/b/c.d", "a//b", "c.d", ".d"}, Case{"a/b/", "a/b/", "a/b", "", ""},
                      Case{"/x/y.tar.gz", "/x/y.tar.gz", "/x", "y.tar.gz", ".gz"},
                      Case{"/x/.profile", "/x/.profile", "/x", ".profile", ".profile"},
                      Case{"x/name.", "x/name.", "x", "name.", "."}, Case{"x/.", "x/.", "x", ".", ""},
                      Case{"x/..", "x/..", "x", "..", ""}, Case{"x/...", "x/...", "x", "...", "."},
                      Case{"a.b/c", "a.b/c", "a.b", "c", ""},
                      Case{"/d\xC3\xA9j\xC3\xA0/\xE6\x96\x87.\xF0\x9F\x98\x80", "/d\xC3\xA9j\xC3\xA0/\xE6\x96\x87.\xF0\x9F\x98\x80",
                           "/d\xC3\xA9j\xC3\xA0", "\xE6\x96\x87.\xF0\x9F\x98\x80", ".\xF0\x9F\x98\x80"},
                      Case{"with space/a b.c d", "with space/a b.c d", "with space", "a b.c d", ".c d"}));

// Random paths over a small alphabet rich in separators and dots, checked against
// std::filesystem where the two agree by design on this host.
TEST(PathForms, GeneratedPathsAgreeWithStdFilesystem) {
    std::mt19937 rng(20240611);
    std::string const alphabet = "//..abc x";
    for (int round = 0; round < 5000; ++round) {
        std::string text;
        int const length = int(rng() % 12);
        for (int i = 0; i < length; ++i)
            text += alphabet[rng() % alphabet.size()];
        std::u16string const in = Scratch::utf16(text);
        std::u16string const native = vd::make_native_form(in, true);
        std::filesystem::path const oracle(text);
        SCOPED_TRACE(text);

        EXPECT_EQ(native.find(u"//"), std::u16string::npos);
        EXPECT_EQ(vd::make_native_form(native, true), native) << "native form is a fixed point";
        EXPECT_EQ(vd::is_absolute(vfs::path(in)), oracle.is_absolute());

        std::filesystem::path const collapsed(u8(native));
        EXPECT_EQ(u8(vd::extract_filename(native)), collapsed.filename().string());
        // std::filesystem keeps "/" as its own parent; here the root has none.
        if (u8(native) != "/") {
            EXPECT_EQ(u8(vd::extract_parent_path(native)), collapsed.parent_path().string());
        }
        // A leading-dot name without another dot is all extension here, all stem there.
        std::string const name = collapsed.filename().string();
        if (!(name.size() > 1 && name[0] == '.' && name.find('.', 1) == std::string::npos)) {
            EXPECT_EQ(u8(vd::extract_extension(native)), collapsed.extension().string());
        }
    }
}

TEST(PathForms, ConcatenateJoinsWithOneSeparator) {
    struct Join {
        std::u16string base, tail, expected;
    };
    for (Join const& j : {Join{u"a", u"b", u"a/b"}, Join{u"a/", u"b", u"a/b"}, Join{u"", u"b", u"b"},
                          Join{u"a", u"", u"a"}, Join{u"/", u"b", u"/b"}, Join{u"a", u"/b", u"a/b"},
                          Join{u"a", u"b/c//d", u"a/b/c/d"}}) {
        EXPECT_EQ(vd::concatenate_pathname(vfs::path(j.base), j.tail).native(), j.expected)
            << u8(j.base) << " + " << u8(j.tail);
    }
}

TEST(PathForms, ConversionMatchesIndependentEncoder) {
    std::mt19937 rng(7);
    for (int round = 0; round < 2000; ++round) {
        std::u16string text;
        int const length = int(rng() % 10);
        for (int i = 0; i < length; ++i) {
            switch (rng() % 4) {
            case 0: text.push_back(char16_t(0x20 + rng() % 0x5F)); break;
            case 1: text.push_back(char16_t(0xA0 + rng() % 0x700)); break;
            case 2: text.push_back(char16_t(0xE000 + rng() % 0x1000)); break;
            default: // a surrogate pair
                text.push_back(char16_t(0xD800 + rng() % 0x400));
                text.push_back(char16_t(0xDC00 + rng() % 0x400));
            }
        }
        std::string const expected = Scratch::utf8(text);
        ASSERT_EQ(vd::to_filesystem(text), expected);
        ASSERT_EQ(vd::from_filesystem(expected), text);
        ASSERT_EQ(vd::make_native_access_form_with_cleanup_i18n(text), Scratch::utf8(vd::make_native_form(text, true)));
    }
}

TEST(PathForms, HostileTextIsRefused) {
    // Lone surrogates either way round, and an unpaired low one at the end.
    for (std::u16string const& bad : {std::u16string(u"a") + char16_t(0xD800) + u"b",
                                      std::u16string(u"x/") + char16_t(0xDC00),
                                      std::u16string(1, char16_t(0xDBFF))}) {
        EXPECT_THROW(vd::to_filesystem(bad), vfs::FileNameConversionFailure);
        EXPECT_THROW(vfs::path(bad).access_form(), vfs::FileNameConversionFailure);
        try {
            vd::to_filesystem(bad);
        } catch (vfs::FileNameConversionFailure const& e) {
            EXPECT_EQ(e.path(), bad);
        }
    }
    EXPECT_THROW(vd::from_filesystem(std::string("a\xC3(")), vfs::FileNameConversionFailure);
    EXPECT_THROW(vd::from_filesystem(std::string("\xFF")), vfs::FileNameConversionFailure);

    std::string const with_nul("a\0b", 3);
    EXPECT_THROW(vd::make_access_form(with_nul), vfs::InvalidArgument);
    EXPECT_THROW(vd::make_native_access_form_with_cleanup_i18n(std::u16string(u"a\0b", 3)), vfs::InvalidArgument);
    EXPECT_EQ(vd::make_access_form("plain"), "plain");
}

TEST(PathForms, PathObject) {
    vfs::path const empty(std::u16string{});
    EXPECT_TRUE(empty.empty());
    EXPECT_EQ(empty.access_form(), "");
    vfs::path const p(u"//a//b/");
    EXPECT_EQ(p.native(), u"/a/b/");
    EXPECT_EQ(p.generic_string(), u"/a/b/");
    EXPECT_TRUE(vd::is_absolute(p));
    EXPECT_FALSE(vd::is_absolute(vfs::path(u"a/b")));
    EXPECT_EQ(p, vfs::path(u"/a//b/"));
    EXPECT_NE(p, vfs::path(u"/a/b"));
}

} // namespace
