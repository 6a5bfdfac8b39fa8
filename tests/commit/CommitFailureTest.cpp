// Every way a commit can fail: the message and code it reports and what it leaves behind.

#include "commit/ScriptedWorld.hpp"

#include <gtest/gtest.h>

#include <stdexcept>

namespace opc::test {
namespace {

const std::u16string P = u"/d/p.pkg";
const std::u16string N = u"/s/new.pkg";
const std::u16string Tmp = u"/d/.t1.tmp";

// One row of the failure table: how the world is broken and what must follow. An empty
// `inner` means the failure is ignored and the commit succeeds.
struct FailureCase {
    char const* name;
    std::uint32_t targetPerms; // 0: no target
    bool backup;
    std::function<void(ScriptedWorld&)> breakIt;
    std::string inner;
    errc::errc_t code;
    std::string targetAfter; // content at P afterwards, empty when missing
    std::uint32_t permsAfter;
    bool tempLeft;
    std::vector<std::string> backupsLeft; // contents of .bak, .bak2, ... that must exist
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
        EXPECT_TRUE(row.inner.empty()) << "expected a failure";
    } catch (Exception const& e) {
        EXPECT_EQ(e.what(), commitMessage(row.inner, errcCode(row.code)));
        EXPECT_EQ(e.code(), errcCode(row.code));
        EXPECT_EQ(&e.code().category(), &boost::system::generic_category());
    }
    ASSERT_EQ(w.files.count(P), row.targetAfter.empty() ? 0u : 1u);
    if (!row.targetAfter.empty()) {
        EXPECT_EQ(w.files.at(P).content, row.targetAfter);
        EXPECT_EQ(w.files.at(P).perms, row.permsAfter);
    }
    EXPECT_EQ(w.files.count(Tmp), row.tempLeft ? 1u : 0u);
    std::u16string const names[] = {u".bak", u".bak2", u".bak3", u".bak4", u".bak5"};
    for (std::size_t i = 0; i < 5; ++i) {
        ASSERT_EQ(w.files.count(P + names[i]), i < row.backupsLeft.size() ? 1u : 0u) << i;
        if (i < row.backupsLeft.size()) {
            EXPECT_EQ(w.files.at(P + names[i]).content, row.backupsLeft[i]);
        }
    }
    EXPECT_FALSE(announced);
}

void fail(ScriptedWorld& w, Op op, int nth, errc::errc_t e = errc::io_error) { w.failAt(op, nth, e); }

// A copy that writes half of the file before failing.
void halfCopy(ScriptedWorld& w, int nth) {
    w.atCall(Op::Copy, nth, [&w](Call const& c) {
        w.files[c.paths[1]] = MemFile{"ne", 0x1A4, {}};
        return Reply::fail(errc::no_space_on_device, "boom");
    });
}

void refuseFinalPerms(ScriptedWorld& w) {
    w.atCall(Op::SetPermissions, 2, [](Call const&) { return Reply::fail(errc::operation_not_permitted, "no"); });
}

std::string const ReadDenied = "Could not get attributes or permissions of existing package";
std::string const SetDenied = "Could not set attributes or permissions of new package";

INSTANTIATE_TEST_SUITE_P(
    Commit, FailureTable,
    ::testing::Values(
        FailureCase{"existsFails", 0x1A4, false, [](auto& w) { fail(w, Op::Exists, 1, errc::permission_denied); },
                    "exists failed: boom", errc::permission_denied, "old", 0x1A4, false, {}},
        FailureCase{"targetPermsUnreadable", 0x1A4, true, [](auto& w) { fail(w, Op::GetPermissions, 1); },
                    ReadDenied, errc::permission_denied, "old", 0x1A4, false, {}},
        FailureCase{"targetPermsThrowForeign", 0x1A4, false,
                    [](auto& w) {
                        w.atCall(Op::GetPermissions, 1, [](Call const&) -> Reply { throw std::out_of_range("x"); });
                    },
                    ReadDenied, errc::permission_denied, "old", 0x1A4, false, {}},
        // The last attempt's failure is reported; candidates written by failed attempts stay.
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
        // A failed restore of the permissions does not hide the copy failure.
        FailureCase{"copyAndRestoreFail", 0x124, false,
                    [](auto& w) {
                        fail(w, Op::Copy, 1, errc::no_space_on_device);
                        fail(w, Op::SetPermissions, 2, errc::operation_not_permitted);
                    },
                    "copy failed: boom", errc::no_space_on_device, "old", 0x11A4, false, {}},
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
                    SetDenied, errc::permission_denied, "new", 0x124, false, {}},
        // Refused while the owner can read and write (0644 as the new file came, or unreadable,
        // where 0xFFFF has both bits): ignored.
        FailureCase{"finalPermsRefusedWritable", 0x124, false, refuseFinalPerms, "", {}, "new", 0x1A4, false, {}},
        FailureCase{"finalPermsRefusedUnreadable", 0x124, false,
                    [](auto& w) {
                        fail(w, Op::GetPermissions, 3);
                        refuseFinalPerms(w);
                    },
                    "", {}, "new", 0x1A4, false, {}}),
    [](auto const& info) { return std::string(info.param.name); });

