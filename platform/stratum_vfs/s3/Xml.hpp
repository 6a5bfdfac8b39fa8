#pragma once

// The XML of S3 answers and request bodies, through pugixml.

#include <ctime>
#include <string>
#include <utility>
#include <vector>

namespace stratum::storage::vfs::detail::s3 {

/// Whether `body` parses as a whole XML document whose root element is `root`.
bool hasRoot(std::string const& body, char const* root);

/// Code and Message of an <Error> document; false when `body` is no such document.
bool parseError(std::string const& body, std::string& code, std::string& message);

/// One page of ListObjectsV2.
struct ListPage {
    std::vector<std::string> keys;
    std::vector<std::string> modified; ///< LastModified of each key
    std::vector<std::string> prefixes; ///< CommonPrefixes
    std::string nextToken;             ///< empty on the last page
};
ListPage parseListPage(std::string const& body);

/// One page of ListMultipartUploads.
struct UploadPage {
    struct Upload {
        std::string key, uploadId, initiated;
    };
    std::vector<Upload> uploads;
    std::string nextKey, nextUploadId; ///< both empty on the last page
};
UploadPage parseUploadPage(std::string const& body);

/// Seconds since 1970 of a time as listings give it ("2026-11-25T22:07:59.000Z"); 0 for text
/// that does not read.
std::time_t parseListedTime(std::string const& text);

/// UploadId of InitiateMultipartUploadResult ("" when missing).
std::string parseUploadId(std::string const& body);

/// ETag of a CopyObjectResult or CopyPartResult ("" when missing).
std::string parseCopyETag(std::string const& body);

/// The keys a DeleteObjects answer reports as not deleted, each with its code and message.
std::vector<std::pair<std::string, std::string>> parseDeleteErrors(std::string const& body);

/// Body of DeleteObjects (quiet mode) for `keys`.
std::string deleteBody(std::vector<std::string> const& keys);

/// Body of CompleteMultipartUpload for the ETags of parts 1, 2, ...
std::string completeBody(std::vector<std::string> const& etags);

} // namespace stratum::storage::vfs::detail::s3
