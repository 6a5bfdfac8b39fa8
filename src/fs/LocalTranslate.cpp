#include "fs/LocalTranslate.hpp"

#include <opc/Exception.hpp>
#include <opc/Text.hpp>

#include <vela/filesystem/exceptions.hpp>

#include <boost/filesystem/exception.hpp>

namespace opc::detail {

namespace {

namespace host = vela::filesystem;
namespace errc = boost::system::errc;

// The host text, then ": " and the path when the exception names one.
std::string hostText(host::FsysExceptionBase const& e) {
    std::string text = e.what();
    if (!e.path().empty()) {
        text += ": ";
        text += pathText(e.path());
    }
    return text;
}

void report(host::FsysExceptionBase const& e, boost::system::error_code code, std::string& detail,
            boost::system::error_code& ec) {
    detail = hostText(e);
    ec = code;
}

} // namespace

// A path that cannot be converted strictly (a lone surrogate, the very reason the host refused
// it) is spelt with replacement characters instead: a failure to word the report must not
// replace the report, nor escape an operation that may not throw.
std::string pathText(std::u16string const& path) {
    try {
        return toUDEString(path);
    } catch (Exception const&) {
        return toUTF8String(path, false);
    }
}

void translateHostException(std::string& detail, boost::system::error_code& ec) {
    // The order matters: every host type derives from FsysExceptionBase.
    try {
        throw;
    } catch (host::AccessDenied const& e) {
        report(e, errc::make_error_code(errc::permission_denied), detail, ec);
    } catch (host::PathNotFound const& e) {
        report(e, errc::make_error_code(errc::no_such_file_or_directory), detail, ec);
    } catch (host::FileExistsError const& e) {
        report(e, errc::make_error_code(errc::file_exists), detail, ec);
    } catch (host::FileNameTooLarge const& e) {
        report(e, errc::make_error_code(errc::filename_too_long), detail, ec);
    } catch (host::NotDirectoryError const& e) {
        report(e, errc::make_error_code(errc::not_a_directory), detail, ec);
    } catch (host::DirectoryNotEmpty const& e) {
        report(e, errc::make_error_code(errc::directory_not_empty), detail, ec);
    } catch (host::FileIsDirectory const& e) {
        report(e, errc::make_error_code(errc::is_a_directory), detail, ec);
    } catch (host::InvalidOperation const& e) {
        report(e, errc::make_error_code(errc::operation_not_supported), detail, ec);
    } catch (host::InvalidArgument const& e) {
        report(e, errc::make_error_code(errc::invalid_argument), detail, ec);
    } catch (host::FileNameConversionFailure const& e) {
        report(e, errc::make_error_code(errc::invalid_argument), detail, ec);
    } catch (host::SystemError const& e) {
        report(e, boost::system::error_code(e.error_number(), boost::system::system_category()), detail, ec);
    } catch (host::FsysExceptionBase const& e) {
        report(e, errc::make_error_code(errc::io_error), detail, ec);
    } catch (boost::filesystem::filesystem_error const& e) {
        detail = e.what();
        ec = e.code();
    } catch (...) {
        detail = "Unknown error";
        ec = errc::make_error_code(errc::io_error);
    }
}

} // namespace opc::detail
