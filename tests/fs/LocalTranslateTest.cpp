// The local back end's one translation of failures, and what hostile paths turn into.

#include "fs/LocalTranslate.hpp"
#include "support/LocalWorld.hpp"

#include <opc/LocalFileSystemOps.hpp>

#include <vela/filesystem/exceptions.hpp>

#include <boost/filesystem/exception.hpp>

#include <gtest/gtest.h>

#include <cerrno>
#include <cstring>
#include <filesystem>
#include <functional>
#include <set>
#include <stdexcept>

namespace opc::test {
namespace {

namespace vfs = vela::filesystem;
namespace errc = boost::system::errc;
using boost::system::error_code;

// A path with a non-ASCII element, as the host exception carries it and as the detail spells it.
std::u16string const hostPath = u"/data/caf\u00E9/x";
std::string const hostPathUtf8 = "/data/caf\xC3\xA9/x";

struct Row {
    char const* name;
    std::function<void()> raise;
    error_code code;
    std::string detail;
};

error_code generic(errc::errc_t e) { return errc::make_error_code(e); }

std::string withPath(int error) { return std::string(std::strerror(error)) + ": " + hostPathUtf8; }

// A host exception that carries only the path, and the POSIX number it stands for.
template <class E>
Row pathRow(char const* name, int error) {
    return {name, [name] { throw E(std::string("vela:filesystem:") + name, hostPath); },
            error_code(error, boost::system::generic_category()), withPath(error)};
}

std::vector<Row> rows() {
    return {
        pathRow<vfs::AccessDenied>("AccessDenied", EACCES),
        pathRow<vfs::PathNotFound>("PathNotFound", ENOENT),
        pathRow<vfs::FileExistsError>("FileExistsError", EEXIST),
        pathRow<vfs::FileNameTooLarge>("FileNameTooLarge", ENAMETOOLONG),
        pathRow<vfs::NotDirectoryError>("NotDirectoryError", ENOTDIR),
        pathRow<vfs::DirectoryNotEmpty>("DirectoryNotEmpty", ENOTEMPTY),
        pathRow<vfs::FileIsDirectory>("FileIsDirectory", EISDIR),
        {"InvalidOperation",
         [] { throw vfs::InvalidOperation("vela:filesystem:InvalidOperation", "cannot do that", hostPath); },
         generic(errc::operation_not_supported), "cannot do that: " + hostPathUtf8},
        {"InvalidArgument",
         [] { throw vfs::InvalidArgument("vela:filesystem:InvalidArgument", "Empty path not permitted"); },
         generic(errc::invalid_argument), "Empty path not permitted"},
        {"FileNameConversionFailure",
         [] { throw vfs::FileNameConversionFailure("vela:filesystem:FileNameConversionFailure", "bad name", hostPath); },
         generic(errc::invalid_argument), "bad name: " + hostPathUtf8},
        {"SystemError", [] { throw vfs::SystemError(ENOSPC, hostPath); },
         error_code(ENOSPC, boost::system::system_category()), withPath(ENOSPC)},
        {"FsysExceptionBase", [] { throw vfs::FsysExceptionBase("vela:filesystem:Other", "something else"); },
         generic(errc::io_error), "something else"},
        {"filesystem_error",
         [] {
             throw boost::filesystem::filesystem_error("boost said",
                                                       error_code(EROFS, boost::system::system_category()));
         },
         error_code(EROFS, boost::system::system_category()),
         boost::filesystem::filesystem_error("boost said", error_code(EROFS, boost::system::system_category()))
             .what()},
        {"runtime_error", [] { throw std::runtime_error("not a host failure"); }, generic(errc::io_error),
         "Unknown error"},
        {"int", [] { throw 42; }, generic(errc::io_error), "Unknown error"},
    };
}

TEST(LocalTranslate, EachExceptionTypeReachesTheCallerWithItsCodeAndDetail) {
    for (auto const& row : rows()) {
        SCOPED_TRACE(row.name);
        std::string detail = "left over";
        error_code ec = generic(errc::timed_out);
        try {
            row.raise();
            FAIL() << "nothing thrown";
        } catch (...) {
            detail::translateHostException(detail, ec);
        }
        EXPECT_EQ(ec, row.code) << ec.message();
        EXPECT_EQ(ec.category(), row.code.category());
        EXPECT_EQ(detail, row.detail);
    }
}

TEST(LocalTranslate, GuardedCallReturnsTheFailureValueOrLeavesTheReportAlone) {
    std::string detail = "untouched";
    error_code ec = generic(errc::timed_out);
    EXPECT_EQ(detail::guardedHostCall(7, detail, ec, [] { return 3; }), 3);
    EXPECT_EQ(detail, "untouched");
    EXPECT_EQ(ec, generic(errc::timed_out));

    error_code cleared;
    EXPECT_EQ(detail::guardedHostCall(7, detail, cleared, []() -> int { throw vfs::PathNotFound(); }), 7);
    EXPECT_EQ(cleared, generic(errc::no_such_file_or_directory));
    EXPECT_EQ(detail, std::strerror(ENOENT));
}

TEST(LocalTranslate, APathThatCannotBeSpeltStillGivesAReport) {
    std::string detail;
    error_code ec;
    try { // a lone surrogate
        throw vfs::FileNameConversionFailure("vela:filesystem:FileNameConversionFailure", "bad name", u"/a\xD800");
    } catch (...) {
        detail::translateHostException(detail, ec);
    }
    EXPECT_EQ(ec, generic(errc::invalid_argument));
    EXPECT_EQ(detail.rfind("bad name: /a", 0), 0u) << detail;
    EXPECT_GT(detail.size(), std::string("bad name: /a").size());
}

// ---- Hostile paths: a clear error with the right code, nothing touched ----

struct Hostile {
    char const* name;
    std::u16string element; // appended to the scratch folder
    error_code code;
};

class LocalHostilePaths : public ::testing::Test {
protected:
    std::set<std::string> entries() const {
        std::set<std::string> names;
        for (auto const& e : std::filesystem::recursive_directory_iterator(m_folder.path()))
            names.insert(e.path().string());
        return names;
    }

