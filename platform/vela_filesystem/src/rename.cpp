// Renaming so that the destination is either the old file or the whole new one, also after a
// crash: the moved file's data is synced first, the folders after, and a failed step puts the
// old destination back.
#include "sys.hpp"

#include <vela/filesystem/operations.hpp>

#include <fcntl.h>
#include <stdio.h>

namespace vela::filesystem {

namespace sys {

namespace {

// Which side a failed rename(2) is about, where the error says so.
[[noreturn]] void fail_rename(int error, std::u16string const& from, std::u16string const& to) {
    throw_from_errno(error, (error == EEXIST || error == EISDIR || error == ENOTEMPTY) ? to : from);
}

// A descriptor on the regular file `access` to sync and narrow it: read-only, else write-only
// (never truncating) for a file its owner may not read; empty when neither is allowed.
fd open_moved_file(std::string const& access, std::u16string const& name) {
    for (int flags : {O_RDONLY, O_WRONLY}) {
        fd file(retry([&] { return ::open(access.c_str(), flags | O_NOFOLLOW | O_CLOEXEC); }));
        if (file)
            return file;
        if (errno != EACCES && errno != EPERM)
            throw_from_errno(errno, name);
    }
    return fd();
}

void sync_data(fd const& file, std::string const& access, std::u16string const& name) {
    if (file) {
        if (::fdatasync(file.get()) != 0)
            throw_from_errno(errno, name);
        return;
    }
    // A file that may be neither read nor written here: flush its whole file system instead.
    fd folder(retry([&] { return ::open(folder_of(access).c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC); }));
    if (!folder || ::syncfs(folder.get()) != 0)
        throw_from_errno(errno, name);
}

void set_mode(fd const& file, std::string const& access, mode_t mode, std::u16string const& name) {
    if ((file ? ::fchmod(file.get(), mode) : ::chmod(access.c_str(), mode)) != 0)
        throw_from_errno(errno, name);
}

bool same_file(struct stat const& a, struct stat const& b) { return a.st_dev == b.st_dev && a.st_ino == b.st_ino; }

// fsync of the folders of both names (once when they share one); false when one fails.
bool sync_both_folders(std::string const& from, std::string const& to, bool report,
                       std::u16string const& to_name) {
    std::string const to_folder = folder_of(to), from_folder = folder_of(from);
    for (std::string const* folder : {&to_folder, &from_folder}) {
        if (folder == &from_folder && from_folder == to_folder)
            break;
        fd handle(retry([&] { return ::open(folder->c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC); }));
        if (!handle || ::fsync(handle.get()) != 0) {
            if (report)
                throw_from_errno(errno, folder == &to_folder ? to_name : detail::from_filesystem(*folder));
            return false;
        }
    }
    return true;
}

enum class undo { impossible,
                  exchange,
                  rename_back };

// Puts the destination back as it was before the rename. Called while a failure is being
// reported: that failure is what the caller must see, so a failure here is not reported on
// top of it (nothing better could be done about it here).
void put_back(undo how, std::string const& from, std::string const& to) noexcept {
    int result = -1;
    if (how == undo::exchange)
        result = ::renameat2(AT_FDCWD, to.c_str(), AT_FDCWD, from.c_str(), RENAME_EXCHANGE);
    else if (how == undo::rename_back)
        result = ::renameat2(AT_FDCWD, to.c_str(), AT_FDCWD, from.c_str(), RENAME_NOREPLACE);
    if (result == 0)
        sync_both_folders(from, to, false, {});
}

// A conditional rename refused: the destination is not the file (or the absence) expected.
[[noreturn]] void fail_stale(std::u16string const& to_name) { throw_from_errno(ESTALE, to_name); }

// The change time is left out here too: a read-only destination made writable for this rename
// has a new one, and only the content and the file's identity matter.
void check_expected(placement const& how, bool present, struct stat const& target, std::u16string const& to_name) {
    if (how.expected->empty() ? present : !present || !has_version(target, *how.expected, false))
        fail_stale(to_name);
}

// The exchange put the old destination under the source's name: when another writer replaced
// or wrote it since the check, its file goes back and nothing is lost.
void check_swapped_out(std::string const& expected, std::string const& from, std::string const& to,
                       std::u16string const& to_name) {
    struct stat swapped;
    if (::lstat(from.c_str(), &swapped) == 0 && has_version(swapped, expected, false))
        return;
    put_back(undo::exchange, from, to);
    fail_stale(to_name);
}

// RENAME_NOREPLACE, or a check and a plain rename where the file system lacks it.
int rename_no_replace(std::string const& from, std::string const& to, placement const& how) {
    int const result = ::renameat2(AT_FDCWD, from.c_str(), AT_FDCWD, to.c_str(), RENAME_NOREPLACE);
    if (result == 0 || (errno != EINVAL && errno != ENOSYS) || !how.expected)
        return result;
    struct stat there;
    if (::lstat(to.c_str(), &there) == 0) {
        errno = EEXIST;
        return -1;
    }
    return ::rename(from.c_str(), to.c_str());
}

} // namespace

void move_into_place(std::string const& from, std::string const& to, std::u16string const& from_name,
                     std::u16string const& to_name, placement how) {
    struct stat source, target, behind;
    if (::lstat(from.c_str(), &source) != 0)
        throw_from_errno(errno, from_name);
    bool const regular = S_ISREG(source.st_mode);
    bool const present = ::lstat(to.c_str(), &target) == 0;

    // 1. The data, so that the name never reaches the disk before the content does; not again
    //    for a staged copy that is unchanged since its own flush.
    bool const staged = take_staged(from, source);
    fd file;
    if (regular && how.sync_data && !staged) {
        file = open_moved_file(from, from_name);
        sync_data(file, from, from_name);
    }

    // 2. No moment with the destination wider than before: take away the bits the replaced file
    //    (or the file behind a link there) lacks. Bits that cannot be read cannot be kept
    //    within, so that refuses the rename; a link that leads nowhere replaces no bits. A file
    //    made writable only for this rename (in a staged scope) passes on its earlier mode as
    //    it is, so that nothing is left to narrow after the rename.
    mode_t const before = source.st_mode & 07777;
    mode_t after = before;
    if (how.narrow && how.replace && regular && present) {
        if (::stat(to.c_str(), &behind) == 0) {
            mode_t earlier = 0;
            if (S_ISREG(behind.st_mode))
                after = mode_before_change(to, earlier) ? earlier : before & behind.st_mode;
        } else if (errno != ENOENT && errno != ENOTDIR && errno != ELOOP) {
            throw_from_errno(errno, to_name);
        }
    }
    //    The staged file of a commit takes everything else of the regular file it replaces too,
    //    before the rename, so the rename alone puts all of it in place.
    bool const carry = how.replace && regular && present && S_ISREG(target.st_mode) && is_staged(from);
    mode_t allowed = 07777, current = before;
    if (carry) {
        if (!file)
            file = open_moved_file(from, from_name);
        struct stat own = source;
        if (file && ::fstat(file.get(), &own) != 0)
            throw_from_errno(errno, from_name);
        // Without a descriptor nothing can be carried: the old group's bits are not given away.
        allowed = file ? carry_attributes(file.get(), own, to, target, from_name) : mode_t(~mode_t(070));
        after &= allowed;
        // An ACL sets the mode bits, and a change of owner may clear set-id bits.
        if (file && ::fstat(file.get(), &own) != 0)
            throw_from_errno(errno, from_name);
        current = own.st_mode & 07777;
    }
    if (after != current) {
        if (!file)
            file = open_moved_file(from, from_name);
        set_mode(file, from, after, from_name);
    }

    // 3. The rename. Over an existing file or link, exchange the two names, so that the old
    //    destination can come back if a later step fails. A file system that cannot exchange
    //    gets a plain rename; a failed folder sync after it is still reported, but the old
    //    destination is then gone (as it is when an empty folder is replaced).
    undo back = present ? undo::impossible : undo::rename_back;
    try {
        if (how.expected)
            check_expected(how, present, target, to_name);
        flush_linked_backup(); // a backup's name is durable before the file it keeps is replaced
        bool exchanged = false;
        if (how.replace && present && !S_ISDIR(source.st_mode) && !S_ISDIR(target.st_mode) &&
            !same_file(source, target)) {
            exchanged = ::renameat2(AT_FDCWD, from.c_str(), AT_FDCWD, to.c_str(), RENAME_EXCHANGE) == 0;
            if (!exchanged && errno != EINVAL && errno != ENOSYS)
                fail_rename(errno, from_name, to_name);
        }
        if (exchanged && how.expected)
            check_swapped_out(*how.expected, from, to, to_name);
        if (!exchanged) {
            int const result = how.replace ? ::rename(from.c_str(), to.c_str()) : rename_no_replace(from, to, how);
            if (result != 0)
                fail_rename(how.expected && errno == EEXIST ? ESTALE : errno, from_name, to_name);
        }
        if (exchanged)
            back = undo::exchange;
    } catch (...) {
        if (after != before)
            ::chmod(from.c_str(), before); // the moved file's own mode; the rename's failure is the report
        throw;
    }

    // 4. The folders, then the old content that the exchange left under the source's name
    //    (its removal need not be durable: after a crash it is a stray file beside, never at,
    //    the destination).
    try {
        if (carry) {
            cap_mode(to, source, allowed);
            restore_linked_backup(target);
        }
        sync_both_folders(from, to, true, to_name);
        if (back == undo::exchange && ::unlink(from.c_str()) != 0)
            throw_from_errno(errno, from_name);
    } catch (...) {
        put_back(back, from, to);
        throw;
    }
}

} // namespace sys

namespace {

void copy_then_remove(path const& from, path const& to) {
    file_status const st = symlink_status(from);
    if (st.type() == file_status::symlink_file)
        copy_symlink(from, to);
    else if (st.type() == file_status::regular_file) {
        if (symlink_status(to).type() == file_status::symlink_file)
            remove(to); // copy_file never writes through a link, and rename replaces the link
        copy_file(from, to, copy_option::overwrite_if_exists);
    } else
        throw_from_errno(EXDEV, from.native());
    remove(from);
}

} // namespace

void rename(path const& from, path const& to, rename_options options) {
    sys::placement how;
    how.replace = !options.no_replace;
    try {
        sys::move_into_place(from.access_form(), to.access_form(), from.native(), to.native(), how);
    } catch (SystemError const& e) {
        if (e.error_number() != EXDEV || !options.allow_copy)
            throw;
        if (options.no_replace && exists(to))
            throw_from_errno(EEXIST, to.native());
        copy_then_remove(from, to);
    }
}

void rename_if_version(path const& from, path const& to, std::string const& expected_version) {
    sys::placement how;
    how.replace = !expected_version.empty();
    how.expected = &expected_version;
    sys::move_into_place(from.access_form(), to.access_form(), from.native(), to.native(), how);
}

} // namespace vela::filesystem
