// Multipart uploads: initiate, parts (sent or copied), complete, abort.
#include "s3/Multipart.hpp"
#include "s3/Errors.hpp"
#include "s3/Signer.hpp"
#include "s3/Xml.hpp"

#include <stratum/storage/vfs/Exception.hpp>

#include <algorithm>

namespace stratum::storage::vfs::detail::s3 {

namespace {
constexpr std::uint64_t minPart = std::uint64_t(5) << 20;
constexpr std::uint64_t maxPart = std::uint64_t(5) << 30;
constexpr std::size_t maxParts = 10000;

std::string unquoted(std::string const& etag) {
    return etag.size() >= 2 && etag.front() == '"' && etag.back() == '"' ? etag.substr(1, etag.size() - 2) : etag;
}

// The ETag S3 gives the object completed from parts with `etags`: the MD5 of their MD5s, a
// dash and their count.
std::string multipartETag(std::vector<std::string> const& etags) {
    std::string digests;
    for (auto const& etag : etags) {
        std::string const hex = unquoted(etag);
        for (std::size_t i = 0; i + 1 < hex.size(); i += 2) {
            digests += char(std::stoi(hex.substr(i, 2), nullptr, 16));
        }
    }
    return md5Hex(digests) + "-" + std::to_string(etags.size());
}

} // namespace

std::uint64_t partSizeFor(std::uint64_t base, std::size_t number) {
    std::uint64_t size = std::max(base, minPart);
    for (std::size_t step = (number - 1) / 1000; step > 0 && size < maxPart; --step) {
        size *= 2;
    }
    return std::min(size, maxPart);
}

Multipart::Multipart(ObjectRef object, Pairs const& metadata) : object_(std::move(object)) {
    // Repeated like any request: an upload that an attempt with a lost answer started is
    // found and aborted once one answer arrives.
    HttpRequest request = requestFor(object_, "POST", {{"uploads", ""}}, metadata);
    request.xmlAnswer = true;
    request.xmlRoot = "InitiateMultipartUploadResult";
    std::time_t const started = std::time(nullptr);
    HttpResponse const response = object_.http->send(request);
    check(response, object_, "CreateMultipartUpload");
    uploadId_ = parseUploadId(response.body);
    if (uploadId_.empty()) {
        throw Exception(ErrorCode::IOError, object_.iri, "CreateMultipartUpload: no upload id in the answer");
    }
    if (response.attempts > 1) {
        abortStrays(started);
    }
}

// Other uploads of this key begun since `started` are ours: a writer's key is nearly always
// a fresh temporary name. Failures leave them to removeS3Litter.
void Multipart::abortStrays(std::time_t started) noexcept {
    try {
        HttpRequest list = requestFor(object_, "GET", {{"uploads", ""}, {"prefix", object_.key}});
        list.key.clear();
        list.xmlAnswer = true;
        list.xmlRoot = "ListMultipartUploadsResult";
        HttpResponse const response = object_.http->send(list);
        for (auto const& upload : response.ok() ? parseUploadPage(response.body).uploads : std::vector<UploadPage::Upload>()) {
            if (upload.key == object_.key && upload.uploadId != uploadId_ && parseListedTime(upload.initiated) + 2 >= started) {
                object_.http->send(requestFor(object_, "DELETE", {{"uploadId", upload.uploadId}}));
            }
        }
    } catch (...) {
    }
}

Multipart::~Multipart() { abort(); }

std::size_t Multipart::take() {
    if (next_ >= maxParts) {
        throw Exception(ErrorCode::FileTooLarge, object_.iri, "more than 10,000 parts");
    }
    {
        std::lock_guard<std::mutex> lock(mutex_);
        etags_.emplace_back();
    }
    return ++next_;
}

void Multipart::fail(std::exception_ptr error) {
    std::lock_guard<std::mutex> lock(mutex_);
    if (!failure_) {
        failure_ = std::move(error);
    }
}

bool Multipart::failed() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return failure_ != nullptr;
}

Workers& Multipart::workers() {
    if (!workers_) {
        workers_ = std::make_unique<Workers>(object_.http->settings().parallelTransfers);
    }
    return *workers_;
}

void Multipart::rethrowFailure() const {
    std::exception_ptr error;
    {
        std::lock_guard<std::mutex> lock(mutex_);
        error = failure_;
    }
    if (error) {
        std::rethrow_exception(error);
    }
}

