// Every back end behaves the same, apart from what its capabilities switch off; fixtures are made
// through the public operations, and a scheme joins with one line at the end. The s3 scheme, on a
// live object store (eval "$(scripts/s3-server.sh start)"), also proves what awscli sees of it and
// the reverse, its multipart, part-copy and paged-listing paths and a gateway killed during an
// upload; 503 answers come from a loopback server. Path text, where the back ends differ, and the
// selector that routes by it are tables of input and output; so is every failure, end to end.
#include "fs/LocalTranslate.hpp"
#include "fs/VirtualTranslate.hpp"
#include "support/HostFolder.hpp"
#include "support/ThroughOps.hpp"

#include <opc/CommitOptions.hpp>
#include <opc/Exception.hpp>
#include <opc/FileSystemOpsSelector.hpp>
#include <opc/LocalFileSystemOps.hpp>
#include <opc/Text.hpp>
#include <opc/VirtualFileSystemOps.hpp>
#include <opc/util/Temp.hpp>

#include <stratum/storage/vfs/Exception.hpp>
#include <stratum/storage/vfs/S3Settings.hpp>
#include <stratum/storage/vfs/StorageSystem.hpp>
#include <vela/filesystem/exceptions.hpp>

#include <boost/date_time/posix_time/posix_time.hpp>
#include <boost/filesystem/exception.hpp>
#include <gtest/gtest.h>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <functional>
#include <map>
#include <optional>
#include <random>
#include <sstream>
#include <thread>

namespace opc::test {
namespace {

namespace errc = boost::system::errc;
namespace fs = std::filesystem;
namespace host = vela::filesystem;
namespace vfs = stratum::storage::vfs;
using boost::system::error_code;
using P = std::u16string const&;
using vfs::S3Settings;
using vfs::StorageSystemReference;
constexpr std::size_t MiB = std::size_t(1) << 20;

std::string env(char const* name) { return std::getenv(name) ? std::getenv(name) : ""; }

/// The environment's object storage, with 5 MiB parts and part-wise copies above 6 MiB.
S3Settings objectStorage() {
    S3Settings settings = S3Settings::fromEnvironment();
    settings.partSize = 5 * MiB;
    settings.copyPartThreshold = 6 * MiB;
    return settings;
}

/// What a back end supports; a switch that is off skips or relaxes the cases that need it.
struct Capabilities {
    bool symlinks = true;             ///< links are made, seen, listed and copied as links
    bool posixPermissions = true;     ///< all nine bits round-trip (else only 0644/0444)
    bool preciseErrors = true;        ///< failures carry the exact POSIX number
    bool folderCopyModes = true;      ///< NoOverwrite copies a folder into an existing one
    bool lenientRemoval = true;       ///< removeAll of a missing path succeeds
    bool unknownValuesIgnored = true; ///< PermsUnknown and not-a-date-time change nothing
    bool visibleBeforeClose = true;   ///< written bytes can be read while the stream is open
};

/// The local back end (no scheme), or the virtual one on a host folder ("file"), on object storage
/// ("s3": a fresh folder of the bucket the environment names) or "<scheme>:///conformance".
struct BackEnd {
    std::string name;
    Capabilities caps;
    std::u16string scheme;
};

class Conformance : public ::testing::TestWithParam<BackEnd> {
protected:
    void SetUp() override {
        auto const& scheme = GetParam().scheme;
        bool const onHost = scheme.empty() || scheme == u"file";
        m_ops = scheme.empty() ? std::unique_ptr<FileSystemOps>(std::make_unique<LocalFileSystemOps>())
                               : std::make_unique<VirtualFileSystemOps>(m_storage);
        m_root = onHost ? m_ops->normalizePath(m_folder.path16()) : scheme + u":///conformance";
        if (scheme == u"s3") {
            if (env("AWS_ENDPOINT_URL").empty() || env("S3_BUCKET").empty())
                GTEST_SKIP() << "no S3 server: AWS_ENDPOINT_URL and S3_BUCKET are not both set "
                                "(eval \"$(scripts/s3-server.sh start)\" sets them)";
            m_key = "conformance-" + std::to_string(std::random_device{}());
            m_root = toString("s3://" + env("S3_BUCKET") + "/" + m_key, true);
        }
        m_hostRoot = onHost ? m_folder.path().string() : "";
        m_ops->createFolders(m_root);
    }
    void TearDown() override { // object storage outlives the test
        error_code ec;
        if (GetParam().scheme == u"s3" && !m_root.empty() && m_ops)
            m_ops->removeAll(m_root, ec);
    }
    FileSystemOps& ops() { return *m_ops; }
    Capabilities const& caps() const { return GetParam().caps; }
    /// `relative` ("a/b/c.txt") appended element by element to the root.
    std::u16string at(std::string const& relative) {
        std::u16string path = m_root;
        std::stringstream elements(relative);
        for (std::string element; std::getline(elements, element, '/');)
            path = ops().appendPath(path, toString(element, true));
        return path;
    }
    std::string host(std::string const& relative) const { return m_hostRoot + "/" + relative; }
    void write(P path, std::string const& bytes) { writeThrough(ops(), path, bytes); }
    std::string read(P path) { return readThrough(ops(), path); }
    /// getFiles of `folder` (which appends), and what it should hold (paths relative to the root):
    /// normalised, sorted.
    std::vector<std::u16string> listing(P folder, bool recursive = true) {
        std::vector<std::u16string> files = {u"kept"};
        ops().getFiles(folder, files, recursive);
        EXPECT_EQ(files.front(), u"kept");
        return normal({files.begin() + 1, files.end()});
    }
    std::vector<std::u16string> expected(std::vector<std::string> const& relatives) {
        std::vector<std::u16string> paths(relatives.size());
        std::transform(relatives.begin(), relatives.end(), paths.begin(), [&](auto const& r) { return at(r); });
        return normal(paths);
    }
    std::vector<std::u16string> normal(std::vector<std::u16string> paths) {
        for (auto& path : paths)
            path = ops().normalizePath(path);
        std::sort(paths.begin(), paths.end());
        return paths;
    }
    /// What getPermissions shows after `bits` were set: all nine, or only writable or read-only.
    unsigned reported(unsigned bits) const { return caps().posixPermissions ? bits & 0777 : ((bits & 0222) ? 0644 : 0444); }
    /// A failed code, and exactly `precise` (unless 0) when the back end reports precise errors.
    void expectFailure(error_code const& ec, errc::errc_t precise) const {
        EXPECT_TRUE(ec.failed() && (!caps().preciseErrors || !precise || ec == errc::make_error_code(precise)))
            << ec.message() << " for " << precise;
    }

