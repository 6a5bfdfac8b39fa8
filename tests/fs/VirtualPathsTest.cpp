// IRI text through the virtual back end: file names, extensions, parents, joins, normal forms,
// local paths, absoluteness, temporary names, and the operations storage cannot do.
#include <opc/Exception.hpp>
#include <opc/Text.hpp>
#include <opc/VirtualFileSystemOps.hpp>
#include <opc/util/Temp.hpp>

#include <stratum/storage/vfs/IRI.hpp>
#include <stratum/storage/vfs/Exception.hpp>

#include <gtest/gtest.h>

#include <filesystem>
#include <random>
#include <set>

namespace opc::test {
namespace {

namespace vfs = stratum::storage::vfs;
namespace errc = boost::system::errc;
using boost::system::error_code;

std::string toUDE(std::u16string const& text) { return toUDEString(text); }

class VirtualPaths : public ::testing::Test {
protected:
    vfs::StorageSystemReference storage;
    VirtualFileSystemOps ops{storage};
};

TEST_F(VirtualPaths, ExtensionIsTheTextAfterTheLastDotOfTheLastSegment) {
    struct Row {
        std::u16string iri;
        std::u16string extension;
    } const rows[] = {
        {u"memory:///a/b.tar.gz", u"gz"},
        {u"memory:///a/b", u""},
        {u"memory:///a/b.", u""},
        {u"memory:///a.d/b", u""},
        {u"memory:///a/.profile", u"profile"},
        {u"file:///x/r%C3%A9sum%C3%A9.P%20KG", u"P KG"},
        {u"memory:///", u""},
    };
    for (auto const& row : rows) {
        SCOPED_TRACE(toUDE(row.iri));
        EXPECT_EQ(ops.getExtension(row.iri), row.extension);
    }
}

TEST_F(VirtualPaths, FileNameIsTheDecodedLastSegment) {
    EXPECT_EQ(ops.getFilename(u"memory:///a/b%20c.pkg"), u"b c.pkg");
    EXPECT_EQ(ops.getFilename(u"memory:///a/b/"), u"b");
    EXPECT_EQ(ops.getFilename(u"memory:///"), u"");
}

TEST_F(VirtualPaths, FileNameAndExtensionLetTheStorageExceptionOut) {
    EXPECT_THROW(ops.getFilename(u"memory:relative"), vfs::InvalidIRIException);
    EXPECT_THROW(ops.getExtension(u"/plain/local.pkg"), vfs::InvalidIRIException);
    EXPECT_THROW(ops.getExtension(u"gopher:///a.b"), vfs::UnsupportedIRISchemeException);
}

TEST_F(VirtualPaths, ParentPathOfTheRootIsEmptyWithoutError) {
    EXPECT_EQ(ops.getParentPath(u"memory:///a/b/c"), u"memory:///a/b");
    EXPECT_EQ(ops.getParentPath(u"memory:///a"), u"memory:///");
    EXPECT_EQ(ops.getParentPath(u"memory:///"), u"");
    // Unlike the file name, an invalid IRI is reported through the frame.
    try {
        ops.getParentPath(u"not an iri");
        FAIL() << "no exception";
    } catch (Exception const& e) {
        EXPECT_EQ(e.code(), error_code(errc::bad_address, boost::system::generic_category()));
        EXPECT_EQ(std::string(e.what()).rfind("getParentPath failed: ", 0), 0u) << e.what();
    }
}

TEST_F(VirtualPaths, AppendDropsExactlyOneLeadingSlash) {
    struct Row {
        std::u16string child;
        std::u16string joined;
    } const rows[] = {
        {u"c", u"memory:///a/b/c"},
        {u"/c", u"memory:///a/b/c"},
        {u"c/d", u"memory:///a/b/c/d"},
        {u"../c", u"memory:///a/c"},
        {u"", u"memory:///a/b"},
    };
    for (auto const& row : rows) {
        SCOPED_TRACE(toUDE(row.child));
        EXPECT_EQ(ops.appendPath(u"memory:///a/b", row.child), row.joined);
    }
    // Two leading slashes lose only the first: the rest is whatever the storage makes of "/c".
    EXPECT_EQ(ops.appendPath(u"memory:///a/b", u"//c"),
              vfs::AbsoluteIRI(vfs::AbsoluteIRI(u"memory:///a/b"), u"/c").toString());
    EXPECT_THROW(ops.appendPath(u"relative/base", u"c"), Exception);
}

TEST_F(VirtualPaths, NormalizeGivesCanonicalTextAndTurnsLocalPathsIntoFileIRIs) {
    EXPECT_EQ(ops.normalizePath(u"memory:///a//b/./c/../d/"), u"memory:///a/b/d");
    // A local path becomes a file IRI whose local form is the path itself, lexically normal.
    std::mt19937 rng(7);
    std::u16string const alphabet = u"ab -_.%#?\u00E9\u4E2D";
    for (int i = 0; i < 200; ++i) {
        std::u16string local = u"/tmp";
        int const depth = 1 + int(rng() % 3);
        for (int d = 0; d < depth; ++d) {
            local += u'/';
            int const length = 1 + int(rng() % 6);
            for (int k = 0; k < length; ++k)
                local += alphabet[rng() % alphabet.size()];
        }
        std::filesystem::path const oracle = std::filesystem::path(toUDE(local)).lexically_normal();
        std::string expected = oracle.generic_string();
        if (expected.size() > 1 && expected.back() == '/')
            expected.pop_back();
        SCOPED_TRACE(toUDE(local));
        std::u16string const iri = ops.normalizePath(local);
        EXPECT_EQ(iri.rfind(u"file:///", 0), 0u);
        EXPECT_EQ(ops.normalizePath(iri), iri) << "canonical text is not stable";
        std::u16string back;
        ASSERT_TRUE(ops.getLocalPath(iri, back));
        EXPECT_EQ(toUDE(back), expected);
    }
}

TEST_F(VirtualPaths, LocalPathOnlyForTheSchemeSpelledFile) {
    std::u16string out = u"stale";
    EXPECT_TRUE(ops.getLocalPath(u"file:///home/a/b%20c.pkg", out));
    EXPECT_EQ(out, u"/home/a/b c.pkg");
    out = u"stale";
    EXPECT_FALSE(ops.getLocalPath(u"FILE:///home/a/b.pkg", out));
    EXPECT_EQ(out, u"");
    out = u"stale";
    EXPECT_FALSE(ops.getLocalPath(u"memory:///home/a/b.pkg", out));
    EXPECT_EQ(out, u"");
    EXPECT_THROW(ops.getLocalPath(u"file:relative", out), vfs::InvalidIRIException);
}

TEST_F(VirtualPaths, AbsoluteOnlyForWellFormedIRIsOfKnownSchemes) {
    struct Row {
        std::u16string text;
        bool absolute;
    } const rows[] = {
        {u"memory:///a", true}, {u"file:///", true},      {u"MEMORY:///a", true}, {u"/tmp/a", false},
        {u"a/b", false},        {u"gopher:///a", false},  {u"memory:a", false},   {u"memory://host/a", false},
        {u"", false},           {u"memory:///%zz", false},
    };
    for (auto const& row : rows) {
        SCOPED_TRACE(toUDE(row.text));
        EXPECT_EQ(ops.isAbsolutePath(row.text), row.absolute);
    }
}

TEST_F(VirtualPaths, TempNameInTheLocalTempFolderIsAFreshFileIRI) {
    std::string const tempDir = toUDE(util::getTempDir());
    std::set<std::u16string> seen;
    for (int i = 0; i < 20; ++i) {
        std::u16string const name = ops.getTempName(u"");
        ASSERT_EQ(name.rfind(u"file:///", 0), 0u) << toUDE(name);
        std::u16string local;
        ASSERT_TRUE(ops.getLocalPath(name, local));
        std::filesystem::path const p(toUDE(local));
        EXPECT_EQ(p.parent_path(), std::filesystem::path(tempDir).lexically_normal());
        EXPECT_EQ(p.extension(), ".tmp");
        EXPECT_EQ(p.filename().string().front(), '.');
        EXPECT_FALSE(std::filesystem::exists(p));
        EXPECT_TRUE(seen.insert(name).second) << "name repeated";
    }
}

TEST_F(VirtualPaths, TempNameKeepsTheSchemeOfTheFolder) {
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
    EXPECT_EQ(ec, error_code(errc::operation_not_supported, boost::system::generic_category()));
    try {
        ops.getLinkTarget(u"memory:///l");
        FAIL();
    } catch (Exception const& e) {
        EXPECT_STREQ(e.what(), "getLinkTarget failed: Symlinks are not supported");
    }
    try {
        ops.createSymlink(u"memory:///l", u"memory:///m");
        FAIL();
    } catch (Exception const& e) {
        EXPECT_STREQ(e.what(), "createSymlink failed: Creation of symlinks is not supported by VirtualFileSystemOps");
        EXPECT_EQ(e.code(), error_code(errc::operation_not_supported, boost::system::generic_category()));
    }
    EXPECT_FALSE(ops.exists(u"memory:///m"));
}

} // namespace
} // namespace opc::test
