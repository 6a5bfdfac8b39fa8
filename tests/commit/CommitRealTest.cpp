// The commit over real back ends: the files it leaves, after a fault at every call of the target
// back end, a full disk, every failing system call under strace, and random kills; and the flush
// order. The target always holds the old package or the new one, whole; the old after a failure.

#include "support/HostFolder.hpp"
#include "support/ThroughOps.hpp"

#include <opc/Commit.hpp>
#include <opc/Exception.hpp>
#include <opc/LocalFileSystemOps.hpp>
#include <opc/VirtualFileSystemOps.hpp>
#include <opc/testing/FaultInjectingOps.hpp>

#include <gtest/gtest.h>

#include <sched.h>
#include <signal.h>
#include <sys/mount.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <sys/xattr.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <random>
#include <set>
#include <sstream>

namespace opc::test {
namespace {

namespace fs = std::filesystem;
namespace errc = boost::system::errc;

// Where the source is read from and the target written to: the host through the local back end,
// memory storage (the source's bytes copied there first), or the host through a file IRI.
enum Kind { Local,
            Memory,
            File };
char const* const KindNames[] = {"Local", "Memory", "File"};
struct Pair {
    Kind from, to;
    bool backup = false; // kept, where the case says
};
std::string pairName(Pair p) { return std::string(KindNames[p.from]) + "To" + KindNames[p.to] + (p.backup ? "Backup" : ""); }

std::u16string pathIn(Kind kind, std::string const& file) {
    return kind == Local ? u16(file) : kind == File ? u16("file://" + file)
                                                    : u"memory:///" + u16(fs::path(file).filename());
}

std::set<std::string> names(FileSystemOps& ops, std::u16string const& folder) {
    std::vector<std::u16string> files;
    ops.getFiles(folder, files, false);
    std::set<std::string> out;
    for (auto const& f : files)
        out.insert(std::string(f.begin() + static_cast<long>(f.rfind(u'/') + 1), f.end()));
    return out;
}

struct BackEnds {
    stratum::storage::vfs::StorageSystemReference storage;
    LocalFileSystemOps local;
    VirtualFileSystemOps virtualOps{storage};
    FileSystemOps& ops(Kind k) { return k == Local ? static_cast<FileSystemOps&>(local) : virtualOps; }
};

void commitBetween(Kind from, Kind to, std::string const& target, std::string const& source, bool backup = false) {
    BackEnds b;
    if (from == Memory)
        writeThrough(b.ops(Memory), pathIn(Memory, source), readFile(source));
    CommitOptions options;
    options.removeBackup(!backup);
    replaceFileWithBackup(b.ops(to), pathIn(to, target), b.ops(from), pathIn(from, source), options);
}

class RealCommit : public ::testing::Test, protected BackEnds {
protected:
    HostFolder root;
    std::string const dir = root.path().string() + "/t", target = dir + "/p.pkg", source = root.path().string() + "/new.pkg";
    std::string const oldContent = pattern(70000, 1), newContent = pattern(50000, 2);
    std::vector<std::u16string> announced;
    CommitOptions options;

