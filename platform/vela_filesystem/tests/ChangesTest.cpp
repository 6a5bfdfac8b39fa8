// Changes: copy, rename, removal, creation, temporary files, streams, denied access, hostile paths.
#include "Scratch.hpp"

#include <vela/filesystem/directory_iterator.hpp>
#include <vela/filesystem/exceptions.hpp>
#include <vela/filesystem/fstream.hpp>
#include <vela/filesystem/operations.hpp>
#include <vela/filesystem/temp.hpp>

#include <cstdlib>
#include <random>
#include <set>

namespace vfs = vela::filesystem;
using vela_test::mode_of;
using vela_test::read_all;
using vela_test::Scratch;
using vela_test::utf16;
using vela_test::utf8;

namespace {

// When this variable is set ("rename" or "copy", then the two paths, each on its own line), the
// test binary is the child that the durability test runs under strace: one call, then exit.
char const* const traced_variable = "VELA_FS_TRACED_CHILD";

struct TracedChild {
    TracedChild() {
        char const* job = std::getenv(traced_variable);
        if (job == nullptr)
            return;
        std::istringstream lines(job);
        std::string op, from, to;
        std::getline(lines, op);
        std::getline(lines, from);
        std::getline(lines, to);
        int status = 0;
        try {
            if (op == "rename")
                vfs::rename(utf16(from), utf16(to));
            else
                vfs::copy_file(utf16(from), utf16(to), vfs::copy_option::overwrite_if_exists);
        } catch (vfs::FsysExceptionBase const&) {
            status = 3;
        }
        std::_Exit(status);
    }
} const traced_child;

TEST(CopyFile, ContentModeAndExistingDestination) {
    Scratch s;
    std::mt19937 rng(1);
    for (std::size_t size : {0u, 1u, 4095u, 4096u, (1u << 20) + 17}) {
        std::string data(size, '\0');
        for (char& c : data)
            c = char(rng());
        std::string const from = s.at("src" + std::to_string(size)), to = s.at("dst" + std::to_string(size));
        std::ofstream(from, std::ios::binary) << data;
        ::chmod(from.c_str(), 0751);
        vfs::copy_file(utf16(from), utf16(to), vfs::copy_option::fail_if_exists);
        EXPECT_EQ(read_all(to), data) << size;
        EXPECT_EQ(mode_of(to) & 07777, 0751u);
    }

    std::ofstream(s.at("a")) << "new content";
    std::ofstream(s.at("b")) << "old content that is longer";
    ::chmod(s.at("a").c_str(), 0640);
    EXPECT_THROW(vfs::copy_file(s.u("a"), s.u("b"), 0), vfs::FileExistsError);
    EXPECT_EQ(read_all(s.at("b")), "old content that is longer");
    ASSERT_EQ(::link(s.at("b").c_str(), s.at("b-hard").c_str()), 0); // overwriting replaces, never writes into
    vfs::copy_file(s.u("a"), s.u("b"), 1);
    EXPECT_EQ(read_all(s.at("b")), "new content");
    EXPECT_EQ(read_all(s.at("b-hard")), "old content that is longer");
    EXPECT_EQ(mode_of(s.at("b")) & 0777, 0640u);

    // A link planted at the destination is never followed, with either option.
    std::ofstream(s.at("victim")) << "keep";
    ASSERT_EQ(::symlink(s.at("victim").c_str(), s.at("trap").c_str()), 0);
    EXPECT_THROW(vfs::copy_file(s.u("a"), s.u("trap"), 1), vfs::FileExistsError);
    EXPECT_THROW(vfs::copy_file(s.u("a"), s.u("trap"), 0), vfs::FileExistsError);
    EXPECT_EQ(read_all(s.at("victim")), "keep");

    ASSERT_EQ(::mkdir(s.at("dir").c_str(), 0755), 0);
    EXPECT_THROW(vfs::copy_file(s.u("none"), s.u("c"), 0), vfs::PathNotFound);
    EXPECT_THROW(vfs::copy_file(s.u("dir"), s.u("c"), 0), vfs::FileIsDirectory);
    EXPECT_FALSE(vfs::exists(s.u("c")));
}

TEST(CopyDirectory, CopiesLinksAsLinksAndMerges) {
    Scratch s;
    std::string const src = s.at("src"), dst = s.at("dst");
    std::filesystem::create_directories(src + "/sub");
    ::chmod((src + "/sub").c_str(), 0700);
    std::ofstream(src + "/f") << "one";
    std::ofstream(src + "/sub/g h") << "two";
    std::ofstream(s.at("outside")) << "out";
    std::vector<std::pair<std::string, std::string>> const links{
        {"to-file", s.at("outside")}, {"to-dir", "sub"}, {"dangling", "gone"}};
    for (auto const& [name, target] : links)
        ASSERT_EQ(::symlink(target.c_str(), (src + "/" + name).c_str()), 0);
    ::mkdir(dst.c_str(), 0755);
    std::ofstream(dst + "/kept") << "kept";

    vfs::copy_directory(utf16(src), utf16(dst));
    EXPECT_EQ(read_all(dst + "/f"), "one");
    EXPECT_EQ(read_all(dst + "/sub/g h"), "two");
    EXPECT_EQ(read_all(dst + "/kept"), "kept");
    EXPECT_EQ(mode_of(dst + "/sub") & 0777, 0700u);
    for (auto const& [name, target] : links) {
        EXPECT_TRUE(S_ISLNK(mode_of(dst + "/" + name))) << name;
        EXPECT_EQ(std::filesystem::read_symlink(dst + "/" + name).string(), target);
    }
    EXPECT_THROW(vfs::copy_directory(utf16(src), utf16(dst)), vfs::FileExistsError);
    EXPECT_THROW(vfs::copy_directory(s.u("none"), s.u("x")), vfs::PathNotFound);
    EXPECT_THROW(vfs::copy_directory(s.u("outside"), s.u("x")), vfs::NotDirectoryError);
}

TEST(Changes, RenameCreateAndRemove) {
    Scratch s;
    std::ofstream(s.at("a")) << "A";
    std::ofstream(s.at("b")) << "B";
    std::ofstream(s.at("c")) << "C";
    vfs::rename(s.u("a"), s.u("b"));
    EXPECT_FALSE(vfs::exists(s.u("a")));
    EXPECT_EQ(read_all(s.at("b")), "A");
    // The moved file never has a bit that the replaced file (or the one behind a link) lacked.
    for (char const* target : {"private", "to-private"}) {
        std::ofstream(s.at("private")) << "old";
        std::ofstream(s.at("open")) << "new";
        ::chmod(s.at("private").c_str(), 0600);
        ::chmod(s.at("open").c_str(), 0644);
        ::symlink("private", s.at("to-private").c_str());
        vfs::rename(s.u("open"), s.u(target));
        EXPECT_EQ(mode_of(s.at(target)), S_IFREG | 0600u) << target;
    }
    vfs::rename_options keep;
    keep.no_replace = true;
    EXPECT_THROW(vfs::rename(s.u("c"), s.u("b"), keep), vfs::FileExistsError);
    EXPECT_EQ(read_all(s.at("b")), "A");
    vfs::create_directory(s.u("d"));
    vfs::rename(s.u("c"), s.u("d/c"), keep); // two folders to sync
    EXPECT_EQ(read_all(s.at("d/c")), "C");
    EXPECT_THROW(vfs::rename(s.u("none"), s.u("x")), vfs::PathNotFound);
    vfs::create_directory(s.u("e"));
    EXPECT_THROW(vfs::rename(s.u("e"), s.u("d")), vfs::DirectoryNotEmpty);
    EXPECT_THROW(vfs::rename(s.u("b"), s.u("d")), vfs::FileIsDirectory);
    EXPECT_EQ(read_all(s.at("d/c")), "C");

    EXPECT_TRUE(vfs::create_directories(s.u("p/q/r/")));
    EXPECT_TRUE(S_ISDIR(mode_of(s.at("p/q/r"))));
    EXPECT_FALSE(vfs::create_directories(s.u("p/q")));
    EXPECT_THROW(vfs::create_directories(s.u("b")), vfs::FileExistsError);
    EXPECT_THROW(vfs::create_directories(s.u("b/sub")), vfs::NotDirectoryError);
    vfs::create_symlink(u"b", s.u("l"));
    EXPECT_THROW(vfs::create_symlink(u"x", s.u("l")), vfs::FileExistsError);
    vfs::copy_symlink(s.u("l"), s.u("l2"));
    EXPECT_EQ(std::filesystem::read_symlink(s.at("l2")).string(), "b");

    vfs::remove(s.u("l")); // the link, not what it names
    EXPECT_EQ(mode_of(s.at("l")), 0u);
    EXPECT_EQ(read_all(s.at("b")), "A");
    EXPECT_THROW(vfs::remove(s.u("d")), vfs::DirectoryNotEmpty);
    vfs::remove(s.u("b"));
    vfs::remove(s.u("e"));
    EXPECT_EQ(mode_of(s.at("b")) | mode_of(s.at("e")), 0u);
    EXPECT_THROW(vfs::remove(s.u("b")), vfs::PathNotFound);
}

int shell(std::string const& command) {
    int const status = std::system(command.c_str());
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

// Under strace: the moved file's data is synced before the rename and the folder after it; with
// each of those steps (or the removal of the old content) failing in turn, the call fails and
// the destination keeps its old content.
TEST(Rename, DataThenNameThenFolderAndNothingChangedOnFailure) {
    if (shell("strace -o /dev/null true >/dev/null 2>&1") != 0)
        GTEST_SKIP() << "strace is missing or tracing is not permitted here";
    Scratch s;
    std::vector<char> self(4096);
    ASSERT_GT(::readlink("/proc/self/exe", self.data(), self.size() - 1), 0);
    for (char const* op : {"rename", "copy"}) {
        for (char const* fault : {"", "fdatasync", "fsync", "unlink,unlinkat"}) {
            SCOPED_TRACE(std::string(op) + " failing " + fault);
            std::string const from = s.at("new"), to = s.at("target"), trace = s.at("trace");
            std::ofstream(to) << "old";
            std::ofstream(from) << "new";
            std::string const inject = *fault ? std::string(" -e inject=") + fault + ":error=EIO" : "";
            std::string const command = std::string(traced_variable) + "=\"$(printf '%s\\n%s\\n%s' " + op +
                                        " '" + from + "' '" + to + "')\" strace -f -y -qq -o '" + trace +
                                        "' -e trace=fdatasync,fsync,rename,renameat,renameat2,unlink,unlinkat" +
                                        inject + " '" + self.data() + "' >/dev/null 2>&1";
            int const status = shell(command);
            if (*fault) {
                EXPECT_EQ(status, 3);
                EXPECT_EQ(read_all(to), "old");
                continue;
            }
            ASSERT_EQ(status, 0) << command;
            EXPECT_EQ(read_all(to), "new");
            std::ifstream in(trace);
            std::vector<std::string> lines;
            for (std::string line; std::getline(in, line);)
                if (line.size() > 4 && line.compare(line.size() - 4, 4, " = 0") == 0)
                    lines.push_back(line);
            // The first successful call at or after `start` whose line holds both pieces.
            auto find = [&](std::string const& call, std::string const& piece, std::size_t start) {
                for (std::size_t i = start; i < lines.size(); ++i)
                    if (lines[i].find(call) != std::string::npos && lines[i].find(piece) != std::string::npos)
                        return i;
                return lines.size();
            };
            std::size_t const renamed = find("rename", ", \"" + to + "\"", 0);
            ASSERT_LT(renamed, lines.size()) << "no rename onto the target";
            std::string const moved = lines[renamed].substr(lines[renamed].find('"') + 1);
            std::string const moved_path = moved.substr(0, moved.find('"'));
            EXPECT_LT(find("fdatasync(", "<" + moved_path + ">)", 0), renamed) << moved_path << " not synced before";
            EXPECT_LT(find("fsync(", "<" + s.dir() + ">)", renamed), lines.size()) << "folder not synced after";
        }
    }
}

TEST(RemoveAll, NeverFollowsALinkOutOfTheTree) {
    Scratch s;
    std::string const outside = s.at("outside"), tree = s.at("tree");
    ::mkdir(outside.c_str(), 0755);
    ::mkdir(tree.c_str(), 0755);
    std::ofstream(outside + "/precious") << "keep";
    ASSERT_GT(vela_test::make_tree(tree, 9, 300, {outside, outside + "/precious"}), 20);
    EXPECT_EQ(vfs::remove_all(utf16(tree)), 301u);
    EXPECT_EQ(mode_of(tree), 0u);
    EXPECT_EQ(read_all(outside + "/precious"), "keep");

    // A link given directly goes; its target folder stays whole.
    ASSERT_EQ(::symlink(outside.c_str(), s.at("link").c_str()), 0);
    EXPECT_EQ(vfs::remove_all(s.u("link")), 1u);
    EXPECT_EQ(read_all(outside + "/precious"), "keep");
    EXPECT_EQ(vfs::remove_all(s.u("none")), 0u);
}

TEST(Temp, NamesDifferAndFollowThePattern) {
    std::set<std::string> seen;
    for (int i = 0; i < 2000; ++i) {
        std::string const name = utf8(vfs::tmpnam(u"/some/folder", u"pre", u".ext"));
        ASSERT_EQ(name.size(), 16 + 16 + 4u) << name; // "/some/folder/pre", 16 letters or digits, ".ext"
        EXPECT_EQ(name.substr(0, 16) + name.substr(32), "/some/folder/pre.ext");
        EXPECT_EQ(name.find_first_not_of("abcdefghijklmnopqrstuvwxyz0123456789", 16), 32u) << name;
        EXPECT_TRUE(seen.insert(name).second);
    }
    EXPECT_EQ(vfs::tmpnam(u"/f/", u"", u"").size(), 3u + 16u);
}

TEST(Temp, TmpfileCreatesPrivateFileAndSkipsPlantedLinks) {
    Scratch s;
    std::u16string name;
    std::FILE* f = vfs::tmpfile(name, utf16(s.dir()), u".", u".tmp");
    ASSERT_NE(f, nullptr);
    std::fputs("hello", f);
    std::fclose(f);
    EXPECT_EQ(read_all(utf8(name)), "hello");
    EXPECT_EQ(mode_of(utf8(name)), S_IFREG | 0600u);

    // Occupy many names with links to a victim: the exclusive create never opens them.
    std::ofstream(s.at("victim")) << "victim";
    for (int i = 0; i < 200; ++i) {
        std::string const trap = utf8(vfs::tmpnam(utf16(s.dir()), u"t", u""));
        ASSERT_EQ(::symlink(s.at("victim").c_str(), trap.c_str()), 0);
    }
    for (int i = 0; i < 50; ++i) {
        std::u16string other;
        std::FILE* g = vfs::tmpfile(other, utf16(s.dir()), u"t", u"");
        ASSERT_NE(g, nullptr);
        std::fclose(g);
        EXPECT_TRUE(S_ISREG(mode_of(utf8(other))));
    }
    EXPECT_EQ(read_all(s.at("victim")), "victim");

    std::u16string untouched = u"unchanged";
    errno = 0;
    EXPECT_EQ(vfs::tmpfile(untouched, s.u("missing"), u".", u".tmp"), nullptr);
    EXPECT_EQ(errno, ENOENT);
    EXPECT_EQ(untouched, u"unchanged");
}

TEST(Streams, FailedOpenKeepsErrno) {
    Scratch s;
    ::mkdir(s.at("dir").c_str(), 0755);
    struct Open {
        std::u16string path;
        bool output;
        int error;
    };
    for (Open const& o : {Open{s.u("missing"), false, ENOENT}, Open{s.u("no/such/file"), true, ENOENT},
                          Open{s.u("dir"), false, EISDIR}, Open{s.u("dir"), true, EISDIR},
                          Open{s.u("bad") + char16_t(0xD800), false, EINVAL},
                          Open{s.u("bad") + char16_t(0xDFFF), true, EINVAL},
                          Open{std::u16string(u"a\0b", 3), true, EINVAL}, Open{u"", false, ENOENT}}) {
        errno = 0;
        bool const failed = o.output ? vfs::ofstream(o.path, std::ios::binary).fail()
                                     : vfs::ifstream(o.path, std::ios::binary).fail();
        int const error = errno;
        EXPECT_TRUE(failed) << o.error;
        EXPECT_EQ(error, o.error);
    }
    vfs::ofstream(s.u("\xC3\xA9t\xC3\xA9.txt")) << "written";
    std::string word;
    vfs::ifstream(s.u("\xC3\xA9t\xC3\xA9.txt")) >> word;
    EXPECT_EQ(word, "written");
}

// Root ignores permission bits, so these failures are seen from a child running as nobody.
TEST(Denied, UnreadableFolderFileAndStreamAsNobody) {
    Scratch s;
    ASSERT_EQ(::mkdir(s.at("closed").c_str(), 0700), 0);
    std::ofstream(s.at("secret")) << "x";
    ::chmod(s.at("secret").c_str(), 0600);
    ASSERT_EQ(::mkdir(s.at("kept").c_str(), 0755), 0); // nobody may list it, not empty it
    std::ofstream(s.at("kept/f")) << "x";
    // A link to a file whose bits nobody may read: replacing it cannot be kept within them.
    std::ofstream(s.at("closed/private")) << "x";
    ::symlink(s.at("closed/private").c_str(), s.at("guarded").c_str());
    std::ofstream(s.at("wide")) << "x";
    ::chown(s.at("wide").c_str(), 65534, 65534);
    std::u16string const closed = s.u("closed"), secret = s.u("secret"), copy = s.u("copy"), kept = s.u("kept"),
                         kept_f = s.u("kept/f"), wide = s.u("wide"), guarded = s.u("guarded");
    using vela_test::thrown_path;
    int const failed = vela_test::as_nobody([&] { // a bit per failed check
        errno = 0;
        bool const stream_denied = vfs::ifstream(secret).fail() && errno == EACCES;
        return int(thrown_path<vfs::AccessDenied>([&] { vfs::directory_iterator it(closed); }) != closed) +
               2 * (thrown_path<vfs::AccessDenied>([&] { vfs::copy_file(secret, copy, 0); }) != secret) +
               4 * !stream_denied + 8 * (thrown_path<vfs::AccessDenied>([&] { vfs::remove_all(kept); }) != kept_f) +
               16 * (thrown_path<vfs::AccessDenied>([&] { vfs::rename(wide, guarded); }) != guarded);
    });
    EXPECT_EQ(failed, 0);
    EXPECT_TRUE(S_ISLNK(mode_of(s.at("guarded"))));
    EXPECT_FALSE(vfs::exists(copy));
    EXPECT_EQ(read_all(s.at("kept/f")), "x");
}

TEST(HostilePaths, ClearExceptionsAndNothingTouched) {
    Scratch s;
    std::ofstream(s.at("src")) << "x";
    std::u16string long_path = utf16(s.dir()); // every name short, the whole over 4096 bytes
    for (int i = 0; i < 420; ++i)
        long_path += u"/abcdefghij";
    auto expect_all = [&](std::u16string const& p, auto tag) {
        using E = decltype(tag);
        EXPECT_THROW(vfs::symlink_status(p), E);
        EXPECT_THROW(vfs::create_directory(p), E);
        EXPECT_THROW(vfs::create_directories(p), E);
        EXPECT_THROW(vfs::remove(p), E);
        EXPECT_THROW(vfs::copy_file(s.u("src"), p, 0), E);
        EXPECT_THROW(vfs::rename(s.u("src"), p), E);
        EXPECT_THROW(vfs::permissions(p, 0600), E);
        EXPECT_THROW(vfs::directory_iterator it(p), E);
    };
    std::u16string const lone = s.u("x") + char16_t(0xD801), nul = s.u("x") + std::u16string(1, u'\0') + u"y";
    expect_all(lone, vfs::FileNameConversionFailure{});
    expect_all(nul, vfs::InvalidArgument{});
    expect_all(s.u(std::string(256, 'n')), vfs::FileNameTooLarge{});
    expect_all(long_path, vfs::FileNameTooLarge{});
    EXPECT_THROW(vfs::remove_all(lone), vfs::FileNameConversionFailure);
    EXPECT_THROW(vfs::remove_all(nul), vfs::InvalidArgument);

    EXPECT_EQ(std::distance(std::filesystem::directory_iterator(s.dir()), {}), 1);
    EXPECT_EQ(read_all(s.at("src")), "x");
}

} // namespace
