#pragma once

// Internal to the virtual back end: its one error translation and the frame every do* body
// runs in. Exported only so that tests can feed the translation each exception type directly.

#include <opc/Export.hpp>

#include <boost/system/error_code.hpp>

#include <string>
#include <utility>

namespace opc::detail {

/// Turns the exception being handled into a detail text and a generic-category error code.
/// Call only from inside a catch handler. An invalid IRI gives `bad_address`, an unknown
/// scheme `address_family_not_supported`, a storage exception the code of its storage error
/// code (an unknown storage code leaves `ec` untouched), any other `std::runtime_error` and
/// anything else `io_error`. The detail is replaced, never appended to.
OPC_API void translateStorageException(std::string& detail, boost::system::error_code& ec) noexcept;

/// Runs `work`; on any exception translates it and returns `failure` instead.
template <class R, class Work>
R guarded(std::string& detail, boost::system::error_code& ec, R failure, Work&& work) noexcept {
    try {
        return std::forward<Work>(work)();
    } catch (...) {
        translateStorageException(detail, ec);
        return failure;
    }
}

/// Runs `work`; on any exception translates it.
template <class Work>
void guarded(std::string& detail, boost::system::error_code& ec, Work&& work) noexcept {
    try {
        std::forward<Work>(work)();
    } catch (...) {
        translateStorageException(detail, ec);
    }
}

} // namespace opc::detail