    /// A random tree of files, folders and links (where there are links) with varied names and
    /// sizes, made through the back end and recorded in m_made and m_folders.
    void makeTree() {
        char const* const parts[] = {"plain", "with space", "\xC3\xBCn\xC3\xAF", "\xE6\x97\xA5", "e\xF0\x9F\x98\x80",
                                     ".hidden", "a.b.c", "trailing ", "-dash"};
        std::mt19937 gen(unsigned(GetParam().name.size()));
        for (int i = 0; i < 70; ++i) {
            std::string const parent = m_folders[gen() % m_folders.size()];
            std::string const rel = (parent.empty() ? "" : parent + "/") + parts[gen() % 9] + " " + std::to_string(i);
            unsigned const kind = gen() % 11, size = std::vector<unsigned>{0, 1, 100, 4097, 70000}[gen() % 5];
            if (kind < 3) {
                ops().createFolder(at(rel));
                m_made[rel] = {Folder, ""};
                m_folders.push_back(rel);
            } else if (kind < 6 && caps().symlinks) { // to a file, a folder, or dangling with a long target
                auto const target = kind == 3                      ? at(m_folders.back())
                                    : kind == 4 && !m_made.empty() ? at(m_made.begin()->first)
                                                                   : u"../nowhere/" + std::u16string(std::size_t(i) * 7, u'n');
                ops().createSymlink(target, at(rel));
                m_made[rel] = {Link, toUDEString(ops().normalizePath(target))};
            } else {
                m_made[rel] = {File, pattern(size, unsigned(i))};
                write(at(rel), m_made[rel].second);
                if (caps().posixPermissions)
                    ops().setPermissions(at(rel), Perms::Perms_tag(0400 | gen() % 0400));
            }
        }
    }

