#include <stratum/storage/provider/StorageProvider.hpp>
#include <stratum/storage/vfs/Exception.hpp>
#include <stratum/storage/vfs/StorageSystem.hpp>

#include "Providers.hpp"
#include "Utf.hpp"

#include <map>
#include <mutex>

namespace stratum::storage::vfs {

namespace detail {

/// The providers of one storage system, by lower-case scheme.
class StorageSystem {
public:
    explicit StorageSystem(std::optional<S3Settings> s3) {
        providers_[u"file"] = makeLocalProvider();
        providers_[u"memory"] = makeMemoryProvider();
        providers_[u"s3"] = makeS3Provider(std::move(s3));
    }

    std::shared_ptr<provider::StorageProvider> get(std::u16string const& scheme) const {
        std::lock_guard<std::mutex> lock(mutex_);
        auto found = providers_.find(asciiLower(scheme));
        if (found == providers_.end()) {
            throw UnsupportedIRISchemeException(scheme);
        }
        return found->second;
    }

    void set(std::u16string const& scheme, std::shared_ptr<provider::StorageProvider> provider) {
        std::lock_guard<std::mutex> lock(mutex_);
        providers_[asciiLower(scheme)] = std::move(provider);
    }

private:
    mutable std::mutex mutex_;
    std::map<std::u16string, std::shared_ptr<provider::StorageProvider>> providers_;
};

} // namespace detail

StorageSystemReference::StorageSystemReference() : system_(std::make_shared<detail::StorageSystem>(std::nullopt)) {}

StorageSystemReference::StorageSystemReference(S3Settings settings)
    : system_(std::make_shared<detail::StorageSystem>(std::move(settings))) {}

std::shared_ptr<provider::StorageProvider> StorageSystemReference::getProvider(std::u16string const& scheme) const {
    return system_->get(scheme);
}

void StorageSystemReference::setProvider(std::u16string const& scheme,
                                         std::shared_ptr<provider::StorageProvider> provider) {
    if (!isKnownIRIScheme(scheme) || !provider) {
        throw UnsupportedIRISchemeException(scheme);
    }
    system_->set(scheme, std::move(provider));
}

bool operator==(StorageSystemReference const& a, StorageSystemReference const& b) { return a.system_ == b.system_; }

} // namespace stratum::storage::vfs
