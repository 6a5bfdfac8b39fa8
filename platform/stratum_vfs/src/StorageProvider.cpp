// Default implementations of the provider interface, built from its primitives.
#include <stratum/storage/provider/StorageProvider.hpp>
#include <stratum/storage/vfs/Exception.hpp>

#include "Providers.hpp"

#include <vector>

namespace stratum::storage::provider {

FileAttributes::FileAttributes(std::uint64_t size, boost::posix_time::ptime lastModified, bool writable)
    : size_(size), lastModified_(lastModified), writable_(writable) {}

StorageProvider::~StorageProvider() = default;

OutputBuffer::int_type OutputBuffer::overflow(int_type c) {
    if (!traits_type::eq_int_type(c, traits_type::eof())) {
        char const byte = traits_type::to_char_type(c);
        xsputn(&byte, 1);
    }
    return traits_type::not_eof(c);
}

void StorageProvider::removeTree(vfs::AbsoluteIRI const& iri) {
    for (auto const& entry : listFolder(iri)) {
        vfs::AbsoluteIRI child = iri.getChild(entry.name);
        if (entry.folder) {
            removeTree(child);
        } else {
            removeFile(child);
        }
    }
    removeEmptyFolder(iri);
}

std::string StorageProvider::getVersionTag(vfs::AbsoluteIRI const& iri) {
    throw vfs::Exception(vfs::ErrorCode::NotSupported, iri, "this storage keeps no versions");
}

void StorageProvider::renameIfVersion(vfs::AbsoluteIRI const& from, vfs::AbsoluteIRI const&, std::string const&) {
    throw vfs::Exception(vfs::ErrorCode::NotSupported, from, "this storage cannot rename on a condition");
}

void StorageProvider::copyFile(vfs::AbsoluteIRI const& from, vfs::AbsoluteIRI const& to) {
    vfs::detail::streamFile(*this, from, *this, to);
}

bool StorageProvider::isFree(vfs::AbsoluteIRI const& iri) { return getKind(iri) == NoItem; }

ItemInfo StorageProvider::getItemInfo(vfs::AbsoluteIRI const& iri) {
    ItemInfo info;
    info.kind = getKind(iri);
    if (info.kind == FileItem) {
        FileAttributes const attributes = getAttributes(iri);
        info.size = attributes.getSize();
        info.lastModified = attributes.getLastModified();
        info.writable = attributes.isWritable();
    }
    return info;
}

ItemInfo StorageProvider::renameKnown(vfs::AbsoluteIRI const& from, vfs::AbsoluteIRI const& to, ItemInfo const&,
                                      ItemInfo const&) {
    rename(from, to);
    return ItemInfo{FileItem, {}, {}, {}, {}};
}

ItemInfo StorageProvider::copyFileKnown(vfs::AbsoluteIRI const& from, vfs::AbsoluteIRI const& to, ItemInfo const&) {
    copyFile(from, to);
    return ItemInfo{FileItem, {}, {}, {}, {}};
}

} // namespace stratum::storage::provider

namespace stratum::storage::vfs::detail {

void requireParentFolder(provider::StorageProvider& provider, AbsoluteIRI const& iri) {
    AbsoluteIRI const parent = iri.getParent();
    provider::ItemKind const kind = iri.hasParent() ? provider.getKind(parent) : provider::NoItem;
    bool const implicit = iri.hasParent() && traitOf<ImplicitFolders>(provider) != nullptr;
    if (kind != provider::FolderItem && !(implicit && kind == provider::NoItem)) {
        throw Exception(ErrorCode::NotFound, parent, "the parent folder is missing");
    }
}

void streamFile(provider::StorageProvider& source, AbsoluteIRI const& from, provider::StorageProvider& target,
                AbsoluteIRI const& to) {
    std::unique_ptr<std::streambuf> input = source.openInput(from);
    if (!input) {
        throw Exception(ErrorCode::NotFound, from);
    }
    if (target.getKind(to) != provider::NoItem) {
        throw Exception(ErrorCode::FileExists, to);
    }
    std::unique_ptr<provider::OutputBuffer> output =
        target.openOutput(to, std::ios_base::out | std::ios_base::trunc | std::ios_base::binary);
    try {
        std::vector<char> chunk(64 * 1024);
        for (std::streamsize got; (got = input->sgetn(chunk.data(), static_cast<std::streamsize>(chunk.size()))) > 0;) {
            if (output->sputn(chunk.data(), got) != got) {
                throw Exception(ErrorCode::IOError, to, "writing the copy failed");
            }
        }
        output->close();
    } catch (...) {
        output.reset();
        try {
            target.removeFile(to);
        } catch (...) {
            // The copy's own failure is what the caller must see; a partial file left at a
            // name this call created is the lesser matter.
        }
        throw;
    }
}

} // namespace stratum::storage::vfs::detail
