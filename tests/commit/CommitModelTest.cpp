// The commit over a model back end (a file table behind the scripted double): the files,
// permissions and backups it leaves, and the message and code of every way it can fail.

#include "support/ThroughOps.hpp"

#include <opc/Commit.hpp>
#include <opc/Exception.hpp>
#include <opc/testing/FaultInjectingOps.hpp>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <sstream>
#include <stdexcept>

namespace opc::test {
namespace {

namespace errc = boost::system::errc;
using boost::posix_time::ptime;
using opc::testing::Call;
using ::testing::ElementsAre;
using ::testing::IsEmpty;

const std::u16string P = u"/d/p.pkg", N = u"/s/new.pkg", Tmp = u"/d/.t1.tmp";
const ptime OldTime(boost::gregorian::date(2001, 2, 3)), CopyTime(boost::gregorian::date(2030, 1, 1));

struct MemFile {
    std::string content;
    std::uint32_t perms = 0x1A4;
    ptime mtime = OldTime;
};

boost::system::error_code code(errc::errc_t e) { return errc::make_error_code(e); }

// A file table behind the public double's answer hook. Files behave as on a host: a copy
// carries content and permissions, and is refused over a file without the owner's write bit.
// The n-th call of an operation can be replaced by a fault, or every call of it; a fault may
// change the table, fail (detail "boom") or throw.
struct World : opc::testing::FaultInjectingOps {
    struct Reply {
        Result value;
        errc::errc_t failure = {};
    };
    using Fault = std::function<Reply(Call const&)>;
    std::map<std::u16string, MemFile> files;
    std::u16string parent = u"/d";
    std::map<std::pair<std::string, std::size_t>, Fault> faults;
    std::map<std::string, Fault> always;
    std::vector<std::uint32_t> setPerms; // every value handed to setPermissions

    World() { files[N] = {"new", 0x1A4}; }
    std::optional<Result> answer(Call const& c, std::string& detail, error_code& ec) override {
        Reply const r = dispatch(c);
        if (r.failure)
            detail = "boom", ec = code(r.failure);
        return r.value;
    }
    Reply dispatch(Call const& c) {
        if (c.operation == "setPermissions")
            setPerms.push_back(static_cast<std::uint32_t>(c.value));
        if (auto f = faults.find({c.operation, callCount(c.operation)}); f != faults.end())
            return f->second(c);
        if (auto f = always.find(c.operation); f != always.end())
            return f->second(c);
        return apply(c);
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
    // Commits N over `target`; returns the failure's message ("" for none) and checks its code.
    std::string commit(CommitOptions const& options, errc::errc_t expected = {}, std::u16string target = P) {
        auto const [message, ec] = thrown([&] { opc::replaceFileWithBackup(*this, target, *this, N, options); });
        EXPECT_TRUE(message.empty() || (ec == code(expected) && &ec.category() == &boost::system::generic_category()))
            << ec.message();
        return message;
    }
};
using Fault = World::Fault;
Fault failing(errc::errc_t e) {
    return [e](Call const&) { return World::Reply{{}, e}; };
}
Fault throwing() {
    return [](Call const&) -> World::Reply { throw std::logic_error("foreign"); };
}

std::string wrapped(std::string const& inner, errc::errc_t e) {
    return "Could not commit changes:  " + inner + " " + code(e).message();
}

CommitOptions withBackup(bool backup, std::vector<std::u16string>* announced = nullptr) {
    CommitOptions o;
    o.removeBackup(!backup);
    if (announced)
        o.backupCreatedFcn([announced](std::u16string const& b) { announced->push_back(b); });
    return o;
}

// A successful commit: the new content with the old package's bits (0x11A4 for a first
// package), a backup only when asked for and a target existed, with the old content and time.
TEST(CommitModel, SuccessLeavesTheNewPackageAndTheAskedForBackup) {
    for (bool exists : {false, true})
        for (bool backup : {false, true}) {
            SCOPED_TRACE(std::to_string(exists) + std::to_string(backup));
            World w;
            if (exists)
                w.files[P] = {"old", 0x124};
            w.files[N].perms = 0x180;
            std::vector<std::u16string> announced;
            std::size_t filesWhenAnnounced = 0;
            CommitOptions options = withBackup(backup);
            options.backupCreatedFcn([&](std::u16string const& b) {
                announced.push_back(b);
                filesWhenAnnounced = w.files.size();
                EXPECT_EQ(w.files.at(P).content, "new") << "announced before the new package is in place";
                EXPECT_EQ(w.files.at(P).perms, 0x180u) << "announced after the final permissions";
            });
            EXPECT_EQ(w.commit(options), "");
            EXPECT_EQ(w.files.at(P).content, "new");
            EXPECT_EQ(w.files.at(P).perms, exists ? 0x1124u : 0x11A4u);
            EXPECT_EQ(w.files.at(N).content, "new");
            bool const kept = exists && backup;
            EXPECT_EQ(w.files.size(), kept ? 3u : 2u);
            if (kept) {
                EXPECT_THAT(announced, ElementsAre(P + u".bak"));
                EXPECT_EQ(filesWhenAnnounced, 3u);
                EXPECT_EQ(w.files.at(P + u".bak").content, "old");
                EXPECT_EQ(w.files.at(P + u".bak").mtime, OldTime);
                EXPECT_EQ(w.files.at(P + u".bak").perms, 0x124u);
            } else {
                EXPECT_THAT(announced, IsEmpty());
            }
        }
}

TEST(CommitModel, PathWithoutFolderUsesDotTmpBesideIt) {
    World w;
    w.parent.clear();
    w.files[u"p.pkg"] = {"old"};
    EXPECT_EQ(w.commit(CommitOptions(), {}, u"p.pkg"), "");
    EXPECT_EQ(w.callCount("getTempName"), 0u);
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
        for (int i = r.from; i <= r.to; ++i)
            w.faults[{r.op, i}] = failing(errc::io_error);
        std::vector<std::u16string> announced;
        CommitOptions options = withBackup(true, &announced);
        options.backupExtension(r.extension);
        EXPECT_EQ(w.commit(options), "");
        EXPECT_THAT(announced, ElementsAre(P + r.used));
        EXPECT_EQ(w.files.at(P + r.used).content, "old");
        std::vector<std::u16string> asked;
        for (Call const& c : w.calls())
            if (c.operation == "exists" && c.paths[0] != P)
                asked.push_back(c.paths[0].substr(P.size()));
        EXPECT_EQ(asked.back(), r.used);
        for (std::size_t i = 1; i < asked.size(); ++i)
            EXPECT_EQ(asked[i], r.extension + char16_t(u'1' + i));
    }
}

// The values handed to setPermissions: 0x1000 or-ed into what is read, 0x8000 never set, 0x4000
// cleared while writable; an unreadable target is asked for 0x3FFF; a backup that came out with
// other bits gets the old package's, or 0x7FFF when those cannot be read.
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
            w.faults[r.failedRead] = [&w](Call const& c) { return w.files[c.paths[1]] = {"old", 0x1FF}, World::Reply{}; };
        else if (r.failedRead.second)
            w.faults[r.failedRead] = failing(errc::io_error);
        EXPECT_EQ(w.commit(withBackup(r.backup)), "");
        EXPECT_EQ(w.setPerms, r.set);
    }
}

