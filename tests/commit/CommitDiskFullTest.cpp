// The commit on storage that fills up while the new package is written, for every pair of back
// ends whose target lives on a disk: the commit must throw, and the old package must stay byte
// for byte with its mode. Each case runs in a child process so that the limit (RLIMIT_FSIZE, or
// a 512 KiB tmpfs mounted in a private mount namespace when running as root) never reaches the
// test runner; the child reports what it found as text.

#include "support/HostFolder.hpp"

#include <opc/Commit.hpp>
#include <opc/Exception.hpp>
#include <opc/LocalFileSystemOps.hpp>
#include <opc/VirtualFileSystemOps.hpp>

#include <gtest/gtest.h>

#include <sys/mount.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <sched.h>
#include <signal.h>
#include <unistd.h>

#include <cerrno>
#include <filesystem>
#include <memory>
#include <set>
#include <sstream>

namespace opc::test {
namespace {

namespace fs = std::filesystem;

enum class Kind { Local, File, Memory };
enum class Limit { FileSize, Tmpfs };

struct DiskCase {
    char const* name;
    Kind source;
    Kind target;
    Limit limit;
    bool backup;
};

char const* const CommitPrefix = "Could not commit changes:  ";

// The path of `file` (a host path, or a bare name for memory) as the back end of `kind` spells it.
std::u16string pathIn(Kind kind, std::string const& file) {
    switch (kind) {
    case Kind::Local: return u16(file);
    case Kind::File: return u16("file://" + file);
    case Kind::Memory: return u16("memory:///" + fs::path(file).filename().string());
    }
    return {};
}

std::unique_ptr<FileSystemOps> opsFor(Kind kind, stratum::storage::vfs::StorageSystemReference const& storage) {
    if (kind == Kind::Local)
        return std::make_unique<LocalFileSystemOps>();
    return std::make_unique<VirtualFileSystemOps>(storage);
}

std::set<std::string> namesIn(std::string const& dir) {
    std::set<std::string> names;
    for (auto const& e : fs::directory_iterator(dir))
        names.insert(e.path().filename().string());
    return names;
}

// Runs in the child: sets up the old and the new package, applies the limit, commits, and
// returns what is wrong (empty when the commit failed cleanly and the target is intact).
std::string commitOnFullDisk(DiskCase const& c, std::string const& root) {
    std::string const dir = root + "/target";
    fs::create_directories(dir);
    if (c.limit == Limit::Tmpfs && ::mount("tmpfs", dir.c_str(), "tmpfs", 0, "size=512k") != 0)
        return std::string("mount: ") + std::strerror(errno);
    std::string const target = dir + "/p.pkg", source = root + "/new.pkg";
    std::string const oldContent = pattern(100 * 1024, 7), newContent = pattern(900 * 1024, 8);
    writeFile(target, oldContent, 0640);
    writeFile(source, newContent, 0644);
    std::set<std::string> const before = namesIn(root);

    stratum::storage::vfs::StorageSystemReference storage;
    auto sourceOps = opsFor(c.source, storage);
    auto targetOps = opsFor(c.target, storage);
    if (c.source == Kind::Memory) { // a package written to memory first, as an editor would
        auto out = sourceOps->createOutputStream(pathIn(Kind::Memory, source), OpenMode::WriteBinary);
        out->write(newContent.data(), static_cast<std::streamsize>(newContent.size()));
    }
    CommitOptions options;
    options.removeBackup(!c.backup);

    if (c.limit == Limit::FileSize) {
        ::signal(SIGXFSZ, SIG_IGN);
        struct rlimit const limit = {64 * 1024, 64 * 1024};
        if (::setrlimit(RLIMIT_FSIZE, &limit) != 0)
            return "setrlimit failed";
    }
    std::ostringstream wrong;
    try {
        replaceFileWithBackup(*targetOps, pathIn(c.target, target), *sourceOps, pathIn(c.source, source), options);
        wrong << "the commit returned normally; ";
    } catch (Exception const& e) {
        int const expected = c.limit == Limit::Tmpfs ? ENOSPC : EFBIG;
        if (std::string(e.what()).rfind(CommitPrefix, 0) != 0)
            wrong << "message '" << e.what() << "'; ";
        if (e.code().value() != expected)
            wrong << "code " << e.code().value() << " (" << e.code().message() << "); ";
    } catch (std::exception const& e) {
        wrong << "not an opc::Exception: " << e.what() << "; ";
    }
    if (readFile(target) != oldContent)
        wrong << "the target holds " << readFile(target).size() << " bytes of something else; ";
    if (modeOf(target) != 0640)
        wrong << "the target's mode is " << std::oct << modeOf(target) << std::dec << "; ";
    // Beside the target a backup and a partly written temporary file may stay; nothing else
    // may change outside the target's folder.
    for (auto const& name : namesIn(dir)) {
        bool const temporary = name.front() == '.' && fs::path(name).extension() == ".tmp";
        if (name != "p.pkg" && name.rfind("p.pkg.bak", 0) != 0 && !temporary)
            wrong << "left behind: " << name << "; ";
    }
    if (namesIn(root) != before)
        wrong << "the folder around the target changed; ";
    return wrong.str();
}

class CommitDiskFull : public ::testing::TestWithParam<DiskCase> {};

TEST_P(CommitDiskFull, FailsAndLeavesTheOldPackageWhole) {
    DiskCase const& c = GetParam();
    if (c.limit == Limit::Tmpfs && ::geteuid() != 0)
        GTEST_SKIP() << "mounting a small tmpfs needs root; the file-size limit cases cover this user";
    HostFolder root;
    int channel[2];
    ASSERT_EQ(::pipe(channel), 0);
    ::fflush(nullptr);
    pid_t const child = ::fork();
    ASSERT_GE(child, 0);
    if (child == 0) {
        ::close(channel[0]);
        std::string report;
        if (c.limit == Limit::Tmpfs &&
            (::unshare(CLONE_NEWNS) != 0 || ::mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0))
            report = "no private mount namespace";
        else
            try {
                report = commitOnFullDisk(c, root.path().string());
            } catch (std::exception const& e) {
                report = std::string("set-up failed: ") + e.what();
            }
        if (!report.empty() && ::write(channel[1], report.data(), report.size()) < 0)
            std::_Exit(2);
        std::_Exit(0);
    }
    ::close(channel[1]);
    std::string report;
    char buffer[512];
    for (ssize_t got; (got = ::read(channel[0], buffer, sizeof buffer)) > 0;)
        report.append(buffer, static_cast<std::size_t>(got));
    ::close(channel[0]);
    int status = 0;
    ASSERT_EQ(::waitpid(child, &status, 0), child);
    ASSERT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << "child status " << status;
    if (report == "no private mount namespace")
        GTEST_SKIP() << "this machine refuses a private mount namespace";
    EXPECT_EQ(report, "");
}

std::vector<DiskCase> diskCases() {
    struct Pair {
        char const* name;
        Kind source, target;
    };
    Pair const pairs[] = {{"LocalToLocal", Kind::Local, Kind::Local},
                          {"MemoryToLocal", Kind::Memory, Kind::Local},
                          {"FileToLocal", Kind::File, Kind::Local},
                          {"LocalToFile", Kind::Local, Kind::File},
                          {"MemoryToFile", Kind::Memory, Kind::File}};
    std::vector<DiskCase> cases;
    static std::vector<std::string> names; // the cases keep pointers into it
    names.reserve(std::size(pairs) * 4);
    for (Pair const& p : pairs)
        for (Limit limit : {Limit::FileSize, Limit::Tmpfs})
            for (bool backup : {false, true}) {
                names.push_back(std::string(p.name) + (limit == Limit::Tmpfs ? "Tmpfs" : "FileSize") +
                                (backup ? "Backup" : ""));
                cases.push_back({names.back().c_str(), p.source, p.target, limit, backup});
            }
    return cases;
}

INSTANTIATE_TEST_SUITE_P(Pairs, CommitDiskFull, ::testing::ValuesIn(diskCases()),
                         [](auto const& info) { return std::string(info.param.name); });

} // namespace
} // namespace opc::test
