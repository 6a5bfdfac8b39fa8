// Host copy, rename, removal and temporary files: what a failed call, a crash or a planted link
// must not cost, on real files, under strace fault injection and where permission bits bind.
#include <vela/filesystem/directory_iterator.hpp>
#include <vela/filesystem/exceptions.hpp>
#include <vela/filesystem/operations.hpp>
#include <vela/filesystem/temp.hpp>

#include <gtest/gtest.h>

#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <functional>
#include <random>
#include <set>
#include <sstream>

namespace hostfs = vela::filesystem;

namespace {

// UTF-8 <-> UTF-16 through the standard library, so the tests don't lean on the converter under test.
inline std::u16string utf16(std::string const& s) { return std::filesystem::path(s).u16string(); }
inline std::string utf8(std::u16string const& s) { return std::filesystem::path(s).string(); }

inline std::string read_all(std::string const& p) {
    std::stringstream ss;
    ss << std::ifstream(p, std::ios::binary).rdbuf();
    return ss.str();
}

inline mode_t mode_of(std::string const& p) {
    struct stat st;
    return ::lstat(p.c_str(), &st) == 0 ? st.st_mode : 0;
}

/// The path carried by the E that `f` throws, or "(nothing)" when it throws none.
template <class E, class F>
std::u16string thrown_path(F&& f) {
    try {
        f();
    } catch (E const& e) {
        return e.path();
    }
    return u"(nothing)";
}

/// A fresh folder under `base`, open to everyone (for a child running as nobody), removed at the end.
class Scratch {
public:
    explicit Scratch(std::string const& base = "/tmp") : m_dir(base + "/vela-fs-test-XXXXXX") {
        if (::mkdtemp(m_dir.data()) == nullptr)
            throw std::runtime_error("mkdtemp failed in " + base);
        ::chmod(m_dir.c_str(), 0777);
    }
    ~Scratch() {
        std::error_code ec;
        std::filesystem::remove_all(m_dir, ec);
    }
    Scratch(Scratch const&) = delete;
    Scratch& operator=(Scratch const&) = delete;

