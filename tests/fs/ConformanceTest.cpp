// The conformance suite: every back end (local; virtual on file: and memory:) behaves the same,
// apart from what its capabilities switch off. Fixtures are built through the public operations,
// so the suite knows nothing of how a back end spells its paths. A scheme joins with one line.
#include "support/HostFolder.hpp"

#include <opc/CommitOptions.hpp>
#include <opc/Exception.hpp>
#include <opc/LocalFileSystemOps.hpp>
#include <opc/Text.hpp>
#include <opc/VirtualFileSystemOps.hpp>

#include <stratum/storage/vfs/StorageSystem.hpp>

#include <boost/date_time/posix_time/posix_time.hpp>
#include <gtest/gtest.h>

#include <algorithm>
#include <map>
#include <csignal>
#include <functional>
#include <random>
#include <sstream>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

namespace opc::test {
namespace {

namespace errc = boost::system::errc;
using boost::system::error_code;
using P = std::u16string const&;

/// What a back end supports; a switch that is off skips or relaxes the cases that need it.
struct Capabilities {
    bool symlinks = true;             ///< links are made, seen, listed and copied as links
    bool posixPermissions = true;     ///< all nine bits round-trip (else only 0644/0444)
    bool preciseErrors = true;        ///< failures carry the exact POSIX number
    bool folderCopyModes = true;      ///< NoOverwrite copies a folder into an existing one
    bool lenientRemoval = true;       ///< removeAll of a missing path succeeds
    bool unknownValuesIgnored = true; ///< PermsUnknown and not-a-date-time change nothing
    bool pipes = true;                ///< host pipes are made, and skipped by listings and copies
};

class Conformance;
struct BackEnd {
    std::string name;
    Capabilities caps;
    std::function<void(Conformance&)> setup;
};
void PrintTo(BackEnd const& backEnd, std::ostream* out) { *out << backEnd.name; }

class Conformance : public ::testing::TestWithParam<BackEnd> {
public:
    void SetUp() override { GetParam().setup(*this); }
    FileSystemOps& ops() { return *m_ops; }
    Capabilities const& caps() const { return GetParam().caps; }
    /// `relative` ("a/b/c.txt") appended element by element to `base` (default: the root).
    std::u16string at(std::string const& relative, std::u16string base = {}) {
        std::u16string path = base.empty() ? m_root : base;
        std::stringstream elements(relative);
        for (std::string element; std::getline(elements, element, '/');)
            path = ops().appendPath(path, toString(element, true));
        return path;
    }
    std::string host(std::string const& relative) const { return m_hostRoot + "/" + relative; }
    void write(P path, std::string const& bytes) {
        ops().createOutputStream(path, OpenMode::WriteBinary | OpenMode::Truncate)->write(bytes.data(), bytes.size());
    }
    std::string read(P path) {
        error_code ec;
        auto in = ops().createInputStream(path, OpenMode::ReadBinary, ec);
        return in ? std::string(std::istreambuf_iterator<char>(*in), {}) : "<missing>";
    }
    /// getFiles of `folder`, and what it should hold for paths under `base`: normalised, sorted.
    std::vector<std::u16string> listing(P folder, bool recursive = true) {
        std::vector<std::u16string> files;
        ops().getFiles(folder, files, recursive);
        return normal(files);
    }
    std::vector<std::u16string> expected(std::vector<std::string> const& relatives, std::u16string base = {}) {
        std::vector<std::u16string> paths;
        for (auto const& relative : relatives)
            paths.push_back(at(relative, base));
        return normal(paths);
    }
    std::vector<std::u16string> normal(std::vector<std::u16string> paths) {
        for (auto& path : paths)
            path = ops().normalizePath(path);
        std::sort(paths.begin(), paths.end());
        return paths;
    }
    /// A failed code, and exactly `precise` (unless 0) when the back end reports precise errors.
    void expectFailure(error_code const& ec, errc::errc_t precise) const {
        EXPECT_TRUE(ec.failed() && (!caps().preciseErrors || !precise || ec == errc::make_error_code(precise)))
            << ec.message() << " for " << precise;
    }

