// Operations on stored items: the rules shared by every scheme (policies, recursion, checks),
// reduced to provider primitives. Cross-provider copies stream from one provider to the other.
#include <stratum/storage/provider/StorageProvider.hpp>
#include <stratum/storage/vfs/Exception.hpp>
#include <stratum/storage/vfs/Operations.hpp>

#include "Providers.hpp"

#include <random>

namespace stratum::storage::vfs {

namespace {

using provider::ItemKind;
using provider::StorageProvider;

struct Place {
    AbsoluteIRI iri;
    std::shared_ptr<StorageProvider> provider;
};

Place placeOf(FileOrFolder const& item) {
    return std::visit(
        [](auto const& alternative) {
            return Place{alternative.getIRI(), alternative.getStorageSystem().getProvider(alternative.getIRI().getScheme())};
        },
        item);
}

ItemKind existingKind(Place const& place) {
    ItemKind kind = place.provider->getKind(place.iri);
    if (kind == provider::NoItem) {
        throw Exception(ErrorCode::NotFound, place.iri);
    }
    return kind;
}

void requireParentFolder(Place const& place) { detail::requireParentFolder(*place.provider, place.iri); }

void removeExisting(Place const& place, ItemKind kind) {
    if (!place.iri.hasParent()) {
        throw Exception(ErrorCode::NotSupported, place.iri, "the root cannot be removed");
    }
    if (kind == provider::FileItem) {
        place.provider->removeFile(place.iri);
    } else {
        place.provider->removeTree(place.iri);
    }
}

Place childOf(Place const& place, std::u16string const& name) { return Place{place.iri.getChild(name), place.provider}; }

// Copies an existing item to a free place whose parent is a folder.
void copyItem(Place const& source, ItemKind kind, Place const& destination) {
    if (kind == provider::FileItem) {
        if (source.provider == destination.provider) {
            source.provider->copyFile(source.iri, destination.iri);
        } else {
            detail::streamFile(*source.provider, source.iri, *destination.provider, destination.iri);
        }
    } else {
        destination.provider->createFolder(destination.iri);
        for (auto const& entry : source.provider->listFolder(source.iri)) {
            copyItem(childOf(source, entry.name), entry.folder ? provider::FolderItem : provider::FileItem,
                     childOf(destination, entry.name));
        }
    }
    // Last, so that a read-only folder has already received its contents.
    if (!source.provider->isWritable(source.iri)) {
        destination.provider->setWritable(destination.iri, false);
    }
}

// A name that is free now in `place`'s folder, hidden and unguessable, for a file to be
// renamed over `place`.
Place freshNameBeside(Place const& place) {
    thread_local std::mt19937_64 random{std::random_device{}()};
    static char16_t const digits[] = u"0123456789abcdef";
    while (true) {
        std::u16string name = u".copy-";
        for (std::uint64_t bits = random(), i = 0; i < 16; ++i, bits >>= 4) {
            name += digits[bits & 15];
        }
        Place fresh{place.iri.getParent().getChild(name + u".tmp"), place.provider};
        if (fresh.provider->isFree(fresh.iri)) {
            return fresh;
        }
    }
}

// Puts a copy of the file `source` at `destination` without ever writing into what is there:
// the copy is made under a fresh name beside it and renamed over it, so an existing file is
// replaced as a whole (a hard link to it keeps the old content) and only by complete, durable
// data. A failure leaves `destination` as it was and removes the fresh name.
// With `DoNotReplace` the caller checked that nothing is there; a file created by someone
// else between that check and the rename is replaced.
// Where a copy appears whole or not at all (an object store's) and nothing is there, it goes
// straight to `destination`.
void copyFileOver(Place const& source, Place const& destination, ItemKind destinationKind) {
    if (destinationKind == provider::NoItem && detail::traitOf<detail::WholeCopies>(*destination.provider) &&
        source.provider == destination.provider) {
        copyItem(source, provider::FileItem, destination);
        return;
    }
    Place const fresh = freshNameBeside(destination);
    try {
        copyItem(source, provider::FileItem, fresh);
        destination.provider->rename(fresh.iri, destination.iri);
    } catch (...) {
        // StateNotRecoverable from the rename: the copy is in place and only the fresh name
        // was left (an object store's rename). Done, once that is removed here.
        bool placed = false;
        try {
            throw;
        } catch (Exception const& e) {
            placed = e.getErrorCode() == ErrorCode::StateNotRecoverable;
        } catch (...) {
        }
        try {
            if (fresh.provider->getKind(fresh.iri) == provider::FileItem) {
                fresh.provider->removeFile(fresh.iri);
            }
            if (placed) {
                return;
            }
        } catch (...) {
            // The copy's own failure is what the caller must see; a hidden leftover is the
            // lesser matter.
        }
        throw;
    }
}

// A file never takes the place of a folder (as rename(2) refuses with EISDIR): nothing in
// the folder may be lost to a copy or move of a file.
void refuseFileOverFolder(ItemKind kind, Place const& destination, ItemKind destinationKind) {
    if (kind == provider::FileItem && destinationKind == provider::FolderItem) {
        throw Exception(ErrorCode::FileExists, destination.iri, "a folder cannot be replaced by a file");
    }
}

// Nor does a moved folder take the place of a file (as rename(2) refuses with ENOTDIR): the
// file would be lost, and a folder stand where a file is expected.
void refuseFolderOverFile(ItemKind kind, Place const& destination, ItemKind destinationKind) {
    if (kind == provider::FolderItem && destinationKind == provider::FileItem) {
        throw Exception(ErrorCode::FileExists, destination.iri, "a file cannot be replaced by a folder");
    }
}

// The checks copy and move share. Returns false when source and destination are the same
// item (nothing to do); throws for overlapping trees.
bool checkPair(Place const& source, ItemKind kind, Place const& destination, ItemKind destinationKind) {
    if (source.provider != destination.provider) {
        return true;
    }
    if (source.iri == destination.iri) {
        return false;
    }
    if (kind == provider::FolderItem && destination.iri.isWithin(source.iri)) {
        throw Exception(ErrorCode::NotSupported, destination.iri, "a folder cannot go inside itself");
    }
    if (destinationKind == provider::FolderItem && source.iri.isWithin(destination.iri)) {
        throw Exception(ErrorCode::NotSupported, destination.iri, "the destination holds the source");
    }
    return true;
}

} // namespace

int exists(AbsoluteIRI const& iri, StorageSystemReference const& storage) {
    return storage.getProvider(iri.getScheme())->getKind(iri);
}

bool isFree(AbsoluteIRI const& iri, StorageSystemReference const& storage) {
    return storage.getProvider(iri.getScheme())->isFree(iri);
}

bool isWritable(FileOrFolder const& item) {
    Place place = placeOf(item);
    return place.provider->isWritable(place.iri);
}

void setWritable(FileOrFolder const& item, bool writable) {
    Place place = placeOf(item);
    place.provider->setWritable(place.iri, writable);
}

boost::posix_time::ptime getLastModified(FileOrFolder const& item) {
    Place place = placeOf(item);
    return place.provider->getLastModified(place.iri);
}

void setLastModified(FileOrFolder const& item, boost::posix_time::ptime time) {
    Place place = placeOf(item);
    if (time.is_special()) {
        throw Exception(ErrorCode::NotSupported, place.iri, "not a valid time");
    }
    place.provider->setLastModified(place.iri, time);
}

void copy(FileOrFolder const& source, FileOrFolder const& destination, provider::ReplacementPolicy policy) {
    Place from = placeOf(source);
    Place to = placeOf(destination);
    ItemKind kind = existingKind(from);
    ItemKind destinationKind = to.provider->getKind(to.iri);
    if (!checkPair(from, kind, to, destinationKind)) {
        if (policy != provider::Replace) {
            throw Exception(ErrorCode::FileExists, to.iri);
        }
        return;
    }
    if (destinationKind != provider::NoItem && policy != provider::Replace) {
        throw Exception(ErrorCode::FileExists, to.iri);
    }
    refuseFileOverFolder(kind, to, destinationKind);
    requireParentFolder(to);
    if (kind == provider::FileItem) {
        copyFileOver(from, to, destinationKind);
        return;
    }
    if (destinationKind != provider::NoItem) {
        removeExisting(to, destinationKind);
    }
    copyItem(from, kind, to);
}

void move(FileOrFolder const& source, FileOrFolder const& destination, provider::ReplacementPolicy policy) {
    Place from = placeOf(source);
    Place to = placeOf(destination);
    ItemKind kind = existingKind(from);
    if (!from.iri.hasParent()) {
        throw Exception(ErrorCode::NotSupported, from.iri, "the root cannot be moved");
    }
    ItemKind destinationKind = to.provider->getKind(to.iri);
    if (!checkPair(from, kind, to, destinationKind)) {
        return;
    }
    bool const sameProvider = from.provider == to.provider;
    if (destinationKind != provider::NoItem && policy != provider::Replace) {
        throw Exception(ErrorCode::FileExists, to.iri);
    }
    refuseFileOverFolder(kind, to, destinationKind);
    refuseFolderOverFile(kind, to, destinationKind);
    requireParentFolder(to);
    // A file over a file is left to the rename or the copy, which replace it in one step.
    if (kind == provider::FolderItem && destinationKind != provider::NoItem) {
        removeExisting(to, destinationKind);
    }
    if (sameProvider) {
        from.provider->rename(from.iri, to.iri);
    } else if (kind == provider::FileItem) {
        copyFileOver(from, to, destinationKind);
        removeExisting(from, kind);
    } else {
        copyItem(from, kind, to);
        removeExisting(from, kind);
    }
}

std::string getVersionTag(File const& file) {
    Place place = placeOf(file);
    return place.provider->getVersionTag(place.iri);
}

void moveIfVersion(File const& source, File const& destination, std::string const& expected) {
    Place from = placeOf(source);
    Place to = placeOf(destination);
    if (existingKind(from) != provider::FileItem) {
        throw Exception(ErrorCode::NotFound, from.iri, "a folder is not a file");
    }
    if (from.provider != to.provider) {
        throw Exception(ErrorCode::NotSupported, to.iri, "a conditional move stays within one storage");
    }
    if (from.iri == to.iri) {
        throw Exception(ErrorCode::NotSupported, to.iri, "the file cannot replace itself");
    }
    requireParentFolder(to);
    from.provider->renameIfVersion(from.iri, to.iri, expected);
}

void remove(FileOrFolder const& item, FolderRemovalPolicy policy) {
    Place place = placeOf(item);
    ItemKind kind = existingKind(place);
    if (!place.iri.hasParent()) {
        throw Exception(ErrorCode::NotSupported, place.iri, "the root cannot be removed");
    }
    if (kind == provider::FileItem) {
        place.provider->removeFile(place.iri);
    } else if (policy == RemoveRecursively) {
        place.provider->removeTree(place.iri);
    } else {
        place.provider->removeEmptyFolder(place.iri);
    }
}

} // namespace stratum::storage::vfs
