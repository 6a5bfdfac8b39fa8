#pragma once

#include <stratum/export.hpp>
#include <stratum/storage/provider/FileAttributes.hpp>
#include <stratum/storage/vfs/IRI.hpp>
#include <stratum/storage/vfs/StorageSystem.hpp>

#include <string>
#include <variant>
#include <vector>

namespace stratum::storage::vfs {

/// A file of a storage system, named by IRI. Constructing one touches no storage: the file
/// need not exist (it is what output streams create). Copies are cheap and independent.
class STRATUM_API File {
public:
    File(AbsoluteIRI iri, StorageSystemReference storage);

    AbsoluteIRI const& getIRI() const { return iri_; }
    StorageSystemReference const& getStorageSystem() const { return storage_; }

    /// Size, modification time and writability of the stored file. Throws `Exception` with
    /// `ErrorCode::NotFound` when no file is there (nothing, or a folder);
    /// `UnsupportedIRISchemeException` when the storage system has no provider for the scheme.
    provider::FileAttributes getAttributes() const;

private:
    AbsoluteIRI iri_;
    StorageSystemReference storage_;
};

class ListEntry;

/// A fixed, already-read listing of a folder: walk it with `begin()`/`end()`. Later changes
/// to the storage don't show in it.
template <class Entry>
class FolderListing {
public:
    using value_type = Entry;
    using const_iterator = typename std::vector<Entry>::const_iterator;

    FolderListing() = default;
    explicit FolderListing(std::vector<Entry> entries) : entries_(std::move(entries)) {}

    const_iterator begin() const { return entries_.begin(); }
    const_iterator end() const { return entries_.end(); }
    std::size_t size() const { return entries_.size(); }
    bool empty() const { return entries_.empty(); }

private:
    std::vector<Entry> entries_;
};

/// A folder of a storage system, named by IRI. Constructing one touches no storage.
class STRATUM_API Folder {
public:
    Folder(AbsoluteIRI iri, StorageSystemReference storage);

    AbsoluteIRI const& getIRI() const { return iri_; }
    StorageSystemReference const& getStorageSystem() const { return storage_; }

    /// Creates this folder. Its parent must be a folder (else `ErrorCode::NotFound`); anything
    /// already here, folder or file, fails with `ErrorCode::FileExists`.
    void createFolder() const;

    /// Creates this folder and any missing ancestors. An existing folder is fine; a file in
    /// the way (here or at an ancestor) fails with `ErrorCode::FileExists`.
    void createFolderRecursive() const;

    /// The direct children, folders and files, sorted by name (code unit order). `filter`
    /// empty means every child; otherwise it is a glob matched against the whole decoded name,
    /// case-sensitively: "*" matches any run of characters, "?" exactly one, every other
    /// character itself (so "*.pkg" keeps the names ending in ".pkg"). `ErrorCode::NotFound`
    /// when this is not a folder.
    FolderListing<ListEntry> listAll(std::u16string const& filter) const;

    /// Every item below this folder, at any depth, depth first: each folder comes just before
    /// its own contents, siblings sorted by name. The filter works as in `listAll` on each
    /// item's own name; it selects what is reported, never where the walk descends.
    FolderListing<ListEntry> listAllRecursive(std::u16string const& filter) const;

private:
    AbsoluteIRI iri_;
    StorageSystemReference storage_;
};

/// A stored item that is either a file (alternative 0) or a folder (alternative 1).
using FileOrFolder = std::variant<File, Folder>;

/// One item of a `FolderListing`.
class STRATUM_API ListEntry {
public:
    ListEntry(AbsoluteIRI iri, bool folder, StorageSystemReference storage);

    AbsoluteIRI const& getIRI() const { return iri_; }
    bool isFolder() const { return folder_; }
    /// A `File` or `Folder` for the item, as it was when listed.
    FileOrFolder getFileOrFolder() const;

private:
    AbsoluteIRI iri_;
    bool folder_;
    StorageSystemReference storage_;
};

/// The `File` or `Folder` stored at `iri`, by what is there now. Throws `Exception` with
/// `ErrorCode::NotFound` when nothing is there.
STRATUM_API FileOrFolder makeFileOrFolder(AbsoluteIRI const& iri, StorageSystemReference const& storage);

/// The IRI of either alternative.
STRATUM_API AbsoluteIRI const& getIRI(FileOrFolder const& item);

} // namespace stratum::storage::vfs
