// Stream buffers over s3 objects: ranged reads pinned to one version, buffered uploads.
#include "s3/S3Streams.hpp"
#include "s3/Multipart.hpp"
#include "s3/Signer.hpp"
#include "s3/Workers.hpp"

#include <stratum/storage/vfs/Exception.hpp>

#include <algorithm>
#include <atomic>
#include <condition_variable>
#include <deque>
#include <exception>
#include <memory>
#include <mutex>
#include <optional>
#include <vector>

namespace stratum::storage::vfs::detail::s3 {

namespace {

constexpr std::uint64_t rangeBytes = std::uint64_t(8) << 20;
constexpr std::uint64_t none = ~std::uint64_t(0);

// One range of an object fetched ahead of the reader on a worker thread.
struct Range {
    explicit Range(std::uint64_t i) : index(i) {}
    std::uint64_t const index;
    std::mutex mutex;
    std::condition_variable ended;
    bool done = false;      ///< body or error is there
    bool abandoned = false; ///< the reader will never take it: the worker drops what it gets
    std::string body;
    std::exception_ptr error;
};

// Reads ranges of 8 MiB, each pinned to the ETag seen at open. While the reader goes on range
// after range, up to `parallelTransfers` of the next ranges are fetched ahead side by side and
// handed over strictly in order; a read anywhere else fetches only what it needs (on the
// reader's thread) and leaves what was fetched ahead behind. Memory: the range being read
// and at most `parallelTransfers` ranges fetched ahead or still arriving for nothing. An object
// of one range is one GET on the reader's thread.
class InputBuffer : public std::streambuf {
public:
    InputBuffer(ObjectRef object, std::uint64_t size, std::string etag)
        : object_(std::move(object)), size_(size), etag_(std::move(etag)),
          limit_(std::max(1u, object_.http->settings().parallelTransfers)), checking_(size_ > 0 && contentETag(etag_)) {}

    ~InputBuffer() override {
        dropAhead();
        workers_.reset(); // waits for the GETs still arriving (their bytes are dropped)
    }

protected:
    int_type underflow() override {
        if (gptr() < egptr()) {
            return traits_type::to_int_type(*gptr());
        }
        std::uint64_t const position = start_ + std::uint64_t(gptr() - eback());
        if (position >= size_) {
            return traits_type::eof();
        }
        fetch(position / rangeBytes);
        setg(window_.data(), window_.data() + (position - start_), window_.data() + window_.size());
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
            // What was fetched ahead stays only when the reader lands in it.
            if (ahead_.empty() || t / rangeBytes < ahead_.front()->index || t / rangeBytes > ahead_.back()->index) {
                dropAhead();
            }
        }
        return pos;
    }

private:
    std::uint64_t ranges() const { return (size_ + rangeBytes - 1) / rangeBytes; }

    // GET of range `index`; runs on the reader's thread or on a worker.
    std::string get(std::uint64_t index) const {
        std::uint64_t const first = index * rangeBytes, last = std::min(size_, first + rangeBytes) - 1;
        HttpRequest request = requestFor(object_, "GET", {},
                                         {{"range", "bytes=" + std::to_string(first) + "-" + std::to_string(last)},
                                          {"if-match", etag_}});
        request.bodyBytes = std::size_t(last - first + 1);
        HttpResponse response = object_.http->send(request);
        if (response.status == 412) {
            throw Exception(ErrorCode::IOError, object_.iri, "the object was replaced while it was read");
        }
        check(response, object_, "GET");
        return std::move(response.body);
    }

    // Makes range `index` the window.
    void fetch(std::uint64_t index) {
        while (!ahead_.empty() && ahead_.front()->index < index) {
            drop(ahead_.front());
            ahead_.pop_front();
        }
        bool const sequential = last_ == none ? index == 0 : index == last_ + 1;
        std::string body;
        if (!ahead_.empty() && ahead_.front()->index == index) {
            std::shared_ptr<Range> const range = ahead_.front();
            ahead_.pop_front();
            std::unique_lock<std::mutex> lock(range->mutex);
            range->ended.wait(lock, [&] { return range->done; });
            --held_;
            if (range->error) {
                dropAhead();
                std::rethrow_exception(range->error);
            }
            body = std::move(range->body);
            lock.unlock();
            readAhead(index);
        } else {
            dropAhead();
            if (sequential) {
                readAhead(index); // side by side with this one
            }
            body = get(index);
        }
        last_ = index;
        verify(index * rangeBytes, body);
        window_ = std::move(body);
        start_ = index * rangeBytes;
    }

    // Starts GETs of the ranges after `index` (and after those already asked for), as far as
    // the limit allows.
    void readAhead(std::uint64_t index) {
        for (std::uint64_t next = ahead_.empty() ? index + 1 : ahead_.back()->index + 1;
             next < ranges() && ahead_.size() < limit_ && held_ < limit_; ++next) {
            if (!workers_) {
                workers_ = std::make_unique<Workers>(limit_);
            }
            auto range = std::make_shared<Range>(next);
            ++held_;
            if (!workers_->tryRun([this, range] { arrive(*range); })) {
                --held_;
                return;
            }
            ahead_.push_back(std::move(range));
        }
    }

