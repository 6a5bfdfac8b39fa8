// Standard streams over provider buffers: mode decoding and the checks every scheme shares.
#include <stratum/storage/provider/StorageProvider.hpp>
#include <stratum/storage/vfs/Exception.hpp>
#include <stratum/storage/vfs/Streams.hpp>

namespace stratum::storage::vfs {

namespace {

std::ios_base::openmode toOpenMode(unsigned bits) {
    std::ios_base::openmode mode{};
    if (bits & OpenMode::Append) mode |= std::ios_base::app;
    if (bits & OpenMode::AtEnd) mode |= std::ios_base::ate;
    if (bits & OpenMode::Binary) mode |= std::ios_base::binary;
    if (bits & OpenMode::In) mode |= std::ios_base::in;
    if (bits & OpenMode::Out) mode |= std::ios_base::out;
    if (bits & OpenMode::Truncate) mode |= std::ios_base::trunc;
    return mode;
}

// Stands in for the released buffer of a closed stream: reads find the end, writes fail.
class ClosedBuffer : public std::streambuf {};

// Swaps the stream's buffer for a closed one without touching its state bits.
void detachBuffer(std::ios& stream, std::unique_ptr<std::streambuf>& closed) {
    std::ios_base::iostate state = stream.rdstate();
    closed = std::make_unique<ClosedBuffer>();
    stream.rdbuf(closed.get());
    stream.clear(state);
}

} // namespace

ifstream::ifstream(File const& file, unsigned mode) : std::istream(nullptr), file_(file) {
    bool const valid = !(mode & OpenMode::Truncate) ||
                       ((mode & OpenMode::Out) && !(mode & OpenMode::Append));
    auto provider = file_.getStorageSystem().getProvider(file_.getIRI().getScheme());
    if (valid) {
        buffer_ = provider->openInput(file_.getIRI());
    }
    if (!buffer_) {
        setstate(std::ios_base::failbit);
        return;
    }
    rdbuf(buffer_.get());
    if (mode & OpenMode::AtEnd) {
        seekg(0, std::ios_base::end);
    }
}

ifstream::~ifstream() = default;

bool ifstream::is_open() const { return buffer_ != nullptr; }

void ifstream::close() {
    if (buffer_) {
        detachBuffer(*this, closed_);
        buffer_.reset();
    }
}

ofstream::ofstream(File const& file, unsigned mode) : std::ostream(nullptr), file_(file) {
    AbsoluteIRI const& iri = file_.getIRI();
    auto provider = file_.getStorageSystem().getProvider(iri.getScheme());
    std::ios_base::openmode openMode = toOpenMode(mode) | std::ios_base::out;
    bool const append = (openMode & std::ios_base::app) != 0;
    bool const truncate = (openMode & std::ios_base::trunc) != 0;
    bool const keep = (openMode & std::ios_base::in) && !truncate && !append;
    if (append && truncate) {
        setstate(std::ios_base::failbit);
        return;
    }
    switch (provider->getKind(iri)) {
    case provider::FolderItem: throw Exception(ErrorCode::IOError, iri, "a folder cannot be written");
    case provider::FileItem:
        if (!provider->isWritable(iri)) {
            throw Exception(ErrorCode::PermissionDenied, iri);
        }
        break;
    default:
        if (!iri.hasParent() || provider->getKind(iri.getParent()) != provider::FolderItem) {
            throw Exception(ErrorCode::NotFound, iri.getParent(), "the parent folder is missing");
        }
        if (keep) {
            setstate(std::ios_base::failbit);
            return;
        }
    }
    buffer_ = provider->openOutput(iri, openMode);
    rdbuf(buffer_.get());
}

ofstream::~ofstream() {
    try {
        close();
    } catch (...) {
        // A destructor must not throw; the failure was the writer's to see at flush.
    }
}

bool ofstream::is_open() const { return buffer_ != nullptr; }

void ofstream::close() {
    if (!buffer_) {
        return;
    }
    bool const published = buffer_->pubsync() == 0;
    detachBuffer(*this, closed_);
    buffer_.reset();
    if (!published) {
        setstate(std::ios_base::badbit);
    }
}

} // namespace stratum::storage::vfs
