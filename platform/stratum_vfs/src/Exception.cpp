#include <stratum/storage/vfs/Exception.hpp>

#include "Utf.hpp"

namespace stratum::storage::vfs {

namespace {

std::string makeMessage(ErrorCode code, std::string const& detail) {
    std::string message = describeErrorCode(code);
    if (!detail.empty()) {
        message += " (" + detail + ")";
    }
    return message;
}

std::string makeWhat(std::string const& message, AbsoluteIRI const& location) {
    std::u16string text = location.toString();
    return text.empty() ? message : message + ": " + detail::toUtf8Lenient(text);
}

} // namespace

char const* describeErrorCode(ErrorCode code) {
    switch (code) {
    case ErrorCode::DirectoryNotEmpty: return "Directory not empty";
    case ErrorCode::NoSuchDeviceOrAddress: return "No such device or address";
    case ErrorCode::PermissionDenied: return "Permission denied";
    case ErrorCode::FileExists: return "File exists";
    case ErrorCode::NotFound: return "Not found";
    case ErrorCode::ReadOnlyFileSystem: return "Read-only storage";
    case ErrorCode::FileTooLarge: return "File too large";
    case ErrorCode::TryAgain: return "Resource temporarily unavailable";
    case ErrorCode::NoSpace: return "No space left in storage";
    case ErrorCode::IOError: return "Input/output error";
    case ErrorCode::StateNotRecoverable: return "State not recoverable";
    case ErrorCode::NotSupported: return "Operation not supported";
    case ErrorCode::VersionMismatch: return "Not the expected version";
    }
    return "Unknown storage error";
}

Exception::Exception(ErrorCode code, AbsoluteIRI const& location) : Exception(code, location, std::string()) {}

Exception::Exception(ErrorCode code, AbsoluteIRI const& location, std::string const& detail)
    : std::runtime_error(makeWhat(makeMessage(code, detail), location)), code_(code), location_(location),
      message_(makeMessage(code, detail)) {}

Exception::~Exception() = default;

std::string const& Exception::getMessage() const { return message_; }
ErrorCode Exception::getErrorCode() const { return code_; }
AbsoluteIRI const& Exception::getLocation() const { return location_; }

InvalidIRIException::InvalidIRIException(std::u16string iri)
    : std::runtime_error("Invalid IRI"), iri_(std::move(iri)) {}
InvalidIRIException::~InvalidIRIException() = default;
std::u16string const& InvalidIRIException::getInvalidIRIString() const { return iri_; }

UnsupportedIRISchemeException::UnsupportedIRISchemeException(std::u16string scheme)
    : std::runtime_error("Unsupported IRI scheme"), scheme_(std::move(scheme)) {}
UnsupportedIRISchemeException::~UnsupportedIRISchemeException() = default;
std::u16string const& UnsupportedIRISchemeException::getScheme() const { return scheme_; }

} // namespace stratum::storage::vfs
