// What only the virtual back end does, on both storage schemes: permissions reduced to
// writable or read-only, listings of generated trees, failure values of every operation on
// invalid IRIs, stream modes, and copies across schemes.
#include "support/HostFolder.hpp"

#include <opc/Exception.hpp>
#include <opc/VirtualFileSystemOps.hpp>

#include <stratum/storage/vfs/StorageSystem.hpp>

#include <boost/date_time/posix_time/posix_time.hpp>
#include <gtest/gtest.h>

#include <sys/resource.h>
#include <sys/stat.h>

#include <csignal>
#include <cstdlib>
#include <fstream>
#include <functional>
#include <random>
#include <set>

namespace opc::test {
namespace {

namespace vfs = stratum::storage::vfs;
namespace errc = boost::system::errc;
using boost::system::error_code;

error_code generic(errc::errc_t e) { return error_code(e, boost::system::generic_category()); }

// Opens the protected stream operations, to see the detail text the frame drops.
class ExposedOps : public VirtualFileSystemOps {
public:
    using VirtualFileSystemOps::VirtualFileSystemOps;
    using VirtualFileSystemOps::doCreateInputStream;
    using VirtualFileSystemOps::doCreateOutputStream;
};

// One test folder, on `file:` (a host folder) or on `memory:`.
class VirtualStorage : public ::testing::TestWithParam<bool> {
protected:
    void SetUp() override {
        m_root = onFile() ? ops.normalizePath(m_host.path16()) : u"memory:///work";
        ops.createFolders(m_root);
    }
    bool onFile() const { return GetParam(); }
    std::u16string at(std::u16string const& relative) { return ops.appendPath(m_root, relative); }
    void write(std::u16string const& path, std::string const& bytes) {
        auto out = ops.createOutputStream(path, OpenMode::WriteBinary);
        ASSERT_TRUE(out);
        *out << bytes;
    }
    struct stat hostStat(std::u16string const& iri) {
        std::u16string local;
        EXPECT_TRUE(ops.getLocalPath(iri, local));
        struct stat st {};
        EXPECT_EQ(::stat(std::string(local.begin(), local.end()).c_str(), &st), 0); // ASCII names only
        return st;
    }

