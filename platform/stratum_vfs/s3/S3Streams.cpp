// Stream buffers over s3 objects: ranged reads pinned to one version, buffered uploads.
#include "s3/S3Streams.hpp"
#include "s3/Multipart.hpp"

#include <stratum/storage/vfs/Exception.hpp>

#include <algorithm>
#include <optional>
#include <vector>

namespace stratum::storage::vfs::detail::s3 {

namespace {

constexpr std::uint64_t readAhead = std::uint64_t(8) << 20;

class InputBuffer : public std::streambuf {
public:
    InputBuffer(ObjectRef object, std::uint64_t size, std::string etag)
        : object_(std::move(object)), size_(size), etag_(std::move(etag)) {}

protected:
    int_type underflow() override {
        if (gptr() < egptr()) {
            return traits_type::to_int_type(*gptr());
        }
        std::uint64_t const position = start_ + std::uint64_t(gptr() - eback());
        if (position >= size_) {
            return traits_type::eof();
        }
        fetch(position);
        return traits_type::to_int_type(*gptr());
    }

    pos_type seekoff(off_type offset, std::ios_base::seekdir dir, std::ios_base::openmode which) override {
        std::int64_t const current = std::int64_t(start_) + (gptr() - eback());
        std::int64_t const base = dir == std::ios_base::beg ? 0 : dir == std::ios_base::cur ? current
                                                                                            : std::int64_t(size_);
        return seekpos(pos_type(base + offset), which);
    }

    pos_type seekpos(pos_type pos, std::ios_base::openmode which) override {
        std::int64_t const target = std::int64_t(pos);
        if (!(which & std::ios_base::in) || target < 0 || std::uint64_t(target) > size_) {
            return pos_type(off_type(-1));
        }
        std::uint64_t const t = std::uint64_t(target);
        if (t >= start_ && t <= start_ + window_.size()) {
            setg(window_.data(), window_.data() + (t - start_), window_.data() + window_.size());
        } else { // outside the window: the next read fetches from there
            window_.clear();
            start_ = t;
            setg(window_.data(), window_.data(), window_.data());
        }
        return pos;
    }

private:
    void fetch(std::uint64_t position) {
        std::uint64_t const last = std::min(size_, position + readAhead) - 1;
        HttpRequest request = requestFor(object_, "GET", {},
                                         {{"range", "bytes=" + std::to_string(position) + "-" + std::to_string(last)},
                                          {"if-match", etag_}});
        request.bodyBytes = std::size_t(last - position + 1);
        HttpResponse response = object_.http->send(request);
        if (response.status == 412) {
            throw Exception(ErrorCode::IOError, object_.iri, "the object was replaced while it was read");
        }
        check(response, object_, "GET");
        window_.assign(response.body.begin(), response.body.end());
        start_ = position;
        setg(window_.data(), window_.data(), window_.data() + window_.size());
    }

    ObjectRef object_;
    std::uint64_t size_;
    std::string etag_;
    std::vector<char> window_;
    std::uint64_t start_ = 0; ///< object offset of window_[0]
};

class OutputBuffer : public provider::OutputBuffer {
public:
    OutputBuffer(ObjectRef object, std::string initial, bool overwrite, bool atEnd)
        : object_(std::move(object)), partSize_(object_.http->settings().partSize), overwrite_(overwrite) {
        if (overwrite_) {
            whole_ = std::move(initial);
            position_ = atEnd ? whole_.size() : 0;
        } else {
            append(initial.data(), initial.size());
        }
    }

    void close() override {
        if (failed_) {
            throw Exception(ErrorCode::IOError, object_.iri, "an earlier write to this object failed");
        }
        try {
            if (overwrite_) {
                append(whole_.data(), whole_.size());
            }
            if (!upload_) { // small: one PUT
                HttpRequest request = requestFor(object_, "PUT", {}, metadataHeaders({}, false));
                request.body = pending_;
                check(object_.http->send(request), object_, "PUT");
                return;
            }
            if (!pending_.empty() || upload_->parts() == 0) {
                upload_->upload(pending_);
            }
            upload_->complete();
        } catch (...) {
            failed_ = true;
            upload_.reset();
            throw;
        }
    }

protected:
    std::streamsize xsputn(char const* data, std::streamsize size) override {
        if (failed_) {
            throw Exception(ErrorCode::IOError, object_.iri, "an earlier write to this object failed");
        }
        if (overwrite_) {
            std::size_t const end = position_ + std::size_t(size);
            whole_.resize(std::max(whole_.size(), end));
            std::copy(data, data + size, whole_.begin() + std::ptrdiff_t(position_));
            position_ = end;
        } else {
            append(data, std::size_t(size));
        }
        return size;
    }

    pos_type seekoff(off_type offset, std::ios_base::seekdir dir, std::ios_base::openmode which) override {
        if (offset != 0 || dir != std::ios_base::cur || !(which & std::ios_base::out)) {
            return pos_type(off_type(-1));
        }
        return pos_type(off_type(overwrite_ ? position_ : written_));
    }

private:
    // Adds bytes at the end; every full part beyond them goes out now, so that a refused part
    // reaches the write that sent it.
    void append(char const* data, std::size_t size) {
        try {
            pending_.append(data, size);
            written_ += size;
            for (std::uint64_t part; pending_.size() > (part = partSizeFor(partSize_, (upload_ ? upload_->parts() : 0) + 1));) {
                if (!upload_) {
                    upload_.emplace(object_, metadataHeaders({}, false));
                }
                upload_->upload(std::string_view(pending_).substr(0, part));
                pending_.erase(0, part);
            }
        } catch (...) {
            failed_ = true;
            upload_.reset(); // aborts
            throw;
        }
    }

    ObjectRef object_;
    std::uint64_t partSize_;
    bool overwrite_;
    bool failed_ = false;
    std::string whole_;        ///< the whole content under `in|out`
    std::size_t position_ = 0; ///< write position in whole_
    std::string pending_;      ///< bytes not yet sent
    std::uint64_t written_ = 0;
    std::optional<Multipart> upload_;
};

} // namespace

std::unique_ptr<std::streambuf> makeInputBuffer(ObjectRef object, std::uint64_t size, std::string etag) {
    return std::make_unique<InputBuffer>(std::move(object), size, std::move(etag));
}

std::unique_ptr<provider::OutputBuffer> makeOutputBuffer(ObjectRef object, std::string initial, bool overwrite,
                                                         bool atEnd) {
    return std::make_unique<OutputBuffer>(std::move(object), std::move(initial), overwrite, atEnd);
}

} // namespace stratum::storage::vfs::detail::s3
