#pragma once

// HTTP for the s3 scheme: signed requests over pooled libcurl handles, with retries.

#include <stratum/storage/vfs/S3Settings.hpp>

#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace stratum::storage::vfs::detail::s3 {

/// How a request failed below HTTP, if it did.
enum class Transport { None,
                       Unreachable,
                       Dropped,
                       TimedOut,
                       Other };

using Pairs = std::vector<std::pair<std::string, std::string>>;

struct HttpRequest {
    std::string method;
    std::string bucket;
    std::string key;       ///< UTF-8, not encoded; empty for requests on the bucket
    Pairs query;           ///< decoded
    Pairs headers;         ///< besides those the client adds (host, date, hash, authorization)
    std::string_view body; ///< stays owned by the caller during `send`
    /// Safe to repeat after a dropped connection. Others are repeated only when the server
    /// answered that it did not act (503, 429, SlowDown).
    bool idempotent = true;
    /// The answer is S3's own XML, so an <Error> document in it is a failure even with status
    /// 200 (copies and completions). Other bodies (object content) are read as errors only
    /// with an error status.
    bool xmlAnswer = false;
    /// A successful answer must be an XML document with this root element ("CopyObjectResult",
    /// ...); one that does not parse or lacks it was cut short and counts as dropped.
    char const* xmlRoot = nullptr;
    /// Headers (lower case) a successful answer must carry; one without them counts as dropped.
    std::vector<char const*> required;
    /// The size a successful answer's body must have (a ranged GET); a shorter one counts as dropped.
    std::optional<std::size_t> bodyBytes;
};

struct HttpResponse {
    long status = 0;
    Transport transport = Transport::None;
    std::string transportDetail; ///< libcurl's text when `transport` is not None
    Pairs headers;               ///< names in lower case
    std::string body;
    std::string errorCode;    ///< Code of an <Error> body (also one sent with status 200)
    std::string errorMessage; ///< its Message
    int attempts = 0;         ///< how many times the request was sent

    bool ok() const { return transport == Transport::None && status >= 200 && status < 300 && errorCode.empty(); }
    /// The value of the header `lowerName`, "" when absent.
    std::string header(std::string const& lowerName) const;
};

/// Sends requests to the service of one `S3Settings`; safe to call from several threads at
/// once, each send on an easy handle (a connection) of its own. Idle handles are kept in a
/// pool (as many as `parallelTransfers`, at least 8) so that connections are reused.
class HttpClient {
public:
    explicit HttpClient(S3Settings settings);
    ~HttpClient();
    HttpClient(HttpClient const&) = delete;
    HttpClient& operator=(HttpClient const&) = delete;

    /// Signs and sends `request`, retrying transient failures with exponential backoff and
    /// jitter (at most 6 attempts within about 30 s; Retry-After honoured). A PUT, and a POST
    /// with a body, carries Content-MD5 (unless it is a copy or has one): a body the store
    /// finds damaged (400 BadDigest) is sent again like a refused request, and is an IOError
    /// after the last attempt. Never throws for a
    /// failed request: the answer says what happened. An answer that is not whole (headers
    /// without their closing blank line, a body short of its Content-Length, the XML or the
    /// headers the request asks for missing) counts as a dropped connection.
    HttpResponse send(HttpRequest const& request);

    S3Settings const& settings() const { return settings_; }

private:
    HttpResponse sendOnce(HttpRequest const& request);
    void* acquire();
    void release(void* handle);

    S3Settings settings_;
    std::string scheme_; ///< "http" or "https"
    std::string host_;   ///< host[:port] of the endpoint; empty: AWS, per bucket
    std::mutex mutex_;
    std::vector<void*> idle_;
};

} // namespace stratum::storage::vfs::detail::s3
