#pragma once

#include <stratum/export.hpp>

#include <chrono>
#include <cstdint>
#include <string>
#include <vector>

namespace stratum::storage::vfs {

/// Where, and as whom, the `s3` scheme talks to object storage.
///
/// `s3://bucket/reports/q3.pkg` names the object `reports/q3.pkg` of bucket `bucket`; the
/// service is the one `endpoint` names. Values are plain data: nothing is checked or contacted
/// until the first request, which reports what is missing (no credentials, say) as an error.
struct STRATUM_API S3Settings {
    /// Base URL of the service, such as "http://127.0.0.1:7480". When set, requests use
    /// path-style addressing (`<endpoint>/<bucket>/<key>`). Empty: AWS itself,
    /// "https://s3.<region>.amazonaws.com", with virtual-hosted addressing.
    std::string endpoint;
    /// The region requests are signed for; empty means "us-east-1".
    std::string region;
    std::string accessKeyId;
    std::string secretAccessKey;
    /// Only for temporary credentials; sent as `x-amz-security-token` when not empty.
    std::string sessionToken;
    /// Size of the parts of a multipart upload. Never below 5 MiB (a smaller value counts as
    /// 5 MiB), and grown for a long upload so that it needs at most 10,000 parts.
    std::uint64_t partSize = std::uint64_t(8) << 20;
    /// Server-side copies of objects larger than this go part by part (UploadPartCopy),
    /// `parallelTransfers` parts at once. The default is the largest single copy S3 takes: a
    /// store that shares the data of a copy does one whole far faster than in parts (radosgw
    /// copies 128 MiB in about 0.1 s whole, 0.5 s in 8 MiB parts 8 at a time). Lower it for a
    /// store that moves the bytes of a copy one stream at a time.
    std::uint64_t copyPartThreshold = std::uint64_t(5) << 30;
    /// A connection that moves no byte for this many seconds counts as dropped (and the
    /// request is retried when it may be).
    unsigned stallSeconds = 60;
    /// The longest wait before the first repeat of a failed request; each later wait may be
    /// twice as long (at most 5 s), and a `Retry-After` of the store's counts too.
    unsigned retryMilliseconds = 100;
    /// How many parts of one upload, ranges of one download or part copies of one server-side
    /// copy are in flight at once, each on a connection of its own; 1 means one at a time (0
    /// counts as 1). An upload holds at most this many parts in memory besides the one being
    /// filled, a download this many ranges (of 8 MiB) besides the one being read. Plain data:
    /// `fromEnvironment` leaves it at its default.
    unsigned parallelTransfers = 8;

    /// The settings as every S3 tool reads them, each from the first place that has it:
    /// - endpoint: `AWS_ENDPOINT_URL`, then `endpoint_url` of the profile in the config file;
    /// - region: `AWS_REGION`, `AWS_DEFAULT_REGION`, the profile's `region`, else "us-east-1";
    /// - credentials: `AWS_ACCESS_KEY_ID` with `AWS_SECRET_ACCESS_KEY` (and
    ///   `AWS_SESSION_TOKEN`), then the profile `AWS_PROFILE` ("default" when unset) of the
    ///   credentials file (`AWS_SHARED_CREDENTIALS_FILE`, else `~/.aws/credentials`), then of
    ///   the config file (`AWS_CONFIG_FILE`, else `~/.aws/config`, where it is
    ///   `[profile NAME]` unless NAME is "default").
    /// Missing files and missing values are not errors here.
    static S3Settings fromEnvironment();
};

/// What `removeS3Litter` found (and, unless it only looked, removed).
struct S3Litter {
    std::vector<std::string> uploads; ///< keys of unfinished multipart uploads
    std::vector<std::string> objects; ///< keys of stray temporary objects
};

/// Removes what a process killed while writing to `bucket` leaves behind, below the key
/// `prefix` ("" for the whole bucket) and started or written more than `olderThan` ago:
/// unfinished multipart uploads (aborted) and the temporary objects this library names
/// `.<16 letters or digits>.tmp` or `.copy-<16 hex digits>.tmp` beside a file it replaces
/// (deleted). Give an age well beyond
/// the longest save, so that no save in progress loses its upload. With `dryRun` nothing is
/// removed. Throws `Exception` when the store cannot be listed or an item cannot be removed.
STRATUM_API S3Litter removeS3Litter(S3Settings const& settings, std::string const& bucket, std::string const& prefix,
                                    std::chrono::seconds olderThan, bool dryRun = false);

} // namespace stratum::storage::vfs
