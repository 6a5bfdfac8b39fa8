#pragma once

#include <opc/Export.hpp>
#include <opc/FileSystemOps.hpp>

#include <stratum/storage/vfs/StorageSystem.hpp>

namespace opc {

/// The back end over the storage virtual file system: every path it takes and returns is the
/// text of an absolute IRI ("memory:///reports/q3.pkg", "file:///home/a/b.pkg").
///
/// Every operation resolves its IRIs through a copy of the storage-system reference given at
/// construction. Failures are reported through the detail text and error code only: a storage
/// exception becomes a generic-category code by one translation (see `translateStorageException`
/// in the implementation), an invalid IRI `bad_address`, an unknown scheme
/// `address_family_not_supported`, anything else `io_error`. A storage error code the library
/// does not know leaves the caller's code as it was, so such a failure can pass as success.
///
/// Exceptions to "never throws": `getFilename`, `getExtension` and `getLocalPath` let the storage
/// library's exceptions for an invalid IRI pass out unchanged.
///
/// Links do not exist in storage: `isSymlink` answers false, `getLinkTarget` and `createSymlink`
/// fail with `operation_not_supported`. Permissions are 0644 (writable) or 0444 (read-only).
///
/// No locks and no state but the reference: an object may be used from several threads as far
/// as the storage system allows concurrent calls.
class OPC_API VirtualFileSystemOps : public FileSystemOps {
public:
    /// The storage system the IRIs are resolved in.
    using StorageSystemReference = stratum::storage::vfs::StorageSystemReference;

    /// Keeps a copy of the reference for the object's whole life.
    explicit VirtualFileSystemOps(StorageSystemReference storage);
    ~VirtualFileSystemOps() override;

    /// A copy of the storage-system reference this back end works on.
    StorageSystemReference getStorageSystem() const;

protected:
    /// A name that does not exist yet in `folder` (an IRI), keeping the folder's scheme; an empty
    /// folder means the local temporary folder as a "file" IRI. Retries until a free name is found.
    std::u16string doGetTempName(const std::u16string& folder, std::string& detail, error_code& ec) override;
    /// The parent IRI; the empty string (no error) for the root.
    std::u16string doGetParentPath(const std::u16string& path, std::string& detail, error_code& ec) override;
    /// The decoded last segment. An invalid IRI throws the storage library's exception.
    std::u16string doGetFilename(const std::u16string& path, std::string& detail, error_code& ec) override;
    /// The last segment's text after its last "." (without the dot); empty without a dot.
    /// An invalid IRI throws the storage library's exception.
    std::u16string doGetExtension(const std::u16string& path, std::string& detail, error_code& ec) override;
    /// `child` resolved below `path` as child segments; one leading "/" of `child` is dropped.
    std::u16string doAppendPath(const std::u16string& path, const std::u16string& child, std::string& detail,
                                error_code& ec) override;
    /// The canonical IRI text; a plain local path becomes a "file" IRI.
    std::u16string doNormalizePath(const std::u16string& path, std::string& detail, error_code& ec) override;
    /// True, with the local path, only for the scheme spelled exactly "file" (not "FILE").
    /// An invalid IRI throws the storage library's exception.
    bool doGetLocalPath(const std::u16string& path, std::u16string& localPath) override;
    /// True when the text parses as an absolute IRI of a known scheme; never throws.
    bool doIsAbsolutePath(const std::u16string& path) override;

    bool doExists(const std::u16string& path, std::string& detail, error_code& ec) override;
    bool doIsFile(const std::u16string& path, std::string& detail, error_code& ec) override;
    bool doIsFolder(const std::u16string& path, std::string& detail, error_code& ec) override;
    /// Always false: storage has no links.
    bool doIsSymlink(const std::u16string& path, std::string& detail, error_code& ec) override;
    /// 0644 for a writable item, 0444 for a read-only one.
    Perms::Perms_tag doGetPermissions(const std::u16string& path, std::string& detail, error_code& ec) override;
    /// Writable when any write bit (0222) is set; every other bit is ignored.
    void doSetPermissions(const std::u16string& path, Perms::Perms_tag perms, std::string& detail,
                          error_code& ec) override;
    ptime doGetLastModifiedTime(const std::u16string& path, std::string& detail, error_code& ec) override;
    void doSetLastModifiedTime(const std::u16string& path, ptime time, std::string& detail,
                               error_code& ec) override;
    std::uint64_t doGetSizeInBytes(const std::u16string& path, std::string& detail, error_code& ec) override;
    /// The storage's version tag of a file (`stratum::storage::vfs::getVersionTag`): a
    /// generation on `memory:`, the host's tag on `file:`, the ETag on `s3:`; ENOENT when no
    /// file is there.
    std::string doGetVersionTag(const std::u16string& path, std::string& detail, error_code& ec) override;
    /// Always fails: "Symlinks are not supported", `operation_not_supported`.
    std::u16string doGetLinkTarget(const std::u16string& path, std::string& detail, error_code& ec) override;
    /// Appends the IRIs of the files in the folder, in the storage's order; a missing folder or
    /// a file fails with `no_such_file_or_directory`.
    void doGetFiles(const std::u16string& folder, std::vector<std::u16string>& files, bool recursive,
                    std::string& detail, error_code& ec) override;

