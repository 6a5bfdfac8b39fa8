#pragma once

// One object of the s3 scheme: where it is, and the user metadata this library keeps on it.

#include "s3/Http.hpp"

#include <stratum/storage/vfs/IRI.hpp>

#include <boost/date_time/posix_time/ptime.hpp>

#include <cstdint>
#include <memory>
#include <string>
#include <string_view>

namespace stratum::storage::vfs::detail::s3 {

/// The object behind an IRI: the client that reaches it, its bucket and key (UTF-8).
struct ObjectRef {
    std::shared_ptr<HttpClient> http;
    std::string bucket;
    std::string key;
    AbsoluteIRI iri;
};

/// What a HEAD tells about an object.
struct Head {
    bool found = false;
    std::uint64_t size = 0;
    std::string etag;
    /// x-amz-meta-mtime, else Last-Modified; not-a-date-time when neither reads.
    boost::posix_time::ptime modified;
    std::string mtimeText; ///< x-amz-meta-mtime as sent
    bool readOnly = false; ///< x-amz-meta-readonly is "1"
};

/// HEAD of `object`: `found` false on 404, a thrown storage error on any other failure.
Head headObject(ObjectRef const& object);

/// The metadata headers for an object written now or rewritten: x-amz-meta-mtime (decimal
/// seconds since 1970, "now" when `modified` is special) and x-amz-meta-readonly when set.
Pairs metadataHeaders(boost::posix_time::ptime modified, bool readOnly);

/// Decimal seconds since 1970 ("-14182940", "981173106.25") and back; not-a-date-time for
/// text that is no such number.
std::string formatSeconds(boost::posix_time::ptime time);
boost::posix_time::ptime parseSeconds(std::string const& text);

/// Throws the translation of a failed `response` to the request `what` on `object` (see
/// `failure`); does nothing when it succeeded.
void check(HttpResponse const& response, ObjectRef const& object, char const* what, bool createOnly = false);

/// Whether `etag` is the MD5 of its object's content, as it is for an object written in one PUT
/// ("\"<32 hex digits>\""). A multipart ETag ("...-N") is the MD5 of the parts' MD5s, which
/// bytes read cannot be checked against without knowing where the parts ended.
bool contentETag(std::string const& etag);

/// Throws IOError when `bytes`, the whole content of `object` as read, do not match its `etag`
/// (see `contentETag`; nothing is checked for any other ETag).
void checkContent(ObjectRef const& object, std::string const& etag, std::string_view bytes);

/// The message of that IOError.
extern char const* const contentMismatch;

/// A request on `object` with `method`, `query` and `headers`.
HttpRequest requestFor(ObjectRef const& object, std::string method, Pairs query = {}, Pairs headers = {});

} // namespace stratum::storage::vfs::detail::s3
