// One behaviour suite over every provider: `file` under a temporary folder and `memory`.
// Trees are generated at random and checked against a plain map model; stream modes are
// checked against the standard file streams on the host.
#include "StorageWorld.hpp"

#include <gtest/gtest.h>

#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <boost/date_time/posix_time/posix_time.hpp>

#include <csignal>
#include <cstdlib>
#include <fstream>
#include <functional>
#include <random>
#include <set>

namespace stratum::test {
namespace {

using vfs::ErrorCode;
using namespace vfs::OpenMode;
namespace provider = stratum::storage::provider;
using provider::DoNotReplace;
using provider::Replace;
namespace pt = boost::posix_time;

using Model = std::map<std::u16string, std::string>;

class StorageBehaviour : public ::testing::TestWithParam<std::function<std::unique_ptr<StorageWorld>()>> {
protected:
    void SetUp() override { world_ = GetParam()(); }

    StorageWorld& world() { return *world_; }
    vfs::FileOrFolder item(std::u16string const& relative) { return vfs::makeFileOrFolder(world().at(relative), world().storage()); }
    int kind(std::u16string const& relative) { return vfs::exists(world().at(relative), world().storage()); }
    std::string read(std::u16string const& relative) { return readFile(world().file(relative)); }
    void write(std::u16string const& relative, std::string const& content) { writeFile(world().file(relative), content); }

    // A random tree of hostile names below `base`, built through the storage and recorded in
    // `model` by path relative to `base`.
    void growTree(std::u16string const& base, Model& model, unsigned seed) {
        std::mt19937 random(seed);
        static std::vector<std::u16string> const pieces = {u"a", u"b", u"C", u" ", u"%", u"#", u"?", u"-", u".",
                                                           u"\u00E9", u"\U0001F600", u"\t", u"x.pkg", u"50%25"};
        std::vector<std::u16string> folders = {u""};
        for (int i = 0; i < 24; ++i) {
            std::u16string parent = folders[random() % folders.size()];
            std::u16string name;
            for (std::size_t n = 1 + random() % 4; n > 0; --n) name += pieces[random() % pieces.size()];
            if (name == u"." || name == u"..") name += u"_";
            std::u16string relative = parent.empty() ? name : parent + u"/" + name;
            if (model.count(relative)) continue;
            vfs::AbsoluteIRI iri = childIri(base, relative);
            if (random() % 3 == 0) {
                vfs::Folder(iri, world().storage()).createFolder();
                model[relative] = "<folder>";
                folders.push_back(relative);
            } else {
                std::string content(random() % 3000, 'x');
                for (auto& c : content) c = static_cast<char>(random());
                writeFile(vfs::File(iri, world().storage()), content);
                model[relative] = content;
            }
        }
    }

    // The IRI of a "/"-joined decoded relative path, one literal name at a time.
    vfs::AbsoluteIRI childIri(std::u16string const& base, std::u16string const& relative) {
        vfs::AbsoluteIRI iri = world().at(base);
        for (std::size_t start = 0; start <= relative.size();) {
            std::size_t end = std::min(relative.find(u'/', start), relative.size());
            iri = iri.getChild(relative.substr(start, end - start));
            start = end + 1;
        }
        return iri;
    }

