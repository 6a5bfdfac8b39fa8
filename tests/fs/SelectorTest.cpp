// What only the selector does: route by the storage's prefix test, share its back ends among
// copies, and refuse IRIs when it has no storage.
#include <opc/Exception.hpp>
#include <opc/FileSystemOpsSelector.hpp>
#include <opc/VirtualFileSystemOps.hpp>

#include <stratum/storage/vfs/StorageSystem.hpp>

#include <gtest/gtest.h>

#include <optional>

namespace opc::test {
namespace {

namespace vfs = stratum::storage::vfs;

TEST(Selector, RoutesByPrefixAndSharesItsBackEndsAmongCopies) {
    vfs::StorageSystemReference storage;
    std::optional<FileSystemOpsSelector> original(std::in_place, storage);
    FileSystemOpsSelector copy(*original);
    FileSystemOps* const local = &original->getLocal();
    FileSystemOps* const virt = &original->getVirtual();
    original.reset();
    EXPECT_EQ(&copy.getPhysical(), local);
    for (std::u16string const path : {u"memory:///a", u"MEMORY:///a", u"file:///x", u"FiLe:relative"})
        EXPECT_EQ(&copy.getForPath(path), virt);
    for (std::u16string const path : {u"/tmp/x", u"gopher:///a", u"relative/x", u"./a:b", u"/x:y", u"", u"memory"})
        EXPECT_EQ(&copy.getForPath(path), local);
    copy.getVirtual().createFolder(u"memory:///after"); // on the given storage, after the original is gone
    EXPECT_TRUE(VirtualFileSystemOps(storage).isFolder(u"memory:///after"));
    EXPECT_NE(&FileSystemOpsSelector(storage).getLocal(), local) << "separate selectors own separate back ends";
}

TEST(Selector, WithoutStorageOnlyTheLocalBackEndExists) {
    FileSystemOpsSelector const selector;
    EXPECT_TRUE(selector.getForPath(u"/").isFolder(u"/"));
    for (auto ask : {+[](FileSystemOpsSelector const& s) { s.getVirtual(); },
                     +[](FileSystemOpsSelector const& s) { s.getForPath(u"memory:///a"); }}) {
        try {
            ask(selector);
            ADD_FAILURE() << "no exception";
        } catch (Exception const& e) {
            EXPECT_FALSE(e.code().failed()) << e.what();
        }
    }
}

} // namespace
} // namespace opc::test