    enum Kind { Missing,
                File,
                Folder,
                Link };
    std::map<std::string, std::pair<Kind, std::string>> m_made; // relative path: kind, content
    std::vector<std::string> m_folders = {""};
    HostFolder m_folder;
    StorageSystemReference m_storage{objectStorage()};
    std::unique_ptr<FileSystemOps> m_ops;
    std::u16string m_root;
    std::string m_hostRoot; ///< the host folder behind the root, or ""
    std::string m_key;      ///< the root's key in the bucket, or ""
};

// Generated trees: queries, contents and listings agree with what was made and, on the host, with lstat.
TEST_P(Conformance, GeneratedTreesAgreeWithTheOracle) {
    makeTree();
    m_made["missing"] = m_made[m_made.rbegin()->first + "/below"] = {Missing, ""};
    for (auto const& [rel, item] : m_made) {
        auto const [kind, content] = item;
        auto const path = at(rel);
        SCOPED_TRACE(rel);
        error_code ec = errc::make_error_code(errc::timed_out); // a stale code is cleared
        EXPECT_EQ(ops().exists(path, ec), kind != Missing);
        EXPECT_EQ(ops().isFile(path, ec), kind == File);
        EXPECT_EQ(ops().isFolder(path, ec), kind == Folder);
        EXPECT_TRUE(ops().isSymlink(path, ec) == (kind == Link) && !ec.failed()) << ec.message();
        EXPECT_EQ(ops().getSizeInBytes(path, ec), content.size() * (kind == File));
        EXPECT_TRUE(kind == File ? !ec.failed()
                                 : ec.failed() && (kind == Missing || !caps().preciseErrors || ec == errc::is_a_directory))
            << ec.message();
        EXPECT_EQ(kind == Link ? toUDEString(ops().getLinkTarget(path)) : (kind == File ? read(path) : ""), content);
        struct stat st {};
        if (m_hostRoot.empty() || kind == Missing || ::lstat(host(rel).c_str(), &st) != 0)
            continue;
        using namespace boost::posix_time;
        EXPECT_EQ(ops().getLastModifiedTime(path), from_time_t(st.st_mtim.tv_sec) + microseconds(st.st_mtim.tv_nsec / 1000));
        EXPECT_EQ(ops().getPermissions(path) & Perms::AllPerms, reported(st.st_mode));
    }
    for (auto const& folder : m_folders) // listings name files and links, never m_folders, never follow
        for (bool recursive : {false, true}) {
            std::vector<std::string> want;
            std::string const prefix = folder.empty() ? "" : folder + "/";
            for (auto const& [rel, item] : m_made)
                if ((item.first == File || item.first == Link) && rel.rfind(prefix, 0) == 0 &&
                    (recursive || rel.find('/', prefix.size()) == std::string::npos))
                    want.push_back(rel);
            EXPECT_EQ(listing(at(folder), recursive), expected(want)) << folder;
        }
}

// Every open mode (the platform's own openmode bits) on a missing and an existing file, as std::fstream.
TEST_P(Conformance, StreamModesActLikeStandardFileStreams) {
    HostFolder oracleFolder;
    std::string const oracle = (oracleFolder.path() / "oracle").string();
    for (unsigned bits = 0; bits < 64; ++bits)
        for (bool existing : {false, true}) {
            SCOPED_TRACE("mode " + std::to_string(bits) + (existing ? " existing" : " missing"));
            auto const path = at("m" + std::to_string(bits));
            std::filesystem::remove(oracle);
            if (existing) {
                write(path, "hello");
                writeFile(oracle, "hello");
            }
            {
                std::ofstream standard(oracle, std::ios_base::openmode(bits) | std::ios_base::out);
                error_code ec;
                auto out = ops().createOutputStream(path, bits, ec);
                EXPECT_EQ(bool(out), standard.is_open()) << ec.message();
                standard << "XY";
                if (out)
                    *out << "XY";
            }
            EXPECT_EQ(read(path), readFile(oracle));
            std::ifstream standard(oracle, std::ios_base::openmode(bits) | std::ios_base::in);
            error_code ec;
            auto in = ops().createInputStream(path, bits, ec);
            EXPECT_EQ(bool(in), standard.is_open()) << ec.message();
        }
    auto out = ops().createOutputStream(at("visible"), OpenMode::WriteBinary); // no buffer of its own
    *out << "now";
    EXPECT_EQ(read(at("visible")), caps().visibleBeforeClose ? "now" : "<missing>");
    out.reset();
    EXPECT_EQ(read(at("visible")), "now"); // the last holder's release publishes
}

TEST_P(Conformance, PermissionsAndTimesRoundTrip) {
    auto const file = at("p");
    write(file, "data");
    ops().createFolder(at("d"));
    std::mt19937 gen(7);
    for (int i = 0; i < 60; ++i) {                                                  // a host folder keeps its owner's rights, so only storage tries one
        unsigned const bits = gen() % 01000 | (caps().posixPermissions ? 0600 : 0); // the owner must clean up
        auto const item = caps().posixPermissions || i % 2 ? file : at("d");
        ops().setPermissions(item, Perms::Perms_tag(bits));
        EXPECT_EQ(ops().getPermissions(item) & Perms::AllPerms, reported(bits)) << std::oct << bits;
    }
    ops().setPermissions(file, Perms::Perms_tag(0444));
    ops().setPermissions(file, caps().unknownValuesIgnored ? Perms::PermsUnknown : Perms::Perms_tag(0444));
    EXPECT_EQ(ops().getPermissions(file) & Perms::AllPerms, 0444u);
    EXPECT_EQ(read(file), "data"); // read-only still reads
    error_code ec;
    ops().createOutputStream(file, OpenMode::WriteBinary, ec);
    if (::geteuid() != 0 || !caps().posixPermissions) // root writes whatever the host mode says
        expectFailure(ec, errc::permission_denied);

    using namespace boost::posix_time;
    for (auto const* text : {"2001-02-03 04:05:06.250000", "1969-07-20 20:17:40.500000", "2038-01-19 03:14:08"}) {
        ops().setLastModifiedTime(file, time_from_string(text));
        EXPECT_EQ(ops().getLastModifiedTime(file), time_from_string(text)) << text;
    }
    if (caps().unknownValuesIgnored) {
        ops().setLastModifiedTime(file, ptime(boost::date_time::not_a_date_time));
        EXPECT_EQ(ops().getLastModifiedTime(file), time_from_string("2038-01-19 03:14:08"));
    }
}

// Every refusal: its code, and not a file anywhere changed, added or left behind.
TEST_P(Conformance, RefusalsCarryTheirCodeAndChangeNothing) {
    write(at("file"), "x");
    ops().createFolders(at("full/inner"));
    ops().createFolder(at("empty"));
    write(at("full/inner/f"), "f");
    std::vector<std::u16string> files;
    auto const before = listing(m_root);
    using Call = std::function<void(error_code&)>;
#define OPC_ROW(call, code) {[&](error_code& ec) { call; }, errc::errc_t(code)}
    std::pair<Call, errc::errc_t> const rows[] = {
        OPC_ROW(ops().getSizeInBytes(at("missing"), ec), errc::no_such_file_or_directory),
        OPC_ROW(ops().getPermissions(at("missing"), ec), errc::no_such_file_or_directory),
        OPC_ROW(ops().getLastModifiedTime(at("missing"), ec), errc::no_such_file_or_directory),
        OPC_ROW(ops().getFiles(at("missing"), files, true, ec), errc::no_such_file_or_directory),
        OPC_ROW(ops().getFiles(at("file"), files, true, ec), errc::not_a_directory),
        OPC_ROW(ops().createInputStream(at("missing"), OpenMode::ReadBinary, ec), errc::no_such_file_or_directory),
        OPC_ROW(ops().createOutputStream(at("no/f"), OpenMode::WriteBinary, ec), errc::no_such_file_or_directory),
        OPC_ROW(ops().createFolder(at("no/f"), ec), errc::no_such_file_or_directory),
        OPC_ROW(ops().createFolder(at("full"), ec), errc::file_exists),
        OPC_ROW(ops().copy(at("missing"), at("c"), NoOverwrite, ec), errc::no_such_file_or_directory),
        OPC_ROW(ops().copy(at("file"), at("full/inner/f"), NoOverwrite, ec), errc::file_exists),
        OPC_ROW(ops().copy(at("file"), at("full/inner/f"), FailIfExists, ec), errc::file_exists),
        OPC_ROW(ops().copy(at("full/inner"), at("full"), FailIfExists, ec), errc::file_exists),
        OPC_ROW(ops().rename(at("missing"), at("c"), ec), errc::no_such_file_or_directory),
        OPC_ROW(ops().rename(at("file"), at("no/f"), ec), errc::no_such_file_or_directory),
        OPC_ROW(ops().rename(u"", at("file"), ec), errc::invalid_argument),
        OPC_ROW(ops().rename(at("file"), u"", ec), errc::invalid_argument),
        OPC_ROW(ops().remove(at("full"), ec), errc::directory_not_empty),
        OPC_ROW(ops().remove(at("missing"), ec), errc::no_such_file_or_directory),
        // A file never replaces a folder, empty or not (any code).
        OPC_ROW(ops().rename(at("file"), at("empty"), ec), 0),
        OPC_ROW(ops().rename(at("file"), at("full"), ec), 0),
        OPC_ROW(ops().copy(at("file"), at("empty"), Overwrite, ec), 0),
        OPC_ROW(ops().copy(at("file"), at("full"), Overwrite, ec), 0),
        OPC_ROW(ops().replaceFileWithBackup(at("empty"), ops(), at("file"), {}, ec), 0),
        OPC_ROW(ops().replaceFileWithBackup(at("full"), ops(), at("file"), {}, ec), 0),
    };
#undef OPC_ROW
    for (std::size_t i = 0; i < std::size(rows); ++i) {
        SCOPED_TRACE(i);
        error_code ec;
        rows[i].first(ec);
        expectFailure(ec, rows[i].second);
    }
    EXPECT_EQ(listing(m_root), before);
    EXPECT_TRUE(ops().isFolder(at("empty")) && !ops().exists(at("no")) && !ops().exists(at("c")));
    EXPECT_EQ(read(at("file")) + read(at("full/inner/f")), "xf");
}

TEST_P(Conformance, FoldersAndLinksAreCopiedRenamedAndRemoved) {
    ops().createFolders(at("src/inner"));
    ops().createFolders(at("src/inner")); // already there: fine
    write(at("src/a"), "a");
    write(at("src/inner/b"), "b");
    write(at("f"), "old");
    ops().copy(at("src/a"), at("f"), Overwrite);
    for (ExistsMode mode : {NoOverwrite, FailIfExists, Overwrite}) // a fresh name is copied in every mode
        ops().copy(at("src/a"), at("f" + std::to_string(int(mode))), mode);
    EXPECT_EQ(read(at("f")) + read(at("f0")) + read(at("f1")) + read(at("f2")), "aaaa");
    ops().copy(at("src"), at("dst"), NoOverwrite);
    EXPECT_EQ(read(at("dst/inner/b")), "b");
    write(at("dst/stale"), "s"); // Overwrite replaces the whole destination
    ops().copy(at("src"), at("dst"), Overwrite);
    EXPECT_EQ(listing(at("dst")), expected({"dst/a", "dst/inner/b"}));
    if (caps().folderCopyModes) { // NoOverwrite copies into the folder and keeps the rest
        ops().remove(at("dst/a"));
        ops().removeAll(at("dst/inner"));
        write(at("dst/extra"), "e");
        ops().copy(at("src"), at("dst"), NoOverwrite);
        EXPECT_EQ(listing(at("dst")), expected({"dst/a", "dst/inner/b", "dst/extra"}));
    }
    ops().rename(at("src/a"), at("src/inner/b")); // replaces a file
    ops().rename(at("src"), at("moved"));
    EXPECT_EQ(read(at("moved/inner/b")) + read(at("src/a")), "a<missing>");
    ops().setPermissions(at("f0"), Perms::Perms_tag(0444));
    ops().remove(at("f0")); // read-only or not
    ops().remove(at("moved/inner/b"));
    ops().remove(at("moved/inner"));
    ops().removeAll(at("dst"));
    EXPECT_EQ(listing(m_root), expected({"f", "f1", "f2"}));
    EXPECT_FALSE(ops().exists(at("moved/inner")) || ops().exists(at("dst")));
    error_code ec;
    ops().removeAll(at("dst"), ec);
    EXPECT_EQ(ec.failed(), !caps().lenientRemoval) << ec.message();
    if (!caps().symlinks)
        return;
    // Links are copied, moved and removed as links, never followed (their queries are above).
    ops().createFolder(at("tree"));
    ops().createFolder(at("folder"));
    write(at("folder/inside"), "i");
    ops().createSymlink(ops().normalizePath(at("folder")), at("tree/link"));
    ops().copy(at("tree/link"), at("copy"), FailIfExists);
    ops().rename(at("copy"), at("link"));
    ops().copy(at("tree"), at("tree2"), NoOverwrite);
    EXPECT_EQ(ops().getLinkTarget(at("link")), ops().getLinkTarget(at("tree2/link")));
    ops().removeAll(at("tree"));
    EXPECT_EQ(listing(m_root), expected({"f", "f1", "f2", "folder/inside", "link", "tree2/link"})); // nothing removed through it
}

// A write the storage refuses reaches the writer at that very write, as the library's exception:
// a host file limited to 64 KiB (in a child; SIGXFSZ ignored), or a read-only storage file.
TEST_P(Conformance, ARefusedWriteThrowsFromThatWrite) {
    if (!caps().visibleBeforeClose)
        GTEST_SKIP() << "writes become visible at close: a refused part is a fault-injection test's";
    auto out = ops().createOutputStream(at("w"), OpenMode::WriteBinary);
    std::string const block(16384, 'b');
    auto blocksTaken = [&](errc::errc_t expected) { // before the write that threw; -1: the wrong failure
        for (int blocks = 0; blocks < 8; ++blocks)
            try {
                out->write(block.data(), std::streamsize(block.size()));
            } catch (Exception const& e) { // a host number keeps its own category
                bool const right = e.code().value() == expected && std::string(e.what()).rfind("write failed: ", 0) == 0;
                return right && out->bad() ? blocks : -1;
            }
        return -1;
    };
    if (m_hostRoot.empty()) {
        out->write(block.data(), std::streamsize(block.size()));
        ops().setPermissions(at("w"), Perms::Perms_tag(0444));
        EXPECT_EQ(blocksTaken(errc::permission_denied), 0);
        return;
    }
    auto const limited = [&] {
        rlimit const limit{65536, 65536};
        std::signal(SIGXFSZ, SIG_IGN);
        ::setrlimit(RLIMIT_FSIZE, &limit);
        return std::to_string(blocksTaken(errc::file_too_large));
    };
    EXPECT_EQ(inChild(limited), "4");
}

// A commit from a file of the local back end; the frame passes the commit's own report on.
TEST_P(Conformance, CommitReplacesKeepsABackupAndReportsThroughTheFrame) {
    HostFolder sourceFolder;
    LocalFileSystemOps local;
    auto const source = sourceFolder.path16() + u"/new.pkg", target = at("p.pkg");
    writeFile((sourceFolder.path() / "new.pkg").string(), "fresh");
    write(target, "old");
    ops().setPermissions(target, Perms::Perms_tag(0444));
    CommitOptions keep;
    keep.removeBackup(false);
    ops().replaceFileWithBackup(target, local, source, keep);
    EXPECT_EQ(read(target) + read(at("p.pkg.bak")), "freshold");
    EXPECT_EQ(ops().getPermissions(target) & 0777, 0444u);
    error_code ec;
    ops().replaceFileWithBackup(target, local, source + u"-missing", CommitOptions(), ec);
    EXPECT_TRUE(ec.failed() && read(target) == "fresh");
    // The library's exception with a cleared code stays a success.
    keep.backupCreatedFcn([](P) { throw Exception("noted", error_code()); });
    ops().replaceFileWithBackup(target, local, source, keep, ec);
    EXPECT_FALSE(ec.failed()) << ec.message();
    if (!caps().symlinks)
        return;
    writeFile(host("outside"), "kept", 0600); // over a link to a 0600 file: a 0600 file, never 0777
    ops().createSymlink(u"outside", at("link"));
    ops().replaceFileWithBackup(at("link"), local, source, CommitOptions());
    EXPECT_EQ(modeOf(host("link")), 0600);
    EXPECT_EQ(read(at("outside")) + read(at("link")), "keptfresh");
}

// The local back end lists a whole tree in one host walk; a derived class (which could replace
// the recursion) still walks folder by folder with the directory iterator. Both give the same
// entries in the same order, and stop at an unreadable sub-folder with the same partial list,
// code and detail.
TEST_P(Conformance, LocalTreeWalkMatchesFolderByFolderWalk) {
    if (!GetParam().scheme.empty())
        GTEST_SKIP() << "the one host walk is the local back end's own";
    struct Derived : LocalFileSystemOps {};
    makeTree();
    // True when both walks, in both forms, give the same list, code and message; `cut` counts
    // the listings cut short.
    int cut = 0;
    auto same = [&](bool recursive) {
        Derived derived;
        std::vector<std::u16string> tree = {u"kept"}, byFolder = {u"kept"};
        error_code treeCode, byFolderCode;
        ops().getFiles(m_root, tree, recursive, treeCode);
        derived.getFiles(m_root, byFolder, recursive, byFolderCode);
        bool const sameMessage = thrown([&] { ops().getFiles(m_root, tree, recursive); }) ==
                                 thrown([&] { derived.getFiles(m_root, byFolder, recursive); });
        cut += treeCode.failed();
        return tree == byFolder && tree.size() > 2 && treeCode == byFolderCode && sameMessage;
    };
    for (bool recursive : {false, true})
        EXPECT_TRUE(same(recursive)) << recursive;
    EXPECT_EQ(cut, 0);
    // An unreadable sub-folder, met by a user whom its bits stop (root is not stopped).
    ASSERT_GT(m_folders.size(), 2u);
    ASSERT_EQ(::chmod(host(m_folders[2]).c_str(), 0), 0);
    ASSERT_EQ(::chmod(m_hostRoot.c_str(), 0755), 0);
    EXPECT_EQ(inChild([&] { return ::geteuid() == 0 && ::setuid(65534) != 0 ? "no other user"
                                   : same(true) && cut == 1                 ? ""
                                                                            : "the walks differ"; }),
              "");
    ::chmod(host(m_folders[2]).c_str(), 0755);
}

// Failures end to end: what either translation and the public frame make of them.

using Raise = std::function<void()>;

error_code generic(errc::errc_t e) { return errc::make_error_code(e); }
error_code system(int e) { return error_code(e, boost::system::system_category()); }

using Translation = void (*)(std::string&, error_code&);

/// What `translation` makes of the exception `raise` throws, starting from a stale detail and code.
std::pair<std::string, error_code> translate(Raise const& raise, Translation translation) {
    std::pair<std::string, error_code> out{"left over", generic(errc::timed_out)};
    try {
        raise();
        ADD_FAILURE() << "nothing thrown";
    } catch (...) {
        translation(out.first, out.second);
    }
    return out;
}

std::u16string const hostPath = u"/data/caf\u00E9/x";
std::string const hostPathUtf8 = "/data/caf\xC3\xA9/x";

// Every failure: an errno through the host type (each has a code of its own), a storage code
// and foreign exceptions through either back end's translation, and the texts of the back ends'
// own through the public frame.
void caught(std::string& detail, error_code& ec) {
    try {
        throw;
    } catch (Exception const& e) {
        detail = e.what();
        ec = e.code();
    }
}

TEST(FailureTable, FailuresThroughTheirTranslation) {
    Translation const local = detail::translateHostException, virt = detail::translateStorageException;
    auto const fromErrno = [](int error, host::errno_origin origin = host::errno_origin::general) {
        return [=] { host::throw_from_errno(error, hostPath, origin); };
    };
    auto const text = [](int error) { return std::string(std::strerror(error)) + ": " + hostPathUtf8; };
    auto const rmdir = host::errno_origin::remove_directory;
    boost::filesystem::filesystem_error const boostSaid("boost said", system(EROFS));
    vfs::Exception const ioError(vfs::ErrorCode::IOError, vfs::AbsoluteIRI());
    HostFolder folder;
    LocalFileSystemOps host;
    StorageSystemReference storage;
    VirtualFileSystemOps memory(storage);
    auto in = [&](std::string const& relative) { return (folder.path() / relative).string(); };
    auto in16 = [&](std::string const& relative) { return toString(in(relative), true); };
    std::vector<std::u16string> sink;
    auto const notFound = vfs::Exception(vfs::ErrorCode::NotFound, vfs::AbsoluteIRI()).getMessage();
    struct Row {
        Translation translation;
        Raise raise;
        error_code code;
        std::string detail;
    };
    std::vector<Row> rows = {
        {local, fromErrno(EPERM), generic(errc::permission_denied), text(EPERM)},
        {local, fromErrno(EEXIST, rmdir), generic(errc::directory_not_empty), text(ENOTEMPTY)},
        {local, fromErrno(ENOSPC), system(ENOSPC), text(ENOSPC)},
        {local, fromErrno(EROFS, rmdir), system(EROFS), text(EROFS)},
        {local, [] { throw host::FileNameConversionFailure("vela:filesystem:FileNameConversionFailure", "bad", hostPath); },
         generic(errc::invalid_argument), "bad: " + hostPathUtf8},
        {local, [] { throw host::FsysExceptionBase("vela:filesystem:Other", "else"); }, generic(errc::io_error), "else"},
        {local, [&] { throw boostSaid; }, system(EROFS), boostSaid.what()},
        {local, [] { throw std::runtime_error("not a host failure"); }, generic(errc::io_error), "Unknown error"},
        {local, [] { throw 42; }, generic(errc::io_error), "Unknown error"},
        {virt, [] { vfs::AbsoluteIRI{u"memory:relative/p\u00E9"}; }, generic(errc::bad_address),
         "Invalid IRI: memory:relative/p\xC3\xA9"},
        {virt, [] { vfs::AbsoluteIRI{u"gopher:///a/b"}; }, generic(errc::address_family_not_supported),
         "Unsupported IRI scheme: gopher"},
        {virt, [&] { throw ioError; }, generic(errc::io_error), ioError.getMessage()},
        {virt, [] { throw std::overflow_error("too big"); }, generic(errc::io_error), "too big"},
        {virt, [] { throw std::logic_error("not runtime"); }, generic(errc::io_error), "Unknown error"},
        {virt, [] { throw 42; }, generic(errc::io_error), "Unknown error"},
        {caught, [&] { host.copy(in16("caf\xC3\xA9"), in16("x"), Overwrite); }, generic(errc::no_such_file_or_directory),
         "copy failed: Source does not exist: " + in("caf\xC3\xA9")},
        {caught, [&] { host.setPermissions(u"", Perms::Perms_tag(0644)); }, generic(errc::invalid_argument),
         "setPermissions failed: Empty path not permitted"},
        {caught, [&] { host.createInputStream(in16("none"), OpenMode::ReadBinary); },
         generic(errc::no_such_file_or_directory), std::string("createInputStream failed: ") + std::strerror(ENOENT)},
        {caught, [&] { host.createInputStream(folder.path16(), OpenMode::Truncate); }, // refused without an errno
         generic(errc::invalid_argument), std::string("createInputStream failed: ") + std::strerror(EINVAL)},
        {caught, [&] { memory.getLinkTarget(u"memory:///"); }, generic(errc::operation_not_supported),
         "getLinkTarget failed: Symlinks are not supported"},
        {caught, [&] { memory.getFiles(u"memory:///none", sink, true); }, generic(errc::no_such_file_or_directory),
         "getFiles failed: " + notFound + ": memory:///none"},
        {caught, [&] { memory.createInputStream(u"memory:///none", OpenMode::ReadBinary); }, generic(errc::io_error),
         "createInputStream failed: "},
    };
    // These errnos keep their own number in the generic category.
    for (int error : {EACCES, ENOENT, EEXIST, ENAMETOOLONG, ENOTDIR, ENOTEMPTY, EISDIR, EOPNOTSUPP, EINVAL})
        rows.push_back({local, fromErrno(error), generic(errc::errc_t(error)), text(error)});
    // Every storage code; from twelve on, the detail is written and the code left as it was.
    errc::errc_t const storageCodes[] = {
        errc::directory_not_empty, errc::no_such_device_or_address, errc::permission_denied,
        errc::file_exists, errc::no_such_file_or_directory, errc::read_only_file_system,
        errc::file_too_large, errc::resource_unavailable_try_again, errc::no_space_on_device,
        errc::io_error, errc::state_not_recoverable, errc::operation_not_supported};
    for (int code : {0, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 255}) {
        vfs::Exception const thrown(vfs::ErrorCode(code), vfs::AbsoluteIRI(u"memory:///reports/q%C3%A9 3.pkg"));
        rows.push_back({virt, [=] { throw thrown; }, generic(code < 12 ? storageCodes[code] : errc::timed_out),
                        thrown.getMessage() + ": memory:///reports/q\xC3\xA9%203.pkg"});
    }
    for (auto const& row : rows) {
        auto const [said, ec] = translate(row.raise, row.translation);
        EXPECT_EQ(ec, row.code) << row.detail;
        EXPECT_EQ(&ec.category(), &row.code.category()) << row.detail;
        EXPECT_EQ(said, row.detail);
    }
}

/// A call of one operation in its throwing form (nullptr) or its error-code form.
template <class Form>
std::function<bool(error_code*)> bothForms(Form form) {
    return [form](error_code* ec) { return ec ? form(*ec) : form(); };
}

// Every public operation family on a path the back end refuses, through both forms: the
// throwing form's message starts with the family's prefix, and the error-code form hands back
// the same code with the operation's failure value.
void expectEveryFamilyRefuses(FileSystemOps& o, P p, P q, errc::errc_t code, bool exact) {
    static CommitOptions const options;
    auto const time = boost::posix_time::time_from_string("2020-01-02 03:04:05");
    std::vector<std::u16string> files;
    using Family = std::pair<char const*, std::function<bool(error_code*)>>;
#define OPC_FAMILY(name, expr) Family(name, bothForms([&](auto&... e) { return expr; }))
    Family const families[] = {
        OPC_FAMILY("exists", !o.exists(p, e...)),
        OPC_FAMILY("isFile", !o.isFile(p, e...)),
        OPC_FAMILY("isFolder", !o.isFolder(p, e...)),
        OPC_FAMILY("getPermissions", o.getPermissions(p, e...) == Perms::PermsUnknown),
        OPC_FAMILY("setPermissions", (o.setPermissions(p, Perms::Perms_tag(0600), e...), true)),
        OPC_FAMILY("getLastModifiedTime", o.getLastModifiedTime(p, e...).is_not_a_date_time()),
        OPC_FAMILY("setLastModifiedTime", (o.setLastModifiedTime(p, time, e...), true)),
        OPC_FAMILY("getSizeInBytes", o.getSizeInBytes(p, e...) == 0),
        OPC_FAMILY("getLinkTarget", o.getLinkTarget(p, e...).empty()),
        OPC_FAMILY("getFiles", (files.clear(), o.getFiles(p, files, true, e...), files.empty())),
        OPC_FAMILY("createInputStream", !o.createInputStream(p, OpenMode::ReadBinary, e...)),
        OPC_FAMILY("createOutputStream", !o.createOutputStream(p, OpenMode::WriteBinary, e...)),
        OPC_FAMILY("createFolder", (o.createFolder(p, e...), true)),
        OPC_FAMILY("createFolders", (o.createFolders(p, e...), true)),
        OPC_FAMILY("createSymlink", (o.createSymlink(q, p, e...), true)),
        OPC_FAMILY("copy", (o.copy(p, q, Overwrite, e...), true)),
        OPC_FAMILY("copy", (o.copy(q, p, Overwrite, e...), true)),
        OPC_FAMILY("rename", (o.rename(p, q, e...), true)),
        OPC_FAMILY("rename", (o.rename(q, p, e...), true)),
        OPC_FAMILY("remove", (o.remove(p, e...), true)),
        OPC_FAMILY("removeAll", (o.removeAll(p, e...), true)),
        OPC_FAMILY("replaceFileWithBackup", (o.replaceFileWithBackup(p, o, q, options, e...), true)),
    };
#undef OPC_FAMILY
    for (auto const& [name, call] : families) {
        SCOPED_TRACE(name);
        error_code thrownCode;
        try {
            call(nullptr);
            ADD_FAILURE() << "no exception";
        } catch (Exception const& e) {
            EXPECT_EQ(std::string(e.what()).rfind(std::string(name) + " failed: ", 0), 0u) << e.what();
            thrownCode = e.code();
        }
        error_code ec = generic(errc::timed_out);
        EXPECT_TRUE(call(&ec)) << "not the failure value";
        EXPECT_EQ(ec, thrownCode);
        EXPECT_TRUE(!exact || ec == generic(code)) << ec.message();
    }
}

TEST_P(Conformance, EveryOperationRefusesHostilePathsAndTouchesNothing) {
    write(at("good"), "kept");
    std::u16string longPath;
    while (longPath.size() <= 4200)
        longPath += u"/abcdefghij";
    if (GetParam().scheme.empty()) {
        for (auto const& [element, code] : std::vector<std::pair<std::u16string, errc::errc_t>>{
                 {std::u16string(u"/a\0b", 4), errc::invalid_argument}, {u"/a\xD800z", errc::invalid_argument}, {u"/" + std::u16string(256, u'n'), errc::filename_too_long}, {longPath, errc::filename_too_long}})
            expectEveryFamilyRefuses(ops(), m_root + element, at("good"), code, code == errc::invalid_argument);
    } else {
        auto const& scheme = GetParam().scheme;
        for (auto const& bad : {std::u16string(u"relative/path"), scheme + u":no-slashes", scheme + u":///bad%escape"})
            expectEveryFamilyRefuses(ops(), bad, at("good"), errc::bad_address, false);
        expectEveryFamilyRefuses(ops(), u"gopher:///a/b", at("good"), errc::address_family_not_supported, false);
    }
    EXPECT_EQ(listing(m_root), expected({"good"}));
    EXPECT_EQ(read(at("good")), "kept");
    EXPECT_TRUE(m_hostRoot.empty() || std::distance(fs::directory_iterator(m_hostRoot), {}) == 1) << "a folder left behind";
}

// Storage: no links or pipes, only writable/read-only, coarser errors, no merging folder copy, strict
// removal, and PermsUnknown and not-a-date-time mean nothing special.
Capabilities const storage{false, false, false, false, false, false};
// Object storage also publishes a write only at close.
Capabilities const objects{false, false, false, false, false, false, false};

INSTANTIATE_TEST_SUITE_P(BackEnds, Conformance,
                         ::testing::Values(BackEnd{"local", Capabilities(), u""}, BackEnd{"file", storage, u"file"},
                                           BackEnd{"memory", storage, u"memory"}, BackEnd{"s3", objects, u"s3"}),
                         [](auto const& info) { return info.param.name; });

using Pairs = std::vector<std::pair<std::u16string, std::u16string>>;

struct PathRow {
    std::u16string path, filename, extension, parent, normal;
};

void expectRows(FileSystemOps& ops, std::vector<PathRow> const& rows) {
    for (auto const& row : rows) {
        SCOPED_TRACE(toUDEString(row.path));
        EXPECT_EQ(ops.getFilename(row.path), row.filename);
        EXPECT_EQ(ops.getExtension(row.path), row.extension);
        EXPECT_EQ(ops.getParentPath(row.path), row.parent);
        EXPECT_EQ(ops.normalizePath(row.path), row.normal);
    }
}

TEST(PathText, Local) {
    LocalFileSystemOps ops;
    expectRows(ops, {{u"/x/y.tar.gz", u"y.tar.gz", u".gz", u"/x", u"/x/y.tar.gz"},
                     {u"/x//y///z", u"z", u"", u"/x/y", u"/x/y/z"},
                     {u"z", u"z", u"", u"", u"z"},
                     {u"/a/.profile", u".profile", u".profile", u"/a", u"/a/.profile"}});
    for (auto const& [base, tail, joined] : std::vector<std::array<std::u16string, 3>>{
             {u"/a", u"b", u"/a/b"},
             {u"/a", u"/b", u"/a/b"},
             {u"/a", u"/", u"/a"},
             {u"/a", u"", u"/a"},
             {u"/a/", u"b", u"/a/b"},
             {u"", u"c", u"c"},
             {u"", u"/", u""},
             {u"a//b", u"c", u"a/b/c"},
             {u"/a", u"//b", u"/a/b"},
             {u"/", u"x", u"/x"},
             {u"/a", u"caf\u00E9 1", u"/a/caf\u00E9 1"},
         })
        EXPECT_EQ(ops.appendPath(base, tail), joined) << toUDEString(base) << " + " << toUDEString(tail);
    EXPECT_TRUE(ops.isAbsolutePath(u"/no/such/thing"));
    EXPECT_FALSE(ops.isAbsolutePath(u"relative/path") || ops.isAbsolutePath(u""));
    std::u16string local = u"previous";
    EXPECT_TRUE(ops.getLocalPath(u"any//thing", local) && local == u"any//thing") << toUDEString(local);
}

TEST(PathText, Virtual) {
    StorageSystemReference storage;
    VirtualFileSystemOps ops(storage);
    expectRows(ops, {{u"memory:///a/b.tar.gz", u"b.tar.gz", u"gz", u"memory:///a", u"memory:///a/b.tar.gz"},
                     {u"memory:///a/b.", u"b.", u"", u"memory:///a", u"memory:///a/b."},
                     {u"memory:///a.d/b", u"b", u"", u"memory:///a.d", u"memory:///a.d/b"},
                     {u"memory:///a/.profile", u".profile", u"profile", u"memory:///a", u"memory:///a/.profile"},
                     {u"memory:///a//b/./c/../d%20e.pkg/", u"d e.pkg", u"pkg", u"memory:///a/b", u"memory:///a/b/d%20e.pkg"},
                     {u"file:///x/r%C3%A9sum%C3%A9.P%20KG", u"r\u00E9sum\u00E9.P KG", u"P KG", u"file:///x",
                      u"file:///x/r\u00E9sum\u00E9.P%20KG"},
                     {u"memory:///", u"", u"", u"", u"memory:///"},
                     {u"memory:///\U0010FFFF.x", u"\U0010FFFF.x", u"x", u"memory:///", u"memory:///\U0010FFFF.x"}});
    // Names let the storage's exception out; the parent reports through the frame.
    EXPECT_THROW(ops.getFilename(u"memory:relative"), vfs::InvalidIRIException);
    EXPECT_THROW(ops.getExtension(u"gopher:///a.b"), vfs::UnsupportedIRISchemeException);
    EXPECT_THROW(ops.getParentPath(u"not an iri"), Exception);
    for (auto const& [tail, joined] : Pairs{{u"c", u"memory:///a/b/c"}, {u"/c", u"memory:///a/b/c"}, {u"//c", u"memory:///a/b/c"}, {u"../c", u"memory:///a/c"}, {u"", u"memory:///a/b"}})
        EXPECT_EQ(ops.appendPath(u"memory:///a/b", tail), joined) << toUDEString(tail);
    EXPECT_THROW(ops.appendPath(u"relative/base", u"c"), Exception);

    std::u16string back; // a local path becomes the file: IRI of its lexically normal form
    EXPECT_EQ(ops.normalizePath(u"/tmp/a b//c/../d\u00E9%#"), u"file:///tmp/a%20b/d\u00E9%25%23");
    EXPECT_TRUE(ops.getLocalPath(u"file:///tmp/a%20b/d\u00E9%25%23", back));
    EXPECT_EQ(back, u"/tmp/a b/d\u00E9%#");
    for (auto const* other : {u"FILE:///home/a/b.pkg", u"memory:///home/a/b.pkg"}) {
        std::u16string out = u"stale";
        EXPECT_FALSE(ops.getLocalPath(other, out) || !out.empty());
    }
    for (auto const& [text, absolute] : std::vector<std::pair<std::u16string, bool>>{
             {u"memory:///a", true}, {u"MEMORY:///a", true}, {u"Z:///a", false}, {u"/tmp/a", false}, {u"a/b", false}, {u"gopher:///a", false}, {u"memory:a", false}, {u"memory://host/a", false}, {u"", false}, {u"memory:///%zz", false}})
        EXPECT_EQ(ops.isAbsolutePath(text), absolute) << toUDEString(text);
    std::u16string const inTemp = ops.getTempName(u""); // no folder: in the host's temporary folder
    EXPECT_TRUE(ops.getLocalPath(inTemp, back) && !ops.exists(inTemp));
    EXPECT_EQ(fs::path(toUDEString(back)).parent_path(), fs::path(toUDEString(util::getTempDir())).lexically_normal());
    ops.createFolders(u"memory:///work/area");
    std::u16string const name = ops.getTempName(u"memory:///work/area");
    EXPECT_EQ(ops.getParentPath(name), u"memory:///work/area");
    EXPECT_EQ(ops.getExtension(name), u"tmp");
    EXPECT_FALSE(ops.exists(name));
    EXPECT_THROW(ops.getTempName(u"/not/an/iri"), Exception);
}

TEST(Selector, RoutesByPrefixSharesItsBackEndsAndNeedsStorageForIRIs) {
    StorageSystemReference storage;
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

/// What `command` writes to standard output, and whether it exited with 0.
std::pair<bool, std::string> run(std::string const& command) {
    std::string out;
    FILE* pipe = ::popen(command.c_str(), "r");
    char chunk[65536];
    for (std::size_t n; pipe && (n = std::fread(chunk, 1, sizeof chunk, pipe)) > 0;)
        out.append(chunk, n);
    return {pipe && ::pclose(pipe) == 0, out};
}

/// The s3 back end's own proofs, with awscli on the same store.
class ObjectStore : public Conformance {
protected:
    std::string uri(std::string const& relative) { return toUDEString(m_root) + "/" + relative; }
    /// awscli on the test server (Debian's ignores AWS_ENDPOINT_URL).
    std::pair<bool, std::string> aws(std::string const& arguments) {
        return run("aws --endpoint-url '" + env("AWS_ENDPOINT_URL") + "' " + arguments);
    }
    std::string head(std::string const& relative) {
        return aws("s3api head-object --bucket " + env("S3_BUCKET") + " --key '" + m_key + "/" + relative + "'").second;
    }
    void needAws() {
        if (!run("command -v aws >/dev/null").first)
            GTEST_SKIP() << "no aws on PATH";
    }
};

// What the library writes, copies part-wise and moves, awscli reads; a listing longer than one
// page is whole; a reader pinned to the version it opened fails once the object is replaced.
TEST_P(ObjectStore, AwsReadsWhatTheLibraryWritesAndCopies) {
    needAws();
    std::string const big = pattern(12 * MiB, 1);
    write(at("small"), "tiny");
    write(at("big"), big);
    ops().createFolder(at("dir"));
    ops().setLastModifiedTime(at("small"), boost::posix_time::from_time_t(981173106));
    ops().copy(at("big"), at("copy"), FailIfExists);
    ops().rename(at("copy"), at("moved"));
    EXPECT_EQ(aws("s3 cp " + uri("small") + " -").second, "tiny");
    for (std::string const name : {"big", "moved"}) { // three parts of 5 MiB, written or copied
        EXPECT_TRUE(aws("s3 cp " + uri(name) + " -").second == big) << name;
        EXPECT_NE(head(name).find("-3\\\""), std::string::npos) << head(name);
    }
    EXPECT_NE(head("dir/").find("\"ContentLength\": 0"), std::string::npos) << head("dir/");
    EXPECT_NE(head("small").find("\"mtime\": \"981173106\""), std::string::npos) << head("small");
    ops().createFolder(at("many")); // more keys than one page of ListObjectsV2 (1,000)
    std::vector<std::thread> writers;
    for (int t = 0; t < 8; ++t)
        writers.emplace_back([&, t] {
            for (int i = t; i < 1100; i += 8)
                write(at("many/" + std::to_string(i)), "");
        });
    for (auto& writer : writers)
        writer.join();
    for (bool recursive : {true, false})
        EXPECT_EQ(listing(at("many"), recursive).size(), 1100u) << recursive;
    auto in = ops().createInputStream(at("big"), OpenMode::ReadBinary);
    std::string part(MiB, '\0');
    in->read(part.data(), std::streamsize(part.size()));
    write(at("big"), "replaced");
    std::string rest(big.size() - MiB, '\0');
    in->read(rest.data(), std::streamsize(rest.size()));
    EXPECT_TRUE(in->bad());
}

TEST_P(ObjectStore, LibraryReadsWhatAwsWrites) {
    needAws();
    HostFolder folder;
    std::string const bytes = pattern(20 * MiB, 2), file = (folder.path() / "twenty").string();
    writeFile(file, bytes);
    ASSERT_TRUE(aws("s3 cp " + file + " " + uri("twenty") + " --quiet").first);
    EXPECT_NE(head("twenty").find("-3\\\""), std::string::npos) << "awscli sent three parts: " << head("twenty");
    EXPECT_EQ(ops().getSizeInBytes(at("twenty")), bytes.size());
    EXPECT_TRUE(read(at("twenty")) == bytes);
    // Keys no library write makes: an empty segment, a file beside a folder of its name.
    for (std::string key : {"a//b", "x", "x/y", "e/f"})
        ASSERT_TRUE(run("printf " + key + " | aws --endpoint-url '" + env("AWS_ENDPOINT_URL") + "' s3 cp - '" + uri(key) + "'").first);
    EXPECT_EQ(read(m_root + u"/a//b"), "a//b");
    EXPECT_EQ(listing(m_root), expected({"e/f", "twenty", "x"}));
}

TEST_P(ObjectStore, OfFoldersMadeAtOnceOneIsMade) {
    for (int round = 0; round < 5; ++round) {
        std::atomic<int> made{0};
        std::vector<std::thread> makers;
        for (int t = 0; t < 6; ++t)
            makers.emplace_back([&] {
                error_code ec;
                ops().createFolder(at("f" + std::to_string(round)), ec);
                made += !ec;
                EXPECT_TRUE(!ec || ec == errc::file_exists) << ec.message();
            });
        for (auto& maker : makers)
            maker.join();
        EXPECT_EQ(made, 1) << "round " << round;
    }
}

TEST_P(ObjectStore, GatewayKilledDuringAnUploadLeavesTheOldObject) {
    if (env("OPC_S3_DIR").empty())
        GTEST_SKIP() << "OPC_S3_DIR does not name a cluster this test may stop";
    std::string const script = std::string(OPC_SOURCE_DIR) + "/scripts/s3-server.sh ";
    write(at("target"), "old");
    auto out = ops().createOutputStream(at("target"), OpenMode::WriteBinary | OpenMode::Truncate);
    std::string const part = pattern(6 * MiB, 4);
    out->write(part.data(), std::streamsize(part.size())); // the first part goes out
    ASSERT_TRUE(run(script + "stop-gateway --kill").first);
    EXPECT_THROW((out->write(part.data(), std::streamsize(part.size())), out->flush()), Exception);
    out.reset();
    ASSERT_TRUE(run(script + "start-gateway").first);
    EXPECT_EQ(read(at("target")), "old");
    EXPECT_EQ(listing(m_root), expected({"target"}));
}

INSTANTIATE_TEST_SUITE_P(BackEnds, ObjectStore, ::testing::Values(BackEnd{"s3", objects, u"s3"}),
                         [](auto const& info) { return info.param.name; });

/// A loopback server answering every request with the next of `answers` (the last one again
/// once they run out), one connection per request.
class FakeServer {
public:
    explicit FakeServer(std::vector<std::string> answers) : m_answers(std::move(answers)) {
        sockaddr_in address{AF_INET, 0, {htonl(INADDR_LOOPBACK)}, {}};
        socklen_t length = sizeof address;
        if (::bind(m_socket, reinterpret_cast<sockaddr*>(&address), length) || ::listen(m_socket, 8) ||
            ::getsockname(m_socket, reinterpret_cast<sockaddr*>(&address), &length))
            throw std::runtime_error("no loopback socket");
        m_endpoint = "http://127.0.0.1:" + std::to_string(ntohs(address.sin_port));
        m_thread = std::thread([this] { serve(); });
    }
    ~FakeServer() {
        ::shutdown(m_socket, SHUT_RDWR);
        ::close(m_socket);
        m_thread.join();
    }
    std::string const& endpoint() const { return m_endpoint; }
    int requests() const { return m_requests; }

private:
    void serve() {
        for (int client; (client = ::accept(m_socket, nullptr, nullptr)) >= 0; ::close(client)) {
            std::string request;
            char chunk[4096];
            for (ssize_t n; request.find("\r\n\r\n") == std::string::npos && (n = ::recv(client, chunk, sizeof chunk, 0)) > 0;)
                request.append(chunk, std::size_t(n));
            std::string const& answer = m_answers[std::min<std::size_t>(std::size_t(m_requests++), m_answers.size() - 1)];
            ::send(client, answer.data(), answer.size(), MSG_NOSIGNAL);
        }
    }

    std::vector<std::string> m_answers;
    int m_socket = ::socket(AF_INET, SOCK_STREAM, 0);
    std::string m_endpoint;
    std::atomic<int> m_requests{0};
    std::thread m_thread;
};

TEST(ObjectStoreRetries, RefusalsAreRetriedThenReportedAsTryAgain) {
    std::string const refused = "HTTP/1.1 503 Slow Down\r\nRetry-After: 0\r\nContent-Length: 0\r\nConnection: close\r\n\r\n";
    std::string const found = "HTTP/1.1 200 OK\r\nContent-Length: 5\r\nETag: \"e\"\r\nConnection: close\r\n\r\n";
    for (auto const& [answers, expected] : std::vector<std::pair<std::vector<std::string>, errc::errc_t>>{
             {{refused}, errc::resource_unavailable_try_again}, {{refused, found}, errc::success}}) {
        FakeServer server(answers);
        S3Settings settings;
        settings.endpoint = server.endpoint();
        settings.accessKeyId = settings.secretAccessKey = "test";
        VirtualFileSystemOps ops{StorageSystemReference(settings)};
        error_code ec;
        std::uint64_t const size = ops.getSizeInBytes(u"s3://bucket/object", ec);
        EXPECT_EQ(ec.value(), expected) << ec.message();
        EXPECT_EQ(size, expected ? 0u : 5u);
        EXPECT_GT(server.requests(), 1);
    }
}

} // namespace
} // namespace opc::test
