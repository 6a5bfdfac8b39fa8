// The commit under process death: killed at random moments, the target is always one whole
// package; and under strace, the temporary file is flushed before the rename and the folder
// after it.

#include "commit/LocalFiles.hpp"
#include "support/HostFolder.hpp"

#include <opc/Commit.hpp>
#include <opc/Exception.hpp>
#include <opc/LocalFileSystemOps.hpp>

#include <gtest/gtest.h>

#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <fstream>
#include <iostream>
#include <random>
#include <vector>

namespace opc::test {
namespace {

// When this variable is set ("<target>\n<source>"), the test binary is the child that the
// durability test runs under strace: it commits once and exits before any test runs.
char const* const ChildVariable = "OPC_COMMIT_TRACED_CHILD";

struct TracedChild {
    TracedChild() {
        char const* job = std::getenv(ChildVariable);
        if (!job)
            return;
        std::string const text = job;
        auto const cut = text.find('\n');
        int status = 0;
        try {
            LocalFileSystemOps ops;
            replaceFileWithBackup(ops, u16(text.substr(0, cut)), ops, u16(text.substr(cut + 1)), CommitOptions());
        } catch (std::exception const&) {
            status = 3;
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

TEST(CommitDurability, TemporaryFileIsFlushedBeforeTheRenameAndItsFolderAfter) {
    if (shell("command -v strace >/dev/null 2>&1") != 0)
        GTEST_SKIP() << "strace is not installed";
    if (shell("strace -o /dev/null true >/dev/null 2>&1") != 0)
        GTEST_SKIP() << "tracing is not permitted here (ptrace refused)";

    HostFolder root;
    std::string const dir = root.path().string();
    std::string const target = dir + "/p.pkg", source = dir + "/new.src", trace = dir + "/trace.txt";
    writeFile(target, pattern(100000, 5));
    writeFile(source, pattern(100000, 6));
    std::vector<char> self(4096);
    ASSERT_GT(::readlink("/proc/self/exe", self.data(), self.size() - 1), 0);

    std::string const command = std::string(ChildVariable) + "=\"$(printf '%s\\n%s' '" + target + "' '" + source +
                                "')\" strace -f -y -qq -e trace=fdatasync,fsync,rename,renameat,renameat2,openat -o '" +
                                trace + "' '" + self.data() + "' >/dev/null 2>&1";
    ASSERT_EQ(shell(command), 0) << command;
    ASSERT_EQ(readFile(target), pattern(100000, 6));

    std::ifstream in(trace);
    std::vector<std::string> lines;
    for (std::string line; std::getline(in, line);)
        lines.push_back(line);

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

} // namespace
} // namespace opc::test
