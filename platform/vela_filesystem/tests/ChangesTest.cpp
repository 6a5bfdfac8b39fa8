// Changes: copy, rename, removal, creation, temporary files, streams, hostile paths.
#include "Scratch.hpp"

#include <vela/filesystem/directory_iterator.hpp>
#include <vela/filesystem/exceptions.hpp>
#include <vela/filesystem/fstream.hpp>
#include <vela/filesystem/operations.hpp>
#include <vela/filesystem/temp.hpp>

#include <gtest/gtest.h>

#include <fcntl.h>
#include <sys/stat.h>

#include <fstream>
#include <random>
#include <set>
#include <sstream>

namespace vfs = vela::filesystem;
using vela_test::Scratch;
using FS = vfs::file_status;

namespace {

std::string read_all(std::string const& p) {
    std::ifstream in(p, std::ios::binary);
    std::stringstream ss;
    ss << in.rdbuf();
    return ss.str();
}

mode_t mode_of(std::string const& p) {
    struct stat st;
    return ::lstat(p.c_str(), &st) == 0 ? st.st_mode : 0;
}

std::string random_bytes(std::mt19937& rng, std::size_t n) {
    std::string out(n, '\0');
    for (char& c : out)
        c = char(rng());
    return out;
}

TEST(CopyFile, CopiesContentAndModeOfVariedSizes) {
    Scratch s;
    std::mt19937 rng(1);
    for (std::size_t size : {std::size_t(0), std::size_t(1), std::size_t(4095), std::size_t(4096),
                             std::size_t(1 << 20) + 17}) {
        std::string const data = random_bytes(rng, size);
        std::string const from = s.at("src" + std::to_string(size));
        std::string const to = s.at("dst" + std::to_string(size));
        std::ofstream(from, std::ios::binary) << data;
        ::chmod(from.c_str(), 0751);
        vfs::copy_file(Scratch::utf16(from), Scratch::utf16(to), vfs::copy_option::fail_if_exists);
        EXPECT_EQ(read_all(to), data) << size;
        EXPECT_EQ(mode_of(to) & 07777, 0751u);
    }
}

TEST(CopyFile, ExistingDestinationRefusedOrOverwritten) {
    Scratch s;
    std::ofstream(s.at("a")) << "new content";
    std::ofstream(s.at("b")) << "old content that is longer";
    ::chmod(s.at("a").c_str(), 0640);
    ::chmod(s.at("b").c_str(), 0600);
    EXPECT_THROW(vfs::copy_file(s.u("a"), s.u("b"), 0), vfs::FileExistsError);
    EXPECT_EQ(read_all(s.at("b")), "old content that is longer");
    vfs::copy_file(s.u("a"), s.u("b"), 1);
    EXPECT_EQ(read_all(s.at("b")), "new content");
    EXPECT_EQ(mode_of(s.at("b")) & 0777, 0640u);

    // A link planted at the destination is never followed, with either option.
    std::ofstream(s.at("victim")) << "keep";
    ASSERT_EQ(::symlink(s.at("victim").c_str(), s.at("trap").c_str()), 0);
    EXPECT_THROW(vfs::copy_file(s.u("a"), s.u("trap"), 1), vfs::FileExistsError);
    EXPECT_THROW(vfs::copy_file(s.u("a"), s.u("trap"), 0), vfs::FileExistsError);
    EXPECT_EQ(read_all(s.at("victim")), "keep");

    EXPECT_THROW(vfs::copy_file(s.u("none"), s.u("c"), 0), vfs::PathNotFound);
    EXPECT_FALSE(vfs::exists(s.u("c")));
    ASSERT_EQ(::mkdir(s.at("dir").c_str(), 0755), 0);
    EXPECT_THROW(vfs::copy_file(s.u("dir"), s.u("c"), 0), vfs::FileIsDirectory);
    EXPECT_FALSE(vfs::exists(s.u("c")));
}

TEST(CopyFile, UnreadableSourceLeavesNoDestination) {
    Scratch s;
    std::ofstream(s.at("secret")) << "x";
    ::chmod(s.at("secret").c_str(), 0600);
    std::u16string const from = s.u("secret"), to = s.u("copy");
    EXPECT_TRUE(vela_test::as_nobody([&] {
        try {
            vfs::copy_file(from, to, 0);
        } catch (vfs::AccessDenied const& e) {
            return e.path() == from;
        }
        return false;
    }));
    EXPECT_FALSE(vfs::exists(to));
}

TEST(CopyDirectory, CopiesLinksAsLinksAndMerges) {
    Scratch s;
    std::string const src = s.at("src");
    ::mkdir(src.c_str(), 0750);
    ::mkdir((src + "/sub").c_str(), 0700);
    std::ofstream(src + "/f") << "one";
    std::ofstream(src + "/sub/g h") << "two";
    std::ofstream(s.at("outside")) << "out";
    ASSERT_EQ(::symlink(s.at("outside").c_str(), (src + "/to-file").c_str()), 0);
    ASSERT_EQ(::symlink("sub", (src + "/to-dir").c_str()), 0);
    ASSERT_EQ(::symlink("gone", (src + "/dangling").c_str()), 0);

    std::string const dst = s.at("dst");
    ::mkdir(dst.c_str(), 0755);
    std::ofstream(dst + "/kept") << "kept";
    vfs::copy_directory(Scratch::utf16(src), Scratch::utf16(dst));

    EXPECT_EQ(read_all(dst + "/f"), "one");
    EXPECT_EQ(read_all(dst + "/sub/g h"), "two");
    EXPECT_EQ(read_all(dst + "/kept"), "kept");
    EXPECT_EQ(mode_of(dst + "/sub") & 0777, 0700u);
    for (auto const& [name, target] : std::vector<std::pair<std::string, std::string>>{
             {"to-file", s.at("outside")}, {"to-dir", "sub"}, {"dangling", "gone"}}) {
        EXPECT_TRUE(S_ISLNK(mode_of(dst + "/" + name))) << name;
        EXPECT_EQ(std::filesystem::read_symlink(dst + "/" + name).string(), target);
    }
    // A second copy into the same destination meets existing files.
    EXPECT_THROW(vfs::copy_directory(Scratch::utf16(src), Scratch::utf16(dst)), vfs::FileExistsError);
    EXPECT_THROW(vfs::copy_directory(s.u("none"), s.u("x")), vfs::PathNotFound);
    EXPECT_THROW(vfs::copy_directory(s.u("outside"), s.u("x")), vfs::NotDirectoryError);
}

TEST(Rename, ReplacesAndHonoursOptions) {
    Scratch s;
    std::ofstream(s.at("a")) << "A";
    std::ofstream(s.at("b")) << "B";
    vfs::rename(s.u("a"), s.u("b"));
    EXPECT_FALSE(vfs::exists(s.u("a")));
    EXPECT_EQ(read_all(s.at("b")), "A");

    std::ofstream(s.at("c")) << "C";
    vfs::rename_options keep;
    keep.no_replace = true;
    EXPECT_THROW(vfs::rename(s.u("c"), s.u("b"), keep), vfs::FileExistsError);
    EXPECT_EQ(read_all(s.at("b")), "A");
    vfs::rename(s.u("c"), s.u("d"), keep);
    EXPECT_EQ(read_all(s.at("d")), "C");

    ::mkdir(s.at("sub").c_str(), 0755);
    vfs::rename(s.u("d"), s.u("sub/d")); // two folders to sync
    EXPECT_EQ(read_all(s.at("sub/d")), "C");
    EXPECT_THROW(vfs::rename(s.u("none"), s.u("x")), vfs::PathNotFound);
    std::ofstream(s.at("sub/full")) << "x";
    ::mkdir(s.at("other").c_str(), 0755);
    EXPECT_THROW(vfs::rename(s.u("other"), s.u("sub")), vfs::DirectoryNotEmpty);
}

TEST(Remove, FilesLinksAndEmptyFoldersOnly) {
    Scratch s;
    std::ofstream(s.at("f")) << "x";
    ::mkdir(s.at("d").c_str(), 0755);
    ::mkdir(s.at("full").c_str(), 0755);
    std::ofstream(s.at("full/x")) << "x";
    ASSERT_EQ(::symlink("f", s.at("l").c_str()), 0);
    vfs::remove(s.u("l"));
    EXPECT_TRUE(vfs::exists(s.u("f")));
    EXPECT_FALSE(vfs::exists(s.u("l")));
    vfs::remove(s.u("f"));
    vfs::remove(s.u("d"));
    EXPECT_FALSE(vfs::exists(s.u("f")) || vfs::exists(s.u("d")));
    EXPECT_THROW(vfs::remove(s.u("full")), vfs::DirectoryNotEmpty);
    EXPECT_THROW(vfs::remove(s.u("f")), vfs::PathNotFound);
}

TEST(RemoveAll, NeverFollowsALinkOutOfTheTree) {
    Scratch s;
    std::string const outside = s.at("outside");
    ::mkdir(outside.c_str(), 0755);
    std::ofstream(outside + "/precious") << "keep";
    std::string const tree = s.at("tree");
    std::mt19937 rng(9);
    std::vector<std::string> folders{tree};
    ::mkdir(tree.c_str(), 0755);
    int made = 0;
    for (int i = 0; i < 200; ++i, ++made) {
        std::string const p = folders[rng() % folders.size()] + "/e" + std::to_string(i);
        switch (rng() % 4) {
        case 0: ::mkdir(p.c_str(), 0755); folders.push_back(p); break;
        case 1: std::ofstream(p) << "x"; break;
        case 2: ASSERT_EQ(::symlink(outside.c_str(), p.c_str()), 0); break;
        default: ASSERT_EQ(::symlink((outside + "/precious").c_str(), p.c_str()), 0);
        }
    }
    EXPECT_EQ(vfs::remove_all(Scratch::utf16(tree)), std::uintmax_t(made + 1));
    EXPECT_FALSE(std::filesystem::exists(std::filesystem::symlink_status(tree)));
    EXPECT_EQ(read_all(outside + "/precious"), "keep");

    // A link given directly goes; its target folder stays whole.
    ASSERT_EQ(::symlink(outside.c_str(), s.at("link").c_str()), 0);
    EXPECT_EQ(vfs::remove_all(s.u("link")), 1u);
    EXPECT_EQ(read_all(outside + "/precious"), "keep");
    EXPECT_EQ(vfs::remove_all(s.u("none")), 0u);
    std::ofstream(s.at("single")) << "x";
    EXPECT_EQ(vfs::remove_all(s.u("single")), 1u);
}

TEST(Create, FoldersAndLinks) {
    Scratch s;
    vfs::create_directory(s.u("d"));
    EXPECT_THROW(vfs::create_directory(s.u("d")), vfs::FileExistsError);
    EXPECT_THROW(vfs::create_directory(s.u("x/y")), vfs::PathNotFound);
    EXPECT_TRUE(vfs::create_directories(s.u("p/q/r/")));
    EXPECT_EQ(vfs::symlink_status(s.u("p/q/r")).type(), FS::directory_file);
    EXPECT_FALSE(vfs::create_directories(s.u("p/q")));
    std::ofstream(s.at("file")) << "x";
    EXPECT_THROW(vfs::create_directories(s.u("file")), vfs::FileExistsError);
    EXPECT_THROW(vfs::create_directories(s.u("file/sub")), vfs::NotDirectoryError);

    vfs::create_symlink(u"does/not/exist", s.u("l"));
    EXPECT_EQ(vfs::read_symlink(s.u("l")).native(), u"does/not/exist");
    EXPECT_THROW(vfs::create_symlink(u"x", s.u("l")), vfs::FileExistsError);
    vfs::copy_symlink(s.u("l"), s.u("l2"));
    EXPECT_EQ(std::filesystem::read_symlink(s.at("l2")).string(), "does/not/exist");
}

TEST(Temp, NamesDifferAndFollowThePattern) {
    std::set<std::u16string> seen;
    auto matches = [](std::string const& name) {
        std::string const head = "/some/folder/pre", tail = ".ext";
        if (name.size() != head.size() + 16 + tail.size() || name.rfind(head, 0) != 0 ||
            name.substr(name.size() - tail.size()) != tail)
            return false;
        for (std::size_t i = head.size(); i < head.size() + 16; ++i)
            if (!((name[i] >= 'a' && name[i] <= 'z') || (name[i] >= '0' && name[i] <= '9')))
                return false;
        return true;
    };
    for (int i = 0; i < 2000; ++i) {
        std::u16string const name = vfs::tmpnam(u"/some/folder", u"pre", u".ext");
        EXPECT_TRUE(matches(Scratch::utf8(name))) << Scratch::utf8(name);
        EXPECT_TRUE(seen.insert(name).second);
    }
    EXPECT_EQ(vfs::tmpnam(u"/f/", u"", u"").size(), 3u + 16u);
}

TEST(Temp, TmpfileCreatesPrivateFileAndSkipsPlantedLinks) {
    Scratch s;
    std::u16string name;
    std::FILE* f = vfs::tmpfile(name, Scratch::utf16(s.dir()), u".", u".tmp");
    ASSERT_NE(f, nullptr);
    std::fputs("hello", f);
    std::fclose(f);
    std::string const made = Scratch::utf8(name);
    EXPECT_EQ(read_all(made), "hello");
    EXPECT_EQ(mode_of(made) & 07777, 0600u);
    EXPECT_TRUE(S_ISREG(mode_of(made)));

    // Occupy many names with links to a victim: the exclusive create never opens them.
    std::ofstream(s.at("victim")) << "victim";
    int planted = 0;
    for (int i = 0; i < 200; ++i) {
        std::string const trap = Scratch::utf8(vfs::tmpnam(Scratch::utf16(s.dir()), u"t", u""));
        planted += ::symlink(s.at("victim").c_str(), trap.c_str()) == 0;
    }
    EXPECT_EQ(planted, 200);
    for (int i = 0; i < 50; ++i) {
        std::u16string other;
        std::FILE* g = vfs::tmpfile(other, Scratch::utf16(s.dir()), u"t", u"");
        ASSERT_NE(g, nullptr);
        std::fclose(g);
        EXPECT_TRUE(S_ISREG(mode_of(Scratch::utf8(other))));
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
    std::ofstream(s.at("secret")) << "x";
    ::chmod(s.at("secret").c_str(), 0600);

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
        bool failed;
        if (o.output) {
            vfs::ofstream out(o.path, std::ios::binary);
            failed = out.fail();
        } else {
            vfs::ifstream in(o.path, std::ios::binary);
            failed = in.fail();
        }
        int const error = errno;
        EXPECT_TRUE(failed) << Scratch::utf8(o.path);
        EXPECT_EQ(error, o.error) << Scratch::utf8(o.path);
    }
    std::u16string const secret = s.u("secret");
    EXPECT_TRUE(vela_test::as_nobody([&] {
        errno = 0;
        vfs::ifstream in(secret);
        return in.fail() && errno == EACCES;
    }));

    {
        vfs::ofstream out(s.u("\xC3\xA9t\xC3\xA9.txt"));
        ASSERT_TRUE(out.good());
        out << "written";
    }
    vfs::ifstream in(s.u("\xC3\xA9t\xC3\xA9.txt"));
    std::string word;
    in >> word;
    EXPECT_EQ(word, "written");
}

TEST(HostilePaths, ClearExceptionsAndNothingTouched) {
    Scratch s;
    std::u16string const lone = s.u("x") + char16_t(0xD801);
    std::u16string const nul = s.u("x") + std::u16string(1, u'\0') + u"y";
    std::u16string const long_name = s.u(std::string(256, 'n'));
    std::u16string long_path = Scratch::utf16(s.dir());
    while (long_path.size() < 4200)
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
    std::ofstream(s.at("src")) << "x";
    expect_all(lone, vfs::FileNameConversionFailure{});
    expect_all(nul, vfs::InvalidArgument{});
    expect_all(long_name, vfs::FileNameTooLarge{});
    expect_all(long_path, vfs::FileNameTooLarge{});
    EXPECT_THROW(vfs::remove_all(lone), vfs::FileNameConversionFailure);
    EXPECT_THROW(vfs::remove_all(nul), vfs::InvalidArgument);

    std::set<std::string> left;
    for (auto const& e : std::filesystem::directory_iterator(s.dir()))
        left.insert(e.path().filename().string());
    EXPECT_EQ(left, std::set<std::string>{"src"});
    EXPECT_EQ(read_all(s.at("src")), "x");
}

} // namespace
