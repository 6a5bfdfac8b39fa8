#pragma once

// The s3 scheme's one translation of failed requests into storage errors.

#include "s3/Http.hpp"

#include <stratum/storage/vfs/Exception.hpp>

#include <string>

namespace stratum::storage::vfs::detail::s3 {

/// The storage error for an answer with HTTP `status` and S3 error `code` ("" when none), or
/// for a request that failed below HTTP (`transport`). `createOnly`: the request was a write
/// that must not replace anything, so 412 means something is there already.
ErrorCode errorCodeFor(long status, std::string const& code, Transport transport, bool createOnly);

/// The exception for the failed `response` to a request about `iri`: the code above, with the
/// S3 code and message (or libcurl's text) in the detail, prefixed by `what` ("HEAD", ...).
Exception failure(HttpResponse const& response, AbsoluteIRI const& iri, std::string const& what,
                  bool createOnly = false);

} // namespace stratum::storage::vfs::detail::s3
