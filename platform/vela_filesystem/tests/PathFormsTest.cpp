// Path text: a table of cases, generated paths against std::filesystem, refused text.
#include <gtest/gtest.h>

#include <vela/filesystem/exceptions.hpp>
#include <vela/filesystem/path.hpp>

#include <filesystem>
#include <random>

namespace hostfs = vela::filesystem;
namespace vd = vela::filesystem::detail;

namespace {

std::u16string utf16(std::string const& s) { return std::filesystem::path(s).u16string(); }
std::string utf8(std::u16string const& s) { return std::filesystem::path(s).string(); }

struct Case {
    std::string in, native, parent, filename, extension;
};

class PathTable : public ::testing::TestWithParam<Case> {};

// Cases the generated test below cannot check: the root, parents of uncollapsed input, names
// where this layer and std::filesystem differ on purpose, non-ASCII text.
TEST_P(PathTable, FormsAndElements) {
    Case const& c = GetParam();
    std::u16string const in = utf16(c.in);
    EXPECT_EQ(utf8(hostfs::path(in).native()), c.native);
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
        EXPECT_EQ(vd::is_absolute(hostfs::path(in)), std::filesystem::path(text).is_absolute());

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

TEST(PathForms, HostileTextIsRefused) {
    // Lone surrogates either way round, and an unpaired high one at the end.
    for (std::u16string const& bad : {std::u16string(u"a") + char16_t(0xD800) + u"b",
                                      std::u16string(u"x/") + char16_t(0xDC00), std::u16string(1, char16_t(0xDBFF))})
        try {
            vd::to_filesystem(bad);
            ADD_FAILURE() << "accepted";
        } catch (hostfs::FileNameConversionFailure const& e) {
            EXPECT_EQ(e.path(), bad);
        }
    for (char const* bad : {"a\xC3(", "\xFF"})
        EXPECT_THROW(vd::from_filesystem(std::string(bad)), hostfs::FileNameConversionFailure);
    EXPECT_THROW(vd::make_access_form(std::string("a\0b", 3)), hostfs::InvalidArgument);
}

} // namespace
