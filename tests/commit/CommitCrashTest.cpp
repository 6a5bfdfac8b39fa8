// The commit under process death: killed at random moments, the target is always one whole
// package; and under strace, the temporary file is flushed before the rename and the folder
// after it.

#include "support/HostFolder.hpp"

#include <opc/Commit.hpp>
#include <opc/Exception.hpp>
#include <opc/LocalFileSystemOps.hpp>
#include <opc/VirtualFileSystemOps.hpp>

#include <gtest/gtest.h>

#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <fstream>
#include <iostream>
#include <random>
#include <sstream>
#include <vector>

namespace opc::test {
namespace {

// When this variable is set ("<source kind>\n<target>\n<source>"), the test binary is the
// child that the traced tests run under strace: it commits once and exits before any test runs,
// with 0 after a commit, 3 after an opc::Exception, 4 after anything else. The source kind is
// "local", "memory" (the source file's bytes are first written to memory storage, so the commit
// streams them across back ends) or "file" (the target is reached through a file IRI).
char const* const ChildVariable = "OPC_COMMIT_TRACED_CHILD";

struct TracedChild {
    TracedChild() {
        char const* job = std::getenv(ChildVariable);
        if (!job)
            return;
        std::istringstream lines(job);
        std::string kind, target, source;
        std::getline(lines, kind);
        std::getline(lines, target);
        std::getline(lines, source);
        int status = 0;
        try {
            stratum::storage::vfs::StorageSystemReference storage;
            LocalFileSystemOps local;
            VirtualFileSystemOps storageOps(storage);
            if (kind == "memory") {
                std::string const content = readFile(source);
                storageOps.createOutputStream(u"memory:///new.pkg", OpenMode::WriteBinary)
                    ->write(content.data(), static_cast<std::streamsize>(content.size()));
                replaceFileWithBackup(local, u16(target), storageOps, u"memory:///new.pkg", CommitOptions());
            } else if (kind == "file") {
                replaceFileWithBackup(storageOps, u16("file://" + target), local, u16(source), CommitOptions());
            } else {
                replaceFileWithBackup(local, u16(target), local, u16(source), CommitOptions());
            }
        } catch (Exception const&) {
            status = 3;
        } catch (...) {
            status = 4;
        }
        std::_Exit(status);
    }
} const tracedChild;

TEST(CommitCrash, KilledCommitsLeaveTheOldOrTheNewPackageWhole) {
    HostFolder root;
    std::string const dir = root.path().string();
    std::string const target = dir + "/p.pkg";
    std::string const contents[2] = {pattern(1 << 20, 3), pattern(1 << 20, 4)};
    std::string const sources[2] = {dir + "/a.src", dir + "/b.src"};
    for (int i = 0; i < 2; ++i)
        writeFile(sources[i], contents[i]);
    writeFile(target, contents[0]);

    std::mt19937 random(20261123);
    std::uniform_int_distribution<int> delayMicros(0, 40000);
    int seen[2] = {0, 0};
    for (int round = 0; round < 200; ++round) {
        ::fflush(nullptr);
        pid_t const child = ::fork();
        ASSERT_GE(child, 0);
        if (child == 0) { // commit the other package, then back, for ever, with a backup each time
            try {
                LocalFileSystemOps ops;
                CommitOptions options;
                options.removeBackup(false);
                for (unsigned n = 1;; ++n)
                    replaceFileWithBackup(ops, u16(target), ops, u16(sources[n % 2]), options);
            } catch (...) {
            }
            std::_Exit(3);
        }
        ::usleep(static_cast<useconds_t>(delayMicros(random)));
        ::kill(child, SIGKILL);
        int status = 0;
        ASSERT_EQ(::waitpid(child, &status, 0), child);
        ASSERT_TRUE(WIFSIGNALED(status)) << "the committing child stopped by itself in round " << round;

        // Leftover temporary files of killed commits are allowed; only the target is judged.
        std::string const now = readFile(target);
        bool const isNew = now == contents[1];
        ASSERT_TRUE(isNew || now == contents[0]) << "round " << round << ": " << now.size() << " bytes of neither";
        ++seen[isNew];
        if (isNew) // start every round from the first package, so each kill can show either
            writeFile(target, contents[0]);
    }
    std::cout << "kills: 200, old " << seen[0] << ", new " << seen[1] << "\n";
}

int shell(std::string const& command) {
    int const status = std::system(command.c_str());
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

bool contains(std::string const& line, std::string const& piece) { return line.find(piece) != std::string::npos; }
bool succeeded(std::string const& line) { return line.size() >= 3 && line.compare(line.size() - 3, 3, "= 0") == 0; }

// Runs the traced child once under strace with `options`; the trace goes to `trace`.
class Traced : public ::testing::TestWithParam<char const*> {
protected:
    HostFolder root;
    std::string const dir = root.path().string();
    std::string const target = dir + "/p.pkg", source = dir + "/new.src", trace = dir + "/trace.txt";
    std::string const oldContent = pattern(100000, 5), newContent = pattern(100000, 6);

    void SetUp() override {
        if (shell("command -v strace >/dev/null 2>&1") != 0)
            GTEST_SKIP() << "strace is not installed";
        if (shell("strace -o /dev/null true >/dev/null 2>&1") != 0)
            GTEST_SKIP() << "tracing is not permitted here (ptrace refused)";
        writeFile(source, newContent);
    }

    int commitUnder(std::string const& options) {
        writeFile(target, oldContent, 0640);
        std::vector<char> self(4096);
        if (::readlink("/proc/self/exe", self.data(), self.size() - 1) <= 0)
            return -1;
        std::string const command = std::string(ChildVariable) + "=\"$(printf '%s\\n%s\\n%s' '" + GetParam() +
                                    "' '" + target + "' '" + source + "')\" strace -f -y -qq " + options + " -o '" +
                                    trace + "' '" + self.data() + "' >/dev/null 2>&1";
        return shell(command);
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

    // The successful rename onto the target; its first quoted path is the temporary file.
    std::size_t renameAt = lines.size();
    std::string temporary;
    for (std::size_t i = 0; i < lines.size(); ++i) {
        std::string const& line = lines[i];
        if (!contains(line, " rename") || !contains(line, ", \"" + target + "\"") || !succeeded(line))
            continue;
        auto const open = line.find('"');
        temporary = line.substr(open + 1, line.find('"', open + 1) - open - 1);
        renameAt = i;
    }
    ASSERT_LT(renameAt, lines.size()) << "no rename onto the target in the trace";
    EXPECT_EQ(temporary.rfind(dir + "/", 0), 0u) << temporary << " is not beside the target";
    ASSERT_NE(temporary, source) << "the new file itself must not be renamed";

    // A successful fsync or fdatasync of a descriptor that strace shows open on `path`.
    auto syncs = [&](std::string const& path, std::size_t from, std::size_t to) {
        for (std::size_t i = from; i < to; ++i)
            if ((contains(lines[i], " fsync(") || contains(lines[i], " fdatasync(")) &&
                contains(lines[i], "<" + path + ">)") && succeeded(lines[i]))
                return true;
        return false;
    };
    EXPECT_TRUE(syncs(temporary, 0, renameAt)) << "the temporary file's data is not flushed before the rename";
    EXPECT_TRUE(syncs(dir, renameAt + 1, lines.size())) << "the folder is not flushed after the rename";
}

// Every write, sync, rename and close on the package's folder fails in turn with EIO (calls
// elsewhere, such as the loader's, are left alone: a fault there is no test of the commit). A
// commit that reports success has put the new package in place; one that throws has left the
// old one, mode included; nothing else ever happens.
TEST_P(Traced, EveryFailingSystemCallLeavesTheOldOrTheNewPackage) {
    int runs = 0;
    for (char const* call : {"write", "fdatasync", "fsync", "rename", "renameat2", "close"}) {
        // Which calls of this kind touch the folder: their numbers stay the same from run to run.
        ASSERT_EQ(commitUnder(std::string("-e trace=") + call), 0);
        std::vector<std::string> const plain = traceLines();
        for (std::size_t n = 1; n <= plain.size(); ++n) {
            if (!contains(plain[n - 1], dir))
                continue;
            SCOPED_TRACE(plain[n - 1]);
            int const status = commitUnder(std::string("-e trace=") + call + " -e inject=" + call +
                                           ":error=EIO:when=" + std::to_string(n));
            std::vector<std::string> const lines = traceLines();
            ASSERT_TRUE(n <= lines.size() && contains(lines[n - 1], "(INJECTED)")) << "the run took another path";
            ASSERT_TRUE(status == 0 || status == 3) << "exit status " << status;
            EXPECT_EQ(readFile(target) == (status == 0 ? newContent : oldContent), true)
                << (status == 0 ? "reported success without the new package"
                                : "reported failure without the old package");
            EXPECT_EQ(modeOf(target), 0640);
            ++runs;
        }
    }
    std::cout << GetParam() << ": " << runs << " failing calls\n";
    EXPECT_GT(runs, 4);
}

INSTANTIATE_TEST_SUITE_P(Commit, Traced, ::testing::Values("local", "memory", "file"),
                         [](auto const& info) { return std::string(info.param); });

} // namespace
} // namespace opc::test
