// The commit over real back ends: what the files look like afterwards, and the same after a
// fault injected at every call of the target back end in turn, for each pair of back ends.

#include "support/CommitBetween.hpp"
#include "support/ThroughOps.hpp"

#include <opc/Commit.hpp>
#include <opc/Exception.hpp>
#include <opc/LocalFileSystemOps.hpp>
#include <opc/VirtualFileSystemOps.hpp>
#include <opc/testing/FaultInjectingOps.hpp>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <sys/time.h>

#include <algorithm>
#include <filesystem>
#include <set>

namespace opc::test {
namespace {

namespace fs = std::filesystem;
namespace errc = boost::system::errc;
using ::testing::ElementsAre;
using ::testing::StartsWith;

class RealCommit : public ::testing::Test {
protected:
    HostFolder root;
    stratum::storage::vfs::StorageSystemReference storage;
    LocalFileSystemOps local;
    VirtualFileSystemOps virtualOps{storage};
    std::string const dir = root.path().string() + "/t", target = dir + "/p.pkg";
    std::string const source = root.path().string() + "/new.pkg";
    std::string const oldContent = pattern(70000, 1), newContent = pattern(50000, 2);
    std::vector<std::u16string> announced;
    CommitOptions options;

    void SetUp() override {
        fs::create_directories(dir);
        writeFile(source, newContent, 0644);
        options.backupCreatedFcn([this](std::u16string const& b) { announced.push_back(b); });
    }
    FileSystemOps& ops(Kind k) { return k == Local ? static_cast<FileSystemOps&>(local) : virtualOps; }
    std::u16string folder(Kind k) const {
        return k == Local ? u16(dir) : k == File ? u16("file://" + dir)
                                                 : u"memory:///t";
    }
    // A file's content by name, read through the real back end, so a failure never prints kilobytes.
    std::string contentOf(Kind k, std::u16string const& path) {
        std::string const text = readThrough(ops(k), path);
        return text == oldContent ? "old" : text == newContent ? "new"
                                        : text.size() < 40     ? text
                                                               : "other";
    }
    int modeOf(Kind k) {
        return k == Memory ? int(virtualOps.getPermissions(folder(k) + u"/p.pkg") & 07777) : test::modeOf(target);
    }
    std::set<std::string> names(Kind k) {
        std::vector<std::u16string> files;
        ops(k).getFiles(folder(k), files, false);
        std::set<std::string> out;
        for (auto const& f : files)
            out.insert(std::string(f.begin() + static_cast<long>(f.rfind(u'/') + 1), f.end()));
        return out;
    }
};

// A first package gets 0644 and no backup; a stale read-only backup is overwritten with the old
// content, time and mode; a link planted at a backup name is never written through (that
// attempt fails and the next name is used). The source stays as it was.
TEST_F(RealCommit, BackupOverwritesAStaleOneAndNeverFollowsALink) {
    writeFile(source, newContent, 0600);
    options.removeBackup(false);
    replaceFileWithBackup(local, u16(target), local, u16(source), options);
    EXPECT_EQ(readFile(target) + readFile(source), newContent + newContent);
    EXPECT_EQ(test::modeOf(target), 0644);
    EXPECT_EQ(names(Local), std::set<std::string>{"p.pkg"});
    writeFile(target, oldContent, 0640);
    writeFile(target + ".bak", "stale", 0444);
    struct timeval const times[2] = {{1000000000, 0}, {1000000000, 0}};
    ASSERT_EQ(::utimes(target.c_str(), times), 0);
    auto const oldTime = local.getLastModifiedTime(u16(target));
    replaceFileWithBackup(local, u16(target), local, u16(source), options);
    EXPECT_EQ(readFile(target + ".bak"), oldContent);
    EXPECT_EQ(test::modeOf(target + ".bak"), 0640);
    EXPECT_EQ(local.getLastModifiedTime(u16(target + ".bak")), oldTime);
    EXPECT_NE(local.getLastModifiedTime(u16(target)), oldTime);

    std::string const victim = root.path().string() + "/victim";
    writeFile(victim, "precious", 0644);
    fs::remove(target + ".bak");
    fs::create_symlink(victim, target + ".bak");
    replaceFileWithBackup(local, u16(target), local, u16(source), options);
    EXPECT_EQ(readFile(victim), "precious");
    EXPECT_EQ(fs::read_symlink(target + ".bak").string(), victim);
    EXPECT_EQ(readFile(target + ".bak2"), newContent);
    EXPECT_THAT(announced, ElementsAre(u16(target + ".bak"), u16(target + ".bak2")));
}

// The public double fails a picked call as a back end fails, in both forms, and forwards the
// rest with the back end's own failures unchanged.
TEST_F(RealCommit, FaultInjectingOpsFailsAsABackEndDoes) {
    opc::testing::FaultInjectingOps faulty(local);
    std::u16string const picked = u16(dir + "/picked"), other = u16(dir + "/other");
    auto const io = errc::make_error_code(errc::io_error);
    faulty.failWhen([&](opc::testing::Call const& c) { return c.paths.front() == picked; }, io);
    boost::system::error_code ec;
    EXPECT_EQ(faulty.getPermissions(picked, ec), Perms::PermsUnknown);
    EXPECT_EQ(ec, io);
    EXPECT_EQ(thrown([&] { faulty.exists(picked); }), std::pair("exists failed: " + io.message() + ": " + dir + "/picked", io));
    EXPECT_EQ(thrown([&] { faulty.getSizeInBytes(other); }), thrown([&] { local.getSizeInBytes(other); }));
    EXPECT_TRUE(faulty.isFolder(u16(dir)));
    std::u16string localPath;
    EXPECT_TRUE(faulty.getLocalPath(picked, localPath) && localPath == picked); // forwarded, never failed
    EXPECT_TRUE(faulty.fired());
    EXPECT_EQ(faulty.callCount(), 4u);
    EXPECT_EQ(faulty.callCount("exists"), 1u);
    // failCall and reset start every count afresh: a stale one would move the fault.
    faulty.failCall(2, io);
    EXPECT_EQ(faulty.callCount("exists"), 0u);
    EXPECT_TRUE(faulty.exists(u16(dir)));
    EXPECT_EQ(thrown([&] { faulty.exists(u16(dir)); }).second, io);
    faulty.reset();
    EXPECT_EQ(faulty.callCount() + faulty.callCount("exists"), 0u);
}

// The k-th call of the target back end fails, for every k until a run makes no k-th call. The
// fault-free run tells when the rename happened. A source of the target's type is copied by the
// target; of another type it is streamed across.
struct FaultCase {
    char const* name;
    Kind target, source;
    bool backup;
    int mode;
};

class FaultInjection : public RealCommit, public ::testing::WithParamInterface<FaultCase> {};

TEST_P(FaultInjection, EveryFailureLeavesTheOldOrTheNewPackageWhole) {
    FaultCase const& c = GetParam();
    options.removeBackup(!c.backup);
    auto const injected = errc::make_error_code(errc::io_error);
    opc::testing::FaultInjectingOps faulty(ops(c.target));
    bool const sameType = (c.source == Local) == (c.target == Local);
    std::u16string const path = folder(c.target) + u"/p.pkg";
    std::u16string const from = c.source == Local ? u16(source) : u"memory:///s/new.pkg";
    if (c.source == Memory) {
        virtualOps.createFolders(u"memory:///s");
        writeThrough(virtualOps, from, newContent);
    }
    FileSystemOps& sourceOps = sameType ? static_cast<FileSystemOps&>(faulty) : ops(c.source);
    auto run = [&](std::size_t k) {
        boost::system::error_code ignored;
        ops(c.target).removeAll(folder(c.target), ignored);
        ops(c.target).createFolders(folder(c.target));
        writeThrough(ops(c.target), path, oldContent);
        if (c.target == Memory)
            virtualOps.setPermissions(path, Perms::Perms_tag(c.mode));
        else
            ASSERT_EQ(::chmod(target.c_str(), mode_t(c.mode)), 0);
        announced.clear();
        faulty.failCall(k, injected);
        replaceFileWithBackup(faulty, path, sourceOps, from, options);
    };
    run(0);
    auto const& plan = faulty.calls();
    std::size_t const renameAt =
        std::find_if(plan.begin(), plan.end(), [](auto const& call) { return call.operation == "rename"; }) -
        plan.begin() + 1;
    ASSERT_LE(renameAt, plan.size());

    for (std::size_t k = 1;; ++k) {
        SCOPED_TRACE("failing call " + std::to_string(k));
        bool threw = false;
        try {
            run(k);
        } catch (Exception const& e) {
            threw = true;
            EXPECT_THAT(e.what(), StartsWith("Could not commit changes:  "));
            EXPECT_TRUE(e.code() == injected || e.code() == errc::make_error_code(errc::permission_denied))
                << e.code().message();
        }
        if (!faulty.fired()) {
            EXPECT_FALSE(threw);
            EXPECT_EQ(contentOf(c.target, path), "new");
            EXPECT_EQ(modeOf(c.target), c.mode);
            break;
        }
        ASSERT_LT(k, 200u) << "the commit never stops calling";
        std::string const failed = faulty.calls()[k - 1].operation;
        SCOPED_TRACE(failed);
        // Ignored faults, and those a further backup name gets round, end in a whole commit.
        bool const afterRename = k > renameAt, replaced = !threw || afterRename;
        EXPECT_EQ(contentOf(c.target, path), replaced ? "new" : "old");
        int const mode = modeOf(c.target);
        // A refused final mode is ignored only while the owner can read and write; a read-only
        // target made writable is not restored when no temporary name comes.
        bool const refused = afterRename && failed == "setPermissions";
        bool const noName = threw && (failed == "getParentPath" || failed == "getTempName");
        EXPECT_EQ(mode, refused ? mode | 0600 : noName ? c.mode | 0200
                                                       : c.mode);
        // Faults strike before the inner call and a failed rename removes its temporary file.
        for (auto const& name : names(c.target))
            EXPECT_TRUE(name == "p.pkg" || name.rfind("p.pkg.bak", 0) == 0) << name;
        if (c.backup && replaced) {
            ASSERT_EQ(announced.size(), threw ? 0u : 1u);
            EXPECT_TRUE(threw || contentOf(c.target, announced[0]) == "old");
        }
    }
}

INSTANTIATE_TEST_SUITE_P(
    Commit, FaultInjection,
    ::testing::Values(FaultCase{"LocalFromLocal", Local, Local, false, 0644},
                      FaultCase{"LocalFromLocalBackup", Local, Local, true, 0644},
                      FaultCase{"ReadOnlyLocal", Local, Local, false, 0444},
                      FaultCase{"ReadOnlyLocalBackup", Local, Local, true, 0444},
                      FaultCase{"LocalFromMemory", Local, Memory, false, 0600},
                      FaultCase{"LocalFromMemoryBackup", Local, Memory, true, 0640},
                      FaultCase{"FileFromLocal", File, Local, false, 0644},
                      FaultCase{"FileFromLocalBackup", File, Local, true, 0444},
                      FaultCase{"FileFromMemory", File, Memory, true, 0640},
                      FaultCase{"MemoryFromLocal", Memory, Local, false, 0644},
                      FaultCase{"MemoryFromLocalBackup", Memory, Local, true, 0444},
                      FaultCase{"MemoryFromMemory", Memory, Memory, true, 0644}),
    [](auto const& info) { return std::string(info.param.name); });

} // namespace
} // namespace opc::test
