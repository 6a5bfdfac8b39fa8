#pragma once

#include <stratum/export.hpp>
#include <stratum/storage/provider/FileAttributes.hpp>
#include <stratum/storage/provider/ItemKind.hpp>
#include <stratum/storage/vfs/IRI.hpp>

#include <boost/date_time/posix_time/ptime.hpp>

#include <cstdint>
#include <ios>
#include <memory>
#include <optional>
#include <streambuf>
#include <string>
#include <vector>

namespace stratum::storage::provider {

/// A write buffer that a provider hands out for one open output stream.
///
/// It keeps no bytes of its own: every `sputn`/`sputc` hands the bytes to the storage before
/// it returns, all of them or a thrown `vfs::Exception` (`NoSpace`, `FileTooLarge`, `IOError`,
/// ...) from that very call; it never reports a refused write by a short count or by `eof`
/// alone. A short write of the back end is continued until complete or failed. `seekoff`
/// with offset 0 from the current position tells the output position.
class STRATUM_API OutputBuffer : public std::streambuf {
public:
    /// Releases the file and reports what only the release can tell (a failed close of a
    /// descriptor). A scheme that must hold bytes back until here (a multipart upload) must
    /// leave no object at all when this fails. Called at most once, by the stream's `close()`;
    /// the destructor releases without reporting.
    virtual void close() = 0;

protected:
    /// One byte through `xsputn`, so a scheme writes bytes in one place only.
    int_type overflow(int_type c) override;
};

/// One child of a folder, as a provider lists it.
struct FolderEntry {
    std::u16string name; ///< decoded name of the child (one segment)
    bool folder;         ///< true for a folder, false for a file
};

/// What a provider knows of one item: its kind and, for a file, what it has learned of its
/// attributes and version tag (each empty when unknown).
struct ItemInfo {
    ItemKind kind = NoItem;
    std::optional<std::uint64_t> size;
    std::optional<boost::posix_time::ptime> lastModified;
    std::optional<bool> writable;
    std::optional<std::string> versionTag;
};

/// The one interface a storage scheme implements. The public operations of `vfs` (`File`,
/// `Folder`, `exists`, `copy`, `move`, `remove`, the streams) look up the provider registered
/// for the IRI's scheme in the storage system and reduce everything to these primitives:
/// replacement policies, recursion, cross-scheme copies, mode decoding and the checks that are
/// the same for every scheme live above this interface, once.
///
/// Every IRI handed to a provider has the provider's scheme. Failures are thrown as
/// `vfs::Exception` with the matching `ErrorCode` and the IRI concerned as location; a
/// provider translates its own back end's failures in one place. A provider is shared by all
/// copies of a storage system reference and may be called from several threads at once: each
/// call must be safe against concurrent calls (a sequence of calls is not atomic).
///
/// What every scheme, later ones included (an object store, a network share), must guarantee
/// so that no saved data is lost silently:
/// - Output never loses a write: see `OutputBuffer`. A refused write reaches the writer at the
///   write that carried it, or (a scheme that sends in the background) at a later write, a
///   flush or `close()`; a scheme that can only fail at close leaves no object then.
/// - `rename` puts a file in place durably: the moved data is made durable first, then the
///   name changes, then the change itself is made durable (both folders when they differ). A
///   failure of any step fails the rename and leaves an existing `to` as it was. A file that
///   replaces a file never carries permissions wider than the one it replaces.
/// - A file never replaces a folder (`vfs` refuses it before asking the provider).
/// - `copyFile` creates a new item; it never writes into an existing one.
///
/// `s3` (object storage) meets these as an object store can: a write becomes visible only at
/// `close()` (content is buffered and sent in parts, several at once; a part that fails
/// throws from the next write or flush after its failure is known, at the latest from
/// `close()`, and then no object is left; a failed completion leaves no object, and a stream
/// dropped without `close()` leaves none either); `rename` is a server-side copy, durable once acknowledged, then the
/// deletion of the source; `copyFile` is a server-side copy that keeps the object's time and
/// writability; `app` and `in|out` rewrite the whole object. Its folders are the
/// prefixes of its keys: an item may be made under any prefix that is not a file, and
/// `createFolder` writes a marker so that an empty folder exists too.
/// When the copy is in place and only the deletion of the source failed, `rename` throws
/// `StateNotRecoverable` ("the new content is in place at <to>; only the removal of this source failed: ..."):
/// the destination holds the new content and the source is left over.
class STRATUM_API StorageProvider {
public:
    StorageProvider() = default;
    StorageProvider(StorageProvider const&) = delete;
    StorageProvider& operator=(StorageProvider const&) = delete;
    virtual ~StorageProvider();

    /// What is at `iri`; never throws for a missing item (or a path through a file).
    virtual ItemKind getKind(vfs::AbsoluteIRI const& iri) = 0;

    /// Size, time and writability of the file at `iri`. `NotFound` when there is no file
    /// there (nothing, or a folder).
    virtual FileAttributes getAttributes(vfs::AbsoluteIRI const& iri) = 0;

    /// The direct children of the folder at `iri`, sorted by name (code unit order).
    /// `NotFound` when `iri` is not a folder.
    virtual std::vector<FolderEntry> listFolder(vfs::AbsoluteIRI const& iri) = 0;

    /// Creates one folder. `FileExists` when anything is at `iri` already; `NotFound` when
    /// the parent is not a folder (where folders are implicit: when it is a file).
    virtual void createFolder(vfs::AbsoluteIRI const& iri) = 0;

