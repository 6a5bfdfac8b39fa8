#pragma once

#include <stratum/export.hpp>
#include <stratum/storage/provider/ItemKind.hpp>
#include <stratum/storage/provider/ReplacementPolicy.hpp>
#include <stratum/storage/vfs/File.hpp>

#include <boost/date_time/posix_time/ptime.hpp>

#include <cstdint>

namespace stratum::storage::vfs {

/// What `remove` does with a folder.
enum FolderRemovalPolicy : std::uint32_t {
    /// A file or an empty folder only; a folder with contents fails with
    /// `ErrorCode::DirectoryNotEmpty` and nothing is removed.
    RemoveFileOrEmptyFolder = 0,
    /// A folder with everything in it.
    RemoveRecursively = 1
};

/// What is at `iri`: 0 a file, 1 a folder, 2 nothing (the `provider::ItemKind` values). Throws
/// only for a scheme without provider.
STRATUM_API int exists(AbsoluteIRI const& iri, StorageSystemReference const& storage);

/// Whether nothing is at `iri`: `exists` for a name the caller expects to be free, such as a
/// temporary name, asked as cheaply as the scheme allows (one listing on an object store).
STRATUM_API bool isFree(AbsoluteIRI const& iri, StorageSystemReference const& storage);

/// Whether the item may be changed: for a file, whether output streams may be opened on it.
/// `memory` items are writable until `setWritable(item, false)`; `file` items are writable
/// when the owner write bit is set. `ErrorCode::NotFound` for a missing item (for every
/// operation on items below).
STRATUM_API bool isWritable(FileOrFolder const& item);
/// Sets or clears writability. `file`: writable adds the owner write bit (0200) and keeps the
/// rest (0600 stays 0600); read-only clears every write bit (0222).
STRATUM_API void setWritable(FileOrFolder const& item, bool writable);

/// Last modification time, UTC. A `memory` file's time moves forward at every published
/// write (strictly, even within one clock tick).
STRATUM_API boost::posix_time::ptime getLastModified(FileOrFolder const& item);
/// Sets the last modification time (microseconds kept). Not-a-date-time is refused with
/// `ErrorCode::NotSupported`.
STRATUM_API void setLastModified(FileOrFolder const& item, boost::posix_time::ptime time);

/// Copies `source` to `destination`; each may be of any scheme and storage system.
/// - The kind comes from what is stored at the source (`ErrorCode::NotFound` if nothing); the
///   destination's alternative only names the place.
/// - Existing destination: `DoNotReplace` fails with `ErrorCode::FileExists`. Under `Replace` a
///   folder source removes it (a folder with its contents) first; a file source is copied to
///   a fresh hidden name beside it and renamed over it, so an existing file is replaced whole
///   and durably (never written into: its other hard links keep their content), with
///   permissions no wider than it had. A file never replaces a folder: `FileExists`, and
///   nothing is removed. Copying an item onto itself changes nothing under `Replace` and fails
///   with `FileExists` under `DoNotReplace`.
/// - A folder copy copies the whole tree. Copying a folder into itself fails with
///   `ErrorCode::NotSupported`.
/// - The destination's parent must be a folder (`ErrorCode::NotFound`).
/// - Content is copied by the provider when both ends are in it, else streamed from the
///   source provider to the destination's. A read-only source gives a read-only copy;
///   times are not copied. Not atomic: a failure may leave part of a tree copied.
STRATUM_API void copy(FileOrFolder const& source, FileOrFolder const& destination,
                      provider::ReplacementPolicy policy);

/// Moves `source` to `destination`. The same rules as `copy` for kinds, an existing
/// destination and missing parents. Within one provider (same scheme and storage system) it
/// is a rename: a file replacing a file is atomic where the back end is and durable (see the
/// provider's `rename`), a folder keeps its contents without copying. Across providers it is a
/// copy (a file as `copy` puts it in place) followed by the removal of the source. A file
/// never replaces a folder, and a folder never replaces a file (`ErrorCode::FileExists`). Moving
/// an item onto itself changes nothing; into itself, `ErrorCode::NotSupported`.
STRATUM_API void move(FileOrFolder const& source, FileOrFolder const& destination,
                      provider::ReplacementPolicy policy);

/// The provider's version tag of the stored file (see `StorageProvider::getVersionTag`):
/// `memory` a generation, `file` the host's tag (device, inode, size, times), `s3` the ETag.
/// `NotFound` when no file is there.
STRATUM_API std::string getVersionTag(File const& file);

/// Moves the file `source` over `destination` of the same provider only when `destination`
/// still has the version tag `expected` (empty: when nothing is there); otherwise
/// `ErrorCode::VersionMismatch` and nothing changes. `memory` checks and moves under its lock;
/// `file` as the host's conditional rename does; `s3` as its provider says. Across providers,
/// `NotSupported`. The other checks are those of `move`.
STRATUM_API void moveIfVersion(File const& source, File const& destination, std::string const& expected);

/// Removes a file, or a folder as `policy` says. `ErrorCode::NotFound` when nothing is there;
/// the root of a scheme can't be removed (`ErrorCode::NotSupported`). Read-only files are
/// removed like others.
STRATUM_API void remove(FileOrFolder const& item, FolderRemovalPolicy policy);

} // namespace stratum::storage::vfs
