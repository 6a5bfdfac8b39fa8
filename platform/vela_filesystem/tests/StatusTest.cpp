// Status, links, times and directory iteration over generated trees, checked against lstat,
// readlink and std::filesystem; the errno mapping table.
#include "Scratch.hpp"

#include <vela/filesystem/directory_iterator.hpp>
#include <vela/filesystem/exceptions.hpp>
#include <vela/filesystem/operations.hpp>

#include <boost/date_time/posix_time/conversion.hpp>

#include <cstring>
#include <set>
#include <random>
#include <typeindex>

namespace vfs = vela::filesystem;
namespace pt = boost::posix_time;
using vela_test::Scratch;
using vela_test::utf16;
using vela_test::utf8;
using FS = vfs::file_status;

namespace {

std::uint32_t type_of(struct stat const& st) {
    mode_t const m = st.st_mode;
    return S_ISREG(m) ? FS::regular_file : S_ISDIR(m) ? FS::directory_file : S_ISLNK(m) ? FS::symlink_file : 0;
}

// Walks a generated tree with the iterator: each listing matches std::filesystem's, and the
// status of every entry, from the iterator and by path, matches lstat and readlink.
TEST(Status, GeneratedTreeAgreesWithLstatAndStdFilesystem) {
    Scratch s;
    vela_test::make_tree(s.dir(), 11, 400);
    std::vector<std::string> folders{s.dir()};
    int checked = 0;
    while (!folders.empty()) {
        std::string const folder = folders.back();
        folders.pop_back();
        std::set<std::string> expected, listed;
        for (auto const& e : std::filesystem::directory_iterator(folder))
            expected.insert(e.path().string());
        for (vfs::directory_iterator it(utf16(folder)); it.is_open(); ++it, ++checked) {
            std::string const full = utf8(it->full_pathname());
            SCOPED_TRACE(full);
            EXPECT_EQ(full, folder + "/" + it->native_filename());
            EXPECT_EQ(utf8(it->filename()), it->native_filename());
            EXPECT_TRUE(listed.insert(full).second) << "listed twice";
            struct stat st;
            ASSERT_EQ(::lstat(full.c_str(), &st), 0);
            EXPECT_EQ(it->status().type(), type_of(st));
            for (FS const& status : {it->symlink_status(), vfs::symlink_status(it->full_pathname())}) {
                EXPECT_EQ(status.type(), type_of(st));
                EXPECT_EQ(status.permissions(), (st.st_mode & 0777) | (S_ISLNK(st.st_mode) ? FS::link_perms : 0u));
                EXPECT_EQ(status.size(), std::uint64_t(st.st_size));
                EXPECT_EQ((status.last_write_time() - pt::from_time_t(0)).total_microseconds(),
                          st.st_mtim.tv_sec * 1000000LL + st.st_mtim.tv_nsec / 1000);
            }
            EXPECT_TRUE(vfs::exists(it->full_pathname()));
            if (S_ISLNK(st.st_mode))
                EXPECT_EQ(utf8(vfs::read_symlink(it->full_pathname()).native()), std::filesystem::read_symlink(full).string());
            else if (S_ISDIR(st.st_mode))
                folders.push_back(full);
        }
        EXPECT_EQ(listed, expected);
    }
    EXPECT_EQ(checked, 400);
}

TEST(Status, LastWriteTimeAndPermissions) {
    Scratch s;
    std::ofstream(s.at("file")) << "x";
    ASSERT_EQ(::symlink("file", s.at("link").c_str()), 0);
    // Times are set on the link itself, to the microsecond; the target keeps its own.
    pt::ptime const file_time = vfs::symlink_status(s.u("file")).last_write_time();
    std::mt19937 rng(3);
    for (int i = 0; i < 50; ++i) {
        pt::ptime const t = pt::from_time_t(std::time_t(rng() % 2000000000)) + pt::microseconds(rng() % 1000000);
        vfs::last_write_time(s.u("link"), t);
        EXPECT_EQ(vfs::symlink_status(s.u("link")).last_write_time(), t);
    }
    EXPECT_EQ(vfs::symlink_status(s.u("file")).last_write_time(), file_time);
    EXPECT_THROW(vfs::last_write_time(s.u("file"), pt::ptime()), vfs::InvalidArgument);
    EXPECT_THROW(vfs::last_write_time(s.u("none"), pt::from_time_t(5)), vfs::PathNotFound);

    // Attribute bits are ignored; permissions follow a link unless asked to act on the link.
    for (std::uint32_t mode : {0600u, 0444u, 0751u, 0u, 0777u}) {
        vfs::permissions(s.u("file"), mode | FS::archive_file | FS::hidden_file);
        EXPECT_EQ(vfs::symlink_status(s.u("file")).permissions(), mode);
        vfs::permissions(s.u("file"), (mode ^ 0111) | FS::perms_symlink);
        EXPECT_EQ(vfs::symlink_status(s.u("file")).permissions(), mode ^ 0111);
    }
    vfs::permissions(s.u("link"), 0640);
    EXPECT_EQ(vfs::symlink_status(s.u("file")).permissions(), 0640u);
    EXPECT_THROW(vfs::permissions(s.u("link"), 0600 | FS::perms_symlink), vfs::InvalidOperation);
    // A link's own bits (0777) are never applied as a mode to a file, directly or through the link.
    std::uint32_t const of_link = vfs::symlink_status(s.u("link")).permissions();
    vfs::permissions(s.u("file"), of_link);
    vfs::permissions(s.u("file"), of_link | FS::perms_symlink);
    vfs::permissions(s.u("link"), of_link);
    EXPECT_EQ(vfs::symlink_status(s.u("file")).permissions(), 0640u);
    EXPECT_THROW(vfs::permissions(s.u("none"), 0600), vfs::PathNotFound);
}

TEST(Status, MissingPathsAndIteratorMisuse) {
    Scratch s;
    vfs::directory_iterator empty(utf16(s.dir()));
    EXPECT_FALSE(empty.is_open());
    EXPECT_THROW(*empty, vfs::InvalidOperation);
    EXPECT_THROW(++empty, vfs::InvalidOperation);

    std::ofstream(s.at("file")) << "x";
    vfs::directory_iterator one(utf16(s.dir() + "/")); // a trailing "/" is fine
    ASSERT_TRUE(one.is_open());
    EXPECT_EQ(one->full_pathname(), s.u("file"));
    ++one;
    EXPECT_FALSE(one.is_open());
    EXPECT_THROW(one->full_pathname(), vfs::InvalidOperation);
    std::vector<std::string> names;
    for (auto const& entry : vfs::directory_iterator(utf16(s.dir())))
        names.push_back(entry.native_filename());
    EXPECT_EQ(names, std::vector<std::string>{"file"});

    // A missing path is a status, not a failure; listing or reading it as a link is.
    for (char const* name : {"none", "none/deeper", "file/through"}) {
        EXPECT_EQ(vfs::symlink_status(s.u(name)).type(), FS::file_not_found) << name;
        EXPECT_FALSE(vfs::exists(s.u(name)));
    }
    EXPECT_THROW(vfs::read_symlink(s.u("file")), vfs::InvalidArgument);
    EXPECT_THROW(vfs::read_symlink(s.u("none")), vfs::PathNotFound);
    EXPECT_THROW(vfs::directory_iterator(s.u("none")), vfs::PathNotFound);
    EXPECT_THROW(vfs::directory_iterator(s.u("file")), vfs::NotDirectoryError);
    EXPECT_THROW(vfs::directory_iterator(std::u16string()), vfs::PathNotFound);
}

TEST(Exceptions, OneMappingFromErrno) {
    using O = vfs::errno_origin;
    struct Row {
        int error;
        O origin;
        std::type_index type;
    };
    for (Row const& r : {Row{EACCES, O::general, typeid(vfs::AccessDenied)}, Row{EPERM, O::general, typeid(vfs::AccessDenied)},
                         Row{ENOENT, O::general, typeid(vfs::PathNotFound)}, Row{EEXIST, O::general, typeid(vfs::FileExistsError)},
                         Row{EEXIST, O::remove_directory, typeid(vfs::DirectoryNotEmpty)},
                         Row{ENAMETOOLONG, O::general, typeid(vfs::FileNameTooLarge)},
                         Row{ENOTDIR, O::general, typeid(vfs::NotDirectoryError)},
                         Row{ENOTEMPTY, O::general, typeid(vfs::DirectoryNotEmpty)},
                         Row{EISDIR, O::general, typeid(vfs::FileIsDirectory)},
                         Row{EOPNOTSUPP, O::general, typeid(vfs::InvalidOperation)},
                         Row{ENOTSUP, O::general, typeid(vfs::InvalidOperation)},
                         Row{EINVAL, O::general, typeid(vfs::InvalidArgument)}, Row{EXDEV, O::general, typeid(vfs::SystemError)},
                         Row{ENOSPC, O::general, typeid(vfs::SystemError)}, Row{ELOOP, O::general, typeid(vfs::SystemError)}}) {
        try {
            vfs::throw_from_errno(r.error, u"/a/b", r.origin);
            ADD_FAILURE() << "nothing thrown for " << r.error;
        } catch (vfs::FsysExceptionBase const& e) {
            EXPECT_EQ(std::type_index(typeid(e)), r.type) << r.error << " gave " << typeid(e).name();
            // A folder that exists when removed is reported as not empty, message included.
            EXPECT_STREQ(e.what(), std::strerror(r.origin == O::remove_directory ? ENOTEMPTY : r.error));
            EXPECT_EQ(e.path(), u"/a/b");
            auto const* system = dynamic_cast<vfs::SystemError const*>(&e);
            EXPECT_TRUE(system == nullptr || system->error_number() == r.error);
        }
    }
    try {
        vfs::throw_from_errno(ENOENT, u"/a/b");
    } catch (vfs::PathNotFound const& e) {
        EXPECT_EQ(e.message_id(), "vela:filesystem:PathNotFound");
    }
}

} // namespace