    /// A storage stream opened with `mode` exactly as given (no bits added). A stream that
    /// opens in a failed state gives `io_error` and no detail text.
    std::shared_ptr<std::istream> doCreateInputStream(const std::u16string& path, unsigned mode,
                                                      std::string& detail, error_code& ec) override;
    /// Opens as `doCreateInputStream` does.
    /// The output stream writes through: each write operation hands its bytes to the storage
    /// before it returns, and a write the storage refuses (full, file too large, I/O error, a
    /// `memory:` file removed or made read-only meanwhile) throws `opc::Exception`
    /// "write failed: " and the translated detail, with the translated code, from that
    /// operation (its bad bit is set). Closing the stream (the last holder letting go) cannot
    /// lose bytes: none are held back.
    std::shared_ptr<std::ostream> doCreateOutputStream(const std::u16string& path, unsigned mode,
                                                       std::string& detail, error_code& ec) override;
    void doCreateFolder(const std::u16string& path, std::string& detail, error_code& ec) override;
    void doCreateFolders(const std::u16string& path, std::string& detail, error_code& ec) override;
    /// Always fails with `operation_not_supported`.
    void doCreateSymlink(const std::u16string& target, const std::u16string& link, std::string& detail,
                         error_code& ec) override;
    /// Replaces an existing destination only for `Overwrite`; `NoOverwrite` and `FailIfExists`
    /// leave the decision to the storage (which refuses with `file_exists`). A file is replaced
    /// by a new one renamed over it (as `rename` does), never written into; a file never
    /// replaces a folder (`file_exists`, nothing removed).
    void doCopy(const std::u16string& source, const std::u16string& destination, ExistsMode mode,
                std::string& detail, error_code& ec) override;
    /// Always replaces an existing file, durably (data synced before the name, the folders
    /// after it) and without widening its permissions (`file:`); a file never replaces a
    /// folder, nor a folder a file (`file_exists`, nothing removed).
    void doRename(const std::u16string& from, const std::u16string& to, std::string& detail,
                  error_code& ec) override;
    /// `doRename` of a file on a condition (`stratum::storage::vfs::moveIfVersion`): `memory:`
    /// checks and moves under its lock; `file:` as the local back end; `s3:` sends If-Match or
    /// If-None-Match with the write that puts the content in place (a PUT up to one part, else
    /// the completion of parts copied on the server) after making sure the store honours it on
    /// a PUT. A mismatch is `device_or_resource_busy`; within one storage system only.
    void doRenameIfVersion(const std::u16string& from, const std::u16string& to, const std::string& expectedVersion,
                           std::string& detail, error_code& ec) override;
    /// A file or an empty folder; a non-empty folder fails with `directory_not_empty`.
    void doRemove(const std::u16string& path, std::string& detail, error_code& ec) override;
    /// A file, or a folder with everything in it.
    void doRemoveAll(const std::u16string& path, std::string& detail, error_code& ec) override;
    /// `opc::replaceFileWithBackup` with this back end as the target's; its exception's text and
    /// code come back unchanged. A source that is a folder or missing is refused first, with
    /// nothing written; a source of another `VirtualFileSystemOps` over another storage system
    /// is read from that storage (streamed across).
    void doReplaceFileWithBackup(const std::u16string& targetPath, FileSystemOps& sourceOps,
                                 const std::u16string& sourcePath, const CommitOptions& options,
                                 std::string& detail, error_code& ec) override;

private:
    StorageSystemReference m_storage;
};

} // namespace opc
