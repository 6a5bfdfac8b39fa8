#pragma once

#include <stratum/export.hpp>

#include <cstdint>
#include <string>

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
    /// Server-side copies of objects larger than this go part by part (UploadPartCopy).
    std::uint64_t copyPartThreshold = std::uint64_t(5) << 30;

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

} // namespace stratum::storage::vfs
