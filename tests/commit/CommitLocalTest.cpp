// The commit over real files through the local back end: what the files look like afterwards,
// and the same after a fault injected at every call in turn.

#include "commit/LocalFiles.hpp"
#include "support/FaultyOps.hpp"
#include "support/HostFolder.hpp"

#include <opc/Commit.hpp>
#include <opc/Exception.hpp>
#include <opc/LocalFileSystemOps.hpp>

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
using ::testing::IsEmpty;
using ::testing::StartsWith;

class LocalCommit : public ::testing::Test {
protected:
    HostFolder root;
    LocalFileSystemOps ops;
    std::string dir, target, source;
    std::string const oldContent = pattern(70000, 1);
    std::string const newContent = pattern(50000, 2);
    CommitOptions options;
    std::vector<std::u16string> announced;

    void SetUp() override {
        dir = root.path().string() + "/t";
        fs::create_directories(dir);
        fs::create_directories(root.path() / "s");
        target = dir + "/p.pkg";
        source = root.path().string() + "/s/new.pkg";
        writeFile(source, newContent, 0644);
        options.backupCreatedFcn([this](std::u16string const& b) { announced.push_back(b); });
    }
    void commit() { replaceFileWithBackup(ops, u16(target), ops, u16(source), options); }

    // A file's content by name, so that a failure never prints kilobytes.
    std::string contentOf(std::string const& path) const {
        std::string const text = readFile(path);
        return text == oldContent ? "old" : text == newContent ? "new" : text.size() < 40 ? text : "other";
    }
    std::set<std::string> folderNames() const {
        std::set<std::string> names;
        for (auto const& e : fs::directory_iterator(dir))
            names.insert(e.path().filename().string());
        return names;
    }
};

TEST_F(LocalCommit, TargetKeepsItsOwnModeReadOnlyIncluded) {
    for (mode_t mode : {0444, 0600, 0640, 0400, 0755}) {
        SCOPED_TRACE(mode);
        fs::remove(target);
        writeFile(target, oldContent, mode);
        writeFile(source, newContent, mode == 0600 ? 0644 : 0600);
        commit();
        EXPECT_EQ(contentOf(target), "new");
        EXPECT_EQ(modeOf(target), static_cast<int>(mode));
        EXPECT_EQ(folderNames(), (std::set<std::string>{"p.pkg"}));
        EXPECT_EQ(contentOf(source), "new");
    }
}

TEST_F(LocalCommit, MissingTargetIsCreatedWith0644AndNoBackup) {
    writeFile(source, newContent, 0600);
    options.removeBackup(false);
    commit();
    EXPECT_EQ(contentOf(target), "new");
    EXPECT_EQ(modeOf(target), 0644);
    EXPECT_THAT(announced, IsEmpty());
    EXPECT_EQ(folderNames(), (std::set<std::string>{"p.pkg"}));
}

// A stale read-only backup is overwritten; the backup has the old content, time and mode.
TEST_F(LocalCommit, BackupOverwritesAStaleReadOnlyOneAndKeepsTimeAndMode) {
    writeFile(target, oldContent, 0640);
    writeFile(target + ".bak", "stale", 0444);
    struct timeval const times[2] = {{1000000000, 0}, {1000000000, 0}};
    ASSERT_EQ(::utimes(target.c_str(), times), 0);
    auto const oldTime = ops.getLastModifiedTime(u16(target));
    options.removeBackup(false);
    commit();
    EXPECT_EQ(contentOf(target), "new");
    EXPECT_EQ(contentOf(target + ".bak"), "old");
    EXPECT_EQ(modeOf(target + ".bak"), 0640);
    EXPECT_EQ(ops.getLastModifiedTime(u16(target + ".bak")), oldTime);
    EXPECT_NE(ops.getLastModifiedTime(u16(target)), oldTime);
    EXPECT_THAT(announced, ElementsAre(u16(target + ".bak")));
}

