// Default implementations of the provider interface, built from its primitives.
#include <stratum/storage/provider/StorageProvider.hpp>
#include <stratum/storage/vfs/Exception.hpp>

#include "Providers.hpp"

#include <vector>

namespace stratum::storage::provider {

FileAttributes::FileAttributes(std::uint64_t size, boost::posix_time::ptime lastModified, bool writable)
    : size_(size), lastModified_(lastModified), writable_(writable) {}

StorageProvider::~StorageProvider() = default;

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

void StorageProvider::copyFile(vfs::AbsoluteIRI const& from, vfs::AbsoluteIRI const& to) {
    vfs::detail::streamFile(*this, from, *this, to);
}

} // namespace stratum::storage::provider

namespace stratum::storage::vfs::detail {

void streamFile(provider::StorageProvider& source, AbsoluteIRI const& from, provider::StorageProvider& target,
                AbsoluteIRI const& to) {
    std::unique_ptr<std::streambuf> input = source.openInput(from);
    if (!input) {
        throw Exception(ErrorCode::NotFound, from);
    }
    std::unique_ptr<std::streambuf> output =
        target.openOutput(to, std::ios_base::out | std::ios_base::trunc | std::ios_base::binary);
    std::vector<char> chunk(64 * 1024);
    while (true) {
        std::streamsize got = input->sgetn(chunk.data(), static_cast<std::streamsize>(chunk.size()));
        if (got <= 0) {
            break;
        }
        if (output->sputn(chunk.data(), got) != got) {
            throw Exception(ErrorCode::IOError, to, "writing the copy failed");
        }
    }
    if (output->pubsync() != 0) {
        throw Exception(ErrorCode::IOError, to, "publishing the copy failed");
    }
}

} // namespace stratum::storage::vfs::detail
