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

// Fills the new, empty `out` with all of `in`, gives it `mode`, flushes and closes it; with
// `flushed` given, also takes its status after the flush. On failure removes `out_access` (a
// file this copy created) and throws about `to`.
void fill_new_file(int in, sys::fd out, mode_t mode, std::string const& out_access, path const& to,
                   struct stat* flushed = nullptr) {
    int error = copy_content(in, out.get());
    // A file is created with the mode less the umask: set it again in full.
    if (error == 0 && ::fchmod(out.get(), mode) != 0)
        error = errno;
    if (error == 0 && ::fdatasync(out.get()) != 0)
        error = errno;
    if (error == 0 && flushed != nullptr && ::fstat(out.get(), flushed) != 0)
        error = errno;
    if (error == 0 && ::close(out.release()) != 0)
        error = errno;
    if (error != 0) {
        out.reset();
        // Best effort: the copy's own failure is the one to report, and a half-written file
        // of ours that cannot be removed is only litter (never at the destination's name).
        ::unlink(out_access.c_str());
        throw_from_errno(error, to.native());
    }
}

// The copy of one regular file; `sync_new_name` false leaves the folder sync to the caller
// (a tree copy syncs each folder once).
void copy_regular(path const& from, path const& to, copy_option option, bool sync_new_name) {
    std::string const from_access = from.access_form();
    std::string const to_access = to.access_form();
    // A name whose folder flush a staged copy still owes becomes durable before any other.
    sys::settle_owed();

    sys::fd in(sys::retry([&] { return ::open(from_access.c_str(), O_RDONLY | O_CLOEXEC); }));
    if (!in)
        sys::fail(from);
    struct stat st;
    if (::fstat(in.get(), &st) != 0)
        sys::fail(from);
    if (S_ISDIR(st.st_mode))
        throw_from_errno(EISDIR, from.native());
    mode_t const mode = st.st_mode & 07777;

    sys::fd out(sys::retry(
        [&] { return ::open(to_access.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, mode); }));
    if (out) {
        // A staged temporary's name is made durable by the folder flush of its rename.
        bool const deferred = sync_new_name && sys::defer_new_name(to_access);
        struct stat flushed;
        fill_new_file(in.get(), std::move(out), mode, to_access, to, deferred ? &flushed : nullptr);
        if (deferred) {
            sys::note_flushed(to_access, flushed);
            return;
        }
        try {
            if (sync_new_name)
                sys::sync_folder(sys::folder_of(to_access));
        } catch (...) {
            ::unlink(to_access.c_str()); // ours, and not durable: the sync's failure is the report
            throw;
        }
        return;
    }
    if (errno != EEXIST || option != copy_option::overwrite_if_exists)
        throw_from_errno(errno, to.native());

    // Never into the existing file: a hard link to it elsewhere would change too, and readers
    // would see it half written. A link there is refused (O_NOFOLLOW would only have said
    // ELOOP); a folder is not a file to overwrite.
    struct stat existing;
    if (::lstat(to_access.c_str(), &existing) == 0 && !S_ISREG(existing.st_mode))
        throw_from_errno(S_ISDIR(existing.st_mode) ? EISDIR : EEXIST, to.native());
    std::string hidden;
    fill_new_file(in.get(), sys::create_beside(to_access, hidden), mode, hidden, to);
    try {
        sys::placement how;
        how.sync_data = false; // just done
        how.narrow = false;    // a copy takes the source's bits
        sys::move_into_place(hidden, to_access, detail::from_filesystem(hidden), to.native(), how);
    } catch (...) {
        ::unlink(hidden.c_str()); // as above: the failure to report is the rename's
        throw;
    }
}

} // namespace

void copy_file(path const& from, path const& to, copy_option option) { copy_regular(from, to, option, true); }

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
        case file_status::regular_file: copy_regular(source, target, copy_option::fail_if_exists, false); break;
        case file_status::symlink_file: copy_symlink(source, target); break;
        default: break; // fifos, sockets, devices are not copied
        }
    }
    sys::sync_folder(to_access); // the names made in it, once
}

} // namespace vela::filesystem
