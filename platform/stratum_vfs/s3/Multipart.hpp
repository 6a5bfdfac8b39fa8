#pragma once

// Multipart uploads of the s3 scheme: parts sent or copied side by side (at most
// `parallelTransfers` at once), then completed in part-number order, or aborted.

#include "s3/Object.hpp"
#include "s3/Workers.hpp"

#include <cstdint>
#include <ctime>
#include <exception>
#include <memory>
#include <mutex>
#include <string>
#include <string_view>
#include <vector>

namespace stratum::storage::vfs::detail::s3 {

/// One multipart upload to `object`. Until `complete` succeeds nothing is visible at the key;
/// an upload destroyed before that is aborted (after the parts in flight have ended), so no
/// partial object ever appears. Parts go out on threads of their own, at most
/// `parallelTransfers` at once, and may finish in any order; each is retried by the client on
/// its own. Used by one thread (its owner).
class Multipart {
public:
    /// Starts the upload with the object's future metadata headers.
    Multipart(ObjectRef object, Pairs const& metadata);
    ~Multipart();
    Multipart(Multipart const&) = delete;
    Multipart& operator=(Multipart const&) = delete;

    /// Hands the next part over to be sent while the caller goes on: waits only while
    /// `parallelTransfers` parts are in flight. Throws the storage error of a part that failed
    /// before (the first one known), then or while waiting; a part that fails later is thrown
    /// by a later `send`, by `finish` or by `complete`.
    void send(std::string bytes);
    /// Waits until every part handed over has ended; throws the first failure among them.
    void finish();
    /// Throws the storage error of the first part known to have failed, if any; never waits.
    void rethrowFailure() const;
    /// The next part as bytes [first, last] of the object `sourceKey` of the same bucket, on
    /// the calling thread.
    void copy(std::string const& sourceKey, std::uint64_t first, std::uint64_t last);
    /// The next parts as the whole of the object `sourceKey` (`size` bytes, more than 0) of the
    /// same bucket, in parts of at least `partSize` (grown to stay within 10,000 parts), copied
    /// on the server side by side (`parallelTransfers` at once). Throws the first failure once
    /// every copy in flight has ended.
    void copyAll(std::string const& sourceKey, std::uint64_t size);
    /// Waits for the parts in flight, then completes the upload with every part in part-number
    /// order; when a part or the completion failed the upload is aborted and no object is left.
    /// `conditions` (If-Match, If-None-Match) go with the completion: when the store finds they
    /// do not hold (412, or 409 for a conditional write in progress), `VersionMismatch`.
    void complete(Pairs const& conditions = {});
    /// Waits for the parts in flight, then drops the upload and its parts; never throws.
    void abort() noexcept;

    /// Parts handed over or copied so far.
    std::size_t parts() const { return next_; }

private:
    void abortStrays(std::time_t started) noexcept;
    void fail(std::exception_ptr error);
    bool failed() const;
    Workers& workers(); // made at the first part handed over
    // Sends part `number` (from 1); records its ETag or its failure.
    void sendPart(std::size_t number, std::string const& bytes);
    void copyPart(std::size_t number, std::string const& sourceKey, std::uint64_t first, std::uint64_t last);
    std::size_t take(); // the next part number, within 10,000

    ObjectRef object_;
    std::string uploadId_;
    std::size_t next_ = 0;             ///< parts numbered so far
    mutable std::mutex mutex_;         ///< guards etags_ and failure_
    std::vector<std::string> etags_;   ///< by part number - 1; "" while in flight
    std::exception_ptr failure_;       ///< the first part that failed
    bool done_ = false;
    std::unique_ptr<Workers> workers_; ///< last: its threads end before the rest goes
};

/// The size of part `number` (from 1) for an upload of unknown length with parts of `base`
/// bytes (at least 5 MiB): doubled after every 1,000 parts, so 10,000 parts reach far beyond
/// anything `base` alone could carry, up to S3's 5 GiB per part.
std::uint64_t partSizeFor(std::uint64_t base, std::size_t number);

} // namespace stratum::storage::vfs::detail::s3
