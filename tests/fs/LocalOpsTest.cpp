// What the local back end promises beyond the shared behaviour suite: its path arithmetic, its
// own messages, stream modes and errors, listing through a replaced normalisation, and the
// commit's report passing through unchanged.

#include "support/LocalWorld.hpp"

#include <opc/CommitOptions.hpp>
#include <opc/Exception.hpp>
#include <opc/LocalFileSystemOps.hpp>

#include <gtest/gtest.h>

#include <cstring>
#include <filesystem>
#include <fstream>
#include <random>
#include <stdexcept>
#include <sys/mount.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <csignal>
#include <iostream>
#include <unistd.h>

namespace opc::test {
namespace {

namespace fs = std::filesystem;
namespace errc = boost::system::errc;
using boost::system::error_code;

error_code generic(errc::errc_t e) { return errc::make_error_code(e); }

// The message of the throwing form, or "" when it did not throw.
template <class Call>
std::string messageOf(Call&& call) {
    try {
        call();
    } catch (opc::Exception const& e) {
        return e.what();
    }
    return {};
}

class LocalOps : public ::testing::Test {
protected:
    std::u16string path(std::string const& relative) const { return utf16(m_folder.at(relative)); }
    void write(std::string const& relative, std::string const& content) const {
        std::ofstream(m_folder.at(relative), std::ios::binary) << content;
    }
    std::string read(std::string const& relative) const {
        std::ifstream in(m_folder.at(relative), std::ios::binary);
        return std::string(std::istreambuf_iterator<char>(in), {});
    }
    unsigned modeOf(std::string const& relative) const {
        struct stat st {};
        EXPECT_EQ(::lstat(m_folder.at(relative).c_str(), &st), 0) << relative;
        return st.st_mode & 07777;
    }

