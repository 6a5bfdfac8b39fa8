// What a staged rename keeps of the file it replaces (owner, group, extended attributes, access
// ACL), and a backup of that file made by a hard link instead of a copy.
#include "sys.hpp"

#include <vela/filesystem/operations.hpp>
#include <vela/filesystem/temp.hpp>

#include <fcntl.h>
#include <sys/xattr.h>

#include <cstdint>
#include <cstring>
#include <vector>

namespace vela::filesystem {

namespace sys {

namespace {

char const acl_name[] = "system.posix_acl_access";

// A hard link standing for a copy while the scope lives, and the status of the file when linked.
struct linked_backup {
    bool made = false;
    bool flush_owed = false; // its folder, not yet flushed since the link
    std::string source, backup;
    struct stat st;
};

// Files renamed into place in the scope that may not get back mode bits they were refused.
struct mode_cap_entry {
    std::string access;
    dev_t dev;
    ino_t ino;
    mode_t allowed;
};

thread_local linked_backup linked;
thread_local int backup_copies = 0; // live `backup_copy` marks
thread_local std::vector<mode_cap_entry> caps;

bool same_inode(struct stat const& a, struct stat const& b) { return a.st_dev == b.st_dev && a.st_ino == b.st_ino; }

// Refusals that mean "not carried", as opposed to a failing disk.
bool not_permitted(int error) {
    return error == EPERM || error == EACCES || error == ENOTSUP || error == EOPNOTSUPP;
}

// Calls `get(buffer, size)` (an xattr query answering a size) until the answer fits; false with
// errno when it fails.
template <class Get>
bool query(std::vector<char>& out, Get get) {
    for (;;) {
        ssize_t const size = get(nullptr, 0);
        if (size < 0)
            return false;
        out.resize(std::size_t(size));
        ssize_t const got = get(out.data(), out.size());
        if (got >= 0) {
            out.resize(std::size_t(got));
            return true;
        }
        if (errno != ERANGE) // grew in between: ask again
            return false;
    }
}

// The group bits an ACL grants the owning group: its group entry limited by its mask.
mode_t acl_group_bits(std::vector<char> const& acl) {
    constexpr std::uint16_t group_obj = 0x04, mask = 0x10;
    std::uint16_t group = 0, limit = 07;
    for (std::size_t at = 4; at + 8 <= acl.size(); at += 8) { // a 4-byte header, then 8-byte entries
        std::uint16_t tag, perm;
        std::memcpy(&tag, acl.data() + at, 2);
        std::memcpy(&perm, acl.data() + at + 2, 2);
        if (tag == group_obj)
            group = perm & 07;
        else if (tag == mask)
            limit = perm & 07;
    }
    return mode_t(group & limit) << 3;
}

bool carried_namespace(std::string const& name) {
    return name.rfind("user.", 0) == 0 || name.rfind("security.", 0) == 0 || name.rfind("trusted.", 0) == 0 ||
           name == acl_name;
}

} // namespace

mode_t carry_attributes(int file, struct stat const& own, std::string const& old, struct stat const& old_st,
                        std::u16string const& name) {
    mode_t allowed = 07777;
    auto fail_unless_refused = [&](int error) {
        if (!not_permitted(error))
            throw_from_errno(error, name);
    };
    // Owner and group; a process that may not give the owner may still give one of its groups.
    gid_t group = own.st_gid;
    if (own.st_uid != old_st.st_uid || own.st_gid != old_st.st_gid) {
        if (::fchown(file, old_st.st_uid, old_st.st_gid) == 0) {
            group = old_st.st_gid;
        } else {
            fail_unless_refused(errno);
            if (own.st_gid != old_st.st_gid && ::fchown(file, uid_t(-1), old_st.st_gid) == 0)
                group = old_st.st_gid;
            else if (own.st_gid != old_st.st_gid)
                fail_unless_refused(errno);
        }
    }
    // A different group must not get what the old group had.
    if (group != old_st.st_gid)
        allowed &= ~mode_t(070);

    std::vector<char> names;
    if (!query(names, [&](char* b, std::size_t n) { return ::llistxattr(old.c_str(), b, n); })) {
        fail_unless_refused(errno);
        names.clear(); // attributes not supported here: nothing to carry
    }
    bool had_acl = false;
    std::vector<char> value;
    for (std::size_t at = 0; at < names.size(); at += std::strlen(names.data() + at) + 1) {
        std::string const attribute(names.data() + at);
        if (!carried_namespace(attribute))
            continue;
        if (!query(value, [&](char* b, std::size_t n) { return ::lgetxattr(old.c_str(), attribute.c_str(), b, n); })) {
            if (errno == ENODATA) // removed meanwhile
                continue;
            fail_unless_refused(errno);
            if (attribute != acl_name)
                continue;
            allowed &= ~mode_t(070); // an ACL that cannot be read: no group bits at all
            had_acl = true;
            continue;
        }
        bool const acl = attribute == acl_name;
        had_acl = had_acl || acl;
        if (::fsetxattr(file, attribute.c_str(), value.data(), value.size(), 0) == 0)
            continue;
        fail_unless_refused(errno);
        if (acl) // without its entries, the mode's group bits would be its mask: only the group's own
            allowed &= ~mode_t(070) | acl_group_bits(value);
    }
    // An ACL inherited from the folder's default one is not the old file's.
    if (!had_acl && ::fremovexattr(file, acl_name) != 0 && errno != ENODATA)
        fail_unless_refused(errno);
    return allowed;
}

void cap_mode(std::string const& access, struct stat const& st, mode_t allowed) {
    if (allowed != 07777)
        caps.push_back({access, st.st_dev, st.st_ino, allowed});
}

mode_t mode_cap(std::string const& access, struct stat const& st) {
    for (auto const& cap : caps)
        if (cap.access == access && cap.dev == st.st_dev && cap.ino == st.st_ino)
            return cap.allowed;
    return 07777;
}

void restore_linked_backup(struct stat const& replaced) {
    struct stat now;
    if (!linked.made || !same_inode(replaced, linked.st) || ::lstat(linked.backup.c_str(), &now) != 0 ||
        !same_inode(now, linked.st) || (now.st_mode & 07777) == (linked.st.st_mode & 07777))
        return;
    // The target was made writable while it shared the backup's inode: the backup takes back
    // the mode that a copy made then would have.
    if (::chmod(linked.backup.c_str(), linked.st.st_mode & 07777) != 0)
        throw_from_errno(errno, detail::from_filesystem(linked.backup));
}

void flush_linked_backup() {
    if (!linked.made || !linked.flush_owed)
        return;
    sync_folder(folder_of(linked.backup));
    linked.flush_owed = false;
}

void end_linked_backup() noexcept {
    caps.clear();
    if (!linked.made)
        return;
    struct stat source, backup;
    if (::lstat(linked.backup.c_str(), &backup) != 0 || !same_inode(backup, linked.st) ||
        ::lstat(linked.source.c_str(), &source) != 0 || !same_inode(source, linked.st)) {
        try { // the source was replaced (or the backup is gone): nothing is shared
            flush_linked_backup();
        } catch (...) {
        }
        linked.made = false;
        return;
    }
    linked.made = false;
    // The file was not replaced: the backup becomes the copy it stands for, with the mode the
    // file had when linked and the time given to the backup; failing that, it goes, so that it
    // never shares the file.
    try {
        path const name(detail::from_filesystem(linked.backup));
        copy_file(name, name, copy_option::overwrite_if_exists);
        struct timespec const times[2] = {{0, UTIME_OMIT}, backup.st_mtim};
        if (::chmod(linked.backup.c_str(), linked.st.st_mode & 07777) == 0 &&
            ::utimensat(AT_FDCWD, linked.backup.c_str(), times, AT_SYMLINK_NOFOLLOW) == 0)
            return;
    } catch (...) {
    }
    if (::unlink(linked.backup.c_str()) == 0) {
        try {
            sync_folder(folder_of(linked.backup));
        } catch (...) {
        }
    }
}

} // namespace sys

staged_rename_scope::backup_copy::backup_copy() { ++sys::backup_copies; }

staged_rename_scope::backup_copy::~backup_copy() { --sys::backup_copies; }

bool staged_rename_scope::link_backup(path const& from, path const& to) {
    if (sys::backup_copies == 0 || !sys::before_staging() || sys::linked.made)
        return false;
    std::string const source = from.access_form(), backup = to.access_form();
    struct stat st, existing;
    if (::lstat(source.c_str(), &st) != 0 || !S_ISREG(st.st_mode) || st.st_nlink != 1)
        return false;
    bool const present = ::lstat(backup.c_str(), &existing) == 0;
    if (present && !S_ISREG(existing.st_mode)) // as copy_file: never through a link, never over a folder
        throw_from_errno(S_ISDIR(existing.st_mode) ? EISDIR : EEXIST, to.native());
    sys::settle_owed();
    // A new name is linked where it goes; an old backup is replaced by a link made beside it.
    std::string made = backup;
    int result = 0;
    if (present) {
        std::u16string const folder = detail::from_filesystem(sys::folder_of(backup));
        do {
            made = detail::to_filesystem(tmpnam(folder, u".", u".tmp"));
            result = ::link(source.c_str(), made.c_str());
        } while (result != 0 && errno == EEXIST);
    } else {
        result = ::link(source.c_str(), backup.c_str());
    }
    if (result != 0)
        return false; // no hard links here, or not for this file: the caller copies
    if (present && ::rename(made.c_str(), backup.c_str()) != 0) {
        int const error = errno;
        ::unlink(made.c_str()); // our hidden link: the failure to report is the rename's
        throw_from_errno(error, to.native());
    }
    // The folder is flushed before the file is replaced, after the new content's own flush,
    // which on most file systems has already written the new name.
    sys::linked.flush_owed = true;
    sys::linked.made = true;
    sys::linked.source = source;
    sys::linked.backup = backup;
    sys::linked.st = st;
    return true;
}

} // namespace vela::filesystem
