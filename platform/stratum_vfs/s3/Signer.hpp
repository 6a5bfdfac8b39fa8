#pragma once

// AWS Signature Version 4 over OpenSSL's SHA-256 and HMAC: the canonical request, the string to
// sign and the Authorization header, for S3 (paths are signed as sent, never normalised).

#include <cstddef>
#include <ctime>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace stratum::storage::vfs::detail::s3 {

/// One HTTP request as it will be sent: what the signature covers.
struct Request {
    std::string method; ///< "GET", "PUT", ...
    /// The path as sent on the wire, already percent-encoded ("/bucket/a%20b//c"). It is
    /// signed exactly as it stands: S3 paths are neither normalised nor encoded twice.
    std::string path;
    /// Query parameters, decoded, in any order; a parameter without value has an empty one.
    std::vector<std::pair<std::string, std::string>> query;
    /// Headers as sent, names in any case; "host" must be among them. Every header here is
    /// signed; several with the same name are joined with "," in the order given.
    std::vector<std::pair<std::string, std::string>> headers;
    /// Lower-case hex SHA-256 of the body, or "UNSIGNED-PAYLOAD".
    std::string payloadHash;
};

struct Credentials {
    std::string accessKeyId;
    std::string secretAccessKey;
    std::string sessionToken; ///< empty unless temporary credentials
};

/// Lower-case hex SHA-256 of `size` bytes at `data`.
std::string sha256Hex(void const* data, std::size_t size);
inline std::string sha256Hex(std::string const& data) { return sha256Hex(data.data(), data.size()); }

/// Lower-case hex MD5 of `size` bytes at `data` (an S3 ETag of a single-part object).
std::string md5Hex(void const* data, std::size_t size);
inline std::string md5Hex(std::string_view data) { return md5Hex(data.data(), data.size()); }

/// Base64 of the MD5 of `data`: the value of a Content-MD5 header.
std::string md5Base64(std::string_view data);

/// An MD5 fed piece by piece (the content of an object read range after range).
class Md5 {
public:
    Md5();
    ~Md5();
    Md5(Md5 const&) = delete;
    Md5& operator=(Md5 const&) = delete;
    void add(void const* data, std::size_t size);
    /// Lower-case hex of everything added; ends the digest (nothing may be added after it).
    std::string hex();

private:
    void* context_; ///< EVP_MD_CTX
};

/// Raw (binary) HMAC-SHA256 of `data` under `key`.
std::string hmacSha256(std::string const& key, std::string const& data);

/// Percent-encoding as SigV4 wants it: A-Z a-z 0-9 "-" "." "_" "~" stand, every other byte
/// becomes "%XX" (upper-case hex); "/" stands too when `keepSlash`.
std::string uriEncode(std::string const& text, bool keepSlash);

/// "YYYYMMDDTHHMMSSZ" for the UTC time `when`.
std::string amzDate(std::time_t when);

/// The canonical request: method, path, sorted encoded query, sorted lower-case headers with
/// trimmed values (inner runs of spaces folded to one), the signed-header list, payload hash.
std::string canonicalRequest(Request const& request);

/// The string to sign for `canonical` at `date` ("YYYYMMDDTHHMMSSZ") in
/// `<day>/<region>/<service>/aws4_request`.
std::string stringToSign(std::string const& canonical, std::string const& date, std::string const& region,
                         std::string const& service);

/// Signs `request` as of `date`: adds "x-amz-date" (and "x-amz-security-token" when the
/// credentials carry one) to its headers, then adds "Authorization" over all of them; any of
/// these three already there are replaced, so a retried request can be signed again. The
/// caller adds "x-amz-content-sha256" (S3 wants it) before signing.
void sign(Request& request, Credentials const& credentials, std::string const& region, std::string const& service,
          std::string const& date);

} // namespace stratum::storage::vfs::detail::s3