    HostFolder m_host;
    vfs::StorageSystemReference storage;
    ExposedOps ops{storage};
    std::u16string m_root;
};

TEST_P(VirtualStorage, AnyWriteBitMakesWritableAndNothingElseCounts) {
    auto const file = at(u"p");
    write(file, "data");
    ops.createFolder(at(u"d"));
    std::mt19937 rng(11);
    for (std::uint32_t bits = 0; bits <= 0777; ++bits) {
        // Bits above the nine permission bits are ignored as well.
        auto const perms = Perms::Perms_tag(bits | ((rng() % 16) << 12));
        bool const writable = (bits & 0222) != 0;
        for (auto const& item : {file, at(u"d")}) {
            ops.setPermissions(item, perms);
            ASSERT_EQ(ops.getPermissions(item), writable ? 0644u : 0444u) << std::oct << bits;
        }
        if (onFile()) {
            ASSERT_EQ((hostStat(file).st_mode & S_IWUSR) != 0, writable) << std::oct << bits;
        }
    }
}

TEST_P(VirtualStorage, ModificationTimeAgreesWithTheHost) {
    if (!onFile())
        GTEST_SKIP() << "the host sees only file: items";
    auto const file = at(u"t");
    write(file, "x");
    auto const when = boost::posix_time::time_from_string("2021-06-30 23:59:58.250000");
    ops.setLastModifiedTime(file, when);
    auto const st = hostStat(file);
    EXPECT_EQ(boost::posix_time::from_time_t(st.st_mtim.tv_sec) +
                  boost::posix_time::microseconds(st.st_mtim.tv_nsec / 1000),
              when);
}

TEST_P(VirtualStorage, ListingsOfGeneratedTreesMatchWhatWasMade) {
    std::mt19937 rng(GetParam() ? 3 : 4);
    for (int round = 0; round < 5; ++round) {
        auto const top = at(u"tree" + std::u16string(1, char16_t(u'0' + round)));
        ops.createFolder(top);
        std::vector<std::u16string> folders = {top};
        std::set<std::u16string> direct, all;
        for (int i = 0; i < 40; ++i) {
            auto const parent = folders[rng() % folders.size()];
            std::u16string const name = {u'n', char16_t(u'a' + rng() % 26), char16_t(u'0' + i % 10),
                                         char16_t(u'A' + i / 10), u' ', u'x'};
            auto const path = ops.appendPath(parent, name);
            if (rng() % 3 == 0) {
                ops.createFolder(path);
                folders.push_back(path);
            } else {
                write(path, std::string(rng() % 100, 'z'));
                all.insert(path);
                if (parent == top)
                    direct.insert(path);
            }
        }
        for (bool recursive : {false, true}) {
            std::vector<std::u16string> files;
            ops.getFiles(top, files, recursive);
            auto const& want = recursive ? all : direct;
            EXPECT_EQ(std::multiset<std::u16string>(files.begin(), files.end()),
                      std::multiset<std::u16string>(want.begin(), want.end()))
                << "recursive " << recursive;
        }
    }
    write(at(u"plain"), "x");
    std::vector<std::u16string> none;
    error_code ec;
    ops.getFiles(at(u"plain"), none, false, ec); // a file is no folder to list
    EXPECT_EQ(ec, generic(errc::no_such_file_or_directory));
}

TEST_P(VirtualStorage, InvalidIRIsFailEveryOperationWithItsFailureValue) {
    using Probe = std::function<bool(FileSystemOps&, std::u16string const&, error_code&)>;
    std::vector<std::pair<char const*, Probe>> const probes = {
        {"exists", [](auto& o, auto const& p, auto& ec) { return !o.exists(p, ec); }},
        {"isFile", [](auto& o, auto const& p, auto& ec) { return !o.isFile(p, ec); }},
        {"isFolder", [](auto& o, auto const& p, auto& ec) { return !o.isFolder(p, ec); }},
        {"setPermissions", [](auto& o, auto const& p, auto& ec) { return o.setPermissions(p, Perms::AllPerms, ec), true; }},
        {"setLastModifiedTime",
         [](auto& o, auto const& p, auto& ec) { return o.setLastModifiedTime(p, boost::posix_time::ptime(), ec), true; }},
        {"getPermissions",
         [](auto& o, auto const& p, auto& ec) { return o.getPermissions(p, ec) == Perms::PermsUnknown; }},
        {"getLastModifiedTime",
         [](auto& o, auto const& p, auto& ec) { return o.getLastModifiedTime(p, ec).is_not_a_date_time(); }},
        {"getSizeInBytes", [](auto& o, auto const& p, auto& ec) { return o.getSizeInBytes(p, ec) == 0; }},
        {"getFiles",
         [](auto& o, auto const& p, auto& ec) {
             std::vector<std::u16string> f;
             o.getFiles(p, f, true, ec);
             return f.empty();
         }},
        {"createInputStream", [](auto& o, auto const& p, auto& ec) { return !o.createInputStream(p, 12, ec); }},
        {"createOutputStream", [](auto& o, auto const& p, auto& ec) { return !o.createOutputStream(p, 20, ec); }},
        {"createFolder", [](auto& o, auto const& p, auto& ec) { return o.createFolder(p, ec), true; }},
        {"createFolders", [](auto& o, auto const& p, auto& ec) { return o.createFolders(p, ec), true; }},
        {"copy from", [this](auto& o, auto const& p, auto& ec) { return o.copy(p, at(u"c"), Overwrite, ec), true; }},
        {"rename from", [this](auto& o, auto const& p, auto& ec) { return o.rename(p, at(u"r"), ec), true; }},
        {"copy to", [this](auto& o, auto const& p, auto& ec) { return o.copy(at(u"f"), p, Overwrite, ec), true; }},
        {"rename to", [this](auto& o, auto const& p, auto& ec) { return o.rename(at(u"f"), p, ec), true; }},
        {"remove", [](auto& o, auto const& p, auto& ec) { return o.remove(p, ec), true; }},
        {"removeAll", [](auto& o, auto const& p, auto& ec) { return o.removeAll(p, ec), true; }},
    };
    write(at(u"f"), "source");
    struct Bad {
        std::u16string text;
        errc::errc_t code;
    } const bad[] = {
        {u"relative/path", errc::bad_address},
        {u"memory:no-slashes", errc::bad_address},
        {u"memory:///bad%escape", errc::bad_address},
        {u"gopher:///a/b", errc::address_family_not_supported},
    };
    for (auto const& [name, probe] : probes) {
        for (auto const& b : bad) {
            SCOPED_TRACE(std::string(name) + " " + std::string(b.text.begin(), b.text.end()));
            error_code ec(errc::interrupted, boost::system::generic_category());
            EXPECT_TRUE(probe(ops, b.text, ec)) << "not the failure value";
            EXPECT_EQ(ec, generic(b.code));
        }
    }
    EXPECT_TRUE(ops.isFile(at(u"f"))) << "the source must be untouched";
    try {
        ops.getSizeInBytes(at(u"missing"));
        FAIL();
    } catch (Exception const& e) {
        auto const missing = at(u"missing");
        std::string const what = e.what(), iri(missing.begin(), missing.end());
        EXPECT_EQ(what.rfind("getSizeInBytes failed: ", 0), 0u) << what;
        EXPECT_EQ(what.substr(what.size() - iri.size() - 2), ": " + iri) << what;
    }
}

TEST_P(VirtualStorage, StreamModesGoToTheStorageAsGiven) {
    // A stream that opens failed gives io_error and leaves the detail alone.
    std::string detail = "earlier text";
    error_code ec;
    EXPECT_FALSE(ops.doCreateInputStream(at(u"missing"), OpenMode::ReadBinary, detail, ec));
    EXPECT_EQ(ec, generic(errc::io_error));
    // Keeping the content needs an existing file: "in|out" on a missing one opens failed too.
    EXPECT_FALSE(ops.doCreateOutputStream(at(u"missing"), OpenMode::In | OpenMode::Out, detail, ec));
    EXPECT_EQ(ec, generic(errc::io_error));
    EXPECT_EQ(detail, "earlier text");
    EXPECT_FALSE(ops.exists(at(u"missing")));

    auto const file = at(u"m");
    write(file, "0123456789");
    if (auto out = ops.createOutputStream(file, OpenMode::In | OpenMode::Out | OpenMode::Binary))
        *out << "ab"; // overwrites in place: the tail survives
    auto in = ops.createInputStream(file, OpenMode::ReadBinary | OpenMode::AtEnd);
    ASSERT_TRUE(in);
    EXPECT_EQ(in->tellg(), std::streampos(10));
    in->seekg(0);
    EXPECT_EQ(std::string(std::istreambuf_iterator<char>(*in), {}), "ab23456789");

    ops.setPermissions(file, Perms::Perms_tag(0444));
    EXPECT_FALSE(ops.createOutputStream(file, OpenMode::WriteBinary, ec));
    EXPECT_EQ(ec, generic(errc::permission_denied));
    ops.setPermissions(file, Perms::Perms_tag(0644));

    // A stream outlives the back end that opened it.
    std::shared_ptr<std::ostream> late = VirtualFileSystemOps(storage).createOutputStream(at(u"s"), OpenMode::WriteBinary);
    ASSERT_TRUE(late);
    *late << "late";
    late.reset();
    in = ops.createInputStream(at(u"s"), OpenMode::ReadBinary);
    ASSERT_TRUE(in);
    EXPECT_EQ(std::string(std::istreambuf_iterator<char>(*in), {}), "late");
}

// The storage refuses a write: on file: a child limited to 64 KiB per file (SIGXFSZ ignored),
// on memory: a file made read-only while open. The writer sees it at that write.
TEST_P(VirtualStorage, ARefusedWriteThrowsFromThatWrite) {
    auto const file = at(u"w");
    auto out = ops.createOutputStream(file, OpenMode::WriteBinary);
    ASSERT_TRUE(out);
    std::string const block(16384, 'b');
    auto blocksTaken = [&](errc::errc_t expected) {
        int blocks = 0;
        try {
            for (; blocks < 8; ++blocks)
                out->write(block.data(), block.size());
        } catch (Exception const& e) {
            bool const right = e.code() == generic(expected) && std::string(e.what()).rfind("write failed: ", 0) == 0;
            return right && out->bad() ? blocks : -1;
        }
        return -2;
    };
    if (onFile()) {
        auto limited = [&] {
            rlimit const limit{65536, 65536};
            std::signal(SIGXFSZ, SIG_IGN);
            ::setrlimit(RLIMIT_FSIZE, &limit);
            std::_Exit(blocksTaken(errc::file_too_large) == 4 ? 0 : 1);
        };
        EXPECT_EXIT(limited(), ::testing::ExitedWithCode(0), "");
    } else {
        out->write(block.data(), block.size());
        ops.setPermissions(file, Perms::Perms_tag(0444));
        EXPECT_EQ(blocksTaken(errc::permission_denied), 0);
    }
}

// Rename, copy and commit of a file onto a folder are refused and the folder keeps everything.
TEST_P(VirtualStorage, AFileNeverReplacesAFolder) {
    write(at(u"f"), "new");
    ops.createFolder(at(u"empty"));
    ops.createFolder(at(u"full"));
    write(at(u"full/keep"), "keep");
    for (auto const& folder : {at(u"empty"), at(u"full")}) {
        EXPECT_THROW(ops.rename(at(u"f"), folder), Exception);
        EXPECT_THROW(ops.copy(at(u"f"), folder, Overwrite), Exception);
        EXPECT_THROW(ops.replaceFileWithBackup(folder, ops, at(u"f"), CommitOptions()), Exception);
        EXPECT_TRUE(ops.isFolder(folder));
    }
    std::vector<std::u16string> files;
    ops.getFiles(m_root, files, true);
    EXPECT_EQ(files, (std::vector<std::u16string>{at(u"f"), at(u"full/keep")})) << "no temporary left";
    auto in = ops.createInputStream(at(u"full/keep"), OpenMode::ReadBinary);
    ASSERT_TRUE(in);
    EXPECT_EQ(std::string(std::istreambuf_iterator<char>(*in), {}), "keep");
}

INSTANTIATE_TEST_SUITE_P(Schemes, VirtualStorage, ::testing::Values(false, true),
                         [](auto const& info) { return info.param ? "file" : "memory"; });

TEST(VirtualAcrossSchemes, CopyAndRenameBetweenMemoryAndTheDisk) {
    HostFolder host;
    vfs::StorageSystemReference storage;
    VirtualFileSystemOps ops(storage);
    auto const disk = ops.normalizePath(host.path16());
    ops.createFolders(u"memory:///src/inner");
    for (auto const& [name, bytes] : {std::pair<std::u16string, std::string>{u"memory:///src/a", "alpha"},
                                      {u"memory:///src/inner/b", std::string(70000, 'b')}}) {
        auto out = ops.createOutputStream(name, OpenMode::WriteBinary);
        ASSERT_TRUE(out);
        *out << bytes;
    }
    ops.copy(u"memory:///src", ops.appendPath(disk, u"tree"), NoOverwrite);
    std::ifstream b(host.path() / "tree" / "inner" / "b", std::ios::binary);
    EXPECT_EQ(std::string(std::istreambuf_iterator<char>(b), {}), std::string(70000, 'b'));

    ops.rename(ops.appendPath(disk, u"tree/a"), u"memory:///moved");
    EXPECT_FALSE(std::filesystem::exists(host.path() / "tree" / "a"));
    auto in = ops.createInputStream(u"memory:///moved", OpenMode::ReadBinary);
    ASSERT_TRUE(in);
    EXPECT_EQ(std::string(std::istreambuf_iterator<char>(*in), {}), "alpha");
}

} // namespace
} // namespace opc::test