    std::string const& dir() const { return m_dir; }
    std::string at(std::string const& name) const { return m_dir + "/" + name; }
    std::u16string u(std::string const& name) const { return utf16(at(name)); }

private:
    std::string m_dir;
};

/// Runs `body` where permission bits bind: in a child dropped to nobody when running as root,
/// else in this process. Returns 0 for success, else the number of the failed check; 100 when
/// the child could not drop its privileges, 101 when `body` threw.
inline int where_bits_bind(std::function<int()> const& body) {
    auto run = [&] {
        try {
            return body();
        } catch (...) {
            return 101;
        }
    };
    if (::geteuid() != 0)
        return run();
    pid_t const child = ::fork();
    if (child == 0) {
        if (::setresgid(65534, 65534, 65534) != 0 || ::setresuid(65534, 65534, 65534) != 0)
            ::_exit(100);
        ::_exit(run());
    }
    int status = 0;
    ::waitpid(child, &status, 0);
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}


// With this variable set to "operation from to", the test binary is the child that a test runs
// under strace. It forks first, so that the operation's calls are the grandchild's first ones and
// strace's "when=" counts only them. Exit 0, or 3 when the operation failed.
char const* const traced_variable = "VELA_FS_TRACED_CHILD";

int run_job(std::string const& op, std::string const& from, std::string const& to) try {
    std::u16string name;
    if (op == "rename")
        hostfs::rename(utf16(from), utf16(to));
    else if (op == "copy")
        hostfs::copy_file(utf16(from), utf16(to), hostfs::copy_option::overwrite_if_exists);
    else if (std::FILE* file = hostfs::tmpfile(name, utf16(from), u"t", u""))
        return std::fclose(file) == 0 ? 0 : 3;
    else
        return 3;
    return 0;
} catch (hostfs::FsysExceptionBase const&) {
    return 3;
}

struct TracedChild {
    TracedChild() {
        std::string op, from, to;
        if (char const* job = std::getenv(traced_variable); !(job && std::istringstream(job) >> op >> from >> to))
            return;
        pid_t const child = ::fork();
        if (child == 0)
            std::_Exit(run_job(op, from, to));
        int status = 0;
        ::waitpid(child, &status, 0);
        std::_Exit(WIFEXITED(status) ? WEXITSTATUS(status) : 4);
    }
} const traced_child;

int shell(std::string const& command) {
    int const status = std::system(command.c_str());
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

/// Runs `op` in a child of this binary under strace, which logs its successful calls to `trace`
/// and fails those that `inject` names; returns the child's exit status.
int traced(std::string const& op, std::string const& from, std::string const& to, std::string const& inject,
           std::string const& trace = "/dev/null") {
    return shell(std::string(traced_variable) + "='" + op + " " + from + " " + to + " ' strace -f -y -qq -z -o '" +
                 trace + "' -e trace=openat,fdatasync,fsync,rename,renameat,renameat2,unlink,unlinkat" +
                 (inject.empty() ? "" : " -e inject=" + inject) + " /proc/" + std::to_string(::getpid()) +
                 "/exe >/dev/null 2>&1");
}

bool strace_works() { return shell("strace -o /dev/null true >/dev/null 2>&1") == 0; }

TEST(CopyFile, ContentModeAndExistingDestination) {
    Scratch s;
    std::mt19937 rng(1);
    for (std::size_t size : {0u, 1u, 4096u, (1u << 20) + 17}) {
        std::string data(size, '\0');
        for (char& c : data)
            c = char(rng());
        std::string const from = s.at("src" + std::to_string(size)), to = s.at("dst" + std::to_string(size));
        std::ofstream(from, std::ios::binary) << data;
        ::chmod(from.c_str(), 0751); // wider than the umask lets a new file be
        hostfs::copy_file(utf16(from), utf16(to), hostfs::copy_option::fail_if_exists);
        EXPECT_EQ(read_all(to), data) << size;
        EXPECT_EQ(mode_of(to) & 07777, 0751u);
    }
    std::ofstream(s.at("a")) << "new content";
    std::ofstream(s.at("b")) << "old content that is longer";
    ::chmod(s.at("a").c_str(), 0640);
    EXPECT_THROW(hostfs::copy_file(s.u("a"), s.u("b"), 0), hostfs::FileExistsError);
    EXPECT_EQ(read_all(s.at("b")), "old content that is longer");
    ASSERT_EQ(::link(s.at("b").c_str(), s.at("b-hard").c_str()), 0); // overwriting replaces, never writes into
    hostfs::copy_file(s.u("a"), s.u("b"), 1);
    EXPECT_EQ(read_all(s.at("b")), "new content");
    EXPECT_EQ(read_all(s.at("b-hard")), "old content that is longer");
    EXPECT_EQ(mode_of(s.at("b")) & 0777, 0640u);

    // A link planted at the destination is never followed nor replaced, with either option.
    std::ofstream(s.at("victim")) << "keep";
    ASSERT_EQ(::symlink(s.at("victim").c_str(), s.at("trap").c_str()), 0);
    ASSERT_EQ(::mkdir(s.at("dir").c_str(), 0755), 0);
    for (int option : {0, 1})
        EXPECT_THROW(hostfs::copy_file(s.u("a"), s.u("trap"), option), hostfs::FileExistsError);
    EXPECT_THROW(hostfs::copy_file(s.u("a"), s.u("dir"), 1), hostfs::FileIsDirectory);
    EXPECT_TRUE(S_ISLNK(mode_of(s.at("trap"))));
    EXPECT_EQ(read_all(s.at("victim")), "keep");
    EXPECT_EQ(thrown_path<hostfs::PathNotFound>([&] { hostfs::copy_file(s.u("none"), s.u("c"), 0); }), s.u("none"));
    EXPECT_EQ(thrown_path<hostfs::FileIsDirectory>([&] { hostfs::copy_file(s.u("dir"), s.u("c"), 0); }), s.u("dir"));
    EXPECT_EQ(mode_of(s.at("c")), 0u);
}

TEST(Rename, ModeNeverWidensAndFailuresNameTheirSide) {
    Scratch s;
    // The moved file never has a bit that the replaced file (or the one behind a link) lacked.
    for (char const* target : {"private", "to-private"}) {
        std::ofstream(s.at("private")) << "old";
        std::ofstream(s.at("open")) << "new";
        ::chmod(s.at("private").c_str(), 0600);
        ::chmod(s.at("open").c_str(), 0644);
        ::symlink("private", s.at("to-private").c_str());
        hostfs::rename(s.u("open"), s.u(target));
        EXPECT_EQ(mode_of(s.at(target)), S_IFREG | 0600u) << target;
        EXPECT_EQ(read_all(s.at(target)), "new");
    }
    EXPECT_EQ(read_all(s.at("private")), "old");
    std::ofstream(s.at("c")) << "C";
    hostfs::rename_options keep;
    keep.no_replace = true;
    EXPECT_EQ(thrown_path<hostfs::FileExistsError>([&] { hostfs::rename(s.u("c"), s.u("private"), keep); }),
              s.u("private"));
    EXPECT_EQ(read_all(s.at("private")), "old");
    ASSERT_EQ(::mkdir(s.at("d").c_str(), 0755), 0);
    ASSERT_EQ(::mkdir(s.at("e").c_str(), 0755), 0);
    hostfs::rename(s.u("c"), s.u("d/c"), keep); // two folders to sync
    EXPECT_EQ(read_all(s.at("d/c")), "C");
    EXPECT_EQ(thrown_path<hostfs::PathNotFound>([&] { hostfs::rename(s.u("none"), s.u("x")); }), s.u("none"));
    EXPECT_EQ(thrown_path<hostfs::DirectoryNotEmpty>([&] { hostfs::rename(s.u("e"), s.u("d")); }), s.u("d"));
    EXPECT_EQ(thrown_path<hostfs::FileIsDirectory>([&] { hostfs::rename(s.u("private"), s.u("d")); }), s.u("d"));
    EXPECT_EQ(read_all(s.at("d/c")), "C");

    // A link's permission value (its bits read 0777) is never applied to a file.
    ::chmod(s.at("private").c_str(), 0640);
    ASSERT_EQ(::symlink("private", s.at("link").c_str()), 0);
    std::uint32_t const of_link = hostfs::symlink_status(s.u("link")).permissions();
    for (std::uint32_t bits : {of_link, of_link | hostfs::file_status::perms_symlink})
        hostfs::permissions(s.u("private"), bits);
    hostfs::permissions(s.u("link"), of_link);
    EXPECT_EQ(mode_of(s.at("private")), S_IFREG | 0640u);
    EXPECT_THROW(hostfs::permissions(s.u("none"), of_link), hostfs::PathNotFound);
}

TEST(Rename, AcrossFileSystemsOnlyWhenAllowed) {
    struct stat tmp, shm;
    if (::stat("/tmp", &tmp) != 0 || ::stat("/dev/shm", &shm) != 0 || tmp.st_dev == shm.st_dev)
        GTEST_SKIP() << "/dev/shm is not a second file system here";
    Scratch here, there("/dev/shm");
    std::ofstream(there.at("f")) << "moved";
    EXPECT_THROW(hostfs::rename(there.u("f"), here.u("f")), hostfs::SystemError); // EXDEV
    hostfs::rename_options copy;
    copy.allow_copy = true;
    hostfs::rename(there.u("f"), here.u("f"), copy);
    EXPECT_EQ(read_all(here.at("f")), "moved");
    EXPECT_EQ(mode_of(there.at("f")), 0u);
}

// Under strace: the moved file's data is synced before the rename and the folder after it. With
// each of those steps (or the removal of the old content) failing in turn, the call fails and
// the destination keeps its old content; a new copy whose data or name cannot be made durable
// is removed again.
TEST(Rename, DataThenNameThenFolderAndNothingChangedOnFailure) {
    if (!strace_works())
        GTEST_SKIP() << "strace is missing or tracing is not permitted here";
    Scratch s;
    std::string const from = s.at("new"), to = s.at("target"), trace = s.at("trace");
    for (char const* op : {"rename", "copy", "copy-new"}) {
        for (char const* fault : {"", "fdatasync", "fsync", "unlink,unlinkat"}) {
            SCOPED_TRACE(std::string(op) + " failing " + fault);
            bool const fresh = op == std::string("copy-new");
            if (fresh && *fault != 'f')
                continue;
            fresh ? ::unlink(to.c_str()) : (std::ofstream(to) << "old", 0);
            std::ofstream(from) << "new";
            auto const entries = [&] { return std::distance(std::filesystem::directory_iterator(s.dir()), {}); };
            auto const before = entries();
            int const status = traced(fresh ? "copy" : op, from, to, *fault ? fault + std::string(":error=EIO") : "",
                                      trace);
            if (*fault) {
                EXPECT_EQ(status, 3);
                EXPECT_EQ(fresh ? std::to_string(mode_of(to)) : read_all(to), fresh ? "0" : "old");
                if (*fault == 'f') { // a failed unlink may leave a hidden copy beside: litter, never at `to`
                    EXPECT_EQ(entries(), before);
                }
                continue;
            }
            ASSERT_EQ(status, 0);
            EXPECT_EQ(read_all(to), "new");
            // Only fdatasync and fsync lines end "<path>)" here; the rename's first name is the moved file.
            std::string const log = read_all(trace);
            std::size_t const renamed = log.find(", \"" + to + "\""), end = log.rfind('"', renamed - 1);
            ASSERT_NE(renamed, std::string::npos) << "no rename onto the target";
            std::string const moved = log.substr(log.rfind('"', end - 1) + 1, end - log.rfind('"', end - 1) - 1);
            EXPECT_LT(log.find("<" + moved + ">)"), renamed) << moved << " not synced before";
            EXPECT_NE(log.find("<" + s.dir() + ">)", renamed), std::string::npos) << "folder not synced after";
        }
    }
}

// A name that is taken (by anyone, a planted link included) is skipped for a fresh one; any other
// failure is reported, not retried.
TEST(Temp, TakenNamesAreSkipped) {
    if (!strace_works())
        GTEST_SKIP() << "strace is missing or tracing is not permitted here";
    Scratch s;
    EXPECT_EQ(traced("tmpfile", s.dir(), "-", "openat:error=EEXIST:when=1..3"), 0);
    EXPECT_EQ(traced("tmpfile", s.dir(), "-", "openat:error=EACCES:when=1"), 3);
    EXPECT_EQ(std::distance(std::filesystem::directory_iterator(s.dir()), {}), 1);
    std::ofstream(s.at("a")) << "new";
    std::ofstream(s.at("b")) << "old";
    // The source, the exclusive try at the destination, then two taken hidden names beside it.
    EXPECT_EQ(traced("copy", s.at("a"), s.at("b"), "openat:error=EEXIST:when=3..4"), 0);
    EXPECT_EQ(read_all(s.at("b")), "new");
    EXPECT_EQ(std::distance(std::filesystem::directory_iterator(s.dir()), {}), 3);
}

TEST(Temp, NamesDifferAndFollowThePattern) {
    std::set<std::string> seen;
    for (int i = 0; i < 2000; ++i) {
        std::string const name = utf8(hostfs::tmpnam(u"/some/folder", u"pre", u".ext"));
        ASSERT_EQ(name.size(), 16 + 16 + 4u) << name; // "/some/folder/pre", 16 letters or digits, ".ext"
        EXPECT_EQ(name.substr(0, 16) + name.substr(32), "/some/folder/pre.ext");
        EXPECT_EQ(name.find_first_not_of("abcdefghijklmnopqrstuvwxyz0123456789", 16), 32u) << name;
        EXPECT_TRUE(seen.insert(name).second);
    }
    EXPECT_EQ(hostfs::tmpnam(u"/f/", u"", u"").size(), 3u + 16u);

    Scratch s;
    std::u16string name;
    std::FILE* f = hostfs::tmpfile(name, utf16(s.dir()), u".", u".tmp");
    ASSERT_NE(f, nullptr);
    std::fputs("hello", f);
    std::fclose(f);
    EXPECT_EQ(read_all(utf8(name)), "hello");
    EXPECT_EQ(mode_of(utf8(name)), S_IFREG | 0600u);
    std::u16string untouched = u"unchanged";
    for (std::u16string const& folder : {s.u("missing"), s.u("bad") + char16_t(0xD800)}) {
        errno = 0;
        EXPECT_EQ(hostfs::tmpfile(untouched, folder, u".", u".tmp"), nullptr);
        EXPECT_EQ(errno, folder.back() == 0xD800 ? EINVAL : ENOENT);
    }
    EXPECT_EQ(untouched, u"unchanged");
}

TEST(RemoveAll, NeverFollowsALinkOutOfTheTree) {
    Scratch s;
    std::string const outside = s.at("outside"), tree = s.at("tree");
    std::filesystem::create_directories(tree + "/sub/deeper");
    std::filesystem::create_directories(outside + "/inner");
    std::ofstream(outside + "/precious") << "keep";
    std::ofstream(tree + "/sub/f") << "go";
    for (std::string const& target : {outside, outside + "/precious", outside + "/inner", std::string("gone")})
        for (std::string const& at : {tree + "/", tree + "/sub/deeper/"})
            ASSERT_EQ(::symlink(target.c_str(), (at + std::to_string(target.size())).c_str()), 0);
    EXPECT_EQ(hostfs::remove_all(utf16(tree)), 12u);
    EXPECT_EQ(mode_of(tree), 0u);
    EXPECT_EQ(read_all(outside + "/precious"), "keep");
    EXPECT_TRUE(S_ISDIR(mode_of(outside + "/inner")));

    // A link given directly goes; its target folder stays whole.
    ASSERT_EQ(::symlink(outside.c_str(), s.at("link").c_str()), 0);
    EXPECT_EQ(hostfs::remove_all(s.u("link")), 1u);
    EXPECT_EQ(read_all(outside + "/precious"), "keep");
    EXPECT_EQ(hostfs::remove_all(s.u("none")), 0u);
    EXPECT_EQ(hostfs::remove_all(s.u("outside/precious/below")), 0u);
}

// A failed unlink deep in a tree and an unreadable source are reported with their own paths.
TEST(Denied, FailedUnlinkAndUnreadableSourceAreReported) {
    Scratch s;
    std::filesystem::create_directories(s.at("kept/sub"));
    ::chmod(s.at("kept").c_str(), 0777); // nobody may take "sub" out of it once it is empty
    std::ofstream(s.at("kept/sub/f")) << "x";
    std::ofstream(s.at("secret")) << "x";
    ::chmod(s.at("kept/sub").c_str(), 0555); // may be listed, not emptied
    ::chmod(s.at("secret").c_str(), 0);
    std::u16string const kept = s.u("kept"), kept_f = s.u("kept/sub/f"), secret = s.u("secret"), copy = s.u("copy");
    int const failed = where_bits_bind([&] { // a bit per failed check
        if (std::ifstream(utf8(secret)).is_open())
            return 100; // the runner ignores permission bits
        return int(thrown_path<hostfs::AccessDenied>([&] { hostfs::remove_all(kept); }) != kept_f) +
               2 * (thrown_path<hostfs::AccessDenied>([&] { hostfs::copy_file(secret, copy, 0); }) != secret);
    });
    ::chmod(s.at("kept/sub").c_str(), 0755);
    if (failed == 100)
        GTEST_SKIP() << "permission bits do not bind for this runner (and root could not become nobody)";
    EXPECT_EQ(failed, 0);
    EXPECT_EQ(read_all(s.at("kept/sub/f")), "x");
    EXPECT_EQ(mode_of(utf8(copy)), 0u);
}

} // namespace
