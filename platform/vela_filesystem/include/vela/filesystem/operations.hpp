#pragma once

#include <vela/filesystem/export.hpp>
#include <vela/filesystem/file_status.hpp>
#include <vela/filesystem/path.hpp>

#include <boost/date_time/posix_time/posix_time_types.hpp>

#include <cstdint>
#include <functional>
#include <string>

/// Queries and changes on the host file system (Linux, POSIX calls).
///
/// Every operation takes `path` (a UTF-16 string converts implicitly), turns it into the
/// UTF-8 access form first (a lone surrogate throws `FileNameConversionFailure`, an embedded
/// NUL `InvalidArgument`, before anything is touched) and reports a failed system call
/// through `throw_from_errno`, i.e. as one of the `FsysExceptionBase` types carrying the
/// path. Nothing here takes locks or keeps state; concurrent calls are as safe as the
/// system calls below them. Unless said otherwise a final symbolic link is NOT followed.
namespace vela::filesystem {

// --- Queries ---------------------------------------------------------------------------

/// The status of the path itself (lstat). A missing path (ENOENT, or ENOTDIR for a path
/// through a file) gives a status of type `file_not_found` instead of throwing.
VELA_FS_API file_status symlink_status(path const& p);

/// True when something is at the path; a dangling symbolic link exists.
VELA_FS_API bool exists(path const& p);

/// The text stored in a symbolic link, as it is (not resolved against the link's folder).
VELA_FS_API path read_symlink(path const& p);

/// The folder for temporary files: `TMPDIR` when set and not empty, else "/tmp".
VELA_FS_API std::u16string temp_directory_name();

/// The process's current folder.
VELA_FS_API std::u16string get_current_path();

// --- Attributes ------------------------------------------------------------------------

/// Sets the nine permission bits (attribute bits are ignored on Linux). Without
/// `file_status::perms_symlink` a final link is followed (chmod). With it the bits are set on
/// the path itself: for anything but a link that is the same chmod; a link's own bits cannot
/// be changed on Linux, which throws `InvalidOperation`. A value carrying
/// `file_status::link_perms` (read from a link) is never applied to anything else: the path
/// is checked and left as it is.
VELA_FS_API void permissions(path const& p, std::uint32_t bits);

/// Sets the modification time (microseconds kept) of the path itself, not following a final
/// link; the access time is left as it is. A not-a-date-time or infinite time throws
/// `InvalidArgument`.
VELA_FS_API void last_write_time(path const& p, boost::posix_time::ptime const& time);

// --- Creation --------------------------------------------------------------------------

/// Creates one folder (mode 0777 less the umask). Throws `FileExistsError` when anything,
/// even a folder, is already there, `PathNotFound` when the parent is missing.
VELA_FS_API void create_directory(path const& p);

/// Creates the folder and every missing parent. An existing folder (or link to one) is fine;
/// an existing non-folder on the way throws (`FileExistsError` or `NotDirectoryError`).
/// Tolerates a folder created concurrently. Returns true when it created the last element.
VELA_FS_API bool create_directories(path const& p);

/// Creates the symbolic link `link` holding the text of `target` (which need not exist).
/// `type_hint` (a `file_status` type bit) only matters on hosts with typed links; it is
/// ignored here. An existing `link` throws `FileExistsError`.
VELA_FS_API void create_symlink(path const& target, path const& link,
                                std::uint32_t type_hint = file_status::regular_file);

// --- Copying ---------------------------------------------------------------------------

/// What `copy_file` does with an existing destination.
enum class copy_option : int {
    fail_if_exists = 0,     ///< throw `FileExistsError`, leave it alone
    overwrite_if_exists = 1 ///< replace it with a new file (its other hard links keep the old content)
};

/// Copies a regular file's content and permission bits (like `cp`; owner, times and
/// extended attributes are not copied). A final link in `from` is followed (it is opened for
/// reading); a final link at `to` is never followed nor replaced (`FileExistsError`), a folder
/// there is `FileIsDirectory`. The data moves inside the kernel (clone, then copy_file_range)
/// and falls back to read/write only where the kernel refuses; it is flushed to disk
/// (fdatasync) and so is the new name (fsync of the folder) before this returns.
/// A new destination is created exclusively and removed again on failure. An existing one is
/// never written into: the copy goes to a new hidden file beside it, which then replaces it
/// as `rename` does, so readers see the old or the new file whole, a hard link at `to` keeps
/// the old content, and on failure the destination is as it was.
VELA_FS_API void copy_file(path const& from, path const& to, copy_option option);
inline void copy_file(path const& from, path const& to, int option) {
    copy_file(from, to, static_cast<copy_option>(option));
}

/// Copies the symbolic link `from` itself (its text) to `to`; an existing `to` throws
/// `FileExistsError`.
VELA_FS_API void copy_symlink(path const& from, path const& to);

/// Copies the tree `from` into `to`: folders (with their permission bits), regular files (as
/// `copy_file`), links as links (never followed). An existing destination folder is merged
/// into; an existing file or link inside it throws `FileExistsError` and stops the copy,
/// leaving what was copied so far. Other entry types (fifos, sockets, devices) are skipped.
VELA_FS_API void copy_directory(path const& from, path const& to);

// --- Renaming and removal --------------------------------------------------------------

/// Switches for `rename`, both off by default.
struct rename_options {
    /// Fail with `FileExistsError` instead of replacing an existing destination (atomic
    /// check, renameat2 RENAME_NOREPLACE).
    bool no_replace = false;
    /// Across file systems (EXDEV), copy then remove the source instead of failing. The
    /// fallback is not atomic; a regular file or a link only.
    bool allow_copy = false;
};

/// An opaque text that changes whenever the regular file at `p` (not followed when a link) is
/// replaced or written: its device, inode, size, and change and modification times to the
/// nanosecond. `PathNotFound` when nothing is there, `FileIsDirectory` for a folder or
/// anything else that is not a regular file.
VELA_FS_API std::string version_tag(path const& p);

/// Renames `from` to `to`: atomic on one file system; an existing destination file or link is
/// replaced, an empty destination folder too; a file onto a folder is `FileIsDirectory`, a folder
/// onto a file `NotDirectoryError`. With default options there is no fallback (across file systems:
/// `SystemError` with EXDEV). Durable: the data of a moved regular file is synced first, then the
/// name is changed, then the destination's folder is fsync-ed, and the source's folder too when it
/// differs. Before a regular file replaces a regular file (or a link to one), the moved file loses
/// every permission bit that the replaced file lacked, so the destination is never wider than it
/// was (inside a `staged_rename_scope`, than it was before the scope changed its permissions). Any
/// failed step throws and leaves the destination as it was: an existing file or link is exchanged
/// with the source (renameat2 RENAME_EXCHANGE) and exchanged back on failure, and its old content
/// is removed only when all is durable. Where the file system cannot exchange, a plain rename is
/// made and a failed folder sync after it is reported with the new file in place.
VELA_FS_API void rename(path const& from, path const& to, rename_options options = {});

/// `rename` with default options, made only when the destination is what `expected_version`
/// says: the file whose `version_tag` it is, or, when empty, nothing. Otherwise `SystemError`
/// with ESTALE is thrown and the destination is left as it was. Nothing there: the rename is
/// made with RENAME_NOREPLACE. A file there: it is compared before the rename, exchanged with
/// the source (RENAME_EXCHANGE), and the file swapped out is compared again and exchanged back
/// when it is another one, so a file another writer put there is never lost. Both comparisons
/// leave out the change time, which a mode change or the exchange itself moves. Where the file
/// system can neither exchange nor refuse to replace, the comparison before a plain rename is
/// the only one: a writer acting between the two loses its file.
VELA_FS_API void rename_if_version(path const& from, path const& to, std::string const& expected_version);

/// For a caller that copies into a fresh temporary name and renames that file into place at
/// once (a commit): while an object lives on a thread, the first path given to `stage()` there
/// is such a name, and the rename's own flushes stand in for two of the copy's.
/// - `copy_file` creating the staged file flushes its data but not yet its folder: that flush
///   is owed. Any other `copy_file` or `rename` on the thread pays it first, and so does the
///   end of the scope (where a failure can no longer be reported).
/// - `rename` of the staged file, when it is still the file `copy_file` made and flushed (same
///   device, inode, size, mode and times), does not flush its data a second time; the folder
///   fsync after the rename makes both names durable, so the owed flush is settled by it.
/// - A file whose permissions were changed in the scope (a read-only target made writable for
///   the rename) counts with the mode it had before: a regular file renamed over it takes that
///   mode exactly, so the new file is never wider than the old one and needs no narrowing later.
/// - The staged file renamed over a regular file first takes that file's owner and group,
///   extended attributes (user, and security and trusted where permitted) and access ACL, so
///   that the rename alone replaces the file with all of it. What may not be set is skipped, but
///   never to the file's advantage: without the old group (or an ACL that could not be set) the
///   file loses the group bits the old group (or the ACL's own group entry) lacked, and keeps
///   that limit against later permission changes in the scope.
/// - A backup made by `link_backup` shares the file it backs up until the rename replaces that
///   file; if the scope ends before that, the backup is turned into a copy (or removed), so that
///   it never shares its file with the one still in place.
/// - A cleanup given to `on_abandon` runs when the scope ends before `close()`, and so does the
///   restoring of every file made wider in the scope (a read-only target made writable for a
///   rename that never came): it gets its earlier mode back.
/// Scopes nest; only the outermost one stages and settles.
class VELA_FS_API staged_rename_scope {
public:
    staged_rename_scope();
    ~staged_rename_scope();
    staged_rename_scope(staged_rename_scope const&) = delete;
    staged_rename_scope& operator=(staged_rename_scope const&) = delete;

