// Temporary names and guards, on the real file system.
#include <opc/Exception.hpp>
#include <opc/util/Temp.hpp>

#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <optional>
#include <set>

namespace fs = std::filesystem;
using opc::util::getTempDir;
using opc::util::getTempName;
using opc::util::TempdirGuard;
using opc::util::TempfileGuard;

namespace {

std::u16string widen(std::string const& s) { return std::u16string(s.begin(), s.end()); }
std::string narrow(std::u16string const& s) { return std::string(s.begin(), s.end()); }

/// A private scratch folder used as TMPDIR (with a doubled slash to normalise) for each test.
class TempTest : public ::testing::Test {
protected:
    void SetUp() override {
        std::string pattern = "/tmp/opc-temp-test-XXXXXX";
        ASSERT_NE(::mkdtemp(pattern.data()), nullptr);
        m_dir = pattern;
        if (char const* old = std::getenv("TMPDIR"))
            m_oldTmpdir = old;
        ::setenv("TMPDIR", (m_dir + "//").c_str(), 1);
    }
    void TearDown() override {
        m_oldTmpdir ? (void)::setenv("TMPDIR", m_oldTmpdir->c_str(), 1) : (void)::unsetenv("TMPDIR");
        std::error_code ec;
        fs::remove_all(m_dir, ec);
    }

    std::string m_dir;
    std::optional<std::string> m_oldTmpdir;
};

TEST_F(TempTest, TempDirIsTmpdirNormalizedElseTmp) {
    EXPECT_EQ(narrow(getTempDir()), m_dir + "/");
    ::setenv("TMPDIR", "", 1);
    EXPECT_EQ(getTempDir(), u"/tmp");
    ::unsetenv("TMPDIR");
    EXPECT_EQ(getTempDir(), u"/tmp");
}

TEST_F(TempTest, NamesUseDefaultsAndAreFresh) {
    std::set<std::string> seen;
    for (int i = 0; i < 200; ++i) {
        fs::path const p(narrow(getTempName(u"", u"", u"")));
        EXPECT_EQ(p.parent_path().string(), m_dir);
        EXPECT_EQ(p.filename().string().front(), '.');
        EXPECT_EQ(p.extension().string(), ".tmp");
        EXPECT_FALSE(fs::exists(fs::symlink_status(p)));
        EXPECT_TRUE(seen.insert(p.string()).second);
    }
    fs::create_directory(m_dir + "/sub");
    std::string const given = narrow(getTempName(widen(m_dir + "/sub/"), u"pre-", u".work"));
    EXPECT_EQ(fs::path(given).parent_path().string(), m_dir + "/sub");
    EXPECT_EQ(fs::path(given).filename().string().rfind("pre-", 0), 0u);
    EXPECT_EQ(fs::path(given).extension().string(), ".work");
    EXPECT_EQ(given.find("//"), std::string::npos);
}

TEST_F(TempTest, FileGuardRemovesItsFileUnlessReleased) {
    std::string name;
    {
        TempfileGuard guard(u"", u"", u"");
        name = narrow(guard.getFileName());
        EXPECT_EQ(fs::path(name).parent_path().string(), m_dir);
        ASSERT_TRUE(fs::is_regular_file(name));
        EXPECT_EQ(fs::file_size(name), 0u);
        std::string const second = narrow(guard.generateTempFile(widen(m_dir), u"", u""));
        EXPECT_NE(second, name);
        EXPECT_TRUE(fs::is_regular_file(second));
        fs::remove(second);
    }
    EXPECT_FALSE(fs::exists(name));
    {
        TempfileGuard guard(widen(m_dir), u"keep", u".bin");
        name = narrow(guard.getFileName());
        guard.release();
        guard.release();
        EXPECT_EQ(narrow(guard.getFileName()), name);
    }
    EXPECT_TRUE(fs::is_regular_file(name));
    {
        TempfileGuard guard(widen(m_dir), u"", u"");
        fs::remove(narrow(guard.getFileName())); // someone else removed it: no error
    }
    try {
        TempfileGuard guard(widen(m_dir + "/missing"), u"", u"");
        FAIL() << "created in a missing folder";
    } catch (opc::Exception const& e) {
        EXPECT_STREQ(e.what(), "Temp file could not be created");
        EXPECT_FALSE(e.code().failed());
    }
}

TEST_F(TempTest, FolderGuardRemovesTreeButNotLinkTargets) {
    std::string const outside = m_dir + "/outside";
    fs::create_directory(outside);
    std::ofstream(outside + "/precious") << "keep";
    std::string name;
    {
        TempdirGuard guard(widen(m_dir), u"", u"");
        name = narrow(guard.getDirectoryName());
        ASSERT_TRUE(fs::is_directory(name));
        EXPECT_EQ(fs::path(name).extension().string(), ".tmp");
        fs::create_directories(name + "/a/b");
        std::ofstream(name + "/a/b/file") << "x";
        fs::create_directory_symlink(outside, name + "/a/to-dir");
        fs::create_symlink(outside + "/precious", name + "/to-file");
        fs::create_symlink(m_dir + "/nothing", name + "/dangling");
    }
    EXPECT_FALSE(fs::exists(fs::symlink_status(name)));
    EXPECT_EQ(fs::file_size(outside + "/precious"), 4u);
    {
        TempdirGuard guard(widen(m_dir), u"kept-", u".d");
        name = narrow(guard.getDirectoryName());
        guard.release();
    }
    EXPECT_TRUE(fs::is_directory(name));
    {
        TempdirGuard guard(widen(m_dir), u"", u"");
        fs::remove(narrow(guard.getDirectoryName()));
    }
    try {
        TempdirGuard guard(widen(m_dir + "/missing"), u"p", u".x");
        FAIL() << "created in a missing folder";
    } catch (opc::Exception const& e) {
        std::string const what = e.what();
        EXPECT_EQ(what.rfind("Temporary directory could not be created. No such file or directory: " + m_dir +
                                 "/missing/p", 0), 0u) << what;
        EXPECT_EQ(what.substr(what.size() - 2), ".x");
        EXPECT_FALSE(e.code().failed());
    }
}

} // namespace