// A link planted at the backup name is never written through: the local copy refuses to open a
// final link, so that attempt fails and the next name is used. Link and victim stay as they were.
TEST_F(LocalCommit, LinkAtTheBackupNameIsLeftAloneAndTheNextNameUsed) {
    writeFile(target, oldContent, 0644);
    std::string const victim = root.path().string() + "/victim";
    writeFile(victim, "precious", 0644);
    fs::create_symlink(victim, target + ".bak");
    options.removeBackup(false);
    commit();
    EXPECT_EQ(contentOf(victim), "precious");
    EXPECT_EQ(fs::read_symlink(target + ".bak").string(), victim);
    EXPECT_EQ(contentOf(target + ".bak2"), "old");
    EXPECT_THAT(announced, ElementsAre(u16(target + ".bak2")));
    EXPECT_EQ(contentOf(target), "new");
}

// Exhaustive fault injection: the k-th call of the target back end fails, for every k until a
// run makes no k-th call. The fault-free run is the oracle for when the rename happened.
struct FaultCase {
    char const* name;
    bool backup;
    mode_t targetMode;
    bool streamedSource; // the new file comes through a back end of another type
};

class FaultInjection : public LocalCommit, public ::testing::WithParamInterface<FaultCase> {};

TEST_P(FaultInjection, EveryFailureLeavesTheOldOrTheNewPackageWhole) {
    auto const& param = GetParam();
    options.removeBackup(!param.backup);
    auto const injected = errc::make_error_code(errc::io_error);
    FaultyOps faulty(ops);
    LocalFileSystemOps plainSource;
    FileSystemOps& sourceOps = param.streamedSource ? static_cast<FileSystemOps&>(plainSource) : faulty;
    auto run = [&](std::size_t k) {
        fs::remove_all(dir);
        fs::create_directories(dir);
        writeFile(target, oldContent, param.targetMode);
        announced.clear();
        faulty.failCall(k, injected);
        replaceFileWithBackup(faulty, u16(target), sourceOps, u16(source), options);
    };
    // The new package's mode right after the rename: the source's, or a fresh stream-written file's.
    mode_t const mask = ::umask(0);
    ::umask(mask);
    int const arrivedMode = param.streamedSource ? (0666 & ~mask) : modeOf(source);

    run(0);
    std::vector<Op> const plan = faulty.log();
    auto const renameAt = std::find(plan.begin(), plan.end(), Op::Rename) - plan.begin() + 1;
    ASSERT_LE(static_cast<std::size_t>(renameAt), plan.size());

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
            EXPECT_EQ(contentOf(target), "new");
            EXPECT_EQ(modeOf(target), static_cast<int>(param.targetMode));
            break;
        }
        ASSERT_LT(k, 200u) << "the commit never stops calling";
        Op const failedOp = faulty.log()[k - 1];
        SCOPED_TRACE(publicName(failedOp));
        // Ignored faults, and those a further backup name gets round, end in a whole commit.
        bool const afterRename = static_cast<long>(k) > renameAt;
        bool const replaced = !threw || afterRename;
        EXPECT_EQ(contentOf(target), replaced ? "new" : "old");

        int expectedMode = static_cast<int>(param.targetMode);
        if (!(param.targetMode & 0200) && threw && (failedOp == Op::GetParentPath || failedOp == Op::GetTempName))
            expectedMode = param.targetMode | 0200; // made writable, not restored
        if (afterRename && failedOp == Op::SetPermissions)
            expectedMode = arrivedMode; // refusal ignored while the owner can read and write
        EXPECT_EQ(modeOf(target), expectedMode);

        // Faults strike before the inner call and a failed rename removes its temporary file,
        // so none is ever left.
        for (auto const& name : folderNames())
            EXPECT_TRUE(name == "p.pkg" || name.rfind("p.pkg.bak", 0) == 0) << name;
        if (param.backup && replaced) {
            ASSERT_EQ(announced.size(), threw ? 0u : 1u);
            if (!threw) {
                EXPECT_EQ(contentOf(std::string(announced[0].begin(), announced[0].end())), "old");
            }
        }
    }
}

INSTANTIATE_TEST_SUITE_P(Commit, FaultInjection,
                         ::testing::Values(FaultCase{"plain", false, 0644, false},
                                           FaultCase{"backup", true, 0644, false},
                                           FaultCase{"readOnlyPlain", false, 0444, false},
                                           FaultCase{"readOnlyBackup", true, 0444, false},
                                           FaultCase{"streamedPlain", false, 0600, true},
                                           FaultCase{"streamedBackup", true, 0640, true}),
                         [](auto const& info) { return std::string(info.param.name); });

} // namespace
} // namespace opc::test
