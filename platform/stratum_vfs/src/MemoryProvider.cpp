// The `memory` scheme: a tree of folders and files held by one storage system.
//
// One mutex guards the whole tree; every provider call and every write takes it once, so each
// is atomic. A reader keeps the content snapshot it opened: a write changes the content in
// place only while no reader or copy was given it, and otherwise publishes a changed copy. Read-only
// folders refuse new and removed children.
#include <stratum/storage/vfs/Exception.hpp>

#include "Providers.hpp"

#include <boost/date_time/posix_time/posix_time.hpp>

#include <map>
#include <mutex>
#include <string>

namespace stratum::storage::vfs::detail {

namespace {

using boost::posix_time::ptime;
using provider::FileAttributes;
using provider::FolderEntry;
using provider::ItemKind;

struct Node {
    explicit Node(bool isFolder) : folder(isFolder) {}
    bool folder;
    bool readOnly = false;
    bool removed = false; // no longer in the tree: writers still holding it are refused
    ptime modified;
    // Changes with every write or truncation of a file, from one counter of the tree, so no
    // two contents ever share a generation (a renamed file keeps its own).
    std::uint64_t generation = 0;
    std::shared_ptr<std::string> content = std::make_shared<std::string>();
    // Set under the lock when a reader or a copy is given `content`; the next write copies it
    // first. A flag and not use_count(): a reader's release would not order its reads before
    // the writer's changes.
    bool contentShared = false;
    std::map<std::u16string, std::shared_ptr<Node>> children;
};

struct Tree {
    std::mutex mutex;
    std::shared_ptr<Node> root;
    std::uint64_t generations = 0;

    // A new generation for `node`, whose content just changed. Caller holds the lock.
    void changed(Node& node) { node.generation = ++generations; }
};

// Moves a node's time to now, strictly after its previous time, so every change shows.
void touch(Node& node) {
    ptime now = boost::posix_time::microsec_clock::universal_time();
    if (!node.modified.is_special() && now <= node.modified) {
        now = node.modified + boost::posix_time::microseconds(1);
    }
    node.modified = now;
}

// Marks a node taken out of the tree, with everything below it.
void markRemoved(Node& node) {
    node.removed = true;
    for (auto& [name, child] : node.children) {
        markRemoved(*child);
    }
}

// Reads a published content snapshot; seekable within it.
class SnapshotBuffer : public std::streambuf {
public:
    explicit SnapshotBuffer(std::shared_ptr<std::string const> content) : content_(std::move(content)) {
        char* begin = const_cast<char*>(content_->data());
        setg(begin, begin, begin + content_->size());
    }

protected:
    pos_type seekoff(off_type offset, std::ios_base::seekdir dir, std::ios_base::openmode which) override {
        if (!(which & std::ios_base::in)) {
            return pos_type(off_type(-1));
        }
        off_type base = dir == std::ios_base::beg ? 0 : dir == std::ios_base::cur ? gptr() - eback()
                                                                                  : egptr() - eback();
        off_type target = base + offset;
        if (target < 0 || target > egptr() - eback()) {
            return pos_type(off_type(-1));
        }
        setg(eback(), eback() + target, egptr());
        return pos_type(target);
    }
    pos_type seekpos(pos_type pos, std::ios_base::openmode which) override {
        return seekoff(off_type(pos), std::ios_base::beg, which);
    }

private:
    std::shared_ptr<std::string const> content_;
};

// Writes through to the node's content at every write, under the tree's lock. Refuses a
// write to a file that was removed (it could never be read) or made read-only meanwhile.
class NodeWriter : public provider::OutputBuffer {
public:
    NodeWriter(std::shared_ptr<Tree> tree, std::shared_ptr<Node> node, AbsoluteIRI iri, std::ios_base::openmode mode)
        : tree_(std::move(tree)), node_(std::move(node)), iri_(std::move(iri)),
          append_((mode & std::ios_base::app) != 0) {
        if (append_ || (mode & std::ios_base::ate)) {
            position_ = node_->content->size();
        }
    }

