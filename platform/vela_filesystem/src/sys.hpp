#pragma once
// Small helpers shared by the sources of this layer; not installed.

#include <vela/filesystem/exceptions.hpp>
#include <vela/filesystem/file_status.hpp>
#include <vela/filesystem/path.hpp>

#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <string>

namespace vela::filesystem::sys {

/// An owned file descriptor, closed on destruction.
class fd {
public:
    fd() = default;
    explicit fd(int value) noexcept : m_fd(value) {}
    fd(fd&& other) noexcept : m_fd(other.release()) {}
    fd& operator=(fd&& other) noexcept {
        reset(other.release());
        return *this;
    }
    fd(fd const&) = delete;
    fd& operator=(fd const&) = delete;
    ~fd() { reset(); }

    int get() const noexcept { return m_fd; }
    explicit operator bool() const noexcept { return m_fd >= 0; }
    int release() noexcept {
        int const value = m_fd;
        m_fd = -1;
        return value;
    }
    void reset(int value = -1) noexcept {
        if (m_fd >= 0)
            ::close(m_fd);
        m_fd = value;
    }

private:
    int m_fd = -1;
};

/// True for the "." and ".." entries that every folder listing holds.
inline bool is_dot_entry(char const* name) noexcept {
    return name[0] == '.' && (name[1] == '\0' || (name[1] == '.' && name[2] == '\0'));
}

/// The type bit for an st_mode.
std::uint32_t type_of_mode(mode_t mode) noexcept;

/// The full status from a stat record.
file_status status_of(struct stat const& st);

/// Modification time of a stat record (UTC, microseconds).
boost::posix_time::ptime modification_time(struct stat const& st);

/// Throws the exception for the current errno about `p`.
[[noreturn]] inline void fail(path const& p, errno_origin origin = errno_origin::general) {
    throw_from_errno(errno, p.native(), origin);
}

/// Runs a system call again while it is interrupted.
template <class F>
auto retry(F call) {
    for (;;) {
        auto const result = call();
        if (result != -1 || errno != EINTR)
            return result;
    }
}

/// fsync of a folder, to make a change of names in it durable.
void sync_folder(std::string const& folder_access);

/// The folder part of an access-form path ("." for a bare name).
std::string folder_of(std::string const& access);

/// Creates a new empty file with mode 0600 under a fresh hidden name ("." + random + ".tmp")
/// in the folder of `target_access`, exclusively and never through a link; returns it open
/// for writing and its access-form name in `created`.
fd create_beside(std::string const& target_access, std::string& created);

/// How `move_into_place` treats the file it moves.
struct placement {
    bool replace = true;   ///< false: an existing destination fails with EEXIST
    bool sync_data = true; ///< flush the moved file's data first (false when the caller just did)
    bool narrow = true;    ///< give the moved file no permission bit that a replaced file lacked
    /// The `version_tag` the destination must have (empty: nothing may be there); null: no check.
    std::string const* expected = nullptr;
};

/// The `version_tag` text of a stat record.
std::string version_of(struct stat const& st);
/// True when `st` is a regular file with the version `tag`; without `with_change_time` the
/// change time (which a rename or a mode change moves) is left out of the comparison.
bool has_version(struct stat const& st, std::string const& tag, bool with_change_time);

/// The durable rename behind `rename` and the overwriting `copy_file`: data sync, rename,
/// sync of the destination's folder and of the source's when it differs. A failure of any
/// step throws and leaves the destination as it was (see rename.cpp for the one exception).
/// `from` and `to` are access forms; `from_name` and `to_name` are used in reports.
void move_into_place(std::string const& from, std::string const& to, std::u16string const& from_name,
                     std::u16string const& to_name, placement how);

/// Staged renames (see `staged_rename_scope`). `defer_new_name`: true when `access` is the
/// staged name not yet created, so copy_file may leave its folder unflushed; it then reports
/// the flushed file with `note_flushed`. `take_staged`: true when `access` (with status `st`)
/// is that unchanged flushed file, whose data need not be flushed again; otherwise, as
/// `settle_owed` does, the owed folder flush is made first (throwing on failure).
bool defer_new_name(std::string const& access);
void note_flushed(std::string const& access, struct stat const& st);
bool take_staged(std::string const& access, struct stat const& st);
void settle_owed();

/// Inside a scope, `note_mode_change` keeps the mode `access` has before its first permission
/// change there; `mode_before_change` gives it back (false when it was not changed).
void note_mode_change(std::string const& access, mode_t mode);
bool mode_before_change(std::string const& access, mode_t& mode);

/// `is_staged`: `access` is the staged name of a live scope (not yet closed). `before_staging`:
/// a scope lives and nothing has been staged in it yet.
bool is_staged(std::string const& access);
bool before_staging();

/// Gives the open file `file` (status `own`), about to replace the regular file `old` (status
/// `old_st`), the owner, group, extended attributes (user, security, trusted) and access ACL of
/// `old`, as far as the process may set them; a refusal (EPERM, EACCES, ENOTSUP) is skipped,
/// any other failure throws about `name`. Returns the mode bits the file may keep: all, less
/// the group bits when its group is not the old one, or those the old ACL gave only to others
/// than the owning group when that ACL could not be carried.
mode_t carry_attributes(int file, struct stat const& own, std::string const& old, struct stat const& old_st,
                        std::u16string const& name);

/// While the scope lives, `access` (the file of status `st`) gets no mode bit outside `allowed`.
void cap_mode(std::string const& access, struct stat const& st, mode_t allowed);
mode_t mode_cap(std::string const& access, struct stat const& st);

/// After a rename replaced the file of status `replaced`: when that file is the scope's linked
/// backup and its mode changed since it was linked, the backup gets that mode back.
void restore_linked_backup(struct stat const& replaced);

/// Makes the name of a backup linked in the scope durable (folder fsync) if that is still owed;
/// throws on failure. A rename pays it before replacing anything.
void flush_linked_backup();

/// At the end of the outermost scope: a linked backup still sharing its source's file becomes a
/// copy (or, failing that, is removed); the caps are dropped. Never throws.
void end_linked_backup() noexcept;

} // namespace vela::filesystem::sys
