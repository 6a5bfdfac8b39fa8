// The virtual back end: folder creation, copy, rename, removal and the commit.
#include "fs/VirtualTranslate.hpp"

#include "commit/CommitReport.hpp"
#include <opc/Exception.hpp>
#include <opc/Text.hpp>
#include <opc/VirtualFileSystemOps.hpp>

#include <stratum/storage/vfs/Exception.hpp>
#include <stratum/storage/vfs/File.hpp>
#include <stratum/storage/vfs/IRI.hpp>
#include <stratum/storage/vfs/Operations.hpp>
#include <vela/filesystem/operations.hpp>

namespace opc {
namespace {

namespace store = stratum::storage::vfs;
namespace errc = boost::system::errc;
namespace provider = stratum::storage::provider;

// Storage policies, by value.
constexpr std::uint32_t kKeepDestination = 0;
constexpr std::uint32_t kReplaceDestination = 1;
constexpr std::uint32_t kRemoveFileOrEmptyFolder = 0;
constexpr std::uint32_t kRemoveWithContents = 1;

store::FileOrFolder item(std::u16string const& path, store::StorageSystemReference const& storage) {
    return store::makeFileOrFolder(store::AbsoluteIRI(path), storage);
}

// The source as it is in storage, and a destination object of the same kind (a File for a
// file, a Folder for a folder) whatever the destination IRI looks like.
std::pair<store::FileOrFolder, store::FileOrFolder> pairOf(std::u16string const& source,
                                                           std::u16string const& destination,
                                                           store::StorageSystemReference const& storage) {
    store::AbsoluteIRI const from(source);
    store::AbsoluteIRI const to(destination);
    store::FileOrFolder src = store::makeFileOrFolder(from, storage);
    if (std::holds_alternative<store::File>(src))
        return {std::move(src), store::FileOrFolder(store::File(to, storage))};
    return {std::move(src), store::FileOrFolder(store::Folder(to, storage))};
}

// Inside a commit, a file moved over one that was read-only before the commit made it writable
// is made read-only first, so that the new file is never left wider than the old one and
// nothing is left to narrow after the move. The host keeps the modes of file: items itself;
// where the storage cannot mark the file, the move goes ahead as before.
void keepEarlierReadOnly(store::FileOrFolder const& source, std::u16string const& destination) {
    store::AbsoluteIRI const iri(destination);
    std::uint32_t earlier = 0;
    if (!std::holds_alternative<store::File>(source) || iri.getScheme() == u"file" ||
        !vela::filesystem::staged_rename_scope::remembered_mode(toUDEString(iri.toString()), earlier) ||
        (earlier & 0222) != 0)
        return;
    try {
        store::setWritable(source, false);
    } catch (store::Exception const&) {
    }
}

} // namespace

using detail::guarded;

void VirtualFileSystemOps::doCreateFolder(const std::u16string& path, std::string& detail, error_code& ec) {
    guarded(detail, ec, [&] { store::Folder(store::AbsoluteIRI(path), m_storage).createFolder(); });
}

void VirtualFileSystemOps::doCreateFolders(const std::u16string& path, std::string& detail, error_code& ec) {
    guarded(detail, ec, [&] { store::Folder(store::AbsoluteIRI(path), m_storage).createFolderRecursive(); });
}

void VirtualFileSystemOps::doCreateSymlink(const std::u16string&, const std::u16string&, std::string& detail,
                                           error_code& ec) {
    detail = "Creation of symlinks is not supported by VirtualFileSystemOps";
    ec = errc::make_error_code(errc::operation_not_supported);
}

void VirtualFileSystemOps::doCopy(const std::u16string& source, const std::u16string& destination, ExistsMode mode,
                                  std::string& detail, error_code& ec) {
    guarded(detail, ec, [&] {
        auto const [from, to] = pairOf(source, destination, m_storage.remembering());
        store::copy(from, to, provider::ReplacementPolicy(mode == Overwrite ? kReplaceDestination : kKeepDestination));
    });
}

void VirtualFileSystemOps::doRename(const std::u16string& from, const std::u16string& to, std::string& detail,
                                    error_code& ec) {
    // Unlike copy, a rename always replaces an existing destination.
    guarded(detail, ec, [&] {
        auto const [source, destination] = pairOf(from, to, m_storage.remembering());
        keepEarlierReadOnly(source, to);
        store::move(source, destination, provider::ReplacementPolicy(kReplaceDestination));
    });
}

void VirtualFileSystemOps::doRenameIfVersion(const std::u16string& from, const std::u16string& to,
                                             const std::string& expectedVersion, std::string& detail,
                                             error_code& ec) {
    guarded(detail, ec, [&] {
        store::File const source(store::AbsoluteIRI(from), m_storage);
        keepEarlierReadOnly(source, to);
        store::moveIfVersion(source, store::File(store::AbsoluteIRI(to), m_storage), expectedVersion);
    });
}

void VirtualFileSystemOps::doRemove(const std::u16string& path, std::string& detail, error_code& ec) {
    guarded(detail, ec,
            [&] { store::remove(item(path, m_storage.remembering()), store::FolderRemovalPolicy(kRemoveFileOrEmptyFolder)); });
}

void VirtualFileSystemOps::doRemoveAll(const std::u16string& path, std::string& detail, error_code& ec) {
    guarded(detail, ec, [&] { store::remove(item(path, m_storage.remembering()), store::FolderRemovalPolicy(kRemoveWithContents)); });
}

void VirtualFileSystemOps::doReplaceFileWithBackup(const std::u16string& targetPath, FileSystemOps& sourceOps,
                                                   const std::u16string& sourcePath, const CommitOptions& options,
                                                   std::string& detail, error_code& ec) {
    guarded(detail, ec, [&] { detail::commitAndReport(*this, targetPath, sourceOps, sourcePath, options, detail, ec); });
}

} // namespace opc