    void close() override {}

protected:
    std::streamsize xsputn(char const* data, std::streamsize size) override {
        std::lock_guard<std::mutex> lock(tree_->mutex);
        if (node_->removed) {
            throw Exception(ErrorCode::NotFound, iri_, "the file was removed while open for writing");
        }
        if (node_->readOnly) {
            throw Exception(ErrorCode::PermissionDenied, iri_, "the file was made read-only while open for writing");
        }
        if (node_->contentShared) {
            node_->content = std::make_shared<std::string>(*node_->content);
            node_->contentShared = false;
        }
        std::string& content = *node_->content;
        if (append_) {
            position_ = content.size();
        }
        std::size_t const count = static_cast<std::size_t>(size);
        if (content.size() < position_ + count) {
            content.resize(position_ + count);
        }
        content.replace(position_, count, data, count);
        position_ += count;
        touch(*node_);
        tree_->changed(*node_);
        return size;
    }
    // Within the content only. Appending writes always go to the end: only telling is allowed.
    pos_type seekoff(off_type offset, std::ios_base::seekdir dir, std::ios_base::openmode which) override {
        if (!(which & std::ios_base::out) || (append_ && !(offset == 0 && dir == std::ios_base::cur))) {
            return pos_type(off_type(-1));
        }
        std::lock_guard<std::mutex> lock(tree_->mutex);
        off_type const size = static_cast<off_type>(node_->content->size());
        off_type const base = dir == std::ios_base::beg ? 0 : dir == std::ios_base::cur ? static_cast<off_type>(position_)
                                                                                        : size;
        off_type const target = base + offset;
        if (target < 0 || target > size) {
            return pos_type(off_type(-1));
        }
        position_ = static_cast<std::size_t>(target);
        return pos_type(target);
    }
    pos_type seekpos(pos_type pos, std::ios_base::openmode which) override {
        return seekoff(off_type(pos), std::ios_base::beg, which);
    }

private:
    std::shared_ptr<Tree> tree_;
    std::shared_ptr<Node> node_;
    AbsoluteIRI iri_;
    bool append_;
    std::size_t position_ = 0;
};

class MemoryProvider final : public provider::StorageProvider {
public:
    MemoryProvider() : tree_(std::make_shared<Tree>()) {
        tree_->root = std::make_shared<Node>(true);
        touch(*tree_->root);
    }

    ItemKind getKind(AbsoluteIRI const& iri) override {
        Lock lock(tree_->mutex);
        Node* node = find(iri.getSegments(), iri.getSegments().size());
        return node == nullptr ? provider::NoItem : node->folder ? provider::FolderItem
                                                                 : provider::FileItem;
    }

    FileAttributes getAttributes(AbsoluteIRI const& iri) override {
        Lock lock(tree_->mutex);
        Node& node = existingFile(iri);
        return FileAttributes(node.content->size(), node.modified, !node.readOnly);
    }

    std::vector<FolderEntry> listFolder(AbsoluteIRI const& iri) override {
        Lock lock(tree_->mutex);
        Node& folder = existingFolder(iri);
        std::vector<FolderEntry> entries;
        entries.reserve(folder.children.size());
        for (auto const& [name, child] : folder.children) {
            entries.push_back(FolderEntry{name, child->folder});
        }
        return entries;
    }

    void createFolder(AbsoluteIRI const& iri) override {
        Lock lock(tree_->mutex);
        if (!iri.hasParent()) {
            throw Exception(ErrorCode::FileExists, iri);
        }
        Node& parent = changeableParent(iri);
        auto [place, added] = parent.children.emplace(iri.getName(), nullptr);
        if (!added) {
            throw Exception(ErrorCode::FileExists, iri);
        }
        place->second = std::make_shared<Node>(true);
        touch(*place->second);
        touch(parent);
    }

