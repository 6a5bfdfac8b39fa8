#pragma once

#include <stratum/storage/provider/StorageProvider.hpp>

#include <memory>

namespace stratum::storage::vfs::detail {

/// A new, empty in-memory tree (just the root folder) behind the provider interface.
std::shared_ptr<provider::StorageProvider> makeMemoryProvider();

/// The local disk, through the host file-system layer.
std::shared_ptr<provider::StorageProvider> makeLocalProvider();

} // namespace stratum::storage::vfs::detail

namespace stratum::storage::vfs::detail {

/// Streams the content of the file `from` (of `source`) into the new or truncated file `to`
/// (of `target`) and publishes it. `NotFound` when `from` can't be read, `IOError` when the
/// bytes don't all arrive.
void streamFile(provider::StorageProvider& source, AbsoluteIRI const& from, provider::StorageProvider& target,
                AbsoluteIRI const& to);

} // namespace stratum::storage::vfs::detail