    /// Marks `temporary` as the staged name when a scope lives on this thread and none has
    /// been staged in it yet; otherwise does nothing.
    static void stage(path const& temporary);

    /// Registers what removes the temporary item when the scope ends without `close()` (a
    /// failed commit); only the first registration of the outermost scope counts, and none
    /// after `close()` or without a scope. Its failures are ignored.
    static void on_abandon(std::function<void()> cleanup);

    /// Marks, while it lives, the copies on this thread as backups of the file that the scope's
    /// rename is about to replace (a commit's backup step): only they may become links.
    class VELA_FS_API backup_copy {
    public:
        backup_copy();
        ~backup_copy();
        backup_copy(backup_copy const&) = delete;
        backup_copy& operator=(backup_copy const&) = delete;
    };

    /// Inside a scope and a `backup_copy`, before anything is staged, once: puts at `to` a hard link to `from`
    /// instead of a copy, when `from` is a regular file with one link on a file system that
    /// links it; an existing regular file at `to` is replaced as `copy_file` replaces it (a link
    /// or a folder there throws as it does); its name is made durable (folder fsync) before any
    /// rename on this thread, so before the rename that replaces `from`. While
    /// they share it, a mode change of `from` in the scope is taken back from the backup when
    /// the rename replaces `from`. False, with nothing done, where a link cannot stand for the
    /// copy: the caller copies.
    static bool link_backup(path const& from, path const& to);

