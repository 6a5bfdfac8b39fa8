// Files, folders, listings and the file-or-folder variant.
#include <stratum/storage/provider/StorageProvider.hpp>
#include <stratum/storage/vfs/Exception.hpp>
#include <stratum/storage/vfs/File.hpp>

#include "Providers.hpp"

#include <unicode/utf16.h>

namespace stratum::storage::vfs {

namespace {

std::shared_ptr<provider::StorageProvider> providerOf(AbsoluteIRI const& iri, StorageSystemReference const& storage) {
    return storage.getProvider(iri.getScheme());
}

// Length in code units of the character starting at `i` (a surrogate pair is one character).
// text[size()] is the string's terminating NUL, never a trail unit.
std::size_t charLength(std::u16string const& text, std::size_t i) {
    return U16_IS_LEAD(text[i]) && U16_IS_TRAIL(text[i + 1]) ? 2 : 1;
}

// Glob match of the whole name: "*" any run, "?" one character, anything else itself.
// Backtracks only to the last "*", so it runs in O(name * pattern) at worst. pattern[size()]
// is the string's terminating NUL, which is neither "*" nor "?".
bool globMatch(std::u16string const& pattern, std::u16string const& name) {
    std::size_t p = 0;
    std::size_t n = 0;
    std::size_t starP = std::u16string::npos;
    std::size_t starN = 0;
    while (n < name.size()) {
        if (pattern[p] == u'*') {
            starP = p++;
            starN = n;
        } else if (pattern[p] == u'?') {
            ++p;
            n += charLength(name, n);
        } else if (p < pattern.size() && pattern[p] == name[n]) {
            ++p;
            ++n;
        } else if (starP != std::u16string::npos) {
            p = starP + 1;
            starN += charLength(name, starN);
            n = starN;
        } else {
            return false;
        }
    }
    while (pattern[p] == u'*') {
        ++p;
    }
    return p == pattern.size();
}

void listInto(std::vector<ListEntry>& out, provider::StorageProvider& provider, AbsoluteIRI const& folder,
              std::u16string const& filter, StorageSystemReference const& storage, bool recursive) {
    if (auto* tree = detail::traitOf<detail::TreeListing>(provider); tree && recursive) {
        for (auto const& entry : tree->listTree(folder)) {
            if (filter.empty() || globMatch(filter, entry.path.back())) {
                AbsoluteIRI child = folder;
                for (auto const& name : entry.path) {
                    child = child.getChild(name);
                }
                out.emplace_back(std::move(child), entry.folder, storage);
            }
        }
        return;
    }
    for (auto const& entry : provider.listFolder(folder)) {
        AbsoluteIRI child = folder.getChild(entry.name);
        if (filter.empty() || globMatch(filter, entry.name)) {
            out.emplace_back(child, entry.folder, storage);
        }
        if (recursive && entry.folder) {
            listInto(out, provider, child, filter, storage, true);
        }
    }
}

} // namespace

File::File(AbsoluteIRI iri, StorageSystemReference storage) : iri_(std::move(iri)), storage_(std::move(storage)) {}

provider::FileAttributes File::getAttributes() const { return providerOf(iri_, storage_)->getAttributes(iri_); }

Folder::Folder(AbsoluteIRI iri, StorageSystemReference storage) : iri_(std::move(iri)), storage_(std::move(storage)) {}

void Folder::createFolder() const { providerOf(iri_, storage_)->createFolder(iri_); }

void Folder::createFolderRecursive() const {
    auto provider = providerOf(iri_, storage_);
    AbsoluteIRI current = iri_;
    // Find the deepest existing ancestor, then create downwards from it.
    std::vector<AbsoluteIRI> missing;
    while (true) {
        provider::ItemKind kind = provider->getKind(current);
        if (kind == provider::FolderItem) {
            break;
        }
        if (kind == provider::FileItem) {
            throw Exception(ErrorCode::FileExists, current, "a file is in the way");
        }
        missing.push_back(current);
        current = current.getParent();
    }
    for (auto it = missing.rbegin(); it != missing.rend(); ++it) {
        try {
            provider->createFolder(*it);
        } catch (Exception const& e) {
            // Another caller may have made it in the meantime; only a folder will do.
            if (e.getErrorCode() != ErrorCode::FileExists || provider->getKind(*it) != provider::FolderItem) {
                throw;
            }
        }
    }
}

FolderListing<ListEntry> Folder::listAll(std::u16string const& filter) const {
    std::vector<ListEntry> entries;
    listInto(entries, *providerOf(iri_, storage_), iri_, filter, storage_, false);
    return FolderListing<ListEntry>(std::move(entries));
}

FolderListing<ListEntry> Folder::listAllRecursive(std::u16string const& filter) const {
    std::vector<ListEntry> entries;
    listInto(entries, *providerOf(iri_, storage_), iri_, filter, storage_, true);
    return FolderListing<ListEntry>(std::move(entries));
}

ListEntry::ListEntry(AbsoluteIRI iri, bool folder, StorageSystemReference storage)
    : iri_(std::move(iri)), folder_(folder), storage_(std::move(storage)) {}

FileOrFolder ListEntry::getFileOrFolder() const {
    if (folder_) {
        return Folder(iri_, storage_);
    }
    return File(iri_, storage_);
}

FileOrFolder makeFileOrFolder(AbsoluteIRI const& iri, StorageSystemReference const& storage) {
    switch (providerOf(iri, storage)->getKind(iri)) {
    case provider::FileItem: return File(iri, storage);
    case provider::FolderItem: return Folder(iri, storage);
    default: throw Exception(ErrorCode::NotFound, iri);
    }
}

AbsoluteIRI const& getIRI(FileOrFolder const& item) {
    return std::visit([](auto const& alternative) -> AbsoluteIRI const& { return alternative.getIRI(); }, item);
}

} // namespace stratum::storage::vfs
