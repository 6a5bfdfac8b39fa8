// Status, links, times and directory iteration over generated trees, checked against lstat,
// readlink and std::filesystem; the errno mapping table.
#include "Scratch.hpp"

#include <vela/filesystem/directory_iterator.hpp>
#include <vela/filesystem/exceptions.hpp>
#include <vela/filesystem/operations.hpp>

#include <gtest/gtest.h>

#include <fcntl.h>
#include <sys/stat.h>

#include <boost/date_time/posix_time/conversion.hpp>

#include <cstring>
#include <fstream>
#include <map>
#include <random>
#include <set>

namespace vfs = vela::filesystem;
using vela_test::Scratch;
using FS = vfs::file_status;

namespace {

/// A random tree: folders, files of varied sizes, links to files and folders, dangling links,
/// names with spaces and non-ASCII letters.
std::vector<std::string> make_tree(Scratch const& s, unsigned seed, int entries) {
    std::mt19937 rng(seed);
    std::vector<std::string> folders{s.dir()};
    std::vector<std::string> all;
    char const* const names[] = {"f", "a b", "d\xC3\xA9j\xC3\xA0", "\xE6\x96\x87\xE4\xBB\xB6", ".hidden", "x.y.z"};
    for (int i = 0; i < entries; ++i) {
        std::string const& where = folders[rng() % folders.size()];
        std::string const p = where + "/" + names[rng() % 6] + std::to_string(i);
        switch (rng() % 5) {
        case 0:
            ::mkdir(p.c_str(), 0755);
            folders.push_back(p);
            break;
        case 1: case 2: {
            std::ofstream(p) << std::string(rng() % 5000, 'q');
            ::chmod(p.c_str(), 0600 | (rng() % 0100));
            break;
        }
        case 3: {
            std::string const target = all.empty() ? "nowhere" : all[rng() % all.size()];
            if (::symlink(target.c_str(), p.c_str()) != 0)
                ADD_FAILURE() << "symlink failed";
            break;
        }
        default:
            if (::symlink("missing/target", p.c_str()) != 0)
                ADD_FAILURE() << "symlink failed";
        }
        all.push_back(p);
    }
    return all;
}

std::uint32_t expected_type(struct stat const& st) {
    if (S_ISREG(st.st_mode)) return FS::regular_file;
    if (S_ISDIR(st.st_mode)) return FS::directory_file;
    if (S_ISLNK(st.st_mode)) return FS::symlink_file;
    return 0;
}

TEST(Status, GeneratedTreeAgreesWithLstat) {
    Scratch s;
    for (std::string const& p : make_tree(s, 11, 300)) {
        SCOPED_TRACE(p);
        struct stat st;
        ASSERT_EQ(::lstat(p.c_str(), &st), 0);
        FS const status = vfs::symlink_status(Scratch::utf16(p));
        EXPECT_EQ(status.type(), expected_type(st));
        EXPECT_EQ(status.permissions(), st.st_mode & 0777);
        EXPECT_EQ(status.size(), std::uint64_t(st.st_size));
        long long const micros = (status.last_write_time() - boost::posix_time::from_time_t(0)).total_microseconds();
        EXPECT_EQ(micros, st.st_mtim.tv_sec * 1000000LL + st.st_mtim.tv_nsec / 1000);
        EXPECT_TRUE(vfs::exists(Scratch::utf16(p)));
        if (S_ISLNK(st.st_mode)) {
            char buffer[4096];
            ssize_t const n = ::readlink(p.c_str(), buffer, sizeof buffer);
            ASSERT_GT(n, 0);
            EXPECT_EQ(Scratch::utf8(vfs::read_symlink(Scratch::utf16(p)).native()), std::string(buffer, std::size_t(n)));
        }
    }
}

TEST(Status, MissingPathsAreAStatusNotAFailure) {
    Scratch s;
    std::ofstream(s.at("file")) << "x";
    for (char const* name : {"none", "none/deeper", "file/through"}) {
        FS const st = vfs::symlink_status(s.u(name));
        EXPECT_EQ(st.type(), FS::file_not_found) << name;
        EXPECT_TRUE(st.type() & FS::file_not_found);
        EXPECT_FALSE(vfs::exists(s.u(name)));
    }
    EXPECT_THROW(vfs::read_symlink(s.u("file")), vfs::InvalidArgument); // EINVAL: not a link
    EXPECT_THROW(vfs::read_symlink(s.u("none")), vfs::PathNotFound);
}

TEST(Status, ConstantsLeaveRoomForTheUnknownMarker) {
    std::uint32_t const attributes[] = {FS::archive_file, FS::system_file, FS::hidden_file, FS::non_indexed_file};
    EXPECT_EQ(FS::archive_file, 0x1000u);
    for (unsigned combo = 0; combo < 16; ++combo) {
        std::uint32_t v = FS::perms_all;
        for (unsigned bit = 0; bit < 4; ++bit)
            if (combo & (1u << bit))
                v |= attributes[bit];
        EXPECT_NE(v, 0xFFFFu);
    }
    EXPECT_GT(FS::perms_symlink, 0xFFFFu);
    std::uint32_t const types[] = {FS::regular_file, FS::directory_file, FS::symlink_file, FS::file_not_found,
                                   FS::fifo_file, FS::socket_file, FS::block_file, FS::character_file};
    std::uint32_t seen = 0;
    for (std::uint32_t t : types) {
        EXPECT_EQ(t & (t - 1), 0u) << "one bit per type";
        EXPECT_EQ(t & FS::file_type_mask, t);
        EXPECT_EQ(t & 0x1FFFFu, 0u) << "types don't overlap permissions";
        EXPECT_EQ(seen & t, 0u);
        seen |= t;
    }
}

TEST(Status, LastWriteTimeRoundTripsMicrosecondsOnThePathItself) {
    Scratch s;
    std::ofstream(s.at("file")) << "x";
    ASSERT_EQ(::symlink("file", s.at("link").c_str()), 0);
    std::mt19937 rng(3);
    for (int i = 0; i < 50; ++i) {
        boost::posix_time::ptime const t = boost::posix_time::from_time_t(std::time_t(rng() % 2000000000)) +
                                           boost::posix_time::microseconds(rng() % 1000000);
        vfs::last_write_time(s.u("link"), t);
        EXPECT_EQ(vfs::symlink_status(s.u("link")).last_write_time(), t);
    }
    boost::posix_time::ptime const file_time = vfs::symlink_status(s.u("file")).last_write_time();
    vfs::last_write_time(s.u("link"), boost::posix_time::from_time_t(1000));
    EXPECT_EQ(vfs::symlink_status(s.u("file")).last_write_time(), file_time) << "the target is not touched";
    EXPECT_THROW(vfs::last_write_time(s.u("file"), boost::posix_time::ptime()), vfs::InvalidArgument);
    EXPECT_THROW(vfs::last_write_time(s.u("none"), boost::posix_time::from_time_t(5)), vfs::PathNotFound);
}

TEST(Status, PermissionsFollowOrActOnThePathItself) {
    Scratch s;
    std::ofstream(s.at("file")) << "x";
    ASSERT_EQ(::symlink("file", s.at("link").c_str()), 0);
    for (std::uint32_t mode : {0600u, 0444u, 0751u, 0u, 0777u}) {
        vfs::permissions(s.u("file"), mode | FS::archive_file | FS::hidden_file);
        EXPECT_EQ(vfs::symlink_status(s.u("file")).permissions(), mode);
        vfs::permissions(s.u("file"), (mode ^ 0111) | FS::perms_symlink);
        EXPECT_EQ(vfs::symlink_status(s.u("file")).permissions(), mode ^ 0111);
    }
    vfs::permissions(s.u("link"), 0640); // follows to the file
    EXPECT_EQ(vfs::symlink_status(s.u("file")).permissions(), 0640u);
    EXPECT_THROW(vfs::permissions(s.u("link"), 0600 | FS::perms_symlink), vfs::InvalidOperation);
    EXPECT_EQ(vfs::symlink_status(s.u("file")).permissions(), 0640u);
    EXPECT_THROW(vfs::permissions(s.u("none"), 0600), vfs::PathNotFound);
}

TEST(DirectoryIterator, ListsWhatStdFilesystemListsWithTheSameTypes) {
    Scratch s;
    make_tree(s, 5, 400);
    std::vector<std::string> folders{s.dir()};
    int checked = 0;
    while (!folders.empty()) {
        std::string const folder = folders.back();
        folders.pop_back();
        std::map<std::string, std::uint32_t> expected;
        for (auto const& e : std::filesystem::directory_iterator(folder)) {
            struct stat st;
            ASSERT_EQ(::lstat(e.path().c_str(), &st), 0);
            expected[e.path().string()] = expected_type(st);
            if (S_ISDIR(st.st_mode))
                folders.push_back(e.path().string());
        }
        std::map<std::string, std::uint32_t> listed;
        for (vfs::directory_iterator it(Scratch::utf16(folder)); it.is_open(); ++it) {
            std::string const full = Scratch::utf8(it->full_pathname());
            EXPECT_EQ(Scratch::utf8(it->filename()), it->native_filename());
            EXPECT_EQ(full, folder + "/" + it->native_filename());
            EXPECT_TRUE(listed.emplace(full, it->status().type()).second) << "listed twice: " << full;
            struct stat st;
            ASSERT_EQ(::lstat(full.c_str(), &st), 0);
            EXPECT_EQ(it->symlink_status().size(), std::uint64_t(st.st_size));
            EXPECT_EQ(it->symlink_status().type(), expected_type(st));
            ++checked;
        }
        EXPECT_EQ(listed, expected) << folder;
    }
    EXPECT_EQ(checked, 400);
}

TEST(DirectoryIterator, EndsAndRefusesMisuse) {
    Scratch s;
    vfs::directory_iterator empty(Scratch::utf16(s.dir()));
    EXPECT_FALSE(empty.is_open());
    EXPECT_THROW(*empty, vfs::InvalidOperation);
    EXPECT_THROW(++empty, vfs::InvalidOperation);

    std::ofstream(s.at("only")) << "x";
    vfs::directory_iterator one(Scratch::utf16(s.dir() + "/")); // a trailing "/" is fine
    ASSERT_TRUE(one.is_open());
    EXPECT_EQ(one->full_pathname(), s.u("only"));
    EXPECT_EQ(one->status().type(), FS::regular_file);
    ++one;
    EXPECT_FALSE(one.is_open());
    EXPECT_THROW(one->full_pathname(), vfs::InvalidOperation);

    int count = 0;
    for (auto const& entry : vfs::directory_iterator(Scratch::utf16(s.dir()))) {
        EXPECT_EQ(entry.native_filename(), "only");
        ++count;
    }
    EXPECT_EQ(count, 1);

    EXPECT_THROW(vfs::directory_iterator(s.u("none")), vfs::PathNotFound);
    EXPECT_THROW(vfs::directory_iterator(s.u("only")), vfs::NotDirectoryError);
    EXPECT_THROW(vfs::directory_iterator(std::u16string()), vfs::PathNotFound);
}

TEST(DirectoryIterator, UnreadableFolderIsAccessDeniedForNobody) {
    Scratch s;
    ASSERT_EQ(::mkdir(s.at("closed").c_str(), 0700), 0);
    std::u16string const closed = s.u("closed");
    EXPECT_TRUE(vela_test::as_nobody([&] {
        try {
            vfs::directory_iterator it(closed);
        } catch (vfs::AccessDenied const& e) {
            return e.path() == closed;
        }
        return false;
    }));
}

struct ErrnoCase {
    int error;
    char const* type;
};

std::string thrown_type(int error, vfs::errno_origin origin) {
    try {
        vfs::throw_from_errno(error, u"/some/path", origin);
    } catch (vfs::AccessDenied const&) { return "AccessDenied";
    } catch (vfs::PathNotFound const&) { return "PathNotFound";
    } catch (vfs::FileExistsError const&) { return "FileExistsError";
    } catch (vfs::FileNameTooLarge const&) { return "FileNameTooLarge";
    } catch (vfs::NotDirectoryError const&) { return "NotDirectoryError";
    } catch (vfs::DirectoryNotEmpty const&) { return "DirectoryNotEmpty";
    } catch (vfs::FileIsDirectory const&) { return "FileIsDirectory";
    } catch (vfs::InvalidOperation const&) { return "InvalidOperation";
    } catch (vfs::InvalidArgument const&) { return "InvalidArgument";
    } catch (vfs::SystemError const& e) { return "SystemError " + std::to_string(e.error_number());
    } catch (...) { return "other"; }
    return "nothing";
}

TEST(Exceptions, OneMappingFromErrno) {
    using O = vfs::errno_origin;
    std::vector<std::tuple<int, O, std::string>> const table{
        {EACCES, O::general, "AccessDenied"},          {EPERM, O::general, "AccessDenied"},
        {ENOENT, O::general, "PathNotFound"},          {EEXIST, O::general, "FileExistsError"},
        {EEXIST, O::remove_directory, "DirectoryNotEmpty"}, {ENAMETOOLONG, O::general, "FileNameTooLarge"},
        {ENOTDIR, O::general, "NotDirectoryError"},    {ENOTEMPTY, O::general, "DirectoryNotEmpty"},
        {EISDIR, O::general, "FileIsDirectory"},       {EOPNOTSUPP, O::general, "InvalidOperation"},
        {ENOTSUP, O::general, "InvalidOperation"},     {EINVAL, O::general, "InvalidArgument"},
        {EXDEV, O::general, "SystemError " + std::to_string(EXDEV)},
        {ENOSPC, O::general, "SystemError " + std::to_string(ENOSPC)},
        {ELOOP, O::general, "SystemError " + std::to_string(ELOOP)}};
    for (auto const& [error, origin, type] : table)
        EXPECT_EQ(thrown_type(error, origin), type) << error;

    try {
        vfs::throw_from_errno(ENOENT, u"/a/b");
    } catch (vfs::FsysExceptionBase const& e) {
        EXPECT_STREQ(e.what(), std::strerror(ENOENT));
        EXPECT_EQ(e.path(), u"/a/b");
        EXPECT_EQ(e.message_id(), "vela:filesystem:PathNotFound");
    }
    vfs::PathNotFound const plain;
    EXPECT_EQ(plain.message_id(), "vela:filesystem:PathNotFound");
    EXPECT_TRUE(plain.path().empty());
    EXPECT_TRUE(plain.arguments().empty());
    vfs::InvalidArgument const reason("vela:filesystem:InvalidArgument", "Empty path not permitted");
    EXPECT_STREQ(reason.what(), "Empty path not permitted");
}

} // namespace
