#pragma once

#include <opc/CommitOptions.hpp>
#include <opc/Export.hpp>

#include <boost/date_time/posix_time/ptime.hpp>
#include <boost/system/error_code.hpp>

#include <cstdint>
#include <iosfwd>
#include <memory>
#include <string>
#include <vector>

namespace opc {

/// What `copy` does when the destination exists.
enum ExistsMode {
    /// Files: an existing destination is an error. Folders: copied into the existing folder.
    NoOverwrite = 0,
    /// Files: as NoOverwrite. Folders: an existing destination fails with EEXIST.
    FailIfExists = 1,
    /// Files: overwritten. Folders: the destination is removed with its contents, then copied afresh.
    Overwrite = 2
};

/// Permission bits of a file: the POSIX mode bits, plus host attribute bits above them.
namespace Perms {
/// The bits; combine them with `|`, `&` and `~`.
enum Perms_tag : std::uint32_t {
    OthersExe = 01,
    OthersWrite = 02,
    OthersRead = 04,
    GroupExe = 010,
    GroupWrite = 020,
    GroupRead = 040,
    OwnerExe = 0100,
    OwnerWrite = 0200,
    OwnerRead = 0400,
    AllPerms = 0777,
    /// Returned when the permissions cannot be read; passed to `setPermissions` it changes nothing.
    PermsUnknown = 0xFFFF
};

/// The union of two sets of bits.
constexpr Perms_tag operator|(Perms_tag a, Perms_tag b) { return Perms_tag(std::uint32_t(a) | std::uint32_t(b)); }
/// The bits both sets hold.
constexpr Perms_tag operator&(Perms_tag a, Perms_tag b) { return Perms_tag(std::uint32_t(a) & std::uint32_t(b)); }
/// Every bit the set lacks.
constexpr Perms_tag operator~(Perms_tag a) { return Perms_tag(~std::uint32_t(a)); }
} // namespace Perms

/// Open-mode bits of `createInputStream` and `createOutputStream`. These values hold whatever
/// the platform's own `std::ios_base::openmode` values are.
namespace OpenMode {
constexpr unsigned Append = 0x01;   ///< Every write goes to the end.
constexpr unsigned AtEnd = 0x02;    ///< Starts at the end.
constexpr unsigned Binary = 0x04;   ///< No newline translation.
constexpr unsigned In = 0x08;       ///< For reading.
constexpr unsigned Out = 0x10;      ///< For writing.
constexpr unsigned Truncate = 0x20; ///< An existing file is emptied first.
/// What the library itself passes to read: binary input.
constexpr unsigned ReadBinary = In | Binary;
/// What the library itself passes to write: binary output.
constexpr unsigned WriteBinary = Out | Binary;
} // namespace OpenMode

namespace detail {
struct OpsFrame;
}

/// The one interface through which files and folders are touched, whatever back end holds them.
///
/// Every public operation is non-virtual and frames one protected `do*` operation of the back
/// end. Fallible operations come in two forms:
/// - the throwing form throws `opc::Exception` with the message "<name> failed: " + the back
///   end's detail, and the back end's code, exactly when that code reports `failed()`;
/// - the error-code form (trailing `boost::system::error_code&`) clears the caller's code first,
///   never throws (an exception escaping a back end ends the process), and returns the back
///   end's result as it is, also on failure (an empty string, false, 0, `PermsUnknown`,
///   not-a-date-time or an empty stream pointer).
/// The frame holds no state and takes no locks; whether an object may be shared between
/// threads is the back end's to say.
class OPC_API FileSystemOps {
public:
    using error_code = boost::system::error_code; ///< The code of the error-code forms.
    using ptime = boost::posix_time::ptime;       ///< Modification times, in UTC.

    virtual ~FileSystemOps();

    /// A fresh name for a temporary file inside `folder` (nothing is created).
    std::u16string getTempName(const std::u16string& folder);
    /// The path less its last element; empty when there is none.
    std::u16string getParentPath(const std::u16string& path);
    /// The last element of the path.
    std::u16string getFilename(const std::u16string& path);
    /// The extension of the last element (the back end defines whether it keeps the dot).
    std::u16string getExtension(const std::u16string& path);
    /// `child` appended to `path`; one leading "/" of `child` is dropped.
    std::u16string appendPath(const std::u16string& path, const std::u16string& child);
    /// The path in the back end's normal form.
    std::u16string normalizePath(const std::u16string& path);

    /// Fills `localPath` and returns true when the path has a form on the local disk;
    /// otherwise empties `localPath` and returns false. Never fails.
    bool getLocalPath(const std::u16string& path, std::u16string& localPath);
    /// True when the back end takes the path as absolute. Never fails.
    bool isAbsolutePath(const std::u16string& path);