// A callback throwing the library's exception is wrapped after the commit, its code kept even
// when cleared.
TEST(CommitFailure, CallbackThrowingTheLibrarysExceptionIsWrapped) {
    for (auto const ec : {errcCode(errc::operation_canceled), boost::system::error_code()}) {
        ScriptedWorld w;
        w.put(P, "old", 0x124);
        w.put(N, "new", 0x1A4);
        CommitOptions options;
        options.removeBackup(false);
        options.backupCreatedFcn([&](std::u16string const&) { throw Exception("callback says no", ec); });
        try {
            replaceFileWithBackup(w.ops, P, w.ops, N, options);
            ADD_FAILURE() << "expected a failure";
        } catch (Exception const& e) {
            EXPECT_EQ(e.what(), commitMessage("callback says no", ec));
            EXPECT_EQ(e.code(), ec);
            EXPECT_EQ(&e.code().category(), &ec.category());
        }
        EXPECT_EQ(w.files.at(P).content, "new");
        EXPECT_EQ(w.files.at(P + u".bak").content, "old");
        EXPECT_EQ(w.ops.count(Op::SetPermissions), 1u) << "the final permissions were never set";
    }
}

// Other exceptions pass unchanged, after the same clean-up as a reported failure: permissions
// restored, no temporary file, and no further backup name tried.
TEST(CommitFailure, ForeignExceptionsPassUnchanged) {
    struct Row {
        char const* name;
        bool backup;
        Op op; // the first call of `op` throws; the callback when it is Op::Remove
        std::string content;
        std::uint32_t perms;
        std::size_t copies;
    };
    Row const rows[] = {{"callback", true, Op::Remove, "new", 0x1A4, 2},
                        {"exists", false, Op::Exists, "old", 0x124, 0},
                        {"newContent", false, Op::Copy, "old", 0x1124, 1},
                        {"rename", false, Op::Rename, "old", 0x1124, 1},
                        {"backupCopy", true, Op::Copy, "old", 0x124, 1},
                        {"backupTime", true, Op::SetLastModifiedTime, "old", 0x124, 1}};
    for (auto const& row : rows) {
        SCOPED_TRACE(row.name);
        ScriptedWorld w;
        w.put(P, "old", 0x124);
        w.put(N, "new", 0x1A4);
        CommitOptions options;
        options.removeBackup(!row.backup);
        if (row.op == Op::Remove)
            options.backupCreatedFcn([&](std::u16string const&) { throw std::logic_error(row.name); });
        else
            w.atCall(row.op, 1, [&](Call const&) -> Reply { throw std::logic_error(row.name); });
        try {
            replaceFileWithBackup(w.ops, P, w.ops, N, options);
            ADD_FAILURE() << "expected a failure";
        } catch (Exception const& e) {
            ADD_FAILURE() << "wrapped: " << e.what();
        } catch (std::logic_error const& e) {
            EXPECT_STREQ(e.what(), row.name);
        }
        EXPECT_EQ(w.files.at(P).content, row.content);
        EXPECT_EQ(w.files.at(P).perms, row.perms);
        EXPECT_EQ(w.files.count(Tmp), 0u);
        EXPECT_EQ(w.ops.count(Op::Copy), row.copies);
    }
}

} // namespace
} // namespace opc::test
