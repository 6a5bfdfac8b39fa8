// Host copy, rename, removal and temporary files: what a failed call or a planted link must not
// cost, on real files and under strace. Missing rights are the library's conformance suite's.
#include <vela/filesystem/directory_iterator.hpp>
#include <vela/filesystem/exceptions.hpp>
#include <vela/filesystem/fstream.hpp>
#include <vela/filesystem/operations.hpp>
#include <vela/filesystem/temp.hpp>

#include <gtest/gtest.h>

#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <sstream>

namespace hostfs = vela::filesystem;

namespace {

// UTF-8 <-> UTF-16 through the standard library, so the tests don't lean on the converter under test.
std::u16string utf16(std::string const& s) { return std::filesystem::path(s).u16string(); }
std::string utf8(std::u16string const& s) { return std::filesystem::path(s).string(); }

std::string read_all(std::string const& p) {
    std::ifstream in(p, std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(in), {});
}

mode_t mode_of(std::string const& p) {
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

/// A fresh folder, removed at the end.
struct Scratch {
    Scratch() {
        if (::mkdtemp(dir.data()) == nullptr) throw std::runtime_error("no scratch folder in /tmp");
    }
    ~Scratch() {
        std::error_code ignored; // a leftover under /tmp is no reason to fail a test
        std::filesystem::remove_all(dir, ignored);
    }
    std::string at(std::string const& name) const { return dir + "/" + name; }
    std::u16string u(std::string const& name) const { return utf16(at(name)); }
    std::size_t entries() const { return std::distance(std::filesystem::directory_iterator(dir), {}); }
    std::string dir = "/tmp/vela-fs-test-XXXXXX";
};

int exit_code(int status) { return WIFEXITED(status) ? WEXITSTATUS(status) : -1; }

// With this variable set to "operation from to", the test binary is the child that a test runs
// under strace. It forks first, so that the operation's calls are the grandchild's first ones and
// strace's "when=" counts only them. Exit 0, or 3 when the operation failed.
char const* const traced_variable = "VELA_FS_TRACED_CHILD";

// A commit's copy to a staged temporary name and its rename, in nested scopes; the suffix says
// what comes between: the file changed, another copy, the staging closed, or no rename at all.
void staged(std::string const& op, std::string const& from, std::string const& to) {
    std::u16string const temporary = utf16(to + ".t");
    hostfs::staged_rename_scope outer;
    hostfs::staged_rename_scope::stage(temporary);
    {
        hostfs::staged_rename_scope inner;
        hostfs::copy_file(utf16(from), temporary, hostfs::copy_option::fail_if_exists);
    }
    if (op == "staged-changed") std::ofstream(to + ".t", std::ios::app) << "+";
    if (op == "staged-other") hostfs::copy_file(utf16(from), utf16(to + ".o"), hostfs::copy_option::overwrite_if_exists);
    if (op == "staged-closed") outer.close();
    if (op != "staged-left") hostfs::rename(temporary, utf16(to));
}

struct TracedChild {
    TracedChild() {
        std::string op, from, to;
        std::u16string name;
        if (char const* job = std::getenv(traced_variable); !(job && std::istringstream(job) >> op >> from >> to))
            return;
        if (pid_t const child = ::fork(); child != 0) {
            int status = 0;
            ::waitpid(child, &status, 0);
            std::_Exit(exit_code(status));
        }
        try {
            if (op == "copy")
                hostfs::copy_file(utf16(from), utf16(to), hostfs::copy_option::overwrite_if_exists);
            else if (op == "chmod")
                hostfs::permissions(utf16(from), 0600);
            else if (op == "remove")
                hostfs::remove_all(utf16(from));
            else if (op == "copydir")
                hostfs::copy_directory(utf16(from), utf16(to));
            else if (op.rfind("staged", 0) == 0)
                staged(op, from, to);
            else if (op == "mkdirs")
                hostfs::create_directories(utf16(to + "/x"));
            else if (op == "rename" || op == "move" || op == "movekeep")
                hostfs::rename(utf16(from), utf16(to), {op == "movekeep", op != "rename"});
            else if (std::FILE* file = hostfs::tmpfile(name, utf16(to), u"t", u""))
                std::fclose(file);
            else
                std::_Exit(3);
        } catch (hostfs::FsysExceptionBase const&) {
            std::_Exit(3);
        }
        std::_Exit(0);
    }
} const traced_child;

/// Runs `op` in a child of this binary under strace, which logs its successful calls to `trace`
/// and fails those that `inject` names; returns the child's exit status.
int traced(std::string const& op, std::string const& from, std::string const& to, std::string const& inject,
           std::string const& trace = "/dev/null") {
    return exit_code(
        std::system((std::string(traced_variable) + "='" + op + " " + from + " " + to + "' strace -f -y -qq -z -o '" +
                     trace + "' -e trace=openat,fdatasync,fsync,rename,renameat,renameat2,unlink,unlinkat,getrandom," +
                     inject.substr(0, inject.find(':')) + // strace injects into traced calls only
                     (inject.empty() ? "" : " -e inject=" + inject) + " /proc/" + std::to_string(::getpid()) +
                     "/exe >/dev/null 2>&1")
                        .c_str()));
}

// The runs under strace, each in a fresh folder.
class Traced : public ::testing::Test {
protected:
    void SetUp() override {
        if (std::system("strace -o /dev/null true >/dev/null 2>&1") != 0)
            GTEST_SKIP() << "strace is missing or tracing is not permitted here";
    }
    Scratch s;
};

TEST(CopyFile, ContentModeAndWhatItRefuses) {
    Scratch s;
    std::string data;
    for (int i = 0; data.size() < (1u << 20) + 17; ++i) data += std::to_string(i) + char(i);
    std::ofstream(s.at("a"), std::ios::binary) << data;
    ::chmod(s.at("a").c_str(), 0751); // wider than the umask lets a new file be
    hostfs::copy_file(s.u("a"), s.u("b"), hostfs::copy_option::fail_if_exists);
    EXPECT_EQ(read_all(s.at("b")), data);
    EXPECT_EQ(mode_of(s.at("b")), S_IFREG | 0751u);
    // A link planted at the destination is never followed nor replaced, with either option.
    std::ofstream(s.at("victim")) << "keep";
    ASSERT_EQ(::symlink(s.at("victim").c_str(), s.at("trap").c_str()), 0);
    ASSERT_EQ(::mkdir(s.at("dir").c_str(), 0755), 0);
    for (int option : {0, 1})
        EXPECT_EQ(thrown_path<hostfs::FileExistsError>([&] { hostfs::copy_file(s.u("a"), s.u("trap"), option); }),
                  s.u("trap"));
    EXPECT_THROW(hostfs::copy_file(s.u("a"), s.u("dir"), 1), hostfs::FileIsDirectory);
    EXPECT_EQ(hostfs::remove_all(s.u("trap")), 1u); // a link given to remove_all goes alone
    EXPECT_EQ(read_all(s.at("victim")), "keep");
    EXPECT_EQ(thrown_path<hostfs::PathNotFound>([&] { hostfs::copy_file(s.u("none"), s.u("c"), 0); }), s.u("none"));
    EXPECT_EQ(thrown_path<hostfs::FileIsDirectory>([&] { hostfs::copy_file(s.u("dir"), s.u("c"), 0); }), s.u("dir"));
    EXPECT_EQ(s.entries(), 4u);
}

// The host output stream writes through, a character at a time too; a second open of an open
// stream is refused and makes nothing. The open modes are the conformance suite's.
TEST(Ofstream, WritesThroughAndRefusesWhatItCannotMean) {
    Scratch s;
    hostfs::ofstream out(s.u("f"));
    out.put('a') << "bc";
    EXPECT_TRUE(out.good());
    EXPECT_EQ(read_all(s.at("f")), "abc");
    out.open(s.u("g"));
    EXPECT_TRUE(out.fail());
    out.clear();
    out.put('d');
    out.close();
    EXPECT_EQ(read_all(s.at("f")), "abcd");
    EXPECT_EQ(s.entries(), 1u);
}

// Removal takes names that only start with dots; a path it cannot even look at, and a folder
// copied from nowhere, are reported.
TEST(RemoveAll, DotNamesGoAndWhatCannotBeSeenIsReported) {
    Scratch s;
    ASSERT_EQ(::mkdir(s.at("d").c_str(), 0755), 0);
    for (char const* name : {".a", "..b", "..."}) std::ofstream(s.at("d/") + name);
    EXPECT_EQ(hostfs::remove_all(s.u("d")), 4u);
    EXPECT_THROW(hostfs::remove_all(s.u(std::string(300, 'x'))), hostfs::FileNameTooLarge);
    EXPECT_THROW(hostfs::copy_directory(s.u("none"), s.u("e")), hostfs::PathNotFound);
    EXPECT_EQ(s.entries(), 0u);
}

TEST(Rename, FailuresNameTheirSide) {
    Scratch s;
    std::ofstream(s.at("c")) << "C";
    std::ofstream(s.at("kept")) << "old";
    ASSERT_EQ(::mkdir(s.at("d").c_str(), 0755), 0);
    ASSERT_EQ(::mkdir(s.at("e").c_str(), 0755), 0);
    hostfs::rename_options keep;
    keep.no_replace = true;
    EXPECT_EQ(thrown_path<hostfs::FileExistsError>([&] { hostfs::rename(s.u("c"), s.u("kept"), keep); }), s.u("kept"));
    hostfs::rename(s.u("c"), s.u("d/c"), keep); // two folders to sync
    EXPECT_EQ(thrown_path<hostfs::PathNotFound>([&] { hostfs::rename(s.u("none"), s.u("x")); }), s.u("none"));
    EXPECT_EQ(thrown_path<hostfs::DirectoryNotEmpty>([&] { hostfs::rename(s.u("e"), s.u("d")); }), s.u("d"));
    EXPECT_EQ(thrown_path<hostfs::FileIsDirectory>([&] { hostfs::rename(s.u("kept"), s.u("d")); }), s.u("d"));
    EXPECT_EQ(read_all(s.at("d/c")) + read_all(s.at("kept")), "Cold");
    EXPECT_EQ(thrown_path<hostfs::FileExistsError>([&] { hostfs::create_directories(s.u("kept")); }), s.u("kept"));
    EXPECT_EQ(thrown_path<hostfs::NotDirectoryError>([&] { hostfs::copy_directory(s.u("e"), s.u("kept")); }),
              s.u("kept"));
    ASSERT_EQ(::symlink("kept", s.at("l").c_str()), 0);
    hostfs::rename(s.u("l"), s.u("e/l")); // a link moves as it is, never opened
    EXPECT_TRUE(S_ISLNK(mode_of(s.at("e/l"))));
    // A listed name that is not UTF-8 (a lone continuation byte) is reported, not widened.
    ASSERT_EQ(::mkdir(s.at("f").c_str(), 0755), 0);
    std::ofstream(s.at("f/\x80"));
    EXPECT_THROW(hostfs::directory_iterator(s.u("f"))->full_pathname(), hostfs::FileNameConversionFailure);
}

// A file whose bits cannot be read (behind a link into a closed folder) cannot have the moved
// file narrowed to them, so the rename is refused and both names stay. A moved file its owner
// may only write is synced through a write-only descriptor, one it may neither read nor write
// by a flush of its file system: both move. The checks run in a child, which as root (who
// reads everything) first drops to nobody.
TEST(Rename, WhatTheOwnerMayNotReadOrWrite) {
    Scratch s;
    ASSERT_EQ(::chmod(s.dir.c_str(), 0777), 0);
    ASSERT_EQ(::mkdir(s.at("closed").c_str(), 0755), 0);
    std::ofstream(s.at("closed/private")) << "x";
    ASSERT_EQ(::symlink(s.at("closed/private").c_str(), s.at("guarded").c_str()), 0);
    ASSERT_EQ(::chmod(s.at("closed").c_str(), 0), 0);
    bool const root = ::geteuid() == 0;
    for (auto [name, mode] : {std::pair{"wide", 0644}, {"writeonly", 0200}, {"none", 0}}) {
        std::ofstream(s.at(name)) << "x";
        ASSERT_EQ(::chmod(s.at(name).c_str(), mode_t(mode)), 0);
        ASSERT_TRUE(!root || ::chown(s.at(name).c_str(), 65534, 65534) == 0);
    }
    pid_t const child = ::fork();
    if (child == 0) {
        if (root && (::setresgid(65534, 65534, 65534) != 0 || ::setresuid(65534, 65534, 65534) != 0))
            std::_Exit(1);
        try {
            hostfs::rename(s.u("writeonly"), s.u("w2"));
            hostfs::rename(s.u("none"), s.u("n2"));
        } catch (hostfs::FsysExceptionBase const&) {
            std::_Exit(2);
        }
        std::_Exit(thrown_path<hostfs::AccessDenied>([&] { hostfs::rename(s.u("wide"), s.u("guarded")); }) == s.u("guarded") ? 0 : 3);
    }
    int status = 0;
    ::waitpid(child, &status, 0);
    ::chmod(s.at("closed").c_str(), 0755);
    EXPECT_EQ(exit_code(status), 0); // 1: no other user, 2: a move refused, 3: the guarded rename not refused
    EXPECT_TRUE(S_ISLNK(mode_of(s.at("guarded"))));
    EXPECT_EQ(read_all(s.at("wide")), "x");
    EXPECT_EQ(mode_of(s.at("w2")), S_IFREG | 0200u);
    EXPECT_EQ(mode_of(s.at("n2")), S_IFREG | 0u);
}

// A copy's data is synced before a rename gives it the name, and the folder after. A staged
// copy's data and folder are flushed once with its rename when nothing came between; anything
// that did pays the owed folder flush first, and the rename flushes as usual.
TEST_F(Traced, CopiesFlushInOrderAndStagedRenamesShareTheirFlushes) {
    std::string const trace = s.at("trace");
    struct Row {
        char const *op, *to;
        int data, folder; // fdatasync and fsync calls
    } const rows[] = {{"copy", "b", 1, 1}, {"copy", "c", 1, 1}, {"staged", "b", 1, 1}, {"staged-changed", "b", 2, 2}, {"staged-other", "b", 3, 3}, {"staged-closed", "b", 2, 2}, {"staged-left", "b", 1, 1}};
    for (Row const& r : rows) {
        SCOPED_TRACE(r.op + std::string(" to ") + r.to);
        std::ofstream(s.at("a")) << "A";
        std::ofstream(s.at("b")) << "B";
        ::unlink(s.at("b.t").c_str());
        ::unlink(s.at("c").c_str());
        ASSERT_EQ(traced(r.op, s.at("a"), s.at(r.to), "", trace), 0);
        std::string const log = read_all(trace);
        auto count = [&](std::string const& call) {
            int n = 0;
            for (auto at = log.find(" " + call + "("); at != std::string::npos; at = log.find(" " + call + "(", at + 1))
                ++n;
            return n;
        };
        EXPECT_EQ(count("fdatasync"), r.data) << log;
        EXPECT_EQ(count("fsync"), r.folder) << log;
        std::size_t const data = log.find("fdatasync("), renamed = log.find("rename"), folder = log.rfind("<" + s.dir + ">)");
        EXPECT_TRUE(data < folder && (renamed == std::string::npos || (data < renamed && renamed < folder))) << log;
        EXPECT_EQ(read_all(s.at(r.op == std::string("staged-left") ? "b.t" : r.to)).substr(0, 1), "A");
    }
}

// A step that fails is reported (exit 3) and leaves the files as they were, nothing beside them.
// A copy refused by the kernel is made by hand; a move across file systems copies only when
// allowed to. A temporary or hidden name that is taken (by anyone, a planted link included) is
// skipped for a fresh one; any other failure, of the open or of the source of randomness, is
// reported, not retried.
TEST_F(Traced, FailedStepsAreReported) {
    std::string const a = s.at("a"), b = s.at("b"), c = s.at("c");
    struct Row {
        char const *op, *to;
        std::string inject; // strace's -e inject=, with -P for the calls on one path only
        int status;
        std::string left;   // the content of a, b and c after it, one file a letter
        std::size_t beside; // how many other names it leaves
    } const rows[] = {
        {"chmod", "-", "newfstatat:error=EIO -P " + a, 3, "AB", 0}, // the look before the change
        {"remove", "-", "unlink:error=EIO", 3, "AB", 0},
        {"rename", "b", "fdatasync:error=EIO", 3, "AB", 0},            // the data before the name
        {"rename", "b", "renameat2:error=EIO", 3, "AB", 0},            // the exchange over b
        {"rename", "c", "rename:error=EIO", 3, "AB", 0},               // the plain rename to a new name
        {"rename", "b", "renameat2:error=EXDEV:when=1", 3, "AB", 0},   // across file systems: not allowed
        {"move", "b", "renameat2:error=EXDEV:when=1", 0, "A", 0},      // allowed: copied, source removed
        {"movekeep", "b", "renameat2:error=EXDEV:when=1", 3, "AB", 0}, // allowed, but b is taken
        {"copy", "b", "fdatasync:error=EIO", 3, "AB", 0},              // the copy's data, over b or new
        {"copy", "c", "fdatasync:error=EIO", 3, "AB", 0},
        {"copy", "b", "fsync:error=EIO", 3, "AB", 0}, // the folder
        {"copy", "c", "fsync:error=EIO", 3, "AB", 0},
        {"copy", "b", "unlink,unlinkat:error=EIO", 3, "AB", 1}, // the old content: a hidden copy stays
        {"copy", "c", "close:error=EIO -P " + c, 3, "AB", 0},   // of the new file only
        {"copy", "c", "copy_file_range:error=EIO", 3, "AB", 0},
        {"copy", "b", "openat:error=EACCES:when=3", 3, "AB", 0},    // the hidden name beside b
        {"copy", "b", "openat:error=EEXIST:when=3..4", 0, "AA", 0}, // two hidden names taken
        {"copy", "c", "copy_file_range:error=ENOSYS", 0, "ABA", 0},
        {"copy", "c", "copy_file_range:error=EOPNOTSUPP", 0, "ABA", 0},
        {"copy", "c", "copy_file_range:error=EINVAL", 0, "ABA", 0},
        {"copy", "c", "copy_file_range:error=EXDEV", 0, "ABA", 0},
        {"mkdirs", "n", "mkdir:error=EIO:when=3", 3, "AB", 1}, // n/x again, once n is made
        {"tmpfile", ".", "openat:error=EEXIST:when=1..3", 0, "AB", 1},
        {"tmpfile", ".", "openat:error=EACCES:when=1", 3, "AB", 0},
        {"tmpfile", ".", "getrandom:error=EIO", 3, "AB", 0}, // no name without fresh randomness
    };
    for (Row const& r : rows) {
        SCOPED_TRACE(std::string(r.op) + " to " + r.to + " failing " + r.inject);
        std::filesystem::remove_all(s.dir);
        std::filesystem::create_directory(s.dir);
        std::ofstream(a) << "A";
        std::ofstream(b) << "B";
        EXPECT_EQ(traced(r.op, a, s.at(r.to), r.inject), r.status);
        EXPECT_EQ(read_all(a) + read_all(b) + read_all(c), r.left);
        EXPECT_EQ(s.entries(), r.left.size() + r.beside);
    }
    // A link moved across file systems is copied as a link; a file so moved replaces a link.
    ASSERT_EQ(::symlink("a", s.at("l").c_str()), 0);
    EXPECT_EQ(traced("move", s.at("l"), s.at("m"), "renameat2:error=EXDEV:when=1"), 0);
    EXPECT_TRUE(S_ISLNK(mode_of(s.at("m"))) && mode_of(s.at("l")) == 0);
    EXPECT_EQ(traced("move", b, s.at("m"), "renameat2:error=EXDEV:when=1"), 0);
    EXPECT_EQ(mode_of(s.at("m")) & S_IFMT, S_IFREG);
    EXPECT_EQ(read_all(a) + read_all(s.at("m")), "AB");
    // The copy of a folder syncs the folder that received the names.
    ASSERT_EQ(::mkdir(s.at("d").c_str(), 0755), 0);
    EXPECT_EQ(traced("copydir", s.at("d"), s.at("e"), "fsync:error=EIO"), 3);
}

// Names the library's temporary-name tests do not look into: their exact shape, and the mode
// of a new temporary file.
TEST(Temp, NamesFollowThePatternAndFilesAreOwnerOnly) {
    for (int i = 0; i < 500; ++i) {
        std::string const name = utf8(hostfs::tmpnam(u"/some/folder", u"pre", u".ext"));
        ASSERT_EQ(name.size(), 16 + 16 + 4u) << name; // "/some/folder/pre", 16 letters or digits, ".ext"
        EXPECT_EQ(name.substr(0, 16) + name.substr(32), "/some/folder/pre.ext");
        EXPECT_EQ(name.find_first_not_of("abcdefghijklmnopqrstuvwxyz0123456789", 16), 32u) << name;
    }
    Scratch s;
    std::u16string name;
    std::FILE* f = hostfs::tmpfile(name, utf16(s.dir), u".", u".tmp");
    ASSERT_NE(f, nullptr);
    std::fclose(f);
    EXPECT_EQ(mode_of(utf8(name)), S_IFREG | 0600u);
}

} // namespace