    void SetUp() override {
        fs::create_directories(dir);
        writeFile(source, newContent, 0600);
        options.backupCreatedFcn([this](std::u16string const& b) { announced.push_back(b); });
    }
    std::u16string folder(Kind k) const { return pathIn(k, dir); }
    // A file's content by name, read through the real back end, so a failure never prints kilobytes.
    std::string contentOf(Kind k, std::u16string const& path) {
        std::string const text = readThrough(ops(k), path);
        return text == oldContent ? "old" : text == newContent ? "new"
                                                               : text.substr(0, 40);
    }
    int modeOf(Kind k) {
        return k == Memory ? int(virtualOps.getPermissions(folder(k) + u"/p.pkg") & 07777) : test::modeOf(target);
    }
};

ino_t inode(std::string const& path, nlink_t links = 1) {
    struct stat st = {};
    return ::lstat(path.c_str(), &st) == 0 && st.st_nlink == links ? st.st_ino : 0;
}

// A first package gets 0644 and no backup; a stale read-only backup is replaced by the old
// package itself (its one link, with its content, time and mode, also when the commit made it
// writable), or by a copy when the old package has two links; a link planted at a backup name
// is never written through (that attempt fails and the next name is used). The source stays.
TEST_F(RealCommit, BackupOverwritesAStaleOneAndNeverFollowsALink) {
    options.removeBackup(false);
    replaceFileWithBackup(local, u16(target), local, u16(source), options);
    EXPECT_EQ(readFile(target) + readFile(source), newContent + newContent);
    EXPECT_EQ(test::modeOf(target), 0644);
    writeFile(target, oldContent, 0440);
    writeFile(target + ".bak", "stale", 0444);
    fs::last_write_time(target, fs::last_write_time(target) - std::chrono::hours(1000));
    auto const oldTime = local.getLastModifiedTime(u16(target));
    ino_t const old = inode(target);
    replaceFileWithBackup(local, u16(target), local, u16(source), options);
    EXPECT_EQ(readFile(target + ".bak"), oldContent);
    EXPECT_EQ(test::modeOf(target + ".bak") * 010000 + test::modeOf(target), 0440 * 010000 + 0440);
    EXPECT_EQ(local.getLastModifiedTime(u16(target + ".bak")), oldTime);
    EXPECT_TRUE(old != 0 && inode(target + ".bak") == old && inode(target) != 0);
    fs::create_hard_link(target, root.path() / "second");
    ino_t const twice = inode(target, 2);
    replaceFileWithBackup(local, u16(target), local, u16(source), options);
    EXPECT_TRUE(twice != 0 && inode(target + ".bak") != twice && inode(root.path().string() + "/second") == twice);
    EXPECT_EQ(readFile(target + ".bak"), newContent);

    std::string const victim = root.path().string() + "/victim";
    writeFile(victim, "precious", 0644);
    fs::remove(target + ".bak");
    fs::create_symlink(victim, target + ".bak");
    replaceFileWithBackup(local, u16(target), local, u16(source), options);
    EXPECT_EQ(readFile(victim), "precious");
    EXPECT_EQ(fs::read_symlink(target + ".bak").string(), victim);
    EXPECT_EQ(readFile(target + ".bak2"), newContent);
    EXPECT_EQ(announced, (std::vector{u16(target + ".bak"), u16(target + ".bak"), u16(target + ".bak2")}));
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

// The k-th call of the target back end fails, for every k until a run makes no k-th call; the
// calls before it are those of a fault-free run. A source of the target's type is copied by the
// target; of another type it is streamed across.
struct FaultCase {
    Kind target, source;
    bool backup;
    int mode;
};

class FaultInjection : public RealCommit, public ::testing::WithParamInterface<FaultCase> {};

TEST_P(FaultInjection, EveryFailureLeavesTheOldOrTheNewPackageWhole) {
    FaultCase const& c = GetParam();
    options.removeBackup(!c.backup);
    opc::testing::FaultInjectingOps faulty(ops(c.target));
    std::u16string const path = folder(c.target) + u"/p.pkg", from = pathIn(c.source, source);
    if (c.source == Memory)
        writeThrough(virtualOps, from, newContent);
    FileSystemOps& sourceOps = (c.source == Local) == (c.target == Local) ? static_cast<FileSystemOps&>(faulty) : ops(c.source);
    auto run = [&](std::size_t k) {
        boost::system::error_code ignored;
        ops(c.target).removeAll(folder(c.target), ignored);
        ops(c.target).createFolders(folder(c.target));
        writeThrough(ops(c.target), path, oldContent);
        if (c.target == Memory) // through storage only writable or read-only can be set
            virtualOps.setPermissions(path, Perms::Perms_tag(c.mode));
        else
            ASSERT_EQ(::chmod(target.c_str(), mode_t(c.mode)), 0);
        announced.clear();
        faulty.failCall(k, errc::make_error_code(errc::io_error));
        replaceFileWithBackup(faulty, path, sourceOps, from, options);
    };
    for (std::size_t k = 1;; ++k) {
        bool threw = false;
        try {
            run(k);
        } catch (Exception const&) { // its message and code: the model test and the full disk
            threw = true;
        }
        if (!faulty.fired()) {
            EXPECT_FALSE(threw);
            EXPECT_EQ(contentOf(c.target, path), "new");
            EXPECT_EQ(modeOf(c.target), c.mode);
            break;
        }
        ASSERT_LT(k, 200u) << "the commit never stops calling";
        auto const& log = faulty.calls();
        std::string const failed = log[k - 1].operation;
        SCOPED_TRACE("failing call " + std::to_string(k) + ": " + failed);
        // Ignored faults, and those a further backup name gets round, end in a whole commit.
        bool const afterRename = std::any_of(log.begin(), log.begin() + long(k) - 1, [](auto const& call) { return call.operation == "rename"; });
        bool const replaced = !threw || afterRename;
        EXPECT_EQ(contentOf(c.target, path), replaced ? "new" : "old");
        int const mode = modeOf(c.target);
        // A refused final mode leaves the new package no wider than the old one; a read-only
        // target made writable gets its mode back even when no temporary name comes.
        bool const refused = afterRename && failed == "setPermissions";
        EXPECT_EQ(mode, refused ? mode & c.mode : c.mode);
        // Faults strike before the inner call and a failed rename removes its temporary file.
        // ... and a backup never shares its file with the package.
        for (auto const& name : names(ops(c.target), folder(c.target)))
            EXPECT_TRUE((name == "p.pkg" || name.rfind("p.pkg.bak", 0) == 0) && (c.target == Memory || inode(dir + "/" + name))) << name;
        if (c.backup && replaced) {
            ASSERT_EQ(announced.size(), threw ? 0u : 1u);
            EXPECT_TRUE(threw || contentOf(c.target, announced[0]) == "old");
        }
    }
}

// Every target kind from each source kind, with and without a backup, the modes taken in turn.
std::vector<FaultCase> faultCases() {
    std::vector<FaultCase> cases;
    int const modes[] = {0644, 0444, 0640, 0600};
    for (Kind target : {Local, File, Memory})
        for (Kind source : {Local, Memory})
            for (bool backup : {false, true})
                cases.push_back({target, source, backup, modes[cases.size() % (target == Memory ? 2 : 4)]});
    return cases;
}

INSTANTIATE_TEST_SUITE_P(Commit, FaultInjection, ::testing::ValuesIn(faultCases()), [](auto const& info) {
    FaultCase const& c = info.param;
    return pairName({c.source, c.target}) + (c.backup ? "Backup" : "") + (c.mode == 0444 ? "ReadOnly" : "");
});

// The storage fills up: RLIMIT_FSIZE for anyone, a 512 KiB tmpfs in a private mount namespace as
// root. The commit throws with the storage's code and leaves the old package byte for byte with
// its mode; beside it only backups (no partial temporary file holding the space), nothing new around it.
using DiskCase = std::tuple<Pair, bool, bool>; // and whether on a tmpfs, and with a backup

std::string commitOnFullDisk(DiskCase const& c, std::string const& root) {
    auto const [pair, tmpfs, backup] = c;
    std::string const dir = root + "/target", target = dir + "/p.pkg", source = root + "/new.pkg";
    fs::create_directories(dir);
    if (tmpfs && (::unshare(CLONE_NEWNS) != 0 || ::mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0))
        return "no private mount";
    if (tmpfs && ::mount("tmpfs", dir.c_str(), "tmpfs", 0, "size=512k") != 0)
        return std::string("mount: ") + std::strerror(errno);
    std::string const oldContent = pattern(100 * 1024, 7);
    writeFile(target, oldContent, 0640);
    writeFile(source, pattern(900 * 1024, 8), 0644);
    LocalFileSystemOps local;
    std::set<std::string> const before = names(local, u16(root));
    struct rlimit const limit = {64 * 1024, 64 * 1024};
    if (!tmpfs && (::signal(SIGXFSZ, SIG_IGN) == SIG_ERR || ::setrlimit(RLIMIT_FSIZE, &limit) != 0))
        return "setrlimit failed";
    std::ostringstream wrong;
    try {
        commitBetween(pair.from, pair.to, target, source, backup);
        wrong << "the commit returned normally; ";
    } catch (Exception const& e) {
        if (std::string(e.what()).rfind("Could not commit changes:  ", 0) != 0 || e.code().value() != (tmpfs ? ENOSPC : EFBIG))
            wrong << "'" << e.what() << "' code " << e.code().value() << "; ";
    }
    if (readFile(target) != oldContent || modeOf(target) != 0640)
        wrong << "the target changed: " << readFile(target).size() << " bytes, mode " << std::oct << modeOf(target) << "; ";
    for (auto const& name : names(local, u16(dir)))
        if (name != "p.pkg" && name.rfind("p.pkg.bak", 0) != 0)
            wrong << "left behind: " << name << "; ";
    if (names(local, u16(root)) != before)
        wrong << "the folder around the target changed; ";
    return wrong.str();
}

class CommitDiskFull : public ::testing::TestWithParam<DiskCase> {};

TEST_P(CommitDiskFull, FailsAndLeavesTheOldPackageWhole) {
    if (std::get<1>(GetParam()) && ::geteuid() != 0)
        GTEST_SKIP() << "mounting a small tmpfs needs root; the file-size limit cases cover this user";
    HostFolder root;
    std::string const report = inChild([&] { return commitOnFullDisk(GetParam(), root.path().string()); });
    if (report == "no private mount")
        GTEST_SKIP() << "this machine refuses a private mount namespace";
    EXPECT_EQ(report, "");
}

auto const diskPairs = ::testing::Values(Pair{Local, Local}, Pair{Memory, Local}, Pair{File, Local}, Pair{Local, File}, Pair{Memory, File});
INSTANTIATE_TEST_SUITE_P(Pairs, CommitDiskFull, ::testing::Combine(diskPairs, ::testing::Bool(), ::testing::Bool()), [](auto const& info) {
    return pairName(std::get<0>(info.param)) + (std::get<1>(info.param) ? "Tmpfs" : "FileSize") + (std::get<2>(info.param) ? "Backup" : "");
});

// When this variable holds "<source kind> <target kind> <backup>\n<target>\n<source>", the test binary
// is the child run under strace: it commits once and exits before any test runs, with 0 after
// a commit, 3 after an opc::Exception (anything else ends it abnormally).
char const* const ChildVariable = "OPC_COMMIT_TRACED_CHILD";
struct TracedChild {
    TracedChild() {
        char const* const job = std::getenv(ChildVariable);
        std::istringstream lines(job ? job : "");
        int from = 0, to = 0;
        bool backup = false;
        std::string target, source;
        if (!(lines >> from >> to >> backup).ignore(1) || !std::getline(lines, target) || !std::getline(lines, source))
            return;
        try {
            commitBetween(Kind(from), Kind(to), target, source, backup);
        } catch (Exception const&) {
            std::_Exit(3);
        }
        std::_Exit(0);
    }
} const tracedChild;

TEST(CommitCrash, KilledCommitsLeaveTheOldOrTheNewPackageWhole) {
    HostFolder root;
    std::string const dir = root.path().string(), target = dir + "/p.pkg";
    std::string const contents[2] = {pattern(1 << 20, 3), pattern(1 << 20, 4)}, sources[2] = {dir + "/a", dir + "/b"};
    for (int i = 0; i < 2; ++i) writeFile(sources[i], contents[i]);
    writeFile(target, contents[0]);
    std::mt19937 random(20261123);
    for (int round = 0; round < 200; ++round) {
        ::fflush(nullptr);
        pid_t const child = ::fork();
        ASSERT_GE(child, 0);
        if (child == 0) { // the other package, then back, for ever, with a backup each time
            try {
                for (unsigned n = 1;; ++n)
                    commitBetween(Local, Local, target, sources[n % 2], true);
            } catch (...) {
            }
            std::_Exit(3);
        }
        ::usleep(static_cast<useconds_t>(random() % 40000));
        ::kill(child, SIGKILL);
        int status = 0;
        ASSERT_EQ(::waitpid(child, &status, 0), child);
        ASSERT_TRUE(WIFSIGNALED(status)) << "the committing child stopped by itself in round " << round;
        std::string const now = readFile(target); // leftover temporary files are allowed
        ASSERT_TRUE(now == contents[1] || now == contents[0]) << "round " << round << ": " << now.size() << " bytes";
        if (now == contents[1]) // each round starts from the first package, so a kill can show either
            writeFile(target, contents[0]);
    }
}

bool contains(std::string const& line, std::string const& piece) { return line.find(piece) != std::string::npos; }
bool succeeded(std::string const& line) { return line.size() >= 3 && line.compare(line.size() - 3, 3, "= 0") == 0; }

// What a save keeps beside the content: mode, group, a user attribute, the ACL (as stored).
struct Kept {
    int mode;
    gid_t group;
    std::string user, acl;
    bool operator==(Kept const& o) const { return mode == o.mode && group == o.group && user == o.user && acl == o.acl; }
};

Kept keptOf(std::string const& path) {
    struct stat st = {};
    std::string user(64, '\0'), acl(256, '\0');
    auto size = [](ssize_t n) { return std::size_t(std::max<ssize_t>(n, 0)); };
    user.resize(size(::getxattr(path.c_str(), "user.test", user.data(), user.size())));
    acl.resize(size(::getxattr(path.c_str(), "system.posix_acl_access", acl.data(), acl.size())));
    return {::lstat(path.c_str(), &st) == 0 ? int(st.st_mode & 07777) : -1, st.st_gid, user, acl};
}

// Never wider than before: no mode bit the old package lacked, no group bit for another group,
// and without the ACL no more for the group than the ACL's own group entry (read) gave it.
bool noWider(Kept const& now, Kept const& old) {
    int const group = now.group != old.group ? 0 : now.acl != old.acl ? 040 : 070;
    return (now.mode & ~old.mode) == 0 && (now.mode & 070 & ~group) == 0;
}

// Runs the traced child once under strace with `options`, tracing to `trace`.
class Traced : public RealCommit, public ::testing::WithParamInterface<Pair> {
protected:
    std::string const trace = root.path().string() + "/trace.txt";
    Kept old = {};
    ino_t oldInode = 0;

    void SetUp() override {
        if (std::system("strace -o /dev/null true >/dev/null 2>&1") != 0)
            GTEST_SKIP() << "strace is missing, or tracing is not permitted here";
        RealCommit::SetUp();
    }
    int commitUnder(std::string const& options, int mode = 0640) {
        // Beside its mode the old package has another group (when this user may give it), a user
        // attribute and an ACL entry.
        fs::remove(target);
        writeFile(target, oldContent, mode);
        if ((::geteuid() == 0 && ::chown(target.c_str(), uid_t(-1), 65534) != 0) || ::setxattr(target.c_str(), "user.test", "kept", 4, 0) != 0 ||
            std::system(("setfacl -m u:daemon:r '" + target + "'").c_str()) != 0)
            return -2;
        old = keptOf(target);
        oldInode = inode(target);
        std::string const job = std::to_string(GetParam().from) + " " + std::to_string(GetParam().to) + " " + std::to_string(GetParam().backup) + "\n" + target + "\n" + source;
        ::setenv(ChildVariable, job.c_str(), 1);
        std::string const command = "strace -f -y -qq " + options + " -o '" + trace + "' /proc/" + std::to_string(::getpid()) + "/exe >/dev/null 2>&1";
        int const status = std::system(command.c_str());
        ::unsetenv(ChildVariable);
        return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    }
    std::vector<std::string> traceLines() const {
        std::ifstream in(trace);
        std::vector<std::string> lines;
        for (std::string line; std::getline(in, line);) lines.push_back(line);
        return lines;
    }
};

TEST_P(Traced, NewDataIsFlushedBeforeTheRenameAndTheFolderAfter) {
    ASSERT_EQ(commitUnder("-e trace=fdatasync,fsync,rename,renameat,renameat2,openat"), 0);
    ASSERT_EQ(readFile(target), newContent);
    EXPECT_TRUE(keptOf(target) == old && old.acl.size() > 0 && old.user == "kept");
    // A local backup is the old package itself, made without a copy.
    EXPECT_EQ(inode(target + ".bak"), GetParam().backup && GetParam().to == Local ? oldInode : 0);
    std::vector<std::string> const lines = traceLines();
    std::size_t renameAt = lines.size(); // the successful rename onto the target; its first path is the temporary file
    std::string temporary;
    for (std::size_t i = 0; i < lines.size(); ++i)
        if (contains(lines[i], " rename") && contains(lines[i], ", \"" + target + "\"") && succeeded(lines[i])) {
            auto const open = lines[i].find('"');
            temporary = lines[i].substr(open + 1, lines[i].find('"', open + 1) - open - 1);
            renameAt = i;
        }
    ASSERT_LT(renameAt, lines.size()) << "no rename onto the target in the trace";
    EXPECT_EQ(temporary.rfind(dir + "/", 0), 0u) << temporary << " is not beside the target (nor the source)";
    auto syncs = [&](std::string const& path, std::size_t from, std::size_t to) { // successful flushes of `path`
        return std::count_if(lines.begin() + long(from), lines.begin() + long(to), [&](std::string const& line) {
            return (contains(line, " fsync(") || contains(line, " fdatasync(")) && contains(line, "<" + path + ">)") && succeeded(line);
        });
    };
    EXPECT_GT(syncs(temporary, 0, renameAt), 0) << "the temporary file's data is not flushed before the rename";
    EXPECT_GT(syncs(dir, renameAt + 1, lines.size()), 0) << "the folder is not flushed after the rename";
    if (GetParam().to != Local)
        return;
    // Nothing is flushed twice: the temporary's data once, the folder once after the rename
    // (and once for the backup's name).
    EXPECT_EQ(syncs(temporary, 0, lines.size()), 1);
    EXPECT_EQ(syncs(dir, 0, lines.size()), 1 + GetParam().backup);
}

// Every write, sync, rename, close, permission change, removal, link, change of owner and
// attribute in the test's folder (package and source) fails in turn with EIO, or refuses with
// EPERM (calls elsewhere, such as the loader's, are no test of the commit). Success means the
// new package, failure the old one, either with all the old one had beside its content (a
// read-only target, made writable for the rename, never ends wider); what a refusal keeps from
// the new package leaves it no wider. No backup ever shares its file with the package.
TEST_P(Traced, EveryFailingSystemCallLeavesTheOldOrTheNewPackage) {
    int runs = 0;
    using Row = std::tuple<std::string, int, std::string>;
    for (auto const& [call, mode, error] : std::vector<Row>{{"write", 0640, "EIO"}, {"fdatasync", 0640, "EIO"}, {"fsync", 0640, "EIO"}, {"rename", 0640, "EIO"}, {"renameat2", 0640, "EIO"}, {"close", 0640, "EIO"}, {"chmod", 0444, "EIO"}, {"fchmod", 0444, "EIO"}, {"fchmodat", 0444, "EIO"}, {"unlink", 0444, "EIO"}, {"link", 0444, "EIO"}, {"fchown", 0640, "EIO"}, {"fchown", 0640, "EPERM"}, {"fsetxattr", 0640, "EIO"}, {"fsetxattr", 0440, "EPERM"}}) {
        ASSERT_EQ(commitUnder("-e trace=" + call, mode), 0); // which calls touch the folder: stable between runs
        std::vector<std::string> const plain = traceLines();
        for (std::size_t n = 1; n <= plain.size(); ++n) {
            if (!contains(plain[n - 1], root.path().string()))
                continue;
            SCOPED_TRACE(plain[n - 1]);
            int const status = commitUnder("-e trace=" + call + " -e inject=" + call + ":error=" + error + ":when=" + std::to_string(n), mode);
            std::vector<std::string> const lines = traceLines();
            ASSERT_TRUE(n <= lines.size() && contains(lines[n - 1], "(INJECTED)")) << "the run took another path";
            ASSERT_TRUE(status == 0 || status == 3) << "exit status " << status;
            EXPECT_TRUE(readFile(target) == (status == 0 ? newContent : oldContent)) << "status " << status;
            Kept const now = keptOf(target);
            EXPECT_TRUE(error == "EPERM" && status == 0 ? noWider(now, old) : now == old) << std::oct << now.mode << std::dec << " " << now.group << " " << now.user << " " << now.acl.size();
            for (auto const& name : names(local, u16(dir)))
                EXPECT_NE(inode(dir + "/" + name), 0u) << name << " shares its file";
            ++runs;
        }
    }
    EXPECT_GT(runs, 4);
}

INSTANTIATE_TEST_SUITE_P(Commit, Traced, ::testing::Values(Pair{Local, Local}, Pair{Memory, Local}, Pair{Local, File}, Pair{Local, Local, true}),
                         [](auto const& info) { return pairName(info.param); });

} // namespace
} // namespace opc::test