    /// True when something is at the path (a dangling link counts); links are not followed.
    bool exists(const std::u16string& path);
    /// Error-code form; a failure gives false.
    bool exists(const std::u16string& path, error_code& ec) noexcept;
    /// True for a regular file (a link to a file is not one); false for a missing path.
    bool isFile(const std::u16string& path);
    /// Error-code form; a failure gives false.
    bool isFile(const std::u16string& path, error_code& ec) noexcept;
    /// True for a folder (a link to a folder is not one); false for a missing path.
    bool isFolder(const std::u16string& path);
    /// Error-code form; a failure gives false.
    bool isFolder(const std::u16string& path, error_code& ec) noexcept;
    /// True for a symbolic link.
    bool isSymlink(const std::u16string& path);
    /// Error-code form; a failure gives false.
    bool isSymlink(const std::u16string& path, error_code& ec) noexcept;

    /// The permission bits; `PermsUnknown` on failure.
    Perms::Perms_tag getPermissions(const std::u16string& path);
    /// Error-code form; a failure gives `PermsUnknown`.
    Perms::Perms_tag getPermissions(const std::u16string& path, error_code& ec) noexcept;
    /// Sets the permission bits of the path itself (what `PermsUnknown` does is the back end's to say).
    void setPermissions(const std::u16string& path, Perms::Perms_tag perms);
    /// Error-code form.
    void setPermissions(const std::u16string& path, Perms::Perms_tag perms, error_code& ec) noexcept;

    /// The modification time (UTC); not-a-date-time on failure.
    ptime getLastModifiedTime(const std::u16string& path);
    /// Error-code form; a failure gives not-a-date-time.
    ptime getLastModifiedTime(const std::u16string& path, error_code& ec) noexcept;
    /// Sets the modification time (whether not-a-date-time is refused is the back end's to say).
    void setLastModifiedTime(const std::u16string& path, ptime time);
    /// Error-code form.
    void setLastModifiedTime(const std::u16string& path, ptime time, error_code& ec) noexcept;

    /// The size of a regular file in bytes; 0 on failure.
    std::uint64_t getSizeInBytes(const std::u16string& path);
    /// Error-code form; a failure gives 0.
    std::uint64_t getSizeInBytes(const std::u16string& path, error_code& ec) noexcept;

    /// An opaque text that changes whenever the file is written or replaced: of its device,
    /// inode, size and nanosecond change and modification times on the local disk and `file`,
    /// a generation on `memory`, the ETag on `s3`. A missing path fails with
    /// `no_such_file_or_directory`, a folder too (`is_a_directory` on the local disk). A back
    /// end without version tags fails with `operation_not_supported`.
    std::string getVersionTag(const std::u16string& path);
    /// Error-code form; a failure gives an empty string.
    std::string getVersionTag(const std::u16string& path, error_code& ec) noexcept;

    /// The target stored in a symbolic link, normalised, not resolved.
    std::u16string getLinkTarget(const std::u16string& path);
    /// Error-code form; a failure gives an empty string.
    std::u16string getLinkTarget(const std::u16string& path, error_code& ec) noexcept;

    /// Appends the full paths of the files (and links) in `folder` to `files`, recursing into
    /// sub-folders when `recursive` is set. Folders themselves are never listed, links never
    /// followed. `files` is never cleared: on failure it keeps what was appended before.
    void getFiles(const std::u16string& folder, std::vector<std::u16string>& files, bool recursive);
    /// Error-code form.
    void getFiles(const std::u16string& folder, std::vector<std::u16string>& files, bool recursive,
                  error_code& ec) noexcept;

    /// Opens the file for reading with the `OpenMode` bits; the file closes with the last holder.
    std::shared_ptr<std::istream> createInputStream(const std::u16string& path, unsigned mode);
    /// Error-code form; a failure gives an empty pointer.
    std::shared_ptr<std::istream> createInputStream(const std::u16string& path, unsigned mode,
                                                    error_code& ec) noexcept;
    /// Opens the file for writing with the `OpenMode` bits; the file closes with the last holder.
    ///
    /// Writes go through: both back ends hand every write to the storage at once and keep no
    /// bytes in a user-space buffer, so nothing can fail later where no caller could see it. A
    /// write the storage refuses (a full disk, a file-size limit, an I/O error, a read-only item)
    /// throws `opc::Exception` ("write failed: " and the back end's detail, with its code) from
    /// the stream operation that carried it; the stream is then bad. Callers writing small pieces
    /// should gather them first. Data are durable only after a `rename` (which syncs them) or a
    /// commit; a reader may see a file being written part way (write to a temporary name).
    std::shared_ptr<std::ostream> createOutputStream(const std::u16string& path, unsigned mode);
    /// Error-code form; a failure gives an empty pointer.
    std::shared_ptr<std::ostream> createOutputStream(const std::u16string& path, unsigned mode,
                                                     error_code& ec) noexcept;

