#pragma once

// Read and write buffers over s3 objects.

#include "s3/Object.hpp"

#include <stratum/storage/provider/StorageProvider.hpp>

#include <memory>
#include <streambuf>
#include <string>

namespace stratum::storage::vfs::detail::s3 {

/// Reads `object` (of `size` bytes, as HEAD saw it with `etag`) by ranged GETs of up to 8 MiB,
/// each pinned to `etag`: an object replaced while it is read fails with IOError instead of
/// mixing two versions. Read from range to range, up to `parallelTransfers` ranges are fetched
/// ahead side by side and handed over in order. Content read from the start to the end of an
/// object written in one PUT is checked against its ETag (its MD5): a mismatch is an IOError
/// from the read that reaches the last range. Seekable.
std::unique_ptr<std::streambuf> makeInputBuffer(ObjectRef object, std::uint64_t size, std::string etag);

/// Writes `object`. Nothing is visible until `close()`: small content goes in one PUT there,
/// larger content as a multipart upload whose full parts the writes hand over to be sent side
/// by side (a write waits only while `parallelTransfers` parts are in flight), completed at
/// `close()`. A failed part throws from the first write or flush after its failure is known,
/// and at the latest from `close()`, never letting the content count as written. Destroyed
/// without `close()`, or after a failure, the upload is aborted once its parts in flight have
/// ended. `initial` is the old content for `app` (written
/// first) or for `in|out` without `trunc` (`overwrite`: bytes are overwritten in place, from
/// the start or from the end with `atEnd`, and everything goes at `close()`).
std::unique_ptr<provider::OutputBuffer> makeOutputBuffer(ObjectRef object, std::string initial, bool overwrite,
                                                         bool atEnd);

} // namespace stratum::storage::vfs::detail::s3
