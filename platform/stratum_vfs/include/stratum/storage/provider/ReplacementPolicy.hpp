#pragma once

#include <cstdint>

namespace stratum::storage::provider {

/// What `copy` and `move` do when the destination exists.
enum ReplacementPolicy : std::uint32_t {
    /// Fail with `ErrorCode::FileExists` and change nothing.
    DoNotReplace = 0,
    /// Remove the destination (a folder with everything in it) and put the source in its place.
    Replace = 1
};

} // namespace stratum::storage::provider