    /// Creates one folder; its parent must exist.
    void createFolder(const std::u16string& path);
    /// Error-code form.
    void createFolder(const std::u16string& path, error_code& ec) noexcept;
    /// Creates a folder and every missing parent.
    void createFolders(const std::u16string& path);
    /// Error-code form.
    void createFolders(const std::u16string& path, error_code& ec) noexcept;
    /// Creates the symbolic link `link` pointing at `target`.
    void createSymlink(const std::u16string& target, const std::u16string& link);
    /// Error-code form.
    void createSymlink(const std::u16string& target, const std::u16string& link, error_code& ec) noexcept;

    /// Copies a file, a folder tree or a link (as a link); `mode` says what happens to an
    /// existing destination. A link at the source is copied as a link, never followed; a link at
    /// a file's destination is refused, never written through. `Overwrite` of a file makes a new
    /// file and puts it in the destination's place, so other hard links to the old destination
    /// keep their content. A copied file is synced before the copy returns (local disk, `file`).
    void copy(const std::u16string& source, const std::u16string& destination, ExistsMode mode);
    /// Error-code form.
    void copy(const std::u16string& source, const std::u16string& destination, ExistsMode mode,
              error_code& ec) noexcept;
    /// Renames within the back end, replacing an existing destination file in one step; a
    /// folder at the destination is refused and left whole. The moved file's data are synced
    /// before the rename and its folder (both folders when they differ) after it, and the file
    /// arriving over an existing one never has permission bits the replaced file lacked. When a
    /// step fails the rename fails and the destination is left as it was (local disk, `file`;
    /// `memory` is not durable at all).
    void rename(const std::u16string& from, const std::u16string& to);
    /// Error-code form.
    void rename(const std::u16string& from, const std::u16string& to, error_code& ec) noexcept;
    /// Renames the file `from` over `to` as `rename` does, but only when `to` still holds the
    /// file whose `getVersionTag` was `expectedVersion`, or, when that is empty, nothing at all.
    /// Otherwise fails with `errc::device_or_resource_busy` (`CommitOptions::versionMismatch()`) and
    /// changes nothing. The local disk and `file` check, exchange and check the file swapped out
    /// again (putting it back when it is another); `memory` checks under its lock; `s3` sends
    /// the condition with the write that puts the content in place. A back end without version
    /// tags fails with `errc::operation_not_supported`.
    void renameIfVersion(const std::u16string& from, const std::u16string& to, const std::string& expectedVersion);
    /// Error-code form.
    void renameIfVersion(const std::u16string& from, const std::u16string& to, const std::string& expectedVersion,
                         error_code& ec) noexcept;
    /// Removes a file, a link or an empty folder.
    void remove(const std::u16string& path);
    /// Error-code form.
    void remove(const std::u16string& path, error_code& ec) noexcept;
    /// Removes a folder with everything in it (or a single file or link).
    void removeAll(const std::u16string& path);
    /// Error-code form.
    void removeAll(const std::u16string& path, error_code& ec) noexcept;

    /// Replaces the target file of this back end by `sourcePath` read through `sourceOps`,
    /// through a temporary file beside the target and one rename, keeping a backup as the
    /// options say. The target never holds half a file. Through the library's back ends a source
    /// that is a folder or missing is refused before anything is written, and a failed commit
    /// leaves no temporary file beside the target.
    void replaceFileWithBackup(const std::u16string& targetPath, FileSystemOps& sourceOps,
                               const std::u16string& sourcePath, const CommitOptions& options);
    /// Error-code form.
    void replaceFileWithBackup(const std::u16string& targetPath, FileSystemOps& sourceOps,
                               const std::u16string& sourcePath, const CommitOptions& options,
                               error_code& ec) noexcept;

protected:
    /// @name Back-end operations
    /// Each one does the work of the public operation of the same name without the "do". On
    /// failure it sets `ec` so that it reports failed(), writes a human-readable `detail` (the
    /// frame puts it after "<name> failed: ") and returns a value callers must not use. None
    /// throws, except where a back end documents it for the path-text operations.
    /// @{