    /// For a back end whose items are not host files: inside a scope, keeps the mode `read`
    /// gives for `key` (its name for an item whose permissions it is about to change) unless
    /// one is kept already; `read` is called only then. `remembered_mode` gives it back; both
    /// do nothing (false) without a scope. `restore` is called with the kept mode when the
    /// scope ends before `close()`; it narrows the item back when it is wider than that.
    static void remember_mode(std::string const& key, std::function<std::uint32_t()> const& read,
                              std::function<void(std::uint32_t)> restore);
    static bool remembered_mode(std::string const& key, std::uint32_t& mode);

    /// Ends the staging early, once the staged file is in place: pays an owed folder flush
    /// (throwing on failure) and stages nothing more, so that code run later in the scope
    /// copies and renames as usual.
    void close();
};

/// Removes a file, a symbolic link (not its target) or an empty folder. A missing path throws
/// `PathNotFound`, a folder with entries `DirectoryNotEmpty`.
VELA_FS_API void remove(path const& p);

/// Removes the path with everything below it and returns the number of entries removed (0
/// for a missing path, which is not an error). Never follows a symbolic link: a link is
/// removed itself, and the walk holds each folder open with O_NOFOLLOW|O_DIRECTORY and works
/// relative to it (openat/unlinkat), so a folder swapped for a link during the walk makes it
/// fail rather than escape the tree. Stops at the first failure, leaving the rest.
VELA_FS_API std::uintmax_t remove_all(path const& p);

} // namespace vela::filesystem
