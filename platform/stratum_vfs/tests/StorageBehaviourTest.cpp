// One behaviour suite over every provider: `file` under a temporary folder and `memory`.
// Trees are generated at random and checked against a plain map model; stream modes are
// checked against the standard file streams on the host.
#include "StorageWorld.hpp"
#include "TestText.hpp"

#include <gtest/gtest.h>

#include <boost/date_time/posix_time/posix_time.hpp>

#include <filesystem>
#include <fstream>
#include <functional>
#include <random>
#include <set>
#include <sstream>

namespace stratum::test {
namespace {

using vfs::ErrorCode;
using vfs::FileOrFolder;
using namespace vfs::OpenMode;
namespace provider = stratum::storage::provider;
namespace pt = boost::posix_time;

using Model = std::map<std::u16string, std::string>;

class StorageBehaviour : public ::testing::TestWithParam<std::function<std::unique_ptr<StorageWorld>()>> {
protected:
    void SetUp() override { world_ = GetParam()(); }

    StorageWorld& world() { return *world_; }
    FileOrFolder item(std::u16string const& relative) { return vfs::makeFileOrFolder(world().at(relative), world().storage()); }

    // A random tree of hostile names below `base` (relative to the world root), built through
    // the storage and recorded in `model` (paths relative to `base`).
    void growTree(std::u16string const& base, Model& model, unsigned seed) {
        std::mt19937 random(seed);
        static std::vector<std::u16string> const pieces = {u"a", u"b", u"C", u" ", u"%", u"#", u"?", u"-", u".",
                                                           u"\u00E9", u"\U0001F600", u"\t", u"x.pkg", u"50%25"};
        std::vector<std::u16string> folders = {u""};
        for (int i = 0; i < 24; ++i) {
            std::u16string parent = folders[random() % folders.size()];
            std::u16string name;
            for (std::size_t n = 1 + random() % 4; n > 0; --n) {
                name += pieces[random() % pieces.size()];
            }
            if (name == u"." || name == u"..") {
                name += u"_";
            }
            std::u16string relative = parent.empty() ? name : parent + u"/" + name;
            if (model.count(relative)) {
                continue;
            }
            vfs::AbsoluteIRI iri = childIri(base, relative);
            if (random() % 3 == 0) {
                vfs::Folder(iri, world().storage()).createFolder();
                model[relative] = "<folder>";
                folders.push_back(relative);
            } else {
                std::string content(random() % 3000, 'x');
                for (auto& c : content) {
                    c = static_cast<char>(random());
                }
                writeFile(vfs::File(iri, world().storage()), content);
                model[relative] = content;
            }
        }
    }

    // The IRI of a "/"-joined decoded relative path, one literal name at a time.
    vfs::AbsoluteIRI childIri(std::u16string const& base, std::u16string const& relative) {
        vfs::AbsoluteIRI iri = world().at(base);
        std::size_t start = 0;
        while (start <= relative.size()) {
            std::size_t end = std::min(relative.find(u'/', start), relative.size());
            iri = iri.getChild(relative.substr(start, end - start));
            start = end + 1;
        }
        return iri;
    }

