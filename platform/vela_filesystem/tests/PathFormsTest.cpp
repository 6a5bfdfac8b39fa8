// Path text: a table of cases, generated paths against std::filesystem, refused text.
#include "Scratch.hpp"

#include <vela/filesystem/exceptions.hpp>
#include <vela/filesystem/path.hpp>

#include <random>

namespace vfs = vela::filesystem;
namespace vd = vela::filesystem::detail;
using vela_test::utf16;
using vela_test::utf8;

namespace {

struct Case {
    std::string in, native, parent, filename, extension;
};

class PathTable : public ::testing::TestWithParam<Case> {};

// Cases the generated test below cannot check: the root, parents of uncollapsed input, names
// where this layer and std::filesystem differ on purpose, non-ASCII text.
TEST_P(PathTable, FormsAndElements) {
    Case const& c = GetParam();
    std::u16string const in = utf16(c.in);
    EXPECT_EQ(utf8(vfs::path(in).native()), c.native);
    EXPECT_EQ(utf8(vd::extract_parent_path(in)), c.parent);
    EXPECT_EQ(utf8(vd::extract_filename(in)), c.filename);
    EXPECT_EQ(utf8(vd::extract_extension(in)), c.extension);
}

INSTANTIATE_TEST_SUITE_P(
    Cases, PathTable,
    ::testing::Values(Case{"", "", "", "", ""}, Case{"/", "/", "", "", ""}, Case{"//", "/", "", "", ""},
                      Case{"a//b///c.d", "a/b/c.d", "a//b", "c.d", ".d"}, Case{"a/b/", "a/b/", "a/b", "", ""},
                      Case{"/x/y.tar.gz", "/x/y.tar.gz", "/x", "y.tar.gz", ".gz"},
                      Case{"/x/.profile", "/x/.profile", "/x", ".profile", ".profile"},
                      Case{"x/..", "x/..", "x", "..", ""}, Case{"x/...", "x/...", "x", "...", "."},
                      Case{"/d\xC3\xA9j\xC3\xA0/\xE6\x96\x87.\xF0\x9F\x98\x80", "/d\xC3\xA9j\xC3\xA0/\xE6\x96\x87.\xF0\x9F\x98\x80",
                           "/d\xC3\xA9j\xC3\xA0", "\xE6\x96\x87.\xF0\x9F\x98\x80", ".\xF0\x9F\x98\x80"}));

// Random paths rich in separators and dots among ASCII, other BMP letters and surrogate pairs.
// Conversions are checked against the standard library's, elements against std::filesystem
// where the two agree by design.
TEST(PathForms, GeneratedPathsAgreeWithStdFilesystem) {
    std::mt19937 rng(20240611);
    for (int round = 0; round < 6000; ++round) {
        std::u16string in;
        for (int i = int(rng() % 12); i > 0; --i) {
            switch (rng() % 8) {
            case 0: case 1: in += u'/'; break;
            case 2: case 3: in += u'.'; break;
            case 4: in += char16_t(0x20 + rng() % 0x5F); break;
            case 5: in += char16_t(0xA0 + rng() % 0x700); break;
            case 6: in += char16_t(0xE000 + rng() % 0x1000); break;
            default: in += {char16_t(0xD800 + rng() % 0x400), char16_t(0xDC00 + rng() % 0x400)};
            }
        }
        std::string const text = utf8(in);
        std::string collapsed;
        for (char c : text)
            if (c != '/' || collapsed.empty() || collapsed.back() != '/')
                collapsed += c;
        SCOPED_TRACE(text);
        ASSERT_EQ(vd::to_filesystem(in), text);
        ASSERT_EQ(vd::from_filesystem(text), in);
        EXPECT_EQ(vd::make_native_access_form_with_cleanup_i18n(in), collapsed);
        std::u16string const native = vd::make_native_form(in, true);
        EXPECT_EQ(utf8(native), collapsed);
        EXPECT_EQ(vd::make_native_form(in, false), in);
        EXPECT_EQ(vd::make_generic_form(in), native);
        EXPECT_EQ(vd::is_absolute(vfs::path(in)), std::filesystem::path(text).is_absolute());

        std::filesystem::path const oracle(collapsed);
        std::string const name = oracle.filename().string();
        EXPECT_EQ(utf8(vd::extract_filename(native)), name);
        if (collapsed != "/") { // std::filesystem keeps "/" as its own parent; here the root has none
            EXPECT_EQ(utf8(vd::extract_parent_path(native)), oracle.parent_path().string());
        }
        // A leading-dot name without another dot is all extension here, all stem there.
        if (!(name.size() > 1 && name[0] == '.' && name.find('.', 1) == std::string::npos)) {
            EXPECT_EQ(utf8(vd::extract_extension(native)), oracle.extension().string());
        }
    }
}

TEST(PathForms, ConcatenateAndCompare) {
    struct Join {
        std::u16string base, tail, expected;
    };
    for (Join const& j : {Join{u"a", u"b", u"a/b"}, Join{u"a/", u"b", u"a/b"}, Join{u"", u"b", u"b"},
                          Join{u"a", u"", u"a"}, Join{u"/", u"b", u"/b"}, Join{u"a", u"/b", u"a/b"},
                          Join{u"a", u"b/c//d", u"a/b/c/d"}})
        EXPECT_EQ(vd::concatenate_pathname(vfs::path(j.base), j.tail).native(), j.expected)
            << utf8(j.base) << " + " << utf8(j.tail);
    EXPECT_EQ(vfs::path(u"//a//b/"), vfs::path(u"/a//b/"));
    EXPECT_NE(vfs::path(u"/a/b/"), vfs::path(u"/a/b"));
    EXPECT_EQ(vfs::path(std::u16string{}).access_form(), "");
}

TEST(PathForms, HostileTextIsRefused) {
    // Lone surrogates either way round, and an unpaired high one at the end.
    for (std::u16string const& bad : {std::u16string(u"a") + char16_t(0xD800) + u"b",
                                      std::u16string(u"x/") + char16_t(0xDC00), std::u16string(1, char16_t(0xDBFF))})
        EXPECT_EQ(vela_test::thrown_path<vfs::FileNameConversionFailure>([&] { vd::to_filesystem(bad); }), bad);
    EXPECT_THROW(vd::from_filesystem(std::string("a\xC3(")), vfs::FileNameConversionFailure);
    EXPECT_THROW(vd::from_filesystem(std::string("\xFF")), vfs::FileNameConversionFailure);
    EXPECT_THROW(vd::make_access_form(std::string("a\0b", 3)), vfs::InvalidArgument);
    EXPECT_EQ(vd::make_access_form("plain"), "plain");
}

} // namespace
