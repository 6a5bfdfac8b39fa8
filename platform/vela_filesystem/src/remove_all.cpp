// Removing a tree without ever following a link out of it.
#include "sys.hpp"

#include <vela/filesystem/operations.hpp>

#include <dirent.h>
#include <fcntl.h>

#include <cstring>
#include <memory>

namespace vela::filesystem {

namespace {

struct dir_closer {
    // A folder opened for reading: closing it cannot lose anything, and the walk's own failures
    // are what is reported.
    void operator()(DIR* d) const noexcept { ::closedir(d); }
};

/// Removes everything inside the open folder `folder_fd` (which this takes over); `where`
/// names the folder for error reports. Returns the number of entries removed.
std::uintmax_t empty_folder(int folder_fd, std::string const& where) {
    std::unique_ptr<DIR, dir_closer> dir(::fdopendir(folder_fd));
    if (!dir) {
        int const error = errno;
        ::close(folder_fd);
        throw_from_errno(error, detail::from_filesystem(where));
    }
    int const fd = ::dirfd(dir.get());
    std::uintmax_t count = 0;
    for (;;) {
        errno = 0;
        dirent const* entry = ::readdir(dir.get());
        if (entry == nullptr) {
            if (errno != 0)
                throw_from_errno(errno, detail::from_filesystem(where));
            break;
        }
        char const* name = entry->d_name;
        if (sys::is_dot_entry(name))
            continue;
        // Try it as a file or link first; a folder answers EISDIR.
        if (::unlinkat(fd, name, 0) == 0) {
            ++count;
            continue;
        }
        if (errno == ENOENT)
            continue; // gone meanwhile
        if (errno != EISDIR)
            throw_from_errno(errno, detail::from_filesystem(where + "/" + name));
        int const child = ::openat(fd, name, O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
        if (child < 0)
            throw_from_errno(errno, detail::from_filesystem(where + "/" + name));
        count += empty_folder(child, where + "/" + name);
        if (::unlinkat(fd, name, AT_REMOVEDIR) != 0)
            throw_from_errno(errno, detail::from_filesystem(where + "/" + name), errno_origin::remove_directory);
        ++count;
        // Entries may have moved while this folder was being changed: readdir copes with that.
    }
    return count;
}

} // namespace

std::uintmax_t remove_all(path const& p) {
    std::string const access = p.access_form();
    struct stat st;
    if (::lstat(access.c_str(), &st) != 0) {
        if (errno == ENOENT || errno == ENOTDIR)
            return 0;
        sys::fail(p);
    }
    if (!S_ISDIR(st.st_mode)) {
        if (::unlink(access.c_str()) != 0) {
            if (errno == ENOENT)
                return 0;
            sys::fail(p);
        }
        return 1;
    }
    int const folder = ::open(access.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
    if (folder < 0)
        sys::fail(p);
    std::uintmax_t count = empty_folder(folder, access);
    if (::rmdir(access.c_str()) != 0) {
        if (errno == ENOENT)
            return count;
        sys::fail(p, errno_origin::remove_directory);
    }
    return count + 1;
}

} // namespace vela::filesystem
