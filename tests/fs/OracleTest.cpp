// Generated trees made with plain POSIX calls: every query of the local back end must agree
// with lstat and readlink, and every listing with a walk by std::filesystem.
#include "support/HostFolder.hpp"

#include <opc/LocalFileSystemOps.hpp>

#include <boost/date_time/posix_time/posix_time.hpp>

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <random>
#include <set>
#include <sys/stat.h>
#include <unistd.h>

namespace opc::test {
namespace {

namespace fs = std::filesystem;
namespace errc = boost::system::errc;
using boost::system::error_code;

// Name parts: spaces, dots, non-ASCII of two, three and four bytes.
char const* const nameParts[] = {"plain", "with space", "\xC3\xBCn\xC3\xAF", "\xE6\x97\xA5\xE6\x9C\xAC",
                                 "emoji\xF0\x9F\x98\x80", ".hidden", "a.b.c", "trailing ", "-dash"};

struct Tree {
    std::vector<std::string> folders{""}; // relative to the root; "" is the root itself
    std::vector<std::string> all;         // every entry made, relative
};

// Folders, files of assorted sizes and modes, pipes, links to files, links to folders (which
// listings must not follow) and dangling links.
Tree generate(std::string const& root, unsigned seed) {
    std::mt19937 gen(seed);
    auto pick = [&](std::size_t n) { return std::uniform_int_distribution<std::size_t>(0, n - 1)(gen); };
    Tree tree;
    std::vector<std::string> files;
    for (int i = 0; i < 70; ++i) {
        std::string const parent = tree.folders[pick(tree.folders.size())];
        std::string const name = std::string(nameParts[pick(std::size(nameParts))]) + " " + std::to_string(i);
        std::string const rel = parent.empty() ? name : parent + "/" + name;
        std::string const full = root + "/" + rel;
        std::size_t const kind = pick(11);
        if (kind < 3) {
            EXPECT_EQ(::mkdir(full.c_str(), 0755), 0);
            tree.folders.push_back(rel);
        } else if (kind < 6) {
            std::string target = "../nowhere/" + std::string(std::size_t(i) * 7, 'n'); // up to 490 bytes
            if (kind == 3 && !files.empty())
                target = root + "/" + files[pick(files.size())];
            else if (kind == 4 && tree.folders.size() > 1)
                target = root + "/" + tree.folders[1 + pick(tree.folders.size() - 1)];
            EXPECT_EQ(::symlink(target.c_str(), full.c_str()), 0);
        } else if (kind == 6) {
            EXPECT_EQ(::mkfifo(full.c_str(), 0644), 0);
        } else {
            std::size_t const sizes[] = {0, 1, 100, 4096, 70000};
            std::ofstream(full, std::ios::binary) << std::string(sizes[pick(std::size(sizes))], 'z');
            EXPECT_EQ(::chmod(full.c_str(), mode_t(0400 | pick(0400))), 0);
            files.push_back(rel);
        }
        tree.all.push_back(rel);
    }
    return tree;
}

// What a listing must hold: files and links, found without following links.
std::set<std::u16string> oracleListing(std::string const& folder, bool recursive) {
    std::set<std::u16string> names;
    auto take = [&](fs::directory_entry const& e) {
        if (e.is_symlink() || e.is_regular_file())
            names.insert(e.path().u16string());
    };
    if (recursive)
        std::for_each(fs::recursive_directory_iterator(folder), fs::recursive_directory_iterator(), take);
    else
        std::for_each(fs::directory_iterator(folder), fs::directory_iterator(), take);
    return names;
}

class Oracle : public ::testing::TestWithParam<unsigned> {};

TEST_P(Oracle, QueriesAndListingsAgreeWithLstatReadlinkAndAWalk) {
    HostFolder folder;
    LocalFileSystemOps ops;
    std::string const root = folder.path().string();
    Tree const tree = generate(root, GetParam());
    std::vector<std::string> probes = tree.all;
    probes.push_back("missing");
    probes.push_back(tree.all.front() + "/below");
    for (auto const& rel : probes) {
        std::string const full = root + "/" + rel;
        SCOPED_TRACE(full);
        std::u16string const path = fs::path(full).u16string();
        struct stat st {};
        bool const present = ::lstat(full.c_str(), &st) == 0;
        error_code ec;
        EXPECT_EQ(ops.exists(path, ec), present);
        EXPECT_EQ(ops.isFile(path, ec), present && S_ISREG(st.st_mode));
        EXPECT_EQ(ops.isFolder(path, ec), present && S_ISDIR(st.st_mode));
        EXPECT_EQ(ops.isSymlink(path, ec), present && S_ISLNK(st.st_mode));
        ASSERT_FALSE(ec.failed()) << ec.message();
        auto const perms = ops.getPermissions(path, ec);
        auto const size = ops.getSizeInBytes(path, ec);
        if (!present) {
            EXPECT_EQ(perms, Perms::PermsUnknown);
            EXPECT_TRUE(size == 0 && (ec == errc::no_such_file_or_directory || ec == errc::not_a_directory));
            continue;
        }
        EXPECT_EQ(perms & Perms::AllPerms, st.st_mode & 0777);
        using namespace boost::posix_time;
        EXPECT_EQ(ops.getLastModifiedTime(path), from_time_t(st.st_mtim.tv_sec) + microseconds(st.st_mtim.tv_nsec / 1000));
        EXPECT_EQ(size, S_ISREG(st.st_mode) ? std::uint64_t(st.st_size) : 0u);
        EXPECT_EQ(ec, S_ISREG(st.st_mode) ? error_code() : errc::make_error_code(errc::is_a_directory));
        std::string target(4096, '\0');
        target.resize(std::size_t(std::max(::readlink(full.c_str(), target.data(), target.size()), ssize_t(0))));
        EXPECT_EQ(ops.getLinkTarget(path, ec), fs::path(target).u16string());
        EXPECT_EQ(ec, S_ISLNK(st.st_mode) ? error_code() : errc::make_error_code(errc::invalid_argument));
        if (S_ISFIFO(st.st_mode)) { // neither copied nor an error, whatever the mode
            for (ExistsMode mode : {NoOverwrite, FailIfExists, Overwrite})
                ops.copy(path, path + u" copy", mode, ec);
            EXPECT_FALSE(ec.failed() || fs::exists(fs::symlink_status(full + " copy")));
        }
    }
    for (auto const& rel : tree.folders) // listings name files and links, never followed
        for (bool recursive : {false, true}) {
            std::string const full = rel.empty() ? root : root + "/" + rel;
            std::vector<std::u16string> files;
            ops.getFiles(fs::path(full).u16string(), files, recursive);
            std::set<std::u16string> const listed(files.begin(), files.end());
            EXPECT_EQ(listed.size(), files.size()) << "a name was listed twice";
            EXPECT_EQ(listed, oracleListing(full, recursive)) << full << " recursive=" << recursive;
        }
}

INSTANTIATE_TEST_SUITE_P(Seeds, Oracle, ::testing::Values(1u, 2u, 42u, 20240611u));

} // namespace
} // namespace opc::test
