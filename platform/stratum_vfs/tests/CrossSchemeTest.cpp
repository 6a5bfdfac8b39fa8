// Copies and moves between schemes and between storage systems: content streams from one
// provider to the other; trees, flags and policies behave as within one provider.
#include "StorageWorld.hpp"

#include <gtest/gtest.h>

namespace stratum::test {
namespace {

using vfs::ErrorCode;
namespace provider = stratum::storage::provider;

class CrossScheme : public ::testing::Test {
protected:
    void SetUp() override {
        vfs::Folder(vfs::AbsoluteIRI(u"memory:///m"), storage()).createFolder();
        // A small tree with awkward names, a nested folder and a read-only file.
        disk_->folder(u"tree/sub dir/deep").createFolderRecursive();
        writeFile(disk_->file(u"tree/a%25b"), "percent");
        writeFile(disk_->file(u"tree/sub dir/\u00E9t\u00E9"), std::string(100000, '\x7F'));
        writeFile(disk_->file(u"tree/sub dir/deep/empty"), "");
        vfs::setWritable(disk_->file(u"tree/a%25b"), false);
        original_ = snapshot(disk_->folder(u"tree"));
        ASSERT_EQ(original_.size(), 5U);
    }

    vfs::StorageSystemReference const& storage() const { return disk_->storage(); }
    vfs::AbsoluteIRI memory(std::u16string const& relative) const { return vfs::AbsoluteIRI(u"memory:///m/" + relative); }
    vfs::Folder memoryFolder(std::u16string const& relative) const { return vfs::Folder(memory(relative), storage()); }
    vfs::File memoryFile(std::u16string const& relative) const { return vfs::File(memory(relative), storage()); }
    vfs::FileOrFolder tree() const { return vfs::makeFileOrFolder(disk_->at(u"tree"), storage()); }

    std::unique_ptr<StorageWorld> disk_ = makeFileWorld();
    std::map<std::u16string, std::string> original_;
};

TEST_F(CrossScheme, TreeCopiesToMemoryAndBack) {
    vfs::copy(tree(), memoryFolder(u"tree"), provider::DoNotReplace);
    EXPECT_EQ(snapshot(memoryFolder(u"tree")), original_);
    EXPECT_FALSE(vfs::isWritable(memoryFile(u"tree/a%25b")));
    EXPECT_EQ(errorOf([&] { vfs::copy(tree(), memoryFolder(u"tree"), provider::DoNotReplace); }), ErrorCode::FileExists);
    vfs::copy(memoryFolder(u"tree"), disk_->folder(u"back"), provider::DoNotReplace);
    EXPECT_EQ(snapshot(disk_->folder(u"back")), original_);
}

TEST_F(CrossScheme, MovesStreamThenRemoveTheSource) {
    vfs::move(tree(), memoryFolder(u"moved"), provider::DoNotReplace);
    EXPECT_EQ(vfs::exists(disk_->at(u"tree"), storage()), provider::NoItem);
    EXPECT_EQ(snapshot(memoryFolder(u"moved")), original_);
    // A file over an existing file of the other scheme: refused, then replaced.
    writeFile(disk_->file(u"target"), "old");
    vfs::File moving = memoryFile(u"moved/sub%20dir/deep/empty");
    EXPECT_EQ(errorOf([&] { vfs::move(moving, disk_->file(u"target"), provider::DoNotReplace); }), ErrorCode::FileExists);
    vfs::move(moving, disk_->file(u"target"), provider::Replace);
    EXPECT_EQ(readFile(disk_->file(u"target")), "");
    EXPECT_EQ(vfs::exists(moving.getIRI(), storage()), provider::NoItem);
    // A missing destination parent leaves the source where it was.
    EXPECT_EQ(errorOf([&] { vfs::move(memoryFile(u"moved/a%25b"), disk_->file(u"none/x"), provider::Replace); }),
              ErrorCode::NotFound);
    EXPECT_EQ(readFile(memoryFile(u"moved/a%25b")), "percent");
}

TEST_F(CrossScheme, StorageSystemsKeepSeparateMemoryTrees) {
    vfs::StorageSystemReference other;
    vfs::StorageSystemReference copyOfFirst = storage();
    EXPECT_TRUE(copyOfFirst == storage());
    EXPECT_FALSE(other == storage());
    EXPECT_EQ(vfs::exists(memory(u""), copyOfFirst), provider::FolderItem);
    EXPECT_EQ(vfs::exists(memory(u""), other), provider::NoItem);
    // Between two systems even the same scheme is a copy through streams.
    vfs::File source(vfs::AbsoluteIRI(u"memory:///one"), storage());
    vfs::File destination(vfs::AbsoluteIRI(u"memory:///one"), other);
    writeFile(source, "first system");
    vfs::move(source, destination, provider::DoNotReplace);
    EXPECT_EQ(vfs::exists(source.getIRI(), storage()), provider::NoItem);
    EXPECT_EQ(readFile(destination), "first system");
    EXPECT_THROW(other.getProvider(u"http"), vfs::UnsupportedIRISchemeException);
    EXPECT_THROW(other.setProvider(u"http", other.getProvider(u"memory")), vfs::UnsupportedIRISchemeException);
}

} // namespace
} // namespace stratum::test
