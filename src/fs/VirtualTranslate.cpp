#include "fs/VirtualTranslate.hpp"

#include <opc/Text.hpp>

#include <stratum/storage/vfs/Exception.hpp>

#include <array>
#include <stdexcept>

namespace opc::detail {
namespace {

namespace errc = boost::system::errc;
namespace store = stratum::storage::vfs;

// Storage error code (by number) to the generic error it stands for.
constexpr std::array<errc::errc_t, 13> kStorageErrors = {
    errc::directory_not_empty,            // 0
    errc::no_such_device_or_address,      // 1
    errc::permission_denied,              // 2
    errc::file_exists,                    // 3
    errc::no_such_file_or_directory,      // 4
    errc::read_only_file_system,          // 5
    errc::file_too_large,                 // 6
    errc::resource_unavailable_try_again, // 7
    errc::no_space_on_device,             // 8
    errc::io_error,                       // 9
    errc::state_not_recoverable,          // 10
    errc::operation_not_supported,        // 11
    errc::device_or_resource_busy,        // 12: not the expected version (CommitOptions::versionMismatch)
};

// Narrow text of a UTF-16 fragment for a detail. An invalid IRI may hold invalid UTF-16 (a lone
// surrogate); reporting it must not become a second failure, so such text is converted leniently.
std::string narrow(std::u16string const& text) {
    try {
        return toUDEString(text);
    } catch (...) {
    }
    try {
        return toUTF8String(text, false);
    } catch (...) {
        return {};
    }
}

} // namespace

void translateStorageException(std::string& detail, boost::system::error_code& ec) noexcept {
    try {
        throw;
    } catch (store::InvalidIRIException const& e) {
        detail = std::string(e.what()) + ": " + narrow(e.getInvalidIRIString());
        ec = errc::make_error_code(errc::bad_address);
    } catch (store::UnsupportedIRISchemeException const& e) {
        detail = std::string(e.what()) + ": " + narrow(e.getScheme());
        ec = errc::make_error_code(errc::address_family_not_supported);
    } catch (store::Exception const& e) {
        detail = e.getMessage();
        std::u16string const location = e.getLocation().toString();
        if (!location.empty())
            detail += ": " + narrow(location);
        auto const code = static_cast<unsigned long long>(e.getErrorCode());
        // An unknown storage code leaves `ec` as it was: with a cleared code the operation
        // then counts as successful, carrying only the detail.
        if (code < kStorageErrors.size())
            ec = errc::make_error_code(kStorageErrors[code]);
    } catch (std::runtime_error const& e) {
        detail = e.what();
        ec = errc::make_error_code(errc::io_error);
    } catch (...) {
        detail = "Unknown error";
        ec = errc::make_error_code(errc::io_error);
    }
}

} // namespace opc::detail
