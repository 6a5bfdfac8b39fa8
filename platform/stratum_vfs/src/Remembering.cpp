// What one call has learned of items, answered again without a round trip.
#include "Remembering.hpp"

#include "Providers.hpp"

#include <algorithm>

namespace stratum::storage::vfs::detail {

namespace {

using provider::FileItem;
using provider::FolderItem;
using provider::ItemInfo;
using provider::NoItem;

bool isFile(ItemInfo const& info) { return info.kind == FileItem; }

// Hands every byte to the provider's own buffer and, once it is published, tells the memo what
// the write made.
class WrittenBuffer final : public provider::OutputBuffer {
public:
    WrittenBuffer(std::unique_ptr<provider::OutputBuffer> inner, std::shared_ptr<RememberingProvider> memo,
                  AbsoluteIRI iri, bool whole)
        : inner_(std::move(inner)), memo_(std::move(memo)), iri_(std::move(iri)), whole_(whole) {}

    void close() override {
        memo_->written(iri_, std::nullopt); // unknown until the close succeeds
        inner_->close();
        memo_->written(iri_, whole_ ? std::optional<std::uint64_t>(end_) : std::nullopt);
    }

protected:
    std::streamsize xsputn(char const* bytes, std::streamsize count) override {
        std::streamsize const written = inner_->sputn(bytes, count);
        at_ += std::uint64_t(std::max<std::streamsize>(written, 0));
        end_ = std::max(end_, at_);
        return written;
    }
    pos_type seekoff(off_type offset, std::ios_base::seekdir dir, std::ios_base::openmode which) override {
        return moved(inner_->pubseekoff(offset, dir, which));
    }
    pos_type seekpos(pos_type pos, std::ios_base::openmode which) override {
        return moved(inner_->pubseekpos(pos, which));
    }
    int sync() override { return inner_->pubsync(); }

private:
    pos_type moved(pos_type pos) {
        if (pos != pos_type(off_type(-1))) {
            at_ = std::uint64_t(std::streamoff(pos));
        }
        return pos;
    }

