#pragma once

// Multipart uploads of the s3 scheme: parts sent or copied one by one, then completed or aborted.

#include "s3/Object.hpp"

#include <cstdint>
#include <ctime>
#include <string>
#include <string_view>
#include <vector>

namespace stratum::storage::vfs::detail::s3 {

/// One multipart upload to `object`. Until `complete` succeeds nothing is visible at the key;
/// an upload destroyed before that is aborted, so no partial object ever appears.
class Multipart {
public:
    /// Starts the upload with the object's future metadata headers.
    Multipart(ObjectRef object, Pairs const& metadata);
    ~Multipart();
    Multipart(Multipart const&) = delete;
    Multipart& operator=(Multipart const&) = delete;

    /// Sends the next part (retried by the client); throws the storage error when it fails.
    void upload(std::string_view bytes);
    /// The next part as bytes [first, last] of the object `sourceKey` of the same bucket.
    void copy(std::string const& sourceKey, std::uint64_t first, std::uint64_t last);
    /// Completes the upload; when that fails the upload is aborted and no object is left.
    /// `conditions` (If-Match, If-None-Match) go with the completion: when the store finds they
    /// do not hold (412, or 409 for a conditional write in progress), `VersionMismatch`.
    void complete(Pairs const& conditions = {});
    /// Drops the upload and its parts; never throws.
    void abort() noexcept;

    std::size_t parts() const { return etags_.size(); }

private:
    void abortStrays(std::time_t started) noexcept;

    ObjectRef object_;
    std::string uploadId_;
    std::vector<std::string> etags_;
    bool done_ = false;
};

/// The size of part `number` (from 1) for an upload of unknown length with parts of `base`
/// bytes (at least 5 MiB): doubled after every 1,000 parts, so 10,000 parts reach far beyond
/// anything `base` alone could carry, up to S3's 5 GiB per part.
std::uint64_t partSizeFor(std::uint64_t base, std::size_t number);

} // namespace stratum::storage::vfs::detail::s3