    // On a worker: the GET of `range`, kept for the reader or dropped when it was abandoned.
    void arrive(Range& range) {
        std::string body;
        std::exception_ptr error;
        try {
            body = get(range.index);
        } catch (...) {
            error = std::current_exception();
        }
        std::lock_guard<std::mutex> lock(range.mutex);
        if (range.abandoned) {
            --held_;
            return;
        }
        range.body = std::move(body);
        range.error = error;
        range.done = true;
        range.ended.notify_all();
    }

    void drop(std::shared_ptr<Range> const& range) {
        std::lock_guard<std::mutex> lock(range->mutex);
        if (range->done) {
            --held_;
            std::string().swap(range->body);
        } else {
            range->abandoned = true; // the worker drops it (and frees its place)
        }
    }

    void dropAhead() {
        for (auto const& range : ahead_) {
            drop(range);
        }
        ahead_.clear();
    }

    // The MD5 of the content read from the start, range after range, checked against the ETag
    // when the last range arrives (before any of it reaches the reader). Only an ETag of one
    // PUT is an MD5 of the content (see `contentETag`): multipart ones ("-N") are not checked,
    // nor are reads that skipped a range.
    void verify(std::uint64_t first, std::string const& body) {
        if (mismatch_) {
            throw Exception(ErrorCode::IOError, object_.iri, contentMismatch);
        }
        if (!checking_ || first != hashed_) {
            return;
        }
        md5_.add(body.data(), body.size());
        hashed_ += body.size();
        if (hashed_ == size_) {
            checking_ = false;
            if (etag_.compare(1, 32, md5_.hex()) != 0) {
                mismatch_ = true;
                throw Exception(ErrorCode::IOError, object_.iri, contentMismatch);
            }
        }
    }

    ObjectRef object_;
    std::uint64_t size_;
    std::string etag_;
    unsigned const limit_;
    std::string window_;
    std::uint64_t start_ = 0;    ///< object offset of window_[0]
    std::uint64_t last_ = none;  ///< the range of the window, none before the first
    std::deque<std::shared_ptr<Range>> ahead_; ///< the ranges after last_, in order
    std::atomic<unsigned> held_{0};            ///< ranges asked for ahead, not yet taken or dropped
    bool checking_;
    bool mismatch_ = false;
    Md5 md5_;
    std::uint64_t hashed_ = 0;
    std::unique_ptr<Workers> workers_; ///< last: its threads end before the rest goes
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
        requireUsable();
        guarded([&] {
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
                upload_->send(std::move(pending_));
                pending_.clear();
            }
            upload_->complete(); // after every part in flight has ended; a failed one throws
            upload_.reset();
        });
    }

protected:
    std::streamsize xsputn(char const* data, std::streamsize size) override {
        requireUsable();
        guarded([&] {
            if (upload_) {
                upload_->rethrowFailure(); // a part that failed since the last write
            }
        });
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

    // A flush waits for the parts in flight and throws when one failed; the bytes of the part
    // being filled stay until it is full or until close().
    int sync() override {
        requireUsable();
        guarded([&] {
            if (upload_) {
                upload_->finish();
            }
        });
        return 0;
    }

    pos_type seekoff(off_type offset, std::ios_base::seekdir dir, std::ios_base::openmode which) override {
        if (offset != 0 || dir != std::ios_base::cur || !(which & std::ios_base::out)) {
            return pos_type(off_type(-1));
        }
        return pos_type(off_type(overwrite_ ? position_ : written_));
    }

private:
    void requireUsable() const {
        if (failed_) {
            throw Exception(ErrorCode::IOError, object_.iri, "an earlier write to this object failed");
        }
    }

    // Runs `work`; a failure there fails the stream and aborts the upload (after its parts in
    // flight have ended), so no object is left.
    template <class Work>
    void guarded(Work&& work) {
        try {
            work();
        } catch (...) {
            failed_ = true;
            upload_.reset();
            throw;
        }
    }

    // Adds bytes at the end. A part is handed over to be sent as soon as a byte beyond it is
    // written (so that the last part is never empty and content of exactly one part goes in
    // one PUT); the write only waits when `parallelTransfers` parts are in flight already.
    // Memory: those parts and the one being filled, whatever the size of the writes.
    void append(char const* data, std::size_t size) {
        guarded([&] {
            for (;;) {
                std::uint64_t const part = partSizeFor(partSize_, (upload_ ? upload_->parts() : 0) + 1);
                if (pending_.size() > part) {
                    if (!upload_) {
                        upload_.emplace(object_, metadataHeaders({}, false));
                    }
                    std::string rest = pending_.substr(part);
                    pending_.resize(part);
                    upload_->send(std::move(pending_));
                    pending_ = std::move(rest);
                    continue;
                }
                if (size == 0) {
                    return;
                }
                std::size_t const take = std::size_t(std::min<std::uint64_t>(size, part + 1 - pending_.size()));
                if (pending_.capacity() < part + 1 && pending_.size() + take > pending_.capacity()) {
                    pending_.reserve(std::size_t(std::min<std::uint64_t>(part + 1, pending_.size() + std::max<std::uint64_t>(take, 2 * pending_.size()))));
                }
                pending_.append(data, take);
                data += take;
                size -= take;
                written_ += take;
            }
        });
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
