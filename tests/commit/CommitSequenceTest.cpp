// What a successful commit asks of its back end, call by call, and what it leaves behind.

#include "commit/ScriptedWorld.hpp"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <sstream>

namespace opc::test {
namespace {

using ::testing::ElementsAre;
using ::testing::ElementsAreArray;
using ::testing::IsEmpty;

const std::u16string P = u"/d/p.pkg";
const std::u16string N = u"/s/new.pkg";

class CommitSequence : public ::testing::Test {
protected:
    ScriptedWorld w;
    CommitOptions options;
    std::vector<std::u16string> announced;

    void SetUp() override {
        w.put(N, "new", 0x180);
        options.backupCreatedFcn([this](std::u16string const& b) { announced.push_back(b); });
    }
    void run() { replaceFileWithBackup(w.ops, P, w.ops, N, options); }
};

TEST_F(CommitSequence, PlainCommitRenamesATemporaryCopyOverTheTarget) {
    w.put(P, "old", 0x1A4);
    run();
    EXPECT_THAT(w.trace(), ElementsAre("exists /d/p.pkg", "getPermissions /d/p.pkg", "exists /d/p.pkg",
                                       "getPermissions /d/p.pkg", "getParentPath /d/p.pkg", "getTempName /d",
                                       "copy /s/new.pkg /d/.t1.tmp 0x2", "rename /d/.t1.tmp /d/p.pkg",
                                       "getPermissions /d/p.pkg", "setPermissions /d/p.pkg 0x11a4"));
    EXPECT_EQ(w.files.at(P).content, "new");
    EXPECT_EQ(w.files.at(P).perms, 0x11A4u);
    EXPECT_EQ(w.files.at(N).content, "new") << "the source is only read";
    EXPECT_EQ(w.files.size(), 2u) << "no backup, no temporary file";
    EXPECT_THAT(announced, IsEmpty());
}

TEST_F(CommitSequence, CommitWithBackupCopiesFirstAndAnnouncesAfterTheRename) {
    w.put(P, "old", 0x1A4);
    auto const oldTime = w.files.at(P).mtime;
    std::size_t callsWhenAnnounced = 0;
    options.removeBackup(false);
    options.backupCreatedFcn([&](std::u16string const& b) {
        announced.push_back(b);
        callsWhenAnnounced = w.ops.calls().size();
    });
    run();
    EXPECT_THAT(w.trace(),
                ElementsAre("exists /d/p.pkg", "getPermissions /d/p.pkg", "exists /d/p.pkg.bak",
                            "copy /d/p.pkg /d/p.pkg.bak 0x2", "getPermissions /d/p.pkg.bak", "getPermissions /d/p.pkg",
                            "getLastModifiedTime /d/p.pkg", "setLastModifiedTime /d/p.pkg.bak", "exists /d/p.pkg",
                            "getPermissions /d/p.pkg", "getParentPath /d/p.pkg", "getTempName /d",
                            "copy /s/new.pkg /d/.t1.tmp 0x2", "rename /d/.t1.tmp /d/p.pkg", "getPermissions /d/p.pkg",
                            "setPermissions /d/p.pkg 0x11a4"));
    EXPECT_THAT(announced, ElementsAre(P + u".bak"));
    EXPECT_EQ(callsWhenAnnounced, 14u) << "the callback runs right after the rename";
    EXPECT_EQ(w.files.at(P + u".bak").content, "old");
    EXPECT_EQ(w.files.at(P + u".bak").mtime, oldTime);
    EXPECT_EQ(w.files.at(P).content, "new");
}

TEST_F(CommitSequence, FirstCommitToAMissingPathNeverBacksUpNorAnnounces) {
    for (bool removeBackup : {true, false}) {
        SCOPED_TRACE(removeBackup);
        ScriptedWorld fresh;
        fresh.put(N, "new", 0x180);
        options.removeBackup(removeBackup);
        replaceFileWithBackup(fresh.ops, P, fresh.ops, N, options);
        EXPECT_THAT(fresh.trace(), ElementsAre("exists /d/p.pkg", "exists /d/p.pkg", "getParentPath /d/p.pkg",
                                               "getTempName /d", "copy /s/new.pkg /d/.t1.tmp 0x2",
                                               "rename /d/.t1.tmp /d/p.pkg", "getPermissions /d/p.pkg",
                                               "setPermissions /d/p.pkg 0x11a4"));
        EXPECT_EQ(fresh.files.at(P).perms, 0x11A4u);
        EXPECT_THAT(announced, IsEmpty());
    }
}

TEST_F(CommitSequence, PathWithoutFolderUsesDotTmpBesideIt) {
    w.parent.clear();
    w.put(u"p.pkg", "old");
    replaceFileWithBackup(w.ops, u"p.pkg", w.ops, N, options);
    EXPECT_EQ(w.ops.count(Op::GetTempName), 0u);
    auto const& calls = w.ops.calls();
    auto rename = std::find_if(calls.begin(), calls.end(), [](Call const& c) { return c.op == Op::Rename; });
    ASSERT_NE(rename, calls.end());
    EXPECT_THAT(rename->paths, ElementsAre(u"p.pkg.tmp", u"p.pkg"));
    EXPECT_EQ(w.files.at(u"p.pkg").content, "new");
}

// Which backup name ends up used when the first attempts fail at a given operation. Only the
// existence test, the copy and the two time calls fail an attempt; the permission steps never do.
struct CandidateCase {
    char const* name;
    Op op;
    int firstFailing, lastFailing; // which calls of `op` fail (1-based; counted over all paths)
    char const* expectedBackup;
};

class BackupCandidates : public CommitSequence, public ::testing::WithParamInterface<CandidateCase> {};

TEST_P(BackupCandidates, NextNameIsTriedOnlyAfterAFailedAttempt) {
    auto const& param = GetParam();
    w.put(P, "old", 0x124);
    w.put(P + u".bak", "stale", 0x124);
    options.removeBackup(false);
    for (int i = param.firstFailing; i <= param.lastFailing; ++i)
        w.failAt(param.op, i);
    run();
    std::u16string expected(param.expectedBackup, param.expectedBackup + std::strlen(param.expectedBackup));
    EXPECT_THAT(announced, ElementsAre(expected));
    EXPECT_EQ(w.files.at(expected).content, "old");
    EXPECT_EQ(w.files.at(P).content, "new");
    // Every name tried before the one used was asked about, in order.
    std::vector<std::u16string> asked;
    for (auto const& c : w.ops.calls())
        if (c.op == Op::Exists && c.paths[0] != P)
            asked.push_back(c.paths[0]);
    std::vector<std::u16string> all{P + u".bak", P + u".bak2", P + u".bak3", P + u".bak4", P + u".bak5"};
    auto used = std::find(all.begin(), all.end(), expected) - all.begin();
    EXPECT_THAT(asked, ElementsAreArray(all.begin(), all.begin() + used + 1));
}

INSTANTIATE_TEST_SUITE_P(
    Commit, BackupCandidates,
    // Exists #1 and GetPermissions #1 are the target's own, in the first step.
    ::testing::Values(CandidateCase{"none", Op::Exists, 0, -1, "/d/p.pkg.bak"},
                      CandidateCase{"exists", Op::Exists, 2, 2, "/d/p.pkg.bak2"},
                      CandidateCase{"copy", Op::Copy, 1, 2, "/d/p.pkg.bak3"},
                      CandidateCase{"getTime", Op::GetLastModifiedTime, 1, 3, "/d/p.pkg.bak4"},
                      CandidateCase{"setTime", Op::SetLastModifiedTime, 1, 4, "/d/p.pkg.bak5"},
                      // The stale backup's permissions cannot be read or set: the copy over it
                      // still goes ahead at the first name.
                      CandidateCase{"getPerms", Op::GetPermissions, 2, 4, "/d/p.pkg.bak"},
                      CandidateCase{"setPerms", Op::SetPermissions, 1, 1, "/d/p.pkg.bak"}),
    [](auto const& info) { return std::string(info.param.name); });

TEST_F(CommitSequence, OwnExtensionGetsDecimalSuffixes) {
    w.put(P, "old");
    options.removeBackup(false);
    options.backupExtension(u".old~");
    for (int i = 1; i <= 4; ++i)
        w.failAt(Op::Copy, i);
    run();
    EXPECT_THAT(announced, ElementsAre(P + u".old~5"));
}

TEST_F(CommitSequence, StaleReadOnlyBackupIsMadeWritableThenOverwritten) {
    w.put(P, "old", 0x1A4);
    w.put(P + u".bak", "stale", 0x8124);
    options.removeBackup(false);
    run();
    auto const trace = w.trace();
    // 0x8124 | 0x1080 with 0x8000 cleared, before the copy.
    auto set = std::find(trace.begin(), trace.end(), "setPermissions /d/p.pkg.bak 0x11a4");
    auto copy = std::find(trace.begin(), trace.end(), "copy /d/p.pkg /d/p.pkg.bak 0x2");
    ASSERT_NE(set, trace.end());
    EXPECT_LT(set, copy);
    EXPECT_EQ(w.files.at(P + u".bak").content, "old");
}

// Permission arithmetic: the target's bits as the back end reports them, and the values the
// commit hands to setPermissions (worked out by hand from the rules: 0x1000 or-ed into what is
// read, 0x8000 never set, 0x4000 cleared while writable).
struct PermsCase {
    char const* name;
    std::uint32_t targetPerms;
    std::uint32_t newFilePerms;
    std::vector<std::string> setCalls;
};

class PermissionArithmetic : public CommitSequence, public ::testing::WithParamInterface<PermsCase> {};

TEST_P(PermissionArithmetic, SetCallsMatchTheWorkedValues) {
    auto const& param = GetParam();
    w.put(P, "old", param.targetPerms);
    w.put(N, "new", param.newFilePerms);
    run();
    std::vector<std::string> sets;
    for (auto const& line : w.trace())
        if (line.rfind("setPermissions", 0) == 0)
            sets.push_back(line);
    EXPECT_EQ(sets, param.setCalls);
    EXPECT_EQ(w.files.at(P).content, "new");
}

INSTANTIATE_TEST_SUITE_P(
    Commit, PermissionArithmetic,
    ::testing::Values(
        PermsCase{"writableUnchanged", 0x1A4, 0x1A4, {}},
        PermsCase{"writableCarriedToNewFile", 0x1A4, 0x180, {"setPermissions /d/p.pkg 0x11a4"}},
        PermsCase{"readOnlyMadeWritableThenRestored", 0x124, 0x1A4,
                  {"setPermissions /d/p.pkg 0x11a4", "setPermissions /d/p.pkg 0x1124"}},
        PermsCase{"bit4000ClearedWhileWritable", 0x41A4, 0x1A4,
                  {"setPermissions /d/p.pkg 0x11a4", "setPermissions /d/p.pkg 0x51a4"}},
        PermsCase{"bit8000NeverSet", 0x8124, 0x124,
                  {"setPermissions /d/p.pkg 0x11a4", "setPermissions /d/p.pkg 0x1124"}},
        PermsCase{"markBitAlreadyThere", 0x11A4, 0x1A4, {}}),
    [](auto const& info) { return std::string(info.param.name); });

TEST_F(CommitSequence, UnreadableTargetIsAskedFor3FFFAndGetsItsOwnBitsBack) {
    w.put(P, "old", 0x124);
    w.failAt(Op::GetPermissions, 2); // step 3's reading only
    run();
    std::vector<std::string> sets;
    for (auto const& line : w.trace())
        if (line.rfind("setPermissions", 0) == 0)
            sets.push_back(line);
    // 0xBFFF with 0x4000 and 0x8000 cleared; then the value of step 1.
    EXPECT_THAT(sets, ElementsAre("setPermissions /d/p.pkg 0x3fff", "setPermissions /d/p.pkg 0x1124"));
    EXPECT_EQ(w.files.at(P).perms, 0x1124u);
}

TEST_F(CommitSequence, BackupTakesTheOldPackagesPermissionsOr7FFFWhenUnreadable) {
    struct Row {
        std::uint32_t target;
        bool targetUnreadableInBackup;
        char const* expected;
    };
    for (Row row : {Row{0x8124, false, "setPermissions /d/p.pkg.bak 0x1124"},
                    Row{0x124, true, "setPermissions /d/p.pkg.bak 0x7fff"}}) {
        ScriptedWorld fresh;
        fresh.put(P, "old", row.target);
        fresh.put(N, "new", 0x1A4);
        // The copy gives the backup other bits than the target, so step c must act.
        fresh.atCall(Op::Copy, 1, [&fresh](Call const& c) {
            fresh.files[c.paths[1]] = MemFile{"old", 0x1FF, {}};
            return Reply::ok();
        });
        if (row.targetUnreadableInBackup)
            fresh.failAt(Op::GetPermissions, 3);
        options.removeBackup(false);
        replaceFileWithBackup(fresh.ops, P, fresh.ops, N, options);
        auto trace = fresh.trace();
        EXPECT_NE(std::find(trace.begin(), trace.end(), row.expected), trace.end()) << row.expected;
    }
}

// The options are read through the caller's object at each step; a back end that changes them
// during the commit (here: while the backup's time is set) turns step 7 on.
TEST_F(CommitSequence, SecondReadingOfRemoveBackupRemovesTheFreshBackup) {
    w.put(P, "old");
    options.removeBackup(false);
    w.atCall(Op::SetLastModifiedTime, 1, [this, &wld = w](Call const& c) {
        options.removeBackup(true);
        wld.files.at(c.paths[0]).mtime = c.time;
        return Reply::ok();
    });
    run();
    EXPECT_THAT(announced, IsEmpty());
    EXPECT_EQ(w.files.count(P + u".bak"), 0u);
    EXPECT_EQ(w.files.at(P).content, "new");
    auto trace = w.trace();
    auto rename = std::find(trace.begin(), trace.end(), "rename /d/.t1.tmp /d/p.pkg");
    ASSERT_NE(rename, trace.end());
    EXPECT_EQ(*(rename + 1), "remove /d/p.pkg.bak");
}

TEST_F(CommitSequence, BackupThatCannotBeRemovedIsPutBackInPlace) {
    w.put(P, "old");
    options.removeBackup(false);
    w.atCall(Op::SetLastModifiedTime, 1, [this](Call const&) {
        options.removeBackup(true);
        return Reply::ok();
    });
    w.failAt(Op::Remove, 1, boost::system::errc::device_or_resource_busy);
    try {
        run();
        FAIL() << "expected a failure";
    } catch (Exception const& e) {
        auto ec = errcCode(boost::system::errc::device_or_resource_busy);
        EXPECT_EQ(e.what(), commitMessage("remove failed: boom", ec));
        EXPECT_EQ(e.code(), ec);
    }
    EXPECT_EQ(w.files.at(P).content, "old");
    EXPECT_EQ(w.files.count(P + u".bak"), 0u);
    auto trace = w.trace();
    EXPECT_THAT(std::vector<std::string>(trace.end() - 3, trace.end()),
                ElementsAre("remove /d/p.pkg.bak", "remove /d/p.pkg", "rename /d/p.pkg.bak /d/p.pkg"));
    EXPECT_THAT(announced, IsEmpty());
}

// Back ends of different dynamic types exchange bytes through streams.
class OtherScriptedOps : public ScriptedOps {};

TEST(CommitAcrossBackEnds, NewContentIsStreamedWithBinaryModes) {
    ScriptedWorld target;
    OtherScriptedOps source;
    std::string const payload(40000, 'x'); // more than one copy buffer
    auto in = std::make_shared<std::istringstream>(payload + "end");
    auto out = std::make_shared<std::ostringstream>();
    source.enqueue(Op::CreateInputStream, Reply::ok(std::shared_ptr<std::istream>(in)));
    target.ops.enqueue(Op::CreateOutputStream, Reply::ok(std::shared_ptr<std::ostream>(out)));
    target.ops.on(Op::Rename, [&](Call const& c) {
        target.files[c.paths[1]] = MemFile{out->str(), 0x1A4, {}};
        return Reply::ok();
    });
    replaceFileWithBackup(target.ops, P, source, N, CommitOptions());
    EXPECT_EQ(target.files.at(P).content, payload + "end");
    ASSERT_EQ(source.calls().size(), 1u);
    EXPECT_EQ(source.calls()[0].paths[0], N);
    EXPECT_EQ(source.calls()[0].number, 12u);
    EXPECT_EQ(target.ops.count(Op::Copy), 0u);
    auto const& calls = target.ops.calls();
    auto open = std::find_if(calls.begin(), calls.end(), [](Call const& c) { return c.op == Op::CreateOutputStream; });
    ASSERT_NE(open, calls.end());
    EXPECT_EQ(open->paths[0], target.tempName);
    EXPECT_EQ(open->number, 20u);
    EXPECT_EQ(in.use_count(), 1) << "the commit let go of the input stream";
    EXPECT_EQ(out.use_count(), 1) << "the commit let go of the output stream";
}

TEST(CommitAcrossBackEnds, BackEndHandingOutNoStreamFailsTheCommit) {
    ScriptedWorld target;
    OtherScriptedOps source; // replies with an empty pointer and no error
    try {
        replaceFileWithBackup(target.ops, P, source, N, CommitOptions());
        FAIL() << "expected a failure";
    } catch (Exception const& e) {
        EXPECT_EQ(e.what(), commitMessage("createInputStream returned no stream", e.code()));
        EXPECT_TRUE(e.code().failed());
    }
    EXPECT_EQ(target.ops.count(Op::Rename), 0u);
}

} // namespace
} // namespace opc::test
