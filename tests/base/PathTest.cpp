// The path text helpers: a table of cases and generated paths against std::filesystem.
#include <opc/Exception.hpp>
#include <opc/Path.hpp>

#include <gtest/gtest.h>

#include <filesystem>
#include <random>

namespace {

using opc::detail::getExtension;
using opc::detail::getFilename;
using opc::detail::getParentPath;
using opc::detail::makeNativePath;
using opc::detail::normalizePath;

struct Row {
    std::u16string in, normalized, parent, filename, extension;
};

class PathHelpers : public ::testing::TestWithParam<Row> {};

TEST_P(PathHelpers, Table) {
    Row const& r = GetParam();
    EXPECT_EQ(normalizePath(r.in), r.normalized);
    EXPECT_EQ(getParentPath(r.in), r.parent);
    EXPECT_EQ(getFilename(r.in), r.filename);
    EXPECT_EQ(getExtension(r.in), r.extension);
    // The parent is the normalized form of the extracted parent.
    EXPECT_EQ(getParentPath(r.in), normalizePath(getParentPath(r.in)));
}

INSTANTIATE_TEST_SUITE_P(
    Rows, PathHelpers,
    ::testing::Values(Row{u"", u"", u"", u"", u""}, Row{u"a", u"a", u"", u"a", u""},
                      Row{u"/", u"/", u"", u"", u""}, Row{u"/a", u"/a", u"/", u"a", u""},
                      Row{u"a//b", u"a/b", u"a", u"b", u""}, Row{u"//x///y.z", u"/x/y.z", u"/x", u"y.z", u".z"},
                      Row{u"dir/", u"dir/", u"dir", u"", u""}, Row{u"a/b.tar.gz", u"a/b.tar.gz", u"a", u"b.tar.gz", u".gz"},
                      Row{u"/t/.x1234.tmp", u"/t/.x1234.tmp", u"/t", u".x1234.tmp", u".tmp"},
                      Row{u"./..", u"./..", u".", u"..", u""}, Row{u"a/./b", u"a/./b", u"a/.", u"b", u""},
                      Row{u"caf\u00e9/\u6587.\u00e9", u"caf\u00e9/\u6587.\u00e9", u"caf\u00e9", u"\u6587.\u00e9", u".\u00e9"}));

std::u16string widen(std::string const& s) { return std::u16string(s.begin(), s.end()); }
std::string narrow(std::u16string const& s) { return std::string(s.begin(), s.end()); }

// ASCII paths over an alphabet rich in separators and dots: where std::filesystem and these
// helpers agree by design (everything but the root's parent and leading-dot names'
// extensions), they must give the same answers.
TEST(PathHelpersGenerated, AgreeWithStdFilesystem) {
    std::mt19937 rng(42);
    std::string const alphabet = "///..ab c";
    for (int i = 0; i < 4000; ++i) {
        std::string text;
        for (int n = int(rng() % 14); n > 0; --n)
            text += alphabet[rng() % alphabet.size()];
        SCOPED_TRACE(text);
        std::u16string const in = widen(text);
        std::string const normalized = narrow(normalizePath(in));
        EXPECT_EQ(normalized.find("//"), std::string::npos);
        EXPECT_EQ(normalizePath(normalizePath(in)), normalizePath(in));
        EXPECT_EQ(makeNativePath(in), normalized);
        std::filesystem::path const oracle(normalized);
        EXPECT_EQ(narrow(getFilename(in)), oracle.filename().string());
        EXPECT_EQ(getFilename(in).find(u'/'), std::u16string::npos);
        if (normalized != "/") {
            EXPECT_EQ(narrow(getParentPath(in)), oracle.parent_path().string());
        }
        std::string const name = oracle.filename().string();
        if (!(name.size() > 1 && name[0] == '.' && name.find('.', 1) == std::string::npos)) {
            EXPECT_EQ(narrow(getExtension(in)), oracle.extension().string());
        }
    }
}

TEST(PathHelpersConversion, NativePathIsUtf8AndRefusesBadText) {
    EXPECT_EQ(makeNativePath(u"/caf\u00e9//\U0001F600"), "/caf\xC3\xA9/\xF0\x9F\x98\x80");
    EXPECT_EQ(makeNativePath(u""), "");
    std::u16string lone = u"a";
    lone.push_back(char16_t(0xDC00));
    // Host-layer failures pass through as they are: not turned into opc::Exception.
    EXPECT_THROW(
        {
            try {
                makeNativePath(lone);
            } catch (opc::Exception const&) {
                FAIL() << "converted";
            }
        },
        std::runtime_error);
    EXPECT_THROW(makeNativePath(std::u16string(u"a\0b", 3)), std::runtime_error);
}

} // namespace