    ScratchFolder m_folder;
    LocalFileSystemOps m_ops;
};

TEST_F(LocalHostilePaths, EveryOperationRefusesThemAndTouchesNothing) {
    std::u16string const base = utf16(m_folder.path());
    std::u16string longPath;
    while (longPath.size() <= 4200)
        longPath += u"/abcdefghij";
    std::vector<Hostile> const hostile = {
        {"embedded NUL", std::u16string(u"/a\0b", 4), generic(errc::invalid_argument)},
        {"lone high surrogate", u"/a\xD800z", generic(errc::invalid_argument)},
        {"lone low surrogate", u"/\xDC00", generic(errc::invalid_argument)},
        {"name over 255 bytes", u"/" + std::u16string(256, u'n'), generic(errc::filename_too_long)},
        {"path over 4096 bytes", longPath, generic(errc::filename_too_long)},
    };
    std::u16string const existing = base + u"/existing";
    m_ops.createFolder(existing);
    auto const before = entries();

    using Call = std::function<void(std::u16string const&, error_code&)>;
    std::vector<std::pair<char const*, Call>> const calls = {
        {"exists", [&](auto& p, auto& ec) { m_ops.exists(p, ec); }},
        {"isFile", [&](auto& p, auto& ec) { m_ops.isFile(p, ec); }},
        {"getPermissions", [&](auto& p, auto& ec) { m_ops.getPermissions(p, ec); }},
        {"setPermissions", [&](auto& p, auto& ec) { m_ops.setPermissions(p, Perms::Perms_tag(0600), ec); }},
        {"getSizeInBytes", [&](auto& p, auto& ec) { m_ops.getSizeInBytes(p, ec); }},
        {"createFolder", [&](auto& p, auto& ec) { m_ops.createFolder(p, ec); }},
        {"createFolders", [&](auto& p, auto& ec) { m_ops.createFolders(p, ec); }},
        {"createSymlink", [&](auto& p, auto& ec) { m_ops.createSymlink(u"target", p, ec); }},
        {"createOutputStream", [&](auto& p, auto& ec) { m_ops.createOutputStream(p, OpenMode::WriteBinary, ec); }},
        {"createInputStream", [&](auto& p, auto& ec) { m_ops.createInputStream(p, OpenMode::ReadBinary, ec); }},
        {"copy to", [&](auto& p, auto& ec) { m_ops.copy(existing, p, Overwrite, ec); }},
        {"rename to", [&](auto& p, auto& ec) { m_ops.rename(existing, p, ec); }},
        {"remove", [&](auto& p, auto& ec) { m_ops.remove(p, ec); }},
        {"removeAll", [&](auto& p, auto& ec) { m_ops.removeAll(p, ec); }},
    };
    for (auto const& h : hostile) {
        for (auto const& [name, call] : calls) {
            SCOPED_TRACE(std::string(h.name) + " / " + name);
            error_code ec;
            call(base + h.element, ec);
            EXPECT_EQ(ec, h.code) << ec.message();
            EXPECT_EQ(entries(), before);
        }
    }
}

} // namespace
} // namespace opc::test
