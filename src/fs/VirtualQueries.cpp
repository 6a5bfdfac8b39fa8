// The virtual back end: existence, attributes and listings.
#include "fs/VirtualTranslate.hpp"

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

// The answers of store::exists.
constexpr int kFile = 0;
constexpr int kFolder = 1;
constexpr int kNothing = 2;

constexpr Perms::Perms_tag kWritable = Perms::Perms_tag(0644);
constexpr Perms::Perms_tag kReadOnly = Perms::Perms_tag(0444);
constexpr Perms::Perms_tag kAnyWrite = Perms::OwnerWrite | Perms::GroupWrite | Perms::OthersWrite;

int existence(std::u16string const& path, store::StorageSystemReference const& storage) {
    return static_cast<int>(store::exists(store::AbsoluteIRI(path), storage));
}

store::FileOrFolder item(std::u16string const& path, store::StorageSystemReference const& storage) {
    return store::makeFileOrFolder(store::AbsoluteIRI(path), storage);
}

} // namespace

using detail::guarded;

bool VirtualFileSystemOps::doExists(const std::u16string& path, std::string& detail, error_code& ec) {
    return guarded(detail, ec, false, [&] { return existence(path, m_storage) != kNothing; });
}

bool VirtualFileSystemOps::doIsFile(const std::u16string& path, std::string& detail, error_code& ec) {
    return guarded(detail, ec, false, [&] { return existence(path, m_storage) == kFile; });
}

bool VirtualFileSystemOps::doIsFolder(const std::u16string& path, std::string& detail, error_code& ec) {
    return guarded(detail, ec, false, [&] { return existence(path, m_storage) == kFolder; });
}

bool VirtualFileSystemOps::doIsSymlink(const std::u16string&, std::string&, error_code&) { return false; }

Perms::Perms_tag VirtualFileSystemOps::doGetPermissions(const std::u16string& path, std::string& detail,
                                                        error_code& ec) {
    return guarded(detail, ec, Perms::PermsUnknown,
                   [&] { return store::isWritable(item(path, m_storage.remembering())) ? kWritable : kReadOnly; });
}

void VirtualFileSystemOps::doSetPermissions(const std::u16string& path, Perms::Perms_tag perms,
                                            std::string& detail, error_code& ec) {
    guarded(detail, ec, [&] {
        store::AbsoluteIRI const iri(path);
        store::FileOrFolder const target = store::makeFileOrFolder(iri, m_storage);
        // Inside a commit: what the item was before, for a file later renamed over it (see
        // doRename). The host keeps the modes of file: items itself.
        if (iri.getScheme() != u"file")
            vela::filesystem::staged_rename_scope::remember_mode(
                toUDEString(iri.toString()),
                [&] { return std::uint32_t(store::isWritable(target) ? kWritable : kReadOnly); },
                [target](std::uint32_t earlier) { // a commit that failed before its rename
                    if ((earlier & kAnyWrite) == 0 && store::isWritable(target))
                        store::setWritable(target, false);
                });
        store::setWritable(target, (perms & kAnyWrite) != 0);
    });
}

FileSystemOps::ptime VirtualFileSystemOps::doGetLastModifiedTime(const std::u16string& path, std::string& detail,
                                                                 error_code& ec) {
    return guarded(detail, ec, ptime(boost::posix_time::not_a_date_time),
                   [&] { return store::getLastModified(item(path, m_storage.remembering())); });
}

void VirtualFileSystemOps::doSetLastModifiedTime(const std::u16string& path, ptime time, std::string& detail,
                                                 error_code& ec) {
    guarded(detail, ec, [&] { store::setLastModified(item(path, m_storage.remembering()), time); });
}

std::uint64_t VirtualFileSystemOps::doGetSizeInBytes(const std::u16string& path, std::string& detail,
                                                     error_code& ec) {
    // A folder goes to File all the same; the storage decides what that means.
    return guarded(detail, ec, std::uint64_t(0), [&] {
        return static_cast<std::uint64_t>(store::File(store::AbsoluteIRI(path), m_storage).getAttributes().getSize());
    });
}

std::string VirtualFileSystemOps::doGetVersionTag(const std::u16string& path, std::string& detail, error_code& ec) {
    return guarded(detail, ec, std::string(),
                   [&] { return store::getVersionTag(store::File(store::AbsoluteIRI(path), m_storage)); });
}

std::u16string VirtualFileSystemOps::doGetLinkTarget(const std::u16string&, std::string& detail, error_code& ec) {
    detail = "Symlinks are not supported";
    ec = errc::make_error_code(errc::operation_not_supported);
    return {};
}

void VirtualFileSystemOps::doGetFiles(const std::u16string& folder, std::vector<std::u16string>& files,
                                      bool recursive, std::string& detail, error_code& ec) {
    guarded(detail, ec, [&] {
        store::AbsoluteIRI const iri(folder);
        // A missing folder and a file are reported as the storage reports a missing item.
        if (static_cast<int>(store::exists(iri, m_storage)) != kFolder)
            throw store::Exception(store::ErrorCode::NotFound, iri);
        store::Folder const dir(iri, m_storage);
        auto const listing = recursive ? dir.listAllRecursive(u"") : dir.listAll(u"");
        for (auto it = listing.begin(); it != listing.end(); ++it) {
            auto const entry = it->getFileOrFolder();
            if (auto const* file = std::get_if<store::File>(&entry))
                files.push_back(file->getIRI().toString());
        }
    });
}

} // namespace opc
