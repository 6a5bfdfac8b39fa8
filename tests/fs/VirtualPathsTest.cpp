// IRI text through the virtual back end: names, extensions, parents, joins, normal forms, local
// paths, absoluteness, temporary names, and the link operations storage cannot do.
#include <opc/Exception.hpp>
#include <opc/Text.hpp>
#include <opc/VirtualFileSystemOps.hpp>
#include <opc/util/Temp.hpp>

#include <stratum/storage/vfs/Exception.hpp>
#include <stratum/storage/vfs/IRI.hpp>

#include <gtest/gtest.h>

#include <filesystem>
#include <random>
#include <set>

namespace opc::test {
namespace {

namespace vfs = stratum::storage::vfs;
namespace errc = boost::system::errc;
using boost::system::error_code;

class VirtualPaths : public ::testing::Test {
protected:
    // The message and code the throwing form gave, or "<none>".
    template <class Call>
    std::string thrown(Call&& call, error_code* code = nullptr) {
        try {
            call();
        } catch (Exception const& e) {
            if (code)
                *code = e.code();
            return e.what();
        }
        return "<none>";
    }

    vfs::StorageSystemReference storage;
    VirtualFileSystemOps ops{storage};
};

TEST_F(VirtualPaths, NamesExtensionsAndParentsComeFromTheDecodedLastSegment) {
    struct Row {
        std::u16string iri, filename, extension, parent;
    } const rows[] = {
        {u"memory:///a/b.tar.gz", u"b.tar.gz", u"gz", u"memory:///a"},
        {u"memory:///a/b.", u"b.", u"", u"memory:///a"},
        {u"memory:///a.d/b", u"b", u"", u"memory:///a.d"},
        {u"memory:///a/.profile", u".profile", u"profile", u"memory:///a"},
        {u"memory:///a/b%20c.pkg/", u"b c.pkg", u"pkg", u"memory:///a"},
        {u"file:///x/r%C3%A9sum%C3%A9.P%20KG", u"r\u00E9sum\u00E9.P KG", u"P KG", u"file:///x"},
        {u"memory:///", u"", u"", u""},
    };
    for (auto const& row : rows) {
        SCOPED_TRACE(toUDEString(row.iri));
        EXPECT_EQ(ops.getFilename(row.iri), row.filename);
        EXPECT_EQ(ops.getExtension(row.iri), row.extension);
        EXPECT_EQ(ops.getParentPath(row.iri), row.parent);
    }
    // Names let the storage exception out; the parent reports through the frame.
    EXPECT_THROW(ops.getFilename(u"memory:relative"), vfs::InvalidIRIException);
    EXPECT_THROW(ops.getExtension(u"gopher:///a.b"), vfs::UnsupportedIRISchemeException);
    error_code code;
    EXPECT_EQ(thrown([&] { ops.getParentPath(u"not an iri"); }, &code).rfind("getParentPath failed: ", 0), 0u);
    EXPECT_EQ(code, errc::make_error_code(errc::bad_address));
}

TEST_F(VirtualPaths, AppendDropsExactlyOneLeadingSlash) {
    struct Row {
        std::u16string child, joined;
    } const rows[] = {
        {u"c", u"memory:///a/b/c"}, {u"/c", u"memory:///a/b/c"}, {u"c/d", u"memory:///a/b/c/d"},
        {u"../c", u"memory:///a/c"}, {u"", u"memory:///a/b"},
    };
    for (auto const& row : rows)
        EXPECT_EQ(ops.appendPath(u"memory:///a/b", row.child), row.joined) << toUDEString(row.child);
    // Two leading slashes lose only the first: the rest is whatever the storage makes of "/c".
    EXPECT_EQ(ops.appendPath(u"memory:///a/b", u"//c"),
              vfs::AbsoluteIRI(vfs::AbsoluteIRI(u"memory:///a/b"), u"/c").toString());
    EXPECT_THROW(ops.appendPath(u"relative/base", u"c"), Exception);
}

TEST_F(VirtualPaths, NormalizeTurnsLocalPathsIntoFileIRIsThatComeBackLexicallyNormal) {
    EXPECT_EQ(ops.normalizePath(u"memory:///a//b/./c/../d/"), u"memory:///a/b/d");
    std::mt19937 rng(7);
    std::u16string const alphabet = u"ab -_.%#?\u00E9\u4E2D";
    for (int i = 0; i < 200; ++i) {
        std::u16string local = u"/tmp";
        for (int d = 0, depth = 1 + int(rng() % 3); d < depth; ++d) {
            local += u'/';
            for (int k = 0, length = 1 + int(rng() % 6); k < length; ++k)
                local += alphabet[rng() % alphabet.size()];
        }
        std::string expected = std::filesystem::path(toUDEString(local)).lexically_normal().generic_string();
        if (expected.size() > 1 && expected.back() == '/')
            expected.pop_back();
        SCOPED_TRACE(toUDEString(local));
        std::u16string const iri = ops.normalizePath(local);
        EXPECT_EQ(iri.rfind(u"file:///", 0), 0u);
        EXPECT_EQ(ops.normalizePath(iri), iri) << "canonical text is not stable";
        std::u16string back;
        ASSERT_TRUE(ops.getLocalPath(iri, back));
        EXPECT_EQ(toUDEString(back), expected);
    }
}

TEST_F(VirtualPaths, LocalPathsAndAbsoluteness) {
    std::u16string out = u"stale";
    EXPECT_TRUE(ops.getLocalPath(u"file:///home/a/b%20c.pkg", out));
    EXPECT_EQ(out, u"/home/a/b c.pkg");
    for (auto const* other : {u"FILE:///home/a/b.pkg", u"memory:///home/a/b.pkg"}) {
        out = u"stale";
        EXPECT_FALSE(ops.getLocalPath(other, out));
        EXPECT_EQ(out, u"");
    }
    EXPECT_THROW(ops.getLocalPath(u"file:relative", out), vfs::InvalidIRIException);

    struct Row {
        std::u16string text;
        bool absolute;
    } const rows[] = {
        {u"memory:///a", true}, {u"file:///", true},     {u"MEMORY:///a", true},     {u"/tmp/a", false},
        {u"a/b", false},        {u"gopher:///a", false}, {u"memory:a", false},       {u"memory://host/a", false},
        {u"", false},           {u"memory:///%zz", false},
    };
    for (auto const& row : rows)
        EXPECT_EQ(ops.isAbsolutePath(row.text), row.absolute) << toUDEString(row.text);
}

TEST_F(VirtualPaths, TempNamesAreFreshAndKeepTheSchemeOfTheFolder) {
    std::filesystem::path const tempDir = std::filesystem::path(toUDEString(util::getTempDir())).lexically_normal();
    std::set<std::u16string> seen;
    for (int i = 0; i < 20; ++i) {
        std::u16string const name = ops.getTempName(u"");
        std::u16string local;
        ASSERT_TRUE(ops.getLocalPath(name, local)) << toUDEString(name);
        std::filesystem::path const p(toUDEString(local));
        EXPECT_EQ(p.parent_path(), tempDir);
        EXPECT_EQ(p.extension(), ".tmp");
        EXPECT_EQ(p.filename().string().front(), '.');
        EXPECT_FALSE(std::filesystem::exists(p));
        EXPECT_TRUE(seen.insert(name).second) << "name repeated";
    }
    ops.createFolders(u"memory:///work/area");
    std::u16string const name = ops.getTempName(u"memory:///work/area");
    EXPECT_EQ(ops.getParentPath(name), u"memory:///work/area");
    EXPECT_EQ(ops.getExtension(name), u"tmp");
    EXPECT_FALSE(ops.exists(name));
    EXPECT_THROW(ops.getTempName(u"/not/an/iri"), Exception);
}

TEST_F(VirtualPaths, LinksAreNotSupported) {
    ops.createFolders(u"memory:///l");
    EXPECT_FALSE(ops.isSymlink(u"memory:///l"));
    EXPECT_FALSE(ops.isSymlink(u"not even an iri"));
    error_code ec;
    EXPECT_EQ(ops.getLinkTarget(u"memory:///l", ec), u"");
    EXPECT_EQ(ec, errc::make_error_code(errc::operation_not_supported));
    EXPECT_EQ(thrown([&] { ops.getLinkTarget(u"memory:///l"); }),
              "getLinkTarget failed: Symlinks are not supported");
    EXPECT_EQ(thrown([&] { ops.createSymlink(u"memory:///l", u"memory:///m"); }, &ec),
              "createSymlink failed: Creation of symlinks is not supported by VirtualFileSystemOps");
    EXPECT_EQ(ec, errc::make_error_code(errc::operation_not_supported));
    EXPECT_FALSE(ops.exists(u"memory:///m"));
}

} // namespace
} // namespace opc::test
