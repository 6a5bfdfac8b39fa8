// The selector: which back end a path goes to, the shared record among copies, and a
// selector without storage.
#include "support/HostFolder.hpp"

#include <opc/Exception.hpp>
#include <opc/FileSystemOpsSelector.hpp>
#include <opc/LocalFileSystemOps.hpp>
#include <opc/VirtualFileSystemOps.hpp>

#include <stratum/storage/vfs/IRI.hpp>
#include <stratum/storage/vfs/StorageSystem.hpp>

#include <gtest/gtest.h>

#include <optional>

namespace opc::test {
namespace {

namespace vfs = stratum::storage::vfs;

constexpr char const* kNoStorage =
    "Virtual file system operations are not supported. A StorageSystemReference was not provided.";

TEST(Selector, RoutesByTheStoragePrefixTestAlone) {
    vfs::StorageSystemReference storage;
    FileSystemOpsSelector const selector(storage);
    // With and without an IRI prefix the storage knows; the storage's own test decides.
    for (std::u16string const path : {u"memory:///a", u"MEMORY:///a", u"file:///tmp/x", u"FiLe:relative", u"/tmp/x",
                                      u"relative/x", u"./a:b", u"a/b:c", u"/x:y", u"gopher:///a", u"", u"memory"}) {
        SCOPED_TRACE(std::string(path.begin(), path.end()));
        FileSystemOps& chosen = selector.getForPath(path);
        if (vfs::hasIRIPrefix(path)) {
            EXPECT_NE(dynamic_cast<VirtualFileSystemOps*>(&chosen), nullptr);
            EXPECT_EQ(&chosen, &selector.getVirtual());
        } else {
            EXPECT_NE(dynamic_cast<LocalFileSystemOps*>(&chosen), nullptr);
            EXPECT_EQ(&chosen, &selector.getLocal());
        }
    }
    EXPECT_EQ(&selector.getLocal(), &selector.getPhysical());
    // The virtual back end works on the given storage, not on one of its own.
    selector.getForPath(u"memory:///shared").createFolders(u"memory:///shared/inner");
    EXPECT_TRUE(VirtualFileSystemOps(storage).isFolder(u"memory:///shared/inner"));
    EXPECT_FALSE(VirtualFileSystemOps(vfs::StorageSystemReference()).exists(u"memory:///shared"));
}

TEST(Selector, WithoutStorageOnlyTheLocalBackEndExists) {
    FileSystemOpsSelector const selector;
    HostFolder host;
    EXPECT_TRUE(selector.getForPath(host.path16()).isFolder(host.path16()));
    for (auto ask : {+[](FileSystemOpsSelector const& s) -> FileSystemOps& { return s.getVirtual(); },
                     +[](FileSystemOpsSelector const& s) -> FileSystemOps& { return s.getForPath(u"memory:///a"); }}) {
        try {
            ask(selector);
            FAIL() << "no exception";
        } catch (Exception const& e) {
            EXPECT_STREQ(e.what(), kNoStorage);
            EXPECT_FALSE(e.code().failed());
            EXPECT_EQ(e.code(), boost::system::error_code());
        }
    }
}

TEST(Selector, CopiesShareTheBackEndsWhichOutliveTheOriginal) {
    vfs::StorageSystemReference storage;
    std::optional<FileSystemOpsSelector> original(std::in_place, storage);
    FileSystemOps* const local = &original->getLocal();
    FileSystemOps* const virt = &original->getVirtual();
    FileSystemOpsSelector copy(*original);
    FileSystemOpsSelector assigned;
    assigned = *original;
    original.reset();
    for (auto const* s : {&copy, &assigned}) {
        EXPECT_EQ(&s->getLocal(), local);
        EXPECT_EQ(&s->getVirtual(), virt);
    }
    // Still usable after the original is gone.
    copy.getVirtual().createFolder(u"memory:///after");
    EXPECT_TRUE(assigned.getForPath(u"memory:///after").isFolder(u"memory:///after"));

    FileSystemOpsSelector const other(storage);
    EXPECT_NE(&other.getLocal(), local) << "separately made selectors own separate back ends";
}

} // namespace
} // namespace opc::test
