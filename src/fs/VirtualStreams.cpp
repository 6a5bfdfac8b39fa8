// The virtual back end: byte streams on storage files.
#include "fs/VirtualTranslate.hpp"

#include <opc/Exception.hpp>
#include <opc/VirtualFileSystemOps.hpp>

#include <stratum/storage/vfs/Exception.hpp>
#include <stratum/storage/vfs/File.hpp>
#include <stratum/storage/vfs/IRI.hpp>
#include <stratum/storage/vfs/Streams.hpp>

#include <istream>
#include <ostream>

namespace opc {
namespace {

namespace store = stratum::storage::vfs;

// Called inside the handler of a write the storage refused: throws it on as the library's own
// exception, through the back end's one translation.
[[noreturn]] void throwWriteFailure() {
    std::string detail;
    boost::system::error_code ec;
    detail::translateStorageException(detail, ec);
    throw Exception("write failed: " + detail, ec);
}

// Opens a storage stream of type S on the file at `path` with `mode` as given, in one shared
// allocation with its count. A stream that opens failed is dropped and reported as io_error
// without a detail text (the storage said nothing more).
template <class S, class Handle, class... Extra>
Handle open(std::u16string const& path, unsigned mode, store::StorageSystemReference const& storage,
            std::string& detail, boost::system::error_code& ec, Extra... extra) {
    return detail::guarded(detail, ec, Handle(), [&]() -> Handle {
        // The IRI would drop the "/" and name another object: an object store's "a/" and "a"
        // are two keys. A root keeps its "/" and is a folder the storage stream refuses itself.
        store::AbsoluteIRI const iri(path);
        if (!path.empty() && path.back() == u'/' && iri.toString() != path) {
            throw store::Exception(store::ErrorCode::NotSupported, iri,
                                   "an IRI ending in \"/\" names a folder, not a file");
        }
        store::File const file(iri, storage);
        auto stream = std::make_shared<S>(file, mode, extra...);
        if (stream->fail()) {
            ec = boost::system::errc::make_error_code(boost::system::errc::io_error);
            return Handle();
        }
        return stream;
    });
}

} // namespace

std::shared_ptr<std::istream> VirtualFileSystemOps::doCreateInputStream(const std::u16string& path, unsigned mode,
                                                                        std::string& detail, error_code& ec) {
    return open<store::ifstream, std::shared_ptr<std::istream>>(path, mode, m_storage, detail, ec);
}

std::shared_ptr<std::ostream> VirtualFileSystemOps::doCreateOutputStream(const std::u16string& path, unsigned mode,
                                                                         std::string& detail, error_code& ec) {
    return open<store::ofstream, std::shared_ptr<std::ostream>>(path, mode, m_storage, detail, ec,
                                                                store::ofstream::FailureHandler(throwWriteFailure));
}

} // namespace opc
