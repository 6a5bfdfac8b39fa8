#pragma once

#include <stratum/storage/provider/StorageProvider.hpp>

#include <stratum/storage/vfs/S3Settings.hpp>

#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace stratum::storage::vfs::detail {

/// One item below a listed folder: its names from there, and whether it is a folder.
struct TreeEntry {
    std::vector<std::u16string> path;
    bool folder = false;
};

/// A provider that lists a whole tree in fewer requests than a walk folder by folder (an
/// object store lists every key below a prefix at once). The answer holds what a walk with
/// `listFolder` would: each folder's entries sorted by name, a folder followed by its content.
class TreeListing {
public:
    virtual std::vector<TreeEntry> listTree(AbsoluteIRI const& iri) = 0;

protected:
    ~TreeListing() = default;
};

/// A provider whose folders exist only through the keys below them (an object store): a new
/// item may be made under any prefix that is not a file, and the folders above it appear with it.
class ImplicitFolders {
protected:
    ~ImplicitFolders() = default;
};

/// A provider whose `copyFile` makes the copy appear whole or not at all (an object store's
/// server-side copy): a copy to a free name needs no fresh name and rename.
class WholeCopies {
protected:
    ~WholeCopies() = default;
};

/// A provider where every question is a round trip over a network: what one call learns is worth
/// remembering for the rest of that call (see `StorageSystemReference::remembering`).
class RemoteQueries {
protected:
    ~RemoteQueries() = default;
};

/// The provider behind `provider` when it only remembers for another (see `Remembering.hpp`).
provider::StorageProvider& underlying(provider::StorageProvider& provider);

/// Whether `provider` is a `Trait` (`TreeListing`, `ImplicitFolders`, `WholeCopies`), seen
/// through a provider that only remembers for it.
template <class Trait>
Trait* traitOf(provider::StorageProvider& provider) {
    return dynamic_cast<Trait*>(&underlying(provider));
}

/// Throws `NotFound` naming the parent unless a new item may be made at `iri`: its parent is a
/// folder or, where folders are implicit, anything but a file.
void requireParentFolder(provider::StorageProvider& provider, AbsoluteIRI const& iri);

/// A new, empty in-memory tree (just the root folder) behind the provider interface.
std::shared_ptr<provider::StorageProvider> makeMemoryProvider();

/// The local disk, through the host file-system layer.
std::shared_ptr<provider::StorageProvider> makeLocalProvider();

/// Object storage (`s3://bucket/key`) reached with `settings`; without them, with
/// `S3Settings::fromEnvironment()` read at the first request.
std::shared_ptr<provider::StorageProvider> makeS3Provider(std::optional<S3Settings> settings);

} // namespace stratum::storage::vfs::detail

namespace stratum::storage::vfs::detail {

/// Streams the content of the file `from` (of `source`) into the new or truncated file `to`
/// (of `target`) and publishes it. `NotFound` when `from` can't be read, `IOError` when the
/// bytes don't all arrive.
void streamFile(provider::StorageProvider& source, AbsoluteIRI const& from, provider::StorageProvider& target,
                AbsoluteIRI const& to);

} // namespace stratum::storage::vfs::detail