// Content-MD5 goes with the body (the client adds it), so a part damaged on the way is refused.
void Multipart::sendPart(std::size_t number, std::string const& bytes) {
    try {
        HttpRequest request = requestFor(object_, "PUT", {{"partNumber", std::to_string(number)}, {"uploadId", uploadId_}});
        request.body = bytes;
        request.required = {"etag"}; // without it the part cannot be completed
        HttpResponse const response = object_.http->send(request);
        check(response, object_, "UploadPart");
        std::lock_guard<std::mutex> lock(mutex_);
        etags_[number - 1] = response.header("etag");
    } catch (...) {
        fail(std::current_exception());
    }
}

void Multipart::send(std::string bytes) {
    rethrowFailure();
    std::size_t const number = take();
    workers().waitForRoom();
    // A failure that came while waiting is the writer's now; this part then never goes out.
    rethrowFailure();
    auto part = std::make_shared<std::string>(std::move(bytes));
    workers().run([this, number, part] { sendPart(number, *part); });
}

void Multipart::finish() {
    if (workers_) {
        workers_->waitForAll();
    }
    rethrowFailure();
}

void Multipart::copyPart(std::size_t number, std::string const& sourceKey, std::uint64_t first, std::uint64_t last) {
    try {
        HttpRequest request =
            requestFor(object_, "PUT", {{"partNumber", std::to_string(number)}, {"uploadId", uploadId_}},
                       {{"x-amz-copy-source", "/" + object_.bucket + "/" + uriEncode(sourceKey, true)},
                        {"x-amz-copy-source-range", "bytes=" + std::to_string(first) + "-" + std::to_string(last)}});
        request.xmlAnswer = true;
        request.xmlRoot = "CopyPartResult";
        HttpResponse const response = object_.http->send(request);
        check(response, object_, "UploadPartCopy");
        std::lock_guard<std::mutex> lock(mutex_);
        etags_[number - 1] = parseCopyETag(response.body);
    } catch (...) {
        fail(std::current_exception());
    }
}

void Multipart::copy(std::string const& sourceKey, std::uint64_t first, std::uint64_t last) {
    rethrowFailure();
    copyPart(take(), sourceKey, first, last);
    rethrowFailure();
}

void Multipart::copyAll(std::string const& sourceKey, std::uint64_t size) {
    std::uint64_t const part = std::max(partSizeFor(object_.http->settings().partSize, 1), (size + maxParts - 1) / maxParts);
    for (std::uint64_t first = 0; first < size; first += part) {
        workers().waitForRoom();
        if (failed()) {
            break; // no more copies: the failure is thrown once those in flight end
        }
        std::size_t const number = take();
        std::uint64_t const last = std::min(size, first + part) - 1;
        workers().run([this, number, sourceKey, first, last] { copyPart(number, sourceKey, first, last); });
    }
    finish();
}

void Multipart::complete(Pairs const& conditions) {
    try {
        finish();
    } catch (...) {
        abort();
        throw;
    }
    // Every part has ended with its ETag: listed by part number, whatever order they ended in.
    std::string const body = completeBody(etags_);
    HttpRequest request = requestFor(object_, "POST", {{"uploadId", uploadId_}}, conditions);
    request.body = body;
    request.xmlAnswer = true;
    request.xmlRoot = "CompleteMultipartUploadResult";
    HttpResponse const response = object_.http->send(request);
    if (!response.ok()) {
        // The answer to a completion that was done may be lost: then the object carries the
        // ETag of these parts (and a repeat finds no upload).
        bool const lost = response.transport != Transport::None || (response.attempts > 1 && response.errorCode == "NoSuchUpload");
        if (lost) {
            try {
                if (headObject(object_).etag == "\"" + multipartETag(etags_) + "\"") {
                    done_ = true;
                    return;
                }
            } catch (Exception const&) {
                abort();
                throw failure(response, object_.iri, "CompleteMultipartUpload (whether it was done is unknown)");
            }
        }
        abort();
        if (!conditions.empty() && (response.status == 412 || response.status == 409)) {
            throw Exception(ErrorCode::VersionMismatch, object_.iri, "CompleteMultipartUpload: " + response.errorCode);
        }
        check(response, object_, "CompleteMultipartUpload");
    }
    done_ = true;
}

void Multipart::abort() noexcept {
    if (done_) {
        return;
    }
    done_ = true;
    if (workers_) {
        workers_->waitForAll(); // no part may land after the abort
    }
    try {
        object_.http->send(requestFor(object_, "DELETE", {{"uploadId", uploadId_}}));
    } catch (...) {
        // Nothing became visible; an upload left over is the store's to expire.
    }
}

} // namespace stratum::storage::vfs::detail::s3
