#pragma once

namespace stratum::storage::provider {

/// What is stored at an IRI; the values are the answer of `vfs::exists`.
enum ItemKind : int { FileItem = 0,
                      FolderItem = 1,
                      NoItem = 2 };

} // namespace stratum::storage::provider
