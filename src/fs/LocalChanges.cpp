// LocalFileSystemOps: creating, copying, renaming and removing, and the commit.

#include "commit/CommitReport.hpp"
#include "commit/Conditions.hpp"
#include <opc/Exception.hpp>
#include <opc/LocalFileSystemOps.hpp>
#include <opc/Text.hpp>

#include "fs/LocalTranslate.hpp"

#include <vela/filesystem/exceptions.hpp>
#include <vela/filesystem/file_status.hpp>
#include <vela/filesystem/operations.hpp>

#include <cerrno>

namespace opc {

namespace host = vela::filesystem;
namespace errc = boost::system::errc;
using detail::guardedHostCall;
using Status = host::file_status;

void LocalFileSystemOps::doCreateFolder(const std::u16string& path, std::string& detail, error_code& ec) {
    guardedHostCall(detail, ec, [&] { host::create_directory(host::path(path)); });
}

void LocalFileSystemOps::doCreateFolders(const std::u16string& path, std::string& detail, error_code& ec) {
    guardedHostCall(detail, ec, [&] { host::create_directories(host::path(path)); });
}

void LocalFileSystemOps::doCreateSymlink(const std::u16string& target, const std::u16string& link,
                                         std::string& detail, error_code& ec) {
    guardedHostCall(detail, ec,
                    [&] { host::create_symlink(host::path(target), host::path(link), Status::regular_file); });
}

void LocalFileSystemOps::doCopy(const std::u16string& source, const std::u16string& destination, ExistsMode mode,
                                std::string& detail, error_code& ec) {
    guardedHostCall(detail, ec, [&] {
        host::path const from(source);
        host::path const to(destination);
        std::uint32_t const type = host::symlink_status(from).type();
        if (type & Status::file_not_found) {
            detail = "Source does not exist: " + toUDEString(source);
            ec = errc::make_error_code(errc::no_such_file_or_directory);
            return;
        }
        switch (type & Status::file_type_mask) {
        case Status::regular_file:
            // A commit's backup of the package it is about to replace: a hard link stands for the
            // copy where the host allows one.
            if (mode == Overwrite && host::staged_rename_scope::link_backup(from, to))
                break;
            // NoOverwrite and FailIfExists alike: an existing file is the host's EEXIST.
            host::copy_file(from, to, mode == Overwrite ? 1 : 0);
            break;
        case Status::directory_file: {
            bool const destinationExists = (host::symlink_status(to).type() & Status::file_not_found) == 0;
            if (destinationExists && mode == FailIfExists) {
                detail = "Destination exists: " + toUDEString(destination);
                ec = errc::make_error_code(errc::file_exists);
                return;
            }
            if (destinationExists && mode == Overwrite)
                host::remove_all(to);
            // NoOverwrite: the existing folder is merged into.
            host::copy_directory(from, to);
            break;
        }
        case Status::symlink_file:
            host::copy_symlink(from, to);
            break;
        default:
            // Sockets, devices and pipes are left alone, without an error.
            break;
        }
    });
}

void LocalFileSystemOps::doRename(const std::u16string& from, const std::u16string& to, std::string& detail,
                                  error_code& ec) {
    guardedHostCall(detail, ec, [&] {
        if (from.empty() || to.empty())
            throw host::InvalidArgument("vela:filesystem:InvalidArgument", "Empty path not permitted");
        // Plain rename: no copy-and-delete fallback across file systems.
        host::rename(host::path(from), host::path(to), host::rename_options{});
    });
}

void LocalFileSystemOps::doRenameIfVersion(const std::u16string& from, const std::u16string& to,
                                           const std::string& expectedVersion, std::string& detail, error_code& ec) {
    guardedHostCall(detail, ec, [&] {
        if (from.empty() || to.empty())
            throw host::InvalidArgument("vela:filesystem:InvalidArgument", "Empty path not permitted");
        host::rename_if_version(host::path(from), host::path(to), expectedVersion);
    });
    // The host reports a mismatch as ESTALE, which nothing else in its rename gives.
    if (ec.value() == ESTALE) {
        ec = CommitOptions::versionMismatch();
        detail = opc::detail::versionMismatchText(
            expectedVersion.empty() ? "something is at the target already" : "another writer changed it",
            opc::detail::pathText(to));
    }
}

void LocalFileSystemOps::doRemove(const std::u16string& path, std::string& detail, error_code& ec) {
    guardedHostCall(detail, ec, [&] { host::remove(host::path(path)); });
}

void LocalFileSystemOps::doRemoveAll(const std::u16string& path, std::string& detail, error_code& ec) {
    guardedHostCall(detail, ec, [&] { host::remove_all(host::path(path)); });
}

void LocalFileSystemOps::doReplaceFileWithBackup(const std::u16string& targetPath, FileSystemOps& sourceOps,
                                                 const std::u16string& sourcePath, const CommitOptions& options,
                                                 std::string& detail, error_code& ec) {
    guardedHostCall(detail, ec, [&] {
        detail::commitAndReport(*this, targetPath, sourceOps, sourcePath, options, detail, ec);
    });
}

} // namespace opc
