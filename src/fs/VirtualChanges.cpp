// The virtual back end: folder creation, copy, rename, removal and the commit.
#include "fs/VirtualTranslate.hpp"

#include "commit/CommitReport.hpp"
#include <opc/Exception.hpp>
#include <opc/VirtualFileSystemOps.hpp>

#include <stratum/storage/vfs/IRI.hpp>
#include <stratum/storage/vfs/File.hpp>
#include <stratum/storage/vfs/Operations.hpp>

namespace opc {
namespace {

namespace vfs = stratum::storage::vfs;
namespace errc = boost::system::errc;
namespace provider = stratum::storage::provider;

// Storage policies, by value.
constexpr std::uint32_t kKeepDestination = 0;
constexpr std::uint32_t kReplaceDestination = 1;
constexpr std::uint32_t kRemoveFileOrEmptyFolder = 0;
constexpr std::uint32_t kRemoveWithContents = 1;

vfs::FileOrFolder item(std::u16string const& path, vfs::StorageSystemReference const& storage) {
    return vfs::makeFileOrFolder(vfs::AbsoluteIRI(path), storage);
}

// The source as it is in storage, and a destination object of the same kind (a File for a
// file, a Folder for a folder) whatever the destination IRI looks like.
std::pair<vfs::FileOrFolder, vfs::FileOrFolder> pairOf(std::u16string const& source,
                                                       std::u16string const& destination,
                                                       vfs::StorageSystemReference const& storage) {
    vfs::AbsoluteIRI const from(source);
    vfs::AbsoluteIRI const to(destination);
    vfs::FileOrFolder src = vfs::makeFileOrFolder(from, storage);
    if (std::holds_alternative<vfs::File>(src))
        return {std::move(src), vfs::FileOrFolder(vfs::File(to, storage))};
    return {std::move(src), vfs::FileOrFolder(vfs::Folder(to, storage))};
}

} // namespace

using detail::guarded;

void VirtualFileSystemOps::doCreateFolder(const std::u16string& path, std::string& detail, error_code& ec) {
    guarded(detail, ec, [&] { vfs::Folder(vfs::AbsoluteIRI(path), m_storage).createFolder(); });
}

void VirtualFileSystemOps::doCreateFolders(const std::u16string& path, std::string& detail, error_code& ec) {
    guarded(detail, ec, [&] { vfs::Folder(vfs::AbsoluteIRI(path), m_storage).createFolderRecursive(); });
}

void VirtualFileSystemOps::doCreateSymlink(const std::u16string&, const std::u16string&, std::string& detail,
                                           error_code& ec) {
    detail = "Creation of symlinks is not supported by VirtualFileSystemOps";
    ec = errc::make_error_code(errc::operation_not_supported);
}

void VirtualFileSystemOps::doCopy(const std::u16string& source, const std::u16string& destination, ExistsMode mode,
                                  std::string& detail, error_code& ec) {
    guarded(detail, ec, [&] {
        auto const [from, to] = pairOf(source, destination, m_storage);
        vfs::copy(from, to, provider::ReplacementPolicy(mode == Overwrite ? kReplaceDestination : kKeepDestination));
    });
}

void VirtualFileSystemOps::doRename(const std::u16string& from, const std::u16string& to, std::string& detail,
                                    error_code& ec) {
    // Unlike copy, a rename always replaces an existing destination.
    guarded(detail, ec, [&] {
        auto const [source, destination] = pairOf(from, to, m_storage);
        vfs::move(source, destination, provider::ReplacementPolicy(kReplaceDestination));
    });
}

void VirtualFileSystemOps::doRemove(const std::u16string& path, std::string& detail, error_code& ec) {
    guarded(detail, ec,
            [&] { vfs::remove(item(path, m_storage), vfs::FolderRemovalPolicy(kRemoveFileOrEmptyFolder)); });
}

void VirtualFileSystemOps::doRemoveAll(const std::u16string& path, std::string& detail, error_code& ec) {
    guarded(detail, ec, [&] { vfs::remove(item(path, m_storage), vfs::FolderRemovalPolicy(kRemoveWithContents)); });
}

void VirtualFileSystemOps::doReplaceFileWithBackup(const std::u16string& targetPath, FileSystemOps& sourceOps,
                                                   const std::u16string& sourcePath, const CommitOptions& options,
                                                   std::string& detail, error_code& ec) {
    guarded(detail, ec, [&] {
        detail::commitAndReport(*this, targetPath, sourceOps, sourcePath, options, detail, ec);
    });
}

} // namespace opc
