// The commit over a model back end (a file table behind the scripted double): the files,
// permissions and backups it leaves, and the message and code of every way it can fail.

#include "support/ThroughOps.hpp"

#include <opc/Commit.hpp>
#include <opc/Exception.hpp>
#include <opc/testing/FaultInjectingOps.hpp>

#include <gtest/gtest.h>

#include <sstream>
#include <stdexcept>

namespace opc::test {
namespace {

namespace errc = boost::system::errc;
using boost::posix_time::ptime;
using opc::testing::Call;

const std::u16string P = u"/d/p.pkg", N = u"/s/new.pkg", Tmp = u"/d/.t1.tmp";
const ptime OldTime(boost::gregorian::date(2001, 2, 3)), CopyTime(boost::gregorian::date(2030, 1, 1));

struct MemFile {
    std::string content;
    std::uint32_t perms = 0x1A4;
    ptime mtime = OldTime;
};

boost::system::error_code code(errc::errc_t e) { return errc::make_error_code(e); }

// A file table behind the public double's answer hook. A copy carries content and permissions,
// and is refused over a file without the owner's write bit. The n-th call of an operation can
// be replaced by a fault, which may change the table, fail (detail "boom") or throw.
struct World : opc::testing::FaultInjectingOps {
    struct Reply {
        Result value;
        errc::errc_t failure = {};
    };
    using Fault = std::function<Reply(World&, Call const&)>;
    std::map<std::u16string, MemFile> files;
    std::u16string parent = u"/d";
    std::map<std::pair<std::string, std::size_t>, Fault> faults;
    std::vector<std::uint32_t> setPerms; // every value handed to setPermissions
    CommitOptions options;

