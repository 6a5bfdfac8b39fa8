#pragma once

#include <vela/filesystem/export.hpp>
#include <vela/filesystem/file_status.hpp>
#include <vela/filesystem/path.hpp>

#include <memory>
#include <string>
#include <utility>
#include <vector>

namespace vela::filesystem {

class directory_iterator;

/// One entry of a folder, valid until its iterator moves on.
///
/// `status()` is cheap: it holds the type that the folder listing itself gives (no lstat per
/// entry); only when the file system does not say (DT_UNKNOWN) is the entry lstat-ed, and then
/// the status is complete. Otherwise its permissions are 0, its time not-a-date-time and its
/// size 0: call `symlink_status()` for those (one lstat, cached). An entry that vanished
/// before an lstat reports `file_not_found`. Links are never followed.
class VELA_FS_API directory_entry {
public:
    /// The entry's type, and details only where they were needed to learn it (see above).
    file_status const& status() const;
    /// The full status of the entry itself (lstat on first call, then cached).
    file_status const& symlink_status() const;
    /// The folder's path as given to the iterator, "/" and the entry's name (UTF-16).
    std::u16string full_pathname() const;
    /// The entry's name (UTF-16).
    std::u16string filename() const;
    /// The entry's name as the kernel gives it (UTF-8 bytes), without any conversion.
    std::string const& native_filename() const noexcept { return m_name; }

private:
    friend class directory_iterator;
    directory_entry() = default;

    void const* m_owner = nullptr; // the iterator's state, for the folder and its descriptor
    std::string m_name;
    mutable file_status m_status;
    mutable bool m_status_complete = false;
};

/// Walks the entries of one folder, in the order the file system gives, skipping "." and "..".
///
/// Opening a missing path or a non-folder throws (`PathNotFound`, `NotDirectoryError`); a
/// final link to a folder is followed for the folder given, never for entries. `is_open()`
/// turns false after the last entry; dereferencing then throws `InvalidOperation`. Move-only;
/// the folder stays open while the iterator lives. A default-constructed iterator is the end,
/// so a range-for over `directory_iterator(p)` works too.
class VELA_FS_API directory_iterator {
public:
    directory_iterator() noexcept;
    explicit directory_iterator(path const& folder);
    directory_iterator(directory_iterator&&) noexcept;
    directory_iterator& operator=(directory_iterator&&) noexcept;
    directory_iterator(directory_iterator const&) = delete;
    directory_iterator& operator=(directory_iterator const&) = delete;
    ~directory_iterator();

    /// True while the iterator stands on an entry.
    bool is_open() const noexcept;

    directory_entry const& operator*() const;
    directory_entry const* operator->() const { return &**this; }
    /// Moves to the next entry; after the last one `is_open()` is false. A read error throws.
    directory_iterator& operator++();
    directory_iterator& increment() { return ++*this; }

    /// Equal when both have ended (the only comparison that is meaningful).
    friend bool operator==(directory_iterator const& a, directory_iterator const& b) noexcept {
        return !a.is_open() && !b.is_open();
    }
    friend bool operator!=(directory_iterator const& a, directory_iterator const& b) noexcept { return !(a == b); }

    struct state;

private:
    std::unique_ptr<state> m_state;
};

/// Appends to `files` the full path (the folder's native form, "/" and the name, as
/// `directory_entry::full_pathname` gives it) of every regular file and symbolic link in
/// `folder`, in the order the file system gives; with `recursive`, also those of its
/// sub-folders, depth first, each sub-folder's where it is met. Links are listed and never
/// followed; folders and other kinds are not listed. Throws what a walk with
/// `directory_iterator` over the same folders would throw, about the same path; what was found
/// before stays in `files`. Reads each folder once with large getdents64 calls and opens
/// sub-folders relative to their parent.
VELA_FS_API void list_files(path const& folder, bool recursive, std::vector<std::u16string>& files);

/// Range-for support: `begin` takes the iterator over (it is move-only).
inline directory_iterator begin(directory_iterator& it) noexcept { return std::move(it); }
inline directory_iterator end(directory_iterator const&) noexcept { return {}; }

} // namespace vela::filesystem
