#pragma once

#include <stratum/export.hpp>
#include <stratum/storage/vfs/IRI.hpp>

#include <stdexcept>
#include <string>

namespace stratum::storage::vfs {

/// Why a storage operation failed. The values are fixed (0 to 12): callers translate them to
/// POSIX error numbers by value. Each names the POSIX condition it stands for.
enum class ErrorCode : int {
    DirectoryNotEmpty = 0,     ///< a folder still holds items (ENOTEMPTY)
    NoSuchDeviceOrAddress = 1, ///< the storage behind the IRI is not reachable (ENXIO)
    PermissionDenied = 2,      ///< the item is read-only or access is refused (EACCES)
    FileExists = 3,            ///< the destination or the item to create already exists (EEXIST)
    NotFound = 4,              ///< no such file or folder, or a missing parent folder (ENOENT)
    ReadOnlyFileSystem = 5,    ///< the storage refuses all changes (EROFS)
    FileTooLarge = 6,          ///< (EFBIG)
    TryAgain = 7,              ///< a transient condition (EAGAIN)
    NoSpace = 8,               ///< (ENOSPC)
    IOError = 9,               ///< any other failure of the storage (EIO)
    StateNotRecoverable = 10,  ///< (ENOTRECOVERABLE)
    NotSupported = 11,         ///< the operation makes no sense for this item or scheme (ENOTSUP)
    VersionMismatch = 12       ///< a conditional change found another version than expected (EBUSY)
};

/// A fixed English sentence for each code ("Directory not empty", "Not found", ...); values
/// outside 0 to 12 give "Unknown storage error".
STRATUM_API char const* describeErrorCode(ErrorCode code);

/// A failed storage operation: what went wrong (`getErrorCode()`) and where (`getLocation()`).
///
/// `getMessage()` is the sentence of the code, followed by " (" detail ")" when the operation
/// had more to say (for example the host's own text). `what()` is the message followed by ": "
/// and the location's text (UTF-8) when the location is not the empty IRI.
class STRATUM_API Exception : public std::runtime_error {
public:
    Exception(ErrorCode code, AbsoluteIRI const& location);
    Exception(ErrorCode code, AbsoluteIRI const& location, std::string const& detail);
    ~Exception() override;

    /// The message without the location.
    std::string const& getMessage() const;
    ErrorCode getErrorCode() const;
    AbsoluteIRI const& getLocation() const;

private:
    ErrorCode code_;
    AbsoluteIRI location_;
    std::string message_;
};

/// Malformed IRI text. `what()` is "Invalid IRI"; the offending text is `getInvalidIRIString()`.
/// Deliberately not an `Exception`: it is a fault in the caller's text, not in storage.
class STRATUM_API InvalidIRIException : public std::runtime_error {
public:
    explicit InvalidIRIException(std::u16string iri);
    ~InvalidIRIException() override;
    std::u16string const& getInvalidIRIString() const;

private:
    std::u16string iri_;
};

/// A well-formed IRI whose scheme no provider serves. `what()` is "Unsupported IRI scheme";
/// the scheme as written is `getScheme()`.
class STRATUM_API UnsupportedIRISchemeException : public std::runtime_error {
public:
    explicit UnsupportedIRISchemeException(std::u16string scheme);
    ~UnsupportedIRISchemeException() override;
    std::u16string const& getScheme() const;

private:
    std::u16string scheme_;
};

} // namespace stratum::storage::vfs
