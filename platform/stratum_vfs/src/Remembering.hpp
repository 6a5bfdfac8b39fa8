#pragma once

// A provider that remembers, for the one call it serves, what it has learned of items.

#include <stratum/storage/provider/StorageProvider.hpp>

#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

namespace stratum::storage::vfs::detail {

/// Stands in front of a provider whose every question is a round trip, for one library call on
/// one thread (`StorageSystemReference::remembering`). It holds, per IRI, what the call has
/// learned: the kind, a file's size, time, writability and version tag. Each field comes from
/// the first question that returned it, or from the call's own change through here (a copy,
/// a rename, a closed write, a removal, a new folder, a set time or writability), and is asked
/// again only when unknown. A change that fails forgets what it touched. An item is a folder
/// when a file or folder is known below it. Nothing is shared with other calls, and nothing
/// outlives the handle: another writer's change made meanwhile is not seen through it.
class RememberingProvider final : public provider::StorageProvider,
                                  public std::enable_shared_from_this<RememberingProvider> {
public:
    explicit RememberingProvider(std::shared_ptr<provider::StorageProvider> inner) : inner_(std::move(inner)) {}

    provider::StorageProvider& inner() { return *inner_; }

    provider::ItemKind getKind(AbsoluteIRI const& iri) override;
    provider::FileAttributes getAttributes(AbsoluteIRI const& iri) override;
    std::vector<provider::FolderEntry> listFolder(AbsoluteIRI const& iri) override;
    void createFolder(AbsoluteIRI const& iri) override;
    bool isWritable(AbsoluteIRI const& iri) override;
    void setWritable(AbsoluteIRI const& iri, bool writable) override;
    boost::posix_time::ptime getLastModified(AbsoluteIRI const& iri) override;
    void setLastModified(AbsoluteIRI const& iri, boost::posix_time::ptime time) override;
    void removeFile(AbsoluteIRI const& iri) override;
    void removeEmptyFolder(AbsoluteIRI const& iri) override;
    void removeTree(AbsoluteIRI const& iri) override;
    void rename(AbsoluteIRI const& from, AbsoluteIRI const& to) override;
    std::string getVersionTag(AbsoluteIRI const& iri) override;
    void renameIfVersion(AbsoluteIRI const& from, AbsoluteIRI const& to, std::string const& expected) override;
    std::unique_ptr<std::streambuf> openInput(AbsoluteIRI const& iri) override;
    std::unique_ptr<provider::OutputBuffer> openOutput(AbsoluteIRI const& iri, std::ios_base::openmode mode) override;
    void copyFile(AbsoluteIRI const& from, AbsoluteIRI const& to) override;
    provider::ItemInfo getItemInfo(AbsoluteIRI const& iri) override;
    bool isFree(AbsoluteIRI const& iri) override;

    /// What a write through `openOutput` at `iri` made, once it was published.
    void written(AbsoluteIRI const& iri, std::optional<std::uint64_t> size);

private:
    struct Known {
        AbsoluteIRI iri;
        bool kindKnown = false;
        provider::ItemInfo info;
    };

    // What is known of `iri` (a copy), its kind derived from what lies below it if need be.
    Known known(AbsoluteIRI const& iri);
    // Everything one question tells of `iri`, asked when `complete` says something is missing.
    template <class Complete>
    Known ask(AbsoluteIRI const& iri, Complete complete);
    void learn(AbsoluteIRI const& iri, provider::ItemInfo const& info);
    Known* find(AbsoluteIRI const& iri); // under the lock
    Known& entry(AbsoluteIRI const& iri); // under the lock
    // Forgets `iri` and, with `below`, everything within it.
    void forget(AbsoluteIRI const& iri, bool below = false);
    // Runs `change`; when it throws, forgets `first` and `second` (and what is below them).
    template <class Change>
    auto changing(AbsoluteIRI const& first, AbsoluteIRI const* second, Change change);
    // Sets `field` of `iri` to `value` by `change`, unless it is known to hold it already.
    template <class Value, class Change>
    void setting(AbsoluteIRI const& iri, std::optional<Value> provider::ItemInfo::*field, Value value, Change change);
    // A removal by `change`: nothing is at `iri` or below it afterwards.
    template <class Change>
    void removing(AbsoluteIRI const& iri, Change change);

    std::shared_ptr<provider::StorageProvider> inner_;
    std::mutex mutex_;
    std::vector<Known> items_; // a call touches a handful of items
};

} // namespace stratum::storage::vfs::detail
