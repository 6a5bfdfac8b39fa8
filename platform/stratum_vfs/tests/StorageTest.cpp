// What the storage layer does that the library never asks of it: the memory provider's
// snapshots and use from several threads, listing filters, and the provider interface's own
// copy and tree removal under injected failures; the s3 scheme's translation of failed requests.
#include "s3/Errors.hpp"

#include <stratum/storage/provider/StorageProvider.hpp>
#include <stratum/storage/vfs/vfs.hpp>

#include <boost/date_time/posix_time/posix_time.hpp>
#include <gtest/gtest.h>

#include <unistd.h>

#include <atomic>
#include <filesystem>
#include <map>
#include <thread>

namespace stratum::test {
namespace {

namespace vfs = stratum::storage::vfs;
using vfs::AbsoluteIRI;
using vfs::ErrorCode;
namespace provider = stratum::storage::provider;
namespace pt = boost::posix_time;
using provider::DoNotReplace;

struct Memory {
    vfs::StorageSystemReference storage;
    AbsoluteIRI iri(std::u16string const& path) const { return AbsoluteIRI(u"memory://" + path); }
    vfs::FileOrFolder item(std::u16string const& path) const { return vfs::makeFileOrFolder(iri(path), storage); }
    vfs::Folder folder(std::u16string const& path) const { return vfs::Folder(iri(path), storage); }
    vfs::File file(std::u16string const& path) const { return vfs::File(iri(path), storage); }
};

void writeFile(vfs::File const& file, std::string const& content) {
    vfs::ofstream(file, vfs::OpenMode::Out | vfs::OpenMode::Truncate) << content;
}

std::string readFile(vfs::File const& file) {
    vfs::ifstream in(file);
    return std::string(std::istreambuf_iterator<char>(in), {});
}

/// Every item below `folder` by IRI text relative to it: a file maps to its content, a folder
/// to "<folder>".
std::map<std::u16string, std::string> snapshot(vfs::Folder const& folder) {
    std::map<std::u16string, std::string> out;
    std::size_t const prefix = folder.getIRI().toString().size();
    for (auto const& entry : folder.listAllRecursive(u""))
        out[entry.getIRI().toString().substr(prefix)] =
            entry.isFolder() ? "<folder>" : readFile(vfs::File(entry.getIRI(), folder.getStorageSystem()));
    return out;
}

/// The storage error code that `work` throws, or -1 when it throws none.
template <class Work>
vfs::ErrorCode errorOf(Work&& work) {
    try {
        work();
    } catch (vfs::Exception const& e) {
        return e.getErrorCode();
    }
    return static_cast<vfs::ErrorCode>(-1);
}

TEST(MemoryProvider, SnapshotsTimesAndOrphans) {
    Memory m;
    vfs::File file = m.file(u"/doc");
    writeFile(file, "first");
    vfs::ifstream early(file);
    vfs::ofstream writer(file, vfs::OpenMode::In | vfs::OpenMode::Out);
    writer << "sECOND";
    writer.seekp(0) << 'S'; // back to the start, within the content
    EXPECT_EQ(std::string(std::istreambuf_iterator<char>(early), {}), "first");
    EXPECT_EQ(readFile(file), "SECOND"); // written through, no flush needed
    EXPECT_TRUE(early.seekg(6).fail());  // past the end of its snapshot
    vfs::ifstream last(file, vfs::OpenMode::In | vfs::OpenMode::AtEnd);
    EXPECT_EQ(last.tellg(), 6); // opened at its end
    EXPECT_TRUE(writer.is_open() && last.is_open());
    writer.close();
    last.close();
    EXPECT_FALSE(writer.is_open() || last.is_open());
    // A truncation alone, and the provider's own copy, change the file and the folder.
    pt::ptime const past = pt::time_from_string("2001-02-03 04:05:06");
    vfs::setLastModified(m.item(u"/doc"), past);
    vfs::setLastModified(m.item(u"/"), past);
    vfs::ofstream(file, vfs::OpenMode::Out | vfs::OpenMode::Truncate);
    m.storage.getProvider(u"memory")->copyFile(file.getIRI(), m.iri(u"/copy"));
    EXPECT_GT(vfs::getLastModified(m.item(u"/doc")), past);
    EXPECT_GT(vfs::getLastModified(m.item(u"/")), past);
    // A write to a file removed meanwhile is refused: its bytes could never be read again.
    vfs::ofstream orphan(file, vfs::OpenMode::Append);
    vfs::remove(file, vfs::RemoveFileOrEmptyFolder);
    EXPECT_EQ(errorOf([&] { orphan.write("!", 1); }), ErrorCode::NotFound);
    EXPECT_TRUE(orphan.bad());
}

// Both schemes alike: attributes carry writability, a file listed as a folder is refused the
// same way, and a copy onto itself is nothing when replacing is allowed and refused otherwise.
TEST(StorageOps, FileAndMemoryAgreeOnAttributesListingAndSelfCopies) {
    std::filesystem::path const host = std::filesystem::temp_directory_path() / ("stratum-" + std::to_string(::getpid()));
    std::filesystem::create_directories(host);
    vfs::StorageSystemReference storage;
    std::vector<std::pair<vfs::ErrorCode, bool>> seen;
    for (std::u16string const& base : std::vector<std::u16string>{u"memory:///f", u"file://" + host.u16string()}) {
        SCOPED_TRACE(std::string(base.begin(), base.end()));
        vfs::File const doc(AbsoluteIRI(base + u"/doc"), storage);
        vfs::Folder(AbsoluteIRI(base), storage).createFolderRecursive();
        writeFile(doc, "x");
        auto const item = vfs::makeFileOrFolder(doc.getIRI(), storage);
        EXPECT_TRUE(doc.getAttributes().isWritable());
        vfs::setWritable(item, false);
        EXPECT_FALSE(doc.getAttributes().isWritable());
        vfs::setWritable(item, true);
        auto const list = [&] { vfs::Folder(doc.getIRI(), storage).listAll(u""); };
        bool says = false; // what is wrong: a file where a folder is wanted, and the reverse
        try {
            list();
        } catch (vfs::Exception const& e) {
            says = std::string(e.what()).find("a file is not a folder") != std::string::npos;
        }
        try {
            doc.getAttributes(), vfs::File(AbsoluteIRI(base), storage).getAttributes();
        } catch (vfs::Exception const& e) {
            says = says && std::string(e.what()).find("a folder is not a file") != std::string::npos;
        }
        seen.emplace_back(errorOf(list), says);
        EXPECT_EQ(errorOf([&] { vfs::copy(item, item, provider::Replace); }), static_cast<vfs::ErrorCode>(-1));
        EXPECT_EQ(errorOf([&] { vfs::copy(item, item, DoNotReplace); }), ErrorCode::FileExists);
        EXPECT_EQ(readFile(doc), "x");
    }
    EXPECT_EQ(seen[0], seen[1]);
    EXPECT_NE(seen[0].first, static_cast<vfs::ErrorCode>(-1));
    EXPECT_TRUE(seen[0].second);
    std::filesystem::remove_all(host);
}

TEST(MemoryProvider, ManyThreadsCreateWriteListAndRemove) {
    Memory m;
    vfs::File shared = m.file(u"/shared");
    writeFile(shared, std::string(1000, 'a'));
    std::atomic<bool> torn{false};
    constexpr int threads = 4, rounds = 150;
    auto own = [](int t) { return u"/t" + std::u16string(1, char16_t(u'0' + t)) + u"/x/y"; };
    std::vector<std::thread> workers;
    for (int t = 0; t < threads; ++t) {
        workers.emplace_back([&, t] {
            vfs::Folder folder = m.folder(own(t));
            folder.createFolderRecursive();
            for (int i = 0; i < rounds; ++i) {
                std::u16string name = own(t) + u"/f" + std::u16string(1, char16_t(u'A' + i % 26));
                vfs::ofstream(m.file(name)) << "round " << i;
                // Whole versions only: everyone overwrites the shared file in place (no
                // truncation), so a reader must never see a mix or a short file.
                vfs::ofstream(shared, vfs::OpenMode::In | vfs::OpenMode::Out)
                    << std::string(1000, char('a' + (t * rounds + i) % 26));
                std::string seen = readFile(shared);
                if (seen.size() != 1000 || seen.find_first_not_of(seen[0]) != std::string::npos) torn = true;
                folder.listAll(u"");
                m.folder(u"/").listAllRecursive(u"f*");
                if (i % 3 == 0) vfs::remove(m.file(name), vfs::RemoveFileOrEmptyFolder);
            }
        });
    }
    for (auto& worker : workers) worker.join();
    EXPECT_FALSE(torn);
    // A name survives when the last round that wrote it did not remove it.
    std::size_t expected = 0;
    for (int letter = 0; letter < 26; ++letter)
        expected += (letter + 26 * ((rounds - 1 - letter) / 26)) % 3 != 0;
    for (int t = 0; t < threads; ++t) EXPECT_EQ(m.folder(own(t)).listAll(u"").size(), expected);
}

// "*" any run, "?" one character (a surrogate pair is one), anything else itself, at every
// depth. The library lists without a filter.
TEST(StorageOps, ListingFilterIsANameGlob) {
    Memory m;
    m.folder(u"/d").createFolder();
    for (std::u16string name : {u"a.pkg", u"ab.txt", u"abc", u"a?c", u"x.pkg.bak", u"\U0001F600c", u"d/c.pkg"})
        writeFile(m.file(u"/" + name), "");
    for (auto const& [filter, names] :
         {std::pair{u"*.pkg", u"a.pkg c.pkg"}, {u"?c", u"\U0001F600c"}, {u"a?c", u"a?c abc"}, {u"*b*.*", u"ab.txt"}}) {
        std::u16string listed;
        for (auto const& entry : m.folder(u"/").listAllRecursive(filter))
            listed += (listed.empty() ? u"" : u" ") + entry.getIRI().getName();
        EXPECT_EQ(listed, names);
    }
    EXPECT_THROW(m.storage.getProvider(u"http"), vfs::UnsupportedIRISchemeException);
}

// Forwards every call but fails the `failAt`-th output open (NoSpace) and, with `failClose`, every
// close; without copyFile and removeTree of its own, the interface's versions run.
class Failing : public provider::StorageProvider {
public:
    explicit Failing(std::shared_ptr<provider::StorageProvider> inner) : inner_(std::move(inner)) {}
    provider::ItemKind getKind(AbsoluteIRI const& iri) override { return inner_->getKind(iri); }
    provider::FileAttributes getAttributes(AbsoluteIRI const& iri) override { return inner_->getAttributes(iri); }
    std::vector<provider::FolderEntry> listFolder(AbsoluteIRI const& iri) override { return inner_->listFolder(iri); }
    void createFolder(AbsoluteIRI const& iri) override { inner_->createFolder(iri); }
    bool isWritable(AbsoluteIRI const& iri) override { return inner_->isWritable(iri); }
    void setWritable(AbsoluteIRI const& iri, bool writable) override { inner_->setWritable(iri, writable); }
    pt::ptime getLastModified(AbsoluteIRI const& iri) override { return inner_->getLastModified(iri); }
    void setLastModified(AbsoluteIRI const& iri, pt::ptime t) override { inner_->setLastModified(iri, t); }
    void removeFile(AbsoluteIRI const& iri) override { inner_->removeFile(iri); }
    void removeEmptyFolder(AbsoluteIRI const& iri) override { inner_->removeEmptyFolder(iri); }
    void rename(AbsoluteIRI const& from, AbsoluteIRI const& to) override { inner_->rename(from, to); }
    std::unique_ptr<std::streambuf> openInput(AbsoluteIRI const& iri) override { return inner_->openInput(iri); }
    std::unique_ptr<provider::OutputBuffer> openOutput(AbsoluteIRI const& iri, std::ios_base::openmode mode) override {
        if (++opened == failAt) throw vfs::Exception(ErrorCode::NoSpace, iri);
        auto output = inner_->openOutput(iri, mode);
        return failClose ? std::make_unique<CloseFails>(std::move(output)) : std::move(output);
    }
    int opened = 0, failAt = 0;
    bool failClose = false;

private:
    struct CloseFails : provider::OutputBuffer {
        explicit CloseFails(std::unique_ptr<provider::OutputBuffer> inner) : inner(std::move(inner)) {}
        std::streamsize xsputn(char const* data, std::streamsize size) override { return inner->sputn(data, size); }
        void close() override { throw vfs::Exception(ErrorCode::IOError, AbsoluteIRI(), "close refused"); }
        std::unique_ptr<provider::OutputBuffer> inner;
    };
    std::shared_ptr<provider::StorageProvider> inner_;
};

// A move into another system stops at the first refused file with its source whole; the
// interface's own copyFile and removeTree do whole trees; a refused close leaves the stream bad.
TEST(StorageOps, InjectedFailuresAndTheInterfaceDefaults) {
    Memory source, target;
    auto failing = std::make_shared<Failing>(target.storage.getProvider(u"memory"));
    vfs::StorageSystemReference handle = target.storage; // copies share the system
    handle.setProvider(u"MEMORY", failing);
    EXPECT_THROW(handle.setProvider(u"http", failing), vfs::UnsupportedIRISchemeException);
    EXPECT_THROW(handle.setProvider(u"memory", nullptr), vfs::UnsupportedIRISchemeException);
    source.folder(u"/src/sub").createFolderRecursive();
    for (std::u16string name : {u"a", u"b", u"sub/c", u"sub/d"})
        writeFile(source.file(u"/src/" + name), std::string(70000, char(name.back())));
    auto const tree = snapshot(source.folder(u"/src"));
    for (failing->failAt = 1; failing->failAt <= 4; ++failing->failAt) {
        failing->opened = 0;
        EXPECT_EQ(errorOf([&] { vfs::move(source.item(u"/src"), target.folder(u"/copy"), DoNotReplace); }),
                  ErrorCode::NoSpace);
        EXPECT_EQ(failing->opened, failing->failAt);
        EXPECT_EQ(snapshot(source.folder(u"/src")), tree) << "the move removed part of its source";
        vfs::remove(target.item(u"/copy"), vfs::RemoveRecursively);
        EXPECT_TRUE(target.folder(u"/").listAll(u"").empty());
    }
    failing->failAt = 0;
    vfs::move(source.item(u"/src"), target.folder(u"/copy"), DoNotReplace);
    vfs::copy(target.item(u"/copy"), target.folder(u"/again"), DoNotReplace);
    EXPECT_EQ(snapshot(target.folder(u"/copy")), tree);
    EXPECT_EQ(snapshot(target.folder(u"/again")), tree);

    failing->failClose = true;
    vfs::ofstream out(target.file(u"/closing"));
    out << "kept";
    EXPECT_EQ(errorOf([&] { out.close(); }), ErrorCode::IOError);
    EXPECT_TRUE(out.bad());
    out << "lost";
    EXPECT_EQ(readFile(target.file(u"/closing")), "kept");
    vfs::ifstream in(target.file(u"/closing"));
    in.close();
    EXPECT_EQ(in.get(), std::char_traits<char>::eof());
    // The interface's copy reports a refused close too, and leaves no copy behind.
    EXPECT_EQ(errorOf([&] { vfs::copy(target.item(u"/closing"), target.file(u"/copied"), DoNotReplace); }),
              ErrorCode::IOError);
    EXPECT_EQ(errorOf([&] { vfs::getLastModified(target.item(u"/copied")); }), ErrorCode::NotFound);
}

// Each failed S3 request becomes one storage error; the S3 code and message stay in the detail.
TEST(S3Errors, StatusAndCodeTranslateToOneStorageError) {
    namespace s3 = vfs::detail::s3;
    using T = s3::Transport;
    struct Row {
        ErrorCode expected;
        long status;
        std::vector<std::string> codes; // "": a HEAD request's answer has no body
    };
    for (Row const& row : {Row{ErrorCode::NotFound, 404, {"NoSuchKey", "NoSuchBucket", ""}},
                           Row{ErrorCode::PermissionDenied, 403, {"AccessDenied", "SignatureDoesNotMatch", "InvalidAccessKeyId", "RequestTimeTooSkewed", ""}},
                           Row{ErrorCode::DirectoryNotEmpty, 409, {"BucketNotEmpty"}},
                           Row{ErrorCode::IOError, 412, {"PreconditionFailed"}}, // a condition other than creation
                           Row{ErrorCode::TryAgain, 503, {"SlowDown"}},
                           Row{ErrorCode::TryAgain, 429, {""}},
                           Row{ErrorCode::IOError, 200, {"InternalError"}}, // an <Error> body of a copy
                           Row{ErrorCode::IOError, 500, {"InternalError"}},
                           Row{ErrorCode::FileTooLarge, 400, {"EntityTooLarge"}},
                           Row{ErrorCode::IOError, 400, {"BadDigest", "XAmzContentSHA256Mismatch"}}}) // damaged at every attempt
        for (std::string const& code : row.codes)
            EXPECT_EQ(s3::errorCodeFor(row.status, code, T::None, false), row.expected) << row.status << " " << code;
    EXPECT_EQ(s3::errorCodeFor(412, "PreconditionFailed", T::None, true), ErrorCode::FileExists);
    for (auto [transport, expected] : {std::pair{T::Unreachable, ErrorCode::NoSuchDeviceOrAddress}, {T::Dropped, ErrorCode::IOError}, {T::TimedOut, ErrorCode::TryAgain}})
        EXPECT_EQ(s3::errorCodeFor(0, "", transport, false), expected);
    s3::HttpResponse answer;
    answer.status = 403;
    answer.errorCode = "AccessDenied";
    answer.errorMessage = "Access Denied";
    vfs::Exception const e = s3::failure(answer, AbsoluteIRI(u"s3://bkt/k"), "PUT");
    EXPECT_EQ(e.getErrorCode(), ErrorCode::PermissionDenied);
    EXPECT_EQ(e.getMessage(), "Permission denied (PUT: AccessDenied (Access Denied))");
}

} // namespace
} // namespace stratum::test
