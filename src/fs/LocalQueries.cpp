// LocalFileSystemOps: existence, kind, permissions, times, size, link target, listings.
// Every query takes the status of the path itself: a final symbolic link is never followed.

#include <opc/LocalFileSystemOps.hpp>

#include "fs/LocalTranslate.hpp"

#include <vela/filesystem/directory_iterator.hpp>
#include <vela/filesystem/exceptions.hpp>
#include <vela/filesystem/file_status.hpp>
#include <vela/filesystem/operations.hpp>

#include <typeinfo>

namespace opc {

namespace host = vela::filesystem;
using detail::guardedHostCall;
using Status = host::file_status;

namespace {

std::uint32_t typeOf(std::u16string const& path) {
    return host::symlink_status(host::path(path)).type() & Status::file_type_mask;
}

// The status of a path that must exist; a missing one is reported as PathNotFound, naming it.
Status existingStatus(std::u16string const& path) {
    Status status = host::symlink_status(host::path(path));
    if (status.type() & Status::file_not_found)
        throw host::PathNotFound("vela:filesystem:PathNotFound", path);
    return status;
}

} // namespace

bool LocalFileSystemOps::doExists(const std::u16string& path, std::string& detail, error_code& ec) {
    return guardedHostCall(false, detail, ec, [&] {
        return (host::symlink_status(host::path(path)).type() & Status::file_not_found) == 0;
    });
}

bool LocalFileSystemOps::doIsFile(const std::u16string& path, std::string& detail, error_code& ec) {
    return guardedHostCall(false, detail, ec, [&] { return typeOf(path) == Status::regular_file; });
}

bool LocalFileSystemOps::doIsFolder(const std::u16string& path, std::string& detail, error_code& ec) {
    return guardedHostCall(false, detail, ec, [&] { return typeOf(path) == Status::directory_file; });
}

bool LocalFileSystemOps::doIsSymlink(const std::u16string& path, std::string& detail, error_code& ec) {
    return guardedHostCall(false, detail, ec, [&] { return typeOf(path) == Status::symlink_file; });
}

Perms::Perms_tag LocalFileSystemOps::doGetPermissions(const std::u16string& path, std::string& detail,
                                                      error_code& ec) {
    return guardedHostCall(Perms::PermsUnknown, detail, ec, [&] {
        // The attribute bits travel with the permission bits, untranslated.
        constexpr std::uint32_t kept = Status::perms_all | Status::archive_file | Status::system_file |
                                       Status::hidden_file | Status::non_indexed_file;
        return Perms::Perms_tag(existingStatus(path).permissions() & kept);
    });
}

void LocalFileSystemOps::doSetPermissions(const std::u16string& path, Perms::Perms_tag perms, std::string& detail,
                                          error_code& ec) {
    if (perms == Perms::PermsUnknown)
        return;
    guardedHostCall(detail, ec, [&] {
        if (path.empty())
            throw host::InvalidArgument("vela:filesystem:InvalidArgument", "Empty path not permitted");
        // On the path itself: a final link is not followed.
        host::permissions(host::path(path), std::uint32_t(perms) | Status::perms_symlink);
    });
}

FileSystemOps::ptime LocalFileSystemOps::doGetLastModifiedTime(const std::u16string& path, std::string& detail,
                                                               error_code& ec) {
    return guardedHostCall(ptime(boost::posix_time::not_a_date_time), detail, ec,
                           [&] { return existingStatus(path).last_write_time(); });
}

void LocalFileSystemOps::doSetLastModifiedTime(const std::u16string& path, ptime time, std::string& detail,
                                               error_code& ec) {
    if (time.is_not_a_date_time())
        return;
    guardedHostCall(detail, ec, [&] { host::last_write_time(host::path(path), time); });
}

std::uint64_t LocalFileSystemOps::doGetSizeInBytes(const std::u16string& path, std::string& detail,
                                                   error_code& ec) {
    return guardedHostCall(std::uint64_t(0), detail, ec, [&] {
        Status const status = existingStatus(path);
        // Folders, links and every other kind are "not a file" alike.
        if ((status.type() & Status::file_type_mask) != Status::regular_file)
            throw host::FileIsDirectory("vela:filesystem:FileIsDirectory", path);
        return status.size();
    });
}

std::string LocalFileSystemOps::doGetVersionTag(const std::u16string& path, std::string& detail, error_code& ec) {
    return guardedHostCall(std::string(), detail, ec, [&] { return host::version_tag(host::path(path)); });
}

std::u16string LocalFileSystemOps::doGetLinkTarget(const std::u16string& path, std::string& detail,
                                                   error_code& ec) {
    return guardedHostCall(std::u16string(), detail, ec, [&] {
        // As stored in the link, not resolved against the link's folder.
        return normalizePath(host::read_symlink(host::path(path)).native());
    });
}

void LocalFileSystemOps::doGetFiles(const std::u16string& folder, std::vector<std::u16string>& files,
                                    bool recursive, std::string& detail, error_code& ec) {
    // An entry's full path is the folder in native form, one "/" and a name without "/": it is
    // already normalised, and this back end's own normalisation would hand back the same text.
    // The call (an allocation and two passes per entry) is made only where a derived class may
    // have replaced it.
    bool const normalizeEntries = typeid(*this) != typeid(LocalFileSystemOps);
    if (!normalizeEntries) {
        // Nothing can replace the recursion or the normalisation either: the host walks the
        // whole tree in one call, which lists the same entries in the same order and throws
        // what the innermost iterator would (entries found before stay listed).
        guardedHostCall(detail, ec, [&] { host::list_files(host::path(folder), recursive, files); });
        return;
    }
    guardedHostCall(detail, ec, [&] {
        for (host::directory_iterator it{host::path(folder)}; it.is_open(); ++it) {
            std::uint32_t const type = it->status().type() & Status::file_type_mask;
            if (type == Status::regular_file || type == Status::symlink_file) {
                files.push_back(normalizePath(it->full_pathname()));
            } else if (recursive && type == Status::directory_file) {
                // Depth first; the innermost failure is reported once and ends every level.
                doGetFiles(normalizePath(it->full_pathname()), files, true, detail, ec);
                if (ec.failed())
                    return;
            }
        }
    });
}

} // namespace opc
