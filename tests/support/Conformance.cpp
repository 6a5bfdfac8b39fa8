#include "support/Conformance.hpp"

#include <opc/CommitOptions.hpp>
#include <opc/Exception.hpp>
#include <opc/LocalFileSystemOps.hpp>
#include <opc/VirtualFileSystemOps.hpp>

#include <stratum/storage/vfs/StorageSystem.hpp>

#include <boost/date_time/posix_time/posix_time.hpp>
#include <unicode/ustring.h>

#include <algorithm>
#include <csignal>
#include <filesystem>
#include <fstream>
#include <random>
#include <sstream>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

namespace opc::test {

namespace fs = std::filesystem;
namespace errc = boost::system::errc;
using boost::system::error_code;

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

ScratchFolder::ScratchFolder() {
    std::string pattern = (fs::temp_directory_path() / "opc-test-XXXXXX").string();
    if (!::mkdtemp(pattern.data()))
        throw std::runtime_error("cannot create a scratch folder in " + fs::temp_directory_path().string());
    m_path = pattern;
    ::chmod(m_path.c_str(), 0777);
}

ScratchFolder::~ScratchFolder() {
    std::error_code ec; // tests leave read-only folders behind: give the owner its rights back
    for (auto it = fs::recursive_directory_iterator(m_path, ec); !ec && it != fs::recursive_directory_iterator();
         it.increment(ec))
        if (it->is_directory(ec) && !it->is_symlink(ec))
            fs::permissions(it->path(), fs::perms::owner_all, fs::perm_options::add, ec);
    fs::remove_all(m_path, ec);
}

World::~World() = default;

std::u16string World::at(std::string const& relative, std::u16string base) {
    std::u16string path = base.empty() ? root() : base;
    std::stringstream elements(relative);
    for (std::string element; std::getline(elements, element, '/');)
        path = ops().appendPath(path, utf16(element));
    return path;
}

void World::write(std::u16string const& path, std::string const& bytes) {
    auto out = ops().createOutputStream(path, OpenMode::WriteBinary | OpenMode::Truncate);
    out->write(bytes.data(), std::streamsize(bytes.size()));
    out->flush();
}

std::string World::read(std::u16string const& path) {
    error_code ec;
    auto in = ops().createInputStream(path, OpenMode::ReadBinary, ec);
    return in ? std::string(std::istreambuf_iterator<char>(*in), {}) : "<missing>";
}

std::vector<std::u16string> World::listing(std::u16string const& folder, bool recursive) {
    std::vector<std::u16string> files;
    ops().getFiles(folder, files, recursive);
    for (auto& f : files)
        f = ops().normalizePath(f);
    std::sort(files.begin(), files.end());
    return files;
}

std::vector<std::u16string> World::expected(std::vector<std::string> const& relatives, std::u16string base) {
    std::vector<std::u16string> paths;
    for (auto const& r : relatives)
        paths.push_back(ops().normalizePath(at(r, base)));
    std::sort(paths.begin(), paths.end());
    return paths;
}

namespace {

class LocalWorld : public World {
public:
    FileSystemOps& ops() override { return m_ops; }
    std::u16string root() const override { return utf16(m_folder.path()); }
    std::string host(std::string const& relative) const override { return m_folder.at(relative); }

private:
    ScratchFolder m_folder;
    LocalFileSystemOps m_ops;
};

class VirtualWorld : public World {
public:
    explicit VirtualWorld(std::u16string const& scheme) : m_onHost(scheme == u"file") {
        m_root = m_onHost ? m_ops.normalizePath(utf16(m_folder.path())) : scheme + u":///conformance";
        m_ops.createFolders(m_root);
    }
    FileSystemOps& ops() override { return m_ops; }
    std::u16string root() const override { return m_root; }
    std::string host(std::string const& relative) const override {
        return m_onHost ? m_folder.at(relative) : std::string();
    }
    std::u16string otherRoot() override {
        auto const other = m_onHost ? u"memory:///other" : m_ops.normalizePath(utf16(m_folder.path()));
        m_ops.createFolders(other);
        return other;
    }

private:
    bool m_onHost;
    ScratchFolder m_folder;
    stratum::storage::vfs::StorageSystemReference m_storage;
    VirtualFileSystemOps m_ops{m_storage};
    std::u16string m_root;
};

unsigned hostMode(std::string const& path) {
    struct stat st {};
    EXPECT_EQ(::lstat(path.c_str(), &st), 0) << path;
    return st.st_mode & 07777;
}

std::ios_base::openmode standardMode(unsigned bits) {
    std::pair<unsigned, std::ios_base::openmode> const map[] = {
        {OpenMode::Append, std::ios_base::app}, {OpenMode::AtEnd, std::ios_base::ate},
        {OpenMode::Binary, std::ios_base::binary}, {OpenMode::In, std::ios_base::in},
        {OpenMode::Out, std::ios_base::out}, {OpenMode::Truncate, std::ios_base::trunc}};
    std::ios_base::openmode mode{};
    for (auto const& [bit, standard] : map)
        if (bits & bit)
            mode |= standard;
    return mode;
}

} // namespace

std::unique_ptr<World> makeLocalWorld() { return std::make_unique<LocalWorld>(); }
std::unique_ptr<World> makeVirtualWorld(std::u16string const& scheme) { return std::make_unique<VirtualWorld>(scheme); }

void Conformance::expectFailure(error_code const& ec, errc::errc_t precise) const {
    EXPECT_TRUE(ec.failed());
    if (caps().preciseErrors) {
        EXPECT_EQ(ec, errc::make_error_code(precise)) << ec.message();
    }
}

GTEST_ALLOW_UNINSTANTIATED_PARAMETERIZED_TEST(Conformance);

TEST_P(Conformance, QueriesTellFilesFoldersAndMissingPathsApart) {
    world().write(world().at("file.bin"), "x");
    ops().createFolder(world().at("folder"));
    struct Row {
        char const* relative;
        bool exists, file, folder;
    } const rows[] = {{"file.bin", true, true, false}, {"folder", true, false, true},
                      {"missing", false, false, false}, {"folder/missing", false, false, false}};
    for (auto const& row : rows) {
        SCOPED_TRACE(row.relative);
        auto const path = world().at(row.relative);
        error_code ec = errc::make_error_code(errc::timed_out); // a stale code is cleared
        EXPECT_EQ(ops().exists(path, ec), row.exists);
        EXPECT_EQ(ops().isFile(path, ec), row.file);
        EXPECT_EQ(ops().isFolder(path, ec), row.folder);
        EXPECT_FALSE(ops().isSymlink(path, ec));
        EXPECT_FALSE(ec.failed()) << ec.message();
    }
    error_code ec;
    EXPECT_EQ(ops().getSizeInBytes(world().at("missing"), ec), 0u);
    expectFailure(ec, errc::no_such_file_or_directory);
    EXPECT_EQ(ops().getPermissions(world().at("missing"), ec), Perms::PermsUnknown);
    expectFailure(ec, errc::no_such_file_or_directory);
    EXPECT_EQ(ops().getSizeInBytes(world().at("folder"), ec), 0u);
    expectFailure(ec, errc::is_a_directory);
}

TEST_P(Conformance, SizesAndContentRoundTripForGeneratedFiles) {
    std::mt19937 gen(20240611);
    for (std::size_t size : {0, 1, 511, 4096, 4097, 65537, 300000}) {
        SCOPED_TRACE(size);
        auto const path = world().at("f" + std::to_string(size));
        std::string bytes(size, '\0');
        for (auto& c : bytes)
            c = char(gen());
        world().write(path, bytes);
        EXPECT_EQ(ops().getSizeInBytes(path), size);
        EXPECT_EQ(world().read(path), bytes);
    }
}

TEST_P(Conformance, ListingsNameFilesNeverFoldersAndAppend) {
    std::vector<std::string> const top = {"a.txt", "b c.txt", "\xC3\xA9t\xC3\xA9.bin"};
    std::vector<std::string> const deep = {"sub/one", "sub/deeper/two", "sub/deeper/three"};
    ops().createFolders(world().at("sub/deeper"));
    ops().createFolders(world().at("only/folders/here"));
    auto all = top;
    all.insert(all.end(), deep.begin(), deep.end());
    for (auto const& rel : all)
        world().write(world().at(rel), rel);
    EXPECT_EQ(world().listing(world().root(), false), world().expected(top));
    EXPECT_EQ(world().listing(world().root()), world().expected(all));
    EXPECT_TRUE(world().listing(world().at("only")).empty());

    std::vector<std::u16string> files = {u"kept"};
    ops().getFiles(world().at("sub"), files, false);
    EXPECT_EQ(files.size(), 2u);
    EXPECT_EQ(files.front(), u"kept");
    error_code ec;
    for (auto const* notAFolder : {"missing", "a.txt"}) {
        ops().getFiles(world().at(notAFolder), files, true, ec);
        expectFailure(ec, std::string(notAFolder) == "missing" ? errc::no_such_file_or_directory : errc::not_a_directory);
    }
    EXPECT_EQ(files.size(), 2u);
}

// Every combination of open-mode bits, on a missing and on an existing file, against the
// standard file streams on the host: whether it opens, and what the file holds afterwards.
TEST_P(Conformance, StreamModesActLikeStandardFileStreams) {
    ScratchFolder oracleFolder;
    std::string const oracle = oracleFolder.at("oracle");
    auto hostContent = [&] {
        std::ifstream in(oracle, std::ios::binary);
        return in ? std::string(std::istreambuf_iterator<char>(in), {}) : "<missing>";
    };
    for (unsigned bits = 0; bits < 64; ++bits) {
        for (bool existing : {false, true}) {
            SCOPED_TRACE("mode " + std::to_string(bits) + (existing ? " existing" : " missing"));
            auto const path = world().at("m" + std::to_string(bits));
            fs::remove(oracle);
            if (existing) {
                world().write(path, "hello");
                std::ofstream(oracle) << "hello";
            }
            {
                std::ofstream standard(oracle, standardMode(bits) | std::ios_base::out);
                error_code ec;
                auto out = ops().createOutputStream(path, bits, ec);
                EXPECT_EQ(bool(out), standard.is_open()) << ec.message();
                standard << "XY";
                if (out)
                    *out << "XY";
            }
            EXPECT_EQ(world().read(path), hostContent());
            std::ifstream standard(oracle, standardMode(bits) | std::ios_base::in);
            error_code ec;
            auto in = ops().createInputStream(path, bits, ec);
            EXPECT_EQ(bool(in), standard.is_open()) << ec.message();
            if (in && existing && !(bits & OpenMode::Truncate)) {
                EXPECT_EQ(std::string(std::istreambuf_iterator<char>(*in), {}),
                          std::string(std::istreambuf_iterator<char>(standard), {}));
            }
        }
    }
    error_code ec;
    EXPECT_FALSE(ops().createInputStream(world().at("missing"), OpenMode::ReadBinary, ec));
    expectFailure(ec, errc::no_such_file_or_directory);
    EXPECT_FALSE(ops().createOutputStream(world().at("no/such/file"), OpenMode::WriteBinary, ec));
    expectFailure(ec, errc::no_such_file_or_directory);
    EXPECT_FALSE(ops().exists(world().at("no")));
    // No back end keeps written bytes in a buffer of its own: they show before a flush.
    auto out = ops().createOutputStream(world().at("visible"), OpenMode::WriteBinary);
    *out << "now";
    EXPECT_EQ(world().read(world().at("visible")), "now");
}

TEST_P(Conformance, PermissionsRoundTripOrCollapseToWritable) {
    auto const file = world().at("p");
    world().write(file, "data");
    ops().createFolder(world().at("d"));
    std::mt19937 gen(7);
    for (int i = 0; i < 60; ++i) {
        unsigned const bits = gen() % 01000 | (caps().posixPermissions ? 0600 : 0); // the owner must clean up
        unsigned const want = caps().posixPermissions ? bits : (bits & 0222) ? 0644 : 0444;
        for (auto const& item : {file, world().at("d")}) {
            if (caps().posixPermissions && item != file)
                continue;
            ops().setPermissions(item, Perms::Perms_tag(bits));
            EXPECT_EQ(ops().getPermissions(item) & Perms::AllPerms, want) << std::oct << bits;
        }
    }
    ops().setPermissions(file, Perms::Perms_tag(0444));
    if (caps().unknownValuesIgnored) {
        ops().setPermissions(file, Perms::PermsUnknown);
        EXPECT_EQ(ops().getPermissions(file) & Perms::AllPerms, 0444u);
    }
    EXPECT_EQ(world().read(file), "data"); // read-only still reads
    error_code ec;
    ops().createOutputStream(file, OpenMode::WriteBinary, ec);
    if (::geteuid() != 0 || !caps().posixPermissions) // root writes whatever the host mode says
        expectFailure(ec, errc::permission_denied);
}

TEST_P(Conformance, ModificationTimesRoundTrip) {
    using namespace boost::posix_time;
    auto const path = world().at("t");
    world().write(path, "t");
    for (auto const* text : {"2001-02-03 04:05:06.250000", "1969-07-20 20:17:40", "2038-01-19 03:14:08"}) {
        ops().setLastModifiedTime(path, time_from_string(text));
        EXPECT_EQ(ops().getLastModifiedTime(path), time_from_string(text)) << text;
        if (!world().host("t").empty()) {
            struct stat st {};
            ::stat(world().host("t").c_str(), &st);
            EXPECT_EQ(from_time_t(st.st_mtim.tv_sec) + microseconds(st.st_mtim.tv_nsec / 1000), time_from_string(text));
        }
    }
    if (caps().unknownValuesIgnored) {
        ops().setLastModifiedTime(path, ptime(boost::date_time::not_a_date_time));
        EXPECT_EQ(ops().getLastModifiedTime(path), time_from_string("2038-01-19 03:14:08"));
    }
    error_code ec;
    EXPECT_TRUE(ops().getLastModifiedTime(world().at("missing"), ec).is_not_a_date_time());
    expectFailure(ec, errc::no_such_file_or_directory);
}

TEST_P(Conformance, CreatingFolders) {
    error_code ec;
    ops().createFolder(world().at("a/b"), ec);
    expectFailure(ec, errc::no_such_file_or_directory);
    EXPECT_FALSE(ops().exists(world().at("a")));
    ops().createFolders(world().at("a/b/c"));
    EXPECT_TRUE(ops().isFolder(world().at("a/b/c")));
    ops().createFolders(world().at("a/b/c")); // already there: fine
    ops().createFolder(world().at("a"), ec);
    expectFailure(ec, errc::file_exists);
}

TEST_P(Conformance, CopyOfAFileFollowsTheMode) {
    auto const src = world().at("src"), dst = world().at("dst");
    for (ExistsMode mode : {NoOverwrite, FailIfExists, Overwrite}) {
        error_code ec;
        ops().copy(world().at("missing"), dst, mode, ec);
        expectFailure(ec, errc::no_such_file_or_directory);
        EXPECT_FALSE(ops().exists(dst));
    }
    world().write(src, "new content");
    ops().copy(src, dst, NoOverwrite);
    EXPECT_EQ(world().read(dst), "new content");
    for (ExistsMode mode : {NoOverwrite, FailIfExists}) {
        world().write(dst, "old");
        error_code ec;
        ops().copy(src, dst, mode, ec);
        expectFailure(ec, errc::file_exists);
        EXPECT_EQ(world().read(dst), "old");
    }
    ops().copy(src, dst, Overwrite);
    EXPECT_EQ(world().read(dst), "new content");
    EXPECT_EQ(world().read(src), "new content");
}

TEST_P(Conformance, CopyOfAFolderTree) {
    ops().createFolders(world().at("src/inner"));
    world().write(world().at("src/a"), "a");
    world().write(world().at("src/inner/b"), "b");
    auto const src = world().at("src"), dst = world().at("dst");
    auto const copied = world().expected({"dst/a", "dst/inner/b"});
    ops().copy(src, dst, NoOverwrite);
    EXPECT_EQ(world().listing(dst), copied);
    EXPECT_EQ(world().read(world().at("dst/inner/b")), "b");
    world().write(world().at("dst/stale"), "s"); // Overwrite replaces the whole destination
    ops().copy(src, dst, Overwrite);
    EXPECT_EQ(world().listing(dst), copied);
    world().write(world().at("dst/extra"), "e");
    error_code ec;
    ops().copy(src, dst, FailIfExists, ec);
    expectFailure(ec, errc::file_exists);
    auto const merged = world().expected({"dst/a", "dst/inner/b", "dst/extra"});
    EXPECT_EQ(world().listing(dst), merged);
    if (!caps().folderCopyModes)
        return;
    ops().remove(world().at("dst/a")); // NoOverwrite copies into the folder and keeps the rest
    ops().removeAll(world().at("dst/inner"));
    ops().copy(src, dst, NoOverwrite);
    EXPECT_EQ(world().listing(dst), merged);
}

TEST_P(Conformance, RenameMovesAndReplaces) {
    auto const a = world().at("a"), b = world().at("b");
    world().write(a, "from a");
    world().write(b, "from b");
    ops().rename(a, b);
    EXPECT_FALSE(ops().exists(a));
    EXPECT_EQ(world().read(b), "from a");
    ops().createFolders(world().at("d1/inner"));
    world().write(world().at("d1/inner/f"), "f");
    ops().rename(world().at("d1"), world().at("d2"));
    EXPECT_FALSE(ops().exists(world().at("d1")));
    EXPECT_EQ(world().read(world().at("d2/inner/f")), "f");

    error_code ec;
    ops().rename(world().at("missing"), world().at("c"), ec);
    expectFailure(ec, errc::no_such_file_or_directory);
    ops().rename(b, world().at("none/b"), ec);
    expectFailure(ec, errc::no_such_file_or_directory);
    ops().rename(std::u16string(), b, ec);
    EXPECT_TRUE(ec.failed());
    ops().rename(b, std::u16string(), ec);
    EXPECT_TRUE(ec.failed());
    EXPECT_EQ(world().read(b), "from a");
}

TEST_P(Conformance, RemoveTakesFilesAndEmptyFoldersOnly) {
    ops().createFolders(world().at("full/inner"));
    world().write(world().at("full/inner/f"), "f");
    ops().createFolder(world().at("empty"));
    world().write(world().at("file"), "x");
    ops().setPermissions(world().at("file"), Perms::Perms_tag(0444));
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
    ops().removeAll(world().at("full"), ec);
    EXPECT_EQ(ec.failed(), !caps().lenientRemoval) << ec.message();
}

TEST_P(Conformance, LinksAreSeenNotFollowed) {
    if (!caps().symlinks)
        GTEST_SKIP() << "no symbolic links in this back end";
    ops().createFolder(world().at("folder"));
    world().write(world().at("folder/inside"), "i");
    world().write(world().at("file"), "12345");
    auto const outside = ops().normalizePath(world().at("folder"));
    ops().createSymlink(u"file", world().at("to-file"));
    ops().createSymlink(outside, world().at("to-folder"));
    ops().createSymlink(u"nowhere", world().at("dangling"));
    for (char const* link : {"to-file", "to-folder", "dangling"}) {
        SCOPED_TRACE(link);
        auto const path = world().at(link);
        EXPECT_TRUE(ops().exists(path) && ops().isSymlink(path));
        EXPECT_FALSE(ops().isFile(path) || ops().isFolder(path));
        error_code ec;
        EXPECT_EQ(ops().getSizeInBytes(path, ec), 0u);
        expectFailure(ec, errc::is_a_directory);
    }
    EXPECT_EQ(ops().getLinkTarget(world().at("dangling")), u"nowhere");
    EXPECT_EQ(world().listing(world().root()),
              world().expected({"file", "folder/inside", "to-file", "to-folder", "dangling"}));
    for (ExistsMode mode : {NoOverwrite, FailIfExists, Overwrite}) { // copies keep the link itself
        auto const copy = world().at("copy" + std::to_string(int(mode)));
        ops().copy(world().at("to-folder"), copy, mode);
        EXPECT_EQ(ops().getLinkTarget(copy), outside);
        ops().remove(copy);
    }
    ops().createFolder(world().at("tree"));
    ops().rename(world().at("to-folder"), world().at("tree/link"));
    ops().copy(world().at("tree"), world().at("tree2"), NoOverwrite);
    EXPECT_TRUE(ops().isSymlink(world().at("tree2/link")));
    ops().removeAll(world().at("tree"));
    EXPECT_FALSE(ops().exists(world().at("tree")));
    EXPECT_EQ(world().read(world().at("folder/inside")), "i"); // removal never reached through
}

// Rename, copy and commit of a file onto a folder are refused and the folder keeps everything.
TEST_P(Conformance, AFileNeverReplacesAFolder) {
    world().write(world().at("f"), "new");
    ops().createFolder(world().at("empty"));
    ops().createFolder(world().at("full"));
    world().write(world().at("full/keep"), "keep");
    for (auto const& folder : {world().at("empty"), world().at("full")}) {
        EXPECT_THROW(ops().rename(world().at("f"), folder), Exception);
        EXPECT_THROW(ops().copy(world().at("f"), folder, Overwrite), Exception);
        EXPECT_THROW(ops().replaceFileWithBackup(folder, ops(), world().at("f"), CommitOptions()), Exception);
        EXPECT_TRUE(ops().isFolder(folder));
    }
    EXPECT_EQ(world().listing(world().root()), world().expected({"f", "full/keep"})) << "no temporary left";
    EXPECT_EQ(world().read(world().at("full/keep")), "keep");
}

// A write the storage refuses reaches the writer at that very write, as the library's
// exception: a host file limited to 64 KiB (in a child; SIGXFSZ ignored), or a file made
// read-only while open where the back end checks that.
TEST_P(Conformance, ARefusedWriteThrowsFromThatWrite) {
    auto out = ops().createOutputStream(world().at("w"), OpenMode::WriteBinary);
    std::string const block(16384, 'b');
    auto blocksTaken = [&](errc::errc_t expected) {
        int blocks = 0;
        try {
            for (; blocks < 8; ++blocks)
                out->write(block.data(), std::streamsize(block.size()));
        } catch (Exception const& e) {
            bool const right = e.code().value() == expected && // a host number keeps its own category
                               std::string(e.what()).rfind("write failed: ", 0) == 0;
            return right && out->bad() ? blocks : -1;
        }
        return -2;
    };
    if (world().host("w").empty()) {
        out->write(block.data(), std::streamsize(block.size()));
        ops().setPermissions(world().at("w"), Perms::Perms_tag(0444));
        EXPECT_EQ(blocksTaken(errc::permission_denied), 0);
        return;
    }
    auto limited = [&] {
        rlimit const limit{65536, 65536};
        std::signal(SIGXFSZ, SIG_IGN);
        ::setrlimit(RLIMIT_FSIZE, &limit);
        std::_Exit(blocksTaken(errc::file_too_large) == 4 ? 0 : 1);
    };
    EXPECT_EXIT(limited(), ::testing::ExitedWithCode(0), "");
}

// Overwriting a host file replaces the name: another hard link keeps its content, and the
// destination keeps its own mode; only the write bits move when writability changes.
TEST_P(Conformance, OverwriteKeepsHardLinksAndModes) {
    if (world().host("").empty())
        GTEST_SKIP() << "no host files behind this back end";
    world().write(world().at("outside"), "kept");
    world().write(world().at("new"), "new");
    ::chmod(world().host("outside").c_str(), 0600);
    ::chmod(world().host("new").c_str(), 0644);
    ASSERT_EQ(::link(world().host("outside").c_str(), world().host("planted").c_str()), 0);
    ops().copy(world().at("new"), world().at("planted"), Overwrite);
    EXPECT_EQ(world().read(world().at("planted")), "new");
    EXPECT_EQ(world().read(world().at("outside")), "kept");
    ops().replaceFileWithBackup(world().at("outside"), ops(), world().at("new"), CommitOptions());
    EXPECT_EQ(hostMode(world().host("outside")), 0600u);
    if (!caps().posixPermissions) {
        struct Row {
            unsigned before, perms, after;
        } const rows[] = {{0660, 0444, 0440}, {0440, 0644, 0640}, {0600, 0644, 0600}, {0604, 0, 0404}};
        for (auto const& row : rows) {
            ::chmod(world().host("outside").c_str(), row.before);
            ops().setPermissions(world().at("outside"), Perms::Perms_tag(row.perms));
            EXPECT_EQ(hostMode(world().host("outside")), row.after) << std::oct << row.before;
        }
    }
    if (!caps().symlinks)
        return;
    // Over a link to a 0600 file: a 0600 file takes the link's place, never a 0777 one.
    ::symlink("outside", world().host("link").c_str());
    ops().replaceFileWithBackup(world().at("link"), ops(), world().at("new"), CommitOptions());
    EXPECT_EQ(hostMode(world().host("link")), 0600u);
}

// A commit from a file of the local back end; the frame passes the commit's own report on.
TEST_P(Conformance, CommitReplacesKeepsABackupAndReportsThroughTheFrame) {
    ScratchFolder sourceFolder;
    LocalFileSystemOps local;
    auto const source = utf16(sourceFolder.at("new.pkg"));
    std::ofstream(sourceFolder.at("new.pkg")) << "fresh";
    auto const target = world().at("p.pkg");
    world().write(target, "old");
    ops().setPermissions(target, Perms::Perms_tag(0444));
    CommitOptions keep;
    keep.removeBackup(false);
    std::vector<std::u16string> reported;
    keep.backupCreatedFcn([&](std::u16string const& path) { reported.push_back(path); });
    ops().replaceFileWithBackup(target, local, source, keep);
    EXPECT_EQ(world().read(target), "fresh");
    EXPECT_EQ(ops().getPermissions(target) & 0777, 0444u);
    EXPECT_EQ(reported, std::vector<std::u16string>{world().at("p.pkg.bak")});
    EXPECT_EQ(world().read(world().at("p.pkg.bak")), "old");

    error_code ec;
    ops().replaceFileWithBackup(target, local, source + u"-missing", CommitOptions(), ec);
    EXPECT_TRUE(ec.failed());
    try {
        ops().replaceFileWithBackup(target, local, source + u"-missing", CommitOptions());
        ADD_FAILURE() << "no exception";
    } catch (Exception const& e) {
        EXPECT_EQ(std::string(e.what()).rfind("replaceFileWithBackup failed: Could not commit changes:  ", 0), 0u);
    }
    EXPECT_EQ(world().read(target), "fresh");
    // The library's exception with a cleared code stays a success; anything else is unknown.
    keep.backupCreatedFcn([](std::u16string const&) { throw Exception("noted", error_code()); });
    ops().replaceFileWithBackup(target, local, source, keep, ec);
    EXPECT_FALSE(ec.failed()) << ec.message();
    keep.backupCreatedFcn([](std::u16string const&) { throw std::logic_error("callback broke"); });
    ops().replaceFileWithBackup(target, local, source, keep, ec);
    EXPECT_EQ(ec, errc::make_error_code(errc::io_error));
}

TEST_P(Conformance, TreesCopyAndMoveAcrossSchemes) {
    auto const other = world().otherRoot();
    if (other.empty())
        GTEST_SKIP() << "one scheme only";
    ops().createFolders(world().at("tree/sub dir"));
    world().write(world().at("tree/a b"), "percent");
    world().write(world().at("tree/sub dir/\xC3\xA9t\xC3\xA9"), std::string(100000, '\x7F'));
    ops().copy(world().at("tree"), world().at("tree", other), NoOverwrite);
    EXPECT_EQ(world().listing(world().at("tree", other)),
              world().expected({"tree/a b", "tree/sub dir/\xC3\xA9t\xC3\xA9"}, other));
    EXPECT_EQ(world().read(world().at("tree/sub dir/\xC3\xA9t\xC3\xA9", other)), std::string(100000, '\x7F'));
    ops().rename(world().at("tree/a b", other), world().at("moved"));
    EXPECT_FALSE(ops().exists(world().at("tree/a b", other)));
    EXPECT_EQ(world().read(world().at("moved")), "percent");
}

// Without rights nothing is read or changed. Root ignores permission bits, so this runs as
// root only, in a child that dropped to the unprivileged user 65534.
TEST_P(Conformance, WithoutRightsNothingIsReadOrChanged) {
    if (::geteuid() != 0)
        GTEST_SKIP() << "needs root to drop to another user";
    if (world().host("").empty())
        GTEST_SKIP() << "no host files behind this back end";
    ops().createFolder(world().at("private"));
    ops().createFolder(world().at("locked"));
    world().write(world().at("locked/file"), "stays");
    ::chmod(world().host("private").c_str(), 0700);
    ::chmod(world().host("locked/file").c_str(), 0600);
    auto const before = hostMode(world().host("locked/file"));
    auto child = [&] {
        if (::setresgid(65534, 65534, 65534) != 0 || ::setresuid(65534, 65534, 65534) != 0)
            std::_Exit(2);
        std::string problems;
        auto check = [&](char const* what, error_code const& ec) {
            if (!ec.failed() || (caps().preciseErrors && ec != errc::make_error_code(errc::permission_denied)))
                problems += std::string(what) + ": " + ec.message() + "; ";
        };
        error_code ec;
        ops().createInputStream(world().at("locked/file"), OpenMode::ReadBinary, ec), check("read", ec);
        std::vector<std::u16string> files;
        ops().getFiles(world().at("private"), files, false, ec), check("list", ec);
        ops().getFiles(world().root(), files, true, ec), check("list all", ec);
        ops().createOutputStream(world().at("locked/new"), OpenMode::WriteBinary, ec), check("create", ec);
        ops().remove(world().at("locked/file"), ec), check("remove", ec);
        ops().removeAll(world().at("locked"), ec), check("removeAll", ec);
        ops().rename(world().at("locked/file"), world().at("locked/moved"), ec), check("rename", ec);
        ops().setPermissions(world().at("locked/file"), Perms::Perms_tag(0666), ec), check("chmod", ec);
        std::fputs(problems.c_str(), stderr);
        std::_Exit(problems.empty() ? 0 : 1);
    };
    EXPECT_EXIT(child(), ::testing::ExitedWithCode(0), "");
    EXPECT_EQ(hostMode(world().host("locked/file")), before);
    EXPECT_EQ(world().listing(world().at("locked")), world().expected({"locked/file"}));
    EXPECT_EQ(world().read(world().at("locked/file")), "stays");
}

} // namespace opc::test
