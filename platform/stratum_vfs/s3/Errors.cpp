// The s3 scheme's one translation from HTTP status and S3 error code to storage errors.
#include "s3/Errors.hpp"

namespace stratum::storage::vfs::detail::s3 {

ErrorCode errorCodeFor(long status, std::string const& code, Transport transport, bool createOnly) {
    switch (transport) {
    case Transport::None: break;
    case Transport::Unreachable: return ErrorCode::NoSuchDeviceOrAddress; // refused or unknown host
    case Transport::TimedOut: return ErrorCode::TryAgain;
    default: return ErrorCode::IOError;
    }
    if (code == "NoSuchKey" || code == "NoSuchBucket" || code == "NoSuchUpload" || (code.empty() && status == 404)) {
        return ErrorCode::NotFound;
    }
    if (code == "AccessDenied" || code == "SignatureDoesNotMatch" || code == "InvalidAccessKeyId" ||
        code == "RequestTimeTooSkewed" || code == "AllAccessDisabled" || (code.empty() && status == 403)) {
        return ErrorCode::PermissionDenied;
    }
    if (code == "BucketNotEmpty") {
        return ErrorCode::DirectoryNotEmpty;
    }
    if (status == 412 && createOnly) {
        return ErrorCode::FileExists;
    }
    if (code == "EntityTooLarge") {
        return ErrorCode::FileTooLarge;
    }
    if (code == "QuotaExceeded") {
        return ErrorCode::NoSpace;
    }
    // What is left after the retries gave up.
    if (code == "SlowDown" || status == 429 || status == 503) {
        return ErrorCode::TryAgain;
    }
    return ErrorCode::IOError;
}

Exception failure(HttpResponse const& response, AbsoluteIRI const& iri, std::string const& what, bool createOnly) {
    std::string detail = what + ": ";
    if (response.transport != Transport::None) {
        detail += response.transportDetail;
    } else {
        detail += response.errorCode.empty() ? "HTTP " + std::to_string(response.status) : response.errorCode;
        if (!response.errorMessage.empty()) {
            detail += " (" + response.errorMessage + ")";
        }
    }
    return Exception(errorCodeFor(response.status, response.errorCode, response.transport, createOnly), iri, detail);
}

} // namespace stratum::storage::vfs::detail::s3
