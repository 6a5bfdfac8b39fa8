#include <opc/Exception.hpp>
#include <opc/FileSystemOps.hpp>

#include <string>
#include <type_traits>
#include <utility>

namespace opc {
namespace detail {

// The calling frame of every public operation, written once. `op` is the protected back-end
// operation; the frame appends the detail text and error code it owns to the arguments.
struct OpsFrame {
    using error_code = boost::system::error_code;

    // Throwing form: fresh detail and cleared code; throws "<prefix><detail>" when the code
    // reports failure. A detail without a failed code is dropped.
    template <class Op, class... Args>
    static auto raise(char const* prefix, FileSystemOps& self, Op op, Args&&... args) {
        std::string detail;
        error_code ec;
        if constexpr (std::is_void_v<decltype((self.*op)(std::forward<Args>(args)..., detail, ec))>) {
            (self.*op)(std::forward<Args>(args)..., detail, ec);
            check(prefix, detail, ec);
        } else {
            auto result = (self.*op)(std::forward<Args>(args)..., detail, ec);
            check(prefix, detail, ec);
            return result;
        }
    }

    // Error-code form: clears the caller's code, hands it to the back end and returns the back
    // end's result unchanged. Callers are noexcept, so an escaping exception terminates.
    template <class Op, class... Args>
    static auto report(error_code& ec, FileSystemOps& self, Op op, Args&&... args) {
        ec.clear();
        std::string detail;
        return (self.*op)(std::forward<Args>(args)..., detail, ec);
    }

    static void check(char const* prefix, std::string const& detail, error_code const& ec) {
        if (ec.failed())
            throw Exception(prefix + detail, ec);
    }

    static bool localPath(FileSystemOps& self, std::u16string const& path, std::u16string& localPath) {
        if (self.doGetLocalPath(path, localPath))
            return true;
        localPath.clear();
        return false;
    }