    HostFolder m_folder;
    stratum::storage::vfs::StorageSystemReference m_storage;
    std::unique_ptr<FileSystemOps> m_ops;
    std::u16string m_root, m_other; ///< m_other: an empty folder of another scheme, or ""
    std::string m_hostRoot;         ///< the host folder behind the root, or ""
};

// The local back end (no scheme), or the virtual one on a scratch host folder ("file") or on
// "<scheme>:///conformance".
std::function<void(Conformance&)> on(std::u16string const scheme) {
    return [scheme](Conformance& w) {
        w.m_ops = scheme.empty() ? std::unique_ptr<FileSystemOps>(std::make_unique<LocalFileSystemOps>())
                                 : std::make_unique<VirtualFileSystemOps>(w.m_storage);
        auto const onHost = w.m_ops->normalizePath(w.m_folder.path16());
        w.m_root = scheme.empty() || scheme == u"file" ? onHost : scheme + u":///conformance";
        w.m_other = scheme.empty() ? u"" : scheme == u"file" ? u"memory:///other" : onHost;
        w.m_hostRoot = scheme.empty() || scheme == u"file" ? w.m_folder.path().string() : "";
        w.m_ops->createFolders(w.m_root);
        if (!w.m_other.empty())
            w.m_ops->createFolders(w.m_other);
    };
}

// Generated trees: every query, content and listing agrees with what was made and, on the host,
// with lstat and readlink. Names hold spaces, dots and non-ASCII text of two to four bytes.
TEST_P(Conformance, GeneratedTreesAgreeWithTheOracle) {
    char const* const parts[] = {"plain", "with space", "\xC3\xBCn\xC3\xAF", "\xE6\x97\xA5", "e\xF0\x9F\x98\x80",
                                 ".hidden", "a.b.c", "trailing ", "-dash"};
    enum Kind { Missing, File, Folder, Link, Pipe };
    std::map<std::string, std::pair<Kind, std::string>> made; // relative path: kind, content
    std::vector<std::string> folders = {""};
    std::mt19937 gen(unsigned(GetParam().name.size()));
    for (int i = 0; i < 70; ++i) {
        std::string const parent = folders[gen() % folders.size()];
        std::string const rel = (parent.empty() ? "" : parent + "/") + parts[gen() % 9] + " " + std::to_string(i);
        unsigned const kind = gen() % 11, size = std::vector<unsigned>{0, 1, 100, 4097, 70000}[gen() % 5];
        if (kind < 3) {
            ops().createFolder(at(rel));
            made[rel] = {Folder, ""};
            folders.push_back(rel);
        } else if (kind < 6 && caps().symlinks) { // to a file, a folder, or dangling with a long target
            auto const target = kind == 3 ? at(folders.back())
                                : kind == 4 && !made.empty() ? at(made.begin()->first)
                                                             : u"../nowhere/" + std::u16string(std::size_t(i) * 7, u'n');
            ops().createSymlink(target, at(rel));
            made[rel] = {Link, toUDEString(ops().normalizePath(target))};
        } else if (kind == 6 && caps().pipes) {
            ASSERT_EQ(::mkfifo(host(rel).c_str(), 0644), 0);
            made[rel] = {Pipe, ""};
        } else {
            made[rel] = {File, pattern(size, unsigned(i))};
            write(at(rel), made[rel].second);
            if (caps().posixPermissions)
                ops().setPermissions(at(rel), Perms::Perms_tag(0400 | gen() % 0400));
        }
    }
    made["missing"] = made[made.rbegin()->first + "/below"] = {Missing, ""};
    for (auto const& [rel, item] : made) {
        auto const [kind, content] = item;
        auto const path = at(rel);
        SCOPED_TRACE(rel);
        error_code ec = errc::make_error_code(errc::timed_out); // a stale code is cleared
        EXPECT_EQ(ops().exists(path, ec), kind != Missing);
        EXPECT_EQ(ops().isFile(path, ec), kind == File);
        EXPECT_EQ(ops().isFolder(path, ec), kind == Folder);
        EXPECT_EQ(ops().isSymlink(path, ec), kind == Link);
        EXPECT_FALSE(ec.failed()) << ec.message();
        EXPECT_EQ(ops().getSizeInBytes(path, ec), content.size() * (kind == File));
        EXPECT_TRUE(kind == File ? !ec.failed()
                                 : ec.failed() && (kind == Missing || !caps().preciseErrors || ec == errc::is_a_directory))
            << ec.message();
        EXPECT_EQ(kind == File ? read(path) : kind == Link ? toUDEString(ops().getLinkTarget(path)) : "", content);
        struct stat st {};
        if (m_hostRoot.empty() || kind == Missing || ::lstat(host(rel).c_str(), &st) != 0)
            continue;
        using namespace boost::posix_time;
        EXPECT_EQ(ops().getLastModifiedTime(path), from_time_t(st.st_mtim.tv_sec) + microseconds(st.st_mtim.tv_nsec / 1000));
        EXPECT_EQ(ops().getPermissions(path) & Perms::AllPerms,
                  caps().posixPermissions ? st.st_mode & 0777 : (st.st_mode & 0200) ? 0644u : 0444u);
        for (ExistsMode mode : {NoOverwrite, FailIfExists, Overwrite}) { // a pipe is neither copied nor an error
            if (kind == Pipe)
                ops().copy(path, path + u" copy", mode, ec);
            EXPECT_FALSE(kind == Pipe && (ec.failed() || ops().exists(path + u" copy")));
        }
    }
    for (auto const& folder : folders) // listings name files and links, never folders, never follow
        for (bool recursive : {false, true}) {
            std::vector<std::string> want;
            std::string const prefix = folder.empty() ? "" : folder + "/";
            for (auto const& [rel, item] : made)
                if ((item.first == File || item.first == Link) && rel.rfind(prefix, 0) == 0 &&
                    (recursive || rel.find('/', prefix.size()) == std::string::npos))
                    want.push_back(rel);
            EXPECT_EQ(listing(folder.empty() ? m_root : at(folder), recursive), expected(want)) << folder;
        }
    std::vector<std::u16string> files = {u"kept"};
    ops().getFiles(at(folders.back()), files, false);
    EXPECT_EQ(files.front(), u"kept");
}

// Every combination of open-mode bits (the platform's own openmode values), on a missing and on
// an existing file, against the standard file streams: whether it opens, what the file holds.
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
            if (in && existing && !(bits & OpenMode::Truncate)) {
                EXPECT_EQ(std::string(std::istreambuf_iterator<char>(*in), {}),
                          std::string(std::istreambuf_iterator<char>(standard), {}));
            }
        }
    auto out = ops().createOutputStream(at("visible"), OpenMode::WriteBinary); // no buffer of its own
    *out << "now";
    EXPECT_EQ(read(at("visible")), "now");
}