// Each row breaks the world in one way: the message and code reported, and what stays.
struct FailureRow {
    char const* name;
    std::uint32_t targetPerms; // 0: no target
    bool backup;
    std::vector<std::pair<std::pair<std::string, std::size_t>, Fault>> faults;
    std::string inner; // empty: the failure is ignored
    errc::errc_t code;
    std::string after; // content at P, empty when missing
    std::uint32_t permsAfter;
    bool tempLeft;
    std::size_t backupsLeft; // ".bak", ".bak2"... holding the old content
};

std::string const ReadDenied = "Could not get attributes or permissions of existing package";
std::string const SetDenied = "Could not set attributes or permissions of new package";
Fault halfCopy(World& w) {
    return [&w](Call const& c) { return w.files[c.paths[1]] = {"ne"}, World::Reply{{}, errc::no_space_on_device}; };
}

TEST(CommitModel, FailureTable) {
    auto io = failing(errc::io_error);
    std::vector<std::function<FailureRow(World&)>> const rows = {
        [&](World&) { return FailureRow{"exists", 0x1A4, false, {{{"exists", 1}, failing(errc::permission_denied)}}, "exists failed: boom", errc::permission_denied, "old", 0x1A4, false, 0}; },
        [&](World&) { return FailureRow{"targetPerms", 0x1A4, true, {{{"getPermissions", 1}, io}}, ReadDenied, errc::permission_denied, "old", 0x1A4, false, 0}; },
        [&](World&) { return FailureRow{"targetPermsForeign", 0x1A4, false, {{{"getPermissions", 1}, throwing()}}, ReadDenied, errc::permission_denied, "old", 0x1A4, false, 0}; },
        [&](World&) {
            FailureRow r{"allBackups", 0x1A4, true, {}, "setLastModifiedTime failed: boom", errc::read_only_file_system, "old", 0x1A4, false, 5};
            for (int i = 1; i <= 5; ++i)
                r.faults.push_back({{"setLastModifiedTime", i}, failing(i == 5 ? errc::read_only_file_system : errc::io_error)});
            return r;
        },
        // No temporary name: the read-only target stays writable.
        [&](World&) { return FailureRow{"tempName", 0x124, false, {{{"getTempName", 1}, failing(errc::no_space_on_device)}}, "getTempName failed: boom", errc::no_space_on_device, "old", 0x11A4, false, 0}; },
        [&](World&) { return FailureRow{"parentPath", 0x124, false, {{{"getParentPath", 1}, io}}, "getParentPath failed: boom", errc::io_error, "old", 0x11A4, false, 0}; },
        // A failed copy of the new content: permissions restored, the partial temporary file left.
        [&](World& w) { return FailureRow{"copy", 0x124, true, {{{"copy", 2}, halfCopy(w)}}, "copy failed: boom", errc::no_space_on_device, "old", 0x1124, true, 1}; },
        // A failed restore does not hide the copy's failure.
        [&](World&) { return FailureRow{"copyAndRestore", 0x124, false, {{{"copy", 1}, failing(errc::no_space_on_device)}, {{"setPermissions", 2}, failing(errc::operation_not_permitted)}}, "copy failed: boom", errc::no_space_on_device, "old", 0x11A4, false, 0}; },
        // A failed rename: temporary file removed, permissions restored, backup kept.
        [&](World&) { return FailureRow{"rename", 0x124, true, {{{"rename", 1}, failing(errc::cross_device_link)}}, "rename failed: boom", errc::cross_device_link, "old", 0x1124, false, 1}; },
        [&](World&) { return FailureRow{"renameFirst", 0, false, {{{"rename", 1}, io}}, "rename failed: boom", errc::io_error, "", 0, false, 0}; },
        [&](World&) { return FailureRow{"renameAndCleanup", 0x1A4, false, {{{"rename", 1}, failing(errc::cross_device_link)}, {{"remove", 1}, io}}, "rename failed: boom", errc::cross_device_link, "old", 0x1A4, true, 0}; },
        // Final permissions refused on a package its owner cannot write: reported, package stays.
        [&](World& w) {
            w.always["setPermissions"] = io;
            Fault readOnlyCopy = [&w](Call const& c) { return w.files[c.paths[1]] = {"new", 0x124}, World::Reply{}; };
            return FailureRow{"finalNotWritable", 0x1A4, false, {{{"copy", 1}, readOnlyCopy}}, SetDenied, errc::permission_denied, "new", 0x124, false, 0};
        },
        // Refused while the owner can read and write (as the file came, or unreadable: 0xFFFF).
        [&](World&) { return FailureRow{"finalWritable", 0x124, false, {{{"setPermissions", 2}, failing(errc::operation_not_permitted)}}, "", {}, "new", 0x1A4, false, 0}; },
        [&](World&) { return FailureRow{"finalUnreadable", 0x124, false, {{{"getPermissions", 3}, io}, {{"setPermissions", 2}, io}}, "", {}, "new", 0x1A4, false, 0}; },
    };
    for (auto const& make : rows) {
        World w;
        FailureRow const r = make(w);
        SCOPED_TRACE(r.name);
        if (r.targetPerms)
            w.files[P] = {"old", r.targetPerms};
        for (auto const& [at, fault] : r.faults)
            w.faults[at] = fault;
        std::vector<std::u16string> announced;
        std::string const message = w.commit(withBackup(r.backup, &announced), r.code);
        EXPECT_EQ(message, r.inner.empty() ? "" : wrapped(r.inner, r.code));
        ASSERT_EQ(w.files.count(P), r.after.empty() ? 0u : 1u);
        if (!r.after.empty()) {
            EXPECT_EQ(w.files.at(P).content, r.after);
            EXPECT_EQ(w.files.at(P).perms, r.permsAfter);
        }
        EXPECT_EQ(w.files.count(Tmp), r.tempLeft ? 1u : 0u);
        std::u16string const names[] = {u".bak", u".bak2", u".bak3", u".bak4", u".bak5"};
        for (std::size_t i = 0; i < 5; ++i)
            EXPECT_EQ(w.files.count(P + names[i]) ? w.files.at(P + names[i]).content : "", i < r.backupsLeft ? "old" : "");
        EXPECT_THAT(announced, IsEmpty());
    }
}