    static bool isAbsolute(FileSystemOps& self, std::u16string const& path) { return self.doIsAbsolutePath(path); }
};

} // namespace detail

using detail::OpsFrame;
using P = std::u16string const&;
using EC = boost::system::error_code;
using Strings = std::vector<std::u16string>;

FileSystemOps::~FileSystemOps() = default;

std::string FileSystemOps::doGetVersionTag(P, std::string& detail, EC& ec) {
    detail = "this back end keeps no version tags";
    ec = boost::system::errc::make_error_code(boost::system::errc::operation_not_supported);
    return {};
}

void FileSystemOps::doRenameIfVersion(P, P, std::string const&, std::string& detail, EC& ec) {
    detail = "this back end cannot rename on a condition";
    ec = boost::system::errc::make_error_code(boost::system::errc::operation_not_supported);
}

// clang-format off
std::u16string FileSystemOps::getTempName(P f) { return OpsFrame::raise("getTempName failed: ", *this, &FileSystemOps::doGetTempName, f); }
std::u16string FileSystemOps::getParentPath(P p) { return OpsFrame::raise("getParentPath failed: ", *this, &FileSystemOps::doGetParentPath, p); }
std::u16string FileSystemOps::getFilename(P p) { return OpsFrame::raise("getFilename failed: ", *this, &FileSystemOps::doGetFilename, p); }
std::u16string FileSystemOps::getExtension(P p) { return OpsFrame::raise("getExtension failed: ", *this, &FileSystemOps::doGetExtension, p); }
std::u16string FileSystemOps::appendPath(P p, P c) { return OpsFrame::raise("appendPath failed: ", *this, &FileSystemOps::doAppendPath, p, c); }
std::u16string FileSystemOps::normalizePath(P p) { return OpsFrame::raise("normalizePath failed: ", *this, &FileSystemOps::doNormalizePath, p); }

bool FileSystemOps::getLocalPath(P p, std::u16string& out) { return OpsFrame::localPath(*this, p, out); }
bool FileSystemOps::isAbsolutePath(P p) { return OpsFrame::isAbsolute(*this, p); }

bool FileSystemOps::exists(P p) { return OpsFrame::raise("exists failed: ", *this, &FileSystemOps::doExists, p); }
bool FileSystemOps::exists(P p, EC& ec) noexcept { return OpsFrame::report(ec, *this, &FileSystemOps::doExists, p); }
bool FileSystemOps::isFile(P p) { return OpsFrame::raise("isFile failed: ", *this, &FileSystemOps::doIsFile, p); }
bool FileSystemOps::isFile(P p, EC& ec) noexcept { return OpsFrame::report(ec, *this, &FileSystemOps::doIsFile, p); }
bool FileSystemOps::isFolder(P p) { return OpsFrame::raise("isFolder failed: ", *this, &FileSystemOps::doIsFolder, p); }
bool FileSystemOps::isFolder(P p, EC& ec) noexcept { return OpsFrame::report(ec, *this, &FileSystemOps::doIsFolder, p); }
bool FileSystemOps::isSymlink(P p) { return OpsFrame::raise("isSymlink failed: ", *this, &FileSystemOps::doIsSymlink, p); }
bool FileSystemOps::isSymlink(P p, EC& ec) noexcept { return OpsFrame::report(ec, *this, &FileSystemOps::doIsSymlink, p); }

Perms::Perms_tag FileSystemOps::getPermissions(P p) { return OpsFrame::raise("getPermissions failed: ", *this, &FileSystemOps::doGetPermissions, p); }
Perms::Perms_tag FileSystemOps::getPermissions(P p, EC& ec) noexcept { return OpsFrame::report(ec, *this, &FileSystemOps::doGetPermissions, p); }
void FileSystemOps::setPermissions(P p, Perms::Perms_tag v) { OpsFrame::raise("setPermissions failed: ", *this, &FileSystemOps::doSetPermissions, p, v); }
void FileSystemOps::setPermissions(P p, Perms::Perms_tag v, EC& ec) noexcept { OpsFrame::report(ec, *this, &FileSystemOps::doSetPermissions, p, v); }

FileSystemOps::ptime FileSystemOps::getLastModifiedTime(P p) { return OpsFrame::raise("getLastModifiedTime failed: ", *this, &FileSystemOps::doGetLastModifiedTime, p); }
FileSystemOps::ptime FileSystemOps::getLastModifiedTime(P p, EC& ec) noexcept { return OpsFrame::report(ec, *this, &FileSystemOps::doGetLastModifiedTime, p); }
void FileSystemOps::setLastModifiedTime(P p, ptime t) { OpsFrame::raise("setLastModifiedTime failed: ", *this, &FileSystemOps::doSetLastModifiedTime, p, t); }
void FileSystemOps::setLastModifiedTime(P p, ptime t, EC& ec) noexcept { OpsFrame::report(ec, *this, &FileSystemOps::doSetLastModifiedTime, p, t); }

std::uint64_t FileSystemOps::getSizeInBytes(P p) { return OpsFrame::raise("getSizeInBytes failed: ", *this, &FileSystemOps::doGetSizeInBytes, p); }
std::uint64_t FileSystemOps::getSizeInBytes(P p, EC& ec) noexcept { return OpsFrame::report(ec, *this, &FileSystemOps::doGetSizeInBytes, p); }
std::string FileSystemOps::getVersionTag(P p) { return OpsFrame::raise("getVersionTag failed: ", *this, &FileSystemOps::doGetVersionTag, p); }
std::string FileSystemOps::getVersionTag(P p, EC& ec) noexcept { return OpsFrame::report(ec, *this, &FileSystemOps::doGetVersionTag, p); }
std::u16string FileSystemOps::getLinkTarget(P p) { return OpsFrame::raise("getLinkTarget failed: ", *this, &FileSystemOps::doGetLinkTarget, p); }
std::u16string FileSystemOps::getLinkTarget(P p, EC& ec) noexcept { return OpsFrame::report(ec, *this, &FileSystemOps::doGetLinkTarget, p); }

void FileSystemOps::getFiles(P f, Strings& out, bool r) { OpsFrame::raise("getFiles failed: ", *this, &FileSystemOps::doGetFiles, f, out, r); }
void FileSystemOps::getFiles(P f, Strings& out, bool r, EC& ec) noexcept { OpsFrame::report(ec, *this, &FileSystemOps::doGetFiles, f, out, r); }

std::shared_ptr<std::istream> FileSystemOps::createInputStream(P p, unsigned m) { return OpsFrame::raise("createInputStream failed: ", *this, &FileSystemOps::doCreateInputStream, p, m); }
std::shared_ptr<std::istream> FileSystemOps::createInputStream(P p, unsigned m, EC& ec) noexcept { return OpsFrame::report(ec, *this, &FileSystemOps::doCreateInputStream, p, m); }
std::shared_ptr<std::ostream> FileSystemOps::createOutputStream(P p, unsigned m) { return OpsFrame::raise("createOutputStream failed: ", *this, &FileSystemOps::doCreateOutputStream, p, m); }
std::shared_ptr<std::ostream> FileSystemOps::createOutputStream(P p, unsigned m, EC& ec) noexcept { return OpsFrame::report(ec, *this, &FileSystemOps::doCreateOutputStream, p, m); }

void FileSystemOps::createFolder(P p) { OpsFrame::raise("createFolder failed: ", *this, &FileSystemOps::doCreateFolder, p); }
void FileSystemOps::createFolder(P p, EC& ec) noexcept { OpsFrame::report(ec, *this, &FileSystemOps::doCreateFolder, p); }
void FileSystemOps::createFolders(P p) { OpsFrame::raise("createFolders failed: ", *this, &FileSystemOps::doCreateFolders, p); }
void FileSystemOps::createFolders(P p, EC& ec) noexcept { OpsFrame::report(ec, *this, &FileSystemOps::doCreateFolders, p); }
void FileSystemOps::createSymlink(P t, P l) { OpsFrame::raise("createSymlink failed: ", *this, &FileSystemOps::doCreateSymlink, t, l); }
void FileSystemOps::createSymlink(P t, P l, EC& ec) noexcept { OpsFrame::report(ec, *this, &FileSystemOps::doCreateSymlink, t, l); }

void FileSystemOps::copy(P s, P d, ExistsMode m) { OpsFrame::raise("copy failed: ", *this, &FileSystemOps::doCopy, s, d, m); }
void FileSystemOps::copy(P s, P d, ExistsMode m, EC& ec) noexcept { OpsFrame::report(ec, *this, &FileSystemOps::doCopy, s, d, m); }
void FileSystemOps::rename(P f, P t) { OpsFrame::raise("rename failed: ", *this, &FileSystemOps::doRename, f, t); }
void FileSystemOps::rename(P f, P t, EC& ec) noexcept { OpsFrame::report(ec, *this, &FileSystemOps::doRename, f, t); }
void FileSystemOps::renameIfVersion(P f, P t, std::string const& v) { OpsFrame::raise("renameIfVersion failed: ", *this, &FileSystemOps::doRenameIfVersion, f, t, v); }
void FileSystemOps::renameIfVersion(P f, P t, std::string const& v, EC& ec) noexcept { OpsFrame::report(ec, *this, &FileSystemOps::doRenameIfVersion, f, t, v); }
void FileSystemOps::remove(P p) { OpsFrame::raise("remove failed: ", *this, &FileSystemOps::doRemove, p); }
void FileSystemOps::remove(P p, EC& ec) noexcept { OpsFrame::report(ec, *this, &FileSystemOps::doRemove, p); }
void FileSystemOps::removeAll(P p) { OpsFrame::raise("removeAll failed: ", *this, &FileSystemOps::doRemoveAll, p); }
void FileSystemOps::removeAll(P p, EC& ec) noexcept { OpsFrame::report(ec, *this, &FileSystemOps::doRemoveAll, p); }

void FileSystemOps::replaceFileWithBackup(P t, FileSystemOps& so, P s, CommitOptions const& o) { OpsFrame::raise("replaceFileWithBackup failed: ", *this, &FileSystemOps::doReplaceFileWithBackup, t, so, s, o); }
void FileSystemOps::replaceFileWithBackup(P t, FileSystemOps& so, P s, CommitOptions const& o, EC& ec) noexcept { OpsFrame::report(ec, *this, &FileSystemOps::doReplaceFileWithBackup, t, so, s, o); }
// clang-format on

} // namespace opc
