#include "support/BehaviourSuite.hpp"

#include <boost/date_time/posix_time/posix_time.hpp>
#include <unicode/ustring.h>

#include <algorithm>
#include <iterator>
#include <random>
#include <sstream>
#include <stdexcept>

namespace opc::test {

namespace errc = boost::system::errc;
using boost::system::error_code;

World::~World() = default;

std::u16string utf16(std::string const& utf8) {
    std::u16string out(utf8.size(), u'\0');
    int32_t length = 0;
    UErrorCode status = U_ZERO_ERROR;
    u_strFromUTF8(reinterpret_cast<UChar*>(out.data()), int32_t(out.size()), &length, utf8.data(),
                  int32_t(utf8.size()), &status);
    if (U_FAILURE(status))
        throw std::invalid_argument("not UTF-8: " + utf8);
    out.resize(std::size_t(length));
    return out;
}

std::u16string World::at(std::string const& relative) {
    std::u16string path = root();
    std::stringstream elements(relative);
    for (std::string element; std::getline(elements, element, '/');)
        if (!element.empty())
            path = ops().appendPath(path, utf16(element));
    return path;
}

void World::writeFile(std::u16string const& path, std::string const& bytes) {
    auto out = ops().createOutputStream(path, OpenMode::WriteBinary | OpenMode::Truncate);
    ASSERT_TRUE(out);
    out->write(bytes.data(), std::streamsize(bytes.size()));
    out->flush();
    ASSERT_TRUE(out->good());
}

std::string World::readFile(std::u16string const& path) {
    auto in = ops().createInputStream(path, OpenMode::ReadBinary);
    return in ? std::string(std::istreambuf_iterator<char>(*in), {}) : std::string();
}

std::vector<std::u16string> World::listing(std::u16string const& folder, bool recursive) {
    std::vector<std::u16string> files;
    ops().getFiles(folder, files, recursive);
    for (auto& f : files)
        f = ops().normalizePath(f);
    std::sort(files.begin(), files.end());
    return files;
}

std::vector<std::u16string> World::expected(std::vector<std::string> const& relatives) {
    std::vector<std::u16string> paths;
    for (auto const& r : relatives)
        paths.push_back(ops().normalizePath(at(r)));
    std::sort(paths.begin(), paths.end());
    return paths;
}

std::string worldName(::testing::TestParamInfo<WorldMaker> const& info) { return info.param.name; }

void BehaviourSuite::SetUp() {
    m_world = GetParam().make();
    ASSERT_TRUE(m_world);
}

void BehaviourSuite::TearDown() { m_world.reset(); }

void BehaviourSuite::expectFailure(error_code const& ec, errc::errc_t precise) const {
    EXPECT_TRUE(ec.failed());
    if (caps().preciseErrors) {
        EXPECT_EQ(ec, errc::make_error_code(precise)) << ec.message();
    }
}

// Only the back ends' own test files instantiate the suite.
GTEST_ALLOW_UNINSTANTIATED_PARAMETERIZED_TEST(BehaviourSuite);

TEST_P(BehaviourSuite, QueriesTellFilesFoldersAndMissingPathsApart) {
    world().writeFile(world().at("file.bin"), "x");
    ops().createFolder(world().at("folder"));
    struct Row {
        char const* relative;
        bool exists, file, folder;
    } const rows[] = {
        {"file.bin", true, true, false},
        {"folder", true, false, true},
        {"missing", false, false, false},
        {"folder/missing", false, false, false},
    };
    for (auto const& row : rows) {
        SCOPED_TRACE(row.relative);
        auto const path = world().at(row.relative);
        error_code ec;
        EXPECT_EQ(ops().exists(path, ec), row.exists);
        EXPECT_EQ(ops().isFile(path, ec), row.file);
        EXPECT_EQ(ops().isFolder(path, ec), row.folder);
        EXPECT_FALSE(ops().isSymlink(path, ec));
        EXPECT_FALSE(ec.failed());
    }
    error_code ec;
    EXPECT_EQ(ops().getSizeInBytes(world().at("missing"), ec), 0u);
    expectFailure(ec, errc::no_such_file_or_directory);
    EXPECT_EQ(ops().getPermissions(world().at("missing"), ec), Perms::PermsUnknown);
    expectFailure(ec, errc::no_such_file_or_directory);
    if (caps().preciseErrors) {
        EXPECT_EQ(ops().getSizeInBytes(world().at("folder"), ec), 0u);
        expectFailure(ec, errc::is_a_directory);
    }
}

TEST_P(BehaviourSuite, SizesAndContentRoundTripForGeneratedFiles) {
    std::mt19937 gen(20240611);
    std::uniform_int_distribution<int> byte(0, 255);
    for (std::size_t size : std::vector<std::size_t>{0, 1, 511, 4096, 4097, 65537, 300000}) {
        SCOPED_TRACE(size);
        auto const path = world().at("f" + std::to_string(size));
        std::string bytes(size, '\0');
        for (auto& c : bytes)
            c = char(byte(gen));
        world().writeFile(path, bytes);
        EXPECT_EQ(ops().getSizeInBytes(path), size);
        EXPECT_EQ(world().readFile(path), bytes);
    }
}

TEST_P(BehaviourSuite, ListingsNameFilesNeverFoldersAndAppend) {
    std::vector<std::string> const top = {"a.txt", "b c.txt", "\xC3\xA9t\xC3\xA9.bin"};
    std::vector<std::string> const deep = {"sub/one", "sub/deeper/two", "sub/deeper/three"};
    ops().createFolders(world().at("sub/deeper"));
    ops().createFolders(world().at("only/folders/here"));
    for (auto const& rel : top)
        world().writeFile(world().at(rel), rel);
    for (auto const& rel : deep)
        world().writeFile(world().at(rel), rel);

    EXPECT_EQ(world().listing(world().root(), false), world().expected(top));
    auto all = top;
    all.insert(all.end(), deep.begin(), deep.end());
    EXPECT_EQ(world().listing(world().root(), true), world().expected(all));
    EXPECT_TRUE(world().listing(world().at("only"), true).empty());

    std::vector<std::u16string> files = {u"kept"};
    ops().getFiles(world().at("sub"), files, false);
    EXPECT_EQ(files.size(), 2u);
    EXPECT_EQ(files.front(), u"kept");
    error_code ec;
    ops().getFiles(world().at("missing"), files, true, ec);
    expectFailure(ec, errc::no_such_file_or_directory);
    EXPECT_EQ(files.size(), 2u);
}

TEST_P(BehaviourSuite, StreamsTruncateOrAppendAndFailOnMissingPaths) {
    auto const path = world().at("log");
    world().writeFile(path, "first line\n");
    if (auto out = ops().createOutputStream(path, OpenMode::WriteBinary | OpenMode::Append))
        *out << "second\n";
    EXPECT_EQ(world().readFile(path), "first line\nsecond\n");
    if (auto out = ops().createOutputStream(path, OpenMode::WriteBinary)) // no append: afresh
        *out << "new";
    EXPECT_EQ(world().readFile(path), "new");

    error_code ec;
    EXPECT_FALSE(ops().createInputStream(world().at("missing"), OpenMode::ReadBinary, ec));
    expectFailure(ec, errc::no_such_file_or_directory);
    EXPECT_FALSE(ops().createOutputStream(world().at("no/such/file"), OpenMode::WriteBinary, ec));
    expectFailure(ec, errc::no_such_file_or_directory);
    EXPECT_FALSE(ops().exists(world().at("no")));
}

TEST_P(BehaviourSuite, PermissionsRoundTrip) {
    auto const path = world().at("p");
    world().writeFile(path, "data");
    for (auto perms : {Perms::Perms_tag(0444), Perms::Perms_tag(0644), Perms::Perms_tag(0444)}) {
        ops().setPermissions(path, perms);
        EXPECT_EQ(ops().getPermissions(path) & Perms::AllPerms, perms);
    }
    if (caps().unknownValuesChangeNothing) {
        ops().setPermissions(path, Perms::PermsUnknown);
        EXPECT_EQ(ops().getPermissions(path) & Perms::AllPerms, Perms::Perms_tag(0444));
    }
    EXPECT_EQ(world().readFile(path), "data"); // read-only still reads
    if (!caps().posixPermissions)
        return;
    std::mt19937 gen(7);
    std::uniform_int_distribution<unsigned> bits(0, 0777);
    for (int i = 0; i < 40; ++i) {
        auto const perms = Perms::Perms_tag(bits(gen) | 0600); // the owner must still clean up
        ops().setPermissions(path, perms);
        EXPECT_EQ(ops().getPermissions(path) & Perms::AllPerms, perms);
    }
}

TEST_P(BehaviourSuite, ModificationTimesRoundTrip) {
    using namespace boost::posix_time;
    auto const path = world().at("t");
    world().writeFile(path, "t");
    for (auto const& text : {"2001-02-03 04:05:06", "2019-12-31 23:59:59", "1999-06-15 12:00:00"}) {
        ops().setLastModifiedTime(path, time_from_string(text));
        EXPECT_EQ(ops().getLastModifiedTime(path), time_from_string(text)) << text;
    }
    if (caps().unknownValuesChangeNothing) {
        ops().setLastModifiedTime(path, ptime(boost::date_time::not_a_date_time));
        EXPECT_EQ(ops().getLastModifiedTime(path), time_from_string("1999-06-15 12:00:00"));
    }
    error_code ec;
    EXPECT_TRUE(ops().getLastModifiedTime(world().at("missing"), ec).is_not_a_date_time());
    expectFailure(ec, errc::no_such_file_or_directory);
}

TEST_P(BehaviourSuite, CreatingFolders) {
    error_code ec;
    ops().createFolder(world().at("a/b"), ec);
    expectFailure(ec, errc::no_such_file_or_directory);
    EXPECT_FALSE(ops().exists(world().at("a")));
    ops().createFolders(world().at("a/b/c"));
    EXPECT_TRUE(ops().isFolder(world().at("a/b/c")));
    ops().createFolders(world().at("a/b/c")); // already there: fine
    if (caps().preciseErrors) {
        ops().createFolder(world().at("a"), ec);
        expectFailure(ec, errc::file_exists);
    }
}

TEST_P(BehaviourSuite, CopyOfAFileFollowsTheMode) {
    auto const src = world().at("src");
    auto const dst = world().at("dst");
    for (ExistsMode mode : {NoOverwrite, FailIfExists, Overwrite}) {
        error_code ec;
        ops().copy(world().at("missing"), dst, mode, ec);
        expectFailure(ec, errc::no_such_file_or_directory);
        EXPECT_FALSE(ops().exists(dst));
    }
    world().writeFile(src, "new content");
    ops().copy(src, dst, NoOverwrite);
    EXPECT_EQ(world().readFile(dst), "new content");
    for (ExistsMode mode : {NoOverwrite, FailIfExists}) {
        SCOPED_TRACE(int(mode));
        world().writeFile(dst, "old");
        error_code ec;
        ops().copy(src, dst, mode, ec);
        expectFailure(ec, errc::file_exists);
        EXPECT_EQ(world().readFile(dst), "old");
    }
    ops().copy(src, dst, Overwrite);
    EXPECT_EQ(world().readFile(dst), "new content");
    EXPECT_EQ(world().readFile(src), "new content");
}

TEST_P(BehaviourSuite, CopyOfAFolderTree) {
    ops().createFolders(world().at("src/inner"));
    world().writeFile(world().at("src/a"), "a");
    world().writeFile(world().at("src/inner/b"), "b");
    auto const src = world().at("src");
    auto const dst = world().at("dst");
    auto const copied = world().expected({"dst/a", "dst/inner/b"});
    ops().copy(src, dst, NoOverwrite);
    EXPECT_EQ(world().listing(dst, true), copied);
    EXPECT_EQ(world().readFile(world().at("dst/inner/b")), "b");

    // Overwrite replaces the whole destination: files only it held disappear.
    world().writeFile(world().at("dst/stale"), "s");
    ops().copy(src, dst, Overwrite);
    EXPECT_EQ(world().listing(dst, true), copied);
    if (!caps().folderCopyModes)
        return;
    auto const merged = world().expected({"dst/a", "dst/inner/b", "dst/extra"});
    world().writeFile(world().at("dst/extra"), "e");
    error_code ec;
    ops().copy(src, dst, FailIfExists, ec);
    expectFailure(ec, errc::file_exists);
    EXPECT_EQ(world().listing(dst, true), merged);
    // NoOverwrite copies into the existing folder and keeps what only it held.
    ops().remove(world().at("dst/a"));
    ops().removeAll(world().at("dst/inner"));
    ops().copy(src, dst, NoOverwrite);
    EXPECT_EQ(world().listing(dst, true), merged);
}

TEST_P(BehaviourSuite, RenameMovesAndReplaces) {
    auto const a = world().at("a");
    auto const b = world().at("b");
    world().writeFile(a, "from a");
    world().writeFile(b, "from b");
    ops().rename(a, b);
    EXPECT_FALSE(ops().exists(a));
    EXPECT_EQ(world().readFile(b), "from a");

    ops().createFolders(world().at("d1/inner"));
    world().writeFile(world().at("d1/inner/f"), "f");
    ops().rename(world().at("d1"), world().at("d2"));
    EXPECT_FALSE(ops().exists(world().at("d1")));
    EXPECT_EQ(world().readFile(world().at("d2/inner/f")), "f");

    error_code ec;
    ops().rename(world().at("missing"), world().at("c"), ec);
    expectFailure(ec, errc::no_such_file_or_directory);
    ops().rename(std::u16string(), b, ec);
    expectFailure(ec, errc::invalid_argument);
    ops().rename(b, std::u16string(), ec);
    expectFailure(ec, errc::invalid_argument);
    EXPECT_EQ(world().readFile(b), "from a");
}

TEST_P(BehaviourSuite, RemoveTakesFilesAndEmptyFoldersOnly) {
    ops().createFolders(world().at("full/inner"));
    world().writeFile(world().at("full/inner/f"), "f");
    ops().createFolder(world().at("empty"));
    world().writeFile(world().at("file"), "x");
    ops().remove(world().at("file"));
    ops().remove(world().at("empty"));
    EXPECT_FALSE(ops().exists(world().at("file")));
    EXPECT_FALSE(ops().exists(world().at("empty")));

    error_code ec;
    ops().remove(world().at("full"), ec);
    expectFailure(ec, errc::directory_not_empty);
    EXPECT_TRUE(ops().isFile(world().at("full/inner/f")));
    ops().remove(world().at("missing"), ec);
    expectFailure(ec, errc::no_such_file_or_directory);

    ops().removeAll(world().at("full"));
    EXPECT_FALSE(ops().exists(world().at("full")));
    if (caps().removeAllMissingIsFine) {
        ops().removeAll(world().at("full"), ec);
        EXPECT_FALSE(ec.failed()) << ec.message();
    }
}

TEST_P(BehaviourSuite, LinksAreSeenNotFollowed) {
    if (!caps().symlinks)
        GTEST_SKIP() << "no symbolic links in this back end";
    ops().createFolder(world().at("folder"));
    world().writeFile(world().at("folder/inside"), "i");
    world().writeFile(world().at("file"), "12345");
    auto const outside = ops().normalizePath(world().at("folder"));
    ops().createSymlink(u"file", world().at("to-file"));
    ops().createSymlink(outside, world().at("to-folder"));
    ops().createSymlink(u"nowhere", world().at("dangling"));
    for (char const* link : {"to-file", "to-folder", "dangling"}) {
        SCOPED_TRACE(link);
        auto const path = world().at(link);
        EXPECT_TRUE(ops().exists(path));
        EXPECT_TRUE(ops().isSymlink(path));
        EXPECT_FALSE(ops().isFile(path));
        EXPECT_FALSE(ops().isFolder(path));
        error_code ec;
        EXPECT_EQ(ops().getSizeInBytes(path, ec), 0u);
        expectFailure(ec, errc::is_a_directory);
    }
    EXPECT_EQ(ops().getLinkTarget(world().at("to-file")), u"file");
    EXPECT_EQ(ops().getLinkTarget(world().at("dangling")), u"nowhere");
    // Links are listed, also links to folders, and never descended into.
    EXPECT_EQ(world().listing(world().root(), true),
              world().expected({"file", "folder/inside", "to-file", "to-folder", "dangling"}));

    // Copies keep the link itself; removal never reaches through to the target.
    for (ExistsMode mode : {NoOverwrite, FailIfExists, Overwrite}) {
        auto const copy = world().at("copy" + std::to_string(int(mode)));
        ops().copy(world().at("to-folder"), copy, mode);
        EXPECT_TRUE(ops().isSymlink(copy));
        EXPECT_EQ(ops().getLinkTarget(copy), outside);
        ops().remove(copy);
    }
    ops().createFolder(world().at("tree"));
    ops().rename(world().at("to-folder"), world().at("tree/link"));
    ops().copy(world().at("tree"), world().at("tree2"), NoOverwrite);
    EXPECT_TRUE(ops().isSymlink(world().at("tree2/link")));
    ops().remove(world().at("tree2/link"));
    ops().removeAll(world().at("tree"));
    EXPECT_FALSE(ops().exists(world().at("tree")));
    EXPECT_EQ(world().readFile(world().at("folder/inside")), "i");
}

} // namespace opc::test
