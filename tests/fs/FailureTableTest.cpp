// Every failure end to end: an errno through the host type (each has a code of its own), a storage
// code and foreign exceptions through either back end's translation, and the texts of the back
// ends' own through the public frame.
#include "fs/LocalTranslate.hpp"
#include "fs/Suite.hpp"
#include "fs/VirtualTranslate.hpp"

#include <vela/filesystem/exceptions.hpp>

#include <boost/filesystem/exception.hpp>

#include <cstring>

namespace opc::test {
namespace {

namespace host = vela::filesystem;
using Raise = std::function<void()>;

error_code generic(errc::errc_t e) { return errc::make_error_code(e); }
error_code system(int e) { return error_code(e, boost::system::system_category()); }

using Translation = void (*)(std::string&, error_code&);
Translation const frame = nullptr; ///< the public frame's own exception, as thrown

/// What `translation` makes of the exception `raise` throws, starting from a stale detail and code.
std::pair<std::string, error_code> translate(Raise const& raise, Translation translation) {
    std::pair<std::string, error_code> out{"left over", generic(errc::timed_out)};
    try {
        raise();
    } catch (...) {
        translation(out.first, out.second);
    }
    return out;
}

std::u16string const hostPath = u"/data/caf\u00E9/x";
std::string const hostPathUtf8 = "/data/caf\xC3\xA9/x";

TEST(FailureTable, FailuresThroughTheirTranslation) {
    Translation const local = detail::translateHostException, virt = detail::translateStorageException;
    auto const fromErrno = [](int error, host::errno_origin origin = host::errno_origin::general) {
        return [=] { host::throw_from_errno(error, hostPath, origin); };
    };
    auto const text = [](int error) { return std::string(std::strerror(error)) + ": " + hostPathUtf8; };
    auto const rmdir = host::errno_origin::remove_directory;
    boost::filesystem::filesystem_error const boostSaid("boost said", system(EROFS));
    vfs::Exception const ioError(vfs::ErrorCode::IOError, vfs::AbsoluteIRI());
    HostFolder folder;
    LocalFileSystemOps host;
    StorageSystemReference storage;
    VirtualFileSystemOps memory(storage);
    auto in = [&](std::string const& relative) { return (folder.path() / relative).string(); };
    std::vector<std::u16string> sink;
    std::u16string const fileIri = memory.normalizePath(folder.path16());
    auto const notFound = vfs::Exception(vfs::ErrorCode::NotFound, vfs::AbsoluteIRI()).getMessage();
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
        {virt, [] { vfs::AbsoluteIRI{u"memory:relative/p\u00E9"}; }, generic(errc::bad_address),
         "Invalid IRI: memory:relative/p\xC3\xA9"},
        {virt, [] { vfs::AbsoluteIRI{u"gopher:///a/b"}; }, generic(errc::address_family_not_supported),
         "Unsupported IRI scheme: gopher"},
        {virt, [&] { throw ioError; }, generic(errc::io_error), ioError.getMessage()},
        {virt, [] { throw std::overflow_error("too big"); }, generic(errc::io_error), "too big"},
        {virt, [] { throw std::logic_error("not runtime"); }, generic(errc::io_error), "Unknown error"},
        {frame, [&] { host.copy(folder.path16() + u"/caf\u00E9", folder.path16() + u"/x", Overwrite); }, generic(errc::no_such_file_or_directory),
         "copy failed: Source does not exist: " + in("caf\xC3\xA9")},
        {frame, [&] { host.setPermissions(u"", Perms::Perms_tag(0644)); }, generic(errc::invalid_argument),
         "setPermissions failed: Empty path not permitted"},
        {frame, [&] { host.createInputStream(folder.path16() + u"/none", OpenMode::ReadBinary); },
         generic(errc::no_such_file_or_directory), std::string("createInputStream failed: ") + std::strerror(ENOENT) + ": " + in("none")},
        {frame, [&] { host.createInputStream(folder.path16(), OpenMode::Truncate); }, // refused without an errno
         generic(errc::invalid_argument), std::string("createInputStream failed: ") + std::strerror(EINVAL) + ": " + folder.path().string()},
        {frame, [&] { memory.getLinkTarget(u"memory:///"); }, generic(errc::operation_not_supported),
         "getLinkTarget failed: Symlinks are not supported"},
        {frame, [&] { memory.getFiles(u"memory:///none", sink, true); }, generic(errc::no_such_file_or_directory),
         "getFiles failed: " + notFound + ": memory:///none"},
        {frame, [&] { memory.createInputStream(u"memory:///none", OpenMode::ReadBinary); }, generic(errc::no_such_file_or_directory),
         "createInputStream failed: " + notFound + ": memory:///none"},
        {frame, [&] { memory.createInputStream(fileIri + u"/none", OpenMode::ReadBinary); }, generic(errc::no_such_file_or_directory),
         "createInputStream failed: " + notFound + ": " + toUDEString(fileIri) + "/none"},
        {frame, [&] { memory.createInputStream(u"memory:///", OpenMode::ReadBinary); }, generic(errc::io_error),
         "createInputStream failed: " + vfs::Exception(vfs::ErrorCode::IOError, vfs::AbsoluteIRI()).getMessage() +
             " (a folder cannot be read): memory:///"},
        {frame, [&] { memory.createInputStream(u"memory:///", OpenMode::Truncate); }, generic(errc::io_error), // refused mode: no detail
         "createInputStream failed: "},
    };
    // These errnos keep their own number in the generic category.
    for (int error : {EACCES, ENOENT, EEXIST, ENAMETOOLONG, ENOTDIR, ENOTEMPTY, EISDIR, EOPNOTSUPP, EINVAL})
        rows.push_back({local, fromErrno(error), generic(errc::errc_t(error)), text(error)});
    // Every storage code; from thirteen on, the detail is written and the code left as it was.
    errc::errc_t const storageCodes[] = {
        errc::directory_not_empty, errc::no_such_device_or_address, errc::permission_denied,
        errc::file_exists, errc::no_such_file_or_directory, errc::read_only_file_system,
        errc::file_too_large, errc::resource_unavailable_try_again, errc::no_space_on_device,
        errc::io_error, errc::state_not_recoverable, errc::operation_not_supported, errc::device_or_resource_busy};
    for (int code : {0, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 255}) {
        vfs::Exception const thrown(vfs::ErrorCode(code), vfs::AbsoluteIRI(u"memory:///reports/q%C3%A9 3.pkg"));
        rows.push_back({virt, [=] { throw thrown; }, generic(code < 13 ? storageCodes[code] : errc::timed_out),
                        thrown.getMessage() + ": memory:///reports/q\xC3\xA9%203.pkg"});
    }
    for (auto const& row : rows) {
        auto const [said, ec] = row.translation ? translate(row.raise, row.translation) : thrown(row.raise);
        EXPECT_EQ(ec, row.code) << row.detail;
        EXPECT_EQ(&ec.category(), &row.code.category()) << row.detail;
        EXPECT_EQ(said, row.detail);
    }
}

} // namespace
} // namespace opc::test
