#pragma once

#include <opc/Export.hpp>
#include <opc/FileSystemOps.hpp>

namespace opc {

/// The back end of `FileSystemOps` over the machine's own file system.
///
/// Paths are host paths as UTF-16 text; paths handed back are in generic form ("/" only).
/// The object holds no state: any number may exist, and concurrent calls are as safe as the
/// host calls they make. No operation throws through the frame; failures come back as an
/// error code (POSIX numbers, generic category) and a detail text, where a host exception's
/// text is followed by ": " and the path it names. Queries never follow a final symbolic link.
class OPC_API LocalFileSystemOps : public FileSystemOps {
public:
    LocalFileSystemOps();
    ~LocalFileSystemOps() override;

protected:
    // ---- Paths (pure text, no file-system access except doGetTempName) ----

    /// A path inside `folder` (the temporary folder when empty) named "." + random part + ".tmp"
    /// that did not exist when it was checked. Nothing is created; another process may take the
    /// name before it is used.
    std::u16string doGetTempName(const std::u16string& folder, std::string& detail, error_code& ec) override;
    /// The path less its last element, in generic form; empty when there is none.
    std::u16string doGetParentPath(const std::u16string& path, std::string& detail, error_code& ec) override;
    /// The last element. Failures of the path helpers pass to the frame as exceptions.
    std::u16string doGetFilename(const std::u16string& path, std::string& detail, error_code& ec) override;
    /// The last element's extension from its last "." on, dot included. Not caught here.
    std::u16string doGetExtension(const std::u16string& path, std::string& detail, error_code& ec) override;
    /// `child` joined to `path` with one "/". Exactly one leading "/" of `child` is dropped, so
    /// "/" alone leaves `path` unchanged and "/c" equals "c".
    std::u16string doAppendPath(const std::u16string& path, const std::u16string& child, std::string& detail,
                                error_code& ec) override;
    /// The path in generic form. Not caught here.
    std::u16string doNormalizePath(const std::u16string& path, std::string& detail, error_code& ec) override;
    /// Every path is local: copies it unchanged and returns true.
    bool doGetLocalPath(const std::u16string& path, std::u16string& localPath) override;
    /// True for a path beginning at the root.
    bool doIsAbsolutePath(const std::u16string& path) override;

    // ---- Queries: the status of the path itself, a final link is never followed ----

    /// True when anything is at the path, a dangling link included.
    bool doExists(const std::u16string& path, std::string& detail, error_code& ec) override;
    /// True for a regular file; false (no error) for a link, a folder or a missing path.
    bool doIsFile(const std::u16string& path, std::string& detail, error_code& ec) override;
    /// True for a folder; false (no error) for a link to a folder or a missing path.
    bool doIsFolder(const std::u16string& path, std::string& detail, error_code& ec) override;
    /// True for a symbolic link, dangling or not.
    bool doIsSymlink(const std::u16string& path, std::string& detail, error_code& ec) override;
    /// The nine permission bits plus the host's attribute bits (0x1000 to 0x8000); of a link,
    /// the link's own, marked with the host's `link_perms` bit (0x2000), which `setPermissions`
    /// never applies as a mode to anything but a link. A missing path gives `PermsUnknown` with
    /// ENOENT.
    Perms::Perms_tag doGetPermissions(const std::u16string& path, std::string& detail, error_code& ec) override;
    /// Sets the bits on the path itself (a final link is not followed; the host may refuse a
    /// link). `PermsUnknown` does nothing; an empty path is EINVAL.
    void doSetPermissions(const std::u16string& path, Perms::Perms_tag perms, std::string& detail,
                          error_code& ec) override;
    /// The last-write time (UTC) of the path itself; not-a-date-time with ENOENT when missing.
    ptime doGetLastModifiedTime(const std::u16string& path, std::string& detail, error_code& ec) override;
    /// Sets the last-write time of the path itself; not-a-date-time does nothing.
    void doSetLastModifiedTime(const std::u16string& path, ptime time, std::string& detail,
                               error_code& ec) override;
    /// The size of a regular file. Anything else (a folder, a link) is EISDIR, a missing path
    /// ENOENT; both give 0.
    std::uint64_t doGetSizeInBytes(const std::u16string& path, std::string& detail, error_code& ec) override;
    /// The host's tag of a regular file: device, inode, size, change and modification times
    /// (nanoseconds). A missing path is ENOENT, anything but a regular file EISDIR.
    std::string doGetVersionTag(const std::u16string& path, std::string& detail, error_code& ec) override;
    /// The text stored in the link, normalised, not resolved against the link's folder.
    std::u16string doGetLinkTarget(const std::u16string& path, std::string& detail, error_code& ec) override;
    /// Appends the normalised full paths of the files and links in `folder`, in the host's order,
    /// depth first when `recursive`. Links (also to folders) are listed, never followed; folders
    /// are never listed. The first failure stops the whole listing; what was appended stays.
    void doGetFiles(const std::u16string& folder, std::vector<std::u16string>& files, bool recursive,
                    std::string& detail, error_code& ec) override;

