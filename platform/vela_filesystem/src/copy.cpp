// Copying files, links and trees.
#include "sys.hpp"

#include <vela/filesystem/directory_iterator.hpp>
#include <vela/filesystem/operations.hpp>

#include <fcntl.h>
#include <linux/fs.h>
#include <sys/ioctl.h>

#include <vector>

namespace vela::filesystem {

namespace {

bool kernel_refused(int error) { return error == EXDEV || error == ENOSYS || error == EOPNOTSUPP || error == EINVAL; }

/// Moves the content with read/write; returns 0 or an errno.
int copy_by_hand(int in, int out) {
    std::vector<char> buffer(1 << 17);
    for (;;) {
        ssize_t const got = sys::retry([&] { return ::read(in, buffer.data(), buffer.size()); });
        if (got < 0)
            return errno;
        if (got == 0)
            return 0;
        for (ssize_t done = 0; done < got;) {
            ssize_t const put = sys::retry([&] { return ::write(out, buffer.data() + done, std::size_t(got - done)); });
            if (put < 0)
                return errno;
            done += put;
        }
    }
}

/// Copies all of `in` to the empty `out`; returns 0 or an errno.
int copy_content(int in, int out) {
    if (::ioctl(out, FICLONE, in) == 0)
        return 0;
    bool first = true;
    for (;;) {
        ssize_t const moved = sys::retry(
            [&] { return ::copy_file_range(in, nullptr, out, nullptr, std::size_t(1) << 30, 0); });
        if (moved == 0)
            return 0;
        if (moved < 0) {
            // Only before any byte moved can the copy start over by hand from the beginning.
            if (first && kernel_refused(errno))
                return copy_by_hand(in, out);
            return errno;
        }
        first = false;
    }
}

} // namespace

void copy_file(path const& from, path const& to, copy_option option) {
    std::string const from_access = from.access_form();
    std::string const to_access = to.access_form();

    sys::fd in(sys::retry([&] { return ::open(from_access.c_str(), O_RDONLY | O_CLOEXEC); }));
    if (!in)
        sys::fail(from);
    struct stat st;
    if (::fstat(in.get(), &st) != 0)
        sys::fail(from);
    if (S_ISDIR(st.st_mode))
        throw_from_errno(EISDIR, from.native());

    mode_t const mode = st.st_mode & 07777;
    int flags = O_WRONLY | O_CREAT | O_NOFOLLOW | O_CLOEXEC;
    bool created = true;
    sys::fd out(sys::retry([&] { return ::open(to_access.c_str(), flags | O_EXCL, mode); }));
    if (!out && errno == EEXIST && option == copy_option::overwrite_if_exists) {
        created = false;
        out.reset(sys::retry([&] { return ::open(to_access.c_str(), flags | O_TRUNC, mode); }));
    }
    if (!out) {
        // O_NOFOLLOW on a final link gives ELOOP: to the caller that is "something is there".
        int const error = errno == ELOOP ? EEXIST : errno;
        throw_from_errno(error, to.native());
    }

    int error = copy_content(in.get(), out.get());
    // The mode of a file that existed before is set like cp does; a new one got it at open
    // (less the umask), so set it again in full.
    if (error == 0 && ::fchmod(out.get(), mode) != 0)
        error = errno;
    if (error == 0 && ::fdatasync(out.get()) != 0)
        error = errno;
    if (error != 0) {
        out.reset();
        if (created)
            ::unlink(to_access.c_str());
        throw_from_errno(error, to.native());
    }
    if (::close(out.release()) != 0)
        throw_from_errno(errno, to.native());
}

void copy_directory(path const& from, path const& to) {
    std::string const from_access = from.access_form();
    struct stat st;
    if (::stat(from_access.c_str(), &st) != 0)
        sys::fail(from);
    if (!S_ISDIR(st.st_mode))
        throw_from_errno(ENOTDIR, from.native());

    std::string const to_access = to.access_form();
    if (::mkdir(to_access.c_str(), st.st_mode & 07777) == 0) {
        if (::chmod(to_access.c_str(), st.st_mode & 07777) != 0)
            sys::fail(to);
    } else {
        int const error = errno;
        struct stat existing;
        if (error != EEXIST || ::lstat(to_access.c_str(), &existing) != 0 || !S_ISDIR(existing.st_mode))
            throw_from_errno(error == EEXIST ? ENOTDIR : error, to.native());
    }

    for (directory_iterator it(from); it.is_open(); ++it) {
        std::u16string const name = it->filename();
        path const source = detail::concatenate_pathname(from, name);
        path const target = detail::concatenate_pathname(to, name);
        switch (it->status().type()) {
        case file_status::directory_file: copy_directory(source, target); break;
        case file_status::regular_file: copy_file(source, target, copy_option::fail_if_exists); break;
        case file_status::symlink_file: copy_symlink(source, target); break;
        default: break; // fifos, sockets, devices are not copied
        }
    }
}

} // namespace vela::filesystem
