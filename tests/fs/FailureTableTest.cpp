// Every failure, end to end: an errno through the host layer's exception type and the local
// back end's translation, a storage code through the virtual back end's translation, and every
// public operation of both back ends failing through the frame with its prefix and its
// failure value.
#include "fs/LocalTranslate.hpp"
#include "fs/VirtualTranslate.hpp"
#include "support/Conformance.hpp"

#include <opc/CommitOptions.hpp>
#include <opc/Exception.hpp>
#include <opc/LocalFileSystemOps.hpp>
#include <opc/Text.hpp>
#include <opc/VirtualFileSystemOps.hpp>

#include <stratum/storage/vfs/Exception.hpp>
#include <stratum/storage/vfs/StorageSystem.hpp>
#include <vela/filesystem/exceptions.hpp>

#include <boost/date_time/posix_time/posix_time.hpp>
#include <boost/filesystem/exception.hpp>

#include <cstring>
#include <filesystem>
#include <fstream>
#include <set>

namespace opc::test {
namespace {

namespace host = vela::filesystem;
namespace storage = stratum::storage::vfs;
namespace errc = boost::system::errc;
using boost::system::error_code;
using P = std::u16string const&;

error_code generic(errc::errc_t e) { return errc::make_error_code(e); }

struct Translated {
    std::string detail = "left over";
    error_code ec = generic(errc::timed_out);
};

template <class Translate>
Translated translate(std::function<void()> const& raise, Translate translation) {
    Translated out;
    try {
        raise();
        ADD_FAILURE() << "nothing thrown";
    } catch (...) {
        translation(out.detail, out.ec);
    }
    return out;
}

template <class T>
bool thrownAs(std::function<void()> const& raise) {
    try {
        raise();
    } catch (T const&) {
        return true;
    } catch (...) {
    }
    return false;
}

std::u16string const hostPath = u"/data/caf\u00E9/x";
std::string const hostPathUtf8 = "/data/caf\xC3\xA9/x";

TEST(FailureTable, ErrnoThroughTheHostTypeToTheLocalCodeAndDetail) {
    struct Row {
        int error;
        host::errno_origin origin;
        bool (*type)(std::function<void()> const&);
        error_code code;
        int textOf;
    } const rows[] = {
        {EACCES, host::errno_origin::general, thrownAs<host::AccessDenied>, generic(errc::permission_denied), EACCES},
        {EPERM, host::errno_origin::general, thrownAs<host::AccessDenied>, generic(errc::permission_denied), EPERM},
        {ENOENT, host::errno_origin::general, thrownAs<host::PathNotFound>, generic(errc::no_such_file_or_directory), ENOENT},
        {EEXIST, host::errno_origin::general, thrownAs<host::FileExistsError>, generic(errc::file_exists), EEXIST},
        {EEXIST, host::errno_origin::remove_directory, thrownAs<host::DirectoryNotEmpty>,
         generic(errc::directory_not_empty), ENOTEMPTY},
        {ENAMETOOLONG, host::errno_origin::general, thrownAs<host::FileNameTooLarge>,
         generic(errc::filename_too_long), ENAMETOOLONG},
        {ENOTDIR, host::errno_origin::general, thrownAs<host::NotDirectoryError>, generic(errc::not_a_directory), ENOTDIR},
        {ENOTEMPTY, host::errno_origin::general, thrownAs<host::DirectoryNotEmpty>,
         generic(errc::directory_not_empty), ENOTEMPTY},
        {EISDIR, host::errno_origin::general, thrownAs<host::FileIsDirectory>, generic(errc::is_a_directory), EISDIR},
        {EOPNOTSUPP, host::errno_origin::general, thrownAs<host::InvalidOperation>,
         generic(errc::operation_not_supported), EOPNOTSUPP},
        {EINVAL, host::errno_origin::general, thrownAs<host::InvalidArgument>, generic(errc::invalid_argument), EINVAL},
        {ENOSPC, host::errno_origin::general, thrownAs<host::SystemError>,
         error_code(ENOSPC, boost::system::system_category()), ENOSPC},
        {EROFS, host::errno_origin::remove_directory, thrownAs<host::SystemError>,
         error_code(EROFS, boost::system::system_category()), EROFS},
    };
    for (auto const& row : rows) {
        SCOPED_TRACE(std::strerror(row.error));
        auto const raise = [&] { host::throw_from_errno(row.error, hostPath, row.origin); };
        EXPECT_TRUE(row.type(raise));
        auto const out = translate(raise, detail::translateHostException);
        EXPECT_EQ(out.ec, row.code);
        EXPECT_EQ(&out.ec.category(), &row.code.category());
        EXPECT_EQ(out.detail, std::string(std::strerror(row.textOf)) + ": " + hostPathUtf8);
    }
}

TEST(FailureTable, OtherExceptionsThroughTheLocalTranslation) {
    error_code const rofs(EROFS, boost::system::system_category());
    struct Row {
        std::function<void()> raise;
        error_code code;
        std::string detail;
    } const rows[] = {
        {[] { throw host::FileNameConversionFailure("vela:filesystem:FileNameConversionFailure", "bad", hostPath); },
         generic(errc::invalid_argument), "bad: " + hostPathUtf8},
        {[] { throw host::FsysExceptionBase("vela:filesystem:Other", "something else"); }, generic(errc::io_error),
         "something else"},
        {[&] { throw boost::filesystem::filesystem_error("boost said", rofs); }, rofs,
         boost::filesystem::filesystem_error("boost said", rofs).what()},
        {[] { throw std::runtime_error("not a host failure"); }, generic(errc::io_error), "Unknown error"},
        {[] { throw 42; }, generic(errc::io_error), "Unknown error"},
    };
    for (auto const& row : rows) {
        auto const out = translate(row.raise, detail::translateHostException);
        EXPECT_EQ(out.ec, row.code);
        EXPECT_EQ(out.detail, row.detail);
    }
    auto const lone = translate([] { throw host::InvalidArgument("vela:filesystem:InvalidArgument", "bad", u"/a\xD800"); },
                                detail::translateHostException);
    EXPECT_EQ(lone.detail.rfind("bad: /a", 0), 0u) << "a path that cannot be spelt still gives a report";
    EXPECT_GT(lone.detail.size(), 7u);
}

TEST(FailureTable, StorageCodesThroughTheVirtualTranslation) {
    storage::AbsoluteIRI const where(u"memory:///reports/q%C3%A9 3.pkg");
    errc::errc_t const table[] = {
        errc::directory_not_empty, errc::no_such_device_or_address,     errc::permission_denied,
        errc::file_exists,         errc::no_such_file_or_directory,     errc::read_only_file_system,
        errc::file_too_large,      errc::resource_unavailable_try_again, errc::no_space_on_device,
        errc::io_error,            errc::state_not_recoverable,          errc::operation_not_supported};
    for (int code : {0, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 255}) {
        SCOPED_TRACE(code);
        storage::Exception const thrown(static_cast<storage::ErrorCode>(code), where);
        auto const out = translate([&] { throw thrown; }, detail::translateStorageException);
        EXPECT_EQ(out.detail, thrown.getMessage() + ": memory:///reports/q\xC3\xA9%203.pkg");
        // Twelve and above: the detail is written, the code left as it was.
        EXPECT_EQ(out.ec, code < 12 ? generic(table[code]) : generic(errc::timed_out));
    }
    struct Row {
        std::function<void()> raise;
        error_code code;
        std::string detail;
    } const rows[] = {
        {[] { storage::AbsoluteIRI{u"memory:relative/p\u00E9"}; }, generic(errc::bad_address),
         "Invalid IRI: memory:relative/p\xC3\xA9"},
        {[] { storage::AbsoluteIRI{u"gopher:///a/b"}; }, generic(errc::address_family_not_supported),
         "Unsupported IRI scheme: gopher"},
        {[] { throw storage::Exception(storage::ErrorCode::IOError, storage::AbsoluteIRI()); }, generic(errc::io_error),
         storage::Exception(storage::ErrorCode::IOError, storage::AbsoluteIRI()).getMessage()},
        {[] { throw std::overflow_error("too big"); }, generic(errc::io_error), "too big"},
        {[] { throw std::logic_error("not runtime"); }, generic(errc::io_error), "Unknown error"},
        {[] { throw 42; }, generic(errc::io_error), "Unknown error"},
    };
    for (auto const& row : rows) {
        auto const out = translate(row.raise, detail::translateStorageException);
        EXPECT_EQ(out.ec, row.code);
        EXPECT_EQ(out.detail, row.detail);
    }
}

// One public operation family: called in the throwing form (no code) or the error-code form;
// true when the result is the operation's failure value.
struct Family {
    char const* name;
    std::function<bool(FileSystemOps&, P bad, P good, error_code*)> call;
};

template <class F>
std::function<bool(FileSystemOps&, P, P, error_code*)> both(F f) {
    return [f](FileSystemOps& o, P bad, P good, error_code* ec) { return ec ? f(o, bad, good, *ec) : f(o, bad, good); };
}
#define FAMILY(name, expr) Family{name, both([](FileSystemOps& o, P p, [[maybe_unused]] P q, auto&... ec) { return expr; })}

std::vector<Family> families() {
    static std::vector<std::u16string> files;
    static CommitOptions const options;
    auto const time = boost::posix_time::time_from_string("2020-01-02 03:04:05");
    return {
        FAMILY("exists", !o.exists(p, ec...)),
        FAMILY("isFile", !o.isFile(p, ec...)),
        FAMILY("isFolder", !o.isFolder(p, ec...)),
        FAMILY("getPermissions", o.getPermissions(p, ec...) == Perms::PermsUnknown),
        FAMILY("setPermissions", (o.setPermissions(p, Perms::Perms_tag(0600), ec...), true)),
        FAMILY("getLastModifiedTime", o.getLastModifiedTime(p, ec...).is_not_a_date_time()),
        Family{"setLastModifiedTime", both([time](FileSystemOps& o, P p, P, auto&... ec) {
                   return o.setLastModifiedTime(p, time, ec...), true;
               })},
        FAMILY("getSizeInBytes", o.getSizeInBytes(p, ec...) == 0),
        FAMILY("getLinkTarget", o.getLinkTarget(p, ec...).empty()),
        FAMILY("getFiles", (files.clear(), o.getFiles(p, files, true, ec...), files.empty())),
        FAMILY("createInputStream", !o.createInputStream(p, OpenMode::ReadBinary, ec...)),
        FAMILY("createOutputStream", !o.createOutputStream(p, OpenMode::WriteBinary, ec...)),
        FAMILY("createFolder", (o.createFolder(p, ec...), true)),
        FAMILY("createFolders", (o.createFolders(p, ec...), true)),
        FAMILY("createSymlink", (o.createSymlink(q, p, ec...), true)),
        FAMILY("copy", (o.copy(p, q, Overwrite, ec...), true)),
        FAMILY("copy", (o.copy(q, p, Overwrite, ec...), true)),
        FAMILY("rename", (o.rename(p, q, ec...), true)),
        FAMILY("rename", (o.rename(q, p, ec...), true)),
        FAMILY("remove", (o.remove(p, ec...), true)),
        FAMILY("removeAll", (o.removeAll(p, ec...), true)),
        FAMILY("replaceFileWithBackup", (o.replaceFileWithBackup(p, o, q, options, ec...), true)),
    };
}

// Every family on a path the back end refuses: the throwing form's message is the family's
// prefix and the code is the one the error-code form hands back with the failure value.
void expectEveryFamilyRefuses(FileSystemOps& ops, P bad, P good, errc::errc_t code, bool exact) {
    for (auto const& family : families()) {
        SCOPED_TRACE(family.name);
        error_code thrownCode;
        try {
            family.call(ops, bad, good, nullptr);
            ADD_FAILURE() << "no exception";
        } catch (Exception const& e) {
            EXPECT_EQ(std::string(e.what()).rfind(std::string(family.name) + " failed: ", 0), 0u) << e.what();
            thrownCode = e.code();
        }
        error_code ec = generic(errc::timed_out);
        EXPECT_TRUE(family.call(ops, bad, good, &ec)) << "not the failure value";
        EXPECT_EQ(ec, thrownCode);
        if (exact) {
            EXPECT_EQ(ec, generic(code)) << ec.message();
        }
    }
}

TEST(FailureTable, EveryLocalOperationRefusesHostilePathsAndTouchesNothing) {
    ScratchFolder folder;
    std::u16string const base = utf16(folder.path()), good = base + u"/existing";
    LocalFileSystemOps ops;
    std::ofstream(folder.at("existing")) << "kept";
    std::u16string longPath;
    while (longPath.size() <= 4200)
        longPath += u"/abcdefghij";
    struct Row {
        std::u16string element;
        errc::errc_t code;
    } const rows[] = {{std::u16string(u"/a\0b", 4), errc::invalid_argument},
                      {u"/a\xD800z", errc::invalid_argument},
                      {u"/" + std::u16string(256, u'n'), errc::filename_too_long},
                      {longPath, errc::filename_too_long}};
    for (auto const& row : rows)
        expectEveryFamilyRefuses(ops, base + row.element, good, row.code, row.code == errc::invalid_argument);
    std::set<std::string> left;
    for (auto const& e : std::filesystem::directory_iterator(folder.path()))
        left.insert(e.path().filename().string());
    EXPECT_EQ(left, std::set<std::string>{"existing"});
}

TEST(FailureTable, EveryVirtualOperationRefusesBadIRIs) {
    stratum::storage::vfs::StorageSystemReference storage;
    VirtualFileSystemOps ops(storage);
    auto out = ops.createOutputStream(u"memory:///good", OpenMode::WriteBinary);
    *out << "kept";
    for (auto const* bad : {u"relative/path", u"memory:no-slashes", u"memory:///bad%escape"})
        expectEveryFamilyRefuses(ops, bad, u"memory:///good", errc::bad_address, false);
    expectEveryFamilyRefuses(ops, u"gopher:///a/b", u"memory:///good", errc::address_family_not_supported, false);
    EXPECT_TRUE(ops.isFile(u"memory:///good"));
}

// Failures that the back ends report with texts of their own.
TEST(FailureTable, OwnTextsReachTheCaller) {
    ScratchFolder folder;
    LocalFileSystemOps local;
    stratum::storage::vfs::StorageSystemReference storage;
    VirtualFileSystemOps virt(storage);
    local.createFolders(utf16(folder.at("src")));
    local.createFolders(utf16(folder.at("dst")));
    std::string const missing = folder.at("caf\xC3\xA9 missing");
    auto in = [&](std::string const& relative) { return utf16(folder.at(relative)); };
    std::vector<std::u16string> sink;
    struct Row {
        std::function<void()> call;
        std::string message;
        error_code code;
    } const rows[] = {
        {[&] { local.copy(utf16(missing), in("x"), Overwrite); }, "copy failed: Source does not exist: " + missing,
         generic(errc::no_such_file_or_directory)},
        {[&] { local.copy(in("src"), in("dst"), FailIfExists); }, "copy failed: Destination exists: " + folder.at("dst"),
         generic(errc::file_exists)},
        {[&] { local.rename(u"", in("src")); }, "rename failed: Empty path not permitted", generic(errc::invalid_argument)},
        {[&] { local.setPermissions(u"", Perms::Perms_tag(0644)); }, "setPermissions failed: Empty path not permitted",
         generic(errc::invalid_argument)},
        {[&] { local.createInputStream(utf16(missing), OpenMode::ReadBinary); },
         std::string("createInputStream failed: ") + std::strerror(ENOENT), generic(errc::no_such_file_or_directory)},
        {[&] { local.createInputStream(in("src"), OpenMode::ReadBinary); },
         std::string("createInputStream failed: ") + std::strerror(EISDIR), generic(errc::is_a_directory)},
        {[&] { local.createInputStream(in("src"), OpenMode::Truncate); },
         std::string("createInputStream failed: ") + std::strerror(EINVAL), generic(errc::invalid_argument)},
        {[&] { local.createFolder(in("src")); },
         std::string("createFolder failed: ") + std::strerror(EEXIST) + ": " + folder.at("src"), generic(errc::file_exists)},
        {[&] { virt.getLinkTarget(u"memory:///"); }, "getLinkTarget failed: Symlinks are not supported",
         generic(errc::operation_not_supported)},
        {[&] { virt.createSymlink(u"memory:///", u"memory:///l"); },
         "createSymlink failed: Creation of symlinks is not supported by VirtualFileSystemOps",
         generic(errc::operation_not_supported)},
        {[&] { virt.getFiles(u"memory:///none", sink, true); },
         "getFiles failed: " + storage::Exception(storage::ErrorCode::NotFound, storage::AbsoluteIRI()).getMessage() +
             ": memory:///none",
         generic(errc::no_such_file_or_directory)},
        {[&] { virt.createInputStream(u"memory:///none", OpenMode::ReadBinary); }, "createInputStream failed: ",
         generic(errc::io_error)},
    };
    for (auto const& row : rows) {
        try {
            row.call();
            ADD_FAILURE() << "no exception for " << row.message;
        } catch (Exception const& e) {
            EXPECT_EQ(e.what(), row.message);
            EXPECT_EQ(e.code(), row.code) << row.message;
        }
    }
    EXPECT_FALSE(virt.isSymlink(u"not even an iri"));
    EXPECT_FALSE(std::filesystem::exists(folder.at("dst/src")));
}

} // namespace
} // namespace opc::test