// Foreign exceptions pass unchanged after the same clean-up; the library's own, from the
// callback, is wrapped with its code kept even when cleared.
TEST(CommitModel, ExceptionsFromCallbackAndBackEnd) {
    struct Row {
        std::string op; // the first call of `op` throws; the callback when it is "remove"
        bool backup;
        std::string content;
        std::uint32_t perms;
        std::size_t copies;
    };
    for (Row const& r : {Row{"remove", true, "new", 0x1A4, 2}, Row{"exists", false, "old", 0x124, 0},
                         Row{"copy", false, "old", 0x1124, 1}, Row{"rename", false, "old", 0x1124, 1},
                         Row{"copy", true, "old", 0x124, 1}, Row{"setLastModifiedTime", true, "old", 0x124, 1}}) {
        SCOPED_TRACE(r.op);
        World w;
        w.files[P] = {"old", 0x124};
        CommitOptions options = withBackup(r.backup);
        if (r.op == "remove")
            options.backupCreatedFcn([](std::u16string const&) { throw std::logic_error("foreign"); });
        else
            w.faults[{r.op, 1}] = throwing();
        EXPECT_THROW(replaceFileWithBackup(w, P, w, N, options), std::logic_error);
        EXPECT_EQ(w.files.at(P).content, r.content);
        EXPECT_EQ(w.files.at(P).perms, r.perms);
        EXPECT_EQ(w.files.count(Tmp), 0u);
        EXPECT_EQ(w.callCount("copy"), r.copies);
    }
    for (auto const ec : {code(errc::operation_canceled), boost::system::error_code()}) {
        World w;
        w.files[P] = {"old", 0x124};
        CommitOptions options = withBackup(true);
        options.backupCreatedFcn([&](std::u16string const&) { throw Exception("callback says no", ec); });
        auto const [message, thrownCode] = thrown([&] { replaceFileWithBackup(w, P, w, N, options); });
        EXPECT_EQ(message, "Could not commit changes:  callback says no " + ec.message());
        EXPECT_TRUE(thrownCode == ec && &thrownCode.category() == &ec.category()) << thrownCode.message();
        EXPECT_EQ(w.files.at(P).content, "new");
        EXPECT_EQ(w.files.at(P + u".bak").content, "old");
    }
}