    /// Writability of a file or folder. A read-only file refuses output streams.
    /// `NotFound` for a missing item.
    virtual bool isWritable(vfs::AbsoluteIRI const& iri) = 0;
    virtual void setWritable(vfs::AbsoluteIRI const& iri, bool writable) = 0;

    /// Last modification time (UTC) of a file or folder. `NotFound` for a missing item.
    virtual boost::posix_time::ptime getLastModified(vfs::AbsoluteIRI const& iri) = 0;
    virtual void setLastModified(vfs::AbsoluteIRI const& iri, boost::posix_time::ptime time) = 0;

    /// Removes the file at `iri` (read-only files too). `NotFound` when no file is there.
    virtual void removeFile(vfs::AbsoluteIRI const& iri) = 0;

    /// Removes the empty folder at `iri`. `DirectoryNotEmpty` when it holds anything,
    /// `NotFound` when no folder is there.
    virtual void removeEmptyFolder(vfs::AbsoluteIRI const& iri) = 0;

    /// Removes the folder at `iri` with everything in it. The default walks the tree with
    /// `listFolder`, `removeFile` and `removeEmptyFolder`; providers that can do better
    /// (in one lock, or without following links) override it.
    virtual void removeTree(vfs::AbsoluteIRI const& iri);

    /// Renames `from` (a file or folder) to `to` within this provider. The caller guarantees
    /// that `from` exists, that `to` is neither `from` nor inside it, that `to`'s parent is a
    /// folder, and that `to` is either missing or a file while `from` is a file; an existing
    /// file at `to` is replaced atomically where the back end can. Durable, and narrowing the
    /// incoming file's permissions, as the class comment says.
    virtual void rename(vfs::AbsoluteIRI const& from, vfs::AbsoluteIRI const& to) = 0;

    /// An opaque text that changes whenever the file at `iri` is written or replaced.
    /// `NotFound` when no file is there. The default: `NotSupported`.
    virtual std::string getVersionTag(vfs::AbsoluteIRI const& iri);

    /// `rename` of the file `from` over `to` only when `to` holds the file with the version tag
    /// `expected` (empty: when nothing is at `to`); otherwise `VersionMismatch`, with `to` and
    /// `from` as they were. As atomic as the back end allows: a provider says how. The caller
    /// guarantees what it does for `rename`, except that `to` may hold anything. The default:
    /// `NotSupported`.
    virtual void renameIfVersion(vfs::AbsoluteIRI const& from, vfs::AbsoluteIRI const& to,
                                 std::string const& expected);

    /// A read buffer over the file at `iri`, positioned at its start, or null when there is
    /// no readable file there. The buffer must stay valid after the provider's other calls and
    /// holds what it needs (a content snapshot, an open descriptor).
    virtual std::unique_ptr<std::streambuf> openInput(vfs::AbsoluteIRI const& iri) = 0;

    /// A write buffer over the file at `iri`. `mode` is a valid `std::fstream` combination and
    /// always holds `out`: `trunc` (or `out` without `in` and `app`) starts empty, creating the
    /// file; `app` creates a missing file and writes every byte at the end; `in|out` without
    /// `trunc` needs an existing file and overwrites it in place; `ate` starts at the end.
    /// Every write goes to the storage at once (see `OutputBuffer`).
    /// The caller has checked that the parent is a folder and that no folder or read-only
    /// file is at `iri`. Throws (`NotFound` for a missing file under `in|out`, ...) on failure.
    virtual std::unique_ptr<OutputBuffer> openOutput(vfs::AbsoluteIRI const& iri, std::ios_base::openmode mode) = 0;

    /// Copies the content of the file `from` to the new file `to`: `FileExists` when anything
    /// is at `to` (the caller checked its parent). `vfs` replaces a file by copying to a fresh
    /// name beside it and renaming that over it, so no existing item is ever written into. The default streams through `openInput`
    /// and `openOutput`; providers with a native copy override it.
    virtual void copyFile(vfs::AbsoluteIRI const& from, vfs::AbsoluteIRI const& to);

    // For back ends where every question is a round trip: a caller that already knows what is at
    // an IRI passes it on instead of the provider asking again, and learns what a change made.
    // The defaults ask and do as the calls above.

    /// Whether nothing is at `iri`: `getKind` for a name the caller expects to be free (a
    /// temporary name), which an object store answers with one listing of the name's prefix.
    virtual bool isFree(vfs::AbsoluteIRI const& iri);

    /// `getKind`, and for a file its attributes (and version tag, where one question gives it).
    virtual ItemInfo getItemInfo(vfs::AbsoluteIRI const& iri);

    /// `rename` of the file `from` (known as `fromInfo`) over `to` (known as `toInfo`: a file or
    /// nothing). Returns what is known of `to` afterwards.
    virtual ItemInfo renameKnown(vfs::AbsoluteIRI const& from, vfs::AbsoluteIRI const& to, ItemInfo const& fromInfo,
                                 ItemInfo const& toInfo);

    /// `copyFile` of the file `from` (known as `fromInfo`) to `to`, which the caller knows to
    /// be free. Returns what is known of `to` afterwards.
    virtual ItemInfo copyFileKnown(vfs::AbsoluteIRI const& from, vfs::AbsoluteIRI const& to, ItemInfo const& fromInfo);
};

} // namespace stratum::storage::provider
