// What a successful commit asks of its back end, call by call, and what it leaves behind.

#include "commit/ScriptedWorld.hpp"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <sstream>

namespace opc::test {
namespace {

using ::testing::ElementsAre;
using ::testing::ElementsAreArray;
using ::testing::IsEmpty;
using Trace = std::vector<std::string>;

const std::u16string P = u"/d/p.pkg";
const std::u16string N = u"/s/new.pkg";

class CommitSequence : public ::testing::Test {
protected:
    ScriptedWorld w;
    CommitOptions options;
    std::vector<std::u16string> announced;
    std::size_t callsWhenAnnounced = 0;

    void SetUp() override {
        w.put(N, "new", 0x180);
        options.backupCreatedFcn([this](std::u16string const& b) {
            announced.push_back(b);
            callsWhenAnnounced = w.ops.calls().size();
        });
    }
    void run() { replaceFileWithBackup(w.ops, P, w.ops, N, options); }
    Trace setCalls() const {
        Trace sets;
        for (auto const& line : w.trace())
            if (line.rfind("setPermissions", 0) == 0)
                sets.push_back(line);
        return sets;
    }
};

struct SequenceCase {
    char const* name;
    bool targetExists, backup;
    Trace calls;
};

class CallSequence : public CommitSequence, public ::testing::WithParamInterface<SequenceCase> {};

// The backup is announced right after the rename; the new package gets the old one's bits with
// 0x1000 added; the source is only read; nothing else is left.
TEST_P(CallSequence, IsExactlyTheListedCalls) {
    auto const& param = GetParam();
    if (param.targetExists)
        w.put(P, "old", 0x1A4);
    options.removeBackup(!param.backup);
    run();
    EXPECT_THAT(w.trace(), ElementsAreArray(param.calls));
    EXPECT_EQ(w.files.at(P).content, "new");
    EXPECT_EQ(w.files.at(P).perms, 0x11A4u);
    EXPECT_EQ(w.files.at(N).content, "new");
    bool const backedUp = param.backup && param.targetExists;
    EXPECT_EQ(w.files.size(), backedUp ? 3u : 2u);
    if (backedUp) {
        EXPECT_THAT(announced, ElementsAre(P + u".bak"));
        EXPECT_EQ(callsWhenAnnounced, 14u);
        EXPECT_EQ(w.files.at(P + u".bak").content, "old");
        EXPECT_EQ(w.files.at(P + u".bak").mtime, boost::posix_time::ptime(boost::gregorian::date(2001, 2, 3)));
    } else {
        EXPECT_THAT(announced, IsEmpty());
    }
}

Trace const firstCommit{"exists /d/p.pkg",      "exists /d/p.pkg",          "getParentPath /d/p.pkg",
                        "getTempName /d",       "copy /s/new.pkg /d/.t1.tmp 0x2", "rename /d/.t1.tmp /d/p.pkg",
                        "getPermissions /d/p.pkg", "setPermissions /d/p.pkg 0x11a4"};

INSTANTIATE_TEST_SUITE_P(
    Commit, CallSequence,
    ::testing::Values(
        SequenceCase{"plain", true, false,
                     {"exists /d/p.pkg", "getPermissions /d/p.pkg", "exists /d/p.pkg", "getPermissions /d/p.pkg",
                      "getParentPath /d/p.pkg", "getTempName /d", "copy /s/new.pkg /d/.t1.tmp 0x2",
                      "rename /d/.t1.tmp /d/p.pkg", "getPermissions /d/p.pkg", "setPermissions /d/p.pkg 0x11a4"}},
        SequenceCase{"withBackup", true, true,
                     {"exists /d/p.pkg", "getPermissions /d/p.pkg", "exists /d/p.pkg.bak",
                      "copy /d/p.pkg /d/p.pkg.bak 0x2", "getPermissions /d/p.pkg.bak", "getPermissions /d/p.pkg",
                      "getLastModifiedTime /d/p.pkg", "setLastModifiedTime /d/p.pkg.bak", "exists /d/p.pkg",
                      "getPermissions /d/p.pkg", "getParentPath /d/p.pkg", "getTempName /d",
                      "copy /s/new.pkg /d/.t1.tmp 0x2", "rename /d/.t1.tmp /d/p.pkg", "getPermissions /d/p.pkg",
                      "setPermissions /d/p.pkg 0x11a4"}},
        SequenceCase{"first", false, false, firstCommit}, SequenceCase{"firstWithBackup", false, true, firstCommit}),
    [](auto const& info) { return std::string(info.param.name); });

TEST_F(CommitSequence, PathWithoutFolderUsesDotTmpBesideIt) {
    w.parent.clear();
    w.put(u"p.pkg", "old");
    replaceFileWithBackup(w.ops, u"p.pkg", w.ops, N, options);
    EXPECT_EQ(w.ops.count(Op::GetTempName), 0u);
    EXPECT_THAT(w.trace(), ::testing::Contains("rename p.pkg.tmp p.pkg"));
    EXPECT_EQ(w.files.at(u"p.pkg").content, "new");
}

// Which backup name is used when the first attempts fail at a given operation. Only the
// existence test, the copy and the two time calls fail an attempt; the permission steps never do.
struct CandidateCase {
    char const* name;
    Op op;
    int firstFailing, lastFailing; // calls of `op` that fail, 1-based over all paths
    std::u16string extension, expected;
};

class BackupCandidates : public CommitSequence, public ::testing::WithParamInterface<CandidateCase> {};

TEST_P(BackupCandidates, NextNameIsTriedOnlyAfterAFailedAttempt) {
    auto const& param = GetParam();
    w.put(P, "old", 0x124);
    w.put(P + param.extension, "stale", 0x124);
    options.removeBackup(false);
    options.backupExtension(param.extension);
    for (int i = param.firstFailing; i <= param.lastFailing; ++i)
        w.failAt(param.op, i);
    run();
    EXPECT_THAT(announced, ElementsAre(P + param.expected));
    EXPECT_EQ(w.files.at(P + param.expected).content, "old");
    EXPECT_EQ(w.files.at(P).content, "new");
    // Every name before the one used was asked about, in order.
    std::vector<std::u16string> asked, all{P + param.extension};
    for (char16_t digit = u'2'; digit <= u'5'; ++digit)
        all.push_back(P + param.extension + digit);
    for (auto const& c : w.ops.calls())
        if (c.op == Op::Exists && c.paths[0] != P)
            asked.push_back(c.paths[0]);
    auto used = std::find(all.begin(), all.end(), P + param.expected) - all.begin();
    EXPECT_THAT(asked, ElementsAreArray(all.begin(), all.begin() + used + 1));
}

INSTANTIATE_TEST_SUITE_P(
    Commit, BackupCandidates,
    // Exists #1 and GetPermissions #1 are the target's own.
    ::testing::Values(CandidateCase{"none", Op::Exists, 0, -1, u".bak", u".bak"},
                      CandidateCase{"exists", Op::Exists, 2, 2, u".bak", u".bak2"},
                      CandidateCase{"copy", Op::Copy, 1, 2, u".bak", u".bak3"},
                      CandidateCase{"getTime", Op::GetLastModifiedTime, 1, 3, u".bak", u".bak4"},
                      CandidateCase{"setTime", Op::SetLastModifiedTime, 1, 4, u".bak", u".bak5"},
                      CandidateCase{"ownExtension", Op::Copy, 1, 4, u".old~", u".old~5"},
                      // The stale backup's bits cannot be read or set: the copy still goes ahead.
                      CandidateCase{"getPerms", Op::GetPermissions, 2, 4, u".bak", u".bak"},
                      CandidateCase{"setPerms", Op::SetPermissions, 1, 1, u".bak", u".bak"}),
    [](auto const& info) { return std::string(info.param.name); });

// The values handed to setPermissions, worked out by hand: 0x1000 or-ed into what is read,
// 0x8000 never set, 0x4000 cleared while writable; an unreadable target is asked for 0x3FFF.
struct PermsCase {
    char const* name;
    std::uint32_t targetPerms, newFilePerms;
    int failedRead; // which getPermissions call fails, 0 for none
    Trace setCalls;
};

class PermissionArithmetic : public CommitSequence, public ::testing::WithParamInterface<PermsCase> {};

TEST_P(PermissionArithmetic, SetCallsMatchTheWorkedValues) {
    auto const& param = GetParam();
    w.put(P, "old", param.targetPerms);
    w.put(N, "new", param.newFilePerms);
    if (param.failedRead)
        w.failAt(Op::GetPermissions, param.failedRead);
    run();
    EXPECT_EQ(setCalls(), param.setCalls);
    EXPECT_EQ(w.files.at(P).content, "new");
}

INSTANTIATE_TEST_SUITE_P(
    Commit, PermissionArithmetic,
    ::testing::Values(
        PermsCase{"writableUnchanged", 0x1A4, 0x1A4, 0, {}},
        PermsCase{"writableCarriedToNewFile", 0x1A4, 0x180, 0, {"setPermissions /d/p.pkg 0x11a4"}},
        PermsCase{"readOnlyMadeWritableThenRestored", 0x124, 0x1A4, 0,
                  {"setPermissions /d/p.pkg 0x11a4", "setPermissions /d/p.pkg 0x1124"}},
        PermsCase{"bit4000ClearedWhileWritable", 0x41A4, 0x1A4, 0,
                  {"setPermissions /d/p.pkg 0x11a4", "setPermissions /d/p.pkg 0x51a4"}},
        PermsCase{"bit8000NeverSet", 0x8124, 0x124, 0,
                  {"setPermissions /d/p.pkg 0x11a4", "setPermissions /d/p.pkg 0x1124"}},
        PermsCase{"markBitAlreadyThere", 0x11A4, 0x1A4, 0, {}},
        PermsCase{"unreadableBeforeTheCopy", 0x124, 0x180, 2,
                  {"setPermissions /d/p.pkg 0x3fff", "setPermissions /d/p.pkg 0x1124"}}),
    [](auto const& info) { return std::string(info.param.name); });

// A backup whose copy came out with other bits gets the old package's, or 0x7FFF when unreadable.
TEST_F(CommitSequence, BackupTakesTheOldPackagesPermissionsOr7FFF) {
    for (auto [target, unreadable, expected] : {std::tuple{0x8124u, false, "setPermissions /d/p.pkg.bak 0x1124"},
                                                std::tuple{0x124u, true, "setPermissions /d/p.pkg.bak 0x7fff"}}) {
        ScriptedWorld fresh;
        fresh.put(P, "old", target);
        fresh.put(N, "new", 0x1A4);
        fresh.atCall(Op::Copy, 1, [&fresh](Call const& c) {
            fresh.files[c.paths[1]] = MemFile{"old", 0x1FF, {}};
            return Reply::ok();
        });
        if (unreadable)
            fresh.failAt(Op::GetPermissions, 3);
        options.removeBackup(false);
        replaceFileWithBackup(fresh.ops, P, fresh.ops, N, options);
        EXPECT_THAT(fresh.trace(), ::testing::Contains(expected));
    }
}

// The options are read through the caller's object at each step; a back end that changes them
// while the backup's time is set turns the removal of the fresh backup on.
class SecondReading : public CommitSequence {
protected:
    void SetUp() override {
        CommitSequence::SetUp();
        w.put(P, "old");
        options.removeBackup(false);
        w.atCall(Op::SetLastModifiedTime, 1, [this](Call const& c) {
            options.removeBackup(true);
            w.files.at(c.paths[0]).mtime = c.time;
            return Reply::ok();
        });
    }
};

TEST_F(SecondReading, OfRemoveBackupRemovesTheFreshBackup) {
    run();
    EXPECT_THAT(announced, IsEmpty());
    EXPECT_EQ(w.files.count(P + u".bak"), 0u);
    EXPECT_EQ(w.files.at(P).content, "new");
    auto trace = w.trace();
    auto rename = std::find(trace.begin(), trace.end(), "rename /d/.t1.tmp /d/p.pkg");
    ASSERT_LT(rename + 1, trace.end());
    EXPECT_EQ(*(rename + 1), "remove /d/p.pkg.bak");
}

TEST_F(SecondReading, BackupThatCannotBeRemovedIsPutBackInPlace) {
    w.failAt(Op::Remove, 1, errc::device_or_resource_busy);
    try {
        run();
        FAIL() << "expected a failure";
    } catch (Exception const& e) {
        EXPECT_EQ(e.what(), commitMessage("remove failed: boom", errcCode(errc::device_or_resource_busy)));
        EXPECT_EQ(e.code(), errcCode(errc::device_or_resource_busy));
    }
    EXPECT_EQ(w.files.at(P).content, "old");
    EXPECT_EQ(w.files.count(P + u".bak"), 0u);
    auto trace = w.trace();
    EXPECT_THAT(Trace(trace.end() - 3, trace.end()),
                ElementsAre("remove /d/p.pkg.bak", "remove /d/p.pkg", "rename /d/p.pkg.bak /d/p.pkg"));
    EXPECT_THAT(announced, IsEmpty());
}

// Back ends of different dynamic types exchange bytes through streams opened in binary modes.
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

} // namespace
} // namespace opc::test