    bool isWritable(AbsoluteIRI const& iri) override {
        Lock lock(tree_->mutex);
        return !existing(iri).readOnly;
    }

    void setWritable(AbsoluteIRI const& iri, bool writable) override {
        Lock lock(tree_->mutex);
        existing(iri).readOnly = !writable;
    }

    ptime getLastModified(AbsoluteIRI const& iri) override {
        Lock lock(tree_->mutex);
        return existing(iri).modified;
    }

    void setLastModified(AbsoluteIRI const& iri, ptime time) override {
        Lock lock(tree_->mutex);
        existing(iri).modified = time;
    }

    void removeFile(AbsoluteIRI const& iri) override {
        Lock lock(tree_->mutex);
        existingFile(iri);
        markRemoved(*detach(iri));
    }

    void removeEmptyFolder(AbsoluteIRI const& iri) override {
        Lock lock(tree_->mutex);
        if (!existingFolder(iri).children.empty()) {
            throw Exception(ErrorCode::DirectoryNotEmpty, iri);
        }
        markRemoved(*detach(iri));
    }

    void removeTree(AbsoluteIRI const& iri) override {
        Lock lock(tree_->mutex);
        existingFolder(iri);
        markRemoved(*detach(iri));
    }

    void rename(AbsoluteIRI const& from, AbsoluteIRI const& to) override {
        Lock lock(tree_->mutex);
        renameLocked(from, to);
    }

    std::string getVersionTag(AbsoluteIRI const& iri) override {
        Lock lock(tree_->mutex);
        return tagOf(existingFile(iri));
    }

    // Checked and moved under the one lock: no writer can come between.
    void renameIfVersion(AbsoluteIRI const& from, AbsoluteIRI const& to, std::string const& expected) override {
        Lock lock(tree_->mutex);
        Node* there = find(to.getSegments(), to.getSegments().size());
        if (expected.empty() ? there != nullptr : there == nullptr || there->folder || tagOf(*there) != expected) {
            throw Exception(ErrorCode::VersionMismatch, to, "another writer changed it");
        }
        renameLocked(from, to);
    }

    std::unique_ptr<std::streambuf> openInput(AbsoluteIRI const& iri) override {
        Lock lock(tree_->mutex);
        Node* node = find(iri.getSegments(), iri.getSegments().size());
        if (node == nullptr || node->folder) {
            return nullptr;
        }
        node->contentShared = true;
        return std::make_unique<SnapshotBuffer>(node->content);
    }

    std::unique_ptr<provider::OutputBuffer> openOutput(AbsoluteIRI const& iri, std::ios_base::openmode mode) override {
        bool const keep = (mode & std::ios_base::in) && !(mode & std::ios_base::trunc) && !(mode & std::ios_base::app);
        bool const truncate = !keep && !(mode & std::ios_base::app);
        Lock lock(tree_->mutex);
        if (!iri.hasParent()) {
            throw Exception(ErrorCode::IOError, iri, "the root is a folder");
        }
        Node& parent = existingFolder(iri.getParent());
        auto place = parent.children.find(iri.getName());
        std::shared_ptr<Node> node;
        if (place == parent.children.end()) {
            if (keep) {
                throw Exception(ErrorCode::NotFound, iri);
            }
            if (parent.readOnly) {
                throw Exception(ErrorCode::PermissionDenied, iri.getParent());
            }
            node = std::make_shared<Node>(false);
            parent.children.emplace(iri.getName(), node);
            touch(*node);
            tree_->changed(*node);
            touch(parent);
        } else {
            node = place->second;
            if (node->folder) {
                throw Exception(ErrorCode::IOError, iri, "a folder cannot be written");
            }
            if (node->readOnly) {
                throw Exception(ErrorCode::PermissionDenied, iri);
            }
            if (truncate && !node->content->empty()) {
                node->content = std::make_shared<std::string>();
                node->contentShared = false;
                touch(*node);
                tree_->changed(*node);
            }
        }
        return std::make_unique<NodeWriter>(tree_, node, iri, mode);
    }

