#pragma once

#include <opc/Export.hpp>

#include <boost/system/error_code.hpp>

#include <string>

namespace opc::detail {

/// The one translation of the local back end: turns the exception in flight into an error code
/// and a detail text. Call it only inside a catch handler. Host exceptions map to their POSIX
/// code with their text and ": " + their path; a `boost::filesystem::filesystem_error` keeps
/// its own code and text; anything else is EIO with "Unknown error". The detail is replaced.
/// If building the detail fails, that failure propagates.
OPC_API void translateHostException(std::string& detail, boost::system::error_code& ec);

/// A path for a detail text: UTF-8, or with replacement characters where it cannot be
/// converted strictly (a lone surrogate), so that wording a report never fails.
std::string pathText(std::u16string const& path);

/// Runs `work` and returns its result; on any exception translates it and returns `failure`.
/// This is the whole error handling of a local back-end operation.
template <class Result, class Work>
Result guardedHostCall(Result failure, std::string& detail, boost::system::error_code& ec, Work&& work) {
    try {
        return work();
    } catch (...) {
        translateHostException(detail, ec);
        return failure;
    }
}

/// The same for operations without a result.
template <class Work>
void guardedHostCall(std::string& detail, boost::system::error_code& ec, Work&& work) {
    try {
        work();
    } catch (...) {
        translateHostException(detail, ec);
    }
}

} // namespace opc::detail
