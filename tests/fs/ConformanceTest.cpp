// Every back end behaves the same, apart from what its capabilities switch off: the suite over
// every back end, with an oracle over generated trees.
#include "fs/Suite.hpp"

#include <opc/Commit.hpp>
#include <opc/CommitOptions.hpp>
#include <opc/FileSystemOpsSelector.hpp>

#include <stratum/storage/vfs/File.hpp>

#include <sys/resource.h>
#include <sys/stat.h>

#include <csignal>
#include <chrono>
#include <cstring>
#include <map>
#include <thread>

namespace opc::test {
namespace {

class Conformance : public BackEndTest {
protected:
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
        int const items = GetParam().scheme == u"s3" ? 40 : 70; // every request crosses a network there
        for (int i = 0; i < items; ++i) {
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
        if (m_hostRoot.empty() || kind == Missing || ::lstat(host(rel).c_str(), &st) != 0) continue;
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
            // Binary and text are the same on the host; on object storage each case is slow.
            if ((bits & std::ios_base::binary) && GetParam().scheme == u"s3") continue;
            SCOPED_TRACE("mode " + std::to_string(bits) + (existing ? " existing" : " missing"));
            auto const path = at("m" + std::to_string(bits));
            fs::remove(oracle);
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
                if (out) *out << "XY";
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
    for (int i = 0; i < (caps().posixPermissions ? 60 : 16); ++i) {                 // a host folder keeps its owner's rights, so only storage tries one
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
    // No parent folder: a missing one, or where folders are implicit a file.
    std::string const orphan = caps().explicitFolders ? "no/f" : "file/f";
    using Call = std::function<void(error_code&)>;
#define OPC_ROW(call, code) {[&](error_code& ec) { call; }, errc::errc_t(code)}
    std::pair<Call, errc::errc_t> const rows[] = {
        OPC_ROW(ops().getSizeInBytes(at("missing"), ec), errc::no_such_file_or_directory),
        OPC_ROW(ops().getPermissions(at("missing"), ec), errc::no_such_file_or_directory),
        OPC_ROW(ops().getLastModifiedTime(at("missing"), ec), errc::no_such_file_or_directory),
        OPC_ROW(ops().getFiles(at("missing"), files, true, ec), errc::no_such_file_or_directory),
        OPC_ROW(ops().getFiles(at("file"), files, true, ec), errc::not_a_directory),
        OPC_ROW(ops().createInputStream(at("missing"), OpenMode::ReadBinary, ec), errc::no_such_file_or_directory),
        OPC_ROW(ops().createOutputStream(at(orphan), OpenMode::WriteBinary, ec), errc::no_such_file_or_directory),
        OPC_ROW(ops().createFolder(at(orphan), ec), errc::no_such_file_or_directory),
        OPC_ROW(ops().createFolder(at("full"), ec), errc::file_exists),
        OPC_ROW(ops().copy(at("missing"), at("c"), NoOverwrite, ec), errc::no_such_file_or_directory),
        OPC_ROW(ops().copy(at("file"), at("full/inner/f"), NoOverwrite, ec), errc::file_exists),
        OPC_ROW(ops().copy(at("file"), at("full/inner/f"), FailIfExists, ec), errc::file_exists),
        OPC_ROW(ops().copy(at("full/inner"), at("full"), FailIfExists, ec), errc::file_exists),
        OPC_ROW(ops().rename(at("missing"), at("c"), ec), errc::no_such_file_or_directory),
        OPC_ROW(ops().rename(at("file"), at(orphan), ec), errc::no_such_file_or_directory),
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
        // Nor a folder a file; a commit from a folder or from nothing leaves nothing beside.
        OPC_ROW(ops().rename(at("empty"), at("file"), ec), 0),
        OPC_ROW(ops().rename(at("full"), at("file"), ec), 0),
        OPC_ROW(ops().replaceFileWithBackup(at("file"), ops(), at("full"), {}, ec), errc::is_a_directory),
        OPC_ROW(ops().replaceFileWithBackup(at("file"), ops(), at("missing"), {}, ec), errc::no_such_file_or_directory),
        OPC_ROW(try { replaceFileWithBackup(ops(), at("file"), ops(), at("full"), {}); } catch (Exception const& e) { ec = e.code(); }, 0),
    };
#undef OPC_ROW
    for (std::size_t i = 0; i < std::size(rows); ++i) {
        SCOPED_TRACE(i);
        error_code ec;
        rows[i].first(ec);
        expectFailure(ec, rows[i].second);
    }
    EXPECT_EQ(listing(m_root), before);
    EXPECT_NE(thrown([&] { ops().replaceFileWithBackup(at("file"), ops(), at("full"), {}); }).first.find("a folder, not a file: " + toUDEString(at("full"))), std::string::npos);
    EXPECT_TRUE(ops().isFolder(at("empty")) && !ops().exists(at("no")) && !ops().exists(at("c")));
    EXPECT_EQ(read(at("file")) + read(at("full/inner/f")), "xf");
    // A missing item's failure names it, with ENOENT on every back end.
    for (auto const& call : std::vector<std::function<void()>>{
             [&] { ops().createInputStream(at("missing"), OpenMode::ReadBinary); }, [&] { ops().getSizeInBytes(at("missing")); }}) {
        auto const [message, code] = thrown(call);
        EXPECT_EQ(code, errc::no_such_file_or_directory) << message;
        EXPECT_NE(message.find(toUDEString(at("missing"))), std::string::npos) << message;
    }
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
    if (!caps().explicitFolders) { // items under prefixes that hold nothing make them folders, without markers
        write(at("new/deep/f"), "n");
        ops().copy(at("new/deep/f"), at("copied/c"), FailIfExists);
        ops().rename(at("new/deep/f"), at("renamed/r"));
        ops().createFolder(at("made/empty")); // a marker: the empty folder stays
        EXPECT_FALSE(ops().exists(at("new/deep")) || ops().exists(at("new")));
        EXPECT_TRUE(ops().isFolder(at("copied")) && ops().isFolder(at("renamed")) && ops().isFolder(at("made/empty")));
        EXPECT_EQ(read(at("copied/c")) + read(at("renamed/r")), "nn");
        ops().remove(at("renamed/r"));
        EXPECT_FALSE(ops().exists(at("renamed")));
        EXPECT_EQ(listing(m_root), expected({"copied/c", "f", "f1", "f2"}));
    }
    if (!caps().symlinks) return;
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
    if (!caps().visibleBeforeClose) GTEST_SKIP() << "writes become visible at close: a refused part is a fault-injection test's";
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
    if (GetParam().scheme == u"memory") { // another storage system's file of the same IRI, never this one's
        VirtualFileSystemOps elsewhere{StorageSystemReference()};
        elsewhere.createFolders(m_root);
        writeThrough(elsewhere, at("new.pkg"), "theirs");
        write(at("new.pkg"), "ours");
        ops().replaceFileWithBackup(target, elsewhere, at("new.pkg"), CommitOptions());
        EXPECT_EQ(read(target), "theirs");
        writeThrough(elsewhere, at("new.pkg"), "theirs again"); // the commit called directly too
        opc::replaceFileWithBackup(ops(), target, elsewhere, at("new.pkg"), CommitOptions());
        EXPECT_EQ(read(target), "theirs again");
    }
    if (!caps().symlinks) return;
    writeFile(host("outside"), "kept", 0600); // over a link to a 0600 file: a 0600 file, never 0777
    ops().createSymlink(u"outside", at("link"));
    ops().replaceFileWithBackup(at("link"), local, source, CommitOptions());
    EXPECT_EQ(modeOf(host("link")), 0600);
    EXPECT_EQ(read(at("outside")) + read(at("link")), "keptfresh");
}

// Conditional and cancelled commits: another writer's package at the target always survives, and a
// refused or cancelled commit leaves nothing of its own (no backup, no temporary, no upload).
TEST_P(Conformance, ConditionalAndCancelledCommitsLoseNoOnesWork) {
    HostFolder sourceFolder;
    LocalFileSystemOps local;
    auto const source = sourceFolder.path16() + u"/new.pkg", target = at("p.pkg");
    std::string const fresh(3 * MiB + 3, 'n'); // several progress steps; one PUT on s3
    writeFile((sourceFolder.path() / "new.pkg").string(), fresh);
    std::vector<std::pair<std::uint64_t, std::uint64_t>> calls;
    std::function<void()> during; // a second writer, while the new content is copied
    CommitOptions options;
    options.removeBackup(false);
    options.progressFcn([&](std::uint64_t done, std::uint64_t total) {
        calls.emplace_back(done, total);
        if (during) std::exchange(during, nullptr)();
        return true;
    });
    auto refusal = [&](error_code code) {
        auto const [message, ec] = thrown([&] { ops().replaceFileWithBackup(target, local, source, options); });
        EXPECT_EQ(ec, code) << message;
        EXPECT_EQ(message.rfind("replaceFileWithBackup failed: Could not commit changes:  ", 0), 0u) << message;
    };

    options.expectedVersion(std::string()); // nothing there yet: the commit goes in
    ops().replaceFileWithBackup(target, local, source, options);
    EXPECT_EQ(ops().getSizeInBytes(target), fresh.size());
    ASSERT_GE(calls.size(), 2u);
    for (std::size_t i = 0; i < calls.size(); ++i)
        EXPECT_LE(calls[i].first - (i ? calls[i - 1].first : 0), 8 * MiB) << i;
    EXPECT_EQ(calls.back(), std::make_pair(std::uint64_t(fresh.size()), std::uint64_t(fresh.size())));
    auto const before = listing(m_root);
    refusal(CommitOptions::versionMismatch()); // now something is there

    std::string const tag = ops().getVersionTag(target);
    write(target, "theirs"); // another writer between getVersionTag and the commit
    EXPECT_NE(ops().getVersionTag(target), tag);
    options.expectedVersion(tag);
    refusal(CommitOptions::versionMismatch());
    options.expectedVersion(ops().getVersionTag(target));
    during = [&] { write(target, "theirs, again"); }; // ... or between the first check and the rename
    refusal(CommitOptions::versionMismatch());
    EXPECT_EQ(read(target), "theirs, again");
    EXPECT_EQ(listing(m_root), before);

    // Cancelled at the last call, when s3 has sent a part of its upload already.
    writeFile((sourceFolder.path() / "new.pkg").string(), std::string(6 * MiB + 1, 'c'));
    options.expectedVersion(std::nullopt);
    options.progressFcn([&](std::uint64_t done, std::uint64_t total) { return done != total; });
    refusal(CommitOptions::canceled());
    EXPECT_EQ(read(target), "theirs, again");
    EXPECT_EQ(listing(m_root), before);
    if (!m_key.empty()) { // the cancelled upload was aborted
        EXPECT_TRUE(vfs::removeS3Litter(objectStorage(), env("S3_BUCKET"), m_key + "/", {}, true).uploads.empty());
    }
    error_code ec;
    EXPECT_TRUE(ops().getVersionTag(at("missing"), ec).empty());
    EXPECT_EQ(ec, errc::no_such_file_or_directory);
}

// The local back end lists a whole tree in one host walk, a derived class folder by folder: the
// same entries in the same order, and at an unreadable sub-folder the same partial list and failure.
TEST_P(Conformance, LocalTreeWalkMatchesFolderByFolderWalk) {
    if (!GetParam().scheme.empty()) GTEST_SKIP() << "the one host walk is the local back end's own";
    struct Derived : LocalFileSystemOps {};
    makeTree();
    // Both walks, in both forms, give the same list, code and message; `cut` counts listings cut short.
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
    for (bool recursive : {false, true}) EXPECT_TRUE(same(recursive)) << recursive;
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

/// A call of one operation in its throwing form (nullptr) or its error-code form.
template <class Form>
std::function<bool(error_code*)> bothForms(Form form) {
    return [form](error_code* ec) { return ec ? form(*ec) : form(); };
}

using Family = std::pair<char const*, std::function<bool(error_code*)>>;

// Every public operation family with `p` in each of its path places (`q` in the other), each
// called through its throwing form (nullptr) or its error-code form, true for the failure value.
// Those that move or remove `q` come last.
std::u16string const longPath = [] { std::u16string path; while (path.size() <= 4200) path += u"/abcdefghij"; return path; }();

std::vector<Family> everyFamily(FileSystemOps& o, P p, P q) {
    static CommitOptions const options;
    auto const files = std::make_shared<std::vector<std::u16string>>(); // a caller's own: tables run side by side
    auto const time = boost::posix_time::time_from_string("2020-01-02 03:04:05");
#define OPC_FAMILY(name, expr) Family(name, bothForms([&o, p, q, time, files](auto&... e) { return expr; }))
    return {
        OPC_FAMILY("exists", !o.exists(p, e...)),
        OPC_FAMILY("isFile", !o.isFile(p, e...)),
        OPC_FAMILY("isFolder", !o.isFolder(p, e...)),
        OPC_FAMILY("getPermissions", o.getPermissions(p, e...) == Perms::PermsUnknown),
        OPC_FAMILY("setPermissions", (o.setPermissions(p, Perms::Perms_tag(0600), e...), true)),
        OPC_FAMILY("getLastModifiedTime", o.getLastModifiedTime(p, e...).is_not_a_date_time()),
        OPC_FAMILY("setLastModifiedTime", (o.setLastModifiedTime(p, time, e...), true)),
        OPC_FAMILY("getSizeInBytes", o.getSizeInBytes(p, e...) == 0),
        OPC_FAMILY("getLinkTarget", o.getLinkTarget(p, e...).empty()),
        OPC_FAMILY("getFiles", (files->clear(), o.getFiles(p, *files, true, e...), files->empty())),
        OPC_FAMILY("createInputStream", !o.createInputStream(p, OpenMode::ReadBinary, e...)),
        OPC_FAMILY("createOutputStream", !o.createOutputStream(p, OpenMode::WriteBinary, e...)),
        OPC_FAMILY("createFolder", (o.createFolder(p, e...), true)),
        OPC_FAMILY("createFolders", (o.createFolders(p, e...), true)),
        OPC_FAMILY("createSymlink", (o.createSymlink(q, p, e...), true)),
        OPC_FAMILY("copy", (o.copy(p, q, Overwrite, e...), true)),
        OPC_FAMILY("copy", (o.copy(q, p, Overwrite, e...), true)),
        OPC_FAMILY("replaceFileWithBackup", (o.replaceFileWithBackup(p, o, q, options, e...), true)),
        OPC_FAMILY("replaceFileWithBackup", (o.replaceFileWithBackup(q, o, p, options, e...), true)),
        OPC_FAMILY("getVersionTag", o.getVersionTag(p, e...).empty()),
        OPC_FAMILY("renameIfVersion", (o.renameIfVersion(p, q, "", e...), true)),
        OPC_FAMILY("rename", (o.rename(p, q, e...), true)),
        OPC_FAMILY("rename", (o.rename(q, p, e...), true)),
        OPC_FAMILY("remove", (o.remove(p, e...), true)),
        OPC_FAMILY("removeAll", (o.removeAll(p, e...), true)),
    };
#undef OPC_FAMILY
}

// Every public operation family on a path the back end refuses, through both forms: the
// throwing form's message starts with the family's prefix, and the error-code form hands back
// the same code with the operation's failure value.
void expectEveryFamilyRefuses(FileSystemOps& o, P p, P q, errc::errc_t code, bool exact) {
    for (auto const& [name, call] : everyFamily(o, p, q)) {
        SCOPED_TRACE(name);
        auto const [message, thrownCode] = thrown([&] { call(nullptr); });
        EXPECT_EQ(message.rfind(std::string(name) + " failed: ", 0), 0u) << message;
        error_code ec = errc::make_error_code(errc::timed_out);
        EXPECT_TRUE(call(&ec)) << "not the failure value";
        EXPECT_EQ(ec, thrownCode);
        EXPECT_TRUE(!exact || ec == errc::make_error_code(code)) << ec.message();
    }
}

TEST_P(Conformance, EveryOperationRefusesHostilePathsAndTouchesNothing) {
    write(at("good"), "kept");
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

// Hostile input aimed from a jail folder at a file and a folder beside it: escaped separators
// and dots in every place of a path and of an appended child, NUL, lone surrogates, over-long
// names and paths, trailing separators, the wrong kind of item, links. After every call of every
// operation family everything outside the jail is as it was (kinds, bytes, modes, times), every
// path that is accepted normalises (and for file:, gives a local path) inside the jail, and every
// refusal names the path it refused. The calls go through the selector, to the back end under test.
// Object storage runs the rows side by side, each lane in a jail of its own, and looks outside
// once a row (every item is a round trip there).
TEST_P(Conformance, HostileInputNeverLeavesTheJail) {
    write(at("victim"), "victim");
    ops().createFolders(at("vault/inner"));
    write(at("vault/inner/f"), "f");
    auto const scheme = GetParam().scheme;
    std::size_t const lanes = scheme == u"s3" ? 6 : 1;
    std::vector<vfs::AbsoluteIRI> jails; // one a lane: "jail0", ...
    for (std::size_t first = 0; first < lanes && m_hostRoot.empty(); ++first) jails.emplace_back(ops().normalizePath(at("jail" + std::to_string(first))));
    auto const outside = [&] { // what lies outside the jails, item by item
        std::map<std::string, std::string> items;
        if (!m_hostRoot.empty()) {
            for (auto const& item : fs::recursive_directory_iterator(m_hostRoot)) {
                auto const name = item.path().string().substr(m_hostRoot.size());
                if (name.rfind("/jail", 0) == 0) continue;
                struct stat st {};
                ::lstat(item.path().c_str(), &st); // kind and mode, time, then bytes or link target
                items[name] = std::to_string(st.st_mode) + " " + std::to_string(st.st_mtim.tv_nsec + st.st_mtim.tv_sec * 1000000000LL) +
                              (S_ISREG(st.st_mode) ? readFile(item.path().string()) : S_ISLNK(st.st_mode) ? fs::read_symlink(item.path()).string() : "");
            }
            return items;
        }
        auto const all = scheme == u"memory" ? vfs::AbsoluteIRI(u"memory:///") : vfs::AbsoluteIRI(m_root);
        for (auto const& entry : vfs::Folder(all, m_storage).listAllRecursive(u"")) {
            auto const iri = entry.getIRI().toString();
            if (std::any_of(jails.begin(), jails.end(), [&](auto const& jail) { return entry.getIRI().isWithin(jail); })) continue;
            items[toUDEString(iri)] = entry.isFolder() ? "folder" : std::to_string(ops().getPermissions(iri)) + " " +
                                      to_simple_string(ops().getLastModifiedTime(iri)) + " " + read(iri);
        }
        return items;
    };
    auto const before = outside();
    ASSERT_GE(before.size(), 3u);
    // Suffixes of the jail's path, and children appended to it; a child may be refused or kept inside.
    std::vector<std::u16string> const suffixes = {
        u"/..%2Fvictim", u"/x/..%2F..%2Fvictim", u"/sub%2F..%2F..%2F..%2Fvictim", u"/%2E%2E%2Fvictim",
        u"/x/%2e%2e%2f%2e%2e%2fvault%2finner%2ff", u"/%2Fvictim", u"/x%2F", u"/x/%2E%2E", u"/x/%2E/%2e%2E/file",
        u"/file%00", std::u16string(u"/a\0b", 4), u"/a\xD800" u"b", u"/\xDC00", u"/" + std::u16string(255, u'n'),
        u"/" + std::u16string(256, u'n'), longPath, u"/file/", u"/x/", u"//file", u"/x", u"/file/child", u"/to-victim",
        u"/x/to-vault", u"", u"..%2F..%2Fvictim", u"%2E%2E%2Fvictim", u"x%2F..%2F..%2Fvault", u"x/%2E%2E/file", u"%2F", u"/%2E/file%2F"};
    std::size_t const children = 6; // the last suffixes: appended as children, the one before them: the jail from above
    auto const within = [&](P path, P folder) { return path == folder || path.rfind(folder + u"/", 0) == 0; };
    auto const narrow = [](P text) { return toUDEString(text.substr(0, text.find_first_of(std::u16string(u"\0\xD800\xDC00", 3)))); };
    auto const lane = [&](std::size_t first) {
        std::string const name = "jail" + std::to_string(first);
        auto const jail = at(name), jailIri = ops().normalizePath(jail);
        FileSystemOpsSelector const selector(m_storage);
        for (std::size_t row = first; row < suffixes.size(); row += lanes) {
            auto const& suffix = suffixes[row];
            auto path = jail + suffix;
            if (row + children + 1 == suffixes.size()) { // the jail reached from above the root
                path = scheme.empty() ? u"/../.." + jail : scheme + u"://" + vfs::AbsoluteIRI(jailIri).getAuthority() + u"/../.." + vfs::AbsoluteIRI(jailIri).getPath();
            } else if (row + children >= suffixes.size()) {
                auto const message = thrown([&] { path = ops().appendPath(jail, suffix); }).first;
                if (!message.empty()) { // refused: the message names the child
                    EXPECT_NE(message.find(toUDEString(suffix).substr(suffix[0] == u'/')), std::string::npos) << message;
                    continue;
                }
            }
            SCOPED_TRACE(narrow(path.substr(0, 200)));
            error_code ec;
            ops().removeAll(jail, ec);
            ops().createFolders(at(name + "/x/sub"));
            write(at(name + "/file"), "inside");
            if (caps().symlinks) {
                ops().createSymlink(ops().normalizePath(at("victim")), at(name + "/to-victim"));
                ops().createSymlink(ops().normalizePath(at("vault")), at(name + "/x/to-vault"));
            }
            std::u16string normal, local, jailLocal;
            thrown([&] { normal = ops().normalizePath(path); });
            if (scheme.empty() && normal.find(u"/../") != std::u16string::npos) normal = fs::path(normal).lexically_normal().u16string(); // host paths keep ".."
            EXPECT_TRUE(normal.empty() || within(normal, jailIri)) << toUDEString(normal);
            if (scheme == u"file" && !normal.empty()) {
                ops().getLocalPath(jailIri, jailLocal);
                EXPECT_TRUE(ops().getLocalPath(path, local) && within(local, jailLocal)) << toUDEString(local);
            }
            bool const link = path == jail + u"/to-victim" || path == jail + u"/x/to-vault";
            FileSystemOps& routed = selector.getForPath(path); // the selector sends it where ops() is
            EXPECT_EQ(typeid(routed), typeid(ops()));
            for (auto const& [family, call] : everyFamily(routed, path, at(name + "/file"))) {
                if (link && family == std::string("createOutputStream")) continue; // writes through, as a standard stream does
                auto const [message, code] = thrown([&] { call(nullptr); });
                EXPECT_TRUE(lanes > 1 || outside() == before) << family;
                // A refusal of the path's text names the path, or the fault (its NUL, the host's reason).
                bool const refused = code == errc::bad_address || code == errc::invalid_argument || code == errc::filename_too_long;
                EXPECT_TRUE(!refused || message.find(narrow(path)) != std::string::npos || message.find("NUL") != std::string::npos ||
                            message.find(std::strerror(code.value())) != std::string::npos)
                    << family << ": " << message;
            }
            EXPECT_EQ(outside(), before);
        }
    };
    std::vector<std::thread> threads;
    for (std::size_t first = 0; first < lanes; ++first) threads.emplace_back(lane, first);
    for (auto& thread : threads) thread.join();
}

INSTANTIATE_TEST_SUITE_P(BackEnds, Conformance,
                         ::testing::Values(BackEnd{"local", Capabilities(), u""}, BackEnd{"file", storage, u"file"},
                                           BackEnd{"memory", storage, u"memory"}, BackEnd{"s3", objects, u"s3"}),
                         [](auto const& info) { return info.param.name; });

} // namespace
} // namespace opc::test