    std::unique_ptr<provider::OutputBuffer> inner_;
    std::shared_ptr<RememberingProvider> memo_;
    AbsoluteIRI iri_;
    bool whole_;            // a new or truncated file: its size is the furthest byte written
    std::uint64_t at_ = 0;  // the output position
    std::uint64_t end_ = 0;
};

} // namespace

RememberingProvider::Known* RememberingProvider::find(AbsoluteIRI const& iri) {
    auto found = std::find_if(items_.begin(), items_.end(), [&](Known const& k) { return k.iri == iri; });
    return found == items_.end() ? nullptr : &*found;
}

RememberingProvider::Known& RememberingProvider::entry(AbsoluteIRI const& iri) {
    if (Known* existing = find(iri)) {
        return *existing;
    }
    items_.push_back(Known{iri, false, {}});
    return items_.back();
}

RememberingProvider::Known RememberingProvider::known(AbsoluteIRI const& iri) {
    std::lock_guard<std::mutex> lock(mutex_);
    Known k = find(iri) ? *find(iri) : Known{iri, false, {}};
    if (!k.kindKnown) {
        for (Known const& other : items_) {
            if (other.kindKnown && other.info.kind != NoItem && !(other.iri == iri) && other.iri.isWithin(iri)) {
                k.kindKnown = true;
                k.info.kind = FolderItem;
                break;
            }
        }
    }
    return k;
}

template <class Complete>
RememberingProvider::Known RememberingProvider::ask(AbsoluteIRI const& iri, Complete complete) {
    Known k = known(iri);
    if (!k.kindKnown || !complete(k.info)) {
        learn(iri, inner_->getItemInfo(iri));
        k = known(iri);
    }
    return k;
}

void RememberingProvider::learn(AbsoluteIRI const& iri, ItemInfo const& info) {
    std::lock_guard<std::mutex> lock(mutex_);
    Known& k = entry(iri);
    if (!k.kindKnown || k.info.kind != info.kind) {
        k.info = ItemInfo{info.kind, {}, {}, {}, {}};
    }
    k.kindKnown = true;
    auto take = [](auto& field, auto const& learned) {
        if (learned) {
            field = learned;
        }
    };
    take(k.info.size, info.size);
    take(k.info.lastModified, info.lastModified);
    take(k.info.writable, info.writable);
    take(k.info.versionTag, info.versionTag);
}

void RememberingProvider::forget(AbsoluteIRI const& iri, bool below) {
    std::lock_guard<std::mutex> lock(mutex_);
    items_.erase(std::remove_if(items_.begin(), items_.end(),
                                [&](Known const& k) { return k.iri == iri || (below && k.iri.isWithin(iri)); }),
                 items_.end());
}

template <class Change>
auto RememberingProvider::changing(AbsoluteIRI const& first, AbsoluteIRI const* second, Change change) {
    try {
        return change();
    } catch (...) {
        forget(first, true);
        if (second) {
            forget(*second, true);
        }
        throw;
    }
}

void RememberingProvider::written(AbsoluteIRI const& iri, std::optional<std::uint64_t> size) {
    forget(iri);
    if (size) { // a new or truncated file, published: the caller checked it was not read-only
        learn(iri, ItemInfo{FileItem, size, {}, true, {}});
    }
}

ItemInfo RememberingProvider::getItemInfo(AbsoluteIRI const& iri) {
    return ask(iri, [](ItemInfo const& i) { return !isFile(i) || (i.size && i.lastModified && i.writable); }).info;
}

bool RememberingProvider::isFree(AbsoluteIRI const& iri) {
    if (Known const k = known(iri); k.kindKnown) {
        return k.info.kind == NoItem;
    }
    bool const free = inner_->isFree(iri);
    if (free) {
        learn(iri, ItemInfo{});
    }
    return free;
}

provider::ItemKind RememberingProvider::getKind(AbsoluteIRI const& iri) {
    return ask(iri, [](ItemInfo const&) { return true; }).info.kind;
}

provider::FileAttributes RememberingProvider::getAttributes(AbsoluteIRI const& iri) {
    ItemInfo const info = getItemInfo(iri);
    if (!isFile(info) || !info.size || !info.lastModified || !info.writable) {
        return inner_->getAttributes(iri); // says what is wrong
    }
    return provider::FileAttributes(*info.size, *info.lastModified, *info.writable);
}

bool RememberingProvider::isWritable(AbsoluteIRI const& iri) {
    Known const k = ask(iri, [](ItemInfo const& i) { return !isFile(i) || i.writable; });
    if (k.info.writable) {
        return *k.info.writable;
    }
    bool const writable = inner_->isWritable(iri); // a folder's, or NotFound
    std::lock_guard<std::mutex> lock(mutex_);
    entry(iri).info.writable = writable;
    return writable;
}

boost::posix_time::ptime RememberingProvider::getLastModified(AbsoluteIRI const& iri) {
    Known const k = ask(iri, [](ItemInfo const& i) { return !isFile(i) || i.lastModified; });
    if (k.info.lastModified) {
        return *k.info.lastModified;
    }
    boost::posix_time::ptime const time = inner_->getLastModified(iri);
    std::lock_guard<std::mutex> lock(mutex_);
    entry(iri).info.lastModified = time;
    return time;
}

// A set to what the call knows is there already is not sent; one that is sent may change the
// version tag (an object store rewrites the object).
template <class Value, class Change>
void RememberingProvider::setting(AbsoluteIRI const& iri, std::optional<Value> provider::ItemInfo::*field, Value value,
                                  Change change) {
    if (known(iri).info.*field == value) {
        return;
    }
    changing(iri, nullptr, change);
    std::lock_guard<std::mutex> lock(mutex_);
    Known& k = entry(iri);
    k.info.*field = value;
    k.info.versionTag.reset();
}

void RememberingProvider::setWritable(AbsoluteIRI const& iri, bool writable) {
    setting(iri, &provider::ItemInfo::writable, writable, [&] { inner_->setWritable(iri, writable); });
}

void RememberingProvider::setLastModified(AbsoluteIRI const& iri, boost::posix_time::ptime time) {
    setting(iri, &provider::ItemInfo::lastModified, time, [&] { inner_->setLastModified(iri, time); });
}

std::vector<provider::FolderEntry> RememberingProvider::listFolder(AbsoluteIRI const& iri) {
    return inner_->listFolder(iri);
}

void RememberingProvider::createFolder(AbsoluteIRI const& iri) {
    changing(iri, nullptr, [&] { inner_->createFolder(iri); });
    learn(iri, ItemInfo{FolderItem, {}, {}, {}, {}});
}

template <class Change>
void RememberingProvider::removing(AbsoluteIRI const& iri, Change change) {
    changing(iri, nullptr, change);
    forget(iri, true);
    learn(iri, ItemInfo{});
}

void RememberingProvider::removeFile(AbsoluteIRI const& iri) {
    removing(iri, [&] { inner_->removeFile(iri); });
}

void RememberingProvider::removeEmptyFolder(AbsoluteIRI const& iri) {
    removing(iri, [&] { inner_->removeEmptyFolder(iri); });
}

void RememberingProvider::removeTree(AbsoluteIRI const& iri) {
    removing(iri, [&] { inner_->removeTree(iri); });
}

void RememberingProvider::rename(AbsoluteIRI const& from, AbsoluteIRI const& to) {
    Known const source = ask(from, [](ItemInfo const&) { return true; });
    if (!isFile(source.info)) {
        changing(from, &to, [&] { inner_->rename(from, to); });
        forget(from, true);
        forget(to, true);
        learn(from, ItemInfo{});
        learn(to, ItemInfo{FolderItem, {}, {}, {}, {}});
        return;
    }
    Known const target = ask(to, [](ItemInfo const& i) { return !isFile(i) || i.writable; });
    ItemInfo const moved = changing(from, &to, [&] { return inner_->renameKnown(from, to, source.info, target.info); });
    forget(from);
    forget(to);
    learn(from, ItemInfo{});
    learn(to, moved);
}

void RememberingProvider::renameIfVersion(AbsoluteIRI const& from, AbsoluteIRI const& to,
                                          std::string const& expected) {
    changing(from, &to, [&] { inner_->renameIfVersion(from, to, expected); });
    forget(to);
    learn(from, ItemInfo{});
    learn(to, ItemInfo{FileItem, {}, {}, {}, {}});
}

// Through here a free `to` is known as such, so the copy needs no check of its own.
void RememberingProvider::copyFile(AbsoluteIRI const& from, AbsoluteIRI const& to) {
    Known const source = ask(from, [](ItemInfo const&) { return true; });
    Known const target = known(to);
    bool const free = isFile(source.info) && target.kindKnown && target.info.kind == NoItem;
    ItemInfo const copied = changing(to, nullptr, [&] {
        if (free) {
            return inner_->copyFileKnown(from, to, source.info);
        }
        inner_->copyFile(from, to);
        return ItemInfo{FileItem, {}, {}, {}, {}};
    });
    forget(to);
    learn(to, copied);
}

std::string RememberingProvider::getVersionTag(AbsoluteIRI const& iri) {
    Known const k = ask(iri, [](ItemInfo const& i) { return !isFile(i) || i.versionTag; });
    if (isFile(k.info) && k.info.versionTag) {
        return *k.info.versionTag;
    }
    std::string const tag = inner_->getVersionTag(iri); // NotFound, or a provider without tags
    std::lock_guard<std::mutex> lock(mutex_);
    entry(iri).info.versionTag = tag;
    return tag;
}

std::unique_ptr<std::streambuf> RememberingProvider::openInput(AbsoluteIRI const& iri) { return inner_->openInput(iri); }

std::unique_ptr<provider::OutputBuffer> RememberingProvider::openOutput(AbsoluteIRI const& iri,
                                                                        std::ios_base::openmode mode) {
    auto buffer = changing(iri, nullptr, [&] { return inner_->openOutput(iri, mode); });
    forget(iri);
    bool const whole = (mode & std::ios_base::trunc) || !(mode & (std::ios_base::in | std::ios_base::app));
    return std::make_unique<WrittenBuffer>(std::move(buffer), shared_from_this(), iri, whole);
}

provider::StorageProvider& underlying(provider::StorageProvider& provider) {
    auto* memo = dynamic_cast<RememberingProvider*>(&provider);
    return memo ? memo->inner() : provider;
}

} // namespace stratum::storage::vfs::detail
