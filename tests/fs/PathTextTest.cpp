// Path text, where the back ends differ, and the selector that routes by it: tables of input and
// output.
#include "fs/Suite.hpp"

#include <opc/FileSystemOpsSelector.hpp>
#include <opc/util/Temp.hpp>

#include <array>
#include <optional>

namespace opc::test {
namespace {

struct PathRow {
    std::u16string path, filename, extension, parent, normal;
};

void expectRows(FileSystemOps& ops, std::vector<PathRow> const& rows) {
    for (auto const& row : rows) {
        SCOPED_TRACE(toUDEString(row.path));
        EXPECT_EQ(ops.getFilename(row.path), row.filename);
        EXPECT_EQ(ops.getExtension(row.path), row.extension);
        EXPECT_EQ(ops.getParentPath(row.path), row.parent);
        EXPECT_EQ(ops.normalizePath(row.path), row.normal);
    }
}

TEST(PathText, Local) {
    LocalFileSystemOps ops;
    expectRows(ops, {{u"/x/y.tar.gz", u"y.tar.gz", u".gz", u"/x", u"/x/y.tar.gz"},
                     {u"/x//y///z", u"z", u"", u"/x/y", u"/x/y/z"},
                     {u"z", u"z", u"", u"", u"z"},
                     {u"/a/.profile", u".profile", u".profile", u"/a", u"/a/.profile"}});
    for (auto const& [base, tail, joined] : std::vector<std::array<std::u16string, 3>>{
             {u"/a", u"b", u"/a/b"}, {u"/a", u"/b", u"/a/b"}, {u"/a", u"//b", u"/a/b"}, {u"/a/", u"b", u"/a/b"}, {u"/a", u"/", u"/a"}, {u"/a", u"", u"/a"}, {u"", u"c", u"c"}, {u"", u"/", u""}, {u"a//b", u"c", u"a/b/c"}, {u"/", u"x", u"/x"}, {u"/a", u"caf\u00E9 1", u"/a/caf\u00E9 1"}})
        EXPECT_EQ(ops.appendPath(base, tail), joined) << toUDEString(base) << " + " << toUDEString(tail);
    EXPECT_TRUE(ops.isAbsolutePath(u"/no/such/thing"));
    EXPECT_FALSE(ops.isAbsolutePath(u"relative/path") || ops.isAbsolutePath(u""));
    std::u16string local = u"previous";
    EXPECT_TRUE(ops.getLocalPath(u"any//thing", local) && local == u"any//thing") << toUDEString(local);
}

TEST(PathText, Virtual) {
    StorageSystemReference storage;
    VirtualFileSystemOps ops(storage);
    expectRows(ops, {{u"memory:///a/b.tar.gz", u"b.tar.gz", u"gz", u"memory:///a", u"memory:///a/b.tar.gz"},
                     {u"memory:///a/b.", u"b.", u"", u"memory:///a", u"memory:///a/b."},
                     {u"memory:///a.d/b", u"b", u"", u"memory:///a.d", u"memory:///a.d/b"},
                     {u"memory:///a/.profile", u".profile", u"profile", u"memory:///a", u"memory:///a/.profile"},
                     {u"memory:///a//b/./c/../d%20e.pkg/", u"d e.pkg", u"pkg", u"memory:///a/b", u"memory:///a/b/d%20e.pkg"},
                     {u"file:///x/r%C3%A9sum%C3%A9.P%20KG", u"r\u00E9sum\u00E9.P KG", u"P KG", u"file:///x",
                      u"file:///x/r\u00E9sum\u00E9.P%20KG"},
                     {u"memory:///", u"", u"", u"", u"memory:///"},
                     {u"memory:///\U0010FFFF.x", u"\U0010FFFF.x", u"x", u"memory:///", u"memory:///\U0010FFFF.x"}});
    // Names let the storage's exception out; the parent reports through the frame.
    EXPECT_THROW(ops.getFilename(u"memory:relative"), vfs::InvalidIRIException);
    EXPECT_THROW(ops.getExtension(u"gopher:///a.b"), vfs::UnsupportedIRISchemeException);
    EXPECT_THROW(ops.getParentPath(u"not an iri"), Exception);
    for (auto const& [tail, joined] : std::vector<std::array<std::u16string, 2>>{{u"c", u"memory:///a/b/c"}, {u"/c", u"memory:///a/b/c"}, {u"//c", u"memory:///a/b/c"}, {u"../c", u"memory:///a/c"}, {u"", u"memory:///a/b"}})
        EXPECT_EQ(ops.appendPath(u"memory:///a/b", tail), joined) << toUDEString(tail);
    EXPECT_THROW(ops.appendPath(u"relative/base", u"c"), Exception);

    std::u16string back; // a local path becomes the file: IRI of its lexically normal form
    EXPECT_EQ(ops.normalizePath(u"/tmp/a b//c/../d\u00E9%#"), u"file:///tmp/a%20b/d\u00E9%25%23");
    EXPECT_TRUE(ops.getLocalPath(u"file:///tmp/a%20b/d\u00E9%25%23", back));
    EXPECT_EQ(back, u"/tmp/a b/d\u00E9%#");
    for (auto const* other : {u"FILE:///home/a/b.pkg", u"memory:///home/a/b.pkg"}) {
        std::u16string out = u"stale";
        EXPECT_FALSE(ops.getLocalPath(other, out) || !out.empty());
    }
    for (auto const& [text, absolute] : std::vector<std::pair<std::u16string, bool>>{
             {u"memory:///a", true}, {u"MEMORY:///a", true}, {u"Z:///a", false}, {u"/tmp/a", false}, {u"a/b", false}, {u"gopher:///a", false}, {u"memory:a", false}, {u"memory://host/a", false}, {u"", false}, {u"memory:///%zz", false}})
        EXPECT_EQ(ops.isAbsolutePath(text), absolute) << toUDEString(text);
    std::u16string const inTemp = ops.getTempName(u""); // no folder: in the host's temporary folder
    EXPECT_TRUE(ops.getLocalPath(inTemp, back) && !ops.exists(inTemp));
    EXPECT_EQ(fs::path(toUDEString(back)).parent_path(), fs::path(toUDEString(util::getTempDir())).lexically_normal());
    ops.createFolders(u"memory:///work/area");
    std::u16string const name = ops.getTempName(u"memory:///work/area");
    EXPECT_EQ(ops.getParentPath(name), u"memory:///work/area");
    EXPECT_EQ(ops.getExtension(name), u"tmp");
    EXPECT_FALSE(ops.exists(name));
    EXPECT_THROW(ops.getTempName(u"/not/an/iri"), Exception);
}

TEST(Selector, RoutesByPrefixSharesItsBackEndsAndNeedsStorageForIRIs) {
    StorageSystemReference storage;
    std::optional<FileSystemOpsSelector> original(std::in_place, storage);
    FileSystemOpsSelector copy(*original);
    FileSystemOps *const local = &original->getLocal(), *const virt = &original->getVirtual();
    original.reset();
    EXPECT_EQ(&copy.getPhysical(), local);
    for (std::u16string const path : {u"memory:///a", u"MEMORY:///a", u"file:///x", u"FiLe:relative"})
        EXPECT_EQ(&copy.getForPath(path), virt);
    for (std::u16string const path : {u"/tmp/x", u"gopher:///a", u"relative/x", u"./a:b", u"/x:y", u"", u"memory"})
        EXPECT_EQ(&copy.getForPath(path), local);
    copy.getVirtual().createFolder(u"memory:///after"); // on the given storage, after the original is gone
    EXPECT_TRUE(VirtualFileSystemOps(storage).isFolder(u"memory:///after"));
    FileSystemOpsSelector const alone;
    EXPECT_TRUE(alone.getForPath(u"/").isFolder(u"/"));
    EXPECT_THROW(alone.getVirtual(), Exception);
    EXPECT_THROW(alone.getForPath(u"memory:///a"), Exception);
}

} // namespace
} // namespace opc::test