    std::unique_ptr<StorageWorld> world_;
};

TEST_P(StorageBehaviour, ExistsAndFolderCreation) {
    EXPECT_EQ(vfs::exists(world().root(), world().storage()), provider::FolderItem);
    EXPECT_EQ(vfs::exists(world().at(u"nothing"), world().storage()), provider::NoItem);
    world().folder(u"a").createFolder();
    EXPECT_EQ(vfs::exists(world().at(u"a"), world().storage()), provider::FolderItem);
    EXPECT_EQ(errorOf([&] { world().folder(u"a").createFolder(); }), ErrorCode::FileExists);
    EXPECT_EQ(errorOf([&] { world().folder(u"x/y").createFolder(); }), ErrorCode::NotFound);
    world().folder(u"a/b c/d%25").createFolderRecursive();
    EXPECT_EQ(vfs::exists(world().at(u"a/b%20c/d%25"), world().storage()), provider::FolderItem);
    world().folder(u"a/b c").createFolderRecursive();  // existing: fine
    writeFile(world().file(u"f"), "1");
    EXPECT_EQ(vfs::exists(world().at(u"f"), world().storage()), provider::FileItem);
    EXPECT_EQ(errorOf([&] { world().folder(u"f").createFolder(); }), ErrorCode::FileExists);
    EXPECT_EQ(errorOf([&] { world().folder(u"f/g/h").createFolderRecursive(); }), ErrorCode::FileExists);
    EXPECT_EQ(errorOf([&] { world().folder(u"f/g").createFolder(); }), ErrorCode::NotFound);
    EXPECT_EQ(vfs::exists(world().at(u"f/g"), world().storage()), provider::NoItem);
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
        std::vector<std::u16string> direct;
        for (auto const& [path, content] : model) {
            if (path.find(u'/') == std::u16string::npos) {
                direct.push_back(path);
            }
        }
        std::vector<std::u16string> listed;
        for (auto const& entry : folder.listAll(u"")) {
            listed.push_back(entry.getIRI().getName());
            EXPECT_EQ(entry.isFolder(), model[entry.getIRI().getName()] == "<folder>");
            EXPECT_EQ(entry.getFileOrFolder().index(), entry.isFolder() ? 1U : 0U);
        }
        EXPECT_EQ(listed, direct);

        // Recursive: every item once; parents before their contents; siblings in order.
        std::set<vfs::AbsoluteIRI, bool (*)(vfs::AbsoluteIRI const&, vfs::AbsoluteIRI const&)> seen(
            [](vfs::AbsoluteIRI const& a, vfs::AbsoluteIRI const& b) { return a.getSegments() < b.getSegments(); });
        std::map<std::vector<std::u16string>, std::u16string> lastChild;
        auto recursive = folder.listAllRecursive(u"");
        EXPECT_EQ(recursive.size(), model.size());
        for (auto const& entry : recursive) {
            vfs::AbsoluteIRI const& iri = entry.getIRI();
            EXPECT_TRUE(iri.getParent() == folder.getIRI() || seen.count(iri.getParent())) << test::u8(iri.toString());
            auto& last = lastChild[iri.getParent().getSegments()];
            EXPECT_LT(last, iri.getName());
            last = iri.getName();
            EXPECT_TRUE(seen.insert(iri).second);
        }
        for (auto const& [path, content] : model) {
            EXPECT_TRUE(seen.count(childIri(base, path))) << test::u8(path);
        }
    }
}

TEST_P(StorageBehaviour, ListingFilterIsANameGlob) {
    for (std::u16string name : {u"a.pkg", u"b.pkg", u"ab.txt", u"abc", u"a?c", u"x.pkg.bak"}) {
        writeFile(world().file(name), "");
    }
    world().folder(u"sub.pkg").createFolder();
    writeFile(world().file(u"sub.pkg/c.pkg"), "");
    struct Row {
        std::u16string filter;
        std::vector<std::u16string> names;
        std::vector<std::u16string> recursiveNames;
    };
    for (Row const& row : {Row{u"*.pkg", {u"a.pkg", u"b.pkg", u"sub.pkg"}, {u"a.pkg", u"b.pkg", u"sub.pkg", u"c.pkg"}},
                           Row{u"a?c", {u"a?c", u"abc"}, {u"a?c", u"abc"}},
                           Row{u"*", {u"a.pkg", u"a?c", u"ab.txt", u"abc", u"b.pkg", u"sub.pkg", u"x.pkg.bak"},
                               {u"a.pkg", u"a?c", u"ab.txt", u"abc", u"b.pkg", u"sub.pkg", u"c.pkg", u"x.pkg.bak"}},
                           Row{u"c*", {}, {u"c.pkg"}}}) {
        std::vector<std::u16string> names;
        for (auto const& entry : world().folder(u"").listAll(row.filter)) {
            names.push_back(entry.getIRI().getName());
        }
        EXPECT_EQ(names, row.names) << test::u8(row.filter);
        names.clear();
        for (auto const& entry : world().folder(u"").listAllRecursive(row.filter)) {
            names.push_back(entry.getIRI().getName());
        }
        EXPECT_EQ(names, row.recursiveNames) << test::u8(row.filter);
    }
    EXPECT_EQ(errorOf([&] { world().folder(u"a.pkg").listAll(u""); }), ErrorCode::NotFound);
    EXPECT_EQ(errorOf([&] { world().folder(u"none").listAllRecursive(u""); }), ErrorCode::NotFound);
}

// Host oracle for one output open: did it open, and what is in the file afterwards
// ("<missing>" when there is no file).
std::pair<bool, std::string> hostWrite(std::filesystem::path const& path, unsigned bits) {
    std::ios_base::openmode mode = std::ios_base::out;
    if (bits & Append) mode |= std::ios_base::app;
    if (bits & AtEnd) mode |= std::ios_base::ate;
    if (bits & Binary) mode |= std::ios_base::binary;
    if (bits & In) mode |= std::ios_base::in;
    if (bits & Truncate) mode |= std::ios_base::trunc;
    bool opened;
    {
        std::ofstream out(path, mode);
        opened = out.is_open();
        out << "XY";
    }
    if (!std::filesystem::exists(path)) {
        return {opened, "<missing>"};
    }
    std::ifstream in(path, std::ios_base::binary);
    std::ostringstream content;
    content << in.rdbuf();
    return {opened, content.str()};
}

TEST_P(StorageBehaviour, OutputModesActLikeStandardFileStreams) {
    std::filesystem::path host = std::filesystem::temp_directory_path() /
                                 ("stratum-mode-" + std::to_string(::getpid()) + world().name());
    for (unsigned bits = 0; bits < 64; ++bits) {
        for (bool existing : {false, true}) {
            std::filesystem::remove(host);
            vfs::File file = world().file(u"m" + std::u16string(1, static_cast<char16_t>(u'A' + bits)));
            if (existing) {
                writeFile(file, "hello");
                std::ofstream(host, std::ios_base::binary) << "hello";
            }
            auto expected = hostWrite(host, bits);
            bool opened;
            {
                vfs::ofstream out(file, bits);
                opened = out.is_open() && !out.fail();
                out << "XY";
            }
            std::string content = vfs::exists(file.getIRI(), world().storage()) == provider::FileItem
                                      ? readFile(file)
                                      : "<missing>";
            EXPECT_EQ(opened, expected.first) << "mode " << bits << " existing " << existing;
            EXPECT_EQ(content, expected.second) << "mode " << bits << " existing " << existing;
            if (vfs::exists(file.getIRI(), world().storage()) == provider::FileItem) {
                vfs::remove(file, vfs::RemoveFileOrEmptyFolder);
            }
        }
    }
    std::filesystem::remove(host);
}

TEST_P(StorageBehaviour, InputModesOpenLikeStandardFileStreamsButNeverWrite) {
    std::filesystem::path host = std::filesystem::temp_directory_path() /
                                 ("stratum-in-" + std::to_string(::getpid()) + world().name());
    vfs::File file = world().file(u"input");
    for (unsigned bits = 0; bits < 64; ++bits) {
        writeFile(file, "hello");
        std::ofstream(host, std::ios_base::binary) << "hello";
        std::ios_base::openmode mode = std::ios_base::in;
        if (bits & Append) mode |= std::ios_base::app;
        if (bits & AtEnd) mode |= std::ios_base::ate;
        if (bits & Out) mode |= std::ios_base::out;
        if (bits & Truncate) mode |= std::ios_base::trunc;
        std::ifstream oracle(host, mode);
        vfs::ifstream in(file, bits);
        EXPECT_EQ(in.is_open(), oracle.is_open()) << "mode " << bits;
        EXPECT_EQ(in.fail(), oracle.fail()) << "mode " << bits;
        if (oracle.is_open() && !(bits & Truncate)) {
            std::string ours((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
            std::string theirs((std::istreambuf_iterator<char>(oracle)), std::istreambuf_iterator<char>());
            EXPECT_EQ(ours, theirs) << "mode " << bits;
        }
        EXPECT_EQ(readFile(file), "hello") << "an input stream changed the file, mode " << bits;
    }
    std::filesystem::remove(host);
}

TEST_P(StorageBehaviour, WritesBecomeVisibleAtFlushAndClose) {
    vfs::File file = world().file(u"visible");
    writeFile(file, "old");
    vfs::ofstream out(file, Out | Binary);
    out << "new content";
    EXPECT_EQ(readFile(file), "");  // truncated at open, nothing published yet
    out.flush();
    EXPECT_EQ(readFile(file), "new content");
    EXPECT_EQ(file.getAttributes().getSize(), 11U);
    out << "!";
    out.close();
    EXPECT_EQ(readFile(file), "new content!");
}

TEST_P(StorageBehaviour, StreamFailuresAtOpening) {
    vfs::ifstream missing(world().file(u"missing"));
    EXPECT_TRUE(missing.fail());
    EXPECT_FALSE(missing.is_open());
    world().folder(u"dir").createFolder();
    EXPECT_TRUE(vfs::ifstream(world().file(u"dir")).fail());
    EXPECT_EQ(errorOf([&] { vfs::ofstream out(world().file(u"dir")); }), ErrorCode::IOError);
    EXPECT_EQ(errorOf([&] { vfs::ofstream out(world().file(u"none/x")); }), ErrorCode::NotFound);
    EXPECT_EQ(vfs::exists(world().at(u"none"), world().storage()), provider::NoItem);
}

TEST_P(StorageBehaviour, ReadOnlyFilesRefuseOutputButStayReadable) {
    vfs::File file = world().file(u"ro");
    writeFile(file, "keep");
    EXPECT_TRUE(vfs::isWritable(file));
    EXPECT_TRUE(file.getAttributes().isWritable());
    vfs::setWritable(file, false);
    EXPECT_FALSE(vfs::isWritable(file));
    EXPECT_FALSE(file.getAttributes().isWritable());
    for (unsigned mode : {Out, Append, In | Out, Out | Truncate}) {
        EXPECT_EQ(errorOf([&] { vfs::ofstream out(file, mode); }), ErrorCode::PermissionDenied) << mode;
    }
    EXPECT_EQ(readFile(file), "keep");
    vfs::setWritable(file, true);
    writeFile(file, "changed");
    EXPECT_EQ(readFile(file), "changed");
    world().folder(u"d").createFolder();
    vfs::setWritable(world().folder(u"d"), false);
    EXPECT_FALSE(vfs::isWritable(world().folder(u"d")));
    vfs::setWritable(world().folder(u"d"), true);
    EXPECT_TRUE(vfs::isWritable(world().folder(u"d")));
    EXPECT_EQ(errorOf([&] { vfs::isWritable(world().file(u"gone")); }), ErrorCode::NotFound);
    EXPECT_EQ(errorOf([&] { vfs::setWritable(world().file(u"gone"), true); }), ErrorCode::NotFound);
}

TEST_P(StorageBehaviour, ModificationTimes) {
    vfs::File file = world().file(u"t");
    writeFile(file, "1");
    world().folder(u"d").createFolder();
    pt::ptime const past = pt::time_from_string("2001-02-03 04:05:06.123456");
    for (FileOrFolder target : {FileOrFolder(file), FileOrFolder(world().folder(u"d"))}) {
        vfs::setLastModified(target, past);
        EXPECT_EQ(vfs::getLastModified(target), past);
    }
    EXPECT_EQ(file.getAttributes().getLastModified(), past);
    writeFile(file, "2");
    EXPECT_GT(vfs::getLastModified(file), past);
    pt::ptime const first = vfs::getLastModified(file);
    EXPECT_LE(first, pt::microsec_clock::universal_time());
    EXPECT_EQ(errorOf([&] { vfs::setLastModified(file, pt::ptime(pt::not_a_date_time)); }), ErrorCode::NotSupported);
    EXPECT_EQ(errorOf([&] { vfs::getLastModified(world().file(u"gone")); }), ErrorCode::NotFound);
}

TEST_P(StorageBehaviour, AttributesAndTheVariant) {
    writeFile(world().file(u"f"), std::string(1234, 'z'));
    EXPECT_EQ(world().file(u"f").getAttributes().getSize(), 1234U);
    world().folder(u"d").createFolder();
    EXPECT_EQ(errorOf([&] { world().file(u"d").getAttributes(); }), ErrorCode::NotFound);
    EXPECT_EQ(errorOf([&] { world().file(u"gone").getAttributes(); }), ErrorCode::NotFound);
    EXPECT_EQ(item(u"f").index(), 0U);
    EXPECT_EQ(item(u"d").index(), 1U);
    EXPECT_EQ(vfs::getIRI(item(u"d")), world().at(u"d"));
    EXPECT_EQ(errorOf([&] { item(u"gone"); }), ErrorCode::NotFound);
}

TEST_P(StorageBehaviour, CopyFilesWithEachPolicy) {
    writeFile(world().file(u"src"), "source");
    writeFile(world().file(u"dst"), "old");
    EXPECT_EQ(errorOf([&] { vfs::copy(item(u"src"), world().file(u"dst"), provider::DoNotReplace); }), ErrorCode::FileExists);
    EXPECT_EQ(readFile(world().file(u"dst")), "old");
    vfs::copy(item(u"src"), world().file(u"dst"), provider::Replace);
    EXPECT_EQ(readFile(world().file(u"dst")), "source");
    vfs::copy(item(u"src"), world().file(u"new one"), provider::DoNotReplace);
    EXPECT_EQ(readFile(world().file(u"new one")), "source");
    EXPECT_EQ(readFile(world().file(u"src")), "source");
    // Onto itself: nothing changes, or FileExists when replacing is not allowed.
    vfs::copy(item(u"src"), world().file(u"src"), provider::Replace);
    EXPECT_EQ(readFile(world().file(u"src")), "source");
    EXPECT_EQ(errorOf([&] { vfs::copy(item(u"src"), world().file(u"src"), provider::DoNotReplace); }), ErrorCode::FileExists);
    EXPECT_EQ(errorOf([&] { vfs::copy(world().file(u"gone"), world().file(u"x"), provider::Replace); }), ErrorCode::NotFound);
    EXPECT_EQ(errorOf([&] { vfs::copy(item(u"src"), world().file(u"no/x"), provider::Replace); }), ErrorCode::NotFound);
    // A read-only source gives a read-only copy, which Replace still replaces.
    vfs::setWritable(world().file(u"src"), false);
    vfs::copy(item(u"src"), world().file(u"ro copy"), provider::DoNotReplace);
    EXPECT_FALSE(vfs::isWritable(world().file(u"ro copy")));
    writeFile(world().file(u"other"), "other");
    vfs::copy(item(u"other"), world().file(u"ro copy"), provider::Replace);
    EXPECT_EQ(readFile(world().file(u"ro copy")), "other");
}

TEST_P(StorageBehaviour, CopyAndMoveTrees) {
    world().folder(u"src").createFolder();
    Model model;
    growTree(u"src", model, 42);
    vfs::copy(item(u"src"), world().folder(u"copy"), provider::DoNotReplace);
    EXPECT_EQ(snapshot(world().folder(u"copy")), model);
    EXPECT_EQ(snapshot(world().folder(u"src")), model);
    EXPECT_EQ(errorOf([&] { vfs::copy(item(u"src"), world().folder(u"copy"), provider::DoNotReplace); }), ErrorCode::FileExists);
    // Replace drops what was in the destination.
    writeFile(world().file(u"copy/extra"), "extra");
    vfs::copy(item(u"src"), world().folder(u"copy"), provider::Replace);
    EXPECT_EQ(snapshot(world().folder(u"copy")), model);
    EXPECT_EQ(errorOf([&] { vfs::copy(item(u"src"), world().folder(u"src/inner"), provider::Replace); }), ErrorCode::NotSupported);
    EXPECT_EQ(errorOf([&] { vfs::move(item(u"src"), world().folder(u"src/inner"), provider::Replace); }), ErrorCode::NotSupported);

    vfs::move(item(u"copy"), world().folder(u"moved"), provider::DoNotReplace);
    EXPECT_EQ(vfs::exists(world().at(u"copy"), world().storage()), provider::NoItem);
    EXPECT_EQ(snapshot(world().folder(u"moved")), model);
    // Moving a folder over an existing one replaces it only under Replace.
    world().folder(u"target").createFolder();
    writeFile(world().file(u"target/old"), "old");
    EXPECT_EQ(errorOf([&] { vfs::move(item(u"moved"), world().folder(u"target"), provider::DoNotReplace); }), ErrorCode::FileExists);
    EXPECT_EQ(snapshot(world().folder(u"moved")), model);
    vfs::move(item(u"moved"), world().folder(u"target"), provider::Replace);
    EXPECT_EQ(snapshot(world().folder(u"target")), model);
    // Onto itself: nothing happens.
    vfs::move(item(u"target"), world().folder(u"target"), provider::DoNotReplace);
    EXPECT_EQ(snapshot(world().folder(u"target")), model);
}

TEST_P(StorageBehaviour, MoveFilesWithEachPolicy) {
    writeFile(world().file(u"a"), "A");
    writeFile(world().file(u"b"), "B");
    EXPECT_EQ(errorOf([&] { vfs::move(item(u"a"), world().file(u"b"), provider::DoNotReplace); }), ErrorCode::FileExists);
    EXPECT_EQ(readFile(world().file(u"a")), "A");
    vfs::move(item(u"a"), world().file(u"b"), provider::Replace);
    EXPECT_EQ(vfs::exists(world().at(u"a"), world().storage()), provider::NoItem);
    EXPECT_EQ(readFile(world().file(u"b")), "A");
    world().folder(u"d").createFolder();
    vfs::move(item(u"b"), world().file(u"d/b 2"), provider::DoNotReplace);
    EXPECT_EQ(readFile(world().file(u"d/b 2")), "A");
    EXPECT_EQ(errorOf([&] { vfs::move(world().file(u"b"), world().file(u"c"), provider::Replace); }), ErrorCode::NotFound);
    EXPECT_EQ(errorOf([&] { vfs::move(item(u"d/b 2"), world().file(u"none/c"), provider::Replace); }), ErrorCode::NotFound);
    EXPECT_EQ(readFile(world().file(u"d/b 2")), "A");
}

TEST_P(StorageBehaviour, RemoveWithEachPolicy) {
    writeFile(world().file(u"f"), "x");
    vfs::setWritable(world().file(u"f"), false);
    vfs::remove(item(u"f"), vfs::RemoveFileOrEmptyFolder);
    EXPECT_EQ(vfs::exists(world().at(u"f"), world().storage()), provider::NoItem);
    world().folder(u"empty").createFolder();
    vfs::remove(item(u"empty"), vfs::RemoveFileOrEmptyFolder);
    EXPECT_EQ(vfs::exists(world().at(u"empty"), world().storage()), provider::NoItem);
    world().folder(u"full/deeper").createFolderRecursive();
    writeFile(world().file(u"full/deeper/f"), "x");
    EXPECT_EQ(errorOf([&] { vfs::remove(item(u"full"), vfs::RemoveFileOrEmptyFolder); }), ErrorCode::DirectoryNotEmpty);
    EXPECT_EQ(readFile(world().file(u"full/deeper/f")), "x");
    vfs::remove(item(u"full"), vfs::RemoveRecursively);
    EXPECT_EQ(vfs::exists(world().at(u"full"), world().storage()), provider::NoItem);
    EXPECT_EQ(errorOf([&] { vfs::remove(world().file(u"full"), vfs::RemoveRecursively); }), ErrorCode::NotFound);
    EXPECT_TRUE(world().folder(u"").listAll(u"").empty());
}

INSTANTIATE_TEST_SUITE_P(Providers, StorageBehaviour, ::testing::Values(&makeFileWorld, &makeMemoryWorld),
                         [](auto const& info) { return info.index == 0 ? "file" : "memory"; });

} // namespace
} // namespace stratum::test