    /// Does `getTempName`.
    virtual std::u16string doGetTempName(const std::u16string& folder, std::string& detail, error_code& ec) = 0;
    /// Does `getParentPath`.
    virtual std::u16string doGetParentPath(const std::u16string& path, std::string& detail, error_code& ec) = 0;
    /// Does `getFilename`.
    virtual std::u16string doGetFilename(const std::u16string& path, std::string& detail, error_code& ec) = 0;
    /// Does `getExtension`.
    virtual std::u16string doGetExtension(const std::u16string& path, std::string& detail, error_code& ec) = 0;
    /// Does `appendPath`.
    virtual std::u16string doAppendPath(const std::u16string& path, const std::u16string& child,
                                        std::string& detail, error_code& ec) = 0;
    /// Does `normalizePath`.
    virtual std::u16string doNormalizePath(const std::u16string& path, std::string& detail, error_code& ec) = 0;
    /// Does `getLocalPath`.
    virtual bool doGetLocalPath(const std::u16string& path, std::u16string& localPath) = 0;
    /// Does `isAbsolutePath`.
    virtual bool doIsAbsolutePath(const std::u16string& path) = 0;
    /// Does `exists`.
    virtual bool doExists(const std::u16string& path, std::string& detail, error_code& ec) = 0;
    /// Does `isFile`.
    virtual bool doIsFile(const std::u16string& path, std::string& detail, error_code& ec) = 0;
    /// Does `isFolder`.
    virtual bool doIsFolder(const std::u16string& path, std::string& detail, error_code& ec) = 0;
    /// Does `isSymlink`.
    virtual bool doIsSymlink(const std::u16string& path, std::string& detail, error_code& ec) = 0;
    /// Does `getPermissions`.
    virtual Perms::Perms_tag doGetPermissions(const std::u16string& path, std::string& detail, error_code& ec) = 0;
    /// Does `setPermissions`.
    virtual void doSetPermissions(const std::u16string& path, Perms::Perms_tag perms, std::string& detail,
                                  error_code& ec) = 0;
    /// Does `getLastModifiedTime`.
    virtual ptime doGetLastModifiedTime(const std::u16string& path, std::string& detail, error_code& ec) = 0;
    /// Does `setLastModifiedTime`.
    virtual void doSetLastModifiedTime(const std::u16string& path, ptime time, std::string& detail,
                                       error_code& ec) = 0;
    /// Does `getSizeInBytes`.
    virtual std::uint64_t doGetSizeInBytes(const std::u16string& path, std::string& detail, error_code& ec) = 0;
    /// Does `getLinkTarget`.
    virtual std::u16string doGetLinkTarget(const std::u16string& path, std::string& detail, error_code& ec) = 0;
    /// Does `getFiles`.
    virtual void doGetFiles(const std::u16string& folder, std::vector<std::u16string>& files, bool recursive,
                            std::string& detail, error_code& ec) = 0;
    /// Does `createInputStream`.
    virtual std::shared_ptr<std::istream> doCreateInputStream(const std::u16string& path, unsigned mode,
                                                              std::string& detail, error_code& ec) = 0;
    /// Does `createOutputStream`.
    virtual std::shared_ptr<std::ostream> doCreateOutputStream(const std::u16string& path, unsigned mode,
                                                               std::string& detail, error_code& ec) = 0;
    /// Does `createFolder`.
    virtual void doCreateFolder(const std::u16string& path, std::string& detail, error_code& ec) = 0;
    /// Does `createFolders`.
    virtual void doCreateFolders(const std::u16string& path, std::string& detail, error_code& ec) = 0;
    /// Does `createSymlink`.
    virtual void doCreateSymlink(const std::u16string& target, const std::u16string& link, std::string& detail,
                                 error_code& ec) = 0;
    /// Does `copy`.
    virtual void doCopy(const std::u16string& source, const std::u16string& destination, ExistsMode mode,
                        std::string& detail, error_code& ec) = 0;
    /// Does `rename`.
    virtual void doRename(const std::u16string& from, const std::u16string& to, std::string& detail,
                          error_code& ec) = 0;
    /// Does `remove`.
    virtual void doRemove(const std::u16string& path, std::string& detail, error_code& ec) = 0;
    /// Does `removeAll`.
    virtual void doRemoveAll(const std::u16string& path, std::string& detail, error_code& ec) = 0;
    /// Does `getVersionTag`. This default fails with `operation_not_supported`, so that a back
    /// end written before version tags existed refuses conditional commits.
    virtual std::string doGetVersionTag(const std::u16string& path, std::string& detail, error_code& ec);
    /// Does `renameIfVersion`. This default fails with `operation_not_supported`.
    virtual void doRenameIfVersion(const std::u16string& from, const std::u16string& to,
                                   const std::string& expectedVersion, std::string& detail, error_code& ec);
    /// Does `replaceFileWithBackup`.
    virtual void doReplaceFileWithBackup(const std::u16string& targetPath, FileSystemOps& sourceOps,
                                         const std::u16string& sourcePath, const CommitOptions& options,
                                         std::string& detail, error_code& ec) = 0;
    /// @}

private:
    friend struct detail::OpsFrame;
};

} // namespace opc
