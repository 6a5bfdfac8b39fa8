// Temporary names and guards on the host, in a private TMPDIR (with a doubled slash to normalise).
#include "support/HostFolder.hpp"
#include "support/ThroughOps.hpp"

#include <opc/util/Temp.hpp>

#include <gtest/gtest.h>

#include <set>

namespace opc::test {
namespace {

namespace fs = std::filesystem;
using util::TempdirGuard;
using util::TempfileGuard;

std::string narrow(std::u16string const& s) { return std::string(s.begin(), s.end()); }

class TempTest : public ::testing::Test {
protected:
    HostFolder root;
    std::string const dir = root.path().string();
    void SetUp() override { ::setenv("TMPDIR", (dir + "//").c_str(), 1); }
    void TearDown() override { ::unsetenv("TMPDIR"); }
};

TEST_F(TempTest, TempDirAndFreshNamesWithDefaults) {
    EXPECT_EQ(narrow(util::getTempDir()), dir + "/");
    std::set<std::string> seen;
    for (int i = 0; i < 200; ++i) {
        fs::path const p(narrow(util::getTempName(u"", u"", u"")));
        EXPECT_EQ(p.parent_path().string() + p.filename().string().substr(0, 1) + p.extension().string(), dir + "..tmp");
        EXPECT_TRUE(seen.insert(p.string()).second && !fs::exists(fs::symlink_status(p)));
    }
    fs::path const given(narrow(util::getTempName(u16(dir + "/sub/"), u"pre-", u".work")));
    EXPECT_EQ(given.string().rfind(dir + "/sub/pre-", 0), 0u) << given;
    EXPECT_EQ(given.extension(), ".work");
    for (char const* value : {static_cast<char const*>(""), static_cast<char const*>(nullptr)}) {
        value ? ::setenv("TMPDIR", value, 1) : ::unsetenv("TMPDIR");
        EXPECT_EQ(util::getTempDir(), u"/tmp");
    }
}

// Both guards: create, remove on destruction (a folder with everything inside, links never
// followed), keep when released, stay quiet when the item is already gone, and refuse a
// missing folder with their message and a cleared code.
TEST_F(TempTest, GuardsRemoveTheirItemUnlessReleased) {
    fs::create_directory(dir + "/outside");
    writeFile(dir + "/outside/precious", "keep");
    std::string file, folder;
    {
        TempfileGuard fileGuard(u"", u"", u"");
        TempdirGuard folderGuard(u16(dir), u"", u"");
        file = narrow(fileGuard.getFileName());
        folder = narrow(folderGuard.getDirectoryName());
        ASSERT_EQ(fs::file_size(file), 0u);
        EXPECT_EQ(fs::path(file).parent_path().string() + fs::path(folder).extension().string(), dir + ".tmp");
        fs::create_directories(folder + "/a/b");
        writeFile(folder + "/a/b/file", "x");
        fs::create_directory_symlink(dir + "/outside", folder + "/a/to-dir");
        fs::create_symlink(dir + "/outside/precious", folder + "/to-file");
        fs::create_symlink(dir + "/nothing", folder + "/dangling");
        auto const open = [] { return std::distance(fs::directory_iterator("/proc/self/fd"), {}); };
        auto const before = open();
        std::string const second = narrow(fileGuard.generateTempFile(u16(dir), u"", u""));
        EXPECT_TRUE(second != file && fs::is_regular_file(second));
        EXPECT_EQ(open(), before); // the new file is closed again
    }
    EXPECT_FALSE(fs::exists(fs::symlink_status(file)) || fs::exists(fs::symlink_status(folder)));
    EXPECT_EQ(readFile(dir + "/outside/precious"), "keep");
    {
        TempfileGuard fileGuard(u16(dir), u"keep", u".bin");
        TempdirGuard folderGuard(u16(dir), u"kept-", u".d");
        fileGuard.release();
        folderGuard.release();
        file = narrow(fileGuard.getFileName());
        folder = narrow(folderGuard.getDirectoryName());
    }
    EXPECT_TRUE(fs::is_regular_file(file) && fs::is_directory(folder));
    {
        TempfileGuard fileGuard(u16(dir), u"", u"");
        TempdirGuard folderGuard(u16(dir), u"", u"");
        fs::remove(narrow(fileGuard.getFileName()));
        fs::remove(narrow(folderGuard.getDirectoryName()));
    }
    EXPECT_EQ(thrown([&] { TempfileGuard(u16(dir + "/missing"), u"", u""); }), std::pair(std::string("Temp file could not be created"), boost::system::error_code()));
    auto const [what, code] = thrown([&] { TempdirGuard(u16(dir + "/missing"), u"p", u".x"); });
    EXPECT_FALSE(code.failed());
    EXPECT_EQ(what.rfind("Temporary directory could not be created. No such file or directory: " + dir + "/missing/p", 0), 0u)
        << what;
    EXPECT_EQ(what.substr(what.size() - 2), ".x");
}

} // namespace
} // namespace opc::test
