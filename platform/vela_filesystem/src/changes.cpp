// Changes: permissions, times, folder and link creation, removal.
#include "sys.hpp"

#include <vela/filesystem/operations.hpp>

#include <fcntl.h>

namespace vela::filesystem {

void permissions(path const& p, std::uint32_t bits) {
    std::string const access = p.access_form();
    auto const mode = static_cast<mode_t>(bits & file_status::perms_all);
    bool const itself = bits & file_status::perms_symlink;
    // Linux has no mode on links: fchmodat refuses AT_SYMLINK_NOFOLLOW with ENOTSUP, whatever
    // the target. Look first, so that anything but a link still gets the plain chmod.
    struct stat st;
    if ((itself ? ::lstat(access.c_str(), &st) : ::stat(access.c_str(), &st)) != 0)
        sys::fail(p);
    if (itself && S_ISLNK(st.st_mode))
        throw InvalidOperation("vela:filesystem:InvalidOperation",
                               "The permissions of a symbolic link itself cannot be changed on this host", p.native());
    // A value read from a link names no mode (a link's bits read 0777 and mean nothing); set on
    // a file or folder it would grant everyone everything, so there is nothing to apply. The
    // path was checked above, so a missing one is still reported.
    if (bits & file_status::link_perms)
        return;
    if (S_ISREG(st.st_mode))
        sys::note_mode_change(access, st.st_mode & 07777);
    // A file a staged rename could not give its old group (or ACL) keeps going without the
    // bits that group had.
    if (::fchmodat(AT_FDCWD, access.c_str(), mode & sys::mode_cap(access, st), 0) != 0)
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
    // Make the parent, then this one again. ("." and "/" exist, or their mkdir reports why not.)
    std::string const parent = sys::folder_of(access);
    if (parent != access)
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
