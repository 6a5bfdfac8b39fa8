// Every failure, end to end: an errno through the host layer's exception type and the local
// back end's translation, a storage code through the virtual one's, and every public operation
// of both back ends failing through the frame with its prefix and its failure value.
#include "fs/LocalTranslate.hpp"
#include "fs/VirtualTranslate.hpp"
#include "support/HostFolder.hpp"

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
#include <gtest/gtest.h>

#include <cstring>
#include <filesystem>
#include <functional>

namespace opc::test {
namespace {

namespace host = vela::filesystem;
namespace storage = stratum::storage::vfs;
namespace errc = boost::system::errc;
using boost::system::error_code;
using P = std::u16string const&;
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
    storage::Exception const ioError(storage::ErrorCode::IOError, storage::AbsoluteIRI());
    HostFolder folder;
    LocalFileSystemOps host;
    storage::StorageSystemReference storage;
    VirtualFileSystemOps memory(storage);
    auto in = [&](std::string const& relative) { return (folder.path() / relative).string(); };
    auto in16 = [&](std::string const& relative) { return toString(in(relative), true); };
    std::vector<std::u16string> sink;
    auto const notFound = storage::Exception(storage::ErrorCode::NotFound, storage::AbsoluteIRI()).getMessage();
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
        {virt, [] { storage::AbsoluteIRI{u"memory:relative/p\u00E9"}; }, generic(errc::bad_address),
         "Invalid IRI: memory:relative/p\xC3\xA9"},
        {virt, [] { storage::AbsoluteIRI{u"gopher:///a/b"}; }, generic(errc::address_family_not_supported),
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
        storage::Exception const thrown(storage::ErrorCode(code), storage::AbsoluteIRI(u"memory:///reports/q%C3%A9 3.pkg"));
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

TEST(FailureTable, EveryOperationRefusesHostilePathsAndTouchesNothing) {
    HostFolder folder;
    std::u16string const base = folder.path16(), good = base + u"/existing";
    LocalFileSystemOps local;
    writeFile((folder.path() / "existing").string(), "kept");
    std::u16string longPath;
    while (longPath.size() <= 4200)
        longPath += u"/abcdefghij";
    for (auto const& [element, code] : std::vector<std::pair<std::u16string, errc::errc_t>>{
             {std::u16string(u"/a\0b", 4), errc::invalid_argument}, {u"/a\xD800z", errc::invalid_argument}, {u"/" + std::u16string(256, u'n'), errc::filename_too_long}, {longPath, errc::filename_too_long}})
        expectEveryFamilyRefuses(local, base + element, good, code, code == errc::invalid_argument);
    EXPECT_EQ(std::distance(std::filesystem::directory_iterator(folder.path()), {}), 1);

    storage::StorageSystemReference storage;
    VirtualFileSystemOps virt(storage);
    virt.createOutputStream(u"memory:///good", OpenMode::WriteBinary)->write("kept", 4);
    for (auto const* bad : {u"relative/path", u"memory:no-slashes", u"memory:///bad%escape"})
        expectEveryFamilyRefuses(virt, bad, u"memory:///good", errc::bad_address, false);
    expectEveryFamilyRefuses(virt, u"gopher:///a/b", u"memory:///good", errc::address_family_not_supported, false);
    EXPECT_EQ(virt.getSizeInBytes(u"memory:///good"), 4u);
}

} // namespace
} // namespace opc::test
