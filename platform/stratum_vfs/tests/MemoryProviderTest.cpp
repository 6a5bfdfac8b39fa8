// What only the memory provider promises (snapshots, read-only folders), failures injected
// through a wrapping provider, and use from several threads.
#include "StorageWorld.hpp"

#include <stratum/storage/provider/StorageProvider.hpp>

#include <gtest/gtest.h>

#include <atomic>
#include <thread>

namespace stratum::test {
namespace {

using vfs::ErrorCode;
namespace provider = stratum::storage::provider;
namespace pt = boost::posix_time;
using vfs::AbsoluteIRI;

vfs::File memoryFile(vfs::StorageSystemReference const& storage, std::u16string const& path) {
    return vfs::File(AbsoluteIRI(u"memory://" + path), storage);
}

TEST(MemoryProvider, ReadersKeepTheSnapshotTheyOpened) {
    vfs::StorageSystemReference storage;
    vfs::File file = memoryFile(storage, u"/doc");
    writeFile(file, "first");
    vfs::ifstream early(file);
    vfs::ofstream writer(file, vfs::OpenMode::In | vfs::OpenMode::Out);
    writer << "SECOND";
    EXPECT_EQ(std::string((std::istreambuf_iterator<char>(early)), std::istreambuf_iterator<char>()), "first");
    EXPECT_EQ(readFile(file), "SECOND");  // written through, no flush needed
    // A write the storage refuses throws from that write: a file made read-only meanwhile,
    // and one removed meanwhile (its bytes could never be read again).
    vfs::setWritable(file, false);
    EXPECT_EQ(errorOf([&] { writer << "!"; }), ErrorCode::PermissionDenied);
    EXPECT_TRUE(writer.bad());
    vfs::setWritable(file, true);
    vfs::ofstream orphan(file, vfs::OpenMode::Append);
    vfs::remove(file, vfs::RemoveFileOrEmptyFolder);
    EXPECT_EQ(errorOf([&] { orphan.write("!", 1); }), ErrorCode::NotFound);
    EXPECT_EQ(vfs::exists(file.getIRI(), storage), provider::NoItem);
}

TEST(MemoryProvider, ReadOnlyFoldersRefuseChanges) {
    vfs::StorageSystemReference storage;
    vfs::Folder(AbsoluteIRI(u"memory:///locked"), storage).createFolder();
    writeFile(memoryFile(storage, u"/locked/inside"), "x");
    vfs::setWritable(vfs::Folder(AbsoluteIRI(u"memory:///locked"), storage), false);
    EXPECT_EQ(errorOf([&] { vfs::Folder(AbsoluteIRI(u"memory:///locked/new"), storage).createFolder(); }), ErrorCode::PermissionDenied);
    EXPECT_EQ(errorOf([&] { vfs::ofstream out(memoryFile(storage, u"/locked/new")); }), ErrorCode::PermissionDenied);
    EXPECT_EQ(errorOf([&] { vfs::remove(memoryFile(storage, u"/locked/inside"), vfs::RemoveFileOrEmptyFolder); }),
              ErrorCode::PermissionDenied);
    writeFile(memoryFile(storage, u"/locked/inside"), "rewritten");  // the file itself stays writable
    EXPECT_EQ(readFile(memoryFile(storage, u"/locked/inside")), "rewritten");
    EXPECT_EQ(errorOf([&] { vfs::remove(vfs::Folder(AbsoluteIRI(u"memory:///"), storage), vfs::RemoveRecursively); }),
              ErrorCode::NotSupported);
}

// Passes every call to the real provider, but fails the N-th output open with NoSpace. It
// overrides neither copyFile nor removeTree, so the interface's own versions run.
class FailingOutputs : public provider::StorageProvider {
public:
    FailingOutputs(std::shared_ptr<provider::StorageProvider> inner, int failAt) : inner_(std::move(inner)), failAt_(failAt) {}
    provider::ItemKind getKind(AbsoluteIRI const& iri) override { return inner_->getKind(iri); }
    provider::FileAttributes getAttributes(AbsoluteIRI const& iri) override { return inner_->getAttributes(iri); }
    std::vector<provider::FolderEntry> listFolder(AbsoluteIRI const& iri) override { return inner_->listFolder(iri); }
    void createFolder(AbsoluteIRI const& iri) override { inner_->createFolder(iri); }
    bool isWritable(AbsoluteIRI const& iri) override { return inner_->isWritable(iri); }
    void setWritable(AbsoluteIRI const& iri, bool writable) override { inner_->setWritable(iri, writable); }
    pt::ptime getLastModified(AbsoluteIRI const& iri) override { return inner_->getLastModified(iri); }
    void setLastModified(AbsoluteIRI const& iri, pt::ptime time) override { inner_->setLastModified(iri, time); }
    void removeFile(AbsoluteIRI const& iri) override { inner_->removeFile(iri); }
    void removeEmptyFolder(AbsoluteIRI const& iri) override { inner_->removeEmptyFolder(iri); }
    void rename(AbsoluteIRI const& from, AbsoluteIRI const& to) override { inner_->rename(from, to); }
    std::unique_ptr<std::streambuf> openInput(AbsoluteIRI const& iri) override { return inner_->openInput(iri); }
    std::unique_ptr<provider::OutputBuffer> openOutput(AbsoluteIRI const& iri, std::ios_base::openmode mode) override {
        if (++opened == failAt_) throw vfs::Exception(ErrorCode::NoSpace, iri);
        return inner_->openOutput(iri, mode);
    }
    int opened = 0;

private:
    std::shared_ptr<provider::StorageProvider> inner_;
    int failAt_;
};

TEST(MemoryProvider, InjectedFailuresStopCopyAndMoveAndKeepTheSource) {
    for (int failAt = 1; failAt <= 4; ++failAt) {
        auto source = makeFileWorld();
        for (std::u16string name : {u"a", u"b", u"c", u"d"}) writeFile(source->file(name), "content");
        auto failing = std::make_shared<FailingOutputs>(source->storage().getProvider(u"memory"), failAt);
        vfs::StorageSystemReference handle = source->storage();  // copies share the system
        handle.setProvider(u"MEMORY", failing);
        vfs::Folder destination(AbsoluteIRI(u"memory:///copy"), source->storage());
        auto item = vfs::makeFileOrFolder(source->root(), source->storage());
        EXPECT_EQ(errorOf([&] { vfs::move(item, destination, provider::DoNotReplace); }), ErrorCode::NoSpace);
        EXPECT_EQ(failing->opened, failAt);
        // The move stopped before removing anything of its source.
        EXPECT_EQ(snapshot(source->folder(u"")).size(), 4U);
        EXPECT_EQ(destination.listAll(u"").size(), static_cast<std::size_t>(failAt - 1));
    }
    // With no failure, the interface's own copyFile and removeTree do the whole tree.
    vfs::StorageSystemReference storage;
    storage.setProvider(u"memory", std::make_shared<FailingOutputs>(storage.getProvider(u"memory"), 0));
    vfs::Folder(AbsoluteIRI(u"memory:///tree/a/b"), storage).createFolderRecursive();
    writeFile(memoryFile(storage, u"/tree/a/one"), "1");
    writeFile(memoryFile(storage, u"/tree/a/b/two"), std::string(200000, '2'));
    vfs::Folder source(AbsoluteIRI(u"memory:///tree"), storage), copy(AbsoluteIRI(u"memory:///copy"), storage);
    vfs::copy(source, copy, provider::DoNotReplace);
    EXPECT_EQ(snapshot(copy), snapshot(source));
    EXPECT_EQ(snapshot(copy).size(), 4U);
    vfs::remove(copy, vfs::RemoveRecursively);
    EXPECT_EQ(vfs::exists(copy.getIRI(), storage), provider::NoItem);
    EXPECT_EQ(snapshot(source).size(), 4U);
}

TEST(MemoryProvider, ManyThreadsCreateWriteListAndRemove) {
    vfs::StorageSystemReference storage;
    vfs::File shared = memoryFile(storage, u"/shared");
    writeFile(shared, std::string(1000, 'a'));
    std::atomic<bool> torn{false};
    constexpr int threads = 4, rounds = 150;
    auto own = [](int t) { return u"/t" + std::u16string(1, static_cast<char16_t>(u'0' + t)) + u"/x/y"; };
    std::vector<std::thread> workers;
    for (int t = 0; t < threads; ++t) {
        workers.emplace_back([&, t] {
            vfs::Folder folder(AbsoluteIRI(u"memory://" + own(t)), storage);
            folder.createFolderRecursive();
            for (int i = 0; i < rounds; ++i) {
                std::u16string name = own(t) + u"/f" + std::u16string(1, static_cast<char16_t>(u'A' + i % 26));
                vfs::ofstream(memoryFile(storage, name)) << "round " << i;
                // Whole versions only: everyone overwrites the shared file in place (no
                // truncation), so a reader must never see a mix or a short file.
                vfs::ofstream(shared, vfs::OpenMode::In | vfs::OpenMode::Out) << std::string(1000, static_cast<char>('a' + (t * rounds + i) % 26));
                std::string seen = readFile(shared);
                if (seen.size() != 1000 || seen.find_first_not_of(seen[0]) != std::string::npos) torn = true;
                folder.listAll(u"");
                vfs::Folder(AbsoluteIRI(u"memory:///"), storage).listAllRecursive(u"f*");
                if (i % 3 == 0) vfs::remove(memoryFile(storage, name), vfs::RemoveFileOrEmptyFolder);
            }
        });
    }
    for (auto& worker : workers) worker.join();
    EXPECT_FALSE(torn);
    // A name survives when the last round that wrote it did not remove it.
    std::size_t expected = 0;
    for (int letter = 0; letter < 26; ++letter) expected += (letter + 26 * ((rounds - 1 - letter) / 26)) % 3 != 0;
    for (int t = 0; t < threads; ++t) {
        EXPECT_EQ(vfs::Folder(AbsoluteIRI(u"memory://" + own(t)), storage).listAll(u"").size(), expected);
    }
}

} // namespace
} // namespace stratum::test