    void copyFile(AbsoluteIRI const& from, AbsoluteIRI const& to) override {
        Lock lock(tree_->mutex);
        Node& source = existingFile(from);
        Node& parent = changeableParent(to);
        auto [place, added] = parent.children.emplace(to.getName(), nullptr);
        if (!added) {
            throw Exception(ErrorCode::FileExists, to);
        }
        place->second = std::make_shared<Node>(false);
        place->second->content = source.content; // shared until either side writes: copy on write
        place->second->contentShared = source.contentShared = true;
        touch(*place->second);
        tree_->changed(*place->second);
        touch(parent);
    }

private:
    using Lock = std::lock_guard<std::mutex>;

    static std::string tagOf(Node const& node) { return "g" + std::to_string(node.generation); }

    void renameLocked(AbsoluteIRI const& from, AbsoluteIRI const& to) {
        Node& target = changeableParent(to);
        auto place = target.children.find(to.getName());
        if (place != target.children.end() && place->second->folder) {
            throw Exception(ErrorCode::FileExists, to, "a folder cannot be replaced by a file");
        }
        std::shared_ptr<Node> node = detach(from);
        std::shared_ptr<Node>& slot = target.children[to.getName()];
        if (slot) {
            markRemoved(*slot);
        }
        slot = std::move(node);
        touch(target);
    }

    // The node at the first `depth` segments, or null. Caller holds the lock.
    Node* find(std::vector<std::u16string> const& segments, std::size_t depth) const {
        Node* node = tree_->root.get();
        for (std::size_t i = 0; i < depth; ++i) {
            if (!node->folder) {
                return nullptr;
            }
            auto child = node->children.find(segments[i]);
            if (child == node->children.end()) {
                return nullptr;
            }
            node = child->second.get();
        }
        return node;
    }

    Node& existing(AbsoluteIRI const& iri) const {
        Node* node = find(iri.getSegments(), iri.getSegments().size());
        if (node == nullptr) {
            throw Exception(ErrorCode::NotFound, iri);
        }
        return *node;
    }

    Node& existingFile(AbsoluteIRI const& iri) const {
        Node& node = existing(iri);
        if (node.folder) {
            throw Exception(ErrorCode::NotFound, iri, "a folder is not a file");
        }
        return node;
    }

    Node& existingFolder(AbsoluteIRI const& iri) const {
        Node& node = existing(iri);
        if (!node.folder) {
            throw Exception(ErrorCode::NotFound, iri, "a file is not a folder");
        }
        return node;
    }

    // The parent folder of `iri`, which must accept new and removed children.
    Node& changeableParent(AbsoluteIRI const& iri) const {
        AbsoluteIRI parentIri = iri.getParent();
        Node& parent = existingFolder(parentIri);
        if (parent.readOnly) {
            throw Exception(ErrorCode::PermissionDenied, parentIri);
        }
        return parent;
    }

    // Unlinks the existing item at `iri` from its parent and returns it.
    std::shared_ptr<Node> detach(AbsoluteIRI const& iri) const {
        if (!iri.hasParent()) {
            throw Exception(ErrorCode::NotSupported, iri, "the root cannot be removed or moved");
        }
        Node& parent = changeableParent(iri);
        auto place = parent.children.find(iri.getName());
        if (place == parent.children.end()) {
            throw Exception(ErrorCode::NotFound, iri);
        }
        std::shared_ptr<Node> node = std::move(place->second);
        parent.children.erase(place);
        touch(parent);
        return node;
    }

    std::shared_ptr<Tree> tree_;
};

} // namespace

std::shared_ptr<provider::StorageProvider> makeMemoryProvider() { return std::make_shared<MemoryProvider>(); }

} // namespace stratum::storage::vfs::detail
