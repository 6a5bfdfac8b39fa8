// The commit where only a whole process can show it: killed at random moments, under strace
// (flush order, every failing system call) and on a disk that fills up. Each commit runs in a
// child, for every pair of back ends whose target lives on a disk; after it the target holds
// the old package or the new one, whole, and a commit that reported failure left the old one.

#include "support/HostFolder.hpp"

#include <opc/Commit.hpp>
#include <opc/Exception.hpp>
#include <opc/LocalFileSystemOps.hpp>
#include <opc/VirtualFileSystemOps.hpp>

#include <gtest/gtest.h>

#include <sched.h>
#include <signal.h>
#include <sys/mount.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <functional>
#include <random>
#include <set>
#include <sstream>

namespace opc::test {
namespace {

namespace fs = std::filesystem;

// Where the source is read from and the target written to: the host through the local back
// end, memory storage (the source's bytes copied there first, so the commit streams them across
// back ends), or the host through a file IRI.
enum Kind { Local, Memory, File };
char const* const KindNames[] = {"Local", "Memory", "File"};

std::u16string pathIn(Kind kind, std::string const& file) {
    return kind == Local ? u16(file) : kind == File ? u16("file://" + file) : u"memory:///" + u16(fs::path(file).filename());
}

// Commits `source` over `target` between back ends of the given kinds.
void commitBetween(Kind from, Kind to, std::string const& target, std::string const& source, bool backup = false) {
    stratum::storage::vfs::StorageSystemReference storage;
    LocalFileSystemOps local;
    VirtualFileSystemOps storageOps(storage);
    auto ops = [&](Kind k) -> FileSystemOps& { return k == Local ? static_cast<FileSystemOps&>(local) : storageOps; };
    if (from == Memory) {
        std::string const content = readFile(source);
        ops(Memory).createOutputStream(pathIn(Memory, source), OpenMode::WriteBinary)->write(content.data(), long(content.size()));
    }
    CommitOptions options;
    options.removeBackup(!backup);
    replaceFileWithBackup(ops(to), pathIn(to, target), ops(from), pathIn(from, source), options);
}

// Runs `job` in a child process and returns what it wrote to its channel ("" when nothing).
std::string inChild(std::function<std::string()> const& job) {
    int channel[2];
    if (::pipe(channel) != 0)
        return "pipe failed";
    ::fflush(nullptr);
    pid_t const child = ::fork();
    if (child == 0) {
        ::close(channel[0]);
        std::string report;
        try {
            report = job();
        } catch (std::exception const& e) {
            report = std::string("set-up failed: ") + e.what();
        }
        std::_Exit(::write(channel[1], report.data(), report.size()) < 0 ? 2 : 0);
    }
    ::close(channel[1]);
    std::string report;
    char buffer[512];
    for (ssize_t got; (got = ::read(channel[0], buffer, sizeof buffer)) > 0;)
        report.append(buffer, static_cast<std::size_t>(got));
    ::close(channel[0]);
    int status = 0;
    ::waitpid(child, &status, 0);
    return WIFEXITED(status) && WEXITSTATUS(status) == 0 ? report : report + " (child status " + std::to_string(status) + ")";
}

// When this variable holds "<source kind>\n<target kind>\n<target>\n<source>", the test binary
// is the child run under strace: it commits once and exits before any test runs, with 0 after
// a commit, 3 after an opc::Exception, 4 after anything else.
char const* const ChildVariable = "OPC_COMMIT_TRACED_CHILD";
struct TracedChild {
    TracedChild() {
        if (char const* job = std::getenv(ChildVariable)) {
            std::istringstream lines(job);
            int from = 0, to = 0;
            std::string target, source;
            lines >> from >> to;
            lines.ignore(1);
            std::getline(lines, target);
            std::getline(lines, source);
            int status = 0;
            try {
                commitBetween(Kind(from), Kind(to), target, source);
            } catch (Exception const&) {
                status = 3;
            } catch (...) {
                status = 4;
            }
            std::_Exit(status);
        }
    }
} const tracedChild;

TEST(CommitCrash, KilledCommitsLeaveTheOldOrTheNewPackageWhole) {
    HostFolder root;
    std::string const dir = root.path().string(), target = dir + "/p.pkg";
    std::string const contents[2] = {pattern(1 << 20, 3), pattern(1 << 20, 4)}, sources[2] = {dir + "/a", dir + "/b"};
    for (int i = 0; i < 2; ++i)
        writeFile(sources[i], contents[i]);
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

int shell(std::string const& command) {
    int const status = std::system(command.c_str());
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}
bool contains(std::string const& line, std::string const& piece) { return line.find(piece) != std::string::npos; }
bool succeeded(std::string const& line) { return line.size() >= 3 && line.compare(line.size() - 3, 3, "= 0") == 0; }

struct Pair {
    Kind from, to;
};
std::string pairName(Pair p) { return std::string(KindNames[p.from]) + "To" + KindNames[p.to]; }

// Runs the traced child once under strace with `options`; the trace goes to `trace`.
class Traced : public ::testing::TestWithParam<Pair> {
protected:
    HostFolder root;
    std::string const dir = root.path().string();
    std::string const target = dir + "/p.pkg", source = dir + "/new.src", trace = dir + "/trace.txt";
    std::string const oldContent = pattern(100000, 5), newContent = pattern(100000, 6);

    void SetUp() override {
        if (shell("strace -o /dev/null true >/dev/null 2>&1") != 0)
            GTEST_SKIP() << "strace is missing, or tracing is not permitted here";
        writeFile(source, newContent);
    }
    int commitUnder(std::string const& options) {
        writeFile(target, oldContent, 0640);
        std::string const job = std::to_string(GetParam().from) + " " + std::to_string(GetParam().to) + "\n" + target + "\n" + source;
        ::setenv(ChildVariable, job.c_str(), 1);
        int const status = shell("strace -f -y -qq " + options + " -o '" + trace + "' /proc/" + std::to_string(::getpid()) + "/exe >/dev/null 2>&1");
        ::unsetenv(ChildVariable);
        return status;
    }
    std::vector<std::string> traceLines() const {
        std::ifstream in(trace);
        std::vector<std::string> lines;
        for (std::string line; std::getline(in, line);)
            lines.push_back(line);
        return lines;
    }
};

TEST_P(Traced, NewDataIsFlushedBeforeTheRenameAndTheFolderAfter) {
    ASSERT_EQ(commitUnder("-e trace=fdatasync,fsync,rename,renameat,renameat2,openat"), 0);
    ASSERT_EQ(readFile(target), newContent);
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
    EXPECT_EQ(temporary.rfind(dir + "/", 0), 0u) << temporary << " is not beside the target";
    ASSERT_NE(temporary, source) << "the new file itself must not be renamed";
    auto syncs = [&](std::string const& path, std::size_t from, std::size_t to) {
        for (std::size_t i = from; i < to; ++i)
            if ((contains(lines[i], " fsync(") || contains(lines[i], " fdatasync(")) && contains(lines[i], "<" + path + ">)") &&
                succeeded(lines[i]))
                return true;
        return false;
    };
    EXPECT_TRUE(syncs(temporary, 0, renameAt)) << "the temporary file's data is not flushed before the rename";
    EXPECT_TRUE(syncs(dir, renameAt + 1, lines.size())) << "the folder is not flushed after the rename";
}

// Every write, sync, rename and close on the package's folder fails in turn with EIO (calls
// elsewhere, such as the loader's, are no test of the commit). Success means the new package,
// failure the old one, mode included.
TEST_P(Traced, EveryFailingSystemCallLeavesTheOldOrTheNewPackage) {
    int runs = 0;
    for (std::string const call : {"write", "fdatasync", "fsync", "rename", "renameat2", "close"}) {
        ASSERT_EQ(commitUnder("-e trace=" + call), 0); // which calls touch the folder: stable between runs
        std::vector<std::string> const plain = traceLines();
        for (std::size_t n = 1; n <= plain.size(); ++n) {
            if (!contains(plain[n - 1], dir))
                continue;
            SCOPED_TRACE(plain[n - 1]);
            int const status = commitUnder("-e trace=" + call + " -e inject=" + call + ":error=EIO:when=" + std::to_string(n));
            std::vector<std::string> const lines = traceLines();
            ASSERT_TRUE(n <= lines.size() && contains(lines[n - 1], "(INJECTED)")) << "the run took another path";
            ASSERT_TRUE(status == 0 || status == 3) << "exit status " << status;
            EXPECT_TRUE(readFile(target) == (status == 0 ? newContent : oldContent)) << "status " << status;
            EXPECT_EQ(modeOf(target), 0640);
            ++runs;
        }
    }
    EXPECT_GT(runs, 4);
}

INSTANTIATE_TEST_SUITE_P(Commit, Traced, ::testing::Values(Pair{Local, Local}, Pair{Memory, Local}, Pair{Local, File}),
                         [](auto const& info) { return pairName(info.param); });

// The storage fills up while the new package is written: RLIMIT_FSIZE for anyone, a 512 KiB
// tmpfs in a private mount namespace as root. The commit throws with the storage's code and
// leaves the old package byte for byte with its mode; beside it only a backup and a partly
// written temporary file may stay, and nothing changes around its folder.
struct DiskCase {
    Pair pair;
    bool tmpfs, backup;
};

std::string commitOnFullDisk(DiskCase const& c, std::string const& root) {
    std::string const dir = root + "/target", target = dir + "/p.pkg", source = root + "/new.pkg";
    fs::create_directories(dir);
    if (c.tmpfs && (::unshare(CLONE_NEWNS) != 0 || ::mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0))
        return "no private mount";
    if (c.tmpfs && ::mount("tmpfs", dir.c_str(), "tmpfs", 0, "size=512k") != 0)
        return std::string("mount: ") + std::strerror(errno);
    std::string const oldContent = pattern(100 * 1024, 7);
    writeFile(target, oldContent, 0640);
    writeFile(source, pattern(900 * 1024, 8), 0644);
    auto names = [](std::string const& folder) {
        std::set<std::string> names;
        for (auto const& e : fs::directory_iterator(folder))
            names.insert(e.path().filename().string());
        return names;
    };
    std::set<std::string> const before = names(root);
    struct rlimit const limit = {64 * 1024, 64 * 1024};
    if (!c.tmpfs && (::signal(SIGXFSZ, SIG_IGN) == SIG_ERR || ::setrlimit(RLIMIT_FSIZE, &limit) != 0))
        return "setrlimit failed";
    std::ostringstream wrong;
    try {
        commitBetween(c.pair.from, c.pair.to, target, source, c.backup);
        wrong << "the commit returned normally; ";
    } catch (Exception const& e) {
        if (std::string(e.what()).rfind("Could not commit changes:  ", 0) != 0 || e.code().value() != (c.tmpfs ? ENOSPC : EFBIG))
            wrong << "'" << e.what() << "' code " << e.code().value() << "; ";
    }
    if (readFile(target) != oldContent || modeOf(target) != 0640)
        wrong << "the target changed: " << readFile(target).size() << " bytes, mode " << std::oct << modeOf(target) << "; ";
    for (auto const& name : names(dir))
        if (name != "p.pkg" && name.rfind("p.pkg.bak", 0) != 0 && !(name.front() == '.' && fs::path(name).extension() == ".tmp"))
            wrong << "left behind: " << name << "; ";
    if (names(root) != before)
        wrong << "the folder around the target changed; ";
    return wrong.str();
}

class CommitDiskFull : public ::testing::TestWithParam<DiskCase> {};

TEST_P(CommitDiskFull, FailsAndLeavesTheOldPackageWhole) {
    if (GetParam().tmpfs && ::geteuid() != 0)
        GTEST_SKIP() << "mounting a small tmpfs needs root; the file-size limit cases cover this user";
    HostFolder root;
    std::string const report = inChild([&] { return commitOnFullDisk(GetParam(), root.path().string()); });
    if (report == "no private mount")
        GTEST_SKIP() << "this machine refuses a private mount namespace";
    EXPECT_EQ(report, "");
}

std::vector<DiskCase> diskCases() {
    std::vector<DiskCase> cases;
    for (Pair p : {Pair{Local, Local}, Pair{Memory, Local}, Pair{File, Local}, Pair{Local, File}, Pair{Memory, File}})
        for (bool tmpfs : {false, true})
            for (bool backup : {false, true})
                cases.push_back({p, tmpfs, backup});
    return cases;
}

INSTANTIATE_TEST_SUITE_P(Pairs, CommitDiskFull, ::testing::ValuesIn(diskCases()), [](auto const& info) {
    DiskCase const& c = info.param;
    return pairName(c.pair) + (c.tmpfs ? "Tmpfs" : "FileSize") + (c.backup ? "Backup" : "");
});

} // namespace
} // namespace opc::test
