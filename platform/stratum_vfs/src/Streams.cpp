// Standard streams over provider buffers: mode decoding and the checks every scheme shares.
#include <stratum/storage/provider/StorageProvider.hpp>
#include <stratum/storage/vfs/Exception.hpp>
#include <stratum/storage/vfs/Streams.hpp>

#include "Providers.hpp"

#include <exception>

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

namespace detail {

// Stands between the stream and the provider's buffer: holds no bytes, passes each operation
// on at once, turns a short count into a failure and lets the stream's failure handler act on
// the exception in flight before it leaves the operation.
class WriteThroughBuffer : public std::streambuf {
public:
    WriteThroughBuffer(std::unique_ptr<provider::OutputBuffer> storage, AbsoluteIRI iri,
                       ofstream::FailureHandler onFailure)
        : storage_(std::move(storage)), iri_(std::move(iri)), onFailure_(std::move(onFailure)) {}

    void close() {
        guarded([&] { storage_->close(); });
    }

protected:
    std::streamsize xsputn(char const* data, std::streamsize size) override {
        return guarded([&] {
            if (storage_->sputn(data, size) != size) {
                throw Exception(ErrorCode::IOError, iri_, "the storage took only part of a write");
            }
            return size;
        });
    }
    int_type overflow(int_type c) override {
        if (traits_type::eq_int_type(c, traits_type::eof())) {
            return traits_type::not_eof(c);
        }
        char const byte = traits_type::to_char_type(c);
        xsputn(&byte, 1);
        return c;
    }
    int sync() override {
        return guarded([&] {
            if (storage_->pubsync() != 0) {
                throw Exception(ErrorCode::IOError, iri_, "the storage refused a flush");
            }
            return 0;
        });
    }
    pos_type seekoff(off_type offset, std::ios_base::seekdir dir, std::ios_base::openmode which) override {
        return storage_->pubseekoff(offset, dir, which);
    }
    pos_type seekpos(pos_type pos, std::ios_base::openmode which) override {
        return storage_->pubseekpos(pos, which);
    }

private:
    template <class Work>
    auto guarded(Work&& work) -> decltype(work()) {
        try {
            return work();
        } catch (...) {
            if (onFailure_) {
                onFailure_();
            }
            throw;
        }
    }

    std::unique_ptr<provider::OutputBuffer> storage_;
    AbsoluteIRI iri_;
    ofstream::FailureHandler onFailure_;
};

} // namespace detail

ifstream::ifstream(File const& file, unsigned mode) : std::istream(nullptr), file_(file) {
    bool const valid = !(mode & OpenMode::Truncate) ||
                       ((mode & OpenMode::Out) && !(mode & OpenMode::Append));
    auto provider = file_.getStorageSystem().getProvider(file_.getIRI().getScheme());
    if (!valid) {
        setstate(std::ios_base::failbit);
        return;
    }
    // Nothing readable there: say what is there instead, so that the caller learns which item
    // failed and why rather than a bare failed stream.
    buffer_ = provider->openInput(file_.getIRI());
    if (!buffer_) {
        if (provider->getKind(file_.getIRI()) == provider::FolderItem) {
            throw Exception(ErrorCode::IOError, file_.getIRI(), "a folder cannot be read");
        }
        throw Exception(ErrorCode::NotFound, file_.getIRI());
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

ofstream::ofstream(File const& file, unsigned mode, FailureHandler onFailure)
    : std::ostream(nullptr), file_(file) {
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
        detail::requireParentFolder(*provider, iri);
        if (keep) {
            setstate(std::ios_base::failbit);
            return;
        }
    }
    buffer_ = std::make_unique<detail::WriteThroughBuffer>(provider->openOutput(iri, openMode), iri,
                                                           std::move(onFailure));
    rdbuf(buffer_.get());
    exceptions(std::ios_base::badbit);
}

// The provider's buffer releases the file without reporting: every byte reached the storage
// at its write, so only the release itself can fail here, and close() is there to see that.
ofstream::~ofstream() {
    if (is_open() && !bad() && std::uncaught_exceptions() == 0) {
        try {
            close();
        } catch (...) {
            // Reported by an explicit close() only; the scheme has dropped the content.
        }
    }
}

bool ofstream::is_open() const { return buffer_ != nullptr; }

void ofstream::close() {
    if (!buffer_) {
        return;
    }
    std::unique_ptr<detail::WriteThroughBuffer> buffer = std::move(buffer_);
    exceptions(std::ios_base::goodbit);
    detachBuffer(*this, closed_);
    try {
        buffer->close();
    } catch (...) {
        setstate(std::ios_base::badbit);
        throw;
    }
}

} // namespace stratum::storage::vfs
