// Changes: permissions, times, folder and link creation, rename, remove.
#include "sys.hpp"

#include <vela/filesystem/operations.hpp>

#include <fcntl.h>
#include <stdio.h>

namespace vela::filesystem {

void permissions(path const& p, std::uint32_t bits) {
    std::string const access = p.access_form();
    auto const mode = static_cast<mode_t>(bits & file_status::perms_all);
    if (!(bits & file_status::perms_symlink)) {
        if (::chmod(access.c_str(), mode) != 0)
            sys::fail(p);
        return;
    }
    // Linux has no mode on links: fchmodat refuses AT_SYMLINK_NOFOLLOW with ENOTSUP, whatever
    // the target. Look first, so that anything but a link still gets the plain chmod.
    struct stat st;
    if (::lstat(access.c_str(), &st) != 0)
        sys::fail(p);
    if (S_ISLNK(st.st_mode))
        throw InvalidOperation("vela:filesystem:InvalidOperation",
                               "The permissions of a symbolic link itself cannot be changed on this host", p.native());
    if (::fchmodat(AT_FDCWD, access.c_str(), mode, 0) != 0)
        sys::fail(p);
}

void last_write_time(path const& p, boost::posix_time::ptime const& time) {
    if (time.is_special())
        throw InvalidArgument("vela:filesystem:InvalidArgument", "Not a valid time", p.native());
    std::string const access = p.access_form();
    static boost::posix_time::ptime const epoch(boost::gregorian::date(1970, 1, 1));
    auto const since = time - epoch;
    long long const micros = since.total_microseconds();
    long long seconds = micros / 1'000'000;
    long long rest = micros % 1'000'000;
    if (rest < 0) { // before 1970: keep tv_nsec non-negative
        rest += 1'000'000;
        --seconds;
    }
    struct timespec times[2];
    times[0].tv_sec = 0;
    times[0].tv_nsec = UTIME_OMIT;
    times[1].tv_sec = static_cast<time_t>(seconds);
    times[1].tv_nsec = static_cast<long>(rest * 1000);
    if (::utimensat(AT_FDCWD, access.c_str(), times, AT_SYMLINK_NOFOLLOW) != 0)
        sys::fail(p);
}

void create_directory(path const& p) {
    if (::mkdir(p.access_form().c_str(), 0777) != 0)
        sys::fail(p);
}

bool create_directories(path const& p) {
    std::string const access = p.access_form();
    if (access.empty())
        throw PathNotFound("vela:filesystem:PathNotFound", "Empty path not permitted", p.native());
    if (::mkdir(access.c_str(), 0777) == 0)
        return true;
    int const first = errno;
    struct stat st;
    if (first == EEXIST) {
        if (::stat(access.c_str(), &st) == 0 && S_ISDIR(st.st_mode))
            return false;
        throw_from_errno(EEXIST, p.native());
    }
    if (first != ENOENT)
        throw_from_errno(first, p.native());
    // Make the parent, then this one again.
    std::string const parent = sys::folder_of(access);
    if (parent != access && parent != "." && parent != "/")
        create_directories(path(detail::from_filesystem(parent)));
    if (::mkdir(access.c_str(), 0777) == 0)
        return true;
    if (errno == EEXIST && ::stat(access.c_str(), &st) == 0 && S_ISDIR(st.st_mode))
        return false; // made by someone else meanwhile
    sys::fail(p);
}

void create_symlink(path const& target, path const& link, std::uint32_t /*type_hint*/) {
    std::string const target_access = target.access_form();
    if (::symlink(target_access.c_str(), link.access_form().c_str()) != 0)
        sys::fail(link);
}

void copy_symlink(path const& from, path const& to) { create_symlink(read_symlink(from), to); }

namespace {

void copy_then_remove(path const& from, path const& to) {
    file_status const st = symlink_status(from);
    if (st.type() == file_status::symlink_file)
        copy_symlink(from, to);
    else if (st.type() == file_status::regular_file) {
        if (exists(to))
            remove(to);
        copy_file(from, to, copy_option::fail_if_exists);
    } else
        throw_from_errno(EXDEV, from.native());
    remove(from);
}

} // namespace

void rename(path const& from, path const& to, rename_options options) {
    std::string const from_access = from.access_form();
    std::string const to_access = to.access_form();
    int const result = options.no_replace
                           ? ::renameat2(AT_FDCWD, from_access.c_str(), AT_FDCWD, to_access.c_str(), RENAME_NOREPLACE)
                           : ::rename(from_access.c_str(), to_access.c_str());
    if (result != 0) {
        int const error = errno;
        if (error == EXDEV && options.allow_copy) {
            if (options.no_replace && exists(to))
                throw_from_errno(EEXIST, to.native());
            copy_then_remove(from, to);
        } else {
            // Tell which side was at fault where the error says so.
            throw_from_errno(error, (error == EEXIST || error == EISDIR || error == ENOTEMPTY) ? to.native()
                                                                                                : from.native());
        }
    }
    std::string const to_folder = sys::folder_of(to_access);
    std::string const from_folder = sys::folder_of(from_access);
    sys::sync_folder(to_folder);
    if (from_folder != to_folder)
        sys::sync_folder(from_folder);
}

void remove(path const& p) {
    std::string const access = p.access_form();
    if (::unlink(access.c_str()) == 0)
        return;
    if (errno != EISDIR)
        sys::fail(p);
    if (::rmdir(access.c_str()) != 0)
        sys::fail(p, errno_origin::remove_directory);
}

} // namespace vela::filesystem