    // ---- Streams and changes ----

    /// Opens a file stream for reading (the input bit is always added; other `OpenMode` bits are
    /// kept). A failed open reports the system's errno and its `strerror` text, not a host
    /// exception, and returns an empty pointer.
    std::shared_ptr<std::istream> doCreateInputStream(const std::u16string& path, unsigned mode,
                                                      std::string& detail, error_code& ec) override;
    /// Opens a file stream for writing (the output bit is always added). Whether a missing file
    /// is created or an existing one truncated follows from the mode alone. Reports as above.
    /// The stream (a `vela::filesystem::basic_ofstream<char>`) keeps no bytes of its own: each
    /// write goes to the file system at once, and one that it refuses (disk full, file too
    /// large, I/O error, quota) throws `opc::Exception` "write failed: " + the host's text and
    /// path from that write, with the host's code; the stream is then bad. Data reaches the
    /// disk when the file is renamed into place (`rename` syncs it first).
    std::shared_ptr<std::ostream> doCreateOutputStream(const std::u16string& path, unsigned mode,
                                                       std::string& detail, error_code& ec) override;
    /// Creates one folder; an existing path is EEXIST, a missing parent ENOENT.
    void doCreateFolder(const std::u16string& path, std::string& detail, error_code& ec) override;
    /// Creates a folder and its missing parents; an existing folder is fine.
    void doCreateFolders(const std::u16string& path, std::string& detail, error_code& ec) override;
    /// Creates the link `link` holding the text `target` (which need not exist).
    void doCreateSymlink(const std::u16string& target, const std::u16string& link, std::string& detail,
                         error_code& ec) override;
    /// Copies by the kind of the source itself (a final link is not followed):
    /// - missing: ENOENT, "Source does not exist: <source>";
    /// - file: content and permission bits, synced to disk with its new name; an existing
    ///   destination is EEXIST unless `Overwrite`, which replaces it by a new file as `doRename`
    ///   does (never writing into it: its other hard links keep the old content; a link there
    ///   is refused);
    /// - folder: the tree, links copied as links. `FailIfExists` on an existing destination is
    ///   EEXIST, "Destination exists: <destination>", nothing touched; `Overwrite` removes the
    ///   destination first; `NoOverwrite` merges into it. Not atomic: a failure midway leaves
    ///   what was copied (and, after `Overwrite`, the old destination gone);
    /// - link: copied as a link whatever the mode;
    /// - anything else (socket, device, pipe): nothing happens, no error.
    void doCopy(const std::u16string& source, const std::u16string& destination, ExistsMode mode,
                std::string& detail, error_code& ec) override;
    /// One rename: atomic and durable (the moved file's data synced first, the folders involved
    /// after); replaces an existing destination file, whose permission bits the moved file never
    /// exceeds; a file onto a folder is EISDIR. A failure of any step leaves the destination as
    /// it was (see `vela::filesystem::rename`). Never falls back to copy-and-delete (across file
    /// systems it fails with the host's error). An empty path on either side is EINVAL.
    void doRename(const std::u16string& from, const std::u16string& to, std::string& detail,
                  error_code& ec) override;
    /// `doRename` on a condition (`vela::filesystem::rename_if_version`): RENAME_NOREPLACE for
    /// "nothing there"; for a version, a check, RENAME_EXCHANGE and a check of the file swapped
    /// out, which goes back when it is another. A mismatch is EBUSY, "Not the expected version
    /// (another writer changed it): <to>". Where the file system lacks both calls, a check and a
    /// plain rename, with a window between them.
    void doRenameIfVersion(const std::u16string& from, const std::u16string& to, const std::string& expectedVersion,
                           std::string& detail, error_code& ec) override;
    /// Removes a file, a link (not its target) or an empty folder.
    void doRemove(const std::u16string& path, std::string& detail, error_code& ec) override;
    /// Removes a folder with everything in it, never following a link out of the tree; a missing
    /// path is not an error.
    void doRemoveAll(const std::u16string& path, std::string& detail, error_code& ec) override;
    /// `opc::replaceFileWithBackup` with this object as the target back end. Its `opc::Exception`
    /// comes back as detail and code unchanged (a cleared code included). A source that is a
    /// folder or missing is refused first, with nothing written.
    void doReplaceFileWithBackup(const std::u16string& targetPath, FileSystemOps& sourceOps,
                                 const std::u16string& sourcePath, const CommitOptions& options,
                                 std::string& detail, error_code& ec) override;
};

} // namespace opc