    World() { files[N] = {"new", 0x180}; }
    std::optional<Result> answer(Call const& c, std::string& detail, error_code& ec) override {
        if (c.operation == "setPermissions")
            setPerms.push_back(static_cast<std::uint32_t>(c.value));
        auto fault = faults.find({c.operation, callCount(c.operation)});
        Reply const r = fault != faults.end() ? fault->second(*this, c) : apply(c);
        if (r.failure)
            detail = "boom", ec = code(r.failure);
        return r.value;
    }
    Reply apply(Call const& c) {
        auto it = files.find(c.paths.front());
        if (c.operation == "exists")
            return {it != files.end()};
        if (c.operation == "getParentPath" || c.operation == "getTempName")
            return {c.operation == "getTempName" ? Tmp : parent};
        if (it == files.end())
            return {{}, errc::no_such_file_or_directory};
        MemFile& f = it->second;
        if (c.operation == "getPermissions")
            return {static_cast<Perms::Perms_tag>(f.perms)};
        if (c.operation == "getLastModifiedTime")
            return {f.mtime};
        if (c.operation == "setPermissions")
            f.perms = static_cast<std::uint32_t>(c.value);
        else if (c.operation == "setLastModifiedTime")
            f.mtime = c.time;
        else if (c.operation == "copy") {
            if (auto to = files.find(c.paths[1]); to != files.end() && !(to->second.perms & 0x80))
                return {{}, errc::permission_denied}; // no copy over a file its owner may not write
            files[c.paths[1]] = {f.content, f.perms, CopyTime};
        } else if (c.operation == "rename")
            files[c.paths[1]] = f, files.erase(c.paths[0]);
        else if (c.operation == "remove")
            files.erase(it);
        return {};
    }
    // Commits N over `target`: the failure's message ("" for none), its code checked.
    std::string commit(boost::system::error_code expected = {}, std::u16string target = P) {
        auto const [message, ec] = thrown([&] { opc::replaceFileWithBackup(*this, target, *this, N, options); });
        EXPECT_TRUE(message.empty() || (ec == expected && &ec.category() == &expected.category())) << ec.message();
        return message;
    }
};
using Fault = World::Fault;
Fault failing(errc::errc_t e) {
    return [e](World&, Call const&) { return World::Reply{{}, e}; };
}
Fault const throwing = [](World&, Call const&) -> World::Reply { throw std::logic_error("foreign"); };

std::string wrapped(std::string const& inner, boost::system::error_code const& ec) {
    return "Could not commit changes:  " + inner + " " + ec.message();
}

TEST(CommitModel, PathWithoutFolderUsesDotTmpBesideIt) {
    World w;
    w.parent.clear();
    w.files[u"p.pkg"] = {"old"};
    EXPECT_EQ(w.commit({}, u"p.pkg"), "");
    EXPECT_EQ(std::find_if(w.calls().begin(), w.calls().end(), [](Call const& c) { return c.operation == "rename"; })->paths[0], u"p.pkg.tmp");
    EXPECT_EQ(w.files.at(u"p.pkg").content, "new");
}

// Which backup name is used when the first attempts fail at an operation: the existence test,
// the copy and the two time calls fail an attempt, the permission steps only by leaving the
// read-only stale backup that the copy is then refused over.
TEST(CommitModel, BackupNamesAreTriedInTurnAfterFailedAttempts) {
    struct Row {
        std::string op;
        int from, to; // calls of `op` that fail, counted over all paths
        std::u16string extension, used;
    };
    Row const rows[] = {{"exists", 0, -1, u".bak", u".bak"}, {"exists", 2, 2, u".bak", u".bak2"}, {"copy", 1, 2, u".bak", u".bak3"}, {"getLastModifiedTime", 1, 3, u".bak", u".bak4"}, {"setLastModifiedTime", 1, 4, u".bak", u".bak5"}, {"copy", 1, 4, u".old~", u".old~5"}, {"getPermissions", 2, 4, u".bak", u".bak2"}, {"setPermissions", 1, 1, u".bak", u".bak2"}};
    for (Row const& r : rows) {
        SCOPED_TRACE(r.op + " " + std::to_string(r.to));
        World w;
        w.files[P] = {"old", 0x124};
        w.files[P + r.extension] = {"stale", 0x124}; // read-only: made writable before the copy
        for (int i = r.from; i <= r.to; ++i) w.faults[{r.op, i}] = failing(errc::io_error);
        std::vector<std::u16string> announced;
        w.options.removeBackup(false);
        w.options.backupExtension(r.extension);
        w.options.backupCreatedFcn([&](std::u16string const& b) { announced.push_back(b); });
        EXPECT_EQ(w.commit(), "");
        EXPECT_EQ(announced, std::vector{P + r.used});
        EXPECT_EQ(w.files.at(P + r.used).content, "old");
    }
}

// The values handed to setPermissions, for a target read as it is, unreadable, or with a backup
// that came out with other bits than the old package's, readable or not.
TEST(CommitModel, PermissionValuesHandedToTheBackEnd) {
    struct Row {
        std::uint32_t target, newFile;
        bool backup;
        std::pair<std::string, std::size_t> failedRead;
        std::vector<std::uint32_t> set;
    };
    Row const rows[] = {{0x1A4, 0x1A4, false, {}, {}},
                        {0x11A4, 0x1A4, false, {}, {}},
                        {0x1A4, 0x180, false, {}, {0x11A4}},
                        {0x124, 0x1A4, false, {}, {0x11A4, 0x1124}},
                        {0x41A4, 0x1A4, false, {}, {0x11A4, 0x51A4}},
                        {0x8124, 0x124, false, {}, {0x11A4, 0x1124}},
                        {0x124, 0x180, false, {"getPermissions", 2}, {0x3FFF, 0x1124}},
                        {0x8124, 0x1A4, true, {"copy", 1}, {0x1124, 0x11A4, 0x1124}},
                        {0x124, 0x1A4, true, {"getPermissions", 3}, {0x7FFF, 0x11A4, 0x1124}}};
    for (Row const& r : rows) {
        SCOPED_TRACE(r.target);
        World w;
        w.files[P] = {"old", r.target};
        w.files[N].perms = r.newFile;
        if (r.failedRead.first == "copy") // the backup copy comes out with all bits set
            w.faults[r.failedRead] = [](World& w, Call const& c) { return w.files[c.paths[1]] = {"old", 0x1FF}, World::Reply{}; };
        else if (r.failedRead.second)
            w.faults[r.failedRead] = failing(errc::io_error);
        w.options.removeBackup(!r.backup);
        EXPECT_EQ(w.commit(), "");
        EXPECT_EQ(w.setPerms, r.set);
    }
}

// Each row commits over a world set up, and maybe broken, in one way: the message and code
// reported, the files left, and the backup announced once the new package is in place (when
// the commit succeeds, or its callback throws). "foreign": a std::logic_error passes unchanged.
struct Row {
    char const* name;
    std::uint32_t targetPerms; // 0: no target
    bool backup;
    std::vector<std::pair<std::pair<std::string, std::size_t>, Fault>> faults;
    std::string inner; // empty: success, or the failure is ignored
    boost::system::error_code code;
    std::string after; // content at P, empty when missing
    std::uint32_t permsAfter;
    bool tempLeft;
    std::size_t backupsLeft; // ".bak", ".bak2"... holding the old content
    std::function<void()> callback = {};
};

std::string const ReadDenied = "Could not get attributes or permissions of existing package";
std::string const SetDenied = "Could not set attributes or permissions of new package";
Fault const halfCopy = [](World& w, Call const& c) { return w.files[c.paths[1]] = {"ne"}, World::Reply{{}, errc::no_space_on_device}; };
Fault copyWithPerms(std::uint32_t perms) {
    return [perms](World& w, Call const& c) { return w.files[c.paths[1]] = {"new", perms}, World::Reply{}; };
}
// The options change their mind once the backup is made: it is removed again after the rename.
Fault const removeBackupNow = [](World& w, Call const& c) {
    w.options.removeBackup(true);
    return w.apply(c);
};

TEST(CommitModel, OutcomeTable) {
    auto const io = failing(errc::io_error);
    auto const denied = code(errc::permission_denied), none = boost::system::error_code();
    Row const rows[] = {
        // A first package gets 0x11A4 and no backup whatever the options say.
        {"first", 0, false, {}, "", none, "new", 0x11A4, false, 0},
        {"firstBackup", 0, true, {}, "", none, "new", 0x11A4, false, 0},
        {"replace", 0x124, false, {}, "", none, "new", 0x1124, false, 0},
        {"replaceBackup", 0x124, true, {}, "", none, "new", 0x1124, false, 1},
        {"exists", 0x1A4, false, {{{"exists", 1}, failing(errc::permission_denied)}}, "exists failed: boom", denied, "old", 0x1A4, false, 0},
        {"targetPerms", 0x1A4, true, {{{"getPermissions", 1}, io}}, ReadDenied, denied, "old", 0x1A4, false, 0},
        {"targetPermsForeign", 0x1A4, false, {{{"getPermissions", 1}, throwing}}, ReadDenied, denied, "old", 0x1A4, false, 0},
        // Every backup name fails: the last attempt's failure is reported.
        {"allBackups", 0x1A4, true, {{{"setLastModifiedTime", 1}, io}, {{"setLastModifiedTime", 2}, io}, {{"setLastModifiedTime", 3}, io}, {{"setLastModifiedTime", 4}, io}, {{"setLastModifiedTime", 5}, failing(errc::read_only_file_system)}}, "setLastModifiedTime failed: boom", code(errc::read_only_file_system), "old", 0x1A4, false, 5},
        // No temporary name: the read-only target stays writable.
        {"tempName", 0x124, false, {{{"getTempName", 1}, failing(errc::no_space_on_device)}}, "getTempName failed: boom", code(errc::no_space_on_device), "old", 0x11A4, false, 0},
        {"parentPath", 0x124, false, {{{"getParentPath", 1}, io}}, "getParentPath failed: boom", code(errc::io_error), "old", 0x11A4, false, 0},
        // A failed copy of the new content: permissions restored, the partial temporary file left.
        {"copy", 0x124, true, {{{"copy", 2}, halfCopy}}, "copy failed: boom", code(errc::no_space_on_device), "old", 0x1124, true, 1},
        // A failed restore does not hide the copy's failure.
        {"copyAndRestore", 0x124, false, {{{"copy", 1}, failing(errc::no_space_on_device)}, {{"setPermissions", 2}, failing(errc::operation_not_permitted)}}, "copy failed: boom", code(errc::no_space_on_device), "old", 0x11A4, false, 0},
        // A failed rename: temporary file removed, permissions restored, backup kept.
        {"rename", 0x124, true, {{{"rename", 1}, failing(errc::cross_device_link)}}, "rename failed: boom", code(errc::cross_device_link), "old", 0x1124, false, 1},
        {"renameFirst", 0, false, {{{"rename", 1}, io}}, "rename failed: boom", code(errc::io_error), "", 0, false, 0},
        {"renameAndCleanup", 0x1A4, false, {{{"rename", 1}, failing(errc::cross_device_link)}, {{"remove", 1}, io}}, "rename failed: boom", code(errc::cross_device_link), "old", 0x1A4, true, 0},
        // Final permissions refused on a package its owner cannot read and write: reported, package stays.
        {"finalNotWritable", 0x1A4, false, {{{"copy", 1}, copyWithPerms(0x124)}, {{"setPermissions", 1}, io}}, SetDenied, denied, "new", 0x124, false, 0},
        {"finalNotReadable", 0x1A4, false, {{{"copy", 1}, copyWithPerms(0x0A4)}, {{"setPermissions", 1}, io}}, SetDenied, denied, "new", 0x0A4, false, 0},
        // Refused while the owner can read and write (as the file came, or unreadable: 0xFFFF).
        {"finalWritable", 0x124, false, {{{"setPermissions", 2}, failing(errc::operation_not_permitted)}}, "", none, "new", 0x180, false, 0},
        {"finalUnreadable", 0x124, false, {{{"getPermissions", 3}, io}, {{"setPermissions", 2}, io}}, "", none, "new", 0x180, false, 0},
        // Foreign exceptions pass after the same clean-up, and end the backup attempts at once.
        {"existsForeign", 0x124, false, {{{"exists", 1}, throwing}}, "foreign", none, "old", 0x124, false, 0},
        {"copyForeign", 0x124, false, {{{"copy", 1}, throwing}}, "foreign", none, "old", 0x1124, false, 0},
        {"renameForeign", 0x124, false, {{{"rename", 1}, throwing}}, "foreign", none, "old", 0x1124, false, 0},
        {"backupCopyForeign", 0x124, true, {{{"copy", 1}, throwing}}, "foreign", none, "old", 0x124, false, 0},
        {"backupTimeForeign", 0x124, true, {{{"setLastModifiedTime", 1}, throwing}}, "foreign", none, "old", 0x124, false, 1},
        // From the callback: foreign ones pass, the library's own are wrapped with their code kept even when cleared.
        {"callbackForeign", 0x124, true, {}, "foreign", none, "new", 0x180, false, 1, [] { throw std::logic_error("foreign"); }},
        {"callbackCode", 0x124, true, {}, "callback says no", code(errc::operation_canceled), "new", 0x180, false, 1, [] { throw Exception("callback says no", code(errc::operation_canceled)); }},
        {"callbackCleared", 0x124, true, {}, "callback says no", none, "new", 0x180, false, 1, [] { throw Exception("callback says no", boost::system::error_code()); }},
        // Options read again after the backup; a backup that cannot be removed replaces the new package.
        {"removeBackupLater", 0x1A4, true, {{{"setLastModifiedTime", 1}, removeBackupNow}}, "", none, "new", 0x11A4, false, 0},
        {"removeBackupFails", 0x1A4, true, {{{"setLastModifiedTime", 1}, removeBackupNow}, {{"remove", 1}, failing(errc::device_or_resource_busy)}}, "remove failed: boom", code(errc::device_or_resource_busy), "old", 0x1A4, false, 0},
    };
    for (Row const& r : rows) {
        World w;
        SCOPED_TRACE(r.name);
        if (r.targetPerms)
            w.files[P] = {"old", r.targetPerms};
        for (auto const& [at, fault] : r.faults) w.faults[at] = fault;
        std::vector<std::u16string> announced;
        w.options.removeBackup(!r.backup);
        w.options.backupCreatedFcn([&](std::u16string const& b) {
            announced.push_back(b);
            EXPECT_EQ(w.files.at(P).content, "new") << "announced before the new package is in place";
            EXPECT_EQ(w.files.at(P).perms, 0x180u) << "announced before the final permissions";
            if (r.callback)
                r.callback();
        });
        std::string message;
        try {
            message = w.commit(r.code);
        } catch (std::logic_error const& e) {
            message = e.what();
        }
        EXPECT_EQ(message, r.inner.empty() || r.inner == "foreign" ? r.inner : wrapped(r.inner, r.code));
        ASSERT_EQ(w.files.count(P), r.after.empty() ? 0u : 1u);
        if (!r.after.empty()) {
            EXPECT_EQ(w.files.at(P).content, r.after);
            EXPECT_EQ(w.files.at(P).perms, r.permsAfter);
        }
        EXPECT_EQ(w.files.count(Tmp), r.tempLeft ? 1u : 0u);
        std::u16string const names[] = {u".bak", u".bak2", u".bak3", u".bak4", u".bak5"};
        for (std::size_t i = 0; i < 5; ++i)
            EXPECT_EQ(w.files.count(P + names[i]) ? w.files.at(P + names[i]).content : "", i < r.backupsLeft ? "old" : "");
        EXPECT_EQ(w.files.size(), 1 + w.files.count(P) + r.tempLeft + r.backupsLeft) << "stray files";
        bool const announces = r.backupsLeft && (message.empty() || r.callback);
        EXPECT_EQ(announced, announces ? std::vector{P + u".bak"} : std::vector<std::u16string>{});
        if (announces) {
            EXPECT_EQ(w.files.at(P + u".bak").mtime, OldTime);
            EXPECT_EQ(w.files.at(P + u".bak").perms, r.targetPerms);
        }
    }
}

// Back ends of different dynamic types exchange bytes through streams opened in binary modes,
// and let go of them.
TEST(CommitModel, AcrossBackEndTypesTheContentIsStreamed) {
    struct Source : opc::testing::FaultInjectingOps {
        std::shared_ptr<std::istream> in;
        std::optional<Result> answer(Call const&, std::string&, error_code&) override { return in; }
    } source;
    World target;
    std::string const payload(40000, 'x');
    auto out = std::make_shared<std::ostringstream>();
    source.in = std::make_shared<std::istringstream>(payload + "end");
    target.faults[{"createOutputStream", 1}] = [&](World&, Call const&) { return World::Reply{std::shared_ptr<std::ostream>(out)}; };
    target.faults[{"rename", 1}] = [&](World& w, Call const& c) { return w.files[c.paths[1]] = {out->str()}, World::Reply{}; };
    replaceFileWithBackup(target, P, source, N, CommitOptions());
    EXPECT_EQ(target.files.at(P).content, payload + "end");
    ASSERT_EQ(source.callCount(), 1u);
    EXPECT_EQ(source.calls()[0].paths, std::vector<std::u16string>{N});
    EXPECT_EQ(source.calls()[0].value, OpenMode::ReadBinary);
    for (Call const& c : target.calls())
        EXPECT_TRUE(c.operation != "createOutputStream" || (c.paths[0] == Tmp && c.value == OpenMode::WriteBinary));
    EXPECT_EQ(source.in.use_count(), 1);
    EXPECT_EQ(out.use_count(), 1);
    // A back end that reports success without a stream is reported, not dereferenced.
    for (char const* missing : {"createInputStream", "createOutputStream"}) {
        World again;
        again.files[P] = {"old"};
        source.in = std::string(missing) == "createInputStream" ? nullptr : std::make_shared<std::istringstream>("x");
        again.faults[{"createOutputStream", 1}] = [](World&, Call const&) { return World::Reply{}; };
        EXPECT_EQ(thrown([&] { replaceFileWithBackup(again, P, source, N, CommitOptions()); }),
                  std::pair(wrapped(std::string(missing) + " returned no stream", code(errc::io_error)), code(errc::io_error)));
        EXPECT_EQ(again.files.at(P).content, "old");
    }
}

} // namespace
} // namespace opc::test
