// What only the selector does: route by the storage's prefix test, share its back ends among copies.
#include <opc/Exception.hpp>
#include <opc/FileSystemOpsSelector.hpp>
#include <opc/VirtualFileSystemOps.hpp>

#include <stratum/storage/vfs/StorageSystem.hpp>

#include <gtest/gtest.h>

#include <optional>

namespace opc::test {
namespace {

TEST(Selector, RoutesByPrefixSharesItsBackEndsAndNeedsStorageForIRIs) {
    stratum::storage::vfs::StorageSystemReference storage;
    std::optional<FileSystemOpsSelector> original(std::in_place, storage);
    FileSystemOpsSelector copy(*original);
    FileSystemOps *const local = &original->getLocal(), *const virt = &original->getVirtual();
    original.reset();
    EXPECT_EQ(&copy.getPhysical(), local);
    for (std::u16string const path : {u"memory:///a", u"MEMORY:///a", u"file:///x", u"FiLe:relative"})
        EXPECT_EQ(&copy.getForPath(path), virt);
    for (std::u16string const path : {u"/tmp/x", u"gopher:///a", u"relative/x", u"./a:b", u"/x:y", u"", u"memory"})
        EXPECT_EQ(&copy.getForPath(path), local);
    copy.getVirtual().createFolder(u"memory:///after"); // on the given storage, after the original is gone
    EXPECT_TRUE(VirtualFileSystemOps(storage).isFolder(u"memory:///after"));
    FileSystemOpsSelector const alone;
    EXPECT_TRUE(alone.getForPath(u"/").isFolder(u"/"));
    EXPECT_THROW(alone.getVirtual(), Exception);
    EXPECT_THROW(alone.getForPath(u"memory:///a"), Exception);
}

} // namespace
} // namespace opc::test
