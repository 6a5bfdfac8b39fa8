// Commits that cross back ends: a local file over a memory: target (missing, with and without
// backup), a memory: file over a local target, and a local file over a file: IRI target.
#include "support/HostFolder.hpp"

#include <opc/LocalFileSystemOps.hpp>
#include <opc/VirtualFileSystemOps.hpp>

#include <stratum/storage/vfs/StorageSystem.hpp>

#include <boost/date_time/posix_time/posix_time.hpp>

#include <gtest/gtest.h>

#include <sys/stat.h>

#include <algorithm>
#include <fstream>

namespace opc::test {
namespace {

namespace vfs = stratum::storage::vfs;

std::string hostRead(std::filesystem::path const& p) {
    std::ifstream in(p, std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(in), {});
}

void hostWrite(std::filesystem::path const& p, std::string const& bytes) {
    std::ofstream out(p, std::ios::binary | std::ios::trunc);
    out << bytes;
}

unsigned hostMode(std::filesystem::path const& p) {
    struct stat st {};
    EXPECT_EQ(::stat(p.c_str(), &st), 0) << p;
    return st.st_mode & 0777;
}

std::u16string u16(std::filesystem::path const& p) {
    std::string const s = p.string();
    return std::u16string(s.begin(), s.end());
}

class CrossCommit : public ::testing::Test {
protected:
    std::string readVirtual(std::u16string const& iri) {
        auto in = virtualOps.createInputStream(iri, OpenMode::ReadBinary);
        if (!in)
            return "<missing>";
        return std::string(std::istreambuf_iterator<char>(*in), {});
    }
    void writeVirtual(std::u16string const& iri, std::string const& bytes) {
        auto out = virtualOps.createOutputStream(iri, OpenMode::WriteBinary);
        ASSERT_TRUE(out);
        *out << bytes;
    }

    HostFolder host;
    vfs::StorageSystemReference storage;
    VirtualFileSystemOps virtualOps{storage};
    LocalFileSystemOps localOps;
};

TEST_F(CrossCommit, LocalFileOverAMemoryTargetWithAndWithoutBackup) {
    auto const oldTime = boost::posix_time::time_from_string("2020-02-02 02:02:02");
    hostWrite(host.path() / "new.pkg", "new package");
    for (int round = 0; round < 3; ++round) {
        bool const targetExists = round > 0, keepBackup = round != 1;
        SCOPED_TRACE(round);
        boost::system::error_code missingIsFine;
        virtualOps.removeAll(u"memory:///pkgs", missingIsFine);
        virtualOps.createFolders(u"memory:///pkgs");
        if (targetExists) {
            writeVirtual(u"memory:///pkgs/p.pkg", "old package");
            virtualOps.setLastModifiedTime(u"memory:///pkgs/p.pkg", oldTime);
            virtualOps.setPermissions(u"memory:///pkgs/p.pkg", Perms::Perms_tag(0444));
        }

        CommitOptions options;
        options.removeBackup(!keepBackup);
        std::vector<std::u16string> reported;
        options.backupCreatedFcn([&](std::u16string const& path) { reported.push_back(path); });
        virtualOps.replaceFileWithBackup(u"memory:///pkgs/p.pkg", localOps, u16(host.path() / "new.pkg"), options);

        EXPECT_EQ(readVirtual(u"memory:///pkgs/p.pkg"), "new package");
        EXPECT_EQ(virtualOps.getPermissions(u"memory:///pkgs/p.pkg"), targetExists ? 0444u : 0644u);
        std::vector<std::u16string> files;
        virtualOps.getFiles(u"memory:///pkgs", files, false);
        std::sort(files.begin(), files.end());
        if (keepBackup && targetExists) {
            EXPECT_EQ(files, (std::vector<std::u16string>{u"memory:///pkgs/p.pkg", u"memory:///pkgs/p.pkg.bak"}));
            EXPECT_EQ(readVirtual(u"memory:///pkgs/p.pkg.bak"), "old package");
            EXPECT_EQ(virtualOps.getLastModifiedTime(u"memory:///pkgs/p.pkg.bak"), oldTime);
            EXPECT_EQ(virtualOps.getPermissions(u"memory:///pkgs/p.pkg.bak"), 0444u);
            EXPECT_EQ(reported, std::vector<std::u16string>{u"memory:///pkgs/p.pkg.bak"});
        } else {
            EXPECT_EQ(files, std::vector<std::u16string>{u"memory:///pkgs/p.pkg"});
            EXPECT_TRUE(reported.empty()); // a missing target has no backup, whatever the options say
        }
    }
    EXPECT_EQ(hostRead(host.path() / "new.pkg"), "new package") << "the source is only read";
}

TEST_F(CrossCommit, MemoryFileOverALocalTarget) {
    writeVirtual(u"memory:///new.pkg", std::string(100000, 'n'));
    auto const target = host.path() / "p.pkg";
    hostWrite(target, "old");
    std::filesystem::permissions(target, std::filesystem::perms(0640));
    CommitOptions options;
    options.removeBackup(false);
    localOps.replaceFileWithBackup(u16(target), virtualOps, u"memory:///new.pkg", options);
    EXPECT_EQ(hostRead(target), std::string(100000, 'n'));
    EXPECT_EQ(hostMode(target), 0640u);
    EXPECT_EQ(hostRead(host.path() / "p.pkg.bak"), "old");
    EXPECT_EQ(readVirtual(u"memory:///new.pkg"), std::string(100000, 'n'));
}

TEST_F(CrossCommit, LocalFileOverAFileIRITarget) {
    auto const target = host.path() / "p.pkg";
    hostWrite(target, "old");
    std::filesystem::permissions(target, std::filesystem::perms(0444));
    hostWrite(host.path() / "new.pkg", "new");
    auto const targetIRI = virtualOps.normalizePath(u16(target));
    CommitOptions options;
    options.removeBackup(false);
    options.backupExtension(u".orig");
    virtualOps.replaceFileWithBackup(targetIRI, localOps, u16(host.path() / "new.pkg"), options);
    EXPECT_EQ(hostRead(target), "new");
    EXPECT_EQ(hostMode(target) & 0222, 0u) << "still read-only";
    EXPECT_EQ(hostRead(host.path() / "p.pkg.orig"), "old");
    // Only the target, its backup and the source: no temporary file left beside them.
    std::size_t entries = 0;
    for ([[maybe_unused]] auto const& e : std::filesystem::directory_iterator(host.path()))
        ++entries;
    EXPECT_EQ(entries, 3u);
}

} // namespace
} // namespace opc::test
