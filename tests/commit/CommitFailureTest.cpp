// Every way a commit can fail: the message and code it reports and what it leaves behind.

#include "commit/ScriptedWorld.hpp"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <stdexcept>

namespace opc::test {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;
using boost::system::errc::errc_t;
namespace errc = boost::system::errc;

const std::u16string P = u"/d/p.pkg";
const std::u16string N = u"/s/new.pkg";
const std::u16string Tmp = u"/d/.t1.tmp";

struct Outcome {
    std::string message;
    boost::system::error_code code;
};

// One row of the failure table: how the world is set up and broken, and what must follow.
struct FailureCase {
    char const* name;
    std::uint32_t targetPerms; // 0: no target
    bool backup;
    std::function<void(ScriptedWorld&)> breakIt;
    std::string inner; // message of the inner exception
    errc_t code;
    std::string targetAfter; // content at P afterwards
    std::uint32_t permsAfter;
    bool tempLeft;
    std::vector<std::string> backupsLeft; // content of .bak, .bak2, ... that must exist
};

class FailureTable : public ::testing::TestWithParam<FailureCase> {};

TEST_P(FailureTable, MessageCodeAndLeftovers) {
    auto const& row = GetParam();
    ScriptedWorld w;
    if (row.targetPerms)
        w.put(P, "old", row.targetPerms);
    w.put(N, "new", 0x1A4);
    row.breakIt(w);
    CommitOptions options;
    options.removeBackup(!row.backup);
    bool announced = false;
    options.backupCreatedFcn([&](std::u16string const&) { announced = true; });

    try {
        replaceFileWithBackup(w.ops, P, w.ops, N, options);
        FAIL() << "expected a failure";
    } catch (Exception const& e) {
        auto ec = errcCode(row.code);
        EXPECT_EQ(e.what(), commitMessage(row.inner, ec));
        EXPECT_EQ(e.code(), ec);
        EXPECT_EQ(&e.code().category(), &boost::system::generic_category());
    }
    if (row.targetAfter.empty()) {
        EXPECT_EQ(w.files.count(P), 0u);
    } else {
        ASSERT_EQ(w.files.count(P), 1u);
        EXPECT_EQ(w.files.at(P).content, row.targetAfter);
        EXPECT_EQ(w.files.at(P).perms, row.permsAfter);
    }
    EXPECT_EQ(w.files.count(Tmp), row.tempLeft ? 1u : 0u);
    std::u16string const names[] = {u".bak", u".bak2", u".bak3", u".bak4", u".bak5"};
    for (std::size_t i = 0; i < 5; ++i) {
        bool const expected = i < row.backupsLeft.size();
        ASSERT_EQ(w.files.count(P + names[i]), expected ? 1u : 0u) << i;
        if (expected) {
            EXPECT_EQ(w.files.at(P + names[i]).content, row.backupsLeft[i]);
        }
    }
    EXPECT_FALSE(announced);
}

void fail(ScriptedWorld& w, Op op, int nth, errc_t e = errc::io_error) { w.failAt(op, nth, e); }

// A copy that writes half of the file before failing.
void halfCopy(ScriptedWorld& w, int nth) {
    w.atCall(Op::Copy, nth, [&w](Call const& c) {
        w.files[c.paths[1]] = MemFile{"ne", 0x1A4, {}};
        return Reply::fail(errc::no_space_on_device, "boom");
    });
}

std::string const Denied13Read = "Could not get attributes or permissions of existing package";
std::string const Denied13Set = "Could not set attributes or permissions of new package";

INSTANTIATE_TEST_SUITE_P(
    Commit, FailureTable,
    ::testing::Values(
        FailureCase{"existsFails", 0x1A4, false, [](auto& w) { fail(w, Op::Exists, 1, errc::permission_denied); },
                    "exists failed: boom", errc::permission_denied, "old", 0x1A4, false, {}},
        FailureCase{"targetPermsUnreadable", 0x1A4, true, [](auto& w) { fail(w, Op::GetPermissions, 1); },
                    Denied13Read, errc::permission_denied, "old", 0x1A4, false, {}},
        FailureCase{"targetPermsThrowForeign", 0x1A4, false,
                    [](auto& w) {
                        w.atCall(Op::GetPermissions, 1, [](Call const&) -> Reply { throw std::out_of_range("x"); });
                    },
                    Denied13Read, errc::permission_denied, "old", 0x1A4, false, {}},
        // The last attempt's copy failure is reported; candidates written by failed attempts stay.
        FailureCase{"allBackupsFail", 0x1A4, true,
                    [](auto& w) {
                        for (int i = 1; i <= 5; ++i)
                            fail(w, Op::SetLastModifiedTime, i, i == 5 ? errc::read_only_file_system : errc::io_error);
                    },
                    "setLastModifiedTime failed: boom", errc::read_only_file_system, "old", 0x1A4, false,
                    {"old", "old", "old", "old", "old"}},
        // No temporary name: the read-only target stays writable.
        FailureCase{"noTempName", 0x124, false, [](auto& w) { fail(w, Op::GetTempName, 1, errc::no_space_on_device); },
                    "getTempName failed: boom", errc::no_space_on_device, "old", 0x11A4, false, {}},
        FailureCase{"noParentPath", 0x124, false, [](auto& w) { fail(w, Op::GetParentPath, 1); },
                    "getParentPath failed: boom", errc::io_error, "old", 0x11A4, false, {}},
        // A failed copy of the new content: permissions restored, partial temporary file left.
        FailureCase{"newContentCopyFails", 0x124, false, [](auto& w) { halfCopy(w, 1); }, "copy failed: boom",
                    errc::no_space_on_device, "old", 0x1124, true, {}},
        FailureCase{"newContentCopyFailsAfterBackup", 0x124, true, [](auto& w) { halfCopy(w, 2); },
                    "copy failed: boom", errc::no_space_on_device, "old", 0x1124, true, {"old"}},
        // A failed rename: temporary file removed, permissions restored, backup kept.
        FailureCase{"renameFails", 0x124, true, [](auto& w) { fail(w, Op::Rename, 1, errc::cross_device_link); },
                    "rename failed: boom", errc::cross_device_link, "old", 0x1124, false, {"old"}},
        FailureCase{"renameFailsOnFirstCommit", 0, false, [](auto& w) { fail(w, Op::Rename, 1); },
                    "rename failed: boom", errc::io_error, "", 0, false, {}},
        // A rename that fails and a temporary file that cannot be removed: the rename is reported.
        FailureCase{"renameAndCleanupFail", 0x1A4, false,
                    [](auto& w) {
                        fail(w, Op::Rename, 1, errc::cross_device_link);
                        fail(w, Op::Remove, 1);
                    },
                    "rename failed: boom", errc::cross_device_link, "old", 0x1A4, true, {}},
        // Final permissions refused on a package its owner cannot write: reported, package stays.
        FailureCase{"finalPermsRefusedNotWritable", 0x1A4, false,
                    [](auto& w) {
                        w.atCall(Op::Copy, 1, [&w](Call const& c) {
                            w.files[c.paths[1]] = MemFile{"new", 0x124, {}};
                            return Reply::ok();
                        });
                        w.failAlways(Op::SetPermissions);
                    },
                    Denied13Set, errc::permission_denied, "new", 0x124, false, {}}),
    [](auto const& info) { return std::string(info.param.name); });

class CommitFailure : public ::testing::Test {
protected:
    ScriptedWorld w;
    CommitOptions options;
    void SetUp() override {
        w.put(P, "old", 0x124);
        w.put(N, "new", 0x1A4);
    }
    void run() { replaceFileWithBackup(w.ops, P, w.ops, N, options); }
};

TEST_F(CommitFailure, RefusedFinalPermissionsAreIgnoredWhileTheOwnerCanReadAndWrite) {
    // The new package arrives 0644 while the old one was 0444; setting fails after the rename.
    w.atCall(Op::SetPermissions, 2, [](Call const&) { return Reply::fail(errc::operation_not_permitted, "no"); });
    EXPECT_NO_THROW(run());
    EXPECT_EQ(w.files.at(P).content, "new");
    EXPECT_EQ(w.files.at(P).perms, 0x1A4u) << "left as the new file came";
}

TEST_F(CommitFailure, RefusedFinalPermissionsAreIgnoredWhenTheyCannotBeRead) {
    w.failAt(Op::GetPermissions, 3); // step 9's reading: 0xFFFF has both owner bits
    w.atCall(Op::SetPermissions, 2, [](Call const&) { return Reply::fail(errc::operation_not_permitted, "no"); });
    EXPECT_NO_THROW(run());
    EXPECT_EQ(w.files.at(P).content, "new");
}

TEST_F(CommitFailure, CallbackThrowingTheLibrarysExceptionIsWrappedAfterTheCommit) {
    options.removeBackup(false);
    auto const ec = errcCode(errc::operation_canceled);
    options.backupCreatedFcn([&](std::u16string const&) { throw Exception("callback says no", ec); });
    try {
        run();
        FAIL() << "expected a failure";
    } catch (Exception const& e) {
        EXPECT_EQ(e.what(), commitMessage("callback says no", ec));
        EXPECT_EQ(e.code(), ec);
    }
    EXPECT_EQ(w.files.at(P).content, "new");
    EXPECT_EQ(w.files.at(P + u".bak").content, "old");
    EXPECT_EQ(w.ops.count(Op::SetPermissions), 1u) << "step 9 never ran";
}

TEST_F(CommitFailure, WrappingKeepsAClearedCodeAndAppendsItsText) {
    options.removeBackup(false);
    options.backupCreatedFcn([](std::u16string const&) { throw Exception("soft", boost::system::error_code()); });
    try {
        run();
        FAIL() << "expected a failure";
    } catch (Exception const& e) {
        EXPECT_EQ(e.what(), commitMessage("soft", boost::system::error_code()));
        EXPECT_FALSE(e.code().failed());
        EXPECT_EQ(&e.code().category(), &boost::system::system_category());
    }
}

TEST_F(CommitFailure, ForeignExceptionsPassUnchanged) {
    struct Row {
        char const* name;
        std::function<void(ScriptedWorld&, CommitOptions&)> breakIt;
        char const* message;
    };
    auto thrower = [](char const* what) { return [what](Call const&) -> Reply { throw std::logic_error(what); }; };
    Row const rows[] = {
        {"callback", [](ScriptedWorld&, CommitOptions& o) {
             o.removeBackup(false);
             o.backupCreatedFcn([](std::u16string const&) { throw std::logic_error("from callback"); });
         }, "from callback"},
        {"exists", [&](ScriptedWorld& wd, CommitOptions&) { wd.atCall(Op::Exists, 1, thrower("exists")); }, "exists"},
        {"newContent", [&](ScriptedWorld& wd, CommitOptions&) { wd.atCall(Op::Copy, 1, thrower("copy")); }, "copy"},
        {"rename", [&](ScriptedWorld& wd, CommitOptions&) { wd.atCall(Op::Rename, 1, thrower("rename")); }, "rename"},
        {"backupCopy", [&](ScriptedWorld& wd, CommitOptions& o) {
             o.removeBackup(false);
             wd.atCall(Op::Copy, 1, thrower("backup"));
         }, "backup"},
    };
    for (auto const& row : rows) {
        SCOPED_TRACE(row.name);
        ScriptedWorld wd;
        wd.put(P, "old", 0x124);
        wd.put(N, "new", 0x1A4);
        CommitOptions o;
        row.breakIt(wd, o);
        try {
            replaceFileWithBackup(wd.ops, P, wd.ops, N, o);
            ADD_FAILURE() << "expected a failure";
        } catch (Exception const& e) {
            ADD_FAILURE() << "wrapped: " << e.what();
        } catch (std::logic_error const& e) {
            EXPECT_STREQ(e.what(), row.message);
        }
    }
}

TEST_F(CommitFailure, ForeignFailureOfTheNewContentStillRestoresPermissions) {
    w.atCall(Op::Copy, 1, [](Call const&) -> Reply { throw std::bad_alloc(); });
    EXPECT_THROW(run(), std::bad_alloc);
    EXPECT_EQ(w.files.at(P).perms, 0x1124u);
    EXPECT_EQ(w.files.at(P).content, "old");
}

TEST_F(CommitFailure, ForeignFailureOfTheRenameRemovesTheTemporaryFile) {
    w.atCall(Op::Rename, 1, [](Call const&) -> Reply { throw std::bad_alloc(); });
    EXPECT_THROW(run(), std::bad_alloc);
    EXPECT_EQ(w.files.count(Tmp), 0u);
    EXPECT_EQ(w.files.at(P).perms, 0x1124u);
}

TEST_F(CommitFailure, ForeignFailureInABackupAttemptTriesNoOtherName) {
    options.removeBackup(false);
    w.atCall(Op::SetLastModifiedTime, 1, [](Call const&) -> Reply { throw std::length_error("t"); });
    EXPECT_THROW(run(), std::length_error);
    EXPECT_EQ(w.ops.count(Op::Copy), 1u);
    EXPECT_EQ(w.files.at(P).content, "old");
}

TEST_F(CommitFailure, FailedRestoreOfPermissionsDoesNotHideTheCopyFailure) {
    w.failAt(Op::Copy, 1, errc::no_space_on_device);
    w.failAt(Op::SetPermissions, 2, errc::operation_not_permitted); // the restore
    try {
        run();
        FAIL() << "expected a failure";
    } catch (Exception const& e) {
        EXPECT_EQ(e.code(), errcCode(errc::no_space_on_device));
    }
    EXPECT_EQ(w.ops.count(Op::SetPermissions), 2u);
}

} // namespace
} // namespace opc::test
