#pragma once

// Read and write buffers over s3 objects.

#include "s3/Object.hpp"

#include <stratum/storage/provider/StorageProvider.hpp>

#include <memory>
#include <streambuf>
#include <string>

namespace stratum::storage::vfs::detail::s3 {

/// Reads `object` (of `size` bytes, as HEAD saw it with `etag`) by ranged GETs of up to 8 MiB
/// ahead, each pinned to `etag`: an object replaced while it is read fails with IOError
/// instead of mixing two versions. Seekable.
std::unique_ptr<std::streambuf> makeInputBuffer(ObjectRef object, std::uint64_t size, std::string etag);

/// Writes `object`. Nothing is visible until `close()`: small content goes in one PUT there,
/// larger content as a multipart upload whose full parts are sent by the writes (a failed part
/// throws from that write) and which is completed at `close()`. Destroyed without `close()`,
/// or after a failure, the upload is aborted. `initial` is the old content for `app` (written
/// first) or for `in|out` without `trunc` (`overwrite`: bytes are overwritten in place, from
/// the start or from the end with `atEnd`, and everything goes at `close()`).
std::unique_ptr<provider::OutputBuffer> makeOutputBuffer(ObjectRef object, std::string initial, bool overwrite,
                                                         bool atEnd);

} // namespace stratum::storage::vfs::detail::s3
