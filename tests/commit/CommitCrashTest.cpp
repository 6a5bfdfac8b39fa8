// The commit where only a whole process can show it: killed at random moments, and under
// strace (flush order, every failing system call). Each commit runs in a child; after it the
// target holds the old package or the new one, whole, and a commit that reported failure left
// the old one.

#include "support/CommitBetween.hpp"

#include <opc/Exception.hpp>

#include <gtest/gtest.h>

#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <fstream>
#include <random>
#include <sstream>

namespace opc::test {
namespace {

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
    auto syncs = [&](std::string const& path, std::size_t from, std::size_t to) { // successful flushes of `path`
        return std::count_if(lines.begin() + long(from), lines.begin() + long(to), [&](std::string const& line) {
            return (contains(line, " fsync(") || contains(line, " fdatasync(")) && contains(line, "<" + path + ">)") && succeeded(line);
        });
    };
    EXPECT_GT(syncs(temporary, 0, renameAt), 0) << "the temporary file's data is not flushed before the rename";
    EXPECT_GT(syncs(dir, renameAt + 1, lines.size()), 0) << "the folder is not flushed after the rename";
    if (GetParam().to != Local)
        return;
    // Nothing is flushed twice: the temporary's data once, the folder once, after the rename.
    EXPECT_EQ(syncs(temporary, 0, lines.size()), 1);
    EXPECT_EQ(syncs(dir, 0, lines.size()), 1);
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

} // namespace
} // namespace opc::test
