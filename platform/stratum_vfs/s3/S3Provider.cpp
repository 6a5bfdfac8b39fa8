// The s3 scheme: packages in object storage. Files are objects, folders are key prefixes.
//
// A folder exists when any key lies below `prefix/` or a zero-byte marker `prefix/` exists
// (createFolder writes one). A file or folder may be made under any prefix that is not a file,
// without markers for the folders above it. Markers never mean "empty" and are never listed. A folder's time
// and writability live on its marker (written on demand); a folder without one reports an
// unknown time and is writable. The bucket's root is always a folder.
#include "s3/Errors.hpp"
#include "s3/Multipart.hpp"
#include "s3/Object.hpp"
#include "s3/S3Streams.hpp"
#include "s3/Signer.hpp"
#include "s3/Xml.hpp"

#include "Providers.hpp"
#include "Utf.hpp"

#include <stratum/storage/vfs/Exception.hpp>

#include <algorithm>
#include <map>
#include <mutex>
#include <optional>

namespace stratum::storage::vfs::detail {

namespace {

using namespace s3;
using provider::FolderEntry;
using provider::ItemInfo;
using provider::ItemKind;

constexpr std::size_t deleteBatch = 1000;

class S3Provider final : public provider::StorageProvider,
                         public TreeListing,
                         public ImplicitFolders,
                         public WholeCopies,
                         public RemoteQueries {
public:
    explicit S3Provider(std::optional<S3Settings> settings) : settings_(std::move(settings)) {}

    ItemKind getKind(AbsoluteIRI const& iri) override { return getItemInfo(iri).kind; }

    // A file answers everything in one HEAD; a folder or nothing takes a listing as well.
    ItemInfo getItemInfo(AbsoluteIRI const& iri) override {
        ObjectRef const object = ref(iri);
        if (!iri.hasParent()) {
            HttpResponse const response = object.http->send(requestFor(object, "HEAD"));
            if (response.status == 404 && response.transport == Transport::None) {
                return ItemInfo{};
            }
            check(response, object, "HEAD bucket");
            return ItemInfo{provider::FolderItem, {}, {}, {}, {}};
        }
        if (fileKey(iri)) {
            if (Head const head = headObject(object); head.found) {
                return ItemInfo{provider::FileItem, head.size, head.modified, !head.readOnly, head.etag};
            }
        }
        return ItemInfo{anyBelow(object) ? provider::FolderItem : provider::NoItem, {}, {}, {}, {}};
    }

    // One listing of the keys that start with the name, folded at "/": the name itself (a file)
    // or "name/" (a folder) is among them, or nothing is. Only when other names that start the
    // same way ("name.bak") fill the page does it take getKind's questions as well.
    bool isFree(AbsoluteIRI const& iri) override {
        if (!fileKey(iri)) {
            return getKind(iri) == provider::NoItem;
        }
        ObjectRef const object = ref(iri);
        ListPage const page = listPage(object, {{"prefix", object.key}, {"delimiter", "/"}, {"max-keys", "8"}});
        auto const holds = [](std::vector<std::string> const& names, std::string const& name) {
            return std::find(names.begin(), names.end(), name) != names.end();
        };
        if (holds(page.keys, object.key) || holds(page.prefixes, object.key + "/")) {
            return false;
        }
        return page.nextToken.empty() || getKind(iri) == provider::NoItem;
    }

    provider::FileAttributes getAttributes(AbsoluteIRI const& iri) override {
        Head const head = fileHead(iri);
        return provider::FileAttributes(head.size, head.modified, !head.readOnly);
    }

    std::vector<FolderEntry> listFolder(AbsoluteIRI const& iri) override {
        requireFolder(iri);
        ObjectRef const object = ref(iri);
        std::string const prefix = prefixOf(iri);
        std::map<std::u16string, bool> children; // name: folder
        forEachPage(object, prefix, true, [&](ListPage const& page) {
            for (auto const& key : page.keys) {
                if (key.size() > prefix.size()) { // not the marker
                    children[name(key.substr(prefix.size()), iri)] = false;
                }
            }
            for (auto const& below : page.prefixes) {
                std::string const child = below.substr(prefix.size(), below.size() - prefix.size() - 1);
                if (!child.empty()) {                         // "a//b": an empty name is reachable by IRI, never listed
                    children.emplace(name(child, iri), true); // a file of the same name wins
                }
            }
        });
        std::vector<FolderEntry> entries;
        for (auto const& [childName, folder] : children) {
            entries.push_back(FolderEntry{childName, folder});
        }
        return entries;
    }

    // One flat listing of every key below the folder (no delimiter), shaped into the tree a
    // walk with listFolder would give: markers only make folders, a file hides a folder of its
    // name, and nothing below an empty name ("a//b") is listed.
    std::vector<TreeEntry> listTree(AbsoluteIRI const& iri) override {
        requireFolder(iri);
        struct Node {
            bool file = false;
            std::map<std::u16string, Node> children;
        };
        Node root;
        std::string const prefix = prefixOf(iri);
        forEachPage(ref(iri), prefix, false, [&](ListPage const& page) {
            for (auto const& key : page.keys) {
                Node* node = &root;
                for (std::size_t start = prefix.size(); start < key.size();) {
                    std::size_t const end = std::min(key.find('/', start), key.size());
                    if (end == start) {
                        break;
                    }
                    node = &node->children[name(key.substr(start, end - start), iri)];
                    node->file = node->file || end == key.size();
                    start = end + 1;
                }
            }
        });
        std::vector<TreeEntry> entries;
        std::vector<std::u16string> path;
        auto visit = [&](Node const& folder, auto const& self) -> void {
            for (auto const& [childName, child] : folder.children) {
                path.push_back(childName);
                entries.push_back(TreeEntry{path, !child.file});
                if (!child.file) {
                    self(child, self);
                }
                path.pop_back();
            }
        };
        visit(root, visit);
        return entries;
    }

    void createFolder(AbsoluteIRI const& iri) override {
        if (getKind(iri) != provider::NoItem) {
            throw Exception(ErrorCode::FileExists, iri);
        }
        requireParentFolder(*this, iri);
        writeMarker(iri, {}, false, true);
    }

    bool isWritable(AbsoluteIRI const& iri) override {
        if (std::optional<Head> const file = fileAt(iri)) {
            return !file->readOnly;
        }
        return !folderMarker(iri).readOnly;
    }

    void setWritable(AbsoluteIRI const& iri, bool writable) override {
        if (std::optional<Head> const file = fileAt(iri)) {
            rewriteMetadata(ref(iri), *file, metadataHeaders(file->modified, !writable));
            return;
        }
        writeMarker(iri, folderMarker(iri).modified, !writable);
    }

    boost::posix_time::ptime getLastModified(AbsoluteIRI const& iri) override {
        if (std::optional<Head> const file = fileAt(iri)) {
            return file->modified;
        }
        Head const marker = folderMarker(iri);
        return marker.found ? marker.modified : boost::posix_time::ptime(boost::date_time::not_a_date_time);
    }

    void setLastModified(AbsoluteIRI const& iri, boost::posix_time::ptime time) override {
        if (std::optional<Head> const file = fileAt(iri)) {
            rewriteMetadata(ref(iri), *file, metadataHeaders(time, file->readOnly));
            return;
        }
        writeMarker(iri, time, folderMarker(iri).readOnly);
    }

    void removeFile(AbsoluteIRI const& iri) override {
        fileHead(iri);
        ObjectRef const object = ref(iri);
        check(object.http->send(requestFor(object, "DELETE")), object, "DELETE");
    }

    void removeEmptyFolder(AbsoluteIRI const& iri) override {
        requireFolder(iri);
        if (!iri.hasParent()) {
            throw Exception(ErrorCode::NotSupported, iri, "the bucket's root cannot be removed");
        }
        ObjectRef const marker = markerOf(iri);
        bool empty = true;
        forEachPage(ref(iri), marker.key, true, [&](ListPage const& page) {
            empty = empty && page.prefixes.empty() &&
                    std::all_of(page.keys.begin(), page.keys.end(), [&](auto const& key) { return key == marker.key; });
        });
        if (!empty) {
            throw Exception(ErrorCode::DirectoryNotEmpty, iri);
        }
        check(marker.http->send(requestFor(marker, "DELETE")), marker, "DELETE");
    }

    void removeTree(AbsoluteIRI const& iri) override {
        requireFolder(iri);
        std::vector<std::string> keys;
        forEachPage(ref(iri), prefixOf(iri), false, [&](ListPage const& page) {
            keys.insert(keys.end(), page.keys.begin(), page.keys.end());
        });
        deleteKeys(iri, keys);
    }

    // Object stores have no rename: every object is copied first (a copy is durable when it is
    // acknowledged), then the sources are deleted. A failed copy leaves the source whole.
    void rename(AbsoluteIRI const& from, AbsoluteIRI const& to) override {
        ObjectRef const source = ref(from);
        if (std::optional<Head> const file = fileAt(from)) {
            Head const replaced = headObject(ref(to));
            moveObject(from, *file, to, replaced.found && replaced.readOnly);
            return;
        }
        std::string const fromPrefix = prefixOf(from), toPrefix = prefixOf(to);
        std::vector<std::string> keys;
        forEachPage(source, fromPrefix, false, [&](ListPage const& page) {
            keys.insert(keys.end(), page.keys.begin(), page.keys.end());
        });
        for (auto const& key : keys) {
            ObjectRef const item{source.http, source.bucket, key, from};
            Head const head = headObject(item);
            copyObject(item, head, ObjectRef{source.http, source.bucket, toPrefix + key.substr(fromPrefix.size()), to},
                       metadataHeaders(head.modified, head.readOnly));
        }
        deleteKeys(from, keys);
    }

    ItemInfo renameKnown(AbsoluteIRI const& from, AbsoluteIRI const& to, ItemInfo const& fromInfo,
                         ItemInfo const& toInfo) override {
        Head const head = knownHead(from, fromInfo);
        bool const replacedReadOnly = toInfo.kind == provider::FileItem &&
                                      (toInfo.writable ? !*toInfo.writable : headObject(ref(to)).readOnly);
        return moveObject(from, head, to, replacedReadOnly);
    }

    std::string getVersionTag(AbsoluteIRI const& iri) override { return fileHead(iri).etag; }

    // The condition rides on the write that puts the content at `to` (If-Match with the ETag
    // expected, If-None-Match: * for "nothing there"), so that no writer can come between the
    // check and the write. CopyObject ignores these headers (radosgw 16), so the content goes
    // in a PUT when it fits one part, else in parts copied on the server and a completion
    // carrying the condition. A store that ignores the condition on that kind of write is
    // found out first, and the move refused (NotSupported): radosgw 16 honours it on a PUT
    // only.
    void renameIfVersion(AbsoluteIRI const& from, AbsoluteIRI const& to, std::string const& expected) override {
        if (!fileKey(to)) {
            throw Exception(ErrorCode::NotSupported, to, "a key ending in \"/\" is a folder marker");
        }
        ObjectRef const source = ref(from), target = ref(to);
        Head const head = fileHead(from);
        Head const replaced = headObject(target);
        if (expected.empty() ? replaced.found : !replaced.found || replaced.etag != expected) {
            throw Exception(ErrorCode::VersionMismatch, to, "another writer changed it");
        }
        Pairs const condition{expected.empty() ? Pairs::value_type("if-none-match", "*")
                                               : Pairs::value_type("if-match", expected)};
        bool const onePut = head.size <= source.http->settings().partSize;
        requireConditionalWrites(source, condition.front().first, onePut);
        Pairs const metadata = metadataHeaders(head.modified, head.readOnly || replaced.readOnly);
        if (onePut) {
            putOnCondition(source, head, target, metadata, condition);
        } else {
            Multipart upload(target, metadata);
            upload.copyAll(source.key, head.size);
            upload.complete(condition);
        }
        if (HttpResponse const response = source.http->send(requestFor(source, "DELETE")); !response.ok()) {
            throw Exception(ErrorCode::StateNotRecoverable, from,
                            "the new content is in place at " + toUtf8Lenient(to.toString()) +
                                "; only the removal of this source failed: " + failure(response, from, "DELETE").getMessage());
        }
    }

    std::unique_ptr<std::streambuf> openInput(AbsoluteIRI const& iri) override {
        if (!fileKey(iri)) {
            return nullptr;
        }
        ObjectRef object = ref(iri);
        Head const head = headObject(object);
        if (!head.found) {
            // "a/" holding bytes, as tools that take keys as they are may write it, is the marker
            // of folder "a" here: refused, saying what it holds, rather than read as a folder.
            if (Head const marker = headObject(markerOf(iri)); marker.size > 0) {
                throw Exception(ErrorCode::NotSupported, iri,
                                "the object \"" + markerOf(iri).key + "\" holds " + std::to_string(marker.size) +
                                    " bytes, but a key ending in \"/\" is the marker of a folder");
            }
            return nullptr;
        }
        return makeInputBuffer(std::move(object), head.size, head.etag);
    }

    std::unique_ptr<provider::OutputBuffer> openOutput(AbsoluteIRI const& iri, std::ios_base::openmode mode) override {
        if (!fileKey(iri)) {
            throw Exception(ErrorCode::NotSupported, iri, "a key ending in \"/\" is a folder marker");
        }
        ObjectRef object = ref(iri);
        bool const append = (mode & std::ios_base::app) != 0;
        bool const overwrite = (mode & std::ios_base::in) && !(mode & std::ios_base::trunc) && !append;
        if (!append && !overwrite) { // a new content: the caller checked that no read-only file is there
            return makeOutputBuffer(std::move(object), {}, false, (mode & std::ios_base::ate) != 0);
        }
        Head const head = headObject(object);
        if (head.found && head.readOnly) {
            throw Exception(ErrorCode::PermissionDenied, iri, "the object is read-only");
        }
        if (overwrite && !head.found) {
            throw Exception(ErrorCode::NotFound, iri);
        }
        // Objects cannot change in place: app and in|out rewrite the whole object from a copy
        // of the old content.
        std::string initial;
        if ((append || overwrite) && head.found && head.size > 0) {
            HttpRequest request = requestFor(object, "GET", {}, {{"if-match", head.etag}});
            request.bodyBytes = std::size_t(head.size);
            HttpResponse response = object.http->send(request);
            check(response, object, "GET");
            checkContent(object, head.etag, response.body);
            initial = std::move(response.body);
        }
        return makeOutputBuffer(std::move(object), std::move(initial), overwrite, (mode & std::ios_base::ate) != 0);
    }

    // A server-side copy keeps the object's metadata: its time and writability.
    void copyFile(AbsoluteIRI const& from, AbsoluteIRI const& to) override {
        Head const head = fileHead(from);
        // Checked first: CopyObject ignores If-None-Match (measured on radosgw 16), so a file
        // made at `to` between this check and the copy is replaced.
        if (getKind(to) != provider::NoItem) {
            throw Exception(ErrorCode::FileExists, to);
        }
        copyObject(ref(from), head, ref(to), std::nullopt);
    }

    ItemInfo copyFileKnown(AbsoluteIRI const& from, AbsoluteIRI const& to, ItemInfo const& fromInfo) override {
        Head const head = knownHead(from, fromInfo);
        copyObject(ref(from), head, ref(to), std::nullopt);
        return copiedInfo(head);
    }

private:
    std::shared_ptr<HttpClient> http(AbsoluteIRI const& iri) {
        std::lock_guard<std::mutex> lock(mutex_);
        if (!http_) {
            S3Settings settings = settings_ ? *settings_ : S3Settings::fromEnvironment();
            // PermissionDenied rather than NoSuchDeviceOrAddress: the store may well be there,
            // but nothing can be done in it without knowing who asks.
            if (settings.accessKeyId.empty() || settings.secretAccessKey.empty()) {
                throw Exception(ErrorCode::PermissionDenied, iri,
                                std::string("no S3 credentials: ") +
                                    (settings.accessKeyId.empty() ? "no access key id" : "no secret access key") +
                                    " (set AWS_ACCESS_KEY_ID and AWS_SECRET_ACCESS_KEY, or a profile in "
                                    "~/.aws/credentials)");
            }
            http_ = std::make_shared<HttpClient>(std::move(settings));
        }
        return http_;
    }

    ObjectRef ref(AbsoluteIRI const& iri) {
        std::string bucket, key;
        toUtf8(iri.getAuthority(), bucket);
        if (!toUtf8(iri.getKey(), key)) {
            throw InvalidIRIException(iri.toString());
        }
        return ObjectRef{http(iri), bucket, key, iri};
    }

    // Only a key with a last segment names a file; "a/" is a folder's marker.
    static bool fileKey(AbsoluteIRI const& iri) { return iri.hasParent() && !iri.getName().empty(); }

    static std::string prefixOf(AbsoluteIRI const& iri) {
        std::string key;
        toUtf8(iri.getKey(), key);
        return iri.hasParent() ? key + "/" : "";
    }

    ObjectRef markerOf(AbsoluteIRI const& iri) {
        ObjectRef marker = ref(iri);
        marker.key = prefixOf(iri);
        return marker;
    }

    static std::u16string name(std::string const& utf8, AbsoluteIRI const& iri) {
        std::u16string text;
        if (!fromUtf8(utf8, text)) {
            throw Exception(ErrorCode::IOError, iri, "a key below the folder is not UTF-8");
        }
        return text;
    }

    // The HEAD of the file at `iri`, or nothing when no file is there.
    std::optional<Head> fileAt(AbsoluteIRI const& iri) {
        if (fileKey(iri)) {
            if (Head head = headObject(ref(iri)); head.found) {
                return head;
            }
        }
        return std::nullopt;
    }

    // The marker of the folder at `iri` (`found` false when it has none); NotFound when no
    // folder is there either.
    Head folderMarker(AbsoluteIRI const& iri) {
        Head marker = headObject(markerOf(iri));
        if (!marker.found && iri.hasParent() && !anyBelow(ref(iri))) {
            throw Exception(ErrorCode::NotFound, iri);
        }
        return marker;
    }

    // What a caller knows of the file `iri` as a HEAD would tell it: asked when the size or the
    // writability is missing; an unknown ETag or time stays unknown.
    Head knownHead(AbsoluteIRI const& iri, ItemInfo const& info) {
        if (info.kind != provider::FileItem || !info.size || !info.writable) {
            return fileHead(iri);
        }
        Head head;
        head.found = true;
        head.size = *info.size;
        head.etag = info.versionTag.value_or("");
        head.modified = info.lastModified.value_or(boost::posix_time::ptime(boost::date_time::not_a_date_time));
        // mtimeText stays "": the text sent is not known, only the time it reads as
        head.readOnly = !*info.writable;
        return head;
    }

    // What a copy of the object `head` describes holds: the same bytes and metadata. Its ETag is
    // the source's only for one part copied whole; left unknown.
    static ItemInfo copiedInfo(Head const& head) {
        std::optional<boost::posix_time::ptime> modified;
        if (!head.modified.is_special()) {
            modified = head.modified;
        }
        return ItemInfo{provider::FileItem, head.size, modified, !head.readOnly, std::nullopt};
    }

    // The file `from` (`head`) copied over `to`, then deleted. The incoming file is never more
    // writable than the one it replaces: a writable source over a read-only file gets new
    // metadata, any other keeps its own.
    ItemInfo moveObject(AbsoluteIRI const& from, Head const& head, AbsoluteIRI const& to, bool replacedReadOnly) {
        ObjectRef const source = ref(from);
        Head moved = head;
        std::optional<Pairs> metadata;
        if (replacedReadOnly && !head.readOnly) {
            moved = head.modified.is_special() ? fileHead(from) : head;
            moved.readOnly = true;
            metadata = metadataHeaders(moved.modified, true);
        }
        copyObject(source, head, ref(to), metadata);
        if (HttpResponse const response = source.http->send(requestFor(source, "DELETE")); !response.ok()) {
            throw Exception(ErrorCode::StateNotRecoverable, from,
                            "the new content is in place at " + toUtf8Lenient(to.toString()) +
                                "; only the removal of this source failed: " + failure(response, from, "DELETE").getMessage());
        }
        return copiedInfo(moved);
    }

    void requireFolder(AbsoluteIRI const& iri) {
        if (getKind(iri) != provider::FolderItem) {
            throw Exception(ErrorCode::NotFound, iri, "no folder there");
        }
    }

    Head fileHead(AbsoluteIRI const& iri) {
        Head head = fileKey(iri) ? headObject(ref(iri)) : Head();
        if (!head.found) {
            throw Exception(ErrorCode::NotFound, iri, "no file there");
        }
        return head;
    }

    // One page of ListObjectsV2 with `query` besides its list type.
    ListPage listPage(ObjectRef const& object, Pairs query) {
        query.emplace(query.begin(), "list-type", "2");
        HttpRequest request = requestFor(object, "GET", std::move(query));
        request.key.clear();
        request.xmlAnswer = true;
        HttpResponse const response = object.http->send(request);
        check(response, object, "ListObjectsV2");
        return parseListPage(response.body);
    }

    bool anyBelow(ObjectRef const& object) {
        ListPage const page = listPage(object, {{"prefix", object.key + "/"}, {"max-keys", "1"}});
        return !page.keys.empty() || !page.prefixes.empty();
    }

    // Every page of ListObjectsV2 below `prefix`, one level (with the delimiter "/") or all.
    template <class Visit>
    void forEachPage(ObjectRef const& object, std::string const& prefix, bool oneLevel, Visit&& visit) {
        std::string token;
        do {
            Pairs query{{"prefix", prefix}};
            if (oneLevel) {
                query.emplace_back("delimiter", "/");
            }
            if (!token.empty()) {
                query.emplace_back("continuation-token", token);
            }
            ListPage const page = listPage(object, std::move(query));
            visit(page);
            token = page.nextToken;
        } while (!token.empty());
    }

    // A create-only marker is sent with If-None-Match: *, so that of two folders made at once
    // one fails with FileExists (412) rather than both succeeding. It is not repeated after a
    // dropped connection: the lost answer may have been its own success.
    void writeMarker(AbsoluteIRI const& iri, boost::posix_time::ptime modified, bool readOnly, bool createOnly = false) {
        ObjectRef const marker = markerOf(iri);
        HttpRequest request = requestFor(marker, "PUT", {}, metadataHeaders(modified, readOnly));
        if (createOnly) {
            request.headers.emplace_back("if-none-match", "*");
            request.idempotent = false;
        }
        check(marker.http->send(request), marker, "PUT", createOnly);
    }

    // A write of `object` (which exists) on a condition that cannot hold, as a PUT (`onePut`) or
    // as the completion of a one-byte upload: a store that honours `header` there refuses it
    // (412); one that writes anyway has just spoilt `object`, which only a conditional move's own
    // source may be.
    void requireConditionalWrites(ObjectRef const& object, std::string const& header, bool onePut) {
        Pairs const impossible{{header, header == "if-match" ? "\"-\"" : "*"}};
        if (!onePut) {
            Multipart probe(object, {});
            probe.copy(object.key, 0, 0);
            try {
                probe.complete(impossible);
            } catch (Exception const& e) {
                if (e.getErrorCode() == ErrorCode::VersionMismatch) {
                    return;
                }
                throw;
            }
        } else {
            HttpRequest request = requestFor(object, "PUT", {}, impossible);
            request.idempotent = false;
            HttpResponse const response = object.http->send(request);
            if (response.status == 412) {
                return;
            }
            check(response, object, "PUT (conditional writes)");
        }
        throw Exception(ErrorCode::NotSupported, object.iri,
                        "the store ignores " + header + " on " + (onePut ? "PUT" : "CompleteMultipartUpload") +
                            ", so it cannot replace an object on a condition");
    }

    // The content of `source` (one part at most) written to `target` on `condition`.
    void putOnCondition(ObjectRef const& source, Head const& head, ObjectRef const& target, Pairs const& metadata,
                        Pairs const& condition) {
        HttpResponse content = source.http->send(requestFor(source, "GET", {}, {{"if-match", head.etag}}));
        check(content, source, "GET");
        checkContent(source, head.etag, content.body);
        Pairs headers = metadata;
        headers.insert(headers.end(), condition.begin(), condition.end());
        HttpRequest request = requestFor(target, "PUT", {}, headers);
        request.body = content.body;
        request.idempotent = false; // a repeat could be refused by its own success
        HttpResponse const response = target.http->send(request);
        if (response.status == 412 || response.status == 409) {
            throw Exception(ErrorCode::VersionMismatch, target.iri, "PUT: " + response.errorCode);
        }
        // A lost answer: the target then holds these bytes (their MD5 is the ETag of one PUT).
        if (response.transport != Transport::None && headObject(target).etag == "\"" + md5Hex(content.body) + "\"") {
            return;
        }
        check(response, target, "PUT");
    }

    // Metadata can only change by copying the object onto itself with new metadata, pinned to
    // the version read (a concurrent replacement fails it rather than being overwritten).
    void rewriteMetadata(ObjectRef const& object, Head const& head, Pairs const& metadata) {
        copyObject(object, head, object, metadata);
    }

    // Server-side copy, in parts above the copy threshold, with `metadata` or (none) the
    // source's own. Pinned to the source's ETag when it is known.
    void copyObject(ObjectRef const& from, Head const& head, ObjectRef const& to, std::optional<Pairs> const& metadata) {
        S3Settings const& settings = from.http->settings();
        if (head.size <= settings.copyPartThreshold) {
            Pairs headers = metadata.value_or(Pairs{});
            headers.emplace_back("x-amz-copy-source", "/" + from.bucket + "/" + uriEncode(from.key, true));
            if (!head.etag.empty()) {
                headers.emplace_back("x-amz-copy-source-if-match", head.etag);
            }
            headers.emplace_back("x-amz-metadata-directive", metadata ? "REPLACE" : "COPY");
            HttpRequest request = requestFor(to, "PUT", {}, headers);
            request.xmlAnswer = true;
            request.xmlRoot = "CopyObjectResult";
            HttpResponse const response = to.http->send(request);
            if (!response.ok() && !(response.transport != Transport::None && copied(from, head, to, metadata, response))) {
                check(response, to, "CopyObject");
            }
            return;
        }
        // Parts carry no metadata of the source: it is sent with the start of the upload.
        Head const whole = head.etag.empty() || head.modified.is_special() ? headObject(from) : head;
        Multipart upload(to, metadata.value_or(metadataHeaders(whole.modified, whole.readOnly)));
        upload.copyAll(from.key, head.size);
        upload.complete();
    }

    // Whether a copy whose answer was lost was done: the target then holds the source's bytes
    // (its ETag) with the metadata sent, or the source's own. Throws when that cannot be found out.
    bool copied(ObjectRef const& from, Head const& head, ObjectRef const& to, std::optional<Pairs> const& metadata,
                HttpResponse const& response) {
        Head source = head, target;
        try {
            if (head.etag.empty() || (!metadata && head.mtimeText.empty())) {
                source = headObject(from);
            }
            target = headObject(to);
        } catch (Exception const&) {
            throw failure(response, to.iri, "CopyObject (whether it was done is unknown)");
        }
        std::string mtime = source.mtimeText;
        bool readOnly = source.readOnly;
        if (metadata) {
            mtime.clear();
            readOnly = false;
            for (auto const& [name, value] : *metadata) {
                mtime = name == "x-amz-meta-mtime" ? value : mtime;
                readOnly = readOnly || name == "x-amz-meta-readonly";
            }
        }
        return target.found && source.found && target.etag == source.etag && target.mtimeText == mtime &&
               target.readOnly == readOnly;
    }

    // DeleteObjects in batches of up to 1,000 keys, each key's result checked.
    void deleteKeys(AbsoluteIRI const& iri, std::vector<std::string> const& keys) {
        ObjectRef const bucket = ref(iri);
        for (std::size_t start = 0; start < keys.size(); start += deleteBatch) {
            std::vector<std::string> const batch(keys.begin() + std::ptrdiff_t(start),
                                                 keys.begin() + std::ptrdiff_t(std::min(keys.size(), start + deleteBatch)));
            std::string const body = deleteBody(batch);
            HttpRequest request = requestFor(bucket, "POST", {{"delete", ""}}, {{"content-md5", md5Base64(body)}});
            request.key.clear();
            request.body = body;
            request.xmlAnswer = true;
            HttpResponse const response = bucket.http->send(request);
            check(response, bucket, "DeleteObjects");
            auto const errors = parseDeleteErrors(response.body);
            if (!errors.empty()) {
                throw Exception(ErrorCode::IOError, iri,
                                "DeleteObjects: " + std::to_string(errors.size()) + " keys not deleted, first " +
                                    errors.front().first + ": " + errors.front().second);
            }
        }
    }

    std::optional<S3Settings> settings_;
    std::mutex mutex_;
    std::shared_ptr<HttpClient> http_;
};

} // namespace

std::shared_ptr<provider::StorageProvider> makeS3Provider(std::optional<S3Settings> settings) {
    return std::make_shared<S3Provider>(std::move(settings));
}

} // namespace stratum::storage::vfs::detail
