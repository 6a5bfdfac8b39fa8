// The behaviour suite over the virtual back end on each scheme, and over the selector.
#include "support/BehaviourSuite.hpp"
#include "support/HostFolder.hpp"

#include <opc/FileSystemOpsSelector.hpp>
#include <opc/VirtualFileSystemOps.hpp>

#include <stratum/storage/vfs/StorageSystem.hpp>

namespace opc::test {
namespace {

namespace vfs = stratum::storage::vfs;

// The virtual back end on a `memory:` folder of a storage system of its own.
class MemoryWorld : public World {
public:
    MemoryWorld() { m_ops.createFolders(m_root); }
    FileSystemOps& ops() override { return m_ops; }
    std::u16string root() const override { return m_root; }

private:
    vfs::StorageSystemReference m_storage;
    VirtualFileSystemOps m_ops{m_storage};
    std::u16string m_root = u"memory:///behaviour root";
};

// The virtual back end on a `file:` IRI of a fresh host folder.
class FileWorld : public World {
public:
    FileWorld() : m_root(m_ops.normalizePath(m_folder.path16())) {}
    FileSystemOps& ops() override { return m_ops; }
    std::u16string root() const override { return m_root; }

private:
    HostFolder m_folder;
    vfs::StorageSystemReference m_storage;
    VirtualFileSystemOps m_ops{m_storage};
    std::u16string m_root;
};

// Whatever back end the selector picks for the root: virtual on `memory:`, local on a host folder.
class SelectorWorld : public World {
public:
    explicit SelectorWorld(bool memory) : m_root(memory ? u"memory:///selected" : m_folder.path16()) {
        ops().createFolders(m_root);
    }
    FileSystemOps& ops() override { return m_selector.getForPath(m_root); }
    std::u16string root() const override { return m_root; }

private:
    HostFolder m_folder;
    FileSystemOpsSelector m_selector{vfs::StorageSystemReference()};
    std::u16string m_root;
};

// Storage has no links and only writable/read-only permissions; a stream that opens failed is
// io_error, a non-overwriting folder copy always refuses an existing folder,
// removing a missing path fails, and PermsUnknown and not-a-date-time mean nothing special.
Capabilities const virtualCaps{false, false, false, false, false, false};

INSTANTIATE_TEST_SUITE_P(
    Virtual, BehaviourSuite,
    ::testing::Values(WorldMaker{"memory", virtualCaps, [] { return std::make_unique<MemoryWorld>(); }},
                      WorldMaker{"file", virtualCaps, [] { return std::make_unique<FileWorld>(); }},
                      WorldMaker{"selectorMemory", virtualCaps,
                                 [] { return std::make_unique<SelectorWorld>(true); }},
                      WorldMaker{"selectorLocal", Capabilities(),
                                 [] { return std::make_unique<SelectorWorld>(false); }}),
    worldName);

} // namespace
} // namespace opc::test
