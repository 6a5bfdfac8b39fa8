#include <stratum/storage/provider/StorageProvider.hpp>
#include <stratum/storage/vfs/Exception.hpp>
#include <stratum/storage/vfs/StorageSystem.hpp>

#include "Providers.hpp"
#include "Remembering.hpp"
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

/// The remembering stand-ins of one call, one per scheme that asks over a network.
class CallMemo {
public:
    std::shared_ptr<provider::StorageProvider> serve(std::u16string const& scheme,
                                                     std::shared_ptr<provider::StorageProvider> provider) {
        if (dynamic_cast<RemoteQueries*>(provider.get()) == nullptr) {
            return provider;
        }
        std::lock_guard<std::mutex> lock(mutex_);
        auto& memo = providers_[asciiLower(scheme)];
        if (!memo || &memo->inner() != provider.get()) {
            memo = std::make_shared<RememberingProvider>(std::move(provider));
        }
        return memo;
    }

private:
    std::mutex mutex_;
    std::map<std::u16string, std::shared_ptr<RememberingProvider>> providers_;
};

} // namespace detail

StorageSystemReference::StorageSystemReference() : system_(std::make_shared<detail::StorageSystem>(std::nullopt)) {}

StorageSystemReference::StorageSystemReference(S3Settings settings)
    : system_(std::make_shared<detail::StorageSystem>(std::move(settings))) {}

std::shared_ptr<provider::StorageProvider> StorageSystemReference::getProvider(std::u16string const& scheme) const {
    std::shared_ptr<provider::StorageProvider> provider = system_->get(scheme);
    return memo_ ? memo_->serve(scheme, std::move(provider)) : provider;
}

StorageSystemReference StorageSystemReference::remembering() const {
    StorageSystemReference call = *this;
    if (!call.memo_) { // within a call that remembers already, its memory goes on
        call.memo_ = std::make_shared<detail::CallMemo>();
    }
    return call;
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
