#pragma once

#include <stratum/export.hpp>
#include <stratum/storage/vfs/S3Settings.hpp>

#include <memory>
#include <string>

namespace stratum::storage::provider {
class StorageProvider;
}

namespace stratum::storage::vfs {

namespace detail {
class StorageSystem;
class CallMemo;
} // namespace detail

/// A cheap, copyable handle to one storage system: the providers that serve its schemes.
///
/// A default-constructed reference makes a new storage system with two providers:
/// - `file`: the local disk, through the host file-system layer;
/// - `memory`: an in-memory tree of folders and files owned by this storage system and shared
///   by every copy of the reference (and every `File`, `Folder` and stream made from one); it
///   lives until the last of them is gone. Two storage systems never share a memory tree;
/// - `s3`: object storage, `s3://bucket/key`, with the settings of `S3Settings::fromEnvironment()`
///   read at its first request (missing credentials fail that request with PermissionDenied).
/// Copies share the same system. All operations may be used from several threads at once.
class STRATUM_API StorageSystemReference {
public:
    StorageSystemReference();

    /// As the default, but the `s3` provider uses `settings` instead of the environment.
    explicit StorageSystemReference(S3Settings settings);

    /// The provider serving `scheme` (matched ignoring case). Throws
    /// `UnsupportedIRISchemeException` when none is registered.
    std::shared_ptr<provider::StorageProvider> getProvider(std::u16string const& scheme) const;

    /// Registers `provider` for `scheme` (ignoring case), replacing the one there. The scheme
    /// must be known to the IRI parser (`isKnownIRIScheme`), else
    /// `UnsupportedIRISchemeException`. Lets tests wrap a provider (to inject faults) and
    /// lets a system be set up with another back end for a scheme.
    void setProvider(std::u16string const& scheme, std::shared_ptr<provider::StorageProvider> provider);

    /// A handle to the same storage system (equal to this one) for one library call on one thread,
    /// such as a commit, that promises nothing against concurrent writers. Where every question
    /// is a round trip (`s3`), it remembers what the call has learned of each item (kind, size,
    /// time, writability, version tag) and what the call's own changes made of it, and asks the
    /// store only what it does not know. The memory lives as long as the handle and its copies:
    /// drop them when the call returns, as another writer's later change is not seen through
    /// them. Other schemes are served as by this handle. On a remembering handle, the same one.
    StorageSystemReference remembering() const;

    /// True when both handles refer to the same storage system.
    friend STRATUM_API bool operator==(StorageSystemReference const& a, StorageSystemReference const& b);
    friend bool operator!=(StorageSystemReference const& a, StorageSystemReference const& b) { return !(a == b); }

private:
    std::shared_ptr<detail::StorageSystem> system_;
    std::shared_ptr<detail::CallMemo> memo_; ///< set by `remembering`
};

} // namespace stratum::storage::vfs