    ScratchFolder m_folder;
    LocalFileSystemOps m_ops;
};

TEST_F(LocalOps, AppendPathDropsExactlyOneLeadingSlash) {
    struct Row {
        std::u16string base, tail, joined;
    } const rows[] = {
        {u"/a", u"b", u"/a/b"},       {u"/a", u"/b", u"/a/b"},     {u"/a", u"/", u"/a"},
        {u"/a", u"", u"/a"},          {u"/a/", u"b", u"/a/b"},     {u"", u"c", u"c"},
        {u"", u"/", u""},             {u"a//b", u"c", u"a/b/c"},   {u"/a", u"b/c", u"/a/b/c"},
        {u"/a", u"//b", u"/a/b"},     {u"/", u"x", u"/x"},         {u"/a", u"caf\u00E9 1", u"/a/caf\u00E9 1"},
    };
    for (auto const& row : rows)
        EXPECT_EQ(m_ops.appendPath(row.base, row.tail), row.joined)
            << fs::path(row.base).string() << " + " << fs::path(row.tail).string();

    // Generated: a tail with one leading slash joins like the bare tail.
    std::mt19937 gen(5);
    std::uniform_int_distribution<int> letter('a', 'e'), length(1, 4);
    for (int i = 0; i < 200; ++i) {
        std::u16string base = u"/", tail;
        for (int n = length(gen); n > 0; --n)
            base += std::u16string(std::size_t(length(gen)), char16_t(letter(gen))) + u"/";
        for (int n = length(gen); n > 0; --n)
            tail += (tail.empty() ? u"" : u"/") + std::u16string(std::size_t(length(gen)), char16_t(letter(gen)));
        auto const joined = m_ops.appendPath(base, tail);
        EXPECT_EQ(m_ops.appendPath(base, u"/" + tail), joined);
        EXPECT_EQ(fs::path(joined), (fs::path(base) / fs::path(tail)).lexically_normal());
    }
}

TEST_F(LocalOps, PathQueriesAreTextOnly) {
    EXPECT_EQ(m_ops.getFilename(u"/x/y.tar.gz"), u"y.tar.gz");
    EXPECT_EQ(m_ops.getExtension(u"/x/y.tar.gz"), u".gz");
    EXPECT_EQ(m_ops.getExtension(u"/x/y"), u"");
    EXPECT_EQ(m_ops.getParentPath(u"/x//y/z"), u"/x/y");
    EXPECT_EQ(m_ops.getParentPath(u"z"), u"");
    EXPECT_EQ(m_ops.normalizePath(u"/x//y///z"), u"/x/y/z");
    EXPECT_TRUE(m_ops.isAbsolutePath(u"/no/such/thing"));
    EXPECT_FALSE(m_ops.isAbsolutePath(u"relative/path"));
    EXPECT_FALSE(m_ops.isAbsolutePath(u""));
    std::u16string local = u"previous";
    EXPECT_TRUE(m_ops.getLocalPath(u"any//thing", local));
    EXPECT_EQ(local, u"any//thing");
}

// The listing may skip normalising entry paths that are already normal, but never when a
// derived back end has replaced the normalisation: every listed path passes through it.
TEST_F(LocalOps, ListingNormalisesThroughAReplacedNormalisation) {
    struct Marking : LocalFileSystemOps {
        std::u16string doNormalizePath(const std::u16string& p, std::string& d, error_code& ec) override {
            return LocalFileSystemOps::doNormalizePath(p, d, ec) + u"~";
        }
    } marking;
    write("a", "x");
    std::vector<std::u16string> files;
    marking.getFiles(path(""), files, false);
    EXPECT_EQ(files, std::vector<std::u16string>{path("a") + u"~"});
}

TEST_F(LocalOps, TempNamesAreFresh) {
    auto const folder = utf16(m_folder.path());
    auto const first = m_ops.getTempName(folder);
    auto const second = m_ops.getTempName(folder);
    EXPECT_NE(first, second);
    for (auto const& name : {first, second}) {
        fs::path const p(name);
        EXPECT_EQ(p.parent_path(), fs::path(m_folder.path()));
        EXPECT_EQ(p.filename().string().front(), '.');
        EXPECT_EQ(p.extension(), ".tmp");
        EXPECT_FALSE(fs::exists(fs::symlink_status(p)));
    }
    EXPECT_TRUE(fs::equivalent(fs::path(m_ops.getTempName(u"")).parent_path(), fs::temp_directory_path()));
}

TEST_F(LocalOps, FailuresCarryTheirOwnTexts) {
    ::mkdir(m_folder.at("src").c_str(), 0755);
    ::mkdir(m_folder.at("dst").c_str(), 0755);
    write("dst/keep", "k");
    write("file", "f");
    ::symlink("file", m_folder.at("link").c_str());
    std::string const missing = m_folder.at("caf\xC3\xA9 missing");

    struct Row {
        char const* name;
        std::function<void()> call;
        std::string message;
    } const rows[] = {
        {"copy missing", [&] { m_ops.copy(utf16(missing), path("x"), Overwrite); },
         "copy failed: Source does not exist: " + missing},
        {"copy folder FailIfExists", [&] { m_ops.copy(path("src"), path("dst"), FailIfExists); },
         "copy failed: Destination exists: " + m_folder.at("dst")},
        {"rename from empty", [&] { m_ops.rename(u"", path("file")); }, "rename failed: Empty path not permitted"},
        {"setPermissions empty", [&] { m_ops.setPermissions(u"", Perms::Perms_tag(0644)); },
         "setPermissions failed: Empty path not permitted"},
        {"size of a link", [&] { m_ops.getSizeInBytes(path("link")); },
         std::string("getSizeInBytes failed: ") + std::strerror(EISDIR)},
        {"permissions missing", [&] { m_ops.getPermissions(utf16(missing)); },
         std::string("getPermissions failed: ") + std::strerror(ENOENT)},
        {"open missing", [&] { m_ops.createInputStream(utf16(missing), OpenMode::ReadBinary); },
         std::string("createInputStream failed: ") + std::strerror(ENOENT)},
        {"open a folder", [&] { m_ops.createInputStream(path("src"), OpenMode::ReadBinary); },
         std::string("createInputStream failed: ") + std::strerror(EISDIR)},
        {"create existing folder", [&] { m_ops.createFolder(path("src")); },
         std::string("createFolder failed: ") + std::strerror(EEXIST) + ": " + m_folder.at("src")},
    };
    for (auto const& row : rows)
        EXPECT_EQ(messageOf(row.call), row.message) << row.name;
    EXPECT_EQ(read("dst/keep"), "k");
    EXPECT_FALSE(fs::exists(m_folder.at("dst/src")));
}

TEST_F(LocalOps, UnknownValuesAndOtherKindsChangeNothing) {
    error_code ec;
    m_ops.setPermissions(path("missing"), Perms::PermsUnknown, ec);
    EXPECT_FALSE(ec.failed());
    m_ops.setLastModifiedTime(path("missing"), boost::posix_time::ptime(), ec);
    EXPECT_FALSE(ec.failed());
    EXPECT_FALSE(fs::exists(m_folder.at("missing")));

    // A pipe is neither copied nor an error.
    ASSERT_EQ(::mkfifo(m_folder.at("pipe").c_str(), 0644), 0);
    for (ExistsMode mode : {NoOverwrite, FailIfExists, Overwrite}) {
        m_ops.copy(path("pipe"), path("pipe-copy"), mode, ec);
        EXPECT_FALSE(ec.failed()) << ec.message();
        EXPECT_FALSE(fs::exists(fs::symlink_status(m_folder.at("pipe-copy"))));
    }
}

TEST_F(LocalOps, CopyOfAFileKeepsItsPermissionBits) {
    for (mode_t mode : {0600, 0640, 0755, 0444}) {
        auto const name = std::to_string(mode);
        write(name, "content");
        ::chmod(m_folder.at(name).c_str(), mode);
        m_ops.copy(path(name), path(name + "-copy"), Overwrite);
        EXPECT_EQ(modeOf(name + "-copy"), mode);
    }
}

TEST_F(LocalOps, StreamsAddTheirDirectionBitAndKeepTheOthers) {
    if (auto out = m_ops.createOutputStream(path("f"), 0)) // the output bit is added
        *out << "abc";
    auto in = m_ops.createInputStream(path("f"), 0); // the input bit is added
    ASSERT_TRUE(in);
    EXPECT_EQ(std::string(std::istreambuf_iterator<char>(*in), {}), "abc");
    // Input and output together (no truncation): write over the start, keep the rest.
    if (auto out = m_ops.createOutputStream(path("f"), OpenMode::In | OpenMode::Binary))
        *out << "X";
    if (auto out = m_ops.createOutputStream(path("f"), OpenMode::Append))
        *out << "d";
    EXPECT_EQ(read("f"), "Xbcd");
    // A combination the standard streams refuse fails cleanly and leaves the file.
    error_code ec;
    EXPECT_FALSE(m_ops.createInputStream(path("f"), OpenMode::Truncate, ec));
    EXPECT_EQ(ec, generic(errc::invalid_argument));
    EXPECT_EQ(read("f"), "Xbcd");
}

// A write that the file system refuses reaches the writer at that very write, as the library's
// exception with the system's code: not a short count, nor bytes lost in a buffer. 64 KiB take
// six blocks of 10000 bytes and part of the seventh.
TEST_F(LocalOps, RefusedWritesThrowFromThatWrite) {
    std::string const small = m_folder.at("small");
    ::mkdir(small.c_str(), 0777);
    bool const mounted = ::mount("tmpfs", small.c_str(), "tmpfs", 0, "size=64k") == 0;
    std::shared_ptr<void> const unmount(nullptr, [&](void*) {
        if (mounted)
            ::umount2(small.c_str(), MNT_DETACH);
    });
    struct Row {
        int error;
        std::string file;
    } const rows[] = {{EFBIG, m_folder.at("limited")}, {ENOSPC, small + "/full"}};
    for (Row const& row : rows) {
        if (row.error == ENOSPC && !mounted) {
            std::cout << "disk-full case skipped: mounting a small tmpfs needs root\n";
            continue;
        }
        pid_t const child = ::fork();
        if (child == 0) {
            rlimit const limit{65536, 65536}; // file too large, without privileges
            if (row.error == EFBIG && (::setrlimit(RLIMIT_FSIZE, &limit) != 0 || std::signal(SIGXFSZ, SIG_IGN) == SIG_ERR))
                std::_Exit(1);
            std::string const block(10000, 'x');
            int written = 0;
            try {
                auto out = m_ops.createOutputStream(utf16(row.file), OpenMode::WriteBinary);
                for (; written < 20; ++written)
                    out->write(block.data(), std::streamsize(block.size()));
            } catch (opc::Exception const& e) {
                bool const right = e.code().value() == row.error && std::string(e.what()).rfind("write failed: ", 0) == 0;
                std::_Exit(right ? 100 + written : 2);
            } catch (...) {
                std::_Exit(3);
            }
            std::_Exit(4);
        }
        int status = 0;
        ASSERT_EQ(::waitpid(child, &status, 0), child);
        EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 106) << std::strerror(row.error) << ": " << status;
    }
}

TEST_F(LocalOps, CommitKeepsTheModeAndPassesReportsThroughUnchanged) {
    write("target", "old");
    write("new", "fresh");
    ::chmod(m_folder.at("target").c_str(), 0640);
    m_ops.replaceFileWithBackup(path("target"), m_ops, path("new"), CommitOptions());
    EXPECT_EQ(read("target"), "fresh");
    EXPECT_EQ(modeOf("target"), 0640u);
    // Over a link to a 0600 file: a 0600 file takes the link's place, never a 0777 one.
    write("private", "p");
    ::chmod(m_folder.at("private").c_str(), 0600);
    ::symlink("private", m_folder.at("link").c_str());
    m_ops.replaceFileWithBackup(path("link"), m_ops, path("new"), CommitOptions());
    EXPECT_EQ(modeOf("link"), 0600u);
    write("new", "newer");

    // A failure of the commit: its own message behind the frame's prefix, and a failed code.
    error_code ec;
    m_ops.replaceFileWithBackup(path("target"), m_ops, path("missing"), CommitOptions(), ec);
    EXPECT_TRUE(ec.failed());
    EXPECT_EQ(messageOf([&] { m_ops.replaceFileWithBackup(path("target"), m_ops, path("missing"), CommitOptions()); })
                  .rfind("replaceFileWithBackup failed: Could not commit changes:  ", 0),
              0u);
    EXPECT_EQ(read("target"), "fresh");

    // A library exception with a cleared code stays a success, as the library's convention says.
    CommitOptions keep;
    keep.removeBackup(false);
    keep.backupCreatedFcn([](std::u16string const&) { throw opc::Exception("noted", error_code()); });
    m_ops.replaceFileWithBackup(path("target"), m_ops, path("new"), keep, ec);
    EXPECT_FALSE(ec.failed()) << ec.message();
    EXPECT_EQ(read("target"), "newer");

    // Anything else is translated like any other failure.
    CommitOptions odd;
    odd.removeBackup(false);
    odd.backupCreatedFcn([](std::u16string const&) { throw std::logic_error("callback broke"); });
    EXPECT_EQ(messageOf([&] { m_ops.replaceFileWithBackup(path("target"), m_ops, path("new"), odd); }),
              "replaceFileWithBackup failed: Unknown error");
    m_ops.replaceFileWithBackup(path("target"), m_ops, path("new"), odd, ec);
    EXPECT_EQ(ec, generic(errc::io_error));
}

} // namespace
} // namespace opc::test
