// Path text: generated paths against std::filesystem. Fixed cases are the library's path-text
// tables' to check, text that cannot be a path its failure table's; a long link target is the
// conformance suite's. Then a working folder deeper than the first buffer.
#include <gtest/gtest.h>

#include <vela/filesystem/exceptions.hpp>
#include <vela/filesystem/operations.hpp>
#include <vela/filesystem/path.hpp>

#include <fcntl.h>
#include <unistd.h>

#include <filesystem>
#include <random>

namespace hostfs = vela::filesystem;
namespace vd = vela::filesystem::detail;

namespace {

std::string utf8(std::u16string const& s) { return std::filesystem::path(s).string(); }

// Random paths rich in separators and dots among ASCII, other BMP letters and surrogate pairs.
// Conversions are checked against the standard library's, elements against std::filesystem
// where the two agree by design.
TEST(PathForms, GeneratedPathsAgreeWithStdFilesystem) {
    std::mt19937 rng(20240611);
    for (int round = 0; round < 6000; ++round) {
        std::u16string in;
        for (int i = int(rng() % 12); i > 0; --i) {
            switch (rng() % 8) {
            case 0:
            case 1: in += u'/'; break;
            case 2:
            case 3: in += u'.'; break;
            case 4: in += char16_t(0x20 + rng() % 0x5F); break;
            case 5: in += char16_t(0xA0 + rng() % 0x700); break;
            case 6: in += char16_t(0xE000 + rng() % 0x1000); break;
            default: in += {char16_t(0xD800 + rng() % 0x400), char16_t(0xDC00 + rng() % 0x400)};
            }
        }
        std::string const text = utf8(in);
        std::string collapsed;
        for (char c : text)
            if (c != '/' || collapsed.empty() || collapsed.back() != '/') collapsed += c;
        SCOPED_TRACE(text);
        ASSERT_EQ(vd::to_filesystem(in), text);
        ASSERT_EQ(vd::from_filesystem(text), in);
        ASSERT_THROW(vd::from_filesystem(text + "\xC3("), hostfs::FileNameConversionFailure); // not UTF-8
        EXPECT_EQ(vd::make_native_access_form_with_cleanup_i18n(in), collapsed);
        std::u16string const native = vd::make_native_form(in, true);
        EXPECT_EQ(utf8(native), collapsed);
        EXPECT_EQ(vd::make_native_form(in, false), in);
        EXPECT_EQ(vd::make_generic_form(in), native);
        EXPECT_EQ(vd::is_absolute(hostfs::path(in)), std::filesystem::path(text).is_absolute());

        std::filesystem::path const oracle(collapsed);
        std::string const name = oracle.filename().string();
        EXPECT_EQ(utf8(vd::extract_filename(native)), name);
        // std::filesystem keeps "/" as its own parent; here the root has none. A leading-dot name
        // without another dot is all extension here, all stem there.
        EXPECT_EQ(utf8(vd::extract_parent_path(native)), collapsed == "/" ? "" : oracle.parent_path().string());
        bool const dotted = name.size() > 1 && name[0] == '.' && name.find('.', 1) == std::string::npos;
        EXPECT_EQ(utf8(vd::extract_extension(native)), dotted ? name : oracle.extension().string());
    }
}

TEST(HostText, DeepWorkingFolder) {
    std::string const base = std::filesystem::temp_directory_path() / ("vela-long-" + std::to_string(::getpid()));
    std::filesystem::create_directories(base);
    int const home = ::open(".", O_RDONLY | O_DIRECTORY);
    ASSERT_GE(home, 0);
    ASSERT_EQ(::chdir(base.c_str()), 0);
    std::string deep = base; // 20 names of 250 bytes: past the first page, one chdir at a time
    for (char c = 'a'; c < 'a' + 20; ++c) {
        ASSERT_EQ(::mkdir(std::string(250, c).c_str(), 0700), 0);
        ASSERT_EQ(::chdir(std::string(250, c).c_str()), 0);
        deep += "/" + std::string(250, c);
    }
    EXPECT_EQ(utf8(hostfs::get_current_path()), deep);
    for (char c = 'a' + 19; c >= 'a'; --c)
        ASSERT_TRUE(::chdir("..") == 0 && ::rmdir(std::string(250, c).c_str()) == 0);
    // A working folder removed meanwhile is reported, not retried.
    ASSERT_TRUE(::mkdir("gone", 0700) == 0 && ::chdir("gone") == 0 && ::rmdir((base + "/gone").c_str()) == 0);
    EXPECT_THROW(hostfs::get_current_path(), hostfs::PathNotFound);
    ASSERT_EQ(::fchdir(home), 0);
    ::close(home);
    std::filesystem::remove_all(base);
}

} // namespace