TEST_P(Conformance, PermissionsAndTimesRoundTrip) {
    auto const file = at("p");
    write(file, "data");
    ops().createFolder(at("d"));
    std::mt19937 gen(7);
    for (int i = 0; i < 60; ++i) { // a host folder keeps its owner's rights, so only storage tries one
        unsigned const bits = gen() % 01000 | (caps().posixPermissions ? 0600 : 0); // the owner must clean up
        auto const item = caps().posixPermissions || i % 2 ? file : at("d");
        ops().setPermissions(item, Perms::Perms_tag(bits));
        EXPECT_EQ(ops().getPermissions(item) & Perms::AllPerms,
                  caps().posixPermissions ? bits : (bits & 0222) ? 0644u : 0444u) << std::oct << bits;
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
    for (auto const* text : {"2001-02-03 04:05:06.250000", "1969-07-20 20:17:40", "2038-01-19 03:14:08"}) {
        ops().setLastModifiedTime(file, time_from_string(text));
        EXPECT_EQ(ops().getLastModifiedTime(file), time_from_string(text)) << text;
        struct stat st {};
        if (!m_hostRoot.empty()) { // the host's own clock agrees
            EXPECT_EQ(::stat(host("p").c_str(), &st), 0);
            EXPECT_EQ(from_time_t(st.st_mtim.tv_sec) + microseconds(st.st_mtim.tv_nsec / 1000), time_from_string(text));
        }
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
#define OPC_ROW(call, code) {[&](error_code & ec) { call; }, errc::errc_t(code)}
    std::pair<Call, errc::errc_t> const rows[] = {
        OPC_ROW(ops().getSizeInBytes(at("missing"), ec), errc::no_such_file_or_directory),
        OPC_ROW(ops().getSizeInBytes(at("full"), ec), errc::is_a_directory),
        OPC_ROW(ops().getPermissions(at("missing"), ec), errc::no_such_file_or_directory),
        OPC_ROW(ops().getLastModifiedTime(at("missing"), ec), errc::no_such_file_or_directory),
        OPC_ROW(ops().getFiles(at("missing"), files, true, ec), errc::no_such_file_or_directory),
        OPC_ROW(ops().getFiles(at("file"), files, true, ec), errc::not_a_directory),
        OPC_ROW(ops().createInputStream(at("missing"), OpenMode::ReadBinary, ec), errc::no_such_file_or_directory),
        OPC_ROW(ops().createOutputStream(at("no/f"), OpenMode::WriteBinary, ec), errc::no_such_file_or_directory),
        OPC_ROW(ops().createFolder(at("no/f"), ec), errc::no_such_file_or_directory),
        OPC_ROW(ops().createFolder(at("full"), ec), errc::file_exists),
        OPC_ROW(ops().copy(at("missing"), at("c"), NoOverwrite, ec), errc::no_such_file_or_directory),
        OPC_ROW(ops().copy(at("missing"), at("c"), Overwrite, ec), errc::no_such_file_or_directory),
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
        OPC_ROW(ops().rename(at("file"), at("empty"), ec), 0), OPC_ROW(ops().rename(at("file"), at("full"), ec), 0),
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

TEST_P(Conformance, FoldersCopiesRenamesAndRemovals) {
    ops().createFolders(at("src/inner"));
    ops().createFolders(at("src/inner")); // already there: fine
    write(at("src/a"), "a");
    write(at("src/inner/b"), "b");
    for (ExistsMode mode : {NoOverwrite, FailIfExists, Overwrite}) { // files
        write(at("dst"), "old");
        ops().copy(at("src/a"), at("dst"), Overwrite);
        ops().copy(at("src/a"), at("fresh" + std::to_string(int(mode))), mode);
        EXPECT_EQ(read(at("dst")) + read(at("fresh" + std::to_string(int(mode)))), "aa");
        ops().remove(at("dst"));
    }
    auto const copied = expected({"dst/a", "dst/inner/b"});
    ops().copy(at("src"), at("dst"), NoOverwrite);
    EXPECT_EQ(listing(at("dst")), copied);
    EXPECT_EQ(read(at("dst/inner/b")), "b");
    write(at("dst/stale"), "s"); // Overwrite replaces the whole destination
    ops().copy(at("src"), at("dst"), Overwrite);
    EXPECT_EQ(listing(at("dst")), copied);
    if (caps().folderCopyModes) { // NoOverwrite copies into the folder and keeps the rest
        write(at("dst/extra"), "e");
        ops().remove(at("dst/a"));
        ops().removeAll(at("dst/inner"));
        ops().copy(at("src"), at("dst"), NoOverwrite);
        EXPECT_EQ(listing(at("dst")), expected({"dst/a", "dst/inner/b", "dst/extra"}));
    }
    ops().rename(at("src/a"), at("src/inner/b")); // replaces a file
    ops().rename(at("src"), at("moved"));
    std::vector<std::string> all = {"fresh0", "fresh1", "fresh2", "moved/inner/b", "dst/a", "dst/inner/b"};
    if (caps().folderCopyModes)
        all.push_back("dst/extra");
    EXPECT_EQ(listing(m_root), expected(all));
    EXPECT_EQ(read(at("moved/inner/b")), "a");
    ops().setPermissions(at("fresh0"), Perms::Perms_tag(0444));
    ops().remove(at("fresh0"));
    ops().remove(at("moved/inner/b"));
    ops().remove(at("moved/inner"));
    ops().removeAll(at("dst"));
    EXPECT_EQ(listing(m_root), expected({"fresh1", "fresh2"}));
    EXPECT_FALSE(ops().exists(at("moved/inner")) || ops().exists(at("dst")));
    error_code ec;
    ops().removeAll(at("dst"), ec);
    EXPECT_EQ(ec.failed(), !caps().lenientRemoval) << ec.message();
}

// Links are made, listed, copied, moved and removed as links, never followed (their queries are
// the oracle's).
TEST_P(Conformance, LinksAreNeverFollowed) {
    if (!caps().symlinks)
        GTEST_SKIP() << "no symbolic links in this back end";
    ops().createFolder(at("folder"));
    write(at("folder/inside"), "i");
    auto const outside = ops().normalizePath(at("folder"));
    ops().createSymlink(outside, at("to-folder"));
    ops().createSymlink(u"nowhere", at("dangling"));
    EXPECT_EQ(ops().getLinkTarget(at("dangling")), u"nowhere");
    EXPECT_EQ(listing(m_root), expected({"folder/inside", "to-folder", "dangling"}));
    for (ExistsMode mode : {NoOverwrite, FailIfExists, Overwrite}) {
        ops().copy(at("to-folder"), at("copy"), mode);
        EXPECT_EQ(ops().getLinkTarget(at("copy")), outside);
        ops().remove(at("copy"));
    }
    ops().createFolder(at("tree"));
    ops().rename(at("to-folder"), at("tree/link"));
    ops().copy(at("tree"), at("tree2"), NoOverwrite);
    EXPECT_TRUE(ops().isSymlink(at("tree2/link")));
    ops().removeAll(at("tree"));
    EXPECT_FALSE(ops().exists(at("tree")));
    EXPECT_EQ(read(at("folder/inside")), "i"); // removal never reached through
}

// A write the storage refuses reaches the writer at that very write, as the library's exception:
// a host file limited to 64 KiB (in a child; SIGXFSZ ignored), or a read-only storage file.
TEST_P(Conformance, ARefusedWriteThrowsFromThatWrite) {
    auto out = ops().createOutputStream(at("w"), OpenMode::WriteBinary);
    std::string const block(16384, 'b');
    auto blocksTaken = [&](errc::errc_t expected) {
        int blocks = 0;
        try {
            for (; blocks < 8; ++blocks)
                out->write(block.data(), std::streamsize(block.size()));
        } catch (Exception const& e) { // a host number keeps its own category
            bool const right = e.code().value() == expected && std::string(e.what()).rfind("write failed: ", 0) == 0;
            return right && out->bad() ? blocks : -1;
        }
        return -2;
    };
    if (m_hostRoot.empty()) {
        out->write(block.data(), std::streamsize(block.size()));
        ops().setPermissions(at("w"), Perms::Perms_tag(0444));
        EXPECT_EQ(blocksTaken(errc::permission_denied), 0);
        return;
    }
    auto limited = [&] {
        rlimit const limit{65536, 65536};
        std::signal(SIGXFSZ, SIG_IGN);
        ::setrlimit(RLIMIT_FSIZE, &limit);
        std::_Exit(blocksTaken(errc::file_too_large) == 4 ? 0 : 1);
    };
    EXPECT_EXIT(limited(), ::testing::ExitedWithCode(0), "");
}

// Overwriting a host file replaces the name: another hard link keeps its content, and the
// destination keeps its own mode; only the write bits move when writability changes.
TEST_P(Conformance, OverwriteKeepsHardLinksAndModes) {
    if (m_hostRoot.empty())
        GTEST_SKIP() << "no host files behind this back end";
    writeFile(host("outside"), "kept", 0600);
    writeFile(host("new"), "new", 0644);
    ASSERT_EQ(::link(host("outside").c_str(), host("planted").c_str()), 0);
    ops().copy(at("new"), at("planted"), Overwrite);
    EXPECT_EQ(read(at("planted")) + read(at("outside")), "newkept");
    ops().replaceFileWithBackup(at("outside"), ops(), at("new"), CommitOptions());
    EXPECT_EQ(modeOf(host("outside")), 0600);
    struct Row {
        int before, perms, after;
    } const rows[] = {{0660, 0444, 0440}, {0440, 0644, 0640}, {0600, 0644, 0600}, {0604, 0, 0404}};
    for (auto const& row : caps().posixPermissions ? std::vector<Row>() : std::vector<Row>(rows, rows + 4)) {
        ::chmod(host("outside").c_str(), mode_t(row.before));
        ops().setPermissions(at("outside"), Perms::Perms_tag(row.perms));
        EXPECT_EQ(modeOf(host("outside")), row.after) << std::oct << row.before;
    }
    if (!caps().symlinks)
        return;
    ::chmod(host("outside").c_str(), 0600); // over a link to a 0600 file: a 0600 file, never 0777
    ::symlink("outside", host("link").c_str());
    ops().replaceFileWithBackup(at("link"), ops(), at("new"), CommitOptions());
    EXPECT_EQ(modeOf(host("link")), 0600);
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
    std::vector<std::u16string> reported;
    keep.backupCreatedFcn([&](P path) { reported.push_back(path); });
    ops().replaceFileWithBackup(target, local, source, keep);
    EXPECT_EQ(read(target) + read(at("p.pkg.bak")), "freshold");
    EXPECT_EQ(ops().getPermissions(target) & 0777, 0444u);
    EXPECT_EQ(reported, std::vector<std::u16string>{at("p.pkg.bak")});
    error_code ec;
    ops().replaceFileWithBackup(target, local, source + u"-missing", CommitOptions(), ec);
    EXPECT_TRUE(ec.failed());
    EXPECT_EQ(read(target), "fresh");
    // The library's exception with a cleared code stays a success; anything else is unknown.
    keep.backupCreatedFcn([](P) { throw Exception("noted", error_code()); });
    ops().replaceFileWithBackup(target, local, source, keep, ec);
    EXPECT_FALSE(ec.failed()) << ec.message();
    keep.backupCreatedFcn([](P) { throw std::logic_error("callback broke"); });
    ops().replaceFileWithBackup(target, local, source, keep, ec);
    EXPECT_EQ(ec, errc::make_error_code(errc::io_error));
}

TEST_P(Conformance, TreesCopyAndMoveAcrossSchemes) {
    if (m_other.empty())
        GTEST_SKIP() << "one scheme only";
    std::string const big(100000, '\x7F'), name = "tree/sub dir/\xC3\xA9t\xC3\xA9";
    ops().createFolders(at("tree/sub dir"));
    write(at("tree/a b"), "space");
    write(at(name), big);
    ops().copy(at("tree"), at("tree", m_other), NoOverwrite);
    EXPECT_EQ(listing(at("tree", m_other)), expected({"tree/a b", name}, m_other));
    EXPECT_EQ(read(at(name, m_other)), big);
    ops().rename(at("tree/a b", m_other), at("moved"));
    EXPECT_EQ(read(at("moved")) + read(at("tree/a b", m_other)), "space<missing>");
}

// Without rights nothing is read or changed. Root ignores permission bits, so this runs as root
// only, in a child that dropped to the unprivileged user 65534.
TEST_P(Conformance, WithoutRightsNothingIsReadOrChanged) {
    if (::geteuid() != 0)
        GTEST_SKIP() << "needs root to drop to another user";
    if (m_hostRoot.empty())
        GTEST_SKIP() << "no host files behind this back end";
    ::chmod(m_hostRoot.c_str(), 0755);
    ops().createFolders(at("private/inner"));
    ops().createFolder(at("locked"));
    writeFile(host("locked/file"), "stays", 0600);
    ::chmod(host("private").c_str(), 0700);
    auto child = [&] {
        if (::setresgid(65534, 65534, 65534) != 0 || ::setresuid(65534, 65534, 65534) != 0)
            std::_Exit(2);
        std::string problems;
        auto check = [&](char const* what, error_code const& ec) {
            if (!ec.failed() || (caps().preciseErrors && ec != errc::make_error_code(errc::permission_denied)))
                problems += std::string(what) + ": " + ec.message() + "; ";
        };
        error_code ec;
        std::vector<std::u16string> files;
        ops().createInputStream(at("locked/file"), OpenMode::ReadBinary, ec), check("read", ec);
        ops().getFiles(at("private"), files, false, ec), check("list", ec);
        ops().getFiles(m_root, files, true, ec), check("list all", ec);
        ops().createOutputStream(at("locked/new"), OpenMode::WriteBinary, ec), check("create", ec);
        ops().remove(at("locked/file"), ec), check("remove", ec);
        ops().removeAll(at("locked"), ec), check("removeAll", ec);
        ops().rename(at("locked/file"), at("locked/moved"), ec), check("rename", ec);
        ops().setPermissions(at("locked/file"), Perms::Perms_tag(0666), ec), check("chmod", ec);
        std::fputs(problems.c_str(), stderr);
        std::_Exit(problems.empty() ? 0 : 1);
    };
    EXPECT_EXIT(child(), ::testing::ExitedWithCode(0), "");
    EXPECT_EQ(modeOf(host("locked/file")), 0600);
    EXPECT_EQ(listing(at("locked")), expected({"locked/file"}));
    EXPECT_EQ(read(at("locked/file")), "stays");
}

// Storage has no links and only writable/read-only permissions; its errors are coarser, a
// non-overwriting folder copy refuses an existing folder, removing a missing path fails, and
// PermsUnknown and not-a-date-time mean nothing special.
Capabilities const storage{false, false, false, false, false, false, false};

INSTANTIATE_TEST_SUITE_P(BackEnds, Conformance,
                         ::testing::Values(BackEnd{"local", Capabilities(), on(u"")},
                                           BackEnd{"file", storage, on(u"file")},
                                           BackEnd{"memory", storage, on(u"memory")}),
                         [](auto const& info) { return info.param.name; });

} // namespace
} // namespace opc::test
