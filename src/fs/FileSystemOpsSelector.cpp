#include <opc/Exception.hpp>
#include <opc/FileSystemOpsSelector.hpp>
#include <opc/LocalFileSystemOps.hpp>
#include <opc/VirtualFileSystemOps.hpp>

#include <stratum/storage/vfs/IRI.hpp>

namespace opc {

// The back ends shared by every copy of a selector. Members are destroyed in reverse order,
// so the virtual back end goes first, then the local one.
struct FileSystemOpsSelector::Impl {
    std::unique_ptr<LocalFileSystemOps> physicalOps;
    std::unique_ptr<VirtualFileSystemOps> virtualOps;
};

FileSystemOpsSelector::FileSystemOpsSelector() : m_impl(std::make_shared<Impl>()) {
    m_impl->physicalOps = std::make_unique<LocalFileSystemOps>();
}

FileSystemOpsSelector::FileSystemOpsSelector(stratum::storage::vfs::StorageSystemReference const& storage)
    : m_impl(std::make_shared<Impl>()) {
    stratum::storage::vfs::StorageSystemReference copy(storage);
    m_impl->physicalOps = std::make_unique<LocalFileSystemOps>();
    m_impl->virtualOps = std::make_unique<VirtualFileSystemOps>(copy);
}

FileSystemOps& FileSystemOpsSelector::getForPath(std::u16string const& path) const {
    if (stratum::storage::vfs::hasIRIPrefix(path))
        return getVirtual();
    return *m_impl->physicalOps;
}

FileSystemOps& FileSystemOpsSelector::getVirtual() const {
    if (!m_impl->virtualOps)
        throw Exception("Virtual file system operations are not supported. A StorageSystemReference was not provided.",
                        boost::system::error_code());
    return *m_impl->virtualOps;
}

FileSystemOps& FileSystemOpsSelector::getPhysical() const { return *m_impl->physicalOps; }

FileSystemOps& FileSystemOpsSelector::getLocal() const { return getPhysical(); }

} // namespace opc
