// The commit on storage that fills up while the new package is written, for every pair of
// back ends whose target lives on a disk, each in a child process so that the limit never
// reaches the test runner.

#include "support/CommitBetween.hpp"

#include <opc/Exception.hpp>

#include <gtest/gtest.h>

#include <sched.h>
#include <signal.h>
#include <sys/mount.h>
#include <sys/resource.h>

#include <cerrno>
#include <cstring>
#include <set>
#include <sstream>

namespace opc::test {
namespace {

namespace fs = std::filesystem;

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