    std::unique_ptr<StorageWorld> world_;
};

TEST_P(StorageBehaviour, ExistsAndFolderCreation) {
    EXPECT_EQ(kind(u""), provider::FolderItem);
    EXPECT_EQ(kind(u"nothing"), provider::NoItem);
    world().folder(u"a").createFolder();
    EXPECT_EQ(kind(u"a"), provider::FolderItem);
    EXPECT_EQ(errorOf([&] { world().folder(u"a").createFolder(); }), ErrorCode::FileExists);
    EXPECT_EQ(errorOf([&] { world().folder(u"x/y").createFolder(); }), ErrorCode::NotFound);
    world().folder(u"a/b c/d%25").createFolderRecursive();
    EXPECT_EQ(kind(u"a/b%20c/d%25"), provider::FolderItem);
    world().folder(u"a/b c").createFolderRecursive();  // existing: fine
    write(u"f", "1");
    EXPECT_EQ(kind(u"f"), provider::FileItem);
    EXPECT_EQ(errorOf([&] { world().folder(u"f").createFolder(); }), ErrorCode::FileExists);
    EXPECT_EQ(errorOf([&] { world().folder(u"f/g/h").createFolderRecursive(); }), ErrorCode::FileExists);
    EXPECT_EQ(errorOf([&] { world().folder(u"f/g").createFolder(); }), ErrorCode::NotFound);
}

TEST_P(StorageBehaviour, ListingsMatchAGeneratedTree) {
    for (unsigned seed = 1; seed <= 3; ++seed) {
        std::u16string base = u"tree" + std::u16string(1, static_cast<char16_t>(u'0' + seed));
        world().folder(base).createFolder();
        Model model;
        growTree(base, model, seed);
        vfs::Folder folder(world().at(base), world().storage());
        EXPECT_EQ(snapshot(folder), model);

        // Non-recursive: the direct children, sorted, with their kinds.
        std::vector<std::u16string> direct, listed;
        for (auto const& [path, content] : model) {
            if (path.find(u'/') == std::u16string::npos) direct.push_back(path);
        }
        for (auto const& entry : folder.listAll(u"")) {
            listed.push_back(entry.getIRI().getName());
            EXPECT_EQ(entry.isFolder(), model[entry.getIRI().getName()] == "<folder>");
            EXPECT_EQ(entry.getFileOrFolder().index(), entry.isFolder() ? 1U : 0U);
        }
        EXPECT_EQ(listed, direct);

        // Recursive: every item once; parents before their contents; siblings in order.
        std::set<std::vector<std::u16string>> seen;
        std::map<std::vector<std::u16string>, std::u16string> lastChild;
        auto recursive = folder.listAllRecursive(u"");
        EXPECT_EQ(recursive.size(), model.size());
        for (auto const& entry : recursive) {
            vfs::AbsoluteIRI const& iri = entry.getIRI();
            auto parent = iri.getParent().getSegments();
            EXPECT_TRUE(iri.getParent() == folder.getIRI() || seen.count(parent)) << u8(iri.toString());
            EXPECT_LT(lastChild[parent], iri.getName());
            lastChild[parent] = iri.getName();
            EXPECT_TRUE(seen.insert(iri.getSegments()).second);
        }
        for (auto const& [path, content] : model) EXPECT_TRUE(seen.count(childIri(base, path).getSegments())) << u8(path);
    }
}

TEST_P(StorageBehaviour, ListingFilterIsANameGlob) {
    for (std::u16string name : {u"a.pkg", u"b.pkg", u"ab.txt", u"abc", u"a?c", u"x.pkg.bak"}) write(name, "");
    world().folder(u"sub.pkg").createFolder();
    write(u"sub.pkg/c.pkg", "");
    struct Row {
        std::u16string filter;
        std::vector<std::u16string> names, recursiveNames;
    };
    for (Row const& row : {Row{u"*.pkg", {u"a.pkg", u"b.pkg", u"sub.pkg"}, {u"a.pkg", u"b.pkg", u"sub.pkg", u"c.pkg"}},
                           Row{u"a?c", {u"a?c", u"abc"}, {u"a?c", u"abc"}}, Row{u"c*", {}, {u"c.pkg"}}}) {
        std::vector<std::u16string> names, recursiveNames;
        for (auto const& entry : world().folder(u"").listAll(row.filter)) names.push_back(entry.getIRI().getName());
        for (auto const& entry : world().folder(u"").listAllRecursive(row.filter)) {
            recursiveNames.push_back(entry.getIRI().getName());
        }
        EXPECT_EQ(names, row.names) << u8(row.filter);
        EXPECT_EQ(recursiveNames, row.recursiveNames) << u8(row.filter);
    }
    EXPECT_EQ(errorOf([&] { world().folder(u"a.pkg").listAll(u""); }), ErrorCode::NotFound);
    EXPECT_EQ(errorOf([&] { world().folder(u"none").listAllRecursive(u""); }), ErrorCode::NotFound);
}

std::ios_base::openmode hostMode(unsigned bits, std::ios_base::openmode mode) {
    if (bits & Append) mode |= std::ios_base::app;
    if (bits & AtEnd) mode |= std::ios_base::ate;
    if (bits & Binary) mode |= std::ios_base::binary;
    if (bits & In) mode |= std::ios_base::in;
    if (bits & Out) mode |= std::ios_base::out;
    if (bits & Truncate) mode |= std::ios_base::trunc;
    return mode;
}

// Every combination of mode bits, on a missing and on an existing file, against std::ofstream
// on the host: whether it opens, and what the file holds afterwards.
TEST_P(StorageBehaviour, OutputModesActLikeStandardFileStreams) {
    std::filesystem::path host = std::filesystem::temp_directory_path() / ("stratum-mode-" + std::to_string(::getpid()) + world().name());
    auto hostContent = [&]() -> std::string {
        if (!std::filesystem::exists(host)) return "<missing>";
        std::ifstream in(host, std::ios_base::binary);
        return std::string((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    };
    for (unsigned bits = 0; bits < 64; ++bits) {
        for (bool existing : {false, true}) {
            std::filesystem::remove(host);
            std::u16string name = u"m" + std::u16string(1, static_cast<char16_t>(u'A' + bits));
            if (existing) {
                write(name, "hello");
                std::ofstream(host, std::ios_base::binary) << "hello";
            }
            bool expectedOpen, opened;
            {
                std::ofstream oracle(host, hostMode(bits, std::ios_base::out));
                expectedOpen = oracle.is_open();
                oracle << "XY";
                vfs::ofstream out(world().file(name), bits);
                opened = out.is_open() && !out.fail();
                out << "XY";
            }
            EXPECT_EQ(opened, expectedOpen) << "mode " << bits << " existing " << existing;
            EXPECT_EQ(kind(name) == provider::FileItem ? read(name) : "<missing>", hostContent()) << "mode " << bits << " existing " << existing;
            if (kind(name) == provider::FileItem) vfs::remove(world().file(name), vfs::RemoveFileOrEmptyFolder);
        }
    }
    std::filesystem::remove(host);
}

TEST_P(StorageBehaviour, InputModesOpenLikeStandardFileStreamsButNeverWrite) {
    std::filesystem::path host = std::filesystem::temp_directory_path() / ("stratum-in-" + std::to_string(::getpid()) + world().name());
    for (unsigned bits = 0; bits < 64; ++bits) {
        write(u"input", "hello");
        std::ofstream(host, std::ios_base::binary) << "hello";
        std::ifstream oracle(host, hostMode(bits & ~Binary, std::ios_base::in));
        vfs::ifstream in(world().file(u"input"), bits);
        EXPECT_EQ(in.is_open(), oracle.is_open()) << "mode " << bits;
        EXPECT_EQ(in.fail(), oracle.fail()) << "mode " << bits;
        if (oracle.is_open() && !(bits & Truncate)) {
            std::string ours((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
            std::string theirs((std::istreambuf_iterator<char>(oracle)), std::istreambuf_iterator<char>());
            EXPECT_EQ(ours, theirs) << "mode " << bits;
        }
        EXPECT_EQ(read(u"input"), "hello") << "an input stream changed the file, mode " << bits;
    }
    std::filesystem::remove(host);
}

TEST_P(StorageBehaviour, WritesGoThroughAtOnce) {
    write(u"visible", "old");
    vfs::ofstream out(world().file(u"visible"), Out | Binary);
    out << "new content";
    EXPECT_EQ(read(u"visible"), "new content");
    EXPECT_EQ(world().file(u"visible").getAttributes().getSize(), 11U);
    EXPECT_EQ(out.tellp(), std::streampos(11));
    out << "!";
    out.close();
    EXPECT_EQ(read(u"visible"), "new content!");
}

TEST_P(StorageBehaviour, FailuresAtOpeningAndOnMissingItems) {
    world().folder(u"dir").createFolder();
    EXPECT_TRUE(vfs::ifstream(world().file(u"missing")).fail());
    EXPECT_TRUE(vfs::ifstream(world().file(u"dir")).fail());
    EXPECT_EQ(errorOf([&] { vfs::ofstream out(world().file(u"dir")); }), ErrorCode::IOError);
    EXPECT_EQ(errorOf([&] { vfs::ofstream out(world().file(u"none/x")); }), ErrorCode::NotFound);
    EXPECT_EQ(kind(u"none"), provider::NoItem);
    EXPECT_EQ(errorOf([&] { world().file(u"dir").getAttributes(); }), ErrorCode::NotFound);
    EXPECT_EQ(errorOf([&] { item(u"gone"); }), ErrorCode::NotFound);
    EXPECT_EQ(errorOf([&] { vfs::isWritable(world().file(u"gone")); }), ErrorCode::NotFound);
    EXPECT_EQ(errorOf([&] { vfs::setWritable(world().file(u"gone"), true); }), ErrorCode::NotFound);
    EXPECT_EQ(errorOf([&] { vfs::getLastModified(world().file(u"gone")); }), ErrorCode::NotFound);
    write(u"f", std::string(1234, 'z'));
    EXPECT_EQ(world().file(u"f").getAttributes().getSize(), 1234U);
    EXPECT_EQ(item(u"f").index(), 0U);
    EXPECT_EQ(vfs::getIRI(item(u"dir")), world().at(u"dir"));
}

TEST_P(StorageBehaviour, ReadOnlyFilesRefuseOutputButStayReadable) {
    vfs::File file = world().file(u"ro");
    write(u"ro", "keep");
    EXPECT_TRUE(file.getAttributes().isWritable());
    vfs::setWritable(file, false);
    EXPECT_FALSE(vfs::isWritable(file));
    EXPECT_FALSE(file.getAttributes().isWritable());
    for (unsigned mode : {Out, Append, In | Out, Out | Truncate}) {
        EXPECT_EQ(errorOf([&] { vfs::ofstream out(file, mode); }), ErrorCode::PermissionDenied) << mode;
    }
    EXPECT_EQ(read(u"ro"), "keep");
    vfs::setWritable(file, true);
    write(u"ro", "changed");
    EXPECT_EQ(read(u"ro"), "changed");
    world().folder(u"d").createFolder();
    vfs::setWritable(world().folder(u"d"), false);
    EXPECT_FALSE(vfs::isWritable(world().folder(u"d")));
    vfs::setWritable(world().folder(u"d"), true);
    EXPECT_TRUE(vfs::isWritable(world().folder(u"d")));
}

TEST_P(StorageBehaviour, ModificationTimes) {
    write(u"t", "1");
    world().folder(u"d").createFolder();
    pt::ptime const past = pt::time_from_string("2001-02-03 04:05:06.123456");
    for (vfs::FileOrFolder target : {item(u"t"), item(u"d")}) {
        vfs::setLastModified(target, past);
        EXPECT_EQ(vfs::getLastModified(target), past);
    }
    EXPECT_EQ(world().file(u"t").getAttributes().getLastModified(), past);
    write(u"t", "2");
    EXPECT_GT(vfs::getLastModified(item(u"t")), past);
    EXPECT_LE(vfs::getLastModified(item(u"t")), pt::microsec_clock::universal_time());
    EXPECT_EQ(errorOf([&] { vfs::setLastModified(item(u"t"), pt::ptime(pt::not_a_date_time)); }), ErrorCode::NotSupported);
}

TEST_P(StorageBehaviour, CopyAndMoveFilesWithEachPolicy) {
    write(u"src", "source");
    write(u"dst", "old");
    EXPECT_EQ(errorOf([&] { vfs::copy(item(u"src"), world().file(u"dst"), DoNotReplace); }), ErrorCode::FileExists);
    EXPECT_EQ(read(u"dst"), "old");
    vfs::copy(item(u"src"), world().file(u"dst"), Replace);
    EXPECT_EQ(read(u"dst"), "source");
    // Onto itself: nothing changes, or FileExists when replacing is not allowed.
    vfs::copy(item(u"src"), world().file(u"src"), Replace);
    EXPECT_EQ(read(u"src"), "source");
    EXPECT_EQ(errorOf([&] { vfs::copy(item(u"src"), world().file(u"src"), DoNotReplace); }), ErrorCode::FileExists);
    EXPECT_EQ(errorOf([&] { vfs::copy(world().file(u"gone"), world().file(u"x"), Replace); }), ErrorCode::NotFound);
    EXPECT_EQ(errorOf([&] { vfs::copy(item(u"src"), world().file(u"no/x"), Replace); }), ErrorCode::NotFound);
    // A read-only source gives a read-only copy, which Replace still replaces.
    vfs::setWritable(world().file(u"src"), false);
    vfs::copy(item(u"src"), world().file(u"ro copy"), DoNotReplace);
    EXPECT_FALSE(vfs::isWritable(world().file(u"ro copy")));
    write(u"b", "B");
    vfs::copy(item(u"b"), world().file(u"ro copy"), Replace);
    EXPECT_EQ(read(u"ro copy"), "B");

    EXPECT_EQ(errorOf([&] { vfs::move(item(u"dst"), world().file(u"b"), DoNotReplace); }), ErrorCode::FileExists);
    vfs::move(item(u"dst"), world().file(u"b"), Replace);
    EXPECT_EQ(kind(u"dst"), provider::NoItem);
    EXPECT_EQ(read(u"b"), "source");
    world().folder(u"d").createFolder();
    vfs::move(item(u"b"), world().file(u"d/b 2"), DoNotReplace);
    EXPECT_EQ(read(u"d/b 2"), "source");
    EXPECT_EQ(errorOf([&] { vfs::move(world().file(u"b"), world().file(u"c"), Replace); }), ErrorCode::NotFound);
    EXPECT_EQ(errorOf([&] { vfs::move(item(u"d/b 2"), world().file(u"none/c"), Replace); }), ErrorCode::NotFound);
    EXPECT_EQ(read(u"d/b 2"), "source");
    // A file never replaces a folder, empty or not, and nothing in it is lost.
    world().folder(u"empty").createFolder();
    for (std::u16string folder : {u"d", u"empty"}) {
        EXPECT_EQ(errorOf([&] { vfs::copy(item(u"src"), world().file(folder), Replace); }), ErrorCode::FileExists);
        EXPECT_EQ(errorOf([&] { vfs::move(item(u"src"), world().file(folder), Replace); }), ErrorCode::FileExists);
        EXPECT_EQ(kind(folder), provider::FolderItem);
    }
    EXPECT_EQ(read(u"d/b 2"), "source");
    EXPECT_EQ(read(u"src"), "source");
}

TEST_P(StorageBehaviour, CopyAndMoveTrees) {
    world().folder(u"src").createFolder();
    Model model;
    growTree(u"src", model, 42);
    vfs::copy(item(u"src"), world().folder(u"copy"), DoNotReplace);
    EXPECT_EQ(snapshot(world().folder(u"copy")), model);
    EXPECT_EQ(snapshot(world().folder(u"src")), model);
    EXPECT_EQ(errorOf([&] { vfs::copy(item(u"src"), world().folder(u"copy"), DoNotReplace); }), ErrorCode::FileExists);
    // Replace drops what was in the destination.
    write(u"copy/extra", "extra");
    vfs::copy(item(u"src"), world().folder(u"copy"), Replace);
    EXPECT_EQ(snapshot(world().folder(u"copy")), model);
    EXPECT_EQ(errorOf([&] { vfs::copy(item(u"src"), world().folder(u"src/inner"), Replace); }), ErrorCode::NotSupported);
    EXPECT_EQ(errorOf([&] { vfs::move(item(u"src"), world().folder(u"src/inner"), Replace); }), ErrorCode::NotSupported);

    vfs::move(item(u"copy"), world().folder(u"moved"), DoNotReplace);
    EXPECT_EQ(kind(u"copy"), provider::NoItem);
    EXPECT_EQ(snapshot(world().folder(u"moved")), model);
    // Moving a folder over an existing one replaces it only under Replace.
    world().folder(u"target").createFolder();
    write(u"target/old", "old");
    EXPECT_EQ(errorOf([&] { vfs::move(item(u"moved"), world().folder(u"target"), DoNotReplace); }), ErrorCode::FileExists);
    EXPECT_EQ(snapshot(world().folder(u"moved")), model);
    vfs::move(item(u"moved"), world().folder(u"target"), Replace);
    EXPECT_EQ(snapshot(world().folder(u"target")), model);
    vfs::move(item(u"target"), world().folder(u"target"), DoNotReplace);  // onto itself: nothing happens
    EXPECT_EQ(snapshot(world().folder(u"target")), model);
}

TEST_P(StorageBehaviour, RemoveWithEachPolicy) {
    write(u"f", "x");
    vfs::setWritable(world().file(u"f"), false);
    vfs::remove(item(u"f"), vfs::RemoveFileOrEmptyFolder);
    EXPECT_EQ(kind(u"f"), provider::NoItem);
    world().folder(u"empty").createFolder();
    vfs::remove(item(u"empty"), vfs::RemoveFileOrEmptyFolder);
    EXPECT_EQ(kind(u"empty"), provider::NoItem);
    world().folder(u"full/deeper").createFolderRecursive();
    write(u"full/deeper/f", "x");
    EXPECT_EQ(errorOf([&] { vfs::remove(item(u"full"), vfs::RemoveFileOrEmptyFolder); }), ErrorCode::DirectoryNotEmpty);
    EXPECT_EQ(read(u"full/deeper/f"), "x");
    vfs::remove(item(u"full"), vfs::RemoveRecursively);
    EXPECT_EQ(kind(u"full"), provider::NoItem);
    EXPECT_EQ(errorOf([&] { vfs::remove(world().file(u"full"), vfs::RemoveRecursively); }), ErrorCode::NotFound);
    EXPECT_TRUE(world().folder(u"").listAll(u"").empty());
}

INSTANTIATE_TEST_SUITE_P(Providers, StorageBehaviour, ::testing::Values(&makeFileWorld, &makeMemoryWorld),
                         [](auto const& info) { return info.index == 0 ? "file" : "memory"; });

// What only the `file` provider can show: a host that refuses a write, hard links, modes.
TEST(FileProvider, ARefusedWriteThrowsFromThatWriteAndAFailedCopyKeepsTheDestination) {
    auto world = makeFileWorld();
    writeFile(world->file(u"large"), std::string(100000, 'l'));
    writeFile(world->file(u"small"), "old");
    vfs::ofstream out(world->file(u"grows"));
    std::string const block(16384, 'b');
    // Run in a child limited to 64 KiB per file (SIGXFSZ ignored, so writes fail with EFBIG).
    auto limited = [&] {
        rlimit const limit{65536, 65536};
        std::signal(SIGXFSZ, SIG_IGN);
        ::setrlimit(RLIMIT_FSIZE, &limit);
        int blocks = 0;
        try {
            for (; blocks < 8; ++blocks) out.write(block.data(), block.size());
        } catch (vfs::Exception const& e) {
            if (e.getErrorCode() != ErrorCode::FileTooLarge) std::_Exit(2);
        }
        if (blocks != 4 || !out.bad()) std::_Exit(3);
        auto large = vfs::makeFileOrFolder(world->at(u"large"), world->storage());
        if (errorOf([&] { vfs::copy(large, world->file(u"small"), Replace); }) != ErrorCode::FileTooLarge) std::_Exit(4);
        std::_Exit(readFile(world->file(u"small")) == "old" && world->folder(u"").listAll(u"").size() == 3 ? 0 : 5);
    };
    EXPECT_EXIT(limited(), ::testing::ExitedWithCode(0), "");
}

TEST(FileProvider, ReplacingNeverWritesIntoALinkedFileNorWidensItsMode) {
    auto world = makeFileWorld();
    std::string const host = u8(world->root().getPath()) + "/";
    auto mode = [&](char const* name) {
        struct stat st {};
        EXPECT_EQ(::stat((host + name).c_str(), &st), 0) << name;
        return st.st_mode & 07777;
    };
    auto item = [&](std::u16string const& name) { return vfs::makeFileOrFolder(world->at(name), world->storage()); };
    writeFile(world->file(u"outside"), "kept");
    writeFile(world->file(u"new"), "new");
    ::chmod((host + "outside").c_str(), 0600);
    ::chmod((host + "new").c_str(), 0644);
    ASSERT_EQ(::link((host + "outside").c_str(), (host + "planted").c_str()), 0);
    vfs::copy(item(u"new"), world->file(u"planted"), Replace);
    EXPECT_EQ(readFile(world->file(u"planted")), "new");
    EXPECT_EQ(readFile(world->file(u"outside")), "kept");
    EXPECT_EQ(mode("planted"), 0600U);
    // Writability moves the write bits only.
    ::chmod((host + "planted").c_str(), 0660);
    vfs::setWritable(world->file(u"planted"), false);
    EXPECT_EQ(mode("planted"), 0440U);
    vfs::setWritable(world->file(u"planted"), true);
    EXPECT_EQ(mode("planted"), 0640U);
    ::chmod((host + "planted").c_str(), 0600);
    vfs::setWritable(world->file(u"planted"), true);
    EXPECT_EQ(mode("planted"), 0600U);
    vfs::move(item(u"new"), world->file(u"planted"), Replace);
    EXPECT_EQ(mode("planted"), 0600U);
    EXPECT_EQ(readFile(world->file(u"planted")), "new");
}

} // namespace
} // namespace stratum::test