// The options are read again after the backup: turned on meanwhile, removeBackup removes the
// fresh backup, or when that fails puts it back in place of the new package.
TEST(CommitModel, OptionsAreReadTwice) {
    for (bool removalFails : {false, true}) {
        World w;
        w.files[P] = {"old"};
        std::vector<std::u16string> announced;
        CommitOptions options = withBackup(true, &announced);
        w.faults[{"setLastModifiedTime", 1}] = [&](Call const& c) {
            options.removeBackup(true);
            return w.apply(c);
        };
        if (removalFails)
            w.faults[{"remove", 1}] = failing(errc::device_or_resource_busy);
        std::string const message = w.commit(options, removalFails ? errc::device_or_resource_busy : errc::errc_t{});
        EXPECT_EQ(message, removalFails ? wrapped("remove failed: boom", errc::device_or_resource_busy) : "");
        EXPECT_EQ(w.files.at(P).content, removalFails ? "old" : "new");
        EXPECT_EQ(w.files.count(P + u".bak"), 0u);
        EXPECT_THAT(announced, IsEmpty());
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
    target.always["createOutputStream"] = [&](Call const&) { return World::Reply{std::shared_ptr<std::ostream>(out)}; };
    target.always["rename"] = [&](Call const& c) { return target.files[c.paths[1]] = {out->str()}, World::Reply{}; };
    replaceFileWithBackup(target, P, source, N, CommitOptions());
    EXPECT_EQ(target.files.at(P).content, payload + "end");
    ASSERT_EQ(source.callCount(), 1u);
    EXPECT_EQ(source.calls()[0].paths, std::vector<std::u16string>{N});
    EXPECT_EQ(source.calls()[0].value, OpenMode::ReadBinary);
    EXPECT_EQ(target.callCount("copy"), 0u);
    for (Call const& c : target.calls())
        EXPECT_TRUE(c.operation != "createOutputStream" || (c.paths[0] == Tmp && c.value == OpenMode::WriteBinary));
    EXPECT_EQ(source.in.use_count(), 1);
    EXPECT_EQ(out.use_count(), 1);
    // A back end that reports success without a stream is reported, not dereferenced.
    for (char const* missing : {"createInputStream", "createOutputStream"}) {
        World again;
        again.files[P] = {"old"};
        source.in = std::string(missing) == "createInputStream" ? nullptr : std::make_shared<std::istringstream>("x");
        again.always["createOutputStream"] = [&](Call const&) { return World::Reply{}; };
        EXPECT_EQ(thrown([&] { replaceFileWithBackup(again, P, source, N, CommitOptions()); }),
                  std::pair(wrapped(std::string(missing) + " returned no stream", errc::io_error), code(errc::io_error)));
        EXPECT_EQ(again.files.at(P).content, "old");
    }
}

} // namespace
} // namespace opc::test
